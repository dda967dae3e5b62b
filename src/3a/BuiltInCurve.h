// The colour-temperature curve of the simulator's bare sensor (`sim.colourResponse = raw`): the
// red and blue gains relative to green that bring a gray surface to neutral under a black body
// of each temperature, taken from the sensor's model at these points, and the reference
// illuminant (5000 K) white balance starts from. Interpolated in mired between the points, the
// gains stay within 0.2% of the model's over 2000..12000 K.
#pragma once

#include "3a/ColourTemperatureCurve.h"

#include <array>

namespace ruvo {
namespace capture {
namespace metering {

constexpr std::array<CurvePoint, 10> kBuiltInCurvePoints = {{
    {2000.0f, 0.9387f, 3.4762f},
    {2400.0f, 1.1448f, 2.6938f},
    {2850.0f, 1.3512f, 2.1847f},
    {3400.0f, 1.5695f, 1.8124f},
    {4100.0f, 1.8010f, 1.5291f},
    {5000.0f, 2.0380f, 1.3138f},
    {6500.0f, 2.3248f, 1.1184f},
    {8000.0f, 2.5225f, 1.0123f},
    {10000.0f, 2.7024f, 0.9305f},
    {12000.0f, 2.8247f, 0.8816f},
}};

constexpr float kBuiltInReferenceKelvin = 5000.0f;

}  // namespace metering
}  // namespace capture
}  // namespace ruvo
