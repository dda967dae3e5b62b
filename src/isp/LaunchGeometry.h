// Launch geometry of the image pipeline and the size rule it follows. Step s of the pyramid
// launches exactly (width >> s) x (height >> s) threads, the last step's threads each take a
// 4 x 4 block of the quarter image, and no kernel checks bounds: so a processed size is taken
// when its width and its (padded) height are multiples of 16. The four sizes of the default
// sensor keep their hand-chosen block shapes (the table below); every other size gets blocks
// derived from its thread counts.
#pragma once

#include <cstddef>
#include <optional>

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

// Each thread of the last step covers a 16 x 16 square of the full image.
constexpr unsigned kSizeUnit = 1u << kLastStep;

// Tuned shapes. `visibleHeight` is the height the sensor delivers: below `height` when the
// pyramid would not divide it, the rows between being padding. 1280 x 720 uses a 20-wide block at
// step 4 because 32 does not divide its 80 columns of threads.
//
// They are a table because no rule stated from the size alone gives them. At step 1, 1280 x 720
// and 1920 x 1152 both launch 32-wide blocks over thread rows (360, 576) that 12 and 24 both
// divide, and 32 x 24 = 768 threads is within the bound; 1280 x 720 takes 24 rows (300 blocks of
// 768 threads) and 1920 x 1152 takes 12 (1440 blocks of 384). The smaller image takes the larger
// block, so any rule that picks the block size monotonically in the image size, the thread count
// or the grid count (most threads, fewest threads, at least or at most N blocks) contradicts one
// of them. Widths say the same: at step 2 672 x 384 takes 14-wide blocks where 28 divides its 168
// columns, and at step 3 2688 x 1520 takes 24 where 28 divides its 336.
struct TunedGeometry {
    LaunchGeometry geometry;
    unsigned visibleHeight;
};
constexpr TunedGeometry kTunedGeometries[] = {
    {{672, 384, {{28, 12}, {14, 24}, {14, 24}, {14, 24}}}, 380},
    {{1280, 720, {{32, 24}, {32, 20}, {32, 15}, {20, 15}}}, 720},
    {{1920, 1152, {{32, 12}, {32, 18}, {30, 9}, {30, 9}}}, 1080},
    {{2688, 1520, {{32, 10}, {32, 10}, {24, 19}, {24, 19}}}, 1520},
};

// Threads per block every kernel is compiled for (__launch_bounds__): the largest block of the
// table, and the limit of derived blocks. A larger block would fail at launch with "too many
// resources requested for launch".
constexpr unsigned kMaxThreadsPerBlock = 768;
constexpr unsigned kMaxBlockWidth = 32;  // a warp's width of threads along a row

constexpr unsigned largestBlock() {
    unsigned largest = 0;
    for (const TunedGeometry& tuned : kTunedGeometries) {
        for (const Extent2& block : tuned.geometry.blocks)
            largest = block.x * block.y > largest ? block.x * block.y : largest;
    }
    return largest;
}
static_assert(largestBlock() <= kMaxThreadsPerBlock, "a launch geometry's block exceeds the kernels' launch bounds");

// Rows processed for a frame of `width` x `visibleHeight`: the tuned size's height where a tuned
// size pads that frame (380 -> 384 and 1080 -> 1152 at their widths), otherwise the frame's own.
constexpr unsigned paddedHeight(unsigned width, unsigned visibleHeight) {
    for (const TunedGeometry& tuned : kTunedGeometries) {
        if (tuned.geometry.width == width && tuned.visibleHeight == visibleHeight) return tuned.geometry.height;
    }
    return visibleHeight;
}

// Whether the pipeline takes a processed size (width by padded height).
constexpr bool takesProcessedSize(unsigned width, unsigned height) {
    return width >= kSizeUnit && height >= kSizeUnit && width % kSizeUnit == 0 && height % kSizeUnit == 0;
}

// Whether the pipeline takes frames of a delivered size, padding them as paddedHeight says.
constexpr bool takesFrameSize(unsigned width, unsigned visibleHeight) {
    return takesProcessedSize(width, paddedHeight(width, visibleHeight));
}

// The part of a delivered frame that is processed: all of it when the pipeline takes its size,
// else the largest size inside it that the pipeline takes, centred. The offsets are multiples of
// 4 columns and 2 rows, so that the Bayer order and packed sample groups start where they did.
struct FrameCrop {
    unsigned left = 0;
    unsigned top = 0;
    unsigned width = 0;  // 0 x 0 when nothing inside the frame is taken
    unsigned height = 0;
};

constexpr FrameCrop cropToTakenSize(unsigned width, unsigned height) {
    if (takesFrameSize(width, height)) return {0, 0, width, height};
    const unsigned w = width / kSizeUnit * kSizeUnit;
    const unsigned h = takesFrameSize(w, height) ? height : height / kSizeUnit * kSizeUnit;
    if (w == 0 || h == 0) return {};
    return {(width - w) / 2 / 4 * 4, (height - h) / 2 / 2 * 2, w, h};
}

// The largest divisor of `n` not above `limit` (at least 1).
constexpr unsigned largestDivisor(unsigned n, unsigned limit) {
    for (unsigned d = limit < n ? limit : n; d > 1; --d) {
        if (n % d == 0) return d;
    }
    return 1;
}

// Blocks for a size without tuned shapes: per step, the widest row of threads up to a warp that
// divides the thread columns, then the most rows that divide the thread rows within the block limit.
constexpr LaunchGeometry deriveLaunchGeometry(unsigned width, unsigned height) {
    LaunchGeometry geometry{width, height, {}};
    for (int step = kFirstStep; step <= kLastStep; ++step) {
        const unsigned columns = width >> step, rows = height >> step;
        const unsigned x = largestDivisor(columns, kMaxBlockWidth);
        geometry.blocks[step - 1] = {x, largestDivisor(rows, kMaxThreadsPerBlock / x)};
    }
    return geometry;
}

// The geometry of a processed size: the tuned one, or one derived for a size the rule takes;
// none for any other size.
constexpr std::optional<LaunchGeometry> findLaunchGeometry(unsigned width, unsigned height) {
    for (const TunedGeometry& tuned : kTunedGeometries) {
        if (tuned.geometry.width == width && tuned.geometry.height == height) return tuned.geometry;
    }
    if (!takesProcessedSize(width, height)) return std::nullopt;
    return deriveLaunchGeometry(width, height);
}

}  // namespace kernels
}  // namespace capture
}  // namespace ruvo
