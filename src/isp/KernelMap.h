// The one map from a planned launch's kernel id to the per-thread functor that does its work,
// built from the launch's targets and the colour parameters. Both executors (CUDA launches of the
// named __global__ kernels, and the host thread grid) receive the functor through this map, so a
// new kernel is added in the plan, its functor and here.
#pragma once

#include "isp/IspPlan.h"
#include "kernels/ColourKernels.h"
#include "kernels/GradientKernels.h"
#include "kernels/PyramidKernels.h"
#include "kernels/SkinKernels.h"

namespace ruvo {
namespace capture {
namespace kernels {

// Calls visit(functor) with the functor of `launch`; the histogram is not a grid launch and is
// never passed here.
template <class Visit>
void visitKernel(const PlannedLaunch& launch, const cudaKernelParams& params, unsigned char** targets,
                 float colorModelThreshold, Visit&& visit) {
    const LaunchArguments a = launchArguments(launch, targets, params.width, params.height);
    switch (launch.kernel) {
        case KernelId::yuv420_fast:
            return visit(Yuv420Fast{params, {a.out[0]}});
        case KernelId::yuv420_lanczos:
            return visit(Yuv420Lanczos{params, {a.out[0]}});
        case KernelId::yuv420_fast_bggr:
            return visit(Yuv420FastBggr{params, {a.out[0], a.out[1]}});
        case KernelId::yuv420_rgb_only:
            return visit(Yuv420RgbOnly{params, {a.out[0]}});
        case KernelId::yuv420_no_demosaic_rgb:
            return visit(Yuv420NoDemosaicRgb{params, {a.out[0], a.out[1]}});
        case KernelId::yuv420_fast_segment_skin:
            return visit(Yuv420FastSegmentSkin{params, {a.out[0], a.out[1]}});
        case KernelId::yuv420_fast_skin_histogram:
            return visit(Yuv420FastSkinHistogram{params, {a.out[0], a.out[1], colorModelThreshold}});
        case KernelId::step_down_YUV:
            return visit(StepDownYuv{a.in, a.width, a.height, a.out[0]});
        case KernelId::step_down_Y_twice:
            return visit(StepDownYTwice{a.in, a.width, a.height, a.out[0]});
        case KernelId::step_down_erode_Y:
            return visit(StepDownErodeY{a.in, a.width, a.height, a.out[0]});
        case KernelId::gradient:
            return visit(Gradient{{a.in, a.width, a.height, a.out[0], a.out[1]}});
        case KernelId::gradient_magnitude:
            return visit(GradientMagnitude{{a.in, a.width, a.height, a.out[0], a.out[1]}});
        case KernelId::step_down_YUV_and_gradient:
            return visit(StepDownYuvAndGradient{{a.in, a.width, a.height, a.out[0], a.out[1], a.out[2]}});
        case KernelId::step_down_YUV_and_gradient_magnitude:
            return visit(StepDownYuvAndGradientMagnitude{{a.in, a.width, a.height, a.out[0], a.out[1], a.out[2]}});
        case KernelId::histogram_even:
            return;
    }
}

}  // namespace kernels
}  // namespace capture
}  // namespace ruvo
