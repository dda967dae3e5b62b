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

// Linear light of a shaped value in 0..1 by one channel's exponent, interpolated in a table.
class Linearise {
public:
    explicit Linearise(float exponent) {
        const double power = exponent > 0.0f ? 1.0 / exponent : 1.0;
        for (size_t i = 0; i < kSteps + 1; ++i) _table[i] = static_cast<float>(std::pow(double(i) / kSteps, power));
        _table[kSteps + 1] = _table[kSteps];
    }
    float operator()(float shaped) const {
        const float x = std::clamp(shaped, 0.0f, 1.0f) * static_cast<float>(kSteps);
        const auto i = static_cast<size_t>(x);
        return _table[i] + (x - static_cast<float>(i)) * (_table[i + 1] - _table[i]);
    }

private:
    static constexpr size_t kSteps = 1024;
    std::array<float, kSteps + 2> _table{};
};

// Per byte value: the luma, and each chroma plane's share of the shaped red, green and blue.
struct ShapedTables {
    explicit ShapedTables(const ColourShape& shape) {
        const Matrix3& m = yuvToShaped();
        for (int byte = 0; byte < 256; ++byte) {
            const auto b = static_cast<uint8_t>(byte);
            const double u = unshapeChroma(b, shape.chromaU), v = unshapeChroma(b, shape.chromaV);
            luma[b] = static_cast<float>(unshapeLuma(b));
            for (int c = 0; c < 3; ++c) {
                fromU[c][b] = static_cast<float>(m[c][1] * u);
                fromV[c][b] = static_cast<float>(m[c][2] * v);
            }
        }
    }
    std::array<float, 256> luma{};
    std::array<std::array<float, 256>, 3> fromU{}, fromV{};
};

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

float meanLinearLuma(const YuvImage& image, const ColourShape& shape, uint32_t step) {
    const ShapedTables t(shape);
    const Linearise red(shape.red), green(shape.green), blue(shape.blue);
    // The luma row of the inverse is (1, 0, 0): the luma byte enters each channel whole.
    const size_t chromaWidth = image.width / 2;
    double sum = 0.0;
    uint64_t count = 0;
    for (uint32_t y = 0; y < image.height; y += step) {
        const uint8_t* luma = image.y + static_cast<size_t>(y) * image.width;
        const uint8_t* u = image.u + static_cast<size_t>(y / 2) * chromaWidth;
        const uint8_t* v = image.v + static_cast<size_t>(y / 2) * chromaWidth;
        for (uint32_t x = 0; x < image.width; x += step, ++count) {
            const float l = t.luma[luma[x]];
            const uint8_t cu = u[x / 2], cv = v[x / 2];
            const float r = red(l + t.fromU[0][cu] + t.fromV[0][cv]);
            const float g = green(l + t.fromU[1][cu] + t.fromV[1][cv]);
            const float b = blue(l + t.fromU[2][cu] + t.fromV[2][cv]);
            sum += 0.299f * r + 0.587f * g + 0.114f * b;
        }
    }
    return count == 0 ? 0.0f : static_cast<float>(sum / static_cast<double>(count));
}

}  // namespace metering
}  // namespace capture
}  // namespace ruvo
