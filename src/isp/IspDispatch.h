// The dispatcher's steps that both builds share: the check of the processed size, the kernel plan
// of the configuration handed launch by launch to the build's executor (kernel launches on a
// stream, or per-thread functions on CPU threads), and the report of an unknown configuration.
#pragma once

#include "IspPlan.h"
#include "LaunchGeometry.h"

#include <cassert>
#include <cstdlib>
#include <iostream>

namespace ruvo {
namespace capture {
namespace kernels {

// runLaunch(const PlannedLaunch&, const LaunchGeometry&) runs a grid launch, runHistogram() the
// skin-luminance histogram. The including dispatcher leaves NDEBUG undefined, so that an
// unsupported size aborts with the assertion's text in every build type.
template <class RunLaunch, class RunHistogram>
void dispatchIsp(int configuration, CUDADemosaicMode mode, unsigned width, unsigned height, const RunLaunch& runLaunch,
                 const RunHistogram& runHistogram) {
    const std::optional<LaunchGeometry> geometry = findLaunchGeometry(width, height);
    if (!geometry) {
        assert(false && (width || height));
        std::abort();
    }
    const IspPlan plan = planIsp(configuration, mode);
    for (int i = 0; i < plan.count; ++i) {
        if (plan.launches[i].kernel == KernelId::histogram_even) {
            runHistogram();
        } else {
            runLaunch(plan.launches[i], *geometry);
        }
    }
    if (plan.unimplemented) std::cerr << "Unimplemented CUDA kernel output format configuration!" << std::endl;
}

}  // namespace kernels
}  // namespace capture
}  // namespace ruvo
