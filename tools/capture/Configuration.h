// The configuration the tool hands to the capture device: a POCO configuration file chosen by its
// extension, or the built-in two-camera simulation, with the --set overrides layered on top; and
// the enabled camera entries as the device will see them.
#pragma once

#include <Poco/AutoPtr.h>
#include <Poco/Exception.h>
#include <Poco/Util/AbstractConfiguration.h>

#include <string>
#include <utility>
#include <vector>

namespace ruvo {
namespace tool {

using Settings = std::vector<std::pair<std::string, std::string>>;

// The built-in configuration: two simulated cameras on the test chart with a real-time clock at
// 30 frames/s, lit darker than the exposure target so that auto exposure visibly converges;
// camera 0 with the skin histogram outputs, camera 1 with the gradient pyramid under warm light.
Poco::AutoPtr<Poco::Util::AbstractConfiguration> defaultConfiguration();

// Reads `file` with the POCO reader of its extension (.properties, .ini, .xml, .json). Throws
// UsageError for another extension and ToolError when the file is missing, not a regular file,
// unreadable or malformed.
Poco::AutoPtr<Poco::Util::AbstractConfiguration> loadConfigurationFile(const std::string& file);

// `base` with `settings` layered over it. A key "devices[*].rest" stands for "devices[i].rest" of
// every entry of `base`.
Poco::AutoPtr<Poco::Util::AbstractConfiguration> withOverrides(Poco::AutoPtr<Poco::Util::AbstractConfiguration> base,
                                                               const Settings& settings);

// The file (or the built-in configuration when `file` is empty) with the overrides applied.
Poco::AutoPtr<Poco::Util::AbstractConfiguration> loadConfiguration(const std::string& file, const Settings& settings);

// Whether "devices[i]" exists: a value of its own (XML) or any key below it.
bool entryPresent(const Poco::Util::AbstractConfiguration& config, const std::string& key);

struct CameraEntry {
    unsigned entry = 0;  // i of "devices[i]"
    std::string name;    // "name", default "CUDACamera"
    std::string path;    // "path"
};

// The enabled entries of the dense list "devices[0]", "devices[1]", ... in order, as the device
// builds its cameras from them. Throws ToolError for an enabled entry without a path.
std::vector<CameraEntry> enabledCameras(const Poco::Util::AbstractConfiguration& config);

// A user-facing text for a configuration-library exception raised while the device read its
// keys: a value that did not parse is traced back to the key that holds it.
std::string describeConfigurationError(const Poco::Exception& error, const Poco::Util::AbstractConfiguration& config);

}  // namespace tool
}  // namespace ruvo
