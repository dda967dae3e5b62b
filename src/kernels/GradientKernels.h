// Per-thread work of the gradient kernels: backward differences of a luma plane as offset bytes,
// or as magnitude and quantised orientation, each thread owning a 4 x 4 block of the input; the
// combined kernels also write the half-size YUV420p level from the same block in the same pass.
#pragma once

#include "FastMath.h"
#include "IndexRange.h"
#include "PyramidKernels.h"

#include <cstddef>

namespace ruvo {
namespace capture {
namespace kernels {

// Backward differences at (y, x) of a plane with row stride `width`: the pixel minus its left and
// its upper neighbour. On the first column (row) the neighbour is the pixel itself.
struct BackwardDifference {
    int dx;
    int dy;
};

// kAtEdge: the pixel may lie on the first row or column. Blocks known to be clear of both read
// their neighbours unconditionally, which keeps the host loop free of conditional loads.
template <bool kAtEdge>
__host__ __device__ __forceinline__ BackwardDifference backwardDifference(const unsigned char* luma, size_t width,
                                                                          size_t y, size_t x) {
    const unsigned char* p = luma + y * width + x;
    const int centre = p[0];
    if constexpr (kAtEdge) {
        const int left = x == 0 ? centre : p[-1];
        const int up = y == 0 ? centre : p[-static_cast<ptrdiff_t>(width)];
        return {centre - left, centre - up};
    } else {
        return {centre - p[-1], centre - p[-static_cast<ptrdiff_t>(width)]};
    }
}

// 127 + difference, clamped in single precision and truncated.
__host__ __device__ __forceinline__ unsigned char offsetDifferenceByte(int difference) {
    return truncateToByte(clampByteRange(127.0f + static_cast<float>(difference)));
}

// 2 sqrt(dx^2 + dy^2) truncated, keeping the low byte: magnitudes of 256 and more wrap.
__host__ __device__ __forceinline__ unsigned char magnitudeByte(int dx, int dy) {
    return lowByte(2.0f * exactSqrt(static_cast<float>(dx * dx + dy * dy)));
}

// theta = atan2(dy, dx) in [-pi, pi] as theta * 128 / 3.14159 + 127 truncated; negative gives 0.
__host__ __device__ __forceinline__ unsigned char orientationByte(int dx, int dy) {
    const float theta = atan2Approx(static_cast<float>(dy), static_cast<float>(dx));
    const float scaled = exactDivide(theta * 128.0f, 3.14159f) + 127.0f;
    return truncateToByte(scaled < 0.0f ? 0.0f : scaled);
}

// Calls op(y, x) for the 16 pixels of the 4 x 4 block of thread (tx, ty), written out rather than
// looped so that the host's per-thread loop has no inner loops left to vectorise around.
template <class PixelOp>
__host__ __device__ __forceinline__ void forEachPixelOfRow(size_t y, size_t x, const PixelOp& op) {
    op(y, x);
    op(y, x + 1);
    op(y, x + 2);
    op(y, x + 3);
}

template <class PixelOp>
__host__ __device__ __forceinline__ void forEachPixelOfBlock(size_t tx, size_t ty, const PixelOp& op) {
    forEachPixelOfRow(4 * ty, 4 * tx, op);
    forEachPixelOfRow(4 * ty + 1, 4 * tx, op);
    forEachPixelOfRow(4 * ty + 2, 4 * tx, op);
    forEachPixelOfRow(4 * ty + 3, 4 * tx, op);
}

// Offset differences at one pixel, into two planes of the input's size.
template <bool kAtEdge>
struct OffsetDifferencePixel {
    const unsigned char* in;
    size_t width;
    unsigned char* gx;
    unsigned char* gy;
    __host__ __device__ __forceinline__ void operator()(size_t y, size_t x) const {
        const BackwardDifference d = backwardDifference<kAtEdge>(in, width, y, x);
        gx[y * width + x] = offsetDifferenceByte(d.dx);
        gy[y * width + x] = offsetDifferenceByte(d.dy);
    }
};

// Magnitude and orientation at one pixel.
template <bool kAtEdge>
struct MagnitudePixel {
    const unsigned char* in;
    size_t width;
    unsigned char* magnitude;
    unsigned char* orientation;
    __host__ __device__ __forceinline__ void operator()(size_t y, size_t x) const {
        const BackwardDifference d = backwardDifference<kAtEdge>(in, width, y, x);
        magnitude[y * width + x] = magnitudeByte(d.dx, d.dy);
        orientation[y * width + x] = orientationByte(d.dx, d.dy);
    }
};

// A kernel over 4 x 4 blocks of an input whose first row and column of blocks read no neighbours
// above or to the left. Blocks::apply<kAtEdge>(tx, ty) does the work of one thread.
template <class Blocks>
struct EdgeBlockKernel {
    static constexpr bool kHasBorder = true;

    Blocks blocks;

    __host__ __device__ __forceinline__ void operator()(unsigned tx, unsigned ty) const {
        blocks.template apply<true>(tx, ty);
    }
    __host__ __device__ __forceinline__ void border(unsigned tx, unsigned ty) const {
        blocks.template apply<true>(tx, ty);
    }
    __host__ __device__ __forceinline__ void interior(unsigned tx, unsigned ty) const {
        blocks.template apply<false>(tx, ty);
    }
    IndexRange interiorColumns() const { return {1, static_cast<unsigned>(blocks.width) / 4}; }
    IndexRange interiorRows() const { return {1, static_cast<unsigned>(blocks.height) / 4}; }
};

struct GradientBlocks {
    const unsigned char* in;
    int width;
    int height;
    unsigned char* gx;
    unsigned char* gy;
    template <bool kAtEdge>
    __host__ __device__ __forceinline__ void apply(size_t tx, size_t ty) const {
        forEachPixelOfBlock(tx, ty, OffsetDifferencePixel<kAtEdge>{in, static_cast<size_t>(width), gx, gy});
    }
};

struct GradientMagnitudeBlocks {
    const unsigned char* in;
    int width;
    int height;
    unsigned char* magnitude;
    unsigned char* orientation;
    template <bool kAtEdge>
    __host__ __device__ __forceinline__ void apply(size_t tx, size_t ty) const {
        forEachPixelOfBlock(tx, ty, MagnitudePixel<kAtEdge>{in, static_cast<size_t>(width), magnitude, orientation});
    }
};

struct StepDownYuvAndGradientBlocks {
    const unsigned char* in;
    int width;
    int height;
    unsigned char* half;
    unsigned char* gx;
    unsigned char* gy;
    template <bool kAtEdge>
    __host__ __device__ __forceinline__ void apply(size_t tx, size_t ty) const {
        stepDownYuvBlock(in, static_cast<unsigned>(width), static_cast<unsigned>(height), half, tx, ty);
        forEachPixelOfBlock(tx, ty, OffsetDifferencePixel<kAtEdge>{in, static_cast<size_t>(width), gx, gy});
    }
};

struct StepDownYuvAndGradientMagnitudeBlocks {
    const unsigned char* in;
    int width;
    int height;
    unsigned char* half;
    unsigned char* magnitude;
    unsigned char* orientation;
    template <bool kAtEdge>
    __host__ __device__ __forceinline__ void apply(size_t tx, size_t ty) const {
        stepDownYuvBlock(in, static_cast<unsigned>(width), static_cast<unsigned>(height), half, tx, ty);
        forEachPixelOfBlock(tx, ty, MagnitudePixel<kAtEdge>{in, static_cast<size_t>(width), magnitude, orientation});
    }
};

using Gradient = EdgeBlockKernel<GradientBlocks>;
using GradientMagnitude = EdgeBlockKernel<GradientMagnitudeBlocks>;
using StepDownYuvAndGradient = EdgeBlockKernel<StepDownYuvAndGradientBlocks>;
using StepDownYuvAndGradientMagnitude = EdgeBlockKernel<StepDownYuvAndGradientMagnitudeBlocks>;

}  // namespace kernels
}  // namespace capture
}  // namespace ruvo
