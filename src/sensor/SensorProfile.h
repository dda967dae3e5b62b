// What a sensor offers and how its controls are used, as data: the exposure and gain controls
// with their units and laws, the black level, which private controls exist, and how its flips
// behave. The built-in "default" and "generic" profiles are written in the same key = value form
// as a profile file (docs/sensor-profiles.md lists every key).
#pragma once

#include <cstdint>
#include <string>

namespace Poco {
namespace Util {
class AbstractConfiguration;
}
}  // namespace Poco

namespace ruvo {
namespace capture {
namespace sensor {

enum class ExposureUnit {
    kLines,               // sensor lines: a configured line time, or one from the pixel rate and blanking
    kHundredMicroseconds  // V4L2_CID_EXPOSURE_ABSOLUTE
};

enum class GainLaw {
    kFourStage,  // the default sensor's curve (gainFromRegister / gainToRegister)
    kLinear,     // gain = code / unity
    kRational    // gain = (m0 * code + c0) / (m1 * code + c1)
};

// The analogue gain factor of a register code, and the code of a gain factor (truncated toward
// zero, saturated to 32 bits; the driver clamps it to its range).
struct GainModel {
    GainLaw law = GainLaw::kFourStage;
    double unity = 1.0;
    double m0 = 0.0, c0 = 1.0, m1 = 0.0, c1 = 1.0;

    float toGain(int32_t code) const;
    int32_t toRegister(float gain) const;
};

struct SensorProfile {
    std::string name;  // "default", "generic" or the file it was read from
    uint32_t exposureControl = 0;
    ExposureUnit exposureUnit = ExposureUnit::kLines;
    double lineTimeMicroseconds = 0.0;  // lines only; 0: from V4L2_CID_PIXEL_RATE and V4L2_CID_HBLANK
    uint32_t gainControl = 0;
    GainModel gain;
    uint32_t blackLevelControl = 0;  // 0: none, the value below applies
    double blackLevel = 0.0;         // in codes of blackLevelBits bits
    unsigned blackLevelBits = 10;
    // The default sensor's private controls: channel gains (0x00981000-2), the luminance
    // statistic (0x00981003) and the metering window (0x00981004-8).
    bool channelGains = false;
    bool luminanceStatistic = false;
    bool meteringWindow = false;
    bool flipsBeforeStreaming = false;  // flips refused while streaming: set before, a change restarts
    bool flipsModifyLayout = false;     // flips change the Bayer order: the format is read again
    // White balance: the mode a camera without awb.mode runs (gray | curve) and the sensor's red
    // and blue gains under the reference illuminant (plain data for the white-balance code).
    std::string whiteBalanceMode = "gray";
    float referenceRedGain = 1.0f;
    float referenceBlueGain = 1.0f;

    // Microseconds per exposure register unit (lines need lineTimeMicroseconds resolved).
    double exposureUnitMicroseconds() const;
    // Exposure register of a time in seconds, truncated toward zero; and back.
    int32_t exposureRegister(double seconds) const;
    float exposureSeconds(int32_t reg) const;
};

// The built-in profiles.
const SensorProfile& defaultSensorProfile();
const SensorProfile& genericSensorProfile();

// A profile from configuration keys (a profile file as POCO reads it), starting from `base`:
// keys that are absent keep its values. Throws CaptureDeviceException naming the key and `source`.
SensorProfile readSensorProfile(const Poco::Util::AbstractConfiguration& keys, const SensorProfile& base,
                                const std::string& source);

// The profile the camera key "sensor" names: default, generic, or a profile file (.properties,
// .ini, .xml or .json), read over the generic profile. "auto" is the camera's to settle and is
// refused here. Throws CaptureDeviceException.
SensorProfile loadSensorProfile(const std::string& name);

}  // namespace sensor
}  // namespace capture
}  // namespace ruvo
