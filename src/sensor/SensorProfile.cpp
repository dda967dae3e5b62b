// Sensor profiles: the built-in ones as key = value text, the reading and checking of profile
// keys, and the exposure and gain conversions of a profile.
#include "sensor/SensorProfile.h"

#include "SensorControls.h"

#include <ruvo/capture/CaptureDeviceException.h>

#include <Poco/AutoPtr.h>
#include <Poco/Exception.h>
#include <Poco/NumberParser.h>
#include <Poco/Path.h>
#include <Poco/String.h>
#include <Poco/Util/IniFileConfiguration.h>
#include <Poco/Util/JSONConfiguration.h>
#include <Poco/Util/PropertyFileConfiguration.h>
#include <Poco/Util/XMLConfiguration.h>

#include <cmath>
#include <sstream>

namespace ruvo {
namespace capture {
namespace sensor {

namespace {

// The default sensor: exposure in lines of 0.44782403 us, the four-stage gain curve, and every
// private control. Every key is given.
const char* const kDefaultProfileText = R"(
exposure.control = 0x00980911
exposure.unit = lines
exposure.lineTime = 0.44782403
gain.control = 0x00980913
gain.law = fourStage
blackLevel = 0
private.channelGains = true
private.luminance = true
private.meteringWindow = true
flips.beforeStreaming = false
flips.modifyLayout = false
whiteBalance.mode = gray
whiteBalance.referenceRedGain = 1
whiteBalance.referenceBlueGain = 1
)";

// A sensor with the standard controls only, as it differs from the default sensor: exposure in
// lines timed by the pixel rate and the horizontal blanking, analogue gain by the rational law
// most such sensors use (256 / (256 - code)), black level from V4L2_CID_BLACK_LEVEL where the
// driver has it, no private controls. The camera settles the controls and flip behaviour from
// what the driver reports (CUDACameraProfile.cpp).
const char* const kGenericProfileText = R"(
exposure.lineTime = 0
gain.control = 0x009e0903
gain.law = rational
gain.m0 = 0
gain.c0 = 256
gain.m1 = -1
gain.c1 = 256
blackLevel.control = 0x0098090b
private.channelGains = false
private.luminance = false
private.meteringWindow = false
whiteBalance.mode = curve
)";

[[noreturn]] void invalid(const std::string& source, const std::string& key, const std::string& text,
                          const std::string& why) {
    throw CaptureDeviceException("sensor profile " + source + ": " + key + " = \"" + text + "\": " + why);
}

uint32_t readControlId(const Poco::Util::AbstractConfiguration& keys, const std::string& key, uint32_t fallback,
                       const std::string& source) {
    if (!keys.has(key)) return fallback;
    const std::string text = Poco::trim(keys.getString(key));
    Poco::UInt64 value = 0;
    const bool hex = text.size() > 2 && (text.compare(0, 2, "0x") == 0 || text.compare(0, 2, "0X") == 0);
    const bool ok = hex ? Poco::NumberParser::tryParseHex64(text.substr(2), value)
                        : Poco::NumberParser::tryParseUnsigned64(text, value);
    if (!ok || value > 0xffffffffu) invalid(source, key, text, "expected a control id such as 0x00980911");
    return static_cast<uint32_t>(value);
}

double readReal(const Poco::Util::AbstractConfiguration& keys, const std::string& key, double fallback,
                const std::string& source) {
    if (!keys.has(key)) return fallback;
    const std::string text = Poco::trim(keys.getString(key));
    double value = 0.0;
    if (!Poco::NumberParser::tryParseFloat(text, value) || !std::isfinite(value))
        invalid(source, key, text, "expected a number");
    return value;
}

bool readFlag(const Poco::Util::AbstractConfiguration& keys, const std::string& key, bool fallback,
              const std::string& source) {
    if (!keys.has(key)) return fallback;
    const std::string text = Poco::trim(keys.getString(key));
    bool value = false;
    if (!Poco::NumberParser::tryParseBool(text, value)) invalid(source, key, text, "expected true or false");
    return value;
}

std::string readWord(const Poco::Util::AbstractConfiguration& keys, const std::string& key, const std::string& fallback,
                     std::initializer_list<const char*> accepted, const std::string& source) {
    const std::string text = Poco::trim(keys.getString(key, fallback));
    std::string list;
    for (const char* word : accepted) {
        if (text == word) return text;
        list += (list.empty() ? "" : ", ") + std::string(word);
    }
    invalid(source, key, text, "expected one of " + list);
}

void readGain(const Poco::Util::AbstractConfiguration& keys, GainModel& gain, const std::string& source) {
    const char* names[] = {"fourStage", "linear", "rational"};
    const std::string law =
        readWord(keys, "gain.law", names[static_cast<int>(gain.law)], {"fourStage", "linear", "rational"}, source);
    gain.law = law == "fourStage" ? GainLaw::kFourStage : (law == "linear" ? GainLaw::kLinear : GainLaw::kRational);
    gain.unity = readReal(keys, "gain.unity", gain.unity, source);
    gain.m0 = readReal(keys, "gain.m0", gain.m0, source);
    gain.c0 = readReal(keys, "gain.c0", gain.c0, source);
    gain.m1 = readReal(keys, "gain.m1", gain.m1, source);
    gain.c1 = readReal(keys, "gain.c1", gain.c1, source);
    if (gain.law == GainLaw::kLinear && !(gain.unity > 0.0))
        invalid(source, "gain.unity", std::to_string(gain.unity), "must be above 0");
    if (gain.law == GainLaw::kRational && gain.m0 * gain.c1 == gain.c0 * gain.m1)
        invalid(source, "gain.m0", std::to_string(gain.m0), "the rational law is constant (m0 * c1 = c0 * m1)");
}

SensorProfile builtIn(const char* text, const SensorProfile& base, const char* name) {
    std::istringstream stream(text);
    Poco::AutoPtr<Poco::Util::PropertyFileConfiguration> keys = new Poco::Util::PropertyFileConfiguration(stream);
    SensorProfile profile = readSensorProfile(*keys, base, name);
    profile.name = name;
    return profile;
}

}  // namespace

float GainModel::toGain(int32_t code) const {
    switch (law) {
        case GainLaw::kFourStage:
            return gainFromRegister(code);
        case GainLaw::kLinear:
            return static_cast<float>(code / unity);
        case GainLaw::kRational:
            return static_cast<float>((m0 * code + c0) / (m1 * code + c1));
    }
    return 1.0f;
}

int32_t GainModel::toRegister(float g) const {
    switch (law) {
        case GainLaw::kFourStage:
            return gainToRegister(g);
        case GainLaw::kLinear:
            return truncateToRegister(g * unity);
        case GainLaw::kRational:
            // g (m1 x + c1) = m0 x + c0, solved for x; rounded, as the law's codes are whole.
            return truncateToRegister(std::round((c0 - g * c1) / (g * m1 - m0)));
    }
    return 0;
}

double SensorProfile::exposureUnitMicroseconds() const {
    return exposureUnit == ExposureUnit::kHundredMicroseconds ? 100.0 : lineTimeMicroseconds;
}

int32_t SensorProfile::exposureRegister(double seconds) const {
    return truncateToRegister(seconds * 1000000.0 / exposureUnitMicroseconds());
}

float SensorProfile::exposureSeconds(int32_t reg) const {
    return reg * static_cast<float>(exposureUnitMicroseconds()) / 1e6f;
}

SensorProfile readSensorProfile(const Poco::Util::AbstractConfiguration& keys, const SensorProfile& base,
                                const std::string& source) {
    SensorProfile p = base;
    p.name = source;
    p.exposureControl = readControlId(keys, "exposure.control", p.exposureControl, source);
    const std::string unit = readWord(keys, "exposure.unit", p.exposureUnit == ExposureUnit::kLines ? "lines" : "100us",
                                      {"lines", "100us"}, source);
    p.exposureUnit = unit == "lines" ? ExposureUnit::kLines : ExposureUnit::kHundredMicroseconds;
    p.lineTimeMicroseconds = readReal(keys, "exposure.lineTime", p.lineTimeMicroseconds, source);
    if (p.lineTimeMicroseconds < 0.0)
        invalid(source, "exposure.lineTime", std::to_string(p.lineTimeMicroseconds), "cannot be negative");
    p.gainControl = readControlId(keys, "gain.control", p.gainControl, source);
    readGain(keys, p.gain, source);
    p.blackLevel = readReal(keys, "blackLevel", p.blackLevel, source);
    p.blackLevelBits = static_cast<unsigned>(readReal(keys, "blackLevel.bits", p.blackLevelBits, source));
    if (p.blackLevelBits < 8 || p.blackLevelBits > 16)
        invalid(source, "blackLevel.bits", std::to_string(p.blackLevelBits), "expected 8 to 16");
    if (p.blackLevel < 0.0 || p.blackLevel >= static_cast<double>(1u << p.blackLevelBits))
        invalid(source, "blackLevel", std::to_string(p.blackLevel), "outside the codes of blackLevel.bits");
    p.blackLevelControl = readControlId(keys, "blackLevel.control", p.blackLevelControl, source);
    p.channelGains = readFlag(keys, "private.channelGains", p.channelGains, source);
    p.luminanceStatistic = readFlag(keys, "private.luminance", p.luminanceStatistic, source);
    p.meteringWindow = readFlag(keys, "private.meteringWindow", p.meteringWindow, source);
    p.flipsBeforeStreaming = readFlag(keys, "flips.beforeStreaming", p.flipsBeforeStreaming, source);
    p.flipsModifyLayout = readFlag(keys, "flips.modifyLayout", p.flipsModifyLayout, source);
    p.whiteBalanceMode = readWord(keys, "whiteBalance.mode", p.whiteBalanceMode, {"gray", "curve"}, source);
    p.referenceRedGain =
        static_cast<float>(readReal(keys, "whiteBalance.referenceRedGain", p.referenceRedGain, source));
    p.referenceBlueGain =
        static_cast<float>(readReal(keys, "whiteBalance.referenceBlueGain", p.referenceBlueGain, source));
    return p;
}

const SensorProfile& defaultSensorProfile() {
    static const SensorProfile profile = builtIn(kDefaultProfileText, SensorProfile{}, "default");
    return profile;
}

const SensorProfile& genericSensorProfile() {
    static const SensorProfile profile = builtIn(kGenericProfileText, defaultSensorProfile(), "generic");
    return profile;
}

SensorProfile loadSensorProfile(const std::string& name) {
    if (name == "default") return defaultSensorProfile();
    if (name == "generic") return genericSensorProfile();
    if (name.empty() || name == "auto") throw CaptureDeviceException("sensor = \"" + name + "\": not a profile");
    const std::string ext = Poco::toLower(Poco::Path(name).getExtension());
    Poco::AutoPtr<Poco::Util::AbstractConfiguration> keys;
    try {
        if (ext == "properties")
            keys = new Poco::Util::PropertyFileConfiguration(name);
        else if (ext == "ini")
            keys = new Poco::Util::IniFileConfiguration(name);
        else if (ext == "xml")
            keys = new Poco::Util::XMLConfiguration(name);
        else if (ext == "json")
            keys = new Poco::Util::JSONConfiguration(name);
        else
            throw CaptureDeviceException("sensor = \"" + name +
                                         "\": expected auto, default, generic or a .properties, .ini, .xml or "
                                         ".json profile file");
    } catch (const Poco::Exception& e) {
        throw CaptureDeviceException("sensor = \"" + name + "\": " + e.displayText());
    }
    return readSensorProfile(*keys, genericSensorProfile(), name);
}

}  // namespace sensor
}  // namespace capture
}  // namespace ruvo
