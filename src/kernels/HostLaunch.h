// Executes one planned kernel launch on the host: the same per-thread functions as the CUDA
// kernels, over the same thread grid. Shared by the host dispatcher and by the test that checks
// the CUDA build against it.
#pragma once

#include "ColourKernels.h"
#include "GradientKernels.h"
#include "HostGrid.h"
#include "IspPlan.h"
#include "LaunchGeometry.h"
#include "PyramidKernels.h"
#include "SkinKernels.h"

namespace ruvo {
namespace capture {
namespace kernels {

// Runs every grid launch of the plan kind; the histogram (KernelId::histogram_even) is the
// dispatcher's and is not run here.
inline void runLaunchOnHost(const PlannedLaunch& launch, const LaunchGeometry& geometry, const cudaKernelParams& params,
                            unsigned char** targets, float colorModelThreshold) {
    if (launch.kernel == KernelId::histogram_even) return;
    const Extent2 threads = geometry.shape(launch.step).threads();
    unsigned char* out[3];
    for (int slot = 0; slot < 3; ++slot)
        out[slot] = launch.outputs[slot] == kNoTarget ? nullptr : targets[launch.outputs[slot]];
    const unsigned char* in = launch.input == kNoTarget ? nullptr : targets[launch.input];
    const int w = static_cast<int>(params.width >> launch.inputShift);
    const int h = static_cast<int>(params.height >> launch.inputShift);
    switch (launch.kernel) {
        case KernelId::yuv420_fast:
            return runGrid(threads, Yuv420Fast{params, {out[0]}});
        case KernelId::yuv420_lanczos:
            return runGrid(threads, Yuv420Lanczos{params, {out[0]}});
        case KernelId::yuv420_fast_bggr:
            return runGrid(threads, Yuv420FastBggr{params, {out[0], out[1]}});
        case KernelId::yuv420_rgb_only:
            return runGrid(threads, Yuv420RgbOnly{params, {out[0]}});
        case KernelId::yuv420_no_demosaic_rgb:
            return runGrid(threads, Yuv420NoDemosaicRgb{params, {out[0], out[1]}});
        case KernelId::yuv420_fast_segment_skin:
            return runGrid(threads, Yuv420FastSegmentSkin{params, {out[0], out[1]}});
        case KernelId::yuv420_fast_skin_histogram:
            return runGrid(threads, Yuv420FastSkinHistogram{params, {out[0], out[1], colorModelThreshold}});
        case KernelId::step_down_YUV:
            return runGrid(threads, StepDownYuv{in, w, h, out[0]});
        case KernelId::step_down_Y_twice:
            return runGrid(threads, StepDownYTwice{in, w, h, out[0]});
        case KernelId::step_down_erode_Y:
            return runGrid(threads, StepDownErodeY{in, w, h, out[0]});
        case KernelId::gradient:
            return runGrid(threads, Gradient{{in, w, h, out[0], out[1]}});
        case KernelId::gradient_magnitude:
            return runGrid(threads, GradientMagnitude{{in, w, h, out[0], out[1]}});
        case KernelId::step_down_YUV_and_gradient:
            return runGrid(threads, StepDownYuvAndGradient{{in, w, h, out[0], out[1], out[2]}});
        case KernelId::step_down_YUV_and_gradient_magnitude:
            return runGrid(threads, StepDownYuvAndGradientMagnitude{{in, w, h, out[0], out[1], out[2]}});
        case KernelId::histogram_even:
            return;
    }
}

}  // namespace kernels
}  // namespace capture
}  // namespace ruvo
