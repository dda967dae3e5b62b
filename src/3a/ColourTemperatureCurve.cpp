// Interpolation along the colour-temperature curve, the nearest point of the curve to a raw
// chromaticity, and the curve's validation and reading from a configuration.
#include "3a/ColourTemperatureCurve.h"

#include "3a/BuiltInCurve.h"

#include <ruvo/capture/CaptureDeviceException.h>

#include <Poco/NumberParser.h>
#include <Poco/String.h>
#include <Poco/StringTokenizer.h>

#include <cmath>
#include <limits>

namespace ruvo {
namespace capture {
namespace metering {
namespace {

float mired(float kelvin) { return 1e6f / kelvin; }

// The gray point of a curve point: where a gray surface under its light lies in raw chromaticity.
void grayPoint(const CurvePoint& p, float& logRed, float& logBlue) {
    logRed = -std::log(p.redGain);
    logBlue = -std::log(p.blueGain);
}

bool positiveFinite(float x) { return std::isfinite(x) && x > 0.0f; }

std::vector<float> readList(const Poco::Util::AbstractConfiguration& config, const std::string& key) {
    std::vector<float> values;
    const std::string text = config.getString(key);
    const int options = Poco::StringTokenizer::TOK_TRIM | Poco::StringTokenizer::TOK_IGNORE_EMPTY;
    for (const std::string& item : Poco::StringTokenizer(text, ",", options)) {
        double value = 0.0;
        if (!Poco::NumberParser::tryParseFloat(item, value)) {
            throw CaptureDeviceException(key + " = \"" + text + "\": \"" + item + "\" is not a number");
        }
        values.push_back(static_cast<float>(value));
    }
    return values;
}

}  // namespace

ChannelGains gainsAt(const ColourTemperatureCurve& curve, float kelvin) {
    const std::vector<CurvePoint>& p = curve.points;
    if (!(kelvin > p.front().kelvin)) return {p.front().redGain, p.front().blueGain};
    if (kelvin >= p.back().kelvin) return {p.back().redGain, p.back().blueGain};
    size_t upper = 1;
    while (p[upper].kelvin < kelvin) ++upper;
    const CurvePoint& lo = p[upper - 1];
    const CurvePoint& hi = p[upper];
    const float t = (mired(lo.kelvin) - mired(kelvin)) / (mired(lo.kelvin) - mired(hi.kelvin));
    const auto along = [t](float a, float b) { return std::exp(std::log(a) + t * (std::log(b) - std::log(a))); };
    return {along(lo.redGain, hi.redGain), along(lo.blueGain, hi.blueGain)};
}

CurvePosition nearestOnCurve(const ColourTemperatureCurve& curve, float logRed, float logBlue) {
    CurvePosition best;
    best.distance = std::numeric_limits<float>::infinity();
    const std::vector<CurvePoint>& p = curve.points;
    for (size_t i = 0; i + 1 < p.size(); ++i) {
        float r0, b0, r1, b1;
        grayPoint(p[i], r0, b0);
        grayPoint(p[i + 1], r1, b1);
        const float dr = r1 - r0;
        const float db = b1 - b0;
        const float length2 = dr * dr + db * db;
        float t = length2 > 0.0f ? ((logRed - r0) * dr + (logBlue - b0) * db) / length2 : 0.0f;
        t = t < 0.0f ? 0.0f : (t > 1.0f ? 1.0f : t);
        const float distance = std::hypot(logRed - (r0 + t * dr), logBlue - (b0 + t * db));
        if (distance < best.distance) {
            best.distance = distance;
            best.mired = mired(p[i].kelvin) + t * (mired(p[i + 1].kelvin) - mired(p[i].kelvin));
        }
    }
    return best;
}

void validateCurve(const ColourTemperatureCurve& curve, const std::string& what) {
    const auto refuse = [&what](const std::string& why) { throw CaptureDeviceException(what + ": " + why); };
    if (curve.points.size() < 2) refuse("a colour-temperature curve needs at least two points");
    for (size_t i = 0; i < curve.points.size(); ++i) {
        const CurvePoint& p = curve.points[i];
        if (!positiveFinite(p.kelvin) || (i > 0 && !(p.kelvin > curve.points[i - 1].kelvin))) {
            refuse("colour temperatures must be positive and strictly ascending");
        }
        if (!positiveFinite(p.redGain) || !positiveFinite(p.blueGain)) refuse("gains must be positive and finite");
    }
    if (!(curve.referenceKelvin >= curve.points.front().kelvin &&
          curve.referenceKelvin <= curve.points.back().kelvin)) {
        refuse("the reference colour temperature " + std::to_string(curve.referenceKelvin) + " lies outside the curve");
    }
}

ColourTemperatureCurve builtInCurve() {
    ColourTemperatureCurve curve;
    curve.points.assign(kBuiltInCurvePoints.begin(), kBuiltInCurvePoints.end());
    curve.referenceKelvin = kBuiltInReferenceKelvin;
    return curve;
}

ColourTemperatureCurve readColourTemperatureCurve(const Poco::Util::AbstractConfiguration& config,
                                                  const std::string& prefix) {
    ColourTemperatureCurve curve = builtInCurve();
    const std::string kelvinKey = prefix + ".kelvin";
    const std::string redKey = prefix + ".redGain";
    const std::string blueKey = prefix + ".blueGain";
    const int present = int{config.has(kelvinKey)} + int{config.has(redKey)} + int{config.has(blueKey)};
    if (present != 0 && present != 3) {
        throw CaptureDeviceException(prefix + ": " + kelvinKey + ", " + redKey + " and " + blueKey + " come together");
    }
    if (present == 3) {
        const std::vector<float> kelvin = readList(config, kelvinKey);
        const std::vector<float> red = readList(config, redKey);
        const std::vector<float> blue = readList(config, blueKey);
        if (red.size() != kelvin.size() || blue.size() != kelvin.size()) {
            throw CaptureDeviceException(prefix + ": " + std::to_string(kelvin.size()) + " temperatures, " +
                                         std::to_string(red.size()) + " red and " + std::to_string(blue.size()) +
                                         " blue gains");
        }
        curve.points.clear();
        for (size_t i = 0; i < kelvin.size(); ++i) curve.points.push_back({kelvin[i], red[i], blue[i]});
    }
    curve.referenceKelvin =
        static_cast<float>(config.getDouble(prefix + ".referenceKelvin", static_cast<double>(curve.referenceKelvin)));
    validateCurve(curve, prefix);
    return curve;
}

}  // namespace metering
}  // namespace capture
}  // namespace ruvo
