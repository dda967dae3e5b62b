// One planned kernel launch run on the host over its thread grid.
#include "HostLaunch.h"

#include "HostGridKernels.h"

namespace ruvo {
namespace capture {
namespace kernels {

void runLaunchOnHost(const PlannedLaunch& launch, const LaunchGeometry& geometry, const cudaKernelParams& params,
                     unsigned char** targets, float colorModelThreshold) {
    if (launch.kernel == KernelId::histogram_even) return;
    const Extent2 threads = geometry.shape(launch.step).threads();
    const LaunchArguments a = launchArguments(launch, targets, params.width, params.height);
    switch (launch.kernel) {
        case KernelId::yuv420_fast:
            return runGrid(threads, Yuv420Fast{params, {a.out[0]}});
        case KernelId::yuv420_lanczos:
            return runGrid(threads, Yuv420Lanczos{params, {a.out[0]}});
        case KernelId::yuv420_fast_bggr:
            return runGrid(threads, Yuv420FastBggr{params, {a.out[0], a.out[1]}});
        case KernelId::yuv420_rgb_only:
            return runGrid(threads, Yuv420RgbOnly{params, {a.out[0]}});
        case KernelId::yuv420_no_demosaic_rgb:
            return runGrid(threads, Yuv420NoDemosaicRgb{params, {a.out[0], a.out[1]}});
        case KernelId::yuv420_fast_segment_skin:
            return runGrid(threads, Yuv420FastSegmentSkin{params, {a.out[0], a.out[1]}});
        case KernelId::yuv420_fast_skin_histogram:
            return runGrid(threads, Yuv420FastSkinHistogram{params, {a.out[0], a.out[1], colorModelThreshold}});
        case KernelId::step_down_YUV:
            return runGrid(threads, StepDownYuv{a.in, a.width, a.height, a.out[0]});
        case KernelId::step_down_Y_twice:
            return runGrid(threads, StepDownYTwice{a.in, a.width, a.height, a.out[0]});
        case KernelId::step_down_erode_Y:
            return runGrid(threads, StepDownErodeY{a.in, a.width, a.height, a.out[0]});
        case KernelId::gradient:
            return runGrid(threads, Gradient{{a.in, a.width, a.height, a.out[0], a.out[1]}});
        case KernelId::gradient_magnitude:
            return runGrid(threads, GradientMagnitude{{a.in, a.width, a.height, a.out[0], a.out[1]}});
        case KernelId::step_down_YUV_and_gradient:
            return runGrid(threads, StepDownYuvAndGradient{{a.in, a.width, a.height, a.out[0], a.out[1], a.out[2]}});
        case KernelId::step_down_YUV_and_gradient_magnitude:
            return runGrid(threads,
                           StepDownYuvAndGradientMagnitude{{a.in, a.width, a.height, a.out[0], a.out[1], a.out[2]}});
        case KernelId::histogram_even:
            return;
    }
}

}  // namespace kernels
}  // namespace capture
}  // namespace ruvo
