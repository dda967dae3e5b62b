// Undoing the pipeline's colour shaping: the inverse of the kernels' luma and colour-difference
// weights, chroma bytes back to signed differences, and the linear luma of an image.
#include "3a/ColourInverse.h"

#include <algorithm>
#include <array>
#include <cmath>

namespace ruvo {
namespace capture {
namespace metering {
namespace {

using Matrix3 = std::array<std::array<double, 3>, 3>;

// Rows: luma, blue difference and red difference of the shaped red, green and blue, as the
// colour kernels weigh them (the differences at twice the kernels' half-range coefficients).
constexpr Matrix3 kShapedToYuv = {{{0.299, 0.587, 0.114}, {-0.3374, -0.6626, 1.0}, {1.0, -0.8374, -0.1626}}};

Matrix3 inverse(const Matrix3& m) {
    Matrix3 out{};
    const double det = m[0][0] * (m[1][1] * m[2][2] - m[1][2] * m[2][1]) -
                       m[0][1] * (m[1][0] * m[2][2] - m[1][2] * m[2][0]) +
                       m[0][2] * (m[1][0] * m[2][1] - m[1][1] * m[2][0]);
    for (int r = 0; r < 3; ++r) {
        for (int c = 0; c < 3; ++c) {
            // Cofactor of (c, r), transposed into (r, c).
            const int r0 = (c + 1) % 3, r1 = (c + 2) % 3, c0 = (r + 1) % 3, c1 = (r + 2) % 3;
            out[r][c] = (m[r0][c0] * m[r1][c1] - m[r0][c1] * m[r1][c0]) / det;
        }
    }
    return out;
}

const Matrix3& yuvToShaped() {
    static const Matrix3 matrix = inverse(kShapedToYuv);
    return matrix;
}

// A luma byte's centre: the kernels truncate.
double unshapeLuma(uint8_t byte) { return (byte + 0.5) / 255.0; }

// A chroma byte back to the signed difference it was shaped from: the byte's centre, less the
// offset of one half, doubled, to the power 1 / exponent.
float unshapeChroma(uint8_t byte, float exponent) {
    const float shaped = 2.0f * ((static_cast<float>(byte) + 0.5f) / 255.0f - 0.5f);
    const float magnitude = std::pow(std::fabs(shaped), 1.0f / exponent);
    return shaped < 0.0f ? -magnitude : magnitude;
}

}  // namespace

bool linearRgb(uint8_t y, uint8_t u, uint8_t v, const ColourShape& shape, float rgb[3]) {
    const Matrix3& m = yuvToShaped();
    const double yuv[3] = {unshapeLuma(y), unshapeChroma(u, shape.chromaU), unshapeChroma(v, shape.chromaV)};
    const float exponents[3] = {shape.red, shape.green, shape.blue};
    for (int c = 0; c < 3; ++c) {
        const double shaped = m[c][0] * yuv[0] + m[c][1] * yuv[1] + m[c][2] * yuv[2];
        if (!(shaped > 0.0)) return false;
        rgb[c] = static_cast<float>(std::pow(shaped, 1.0 / exponents[c]));
    }
    return true;
}

void LinearLuma::build(const ColourShape& shape) {
    const Matrix3& m = yuvToShaped();
    const auto fixed = [](double value) { return static_cast<int32_t>(std::lround(value * kSteps)); };
    for (int byte = 0; byte < 256; ++byte) {
        const auto b = static_cast<uint8_t>(byte);
        const double u = unshapeChroma(b, shape.chromaU), v = unshapeChroma(b, shape.chromaV);
        _luma[b] = fixed(unshapeLuma(b));
        _fromU[b] = {fixed(m[0][1] * u), fixed(m[1][1] * u), fixed(m[2][1] * u)};
        _fromV[b] = {fixed(m[0][2] * v), fixed(m[1][2] * v), fixed(m[2][2] * v)};
    }
    const float exponents[3] = {shape.red, shape.green, shape.blue};
    const double weights[3] = {0.299, 0.587, 0.114};
    for (int c = 0; c < 3; ++c) {
        const float power = exponents[c] > 0.0f ? 1.0f / exponents[c] : 1.0f;
        for (int32_t i = 0; i <= kSteps; ++i) {
            const float linear = std::pow(static_cast<float>(i) / kSteps, power);
            _weighted[c][i] = static_cast<uint32_t>(std::lround(weights[c] * linear * kUnit));
        }
    }
    _shape = shape;
    _built = true;
}

float LinearLuma::mean(const YuvImage& image, const ColourShape& shape, uint32_t step) {
    const ColourShape& s = _shape;
    if (!_built || s.red != shape.red || s.green != shape.green || s.blue != shape.blue || s.chromaU != shape.chromaU ||
        s.chromaV != shape.chromaV)
        build(shape);
    const auto held = [](int32_t value) { return static_cast<size_t>(std::clamp(value, 0, kSteps)); };
    const size_t chromaWidth = image.width / 2;
    uint64_t sum = 0;
    uint64_t count = 0;
    for (uint32_t y = 0; y < image.height; y += step) {
        const uint8_t* luma = image.y + static_cast<size_t>(y) * image.width;
        const uint8_t* u = image.u + static_cast<size_t>(y / 2) * chromaWidth;
        const uint8_t* v = image.v + static_cast<size_t>(y / 2) * chromaWidth;
        for (uint32_t x = 0; x < image.width; x += step, ++count) {
            // The luma row of the inverse is (1, 0, 0): the luma enters each channel whole.
            const int32_t l = _luma[luma[x]];
            const Shares& fromU = _fromU[u[x / 2]];
            const Shares& fromV = _fromV[v[x / 2]];
            sum += _weighted[0][held(l + fromU.red + fromV.red)] + _weighted[1][held(l + fromU.green + fromV.green)] +
                   _weighted[2][held(l + fromU.blue + fromV.blue)];
        }
    }
    return count == 0 ? 0.0f : static_cast<float>(static_cast<double>(sum) / kUnit / static_cast<double>(count));
}

}  // namespace metering
}  // namespace capture
}  // namespace ruvo
