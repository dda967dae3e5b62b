// Reading and checking the simulated sensor's "sim.*" configuration keys and its scene script.
#include "sim/SimConfig.h"

#include "sim/SampleFormats.h"

#include <ruvo/capture/CaptureDeviceException.h>

#include <linux/videodev2.h>

#include <Poco/Exception.h>
#include <Poco/NumberParser.h>
#include <Poco/String.h>
#include <Poco/StringTokenizer.h>

#include <algorithm>
#include <cmath>
#include <limits>

namespace ruvo {
namespace capture {
namespace sim {
namespace {

using Poco::Util::AbstractConfiguration;

[[noreturn]] void invalid(const std::string& key, const std::string& value, const std::string& why) {
    throw CaptureDeviceException(key + " = \"" + value + "\": " + why);
}

double readNumber(const AbstractConfiguration& config, const std::string& key, double fallback, double low,
                  double high) {
    if (!config.has(key)) return fallback;
    const std::string text = config.getString(key);
    double value = 0.0;
    if (!Poco::NumberParser::tryParseFloat(Poco::trim(text), value) || !std::isfinite(value))
        invalid(key, text, "not a number");
    if (value < low || value > high)
        invalid(key, text, "outside " + std::to_string(low) + " .. " + std::to_string(high));
    return value;
}

int64_t readInteger(const AbstractConfiguration& config, const std::string& key, int64_t fallback, int64_t low,
                    int64_t high) {
    if (!config.has(key)) return fallback;
    const std::string text = config.getString(key);
    Poco::Int64 value = 0;
    if (!Poco::NumberParser::tryParse64(Poco::trim(text), value)) invalid(key, text, "not an integer");
    if (value < low || value > high)
        invalid(key, text, "outside " + std::to_string(low) + " .. " + std::to_string(high));
    return value;
}

bool readFlag(const AbstractConfiguration& config, const std::string& key, bool fallback) {
    if (!config.has(key)) return fallback;
    const std::string text = config.getString(key);
    bool value = false;
    if (!Poco::NumberParser::tryParseBool(Poco::trim(text), value)) invalid(key, text, "not true or false");
    return value;
}

ClockMode readClock(const AbstractConfiguration& config) {
    const std::string text = Poco::trim(config.getString("sim.clock", "realtime"));
    if (text == "realtime") return ClockMode::Realtime;
    if (text == "free") return ClockMode::Free;
    if (text == "stepped") return ClockMode::Stepped;
    invalid("sim.clock", text, "expected realtime, free or stepped");
}

SampleLayout readSamples(const AbstractConfiguration& config) {
    const std::string text = Poco::trim(config.getString("sim.samples", "msb14"));
    if (text == "msb14") return SampleLayout::Msb14;
    if (text == "lsb10") return SampleLayout::Lsb10;
    invalid("sim.samples", text, "expected msb14 or lsb10");
}

ControlSet readControlSet(const AbstractConfiguration& config) {
    const std::string text = Poco::trim(config.getString("sim.controls", "default"));
    if (text == "default") return ControlSet::Default;
    if (text == "generic") return ControlSet::Generic;
    invalid("sim.controls", text, "expected default or generic");
}

// Which standard exposure and gain controls the generic set offers; the default set has its own.
StandardControls readStandardControls(const AbstractConfiguration& config, ControlSet controls) {
    StandardControls standard;
    const std::string exposure = Poco::trim(config.getString("sim.exposureControl", "lines"));
    const std::string gain = Poco::trim(config.getString("sim.gainControl", "analogue"));
    if (exposure == "absolute")
        standard.exposure = ExposureControl::Absolute;
    else if (exposure != "lines")
        invalid("sim.exposureControl", exposure, "expected lines or absolute");
    if (gain == "gain")
        standard.gain = GainControl::Linear;
    else if (gain != "analogue")
        invalid("sim.gainControl", gain, "expected analogue or gain");
    const bool standardOnly = standard.exposure != ExposureControl::Lines || standard.gain != GainControl::Analogue;
    if (standardOnly && controls != ControlSet::Generic)
        invalid(standard.exposure != ExposureControl::Lines ? "sim.exposureControl" : "sim.gainControl",
                standard.exposure != ExposureControl::Lines ? exposure : gain, "needs sim.controls = generic");
    return standard;
}

// A sensor with the standard controls is a bare sensor unless told otherwise: its colour response is
// the raw one, whose colour-temperature curve the generic profile's white balance follows.
ColourResponse readColourResponse(const AbstractConfiguration& config, ControlSet controls) {
    const char* fallback = controls == ControlSet::Generic ? "raw" : "neutral";
    const std::string text = Poco::trim(config.getString("sim.colourResponse", fallback));
    if (text == "neutral") return ColourResponse::Neutral;
    if (text == "raw") return ColourResponse::Raw;
    invalid("sim.colourResponse", text, "expected neutral or raw");
}

constexpr double kMinColourTemperature = 1000.0;
constexpr double kMaxColourTemperature = 40000.0;

ScriptEvent parseAssignment(uint64_t frame, const std::string& assignment) {
    const auto equals = assignment.find('=');
    if (equals == std::string::npos) invalid("sim.script", assignment, "expected name=value");
    const std::string name = Poco::trim(assignment.substr(0, equals));
    const std::string text = Poco::trim(assignment.substr(equals + 1));
    ScriptEvent event;
    event.frame = frame;
    double value = 0.0;
    if (!Poco::NumberParser::tryParseFloat(text, value) || !std::isfinite(value))
        invalid("sim.script", assignment, "value is not a number");
    if (name == "illuminance") {
        if (value < 0.0) invalid("sim.script", assignment, "illuminance cannot be negative");
        event.parameter = ScriptEvent::Parameter::Illuminance;
    } else if (name == "colourTemperature") {
        if (value < kMinColourTemperature || value > kMaxColourTemperature)
            invalid("sim.script", assignment, "colour temperature outside 1000 .. 40000 K");
        event.parameter = ScriptEvent::Parameter::ColourTemperature;
    } else {
        invalid("sim.script", assignment, "expected illuminance or colourTemperature");
    }
    event.value = static_cast<float>(value);
    return event;
}

}  // namespace

std::vector<ScriptEvent> parseScript(const std::string& script) {
    std::vector<ScriptEvent> events;
    const int options = Poco::StringTokenizer::TOK_TRIM | Poco::StringTokenizer::TOK_IGNORE_EMPTY;
    for (const std::string& entry : Poco::StringTokenizer(script, ";", options)) {
        const auto colon = entry.find(':');
        if (colon == std::string::npos) invalid("sim.script", entry, "expected frame:name=value");
        Poco::UInt64 frame = 0;
        if (!Poco::NumberParser::tryParseUnsigned64(Poco::trim(entry.substr(0, colon)), frame))
            invalid("sim.script", entry, "frame is not a non-negative integer");
        const Poco::StringTokenizer assignments(entry.substr(colon + 1), ",", options);
        if (assignments.count() == 0) invalid("sim.script", entry, "no assignment");
        for (const std::string& assignment : assignments) events.push_back(parseAssignment(frame, assignment));
    }
    std::stable_sort(events.begin(), events.end(),
                     [](const ScriptEvent& a, const ScriptEvent& b) { return a.frame < b.frame; });
    return events;
}

SimConfig readSimConfig(const AbstractConfiguration& config) {
    SimConfig c;
    c.scene = Poco::trim(config.getString("sim.scene", c.scene));
    if (c.scene.empty()) invalid("sim.scene", c.scene, "empty");
    c.level = static_cast<float>(readNumber(config, "sim.level", c.level, 0.0, 1.0));
    c.illuminance = static_cast<float>(
        readNumber(config, "sim.illuminance", c.illuminance, 0.0, std::numeric_limits<float>::max()));
    c.colourTemperature = static_cast<float>(
        readNumber(config, "sim.colourTemperature", c.colourTemperature, kMinColourTemperature, kMaxColourTemperature));
    c.controls = readControlSet(config);
    c.colourResponse = readColourResponse(config, c.controls);
    c.standard = readStandardControls(config, c.controls);
    c.clock = readClock(config);
    c.fps = static_cast<float>(readNumber(config, "sim.fps", c.fps, 0.1, 1000.0));
    c.noise = readFlag(config, "sim.noise", c.noise);
    c.readNoise = static_cast<float>(readNumber(config, "sim.readNoise", c.readNoise, 0.0, 1023.0));
    c.seed = static_cast<uint64_t>(
        readInteger(config, "sim.seed", static_cast<int64_t>(c.seed), 0, std::numeric_limits<int64_t>::max()));
    c.pedestal = static_cast<int32_t>(readInteger(config, "sim.pedestal", c.pedestal, 0, 1023));
    c.samples = readSamples(config);
    c.formats = readFormats(config, c.samples);
    // A sensor with the standard controls delivers plain 10-bit samples unless told otherwise.
    if (c.controls == ControlSet::Generic && !config.has("sim.format") && !config.has("sim.samples"))
        c.formats = {*sensor::findBayerFormat(V4L2_PIX_FMT_SBGGR10)};
    for (const sensor::PixelFormat& format : c.formats) {
        if (c.controls == ControlSet::Generic && format.isDefaultLayout())
            invalid("sim.controls", "generic", "the default sensor's 14-bit layout comes with its own controls");
    }
    if (config.has("sim.sizes")) c.sizes = parseFrameSizes("sim.sizes", config.getString("sim.sizes"));
    c.exposureDelay = static_cast<uint32_t>(readInteger(config, "sim.exposureDelay", c.exposureDelay, 0, 16));
    c.gainDelay = static_cast<uint32_t>(readInteger(config, "sim.gainDelay", c.gainDelay, 0, 16));
    c.script = parseScript(config.getString("sim.script", ""));
    c.dropEvery = static_cast<uint32_t>(readInteger(config, "sim.dropEvery", c.dropEvery, 0, 1000000));
    c.errorEvery = static_cast<uint32_t>(readInteger(config, "sim.errorEvery", c.errorEvery, 0, 1000000));
    c.userptr = readFlag(config, "sim.userptr", c.userptr);
    return c;
}

}  // namespace sim
}  // namespace capture
}  // namespace ruvo
