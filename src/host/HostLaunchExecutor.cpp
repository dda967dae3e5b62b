// Host build: a planned launch becomes a kernel of the host runtime on the bucket's stream, run
// over the host thread grid (at once, or when the stream is synchronised in strict mode). The
// kernel reaches its buffers through the runtime's device view of each pointer.
#include "host/grid/HostLaunch.h"
#include "host/runtime/HostDeviceWork.h"
#include "isp/LaunchExecutor.h"

#include <array>

namespace ruvo {
namespace capture {
namespace kernels {

void executeLaunch(const PlannedLaunch& launch, const LaunchGeometry& geometry, const cudaKernelParams& params,
                   unsigned char** targets, float colorModelThreshold, cudaStream_t stream) {
    cudaKernelParams deviceParams = params;
    deviceParams.sbggr = hostrt::deviceView(params.sbggr);
    std::array<unsigned char*, kMaxTargets> deviceTargets{};
    for (int target : {launch.input, launch.outputs[0], launch.outputs[1], launch.outputs[2]}) {
        if (target != kNoTarget) deviceTargets[target] = hostrt::deviceView(targets[target]);
    }
    // Everything is copied into the kernel, the geometry too: a derived one lives only as long as
    // the dispatch, and strict mode runs the kernel later, when the stream is synchronised.
    hostrt::launch(kernelName(launch.kernel), stream, [=]() mutable {
        runLaunchOnHost(launch, geometry, deviceParams, deviceTargets.data(), colorModelThreshold);
    });
}

}  // namespace kernels
}  // namespace capture
}  // namespace ruvo
