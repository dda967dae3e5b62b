// Host build: a planned launch runs on the host thread grid and has completed when it returns.
#include "host/grid/HostLaunch.h"
#include "isp/LaunchExecutor.h"

namespace ruvo {
namespace capture {
namespace kernels {

void executeLaunch(const PlannedLaunch& launch, const LaunchGeometry& geometry, const cudaKernelParams& params,
                   unsigned char** targets, float colorModelThreshold, cudaStream_t) {
    runLaunchOnHost(launch, geometry, params, targets, colorModelThreshold);
}

}  // namespace kernels
}  // namespace capture
}  // namespace ruvo
