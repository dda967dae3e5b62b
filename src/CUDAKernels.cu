// CUDA build of the image pipeline: the __global__ kernels (thin wrappers around the per-thread
// functions of src/kernels/), the dispatcher that enqueues a configuration's kernel sequence on a
// bucket's stream with the fixed launch geometry, and the CUB histogram with its scratch memory.
#undef NDEBUG  // an unsupported processed size must abort in every build type

#include "CUDAKernels.h"

#include "CUDAUtils.h"
#include "kernels/ColourKernels.h"
#include "kernels/CubHistogram.h"
#include "kernels/GradientKernels.h"
#include "kernels/IspDispatch.h"
#include "kernels/IspPlan.h"
#include "kernels/LaunchGeometry.h"
#include "kernels/PyramidKernels.h"
#include "kernels/SkinKernels.h"

#include <cub/device/device_histogram.cuh>

#include <cstring>
#include <string>

namespace ruvo {
namespace capture {

namespace {

__device__ __forceinline__ unsigned threadX() { return blockIdx.x * blockDim.x + threadIdx.x; }
__device__ __forceinline__ unsigned threadY() { return blockIdx.y * blockDim.y + threadIdx.y; }

}  // namespace

__global__ void yuv420_fast(cudaKernelParams params, unsigned char* yuv) {
    kernels::Yuv420Fast{params, {yuv}}(threadX(), threadY());
}

__global__ void yuv420_lanczos(cudaKernelParams params, unsigned char* yuv) {
    kernels::Yuv420Lanczos{params, {yuv}}(threadX(), threadY());
}

__global__ void yuv420_fast_bggr(cudaKernelParams params, unsigned char* yuv, unsigned char* mosaic) {
    kernels::Yuv420FastBggr{params, {yuv, mosaic}}(threadX(), threadY());
}

__global__ void yuv420_rgb_only(cudaKernelParams params, unsigned char* rgb) {
    kernels::Yuv420RgbOnly{params, {rgb}}(threadX(), threadY());
}

__global__ void yuv420_no_demosaic_rgb(cudaKernelParams params, unsigned char* rgb, unsigned char* yuv) {
    kernels::Yuv420NoDemosaicRgb{params, {rgb, yuv}}(threadX(), threadY());
}

__global__ void yuv420_fast_segment_skin(cudaKernelParams params, unsigned char* yuv, unsigned char* skin) {
    kernels::Yuv420FastSegmentSkin{params, {yuv, skin}}(threadX(), threadY());
}

__global__ void yuv420_fast_skin_histogram(cudaKernelParams params, unsigned char* yuv, unsigned char* skinY,
                                           float colorModelThreshold) {
    kernels::Yuv420FastSkinHistogram{params, {yuv, skinY, colorModelThreshold}}(threadX(), threadY());
}

__global__ void step_down_YUV(const unsigned char* in, int width, int height, unsigned char* out) {
    kernels::StepDownYuv{in, width, height, out}(threadX(), threadY());
}

__global__ void step_down_Y_twice(const unsigned char* in, int width, int height, unsigned char* out) {
    kernels::StepDownYTwice{in, width, height, out}(threadX(), threadY());
}

__global__ void step_down_erode_Y(const unsigned char* in, int width, int height, unsigned char* out) {
    kernels::StepDownErodeY{in, width, height, out}(threadX(), threadY());
}

__global__ void gradient(const unsigned char* in, int width, int height, unsigned char* gx, unsigned char* gy) {
    kernels::Gradient{{in, width, height, gx, gy}}(threadX(), threadY());
}

__global__ void gradient_magnitude(const unsigned char* in, int width, int height, unsigned char* magnitude,
                                   unsigned char* orientation) {
    kernels::GradientMagnitude{{in, width, height, magnitude, orientation}}(threadX(), threadY());
}

__global__ void step_down_YUV_and_gradient(const unsigned char* in, int width, int height, unsigned char* half,
                                           unsigned char* gx, unsigned char* gy) {
    kernels::StepDownYuvAndGradient{{in, width, height, half, gx, gy}}(threadX(), threadY());
}

__global__ void step_down_YUV_and_gradient_magnitude(const unsigned char* in, int width, int height,
                                                     unsigned char* half, unsigned char* magnitude,
                                                     unsigned char* orientation) {
    kernels::StepDownYuvAndGradientMagnitude{{in, width, height, half, magnitude, orientation}}(threadX(), threadY());
}

namespace cub {

cudaError_t DeviceHistogram::HistogramEven(void* d_temp_storage, size_t& temp_storage_bytes,
                                           const unsigned char* d_samples, int* d_histogram, int num_levels,
                                           int lower_level, int upper_level, int num_samples, cudaStream_t stream,
                                           bool) {
    return ::cub::DeviceHistogram::HistogramEven(d_temp_storage, temp_storage_bytes, d_samples, d_histogram, num_levels,
                                                 lower_level, upper_level, num_samples, stream);
}

}  // namespace cub

namespace {

// Enqueues one grid launch of the plan on `stream`. Launch failures are not checked here: the
// caller learns of them when it synchronises the stream.
void enqueueLaunch(const kernels::PlannedLaunch& launch, const kernels::LaunchGeometry& geometry,
                   const cudaKernelParams& params, unsigned char** targets, float threshold, cudaStream_t stream) {
    using kernels::KernelId;
    const kernels::LaunchShape shape = geometry.shape(launch.step);
    const dim3 grid(shape.grid.x, shape.grid.y, 1);
    const dim3 block(shape.block.x, shape.block.y, 1);
    const kernels::LaunchArguments a = kernels::launchArguments(launch, targets, params.width, params.height);
    switch (launch.kernel) {
        case KernelId::yuv420_fast:
            return yuv420_fast<<<grid, block, 0, stream>>>(params, a.out[0]);
        case KernelId::yuv420_lanczos:
            return yuv420_lanczos<<<grid, block, 0, stream>>>(params, a.out[0]);
        case KernelId::yuv420_fast_bggr:
            return yuv420_fast_bggr<<<grid, block, 0, stream>>>(params, a.out[0], a.out[1]);
        case KernelId::yuv420_rgb_only:
            return yuv420_rgb_only<<<grid, block, 0, stream>>>(params, a.out[0]);
        case KernelId::yuv420_no_demosaic_rgb:
            return yuv420_no_demosaic_rgb<<<grid, block, 0, stream>>>(params, a.out[0], a.out[1]);
        case KernelId::yuv420_fast_segment_skin:
            return yuv420_fast_segment_skin<<<grid, block, 0, stream>>>(params, a.out[0], a.out[1]);
        case KernelId::yuv420_fast_skin_histogram:
            return yuv420_fast_skin_histogram<<<grid, block, 0, stream>>>(params, a.out[0], a.out[1], threshold);
        case KernelId::step_down_YUV:
            return step_down_YUV<<<grid, block, 0, stream>>>(a.in, a.width, a.height, a.out[0]);
        case KernelId::step_down_Y_twice:
            return step_down_Y_twice<<<grid, block, 0, stream>>>(a.in, a.width, a.height, a.out[0]);
        case KernelId::step_down_erode_Y:
            return step_down_erode_Y<<<grid, block, 0, stream>>>(a.in, a.width, a.height, a.out[0]);
        case KernelId::gradient:
            return gradient<<<grid, block, 0, stream>>>(a.in, a.width, a.height, a.out[0], a.out[1]);
        case KernelId::gradient_magnitude:
            return gradient_magnitude<<<grid, block, 0, stream>>>(a.in, a.width, a.height, a.out[0], a.out[1]);
        case KernelId::step_down_YUV_and_gradient:
            return step_down_YUV_and_gradient<<<grid, block, 0, stream>>>(a.in, a.width, a.height, a.out[0], a.out[1],
                                                                          a.out[2]);
        case KernelId::step_down_YUV_and_gradient_magnitude:
            return step_down_YUV_and_gradient_magnitude<<<grid, block, 0, stream>>>(a.in, a.width, a.height, a.out[0],
                                                                                    a.out[1], a.out[2]);
        case KernelId::histogram_even:
            return;
    }
}

// Histogram of the half-size skin luminance plane (target 3) into the 256 counters of target 4,
// with the scratch memory allocated for target 4.
void histogramOfSkinLuminance(cudaStream_t& stream, unsigned char** targets, unsigned char*** extra, int** extraLengths,
                              unsigned int width, unsigned int height) {
    void* d_temp_storage = extra[4][0];
    size_t temp_storage_bytes = static_cast<size_t>(extraLengths[4][0]);
    int* d_hist = reinterpret_cast<int*>(targets[4]);
    const int n_levels = 257;
    // clang-format off
    CUDA_CHECK(cub::DeviceHistogram::HistogramEven( d_temp_storage, temp_storage_bytes, targets[3], d_hist, n_levels, 0, 256, (int)(width*height/4), stream, false));
    // clang-format on
}

}  // namespace

void cudaISP(cudaStream_t& stream, int outputBufferConfiguration, size_t /*nTargets*/, CUDADemosaicMode demosaicMode,
             const unsigned short* sbggr, unsigned char** targets, unsigned char*** extra, int** extraLengths,
             unsigned int width, unsigned int height, float gammaR, float gammaG, float gammaB, float gammaCr,
             float gammaCb, float colorModelThreshold) {
    const cudaKernelParams params{sbggr, width, height, gammaR, gammaG, gammaB, gammaCr, gammaCb};
    kernels::dispatchIsp(
        outputBufferConfiguration, demosaicMode, width, height,
        [&](const kernels::PlannedLaunch& launch, const kernels::LaunchGeometry& geometry) {
            enqueueLaunch(launch, geometry, params, targets, colorModelThreshold, stream);
        },
        [&] { histogramOfSkinLuminance(stream, targets, extra, extraLengths, width, height); });
}

void allocateCUBBuffer(unsigned int& temp_size, unsigned char** temp_storage, const char* algorithm, int width,
                       int height) {
    temp_size = 0;
    if (std::strcmp(algorithm, "DeviceHistogram::HistogramEven") != 0) {
        throw std::string("CUB algorithm specification is invalid");
    }
    // clang-format off
    CUDA_CHECK(cub::DeviceHistogram::HistogramEven(NULL, temp_size, ((unsigned char*)NULL), ((int*)NULL), 257, 0, 256, width*height));
    // clang-format on
    if (temp_size != 0) CUDA_CHECK(cudaMalloc(temp_storage, temp_size));
}

size_t kernelOutputBytes(int configuration, size_t buffer, unsigned width, unsigned cudaHeight) {
    return kernels::plannedOutputBytes(configuration, buffer, width, cudaHeight);
}

}  // namespace capture
}  // namespace ruvo
