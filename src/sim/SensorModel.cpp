// Tables of the physical model: the illuminant's channel multipliers (neutral and bare sensor) and
// the Gaussian quantiles.
#include "sim/SensorModel.h"

#include <array>
#include <cmath>
#include <vector>

namespace ruvo {
namespace capture {
namespace sim {
namespace {

struct IlluminantEntry {
    float kelvin, red, blue;
};

// Sensor red and blue response relative to green, ascending colour temperature. Warm light
// raises red and lowers blue; daylight at 6500 K is neutral.
constexpr std::array<IlluminantEntry, 9> kIlluminants = {{{2000.0f, 2.40f, 0.30f},
                                                          {2500.0f, 1.95f, 0.42f},
                                                          {3000.0f, 1.65f, 0.53f},
                                                          {3500.0f, 1.45f, 0.63f},
                                                          {4000.0f, 1.31f, 0.71f},
                                                          {5000.0f, 1.14f, 0.85f},
                                                          {6500.0f, 1.00f, 1.00f},
                                                          {8000.0f, 0.91f, 1.12f},
                                                          {10000.0f, 0.83f, 1.24f}}};

// Spectral sensitivity of one colour filter: a Gaussian in wavelength, scaled by its peak.
struct FilterBand {
    double peakNm, widthNm, height;
};

// The bare sensor's filters, red, green, blue: green is the most sensitive, red and blue pass
// less light, and blue sits where a tungsten lamp emits little.
constexpr std::array<FilterBand, 3> kRawFilters = {{{600.0, 32.0, 0.60}, {535.0, 40.0, 1.00}, {470.0, 40.0, 0.85}}};

// Planck's law up to a constant factor: spectral radiance of a black body at `kelvin`.
double blackBody(double nm, double kelvin) {
    constexpr double kSecondRadiation = 1.4388e-2;  // h c / k, metre kelvin
    const double metres = nm * 1e-9;
    return 1.0 / (std::pow(metres, 5) * std::expm1(kSecondRadiation / (metres * kelvin)));
}

// Inverse of the standard normal distribution function, by a rational approximation with a
// relative error below 1.2e-9 over 0 < p < 1.
double inverseNormal(double p) {
    static const double a[] = {-3.969683028665376e+01, 2.209460984245205e+02,  -2.759285104469687e+02,
                               1.383577518672690e+02,  -3.066479806614716e+01, 2.506628277459239e+00};
    static const double b[] = {-5.447609879822406e+01, 1.615858368580409e+02, -1.556989798598866e+02,
                               6.680131188771972e+01, -1.328068155288572e+01};
    static const double c[] = {-7.784894002430293e-03, -3.223964580411365e-01, -2.400758277161838e+00,
                               -2.549732539343734e+00, 4.374664141464968e+00,  2.938163982698783e+00};
    static const double d[] = {7.784695709041462e-03, 3.224671290700398e-01, 2.445134137142996e+00,
                               3.754408661907416e+00};
    constexpr double kLow = 0.02425;
    const auto tail = [&](double q) {
        return (((((c[0] * q + c[1]) * q + c[2]) * q + c[3]) * q + c[4]) * q + c[5]) /
               ((((d[0] * q + d[1]) * q + d[2]) * q + d[3]) * q + 1.0);
    };
    if (p < kLow) return tail(std::sqrt(-2.0 * std::log(p)));
    if (p > 1.0 - kLow) return -tail(std::sqrt(-2.0 * std::log(1.0 - p)));
    const double q = p - 0.5;
    const double r = q * q;
    return (((((a[0] * r + a[1]) * r + a[2]) * r + a[3]) * r + a[4]) * r + a[5]) * q /
           (((((b[0] * r + b[1]) * r + b[2]) * r + b[3]) * r + b[4]) * r + 1.0);
}

}  // namespace

ChannelMultipliers colourTemperatureMultipliers(float kelvin) {
    if (kelvin <= kIlluminants.front().kelvin) return {kIlluminants.front().red, kIlluminants.front().blue};
    if (kelvin >= kIlluminants.back().kelvin) return {kIlluminants.back().red, kIlluminants.back().blue};
    size_t upper = 1;
    while (kIlluminants[upper].kelvin < kelvin) ++upper;
    const IlluminantEntry& lo = kIlluminants[upper - 1];
    const IlluminantEntry& hi = kIlluminants[upper];
    // Mired (1e6 / K) spaces colour temperatures about evenly in perceived colour.
    const float t = (1e6f / lo.kelvin - 1e6f / kelvin) / (1e6f / lo.kelvin - 1e6f / hi.kelvin);
    return {lo.red + (hi.red - lo.red) * t, lo.blue + (hi.blue - lo.blue) * t};
}

ChannelMultipliers rawSensorMultipliers(float kelvin) {
    double response[3] = {0.0, 0.0, 0.0};
    for (int nm = 380; nm <= 720; nm += 5) {
        const double radiance = blackBody(nm, kelvin);
        for (size_t c = 0; c < kRawFilters.size(); ++c) {
            const double z = (nm - kRawFilters[c].peakNm) / kRawFilters[c].widthNm;
            response[c] += kRawFilters[c].height * std::exp(-0.5 * z * z) * radiance;
        }
    }
    return {static_cast<float>(response[0] / response[1]), static_cast<float>(response[2] / response[1])};
}

const float* gaussianTable() {
    static const std::vector<float> table = [] {
        std::vector<float> t(65536);
        for (size_t i = 0; i < t.size(); ++i)
            t[i] = static_cast<float>(inverseNormal((static_cast<double>(i) + 0.5) / static_cast<double>(t.size())));
        return t;
    }();
    return table.data();
}

}  // namespace sim
}  // namespace capture
}  // namespace ruvo
