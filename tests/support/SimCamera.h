// Builds camera configuration entries served by the simulated sensor with a stepped clock, so
// camera and device tests decide exactly when a frame arrives.
#pragma once

#include <Poco/AutoPtr.h>
#include <Poco/Util/MapConfiguration.h>

#include <atomic>
#include <string>
#include <utility>
#include <vector>

namespace ruvo {
namespace test {

using Keys = std::vector<std::pair<std::string, std::string>>;

// A fresh simulator path per call, so tests never share a sensor.
inline std::string uniqueSimPath(const std::string& stem) {
    static std::atomic<int> counter{0};
    return "sim:" + stem + "-" + std::to_string(++counter);
}

// One camera entry: the path, a stepped clock, then `keys` (which may override either).
inline Poco::AutoPtr<Poco::Util::MapConfiguration> simCameraConfig(const std::string& path, const Keys& keys = {}) {
    Poco::AutoPtr<Poco::Util::MapConfiguration> config(new Poco::Util::MapConfiguration());
    config->setString("path", path);
    config->setString("sim.clock", "stepped");
    for (const auto& kv : keys) config->setString(kv.first, kv.second);
    return config;
}

}  // namespace test
}  // namespace ruvo
