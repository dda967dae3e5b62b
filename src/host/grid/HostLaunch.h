// Executes one planned kernel launch on the host: the same per-thread functions as the CUDA
// kernels, over the same thread grid. Shared by the host dispatcher and by the test that checks
// the CUDA build against it.
#pragma once

#include "isp/IspPlan.h"
#include "isp/LaunchGeometry.h"

namespace ruvo {
namespace capture {
namespace kernels {

// Runs one grid launch of a plan to completion; the histogram (KernelId::histogram_even) is the
// dispatcher's and is not run here.
void runLaunchOnHost(const PlannedLaunch& launch, const LaunchGeometry& geometry, const cudaKernelParams& params,
                     unsigned char** targets, float colorModelThreshold);

}  // namespace kernels
}  // namespace capture
}  // namespace ruvo
