// The colour path shared by every colour kernel: a Bayer quad with all three colours known at its
// four sites becomes four gamma-shaped luma values and one pair of chroma values, and is stored as
// bytes into a YUV420p image or as RGB24. Interpolation (which fills the quad) lives in Demosaic.h
// and LanczosTaps.h.
#pragma once

#include "CUDAKernels.h"
#include "FastMath.h"

#include <cstdint>

namespace ruvo {
namespace capture {
namespace kernels {

// Sites of a quad in memory order, top-left at (y0, x0) = (2 ty, 2 tx):
//
//     x0   x0+1
//   +----+----+
//   | B  | G1 |  y0
//   +----+----+
//   | G2 | R  |  y0+1
//   +----+----+
enum QuadSite { kSiteB = 0, kSiteG1 = 1, kSiteG2 = 2, kSiteR = 3 };

// Red, green and blue at the four sites, in raw units (16383 = full scale).
struct QuadRgb {
    float r[4];
    float g[4];
    float b[4];
};

// Luma of the four sites and chroma of the quad, clamped to [0, 255] but not yet truncated.
struct YuvQuad {
    float y[4];
    float u;
    float v;
};

struct Gammas {
    float r;
    float g;
    float b;
    float cr;
    float cb;
};

__host__ __device__ __forceinline__ Gammas gammasOf(const cudaKernelParams& params) {
    return {params.gammaR, params.gammaG, params.gammaB, params.gammaCr, params.gammaCb};
}

// Weights of the luma and of the chroma differences (blue minus luma, red minus luma, each halved);
// the hand-written AVX2 row (host/grid/Avx2ColourRow.cpp) uses them in the same order.
constexpr float kLumaR = 0.299f;
constexpr float kLumaG = 0.587f;
constexpr float kLumaB = 0.114f;
constexpr float kBlueDifferenceR = -0.1687f;
constexpr float kBlueDifferenceG = 0.3313f;
constexpr float kRedDifferenceG = 0.4187f;
constexpr float kRedDifferenceB = 0.0813f;

// (value / 16383)^gamma.
__host__ __device__ __forceinline__ float shapeChannel(float value, float gamma) {
    return fastPow(value * kInvFullScale, gamma);
}

// Sign-preserving power of a chroma value c in [-1, 1], halved: 0.5 sign(c) |c|^e.
__host__ __device__ __forceinline__ float shapeChroma(float c, float e) {
    const float magnitude = 0.5f * fastPow(fabsf(c), e);
    return c >= 0.0f ? magnitude : -magnitude;
}

// Luma of one site: exponents per channel, then the weighted sum.
__host__ __device__ __forceinline__ float lumaOf(float r, float g, float b, const Gammas& gammas) {
    const float rs = shapeChannel(r, gammas.r);
    const float gs = shapeChannel(g, gammas.g);
    const float bs = shapeChannel(b, gammas.b);
    return clampByteRange(255.0f * (kLumaR * rs + kLumaG * gs + kLumaB * bs));
}

// The common colour path: luma per site, chroma from the shaped quad means. The chroma exponents
// are crossed with respect to their names: blue-difference takes gammaCr, red-difference gammaCb.
// The lumas come first so that each site's three values are last used there: the host's vectorised
// loops then hold fewer values across the chroma powers.
__host__ __device__ __forceinline__ YuvQuad colourQuad(const QuadRgb& quad, const Gammas& gammas) {
    const float rm = 0.25f * (quad.r[0] + quad.r[1] + quad.r[2] + quad.r[3]);
    const float gm = 0.25f * (quad.g[0] + quad.g[1] + quad.g[2] + quad.g[3]);
    const float bm = 0.25f * (quad.b[0] + quad.b[1] + quad.b[2] + quad.b[3]);
    YuvQuad out;
    out.y[kSiteB] = lumaOf(quad.r[kSiteB], quad.g[kSiteB], quad.b[kSiteB], gammas);
    out.y[kSiteG1] = lumaOf(quad.r[kSiteG1], quad.g[kSiteG1], quad.b[kSiteG1], gammas);
    out.y[kSiteG2] = lumaOf(quad.r[kSiteG2], quad.g[kSiteG2], quad.b[kSiteG2], gammas);
    out.y[kSiteR] = lumaOf(quad.r[kSiteR], quad.g[kSiteR], quad.b[kSiteR], gammas);
    const float r = shapeChannel(rm, gammas.r);
    const float g = shapeChannel(gm, gammas.g);
    const float b = shapeChannel(bm, gammas.b);
    const float cb = 2.0f * (kBlueDifferenceR * r - kBlueDifferenceG * g + 0.5f * b);
    const float cr = 2.0f * (0.5f * r - kRedDifferenceG * g - kRedDifferenceB * b);
    out.u = clampByteRange(255.0f * (shapeChroma(cb, gammas.cr) + 0.5f));
    out.v = clampByteRange(255.0f * (shapeChroma(cr, gammas.cb) + 0.5f));
    return out;
}

// Stores the four Y bytes of a quad (the luma plane of a YUV420p image, row stride width).
__host__ __device__ __forceinline__ void storeLumaQuad(unsigned char* yuv, size_t width, size_t tx, size_t ty,
                                                       const YuvQuad& quad) {
    const size_t row0 = 2 * ty * width + 2 * tx;
    yuv[row0] = truncateToByte(quad.y[kSiteB]);
    yuv[row0 + 1] = truncateToByte(quad.y[kSiteG1]);
    yuv[row0 + width] = truncateToByte(quad.y[kSiteG2]);
    yuv[row0 + width + 1] = truncateToByte(quad.y[kSiteR]);
}

// Stores the U and V bytes of a quad into a YUV420p image of width x height (U plane at byte
// width * height, V plane a quarter of that further, both with row stride width / 2).
__host__ __device__ __forceinline__ void storeChromaQuad(unsigned char* yuv, size_t width, size_t height, size_t tx,
                                                         size_t ty, unsigned char u, unsigned char v) {
    const size_t plane = width * height;
    const size_t chroma = ty * (width / 2) + tx;
    yuv[plane + chroma] = u;
    yuv[plane + plane / 4 + chroma] = v;
}

// Stores a quad into a YUV420p image of width x height: four Y bytes, one U and one V byte.
__host__ __device__ __forceinline__ void storeYuvQuad(unsigned char* yuv, size_t width, size_t height, size_t tx,
                                                      size_t ty, const YuvQuad& quad) {
    storeLumaQuad(yuv, width, tx, ty, quad);
    storeChromaQuad(yuv, width, height, tx, ty, truncateToByte(quad.u), truncateToByte(quad.v));
}

#ifdef __BYTE_ORDER__
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "RGB pixel pairs are stored as little-endian words");
#endif

// Stores two horizontally adjacent RGB24 pixels (R, G, B byte order each) as three little-endian
// 16-bit words. A pair starts at an even byte (6 bytes per pair), and three equal stores are what
// the host vectoriser can interleave (it cannot interleave groups of six bytes).
__host__ __device__ __forceinline__ void storeRgbPair(unsigned char* pair, unsigned char r0, unsigned char g0,
                                                      unsigned char b0, unsigned char r1, unsigned char g1,
                                                      unsigned char b1) {
    uint16_t* words = reinterpret_cast<uint16_t*>(pair);
    words[0] = static_cast<uint16_t>(r0 | (g0 << 8));
    words[1] = static_cast<uint16_t>(b0 | (r1 << 8));
    words[2] = static_cast<uint16_t>(g1 | (b1 << 8));
}

// Stores a quad as four RGB24 pixels of an image with row stride 3 width, each channel its
// raw-scale value as a byte without exponent or clamp.
__host__ __device__ __forceinline__ void storeRgbQuad(unsigned char* rgb, size_t width, size_t tx, size_t ty,
                                                      const QuadRgb& q) {
    unsigned char* row0 = rgb + (2 * ty * width + 2 * tx) * 3;
    unsigned char* row1 = row0 + width * 3;
    storeRgbPair(row0, fullScaleToByte(q.r[kSiteB]), fullScaleToByte(q.g[kSiteB]), fullScaleToByte(q.b[kSiteB]),
                 fullScaleToByte(q.r[kSiteG1]), fullScaleToByte(q.g[kSiteG1]), fullScaleToByte(q.b[kSiteG1]));
    storeRgbPair(row1, fullScaleToByte(q.r[kSiteG2]), fullScaleToByte(q.g[kSiteG2]), fullScaleToByte(q.b[kSiteG2]),
                 fullScaleToByte(q.r[kSiteR]), fullScaleToByte(q.g[kSiteR]), fullScaleToByte(q.b[kSiteR]));
}

}  // namespace kernels
}  // namespace capture
}  // namespace ruvo
