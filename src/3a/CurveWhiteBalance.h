// White balance along the sensor's colour-temperature curve. Each metering sample of the
// processed image is taken back through the pipeline's colour shaping to the linear red, green
// and blue the sensor delivered, and the gains in force are divided out, which leaves the raw
// chromaticity the sensor saw. Samples near the curve are candidates for gray, weighted by
// their distance to it; they vote for the colour temperature of their nearest curve point, the
// strongest cluster of votes gives the illuminant, and the curve gives its gains. Coloured
// surfaces that happen to lie near the curve scatter their votes, while the grays of one scene
// agree on one temperature.
#pragma once

#include "3a/ColourInverse.h"
#include "3a/ColourTemperatureCurve.h"
#include "3a/Metering.h"

#include <cstdint>
#include <vector>

namespace ruvo {
namespace capture {
namespace metering {

struct CurveSearch {
    float sigma = 0.04f;        // distance to the curve (log units) at which a sample's weight is e^-0.5
    uint8_t minLuma = 24;       // samples darker than this are too noisy to tell gray
    uint8_t maxLuma = 235;      // and brighter ones may be clipped in a channel
    float binMired = 10.0f;     // width of the vote bins
    float windowMired = 30.0f;  // votes within this of the strongest bin make the estimate
    float minShare = 0.02f;     // the estimate needs this share of the samples' weight
};

struct IlluminantEstimate {
    bool found = false;
    float kelvin = 0.0f;
    float support = 0.0f;  // weight behind the estimate, in samples
};

// Per-evaluation storage, kept by the camera so that a frame allocates nothing once sized.
struct CurveScratch {
    std::vector<float> mired;   // per sample: mired of its nearest curve point
    std::vector<float> weight;  // per sample: its vote
    std::vector<float> bins;
};

// The illuminant of the first `count` samples of `samples`, taken when the channel gains relative
// to green were `applied`. Not found when too little of the scene is near the curve.
IlluminantEstimate estimateIlluminant(const Samples& samples, uint32_t count, const ColourShape& shape,
                                      const ChannelGains& applied, const ColourTemperatureCurve& curve,
                                      const CurveSearch& search, CurveScratch& scratch);

// One step of the gains toward `target`: `rate` (0..1) of the way, in the logarithm of each gain.
ChannelGains smoothGains(const ChannelGains& current, const ChannelGains& target, float rate);

}  // namespace metering
}  // namespace capture
}  // namespace ruvo
