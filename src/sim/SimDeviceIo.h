// The DeviceIo of a "sim:" camera path: the calls go to the simulated sensor registered under
// that path, made on first use from the camera entry's "sim.*" keys.
#pragma once

#include "io/DeviceIo.h"

#include <memory>
#include <string>

namespace ruvo {
namespace capture {
namespace sim {

// An io on the sensor alive under `path`, or on a new one configured from the "sim.*" keys of
// `cameraConfig` (null: all defaults) and registered under `path` while it lives. Opens nothing.
// Throws CaptureDeviceException for a "sim.*" value that cannot be used.
std::shared_ptr<DeviceIo> makeSimDeviceIo(const std::string& path,
                                          Poco::AutoPtr<Poco::Util::AbstractConfiguration> cameraConfig);

}  // namespace sim
}  // namespace capture
}  // namespace ruvo
