// Managed-memory rig for cudaISP runs and the raw-frame generators of the kernel tests.
#include "kernel_buffers.h"

#include "CUDAUtils.h"
#include "OutputBufferConfig.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <random>

namespace ruvo {
namespace test {

using capture::CUDA_OUTPUT_BUFFER_CONFIG;
using capture::Frame;

const std::vector<ProcessedSize>& supportedSizes() {
    static const std::vector<ProcessedSize> sizes = {{672, 384}, {1280, 720}, {1920, 1152}, {2688, 1520}};
    return sizes;
}

const std::vector<ProcessedSize>& sensorModeSizes() {
    static const std::vector<ProcessedSize> sizes = {{1632, 1232}, {3280, 2464}, {4032, 3040}};
    return sizes;
}

std::string sizeName(const ProcessedSize& size) {
    return std::to_string(size.width) + "x" + std::to_string(size.height);
}

size_t tableBytes(int configuration, size_t buffer, unsigned width, unsigned height) {
    const auto& row = CUDA_OUTPUT_BUFFER_CONFIG.at(static_cast<size_t>(configuration));
    if (buffer >= row.size()) return 0;
    const capture::OutputBufferDefinition& definition = row[buffer];
    const int level = definition.outputLevel > 0 ? definition.outputLevel : 0;
    const size_t w = width >> level;
    const size_t h = height >> level;
    switch (definition.format) {
        case Frame::YUV420p:
            return w * h * 3 / 2;
        case Frame::Y8:
            return w * h;
        case Frame::RGB24:
        case Frame::BGR24:
            return w * h * 3;
        case Frame::HISTOGRAM8:
            return 256 * sizeof(int);
        default:
            return 0;
    }
}

IspRig::IspRig(int configuration, ProcessedSize size) : _configuration(configuration), _size(size) {
    const size_t pixels = static_cast<size_t>(size.width) * size.height;
    CUDA_CHECK(cudaMallocManaged((void**)&_raw, pixels * sizeof(uint16_t), cudaMemAttachGlobal));
    const bool known = configuration >= 0 && configuration < static_cast<int>(CUDA_OUTPUT_BUFFER_CONFIG.size());
    const size_t count = known ? CUDA_OUTPUT_BUFFER_CONFIG[static_cast<size_t>(configuration)].size() : 1;
    for (size_t k = 0; k < count; ++k) {
        const size_t table = known ? tableBytes(configuration, k, size.width, size.height) : pixels * 3 / 2;
        const size_t bytes = std::max(table, capture::kernelOutputBytes(configuration, k, size.width, size.height));
        unsigned char* buffer = nullptr;
        CUDA_CHECK(cudaMallocManaged((void**)&buffer, bytes + kGuardBytes, cudaMemAttachGlobal));
        _buffers.push_back(buffer);
        _bytes.push_back(bytes);
    }
    _extra.assign(count, nullptr);
    _extraLengths.assign(count, nullptr);
    if (configuration == capture::YUV_2_4_SKIN_HISTOGRAM) {
        capture::allocateCUBBuffer(_scratchBytes, &_scratch, "DeviceHistogram::HistogramEven",
                                   static_cast<int>(size.width / 2), static_cast<int>(size.height / 2));
        _scratchPointer[0] = _scratch;
        _scratchLength = static_cast<int>(_scratchBytes);
        _extra[4] = _scratchPointer;
        _extraLengths[4] = &_scratchLength;
    }
    CUDA_CHECK(cudaStreamCreateWithFlags(&_stream, cudaStreamNonBlocking));
}

namespace {

// Runtime calls of a destructor, which must not throw: a failure is reported and the rest go on.
void expectSuccess(cudaError_t result, const char* call) {
    if (result != cudaSuccess) std::fprintf(stderr, "%s failed: %s\n", call, cudaGetErrorString(result));
}

}  // namespace

IspRig::~IspRig() {
    expectSuccess(cudaStreamDestroy(_stream), "cudaStreamDestroy(_stream)");
    expectSuccess(cudaFree(_scratch), "cudaFree(_scratch)");
    for (unsigned char* buffer : _buffers) expectSuccess(cudaFree(buffer), "cudaFree(buffer)");
    expectSuccess(cudaFree(_raw), "cudaFree(_raw)");
}

std::vector<unsigned char> IspRig::copy(size_t k) const {
    return std::vector<unsigned char>(_buffers[k], _buffers[k] + _bytes[k] + kGuardBytes);
}

void IspRig::poison(unsigned char value) {
    for (size_t k = 0; k < _buffers.size(); ++k) std::memset(_buffers[k], value, _bytes[k] + kGuardBytes);
}

void IspRig::fillRaw(const std::vector<uint16_t>& samples) { std::copy(samples.begin(), samples.end(), _raw); }

void IspRig::run(capture::CUDADemosaicMode mode, const Gammas& gammas, float colorModelThreshold) {
    capture::cudaISP(_stream, _configuration, _buffers.size(), mode, _raw, _buffers.data(), _extra.data(),
                     _extraLengths.data(), _size.width, _size.height, gammas.r, gammas.g, gammas.b, gammas.cr,
                     gammas.cb, colorModelThreshold);
    CUDA_CHECK(cudaStreamSynchronize(_stream));
}

std::vector<uint16_t> colourFrame(unsigned width, unsigned height, int red, int green, int blue, int noise,
                                  uint32_t seed) {
    std::mt19937 random(seed);
    std::uniform_int_distribution<int> jitter(-noise, noise);
    std::vector<uint16_t> samples(static_cast<size_t>(width) * height);
    for (unsigned y = 0; y < height; ++y) {
        for (unsigned x = 0; x < width; ++x) {
            const int base = (y % 2 == 0) ? (x % 2 == 0 ? blue : green) : (x % 2 == 0 ? green : red);
            const int value = std::clamp(base + jitter(random), 0, 1023);
            samples[static_cast<size_t>(y) * width + x] = static_cast<uint16_t>(value * 16);
        }
    }
    return samples;
}

}  // namespace test
}  // namespace ruvo
