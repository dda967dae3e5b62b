// Host thread-grid runs of the pyramid and gradient kernels.
#include "host/grid/HostGridKernels.h"

namespace ruvo {
namespace capture {
namespace kernels {

template void runGrid(const Extent2&, const StepDownYuv&);
template void runGrid(const Extent2&, const StepDownYTwice&);
template void runGrid(const Extent2&, const StepDownErodeY&);
template void runGrid(const Extent2&, const Gradient&);
template void runGrid(const Extent2&, const GradientMagnitude&);
template void runGrid(const Extent2&, const StepDownYuvAndGradient&);
template void runGrid(const Extent2&, const StepDownYuvAndGradientMagnitude&);

}  // namespace kernels
}  // namespace capture
}  // namespace ruvo
