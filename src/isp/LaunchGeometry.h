// Launch geometry of the image pipeline: for each of the four supported processed sizes, the
// hand-chosen block shape of each pyramid step. A launch at step s covers exactly
// (width >> s) x (height >> s) threads, which is what lets the kernels run without bounds checks.
#pragma once

#include <cstddef>

namespace ruvo {
namespace capture {
namespace kernels {

// x, y extent (threads per block, blocks per grid, or threads in all).
struct Extent2 {
    unsigned x;
    unsigned y;
};

struct LaunchShape {
    Extent2 block;
    Extent2 grid;
    Extent2 threads() const { return {block.x * grid.x, block.y * grid.y}; }
};

// Steps: 1 = one thread per 2 x 2 Bayer quad (colour kernels), 2 = per 4 x 4 block of the full
// image, 3 = per 4 x 4 block of the half image, 4 = per 4 x 4 block of the quarter image.
constexpr int kFirstStep = 1;
constexpr int kLastStep = 4;

struct LaunchGeometry {
    unsigned width;
    unsigned height;
    Extent2 blocks[4];  // block shape of steps 1 to 4

    // The grid is the quotient of the size and the block's pixel span (block << step).
    constexpr LaunchShape shape(int step) const {
        const Extent2 block = blocks[step - 1];
        return {block, {width / (block.x << step), height / (block.y << step)}};
    }
};

// 1280 x 720 uses a 20-wide block at step 4 because 32 does not divide its 80 columns of threads.
constexpr LaunchGeometry kLaunchGeometries[] = {
    {672, 384, {{28, 12}, {14, 24}, {14, 24}, {14, 24}}},
    {1280, 720, {{32, 24}, {32, 20}, {32, 15}, {20, 15}}},
    {1920, 1152, {{32, 12}, {32, 18}, {30, 9}, {30, 9}}},
    {2688, 1520, {{32, 10}, {32, 10}, {24, 19}, {24, 19}}},
};

// Threads per block every kernel is compiled for (__launch_bounds__): the largest block of the
// table. A larger block would fail at launch with "too many resources requested for launch".
constexpr unsigned kMaxThreadsPerBlock = 768;

constexpr unsigned largestBlock() {
    unsigned largest = 0;
    for (const LaunchGeometry& geometry : kLaunchGeometries) {
        for (const Extent2& block : geometry.blocks)
            largest = block.x * block.y > largest ? block.x * block.y : largest;
    }
    return largest;
}
static_assert(largestBlock() <= kMaxThreadsPerBlock, "a launch geometry's block exceeds the kernels' launch bounds");

// The geometry of a processed size, or null when the size is not one of the four.
constexpr const LaunchGeometry* findLaunchGeometry(unsigned width, unsigned height) {
    for (const LaunchGeometry& geometry : kLaunchGeometries) {
        if (geometry.width == width && geometry.height == height) return &geometry;
    }
    return nullptr;
}

}  // namespace kernels
}  // namespace capture
}  // namespace ruvo
