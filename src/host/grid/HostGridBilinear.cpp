// Host thread-grid runs of the bilinear colour kernels and the no-demosaic kernel.
#include "host/grid/HostGridKernels.h"

namespace ruvo {
namespace capture {
namespace kernels {

template void runGrid(const Extent2&, const Yuv420Fast&);
template void runGrid(const Extent2&, const Yuv420FastBggr&);
template void runGrid(const Extent2&, const Yuv420RgbOnly&);
template void runGrid(const Extent2&, const Yuv420NoDemosaicRgb&);

void runPortableInterior(const Yuv420Fast& kernel, unsigned ty, unsigned begin, unsigned end) {
    runPortableSpan<Yuv420Fast, RowPart::kInterior>(kernel, ty, begin, end);
}

}  // namespace kernels
}  // namespace capture
}  // namespace ruvo
