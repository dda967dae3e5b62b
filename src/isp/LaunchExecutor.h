// The seam between the shared dispatcher and the build that runs kernels: one planned grid launch
// handed to the executor. The CUDA build enqueues the named __global__ kernel on the stream
// (src/isp/CudaLaunch.cu); the host build runs the per-thread functor over the thread grid
// (src/host/HostLaunchExecutor.cpp).
#pragma once

#include "isp/IspPlan.h"
#include "isp/LaunchGeometry.h"

#include <cuda_runtime.h>

namespace ruvo {
namespace capture {
namespace kernels {

void executeLaunch(const PlannedLaunch& launch, const LaunchGeometry& geometry, const cudaKernelParams& params,
                   unsigned char** targets, float colorModelThreshold, cudaStream_t stream);

}  // namespace kernels
}  // namespace capture
}  // namespace ruvo
