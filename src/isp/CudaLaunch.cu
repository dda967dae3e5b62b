// CUDA build's executor: the named __global__ kernels (thin wrappers around the per-thread
// functors of src/kernels/), the launch of each planned grid launch on a bucket's stream with the
// geometry table's shape, and the CUB histogram behind the adapter's call text.
#include "isp/CubHistogram.h"
#include "isp/KernelMap.h"
#include "isp/LaunchExecutor.h"
#include "isp/LaunchGeometry.h"

#include <cub/device/device_histogram.cuh>

namespace ruvo {
namespace capture {

namespace {

__device__ __forceinline__ unsigned threadX() { return blockIdx.x * blockDim.x + threadIdx.x; }
__device__ __forceinline__ unsigned threadY() { return blockIdx.y * blockDim.y + threadIdx.y; }

template <class Kernel>
__device__ __forceinline__ void runThread(const Kernel& kernel) {
    kernel(threadX(), threadY());
}

}  // namespace

// Every kernel is compiled for the largest block of the launch geometry table, so the compiler
// keeps its registers within what such a block may use.
#define RUVO_KERNEL __global__ void __launch_bounds__(kernels::kMaxThreadsPerBlock)

RUVO_KERNEL yuv420_fast(cudaKernelParams params, unsigned char* yuv) { runThread(kernels::Yuv420Fast{params, {yuv}}); }

RUVO_KERNEL yuv420_lanczos(cudaKernelParams params, unsigned char* yuv) {
    runThread(kernels::Yuv420Lanczos{params, {yuv}});
}

RUVO_KERNEL yuv420_fast_bggr(cudaKernelParams params, unsigned char* yuv, unsigned char* mosaic) {
    runThread(kernels::Yuv420FastBggr{params, {yuv, mosaic}});
}

RUVO_KERNEL yuv420_rgb_only(cudaKernelParams params, unsigned char* rgb) {
    runThread(kernels::Yuv420RgbOnly{params, {rgb}});
}

RUVO_KERNEL yuv420_no_demosaic_rgb(cudaKernelParams params, unsigned char* rgb, unsigned char* yuv) {
    runThread(kernels::Yuv420NoDemosaicRgb{params, {rgb, yuv}});
}

RUVO_KERNEL yuv420_fast_segment_skin(cudaKernelParams params, unsigned char* yuv, unsigned char* skin) {
    runThread(kernels::Yuv420FastSegmentSkin{params, {yuv, skin}});
}

RUVO_KERNEL yuv420_fast_skin_histogram(cudaKernelParams params, unsigned char* yuv, unsigned char* skinY,
                                       float colorModelThreshold) {
    runThread(kernels::Yuv420FastSkinHistogram{params, {yuv, skinY, colorModelThreshold}});
}

RUVO_KERNEL step_down_YUV(const unsigned char* in, int width, int height, unsigned char* out) {
    runThread(kernels::StepDownYuv{in, width, height, out});
}

RUVO_KERNEL step_down_Y_twice(const unsigned char* in, int width, int height, unsigned char* out) {
    runThread(kernels::StepDownYTwice{in, width, height, out});
}

RUVO_KERNEL step_down_erode_Y(const unsigned char* in, int width, int height, unsigned char* out) {
    runThread(kernels::StepDownErodeY{in, width, height, out});
}

RUVO_KERNEL gradient(const unsigned char* in, int width, int height, unsigned char* gx, unsigned char* gy) {
    runThread(kernels::Gradient{{in, width, height, gx, gy}});
}

RUVO_KERNEL gradient_magnitude(const unsigned char* in, int width, int height, unsigned char* magnitude,
                               unsigned char* orientation) {
    runThread(kernels::GradientMagnitude{{in, width, height, magnitude, orientation}});
}

RUVO_KERNEL step_down_YUV_and_gradient(const unsigned char* in, int width, int height, unsigned char* half,
                                       unsigned char* gx, unsigned char* gy) {
    runThread(kernels::StepDownYuvAndGradient{{in, width, height, half, gx, gy}});
}

RUVO_KERNEL step_down_YUV_and_gradient_magnitude(const unsigned char* in, int width, int height, unsigned char* half,
                                                 unsigned char* magnitude, unsigned char* orientation) {
    runThread(kernels::StepDownYuvAndGradientMagnitude{{in, width, height, half, magnitude, orientation}});
}

namespace {

// Grid, block and stream of one launch.
struct Launch {
    dim3 grid;
    dim3 block;
    cudaStream_t stream;
};

// Each functor launches the named kernel that wraps it, with the kernel's own argument list.
void launch(const kernels::Yuv420Fast& k, const Launch& l) {
    yuv420_fast<<<l.grid, l.block, 0, l.stream>>>(k.params, k.sink.yuv);
}
void launch(const kernels::Yuv420Lanczos& k, const Launch& l) {
    yuv420_lanczos<<<l.grid, l.block, 0, l.stream>>>(k.params, k.sink.yuv);
}
void launch(const kernels::Yuv420FastBggr& k, const Launch& l) {
    yuv420_fast_bggr<<<l.grid, l.block, 0, l.stream>>>(k.params, k.sink.yuv, k.sink.mosaic);
}
void launch(const kernels::Yuv420RgbOnly& k, const Launch& l) {
    yuv420_rgb_only<<<l.grid, l.block, 0, l.stream>>>(k.params, k.sink.rgb);
}
void launch(const kernels::Yuv420NoDemosaicRgb& k, const Launch& l) {
    yuv420_no_demosaic_rgb<<<l.grid, l.block, 0, l.stream>>>(k.params, k.sink.rgb, k.sink.yuv);
}
void launch(const kernels::Yuv420FastSegmentSkin& k, const Launch& l) {
    yuv420_fast_segment_skin<<<l.grid, l.block, 0, l.stream>>>(k.params, k.sink.yuv, k.sink.skin);
}
void launch(const kernels::Yuv420FastSkinHistogram& k, const Launch& l) {
    yuv420_fast_skin_histogram<<<l.grid, l.block, 0, l.stream>>>(k.params, k.sink.yuv, k.sink.skinY, k.sink.threshold);
}
void launch(const kernels::StepDownYuv& k, const Launch& l) {
    step_down_YUV<<<l.grid, l.block, 0, l.stream>>>(k.in, k.width, k.height, k.out);
}
void launch(const kernels::StepDownYTwice& k, const Launch& l) {
    step_down_Y_twice<<<l.grid, l.block, 0, l.stream>>>(k.in, k.width, k.height, k.out);
}
void launch(const kernels::StepDownErodeY& k, const Launch& l) {
    step_down_erode_Y<<<l.grid, l.block, 0, l.stream>>>(k.in, k.width, k.height, k.out);
}
void launch(const kernels::Gradient& k, const Launch& l) {
    const auto& b = k.blocks;
    gradient<<<l.grid, l.block, 0, l.stream>>>(b.in, b.width, b.height, b.gx, b.gy);
}
void launch(const kernels::GradientMagnitude& k, const Launch& l) {
    const auto& b = k.blocks;
    gradient_magnitude<<<l.grid, l.block, 0, l.stream>>>(b.in, b.width, b.height, b.magnitude, b.orientation);
}
void launch(const kernels::StepDownYuvAndGradient& k, const Launch& l) {
    const auto& b = k.blocks;
    step_down_YUV_and_gradient<<<l.grid, l.block, 0, l.stream>>>(b.in, b.width, b.height, b.half, b.gx, b.gy);
}
void launch(const kernels::StepDownYuvAndGradientMagnitude& k, const Launch& l) {
    const auto& b = k.blocks;
    step_down_YUV_and_gradient_magnitude<<<l.grid, l.block, 0, l.stream>>>(b.in, b.width, b.height, b.half, b.magnitude,
                                                                           b.orientation);
}

}  // namespace

namespace kernels {

// Launch-time failures are left for the dispatcher's cudaGetLastError after each launch.
void executeLaunch(const PlannedLaunch& planned, const LaunchGeometry& geometry, const cudaKernelParams& params,
                   unsigned char** targets, float colorModelThreshold, cudaStream_t stream) {
    const LaunchShape shape = geometry.shape(planned.step);
    const Launch l{dim3(shape.grid.x, shape.grid.y, 1), dim3(shape.block.x, shape.block.y, 1), stream};
    visitKernel(planned, params, targets, colorModelThreshold, [&](const auto& kernel) { launch(kernel, l); });
}

}  // namespace kernels

namespace cub {

cudaError_t DeviceHistogram::HistogramEven(void* d_temp_storage, size_t& temp_storage_bytes,
                                           const unsigned char* d_samples, int* d_histogram, int num_levels,
                                           int lower_level, int upper_level, int num_samples, cudaStream_t stream,
                                           bool) {
    return ::cub::DeviceHistogram::HistogramEven(d_temp_storage, temp_storage_bytes, d_samples, d_histogram, num_levels,
                                                 lower_level, upper_level, num_samples, stream);
}

}  // namespace cub

}  // namespace capture
}  // namespace ruvo
