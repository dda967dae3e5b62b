// Test rig for the image pipeline: a raw frame and the output buffers of one output configuration
// in managed memory, sized as a camera sizes them, with guard bytes, poisoning and a run of cudaISP
// that waits for the stream. Also the raw-frame generators the kernel tests share.
#pragma once

#include "CUDAKernels.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace ruvo {
namespace test {

struct ProcessedSize {
    unsigned width;
    unsigned height;
};

// The four processed sizes of the pipeline, smallest first.
const std::vector<ProcessedSize>& supportedSizes();
// Sensor mode sizes beyond those, as processed: 1640 x 1232 cropped to 1632 x 1232, 3280 x 2464,
// 4032 x 3040.
const std::vector<ProcessedSize>& sensorModeSizes();
std::string sizeName(const ProcessedSize& size);

// Bytes of output buffer `buffer` of `configuration` as the output buffer table lists it.
size_t tableBytes(int configuration, size_t buffer, unsigned width, unsigned height);

struct Gammas {
    float r = 1.0f;
    float g = 1.0f;
    float b = 1.0f;
    float cr = 1.0f;
    float cb = 1.0f;
};

// Raw frame and output buffers of one configuration; every buffer is the larger of the table size
// and what the kernels write, followed by kGuardBytes guard bytes.
class IspRig {
public:
    static constexpr size_t kGuardBytes = 64;

    IspRig(int configuration, ProcessedSize size);
    ~IspRig();
    IspRig(const IspRig&) = delete;
    IspRig& operator=(const IspRig&) = delete;

    int configuration() const { return _configuration; }
    unsigned width() const { return _size.width; }
    unsigned height() const { return _size.height; }
    size_t bufferCount() const { return _buffers.size(); }
    size_t bufferBytes(size_t k) const { return _bytes[k]; }  // without the guard

    uint16_t* raw() const { return _raw; }
    unsigned char* buffer(size_t k) const { return _buffers[k]; }
    std::vector<unsigned char> copy(size_t k) const;  // buffer k with its guard bytes
    const int* histogram() const { return reinterpret_cast<const int*>(_buffers[4]); }

    // Sets every byte of every buffer, guards included.
    void poison(unsigned char value);
    void fillRaw(const std::vector<uint16_t>& samples);
    // The scratch length the histogram is told it has (the allocation stays as it is).
    void limitScratch(int bytes) { _scratchLength = bytes; }

    // cudaISP on the rig's stream, then a stream synchronisation.
    void run(capture::CUDADemosaicMode mode, const Gammas& gammas = {}, float colorModelThreshold = 10.0f);

private:
    int _configuration;
    ProcessedSize _size;
    uint16_t* _raw = nullptr;
    std::vector<unsigned char*> _buffers;
    std::vector<size_t> _bytes;
    unsigned char* _scratch = nullptr;
    unsigned int _scratchBytes = 0;
    int _scratchLength = 0;
    std::vector<unsigned char**> _extra;
    std::vector<int*> _extraLengths;
    unsigned char* _scratchPointer[1] = {nullptr};
    cudaStream_t _stream = nullptr;
};

// Raw frames of width x height samples, Bayer B G / G R, 10-bit values in the upper bits of a
// 14-bit field (value x 16): per-channel constants with noise of +-noise 10-bit steps, clamped.
std::vector<uint16_t> colourFrame(unsigned width, unsigned height, int red, int green, int blue, int noise,
                                  uint32_t seed);
// Uniformly random values (0 twice as likely as the others).
inline std::vector<uint16_t> randomSensorFrame(unsigned width, unsigned height, uint32_t seed) {
    return colourFrame(width, height, 511, 511, 511, 512, seed);
}

}  // namespace test
}  // namespace ruvo
