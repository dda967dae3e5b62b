// Bilinear demosaic of one B G / G R quad, the border fallback shared by both demosaic modes, and the
// raw-frame window through which every interpolation reads its neighbourhood. Values stay in raw
// units (16383 = full scale) until the colour path shapes them.
#pragma once

#include "ColourPath.h"

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace ruvo {
namespace capture {
namespace kernels {

// Raw samples around a fixed position; (dy, dx) are row and column offsets from it. The position is
// the top-left sample of a quad, so it and the row stride are even.
struct RawWindow {
    const uint16_t* origin;
    ptrdiff_t stride;

    __host__ __device__ __forceinline__ float operator()(int dy, int dx) const {
#ifdef __CUDA_ARCH__
        return static_cast<float>(origin[dy * stride + dx]);
#else
        // The host reads the 32-bit word holding the sample pair (even column low, odd column high,
        // little-endian): one contiguous load per pair and row for consecutive quads, which the
        // vectoriser handles without the scalar remainder that a strided 16-bit load would force.
        uint32_t pair;
        std::memcpy(&pair, origin + dy * stride + (dx & ~1), sizeof pair);
        return static_cast<float>((dx & 1) != 0 ? pair >> 16 : pair & 0xffffu);
#endif
    }
    // The same window moved to another position.
    __host__ __device__ __forceinline__ RawWindow shifted(int dy, int dx) const {
        return {origin + dy * stride + dx, stride};
    }
};

// Window on the top-left (B) sample of the quad of thread (tx, ty).
__host__ __device__ __forceinline__ RawWindow quadWindow(const cudaKernelParams& params, size_t tx, size_t ty) {
    const uint16_t* raw = static_cast<const uint16_t*>(params.sbggr);
    return {raw + 2 * ty * params.width + 2 * tx, static_cast<ptrdiff_t>(params.width)};
}

// Border quads of the bilinear mode: the first row and column of quads and the last ones, where
// the 6 x 6 neighbourhood would leave the frame. Halvings are unsigned.
__host__ __device__ __forceinline__ bool isBilinearBorder(unsigned tx, unsigned ty, unsigned width, unsigned height) {
    return 2 * ty < 2 || 2 * tx < 2 || ty >= (height - 1) / 2 || tx >= (width - 1) / 2;
}

// Border fallback, from the quad alone: every site takes the quad's R and B; the G sites keep their
// own green, the B and R sites take (G1 + G2) / 2.
__host__ __device__ __forceinline__ QuadRgb fallbackQuad(const RawWindow& s) {
    const float b = s(0, 0);
    const float g1 = s(0, 1);
    const float g2 = s(1, 0);
    const float r = s(1, 1);
    const float gMean = 0.5f * (g1 + g2);
    return {{r, r, r, r}, {gMean, g1, g2, gMean}, {b, b, b, b}};
}

constexpr float kQuarter = 0.25f;
constexpr float kThird = 0.33333331f;
constexpr float kTwelfth = 0.08333330f;

// 1/3 (near pair) + 1/12 (far four), as one fused operation so both builds round alike.
__host__ __device__ __forceinline__ float thirdsAndTwelfths(float nearSum, float farSum) {
    return fmaf(kThird, nearSum, kTwelfth * farSum);
}

// Bilinear interpolation of an interior quad; s is the window on its B sample (y0, x0):
//
//          x0-2 x0-1  x0  x0+1 x0+2 x0+3
//   y0-2    B    G    B    G    B    G
//   y0-1    G    R    G    R    G    R
//   y0      B    G   [B    G1]  B    G
//   y0+1    G    R   [G2   R ]  G    R
//   y0+2    B    G    B    G    B    G
//   y0+3    G    R    G    R    G    R
//
// B site: red from the four diagonal R, green from the four direct G. R site: blue from the four
// diagonal B, green from the four direct G. G sites: each missing colour from its near pair (left
// and right, or above and below) with weight 1/3 each, plus that pair moved two pixels either way
// along the other axis with weight 1/12 each.
__host__ __device__ __forceinline__ QuadRgb bilinearQuad(const RawWindow& s) {
    QuadRgb q;
    q.b[kSiteB] = s(0, 0);
    q.g[kSiteB] = kQuarter * (s(0, -1) + s(0, 1) + s(-1, 0) + s(1, 0));
    q.r[kSiteB] = kQuarter * (s(-1, -1) + s(-1, 1) + s(1, -1) + s(1, 1));

    q.g[kSiteG1] = s(0, 1);
    q.r[kSiteG1] = thirdsAndTwelfths(s(-1, 1) + s(1, 1), s(-1, -1) + s(-1, 3) + s(1, -1) + s(1, 3));
    q.b[kSiteG1] = thirdsAndTwelfths(s(0, 0) + s(0, 2), s(-2, 0) + s(-2, 2) + s(2, 0) + s(2, 2));

    q.g[kSiteG2] = s(1, 0);
    q.r[kSiteG2] = thirdsAndTwelfths(s(1, -1) + s(1, 1), s(-1, -1) + s(-1, 1) + s(3, -1) + s(3, 1));
    q.b[kSiteG2] = thirdsAndTwelfths(s(0, 0) + s(2, 0), s(0, -2) + s(0, 2) + s(2, -2) + s(2, 2));

    q.r[kSiteR] = s(1, 1);
    q.g[kSiteR] = kQuarter * (s(1, 0) + s(0, 1) + s(1, 2) + s(2, 1));
    q.b[kSiteR] = kQuarter * (s(0, 0) + s(0, 2) + s(2, 0) + s(2, 2));
    return q;
}

}  // namespace kernels
}  // namespace capture
}  // namespace ruvo
