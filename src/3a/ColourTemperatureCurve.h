// A sensor's colour-temperature curve: for black-body light of each tabulated colour temperature,
// the red and blue gains (relative to green) that make a gray surface neutral, and the reference
// illuminant white balance starts from. Between points the logarithms of the gains are linear in
// mired (1e6 / K), which spaces colour temperatures about evenly in perceived colour; outside
// the table the end points hold.
#pragma once

#include <Poco/Util/AbstractConfiguration.h>

#include <string>
#include <vector>

namespace ruvo {
namespace capture {
namespace metering {

struct CurvePoint {
    float kelvin = 0.0f;
    float redGain = 1.0f;
    float blueGain = 1.0f;
};

// Red and blue gains relative to green.
struct ChannelGains {
    float red = 1.0f;
    float blue = 1.0f;
};

struct ColourTemperatureCurve {
    std::vector<CurvePoint> points;  // at least two, kelvin strictly ascending
    float referenceKelvin = 5000.0f;
};

// Where a raw chromaticity lies relative to the curve.
struct CurvePosition {
    float mired = 0.0f;     // of the nearest point of the curve
    float distance = 0.0f;  // from it, in natural-log units of (red / green, blue / green)
};

ChannelGains gainsAt(const ColourTemperatureCurve& curve, float kelvin);

// The point of the curve nearest to a raw chromaticity given as ln(red / green) and
// ln(blue / green) of what the sensor saw before any gain. A gray surface under the light of the
// curve's colour temperature T lies at (-ln redGain(T), -ln blueGain(T)).
CurvePosition nearestOnCurve(const ColourTemperatureCurve& curve, float logRed, float logBlue);

// Throws CaptureDeviceException naming `what` for fewer than two points, colour temperatures not
// strictly ascending or not positive, gains not positive and finite, or a reference outside the
// table.
void validateCurve(const ColourTemperatureCurve& curve, const std::string& what);

// The curve of the simulator's bare sensor (`sim.colourResponse = raw`), used when a camera's
// configuration carries none.
ColourTemperatureCurve builtInCurve();

// Reads a curve from `<prefix>.kelvin`, `<prefix>.redGain` and `<prefix>.blueGain` (lists of
// numbers separated by commas, all three or none) and `<prefix>.referenceKelvin`; what is absent
// comes from the built-in curve. Throws CaptureDeviceException naming the key for a list that
// does not parse, lists of different lengths, or a curve validateCurve refuses.
ColourTemperatureCurve readColourTemperatureCurve(const Poco::Util::AbstractConfiguration& config,
                                                  const std::string& prefix);

}  // namespace metering
}  // namespace capture
}  // namespace ruvo
