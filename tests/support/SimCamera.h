// Builds camera configuration entries served by the simulated sensor with a stepped clock, so
// camera and device tests decide exactly when a frame arrives.
#pragma once

#include "support/sim_client.h"

#include <string>
#include <utility>
#include <vector>

namespace ruvo {
namespace test {

using Keys = std::vector<std::pair<std::string, std::string>>;

// A fresh simulator path per call, so tests never share a sensor.
using capture::testing::uniqueSimPath;

// One camera entry: the path, a stepped clock, then `keys` (which may override either).
inline Poco::AutoPtr<Poco::Util::MapConfiguration> simCameraConfig(const std::string& path, const Keys& keys = {}) {
    capture::testing::SimKeys entry{{"path", path}, {"sim.clock", "stepped"}};
    for (const auto& [key, value] : keys) entry[key] = value;
    return capture::testing::cameraEntry(entry);
}

}  // namespace test
}  // namespace ruvo
