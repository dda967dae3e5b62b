// One planned kernel launch run on the host over its thread grid.
#include "host/grid/HostLaunch.h"

#include "host/grid/HostGridKernels.h"
#include "isp/KernelMap.h"

namespace ruvo {
namespace capture {
namespace kernels {

void runLaunchOnHost(const PlannedLaunch& launch, const LaunchGeometry& geometry, const cudaKernelParams& params,
                     unsigned char** targets, float colorModelThreshold) {
    const Extent2 threads = geometry.shape(launch.step).threads();
    visitKernel(launch, params, targets, colorModelThreshold, [&](const auto& kernel) { runGrid(threads, kernel); });
}

}  // namespace kernels
}  // namespace capture
}  // namespace ruvo
