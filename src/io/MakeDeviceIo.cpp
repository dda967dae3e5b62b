// Chooses a camera's DeviceIo by its path: "sim:" paths are served by the simulated sensor,
// everything else by the kernel.
#include "io/DeviceIo.h"

#include "sim/SimDeviceIo.h"

namespace ruvo {
namespace capture {

std::shared_ptr<DeviceIo> makeDeviceIo(const std::string& path,
                                       Poco::AutoPtr<Poco::Util::AbstractConfiguration> cameraConfig) {
    static const std::string kSimPrefix = "sim:";
    if (path.compare(0, kSimPrefix.size(), kSimPrefix) == 0) return sim::makeSimDeviceIo(path, cameraConfig);
    return systemDeviceIo();
}

}  // namespace capture
}  // namespace ruvo
