// The Lanczos demosaic of one quad: every missing colour is a weighted sum of same-colour samples
// around its site, divided by a normaliser. The sums are templates over the sampler so that tests
// can read the tap map back by feeding impulses through the very code the kernels run.
#pragma once

#include "Demosaic.h"

namespace ruvo {
namespace capture {
namespace kernels {

// Tap weights: the radial Lanczos-3 kernel L(r) = sinc(r) sinc(r / 3) at r = 0.44 d, d the
// distance in pixels from the site to the sample, named by d squared. Every same-colour sample
// with |dy|, |dx| <= 5 takes the weight of its distance; (5, 5) is beyond the kernel's support.
constexpr float kLanczosD1 = 0.6857384f;
constexpr float kLanczosD2 = 0.4414172f;
constexpr float kLanczosD5 = 0.0136383f;
constexpr float kLanczosD9 = -0.1446849f;
constexpr float kLanczosD10 = -0.1470010f;
constexpr float kLanczosD13 = -0.1158713f;
constexpr float kLanczosD17 = -0.0481775f;
constexpr float kLanczosD18 = -0.0328710f;
constexpr float kLanczosD25 = 0.0274327f;
constexpr float kLanczosD26 = 0.0297758f;
constexpr float kLanczosD29 = 0.0304534f;
constexpr float kLanczosD34 = 0.0198592f;
constexpr float kLanczosD41 = 0.0039508f;

// Normalisers: the sum of the weights of each pattern below.
constexpr float kLanczosDiagonalNorm = 0.855256f;  // red at B, blue at R (32 taps)
constexpr float kLanczosCrossNorm = 1.565356f;     // green at B and R (60 taps)
constexpr float kLanczosLineNorm = 0.782678f;      // red and blue at G1 and G2 (30 taps)

// Tap patterns around a site, chosen by the parity of the offset (dy, dx) to a same-colour sample:
//   diagonal (dy and dx odd):   red at B, blue at R                  32 taps
//   column   (dy odd, dx even): red at G1, blue at G2                30 taps
//   row      (dy even, dx odd): blue at G1, red at G2                30 taps
//   cross    (dy + dx odd) = column + row: green at B and at R       60 taps
//
// Squared distance, and so weight, of a tap at (|dy|, |dx|) ('x' the site; an entry off the axes
// stands for four mirrored taps, one on an axis for two):
//
//   |dx|:      0   1   2   3   4   5
//   |dy| 0     x   1   .   9   .  25
//   |dy| 1     1   2   5  10  17  26
//   |dy| 2     .   5   .  13   .  29
//   |dy| 3     9  10  13  18  25  34
//   |dy| 4     .  17   .  25   .  41
//   |dy| 5    25  26  29  34  41   .      (5, 5) has d^2 = 50, outside the kernel's support
//
// Footprint of one quad, the union over its four sites: rows y0 - 5 .. y0 + 6 and columns
// x0 - 5 .. x0 + 6 without the four corners, 140 distinct samples:
//
//          x0-5             x0  x0+1            x0+6
//   y0-5    .  o  o  o  o  o  o  o  o  o  o  .
//           o  o  o  o  o  o  o  o  o  o  o  o
//   y0      o  o  o  o  o [B  G1] o  o  o  o  o
//   y0+1    o  o  o  o  o [G2 R ] o  o  o  o  o
//           o  o  o  o  o  o  o  o  o  o  o  o
//   y0+6    .  o  o  o  o  o  o  o  o  o  o  .

// s(-dy, -dx) + s(-dy, dx) + s(dy, -dx) + s(dy, dx).
template <class Sampler>
__host__ __device__ __forceinline__ float mirrored4(const Sampler& s, int dy, int dx) {
    return s(-dy, -dx) + s(-dy, dx) + s(dy, -dx) + s(dy, dx);
}

// The four mirror images of (dy, dx) and of (dx, dy).
template <class Sampler>
__host__ __device__ __forceinline__ float mirrored8(const Sampler& s, int dy, int dx) {
    return mirrored4(s, dy, dx) + mirrored4(s, dx, dy);
}

// s(-dy, 0) + s(dy, 0).
template <class Sampler>
__host__ __device__ __forceinline__ float mirroredRows(const Sampler& s, int dy) {
    return s(-dy, 0) + s(dy, 0);
}

// A sampler with rows and columns exchanged.
template <class Sampler>
struct Transposed {
    const Sampler& inner;
    __host__ __device__ __forceinline__ float operator()(int dy, int dx) const { return inner(dx, dy); }
};

// Weighted sum over the diagonal pattern (before normalisation).
template <class Sampler>
__host__ __device__ __forceinline__ float lanczosDiagonalSum(const Sampler& s) {
    return kLanczosD2 * mirrored4(s, 1, 1) + kLanczosD10 * mirrored8(s, 1, 3) + kLanczosD18 * mirrored4(s, 3, 3) +
           kLanczosD26 * mirrored8(s, 1, 5) + kLanczosD34 * mirrored8(s, 3, 5);
}

// Weighted sum over the column pattern (before normalisation).
template <class Sampler>
__host__ __device__ __forceinline__ float lanczosColumnSum(const Sampler& s) {
    return kLanczosD1 * mirroredRows(s, 1) + kLanczosD5 * mirrored4(s, 1, 2) + kLanczosD17 * mirrored4(s, 1, 4) +
           kLanczosD9 * mirroredRows(s, 3) + kLanczosD13 * mirrored4(s, 3, 2) +
           kLanczosD25 * (mirrored4(s, 3, 4) + mirroredRows(s, 5)) + kLanczosD29 * mirrored4(s, 5, 2) +
           kLanczosD41 * mirrored4(s, 5, 4);
}

// Weighted sum over the row pattern (before normalisation).
template <class Sampler>
__host__ __device__ __forceinline__ float lanczosRowSum(const Sampler& s) {
    return lanczosColumnSum(Transposed<Sampler>{s});
}

// Weighted sum over the cross pattern (before normalisation).
template <class Sampler>
__host__ __device__ __forceinline__ float lanczosCrossSum(const Sampler& s) {
    return lanczosColumnSum(s) + lanczosRowSum(s);
}

// Border quads of the Lanczos mode: within nine samples of the frame's edge (unsigned halving).
__host__ __device__ __forceinline__ bool isLanczosBorder(unsigned tx, unsigned ty, unsigned width, unsigned height) {
    return 2 * ty < 9 || 2 * tx < 9 || ty >= (height - 8) / 2 || tx >= (width - 8) / 2;
}

// Lanczos interpolation of an interior quad from windows on its four sites.
template <class Sampler>
__host__ __device__ __forceinline__ QuadRgb lanczosQuadAt(const Sampler& atB, const Sampler& atG1, const Sampler& atG2,
                                                          const Sampler& atR) {
    QuadRgb q;
    q.b[kSiteB] = atB(0, 0);
    q.g[kSiteB] = approxDivide(lanczosCrossSum(atB), kLanczosCrossNorm);
    q.r[kSiteB] = approxDivide(lanczosDiagonalSum(atB), kLanczosDiagonalNorm);

    q.g[kSiteG1] = atG1(0, 0);
    q.r[kSiteG1] = approxDivide(lanczosColumnSum(atG1), kLanczosLineNorm);
    q.b[kSiteG1] = approxDivide(lanczosRowSum(atG1), kLanczosLineNorm);

    q.g[kSiteG2] = atG2(0, 0);
    q.r[kSiteG2] = approxDivide(lanczosRowSum(atG2), kLanczosLineNorm);
    q.b[kSiteG2] = approxDivide(lanczosColumnSum(atG2), kLanczosLineNorm);

    q.r[kSiteR] = atR(0, 0);
    q.g[kSiteR] = approxDivide(lanczosCrossSum(atR), kLanczosCrossNorm);
    q.b[kSiteR] = approxDivide(lanczosDiagonalSum(atR), kLanczosDiagonalNorm);
    return q;
}

__host__ __device__ __forceinline__ QuadRgb lanczosQuad(const RawWindow& s) {
    return lanczosQuadAt(s, s.shifted(0, 1), s.shifted(1, 0), s.shifted(1, 1));
}

}  // namespace kernels
}  // namespace capture
}  // namespace ruvo
