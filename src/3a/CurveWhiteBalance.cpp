// White balance along the colour-temperature curve: the
// weighted votes of the samples near the curve, and the smoothing of the gains.
#include "3a/CurveWhiteBalance.h"

#include <algorithm>
#include <array>
#include <cmath>

namespace ruvo {
namespace capture {
namespace metering {
namespace {

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
