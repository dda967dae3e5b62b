// Loading and layering of the tool's configuration, and the camera entries it describes.
#include "Configuration.h"

#include "ToolError.h"

#include <Poco/File.h>
#include <Poco/Path.h>
#include <Poco/String.h>
#include <Poco/Util/IniFileConfiguration.h>
#include <Poco/Util/JSONConfiguration.h>
#include <Poco/Util/LayeredConfiguration.h>
#include <Poco/Util/MapConfiguration.h>
#include <Poco/Util/PropertyFileConfiguration.h>
#include <Poco/Util/XMLConfiguration.h>

#include <fstream>

namespace ruvo {
namespace tool {

namespace {

// The built-in cameras: skin histogram outputs under daylight on the simulator's default sensor
// with the gray test; gradient outputs under warm light on a bare sensor (green-dominant, warm
// under tungsten) whose white balance searches its colour-temperature curve. The gray test
// cannot balance warm light: it takes the chart's blue patches for gray.
struct DefaultCamera {
    const char* name;
    int outputBufferFormats;
    int colourTemperatureK;
    const char* colourResponse;    // sim.colourResponse
    const char* whiteBalanceMode;  // awb.mode
};
const DefaultCamera kDefaultCameras[] = {{"left", 2, 6500, "neutral", "gray"}, {"right", 7, 3200, "raw", "curve"}};

// Illuminance 0.2 puts the chart's background well below the luminance target at the sensor's
// power-on exposure (10 ms, gain 1), so the first second of a run shows auto exposure at work.
constexpr double kDefaultIlluminance = 0.2;
constexpr double kDefaultFps = 30.0;

const std::string kAllEntries = "devices[*]";

std::string deviceKey(unsigned i) { return "devices[" + std::to_string(i) + "]"; }

Poco::AutoPtr<Poco::Util::AbstractConfiguration> readByExtension(const std::string& file, const std::string& ext) {
    if (ext == "properties") return new Poco::Util::PropertyFileConfiguration(file);
    if (ext == "ini") return new Poco::Util::IniFileConfiguration(file);
    if (ext == "xml") return new Poco::Util::XMLConfiguration(file);
    return new Poco::Util::JSONConfiguration(file);
}

// Every leaf key below `root` (the root itself when it has a value and nothing below it).
void collectLeaves(const Poco::Util::AbstractConfiguration& config, const std::string& root,
                   std::vector<std::string>& leaves) {
    Poco::Util::AbstractConfiguration::Keys below;
    config.keys(root, below);
    if (below.empty()) {
        if (config.has(root)) leaves.push_back(root);
        return;
    }
    for (const std::string& key : below) collectLeaves(config, root + "." + key, leaves);
}

}  // namespace

Poco::AutoPtr<Poco::Util::AbstractConfiguration> defaultConfiguration() {
    Poco::AutoPtr<Poco::Util::MapConfiguration> config(new Poco::Util::MapConfiguration());
    unsigned i = 0;
    for (const DefaultCamera& camera : kDefaultCameras) {
        const std::string key = deviceKey(i++) + ".";
        config->setBool(key + "enabled", true);
        config->setString(key + "name", camera.name);
        config->setString(key + "path", std::string("sim:") + camera.name);
        config->setInt(key + "outputBufferFormats", camera.outputBufferFormats);
        config->setString(key + "sim.scene", "chart");
        config->setString(key + "sim.clock", "realtime");
        config->setDouble(key + "sim.fps", kDefaultFps);
        config->setDouble(key + "sim.illuminance", kDefaultIlluminance);
        config->setInt(key + "sim.colourTemperature", camera.colourTemperatureK);
        config->setString(key + "sim.colourResponse", camera.colourResponse);
        config->setString(key + "awb.mode", camera.whiteBalanceMode);
    }
    return config;
}

Poco::AutoPtr<Poco::Util::AbstractConfiguration> loadConfigurationFile(const std::string& file) {
    const std::string ext = Poco::toLower(Poco::Path(file).getExtension());
    if (ext != "properties" && ext != "ini" && ext != "xml" && ext != "json") {
        throw UsageError("configuration file \"" + file + "\" has " +
                         (ext.empty() ? std::string("no extension") : "the unknown extension ." + ext) +
                         "; use .properties, .ini, .xml or .json");
    }
    const Poco::File entry(file);
    if (!entry.exists()) throw ToolError("configuration file \"" + file + "\" does not exist");
    if (!entry.isFile()) throw ToolError("configuration file \"" + file + "\" is not a regular file");
    if (!std::ifstream(file).good()) throw ToolError("configuration file \"" + file + "\" cannot be read");
    try {
        return readByExtension(file, ext);
    } catch (const Poco::Exception& e) {
        throw ToolError("configuration file \"" + file + "\" is not valid ." + ext + ": " + e.displayText());
    }
}

Poco::AutoPtr<Poco::Util::AbstractConfiguration> withOverrides(Poco::AutoPtr<Poco::Util::AbstractConfiguration> base,
                                                               const Settings& settings) {
    Poco::AutoPtr<Poco::Util::MapConfiguration> overrides(new Poco::Util::MapConfiguration());
    for (const auto& setting : settings) {
        const std::string& key = setting.first;
        if (key.rfind(kAllEntries + ".", 0) != 0) {
            overrides->setString(key, setting.second);
            continue;
        }
        const std::string rest = key.substr(kAllEntries.size());
        unsigned i = 0;
        for (; entryPresent(*base, deviceKey(i)); ++i) overrides->setString(deviceKey(i) + rest, setting.second);
        if (i == 0) throw ToolError("--set " + key + ": the configuration has no devices[i] entries");
    }
    Poco::AutoPtr<Poco::Util::LayeredConfiguration> layered(new Poco::Util::LayeredConfiguration());
    layered->add(base, 0);
    layered->add(overrides, -1);  // lower priority values are searched first
    return layered;
}

Poco::AutoPtr<Poco::Util::AbstractConfiguration> loadConfiguration(const std::string& file, const Settings& settings) {
    return withOverrides(file.empty() ? defaultConfiguration() : loadConfigurationFile(file), settings);
}

bool entryPresent(const Poco::Util::AbstractConfiguration& config, const std::string& key) {
    if (config.has(key)) return true;
    Poco::Util::AbstractConfiguration::Keys below;
    config.keys(key, below);
    return !below.empty();
}

std::vector<CameraEntry> enabledCameras(const Poco::Util::AbstractConfiguration& config) {
    std::vector<CameraEntry> cameras;
    for (unsigned i = 0; entryPresent(config, deviceKey(i)); ++i) {
        const std::string key = deviceKey(i);
        try {
            if (!config.getBool(key + ".enabled", false)) continue;
        } catch (const Poco::SyntaxException&) {
            throw ToolError(key + ".enabled = \"" + config.getString(key + ".enabled") + "\": not a boolean");
        }
        if (!config.has(key + ".path")) throw ToolError(key + " is enabled but has no path");
        if (config.getString(key + ".path").empty()) throw ToolError(key + ".path is empty");
        cameras.push_back({i, config.getString(key + ".name", "CUDACamera"), config.getString(key + ".path")});
    }
    return cameras;
}

std::string describeConfigurationError(const Poco::Exception& error, const Poco::Util::AbstractConfiguration& config) {
    if (dynamic_cast<const Poco::SyntaxException*>(&error) != nullptr) {
        const std::string& message = error.message();
        std::vector<std::string> leaves;
        for (unsigned i = 0; entryPresent(config, deviceKey(i)); ++i) collectLeaves(config, deviceKey(i), leaves);
        for (const std::string& key : leaves) {
            const std::string value = config.getRawString(key, "");
            const std::string suffix = ": " + value;
            if (value.empty() || message.size() <= suffix.size()) continue;
            if (message.compare(message.size() - suffix.size(), suffix.size(), suffix) == 0) {
                return key + " = \"" + value + "\": " + message.substr(0, message.size() - suffix.size());
            }
        }
    }
    return error.displayText();
}

}  // namespace tool
}  // namespace ruvo
