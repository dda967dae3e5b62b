// Straightforward double-precision references for the colour kernels, written from the pipeline's
// documented arithmetic rather than from the kernels' code: demosaic of one quad (bilinear, Lanczos
// with weights computed from the windowed-sinc formula, border fallback), the colour path, and the
// skin-colour decisions.
#pragma once

#include "kernel_buffers.h"

#include <array>
#include <cstdint>

namespace ruvo {
namespace test {

struct RgbValue {
    double r;
    double g;
    double b;
};

// Interpolated colours at the B, G1, G2 and R sites of a quad, in raw units.
using QuadColours = std::array<RgbValue, 4>;

struct RawImage {
    const uint16_t* samples;
    unsigned width;
    unsigned height;
    double at(int y, int x) const { return samples[static_cast<size_t>(y) * width + x]; }
};

// Border fallback of quad (tx, ty): R and B of the quad everywhere, green own or (G1 + G2) / 2.
QuadColours referenceFallback(const RawImage& raw, unsigned tx, unsigned ty);
// Bilinear demosaic of quad (tx, ty), border rule included.
QuadColours referenceBilinear(const RawImage& raw, unsigned tx, unsigned ty);
// Lanczos demosaic of quad (tx, ty), border rule included.
QuadColours referenceLanczos(const RawImage& raw, unsigned tx, unsigned ty);

// The windowed-sinc weight of a same-colour sample at offset (dy, dx): L(0.44 d), 0 beyond r = 3.
double lanczosWeight(int dy, int dx);

// Clamped, untruncated luma per site and chroma of the quad.
struct QuadYuv {
    std::array<double, 4> y;
    double u;
    double v;
};
QuadYuv referenceColourPath(const QuadColours& quad, const Gammas& gammas);

// Skin-colour model of the histogram kernel: the smallest cluster distance.
double referenceSkinScore(double y, double u, double v);

}  // namespace test
}  // namespace ruvo
