// The kernels the host runs over a thread grid, each compiled once in one of the HostGrid*.cpp
// files (the row loops are cloned per instruction set, which makes them slow to compile; split
// over several files they compile in parallel and only where they are defined).
#pragma once

#include "host/grid/HostGrid.h"
#include "kernels/ColourKernels.h"
#include "kernels/GradientKernels.h"
#include "kernels/PyramidKernels.h"
#include "kernels/SkinKernels.h"

namespace ruvo {
namespace capture {
namespace kernels {

// HostGridBilinear.cpp
extern template void runGrid(const Extent2&, const Yuv420Fast&);
extern template void runGrid(const Extent2&, const Yuv420FastBggr&);
extern template void runGrid(const Extent2&, const Yuv420RgbOnly&);
extern template void runGrid(const Extent2&, const Yuv420NoDemosaicRgb&);
// The portable loop's run of an interior span of a Yuv420Fast row, as runGrid runs it where no
// hand-written row does (the test of the hand-written row compares the two).
void runPortableInterior(const Yuv420Fast& kernel, unsigned ty, unsigned begin, unsigned end);
// HostGridLanczosSkin.cpp
extern template void runGrid(const Extent2&, const Yuv420Lanczos&);
extern template void runGrid(const Extent2&, const Yuv420FastSegmentSkin&);
extern template void runGrid(const Extent2&, const Yuv420FastSkinHistogram&);
// HostGridPyramid.cpp
extern template void runGrid(const Extent2&, const StepDownYuv&);
extern template void runGrid(const Extent2&, const StepDownYTwice&);
extern template void runGrid(const Extent2&, const StepDownErodeY&);
extern template void runGrid(const Extent2&, const Gradient&);
extern template void runGrid(const Extent2&, const GradientMagnitude&);
extern template void runGrid(const Extent2&, const StepDownYuvAndGradient&);
extern template void runGrid(const Extent2&, const StepDownYuvAndGradientMagnitude&);

}  // namespace kernels
}  // namespace capture
}  // namespace ruvo
