// Per-thread work of the colour kernels (one thread per 2 x 2 Bayer quad). A colour kernel is a
// demosaic mode (which quads are interpolated, and how) and a sink (what is written for the quad);
// the CUDA wrappers call operator(), the host runner calls interior() over each row's interior run
// so that the loop there has no border test and vectorises.
#pragma once

#include "ColourPath.h"
#include "Demosaic.h"
#include "IndexRange.h"
#include "LanczosTaps.h"

namespace ruvo {
namespace capture {
namespace kernels {

// Bilinear mode: interior quads are those at least one quad from every edge.
struct BilinearMode {
    __host__ __device__ __forceinline__ static bool isBorder(unsigned tx, unsigned ty, unsigned width,
                                                             unsigned height) {
        return isBilinearBorder(tx, ty, width, height);
    }
    __host__ __device__ __forceinline__ static QuadRgb interior(const RawWindow& s) { return bilinearQuad(s); }
    static IndexRange interiorRange(unsigned size) { return {1, (size - 1) / 2}; }
};

// Lanczos mode: interior quads are those whose top-left sample is at least nine from the edges.
struct LanczosMode {
    __host__ __device__ __forceinline__ static bool isBorder(unsigned tx, unsigned ty, unsigned width,
                                                             unsigned height) {
        return isLanczosBorder(tx, ty, width, height);
    }
    __host__ __device__ __forceinline__ static QuadRgb interior(const RawWindow& s) { return lanczosQuad(s); }
    static IndexRange interiorRange(unsigned size) { return {5, (size - 8) / 2}; }
};

// No interpolation: every quad takes the border fallback, which needs no neighbourhood.
struct QuadOnlyMode {
    __host__ __device__ __forceinline__ static bool isBorder(unsigned, unsigned, unsigned, unsigned) { return false; }
    __host__ __device__ __forceinline__ static QuadRgb interior(const RawWindow& s) { return fallbackQuad(s); }
    static IndexRange interiorRange(unsigned size) { return {0, size / 2}; }
};

template <class Mode, class Sink>
struct ColourKernel {
    static constexpr bool kHasBorder = true;
    // The host runs interior rows in whole blocks of this many quads: the widest vectorised loop
    // steps over 64 (one-byte chroma outputs fill an AVX-512 register), and a remainder would run
    // in narrower vectors and then one quad at a time, a quarter of a 1280-wide row's time. A
    // colour kernel reads only the raw frame, so quads that an overlapping last block repeats
    // store the same bytes again.
    static constexpr unsigned kInteriorBlock = 64;

    cudaKernelParams params;
    Sink sink;

    __host__ __device__ __forceinline__ void operator()(unsigned tx, unsigned ty) const {
        const RawWindow s = quadWindow(params, tx, ty);
        const QuadRgb quad = Mode::isBorder(tx, ty, params.width, params.height) ? fallbackQuad(s) : Mode::interior(s);
        sink(params, tx, ty, s, quad);
    }
    // The thread (tx, ty) known to be a border quad.
    __host__ __device__ __forceinline__ void border(unsigned tx, unsigned ty) const {
        const RawWindow s = quadWindow(params, tx, ty);
        sink(params, tx, ty, s, fallbackQuad(s));
    }
    // The thread (tx, ty) known to be an interior quad.
    __host__ __device__ __forceinline__ void interior(unsigned tx, unsigned ty) const {
        const RawWindow s = quadWindow(params, tx, ty);
        sink(params, tx, ty, s, Mode::interior(s));
    }
    // Interior quads: columns and rows of threads.
    IndexRange interiorColumns() const { return Mode::interiorRange(params.width); }
    IndexRange interiorRows() const { return Mode::interiorRange(params.height); }
};

// YUV420p image of the quad (target 0 of every colour kernel that writes YUV).
struct YuvSink {
    unsigned char* yuv;
    __host__ __device__ __forceinline__ void operator()(const cudaKernelParams& p, unsigned tx, unsigned ty,
                                                        const RawWindow&, const QuadRgb& quad) const {
        storeYuvQuad(yuv, p.width, p.height, tx, ty, colourQuad(quad, gammasOf(p)));
    }
};

// YUV420p image plus an RGB24 view of the raw mosaic: each pixel its own sample in its own
// channel and 0 in the other two (B site 0, 0, b; G sites 0, g, 0; R site r, 0, 0).
struct BggrSink {
    unsigned char* yuv;
    unsigned char* mosaic;
    __host__ __device__ __forceinline__ void operator()(const cudaKernelParams& p, unsigned tx, unsigned ty,
                                                        const RawWindow& s, const QuadRgb& quad) const {
        YuvSink{yuv}(p, tx, ty, s, quad);
        unsigned char* row0 = mosaic + (2 * static_cast<size_t>(ty) * p.width + 2 * static_cast<size_t>(tx)) * 3;
        unsigned char* row1 = row0 + static_cast<size_t>(p.width) * 3;
        storeRgbPair(row0, 0, 0, fullScaleToByte(s(0, 0)), 0, fullScaleToByte(s(0, 1)), 0);
        storeRgbPair(row1, 0, fullScaleToByte(s(1, 0)), 0, fullScaleToByte(s(1, 1)), 0, 0);
    }
};

// RGB24 of the interpolated quad, without exponents or clamping.
struct RgbSink {
    unsigned char* rgb;
    __host__ __device__ __forceinline__ void operator()(const cudaKernelParams& p, unsigned tx, unsigned ty,
                                                        const RawWindow&, const QuadRgb& quad) const {
        storeRgbQuad(rgb, p.width, tx, ty, quad);
    }
};

// RGB24 and YUV420p of the same quad (used with QuadOnlyMode).
struct RgbAndYuvSink {
    unsigned char* rgb;
    unsigned char* yuv;
    __host__ __device__ __forceinline__ void operator()(const cudaKernelParams& p, unsigned tx, unsigned ty,
                                                        const RawWindow& s, const QuadRgb& quad) const {
        RgbSink{rgb}(p, tx, ty, s, quad);
        YuvSink{yuv}(p, tx, ty, s, quad);
    }
};

using Yuv420Fast = ColourKernel<BilinearMode, YuvSink>;
using Yuv420Lanczos = ColourKernel<LanczosMode, YuvSink>;
using Yuv420FastBggr = ColourKernel<BilinearMode, BggrSink>;
using Yuv420RgbOnly = ColourKernel<BilinearMode, RgbSink>;
using Yuv420NoDemosaicRgb = ColourKernel<QuadOnlyMode, RgbAndYuvSink>;

}  // namespace kernels
}  // namespace capture
}  // namespace ruvo
