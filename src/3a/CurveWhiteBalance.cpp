// White balance along the colour-temperature curve: undoing the pipeline's colour shaping, the
// weighted votes of the samples near the curve, and the smoothing of the gains.
#include "3a/CurveWhiteBalance.h"

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

// A chroma byte back to the signed difference it was shaped from: the byte's centre, less the
// offset of one half, doubled, to the power 1 / exponent.
float unshapeChroma(uint8_t byte, float exponent) {
    const float shaped = 2.0f * ((static_cast<float>(byte) + 0.5f) / 255.0f - 0.5f);
    const float magnitude = std::pow(std::fabs(shaped), 1.0f / exponent);
    return shaped < 0.0f ? -magnitude : magnitude;
}

float gaussianWeight(float distance, float sigma) {
    const float z = distance / sigma;
    return z < 3.0f ? std::exp(-0.5f * z * z) : 0.0f;
}

// Collects each usable sample's vote: its curve position and weight. Returns the weight of all
// votes and fills the vote bins.
float collectVotes(const Samples& samples, uint32_t count, const ColourShape& shape, const ChannelGains& applied,
                   const ColourTemperatureCurve& curve, const CurveSearch& search, float lowMired,
                   CurveScratch& scratch) {
    scratch.mired.assign(count, 0.0f);
    scratch.weight.assign(count, 0.0f);
    const float logRedGain = std::log(applied.red);
    const float logBlueGain = std::log(applied.blue);
    float total = 0.0f;
    for (uint32_t i = 0; i < count; ++i) {
        float rgb[3];
        if (samples.y[i] < search.minLuma || samples.y[i] > search.maxLuma) continue;
        if (!linearRgb(samples.y[i], samples.u[i], samples.v[i], shape, rgb)) continue;
        const float logRed = std::log(rgb[0] / rgb[1]) - logRedGain;
        const float logBlue = std::log(rgb[2] / rgb[1]) - logBlueGain;
        const CurvePosition position = nearestOnCurve(curve, logRed, logBlue);
        const float w = gaussianWeight(position.distance, search.sigma);
        if (w <= 0.0f) continue;
        scratch.mired[i] = position.mired;
        scratch.weight[i] = w;
        const auto bin = static_cast<size_t>((position.mired - lowMired) / search.binMired);
        scratch.bins[std::min(bin, scratch.bins.size() - 1)] += w;
        total += w;
    }
    return total;
}

}  // namespace

bool linearRgb(uint8_t y, uint8_t u, uint8_t v, const ColourShape& shape, float rgb[3]) {
    static const Matrix3 yuvToShaped = inverse(kShapedToYuv);
    const double yuv[3] = {(y + 0.5) / 255.0, unshapeChroma(u, shape.chromaU), unshapeChroma(v, shape.chromaV)};
    const float exponents[3] = {shape.red, shape.green, shape.blue};
    for (int c = 0; c < 3; ++c) {
        const double shaped = yuvToShaped[c][0] * yuv[0] + yuvToShaped[c][1] * yuv[1] + yuvToShaped[c][2] * yuv[2];
        if (!(shaped > 0.0)) return false;
        rgb[c] = static_cast<float>(std::pow(shaped, 1.0 / exponents[c]));
    }
    return true;
}

IlluminantEstimate estimateIlluminant(const Samples& samples, uint32_t count, const ColourShape& shape,
                                      const ChannelGains& applied, const ColourTemperatureCurve& curve,
                                      const CurveSearch& search, CurveScratch& scratch) {
    count = std::min<uint32_t>(count, static_cast<uint32_t>(samples.y.size()));
    const float lowMired = 1e6f / curve.points.back().kelvin;
    const float highMired = 1e6f / curve.points.front().kelvin;
    scratch.bins.assign(static_cast<size_t>((highMired - lowMired) / search.binMired) + 1, 0.0f);
    const float total = collectVotes(samples, count, shape, applied, curve, search, lowMired, scratch);

    // The strongest bin, counting half of each neighbour, so that a cluster split by a bin edge
    // still wins.
    size_t peak = 0;
    float peakVotes = -1.0f;
    for (size_t b = 0; b < scratch.bins.size(); ++b) {
        const float left = b > 0 ? scratch.bins[b - 1] : 0.0f;
        const float right = b + 1 < scratch.bins.size() ? scratch.bins[b + 1] : 0.0f;
        const float votes = scratch.bins[b] + 0.5f * (left + right);
        if (votes > peakVotes) {
            peakVotes = votes;
            peak = b;
        }
    }
    const float centre = lowMired + (static_cast<float>(peak) + 0.5f) * search.binMired;
    double sum = 0.0;
    double weight = 0.0;
    for (uint32_t i = 0; i < count; ++i) {
        if (scratch.weight[i] <= 0.0f || std::fabs(scratch.mired[i] - centre) > search.windowMired) continue;
        sum += static_cast<double>(scratch.weight[i]) * scratch.mired[i];
        weight += scratch.weight[i];
    }
    IlluminantEstimate estimate;
    estimate.support = static_cast<float>(weight);
    if (total <= 0.0f || weight < search.minShare * static_cast<double>(count)) return estimate;
    estimate.found = true;
    estimate.kelvin = static_cast<float>(1e6 / (sum / weight));
    return estimate;
}

ChannelGains smoothGains(const ChannelGains& current, const ChannelGains& target, float rate) {
    const auto step = [rate](float from, float to) {
        return std::exp(std::log(from) + rate * (std::log(to) - std::log(from)));
    };
    return {step(current.red, target.red), step(current.blue, target.blue)};
}

}  // namespace metering
}  // namespace capture
}  // namespace ruvo
