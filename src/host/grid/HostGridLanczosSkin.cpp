// Host thread-grid runs of the Lanczos colour kernel and the skin kernels.
#include "host/grid/HostGridKernels.h"

namespace ruvo {
namespace capture {
namespace kernels {

template void runGrid(const Extent2&, const Yuv420Lanczos&);
template void runGrid(const Extent2&, const Yuv420FastSegmentSkin&);
template void runGrid(const Extent2&, const Yuv420FastSkinHistogram&);

}  // namespace kernels
}  // namespace capture
}  // namespace ruvo
