// What a camera can do, as reported by CaptureDevice::getCapabilities: the frame sizes it
// delivers, in the order the camera lists them, the raw formats its driver offers, and the
// sensor profile.
#pragma once

#include <ruvo/util/Dimensions.h>

#include <string>
#include <vector>

namespace ruvo {
namespace capture {

struct Capabilities {
    std::vector<ruvo::util::Dimensions> resolutions;
    // V4L2 fourccs ("BG10", "pRAA") the driver lists that the camera can take, in the driver's
    // order; empty when the device cannot be opened.
    std::vector<std::string> pixelFormats;
    // The one the camera uses (or would use at its next start): a fourcc, or "default" for the
    // default sensor's 14-bit layout; empty with no formats.
    std::string pixelFormat;
    // The sensor profile in use ("default", "generic" or its file) and the sensor controls the
    // pipeline does in the sensor's place ("channel gains", "black level", "luminance statistic").
    std::string sensorProfile;
    std::vector<std::string> emulatedControls;
};

}  // namespace capture
}  // namespace ruvo
