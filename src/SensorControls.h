// The sensor's V4L2 controls as the camera and the simulated sensor both use them: control
// identifiers, and the conversions between register values and physical units.
#pragma once

#include <cmath>
#include <cstdint>

namespace ruvo {
namespace capture {
namespace sensor {

constexpr uint32_t CID_EXPOSURE = 0x00980911;  // exposure, units of kExposureUnitMicroseconds
constexpr uint32_t CID_GAIN = 0x00980913;      // analogue gain register, decoded by gainFromRegister
constexpr uint32_t CID_HFLIP = 0x00980914;
constexpr uint32_t CID_VFLIP = 0x00980915;
constexpr uint32_t CID_RED_GAIN = 0x00981000;  // channel gains in 1/1024 units
constexpr uint32_t CID_GREEN_GAIN = 0x00981001;
constexpr uint32_t CID_BLUE_GAIN = 0x00981002;
constexpr uint32_t CID_AVG_LUMINANCE = 0x00981003;  // read-only statistic of the last frame
constexpr uint32_t CID_METER_ENABLE = 0x00981004;   // metering rectangle on/off
constexpr uint32_t CID_METER_LEFT = 0x00981005;
constexpr uint32_t CID_METER_TOP = 0x00981006;
constexpr uint32_t CID_METER_WIDTH = 0x00981007;
constexpr uint32_t CID_METER_HEIGHT = 0x00981008;

// One exposure register unit (one sensor line) in microseconds.
constexpr float kExposureUnitMicroseconds = 0.44782403f;

}  // namespace sensor

// Gain factor of an analogue gain register value. The register is clamped to 0..2045; the four
// coarse stages each have their own fine step and overlap in gain (375 gives 2.93, 376 gives 2.0).
constexpr float gainFromRegister(int32_t reg) {
    int32_t r = reg < 0 ? 0 : (reg > 2045 ? 2045 : reg);
    if (r < 376) return r / 128.0f;
    if (r < 884) return (r - 248) / 64.0f;
    if (r < 1912) return (r - 756) / 32.0f;
    return (r - 1784) / 16.0f;
}

// Gain register of a linear gain factor, truncating toward zero. The stage offsets (-8, -12, -8)
// make the curve step at 2, 4 and 8 (1.99 gives 254, 2.0 gives 376); negative gains and a gain
// that is not a number give 0, gains above 15.999 the top register 2039.
inline int32_t gainToRegister(float g) {
    if (std::isnan(g) || g < 0.0f) return 0;
    if (g > 15.999f) return 2039;
    if (g < 2.0f) return static_cast<int32_t>(g * 128.0f);
    if (g < 4.0f) return static_cast<int32_t>(64.0f * g - 8.0f + 256.0f);
    if (g < 8.0f) return static_cast<int32_t>(32.0f * g - 12.0f + 768.0f);
    return static_cast<int32_t>(16.0f * g - 8.0f + 1792.0f);
}

// A register value from a real number, truncated toward zero and saturated to 32 bits; a value
// that is not a number gives 0, so that no client value can overflow the conversion.
inline int32_t truncateToRegister(double value) {
    const double t = std::trunc(value);
    if (std::isnan(t)) return 0;
    if (t <= static_cast<double>(INT32_MIN)) return INT32_MIN;
    if (t >= static_cast<double>(INT32_MAX)) return INT32_MAX;
    return static_cast<int32_t>(t);
}

}  // namespace capture
}  // namespace ruvo
