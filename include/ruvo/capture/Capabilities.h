// What a camera can do, as reported by CaptureDevice::getCapabilities: the frame sizes it
// delivers, in the order the camera lists them, the raw formats its driver offers, and the
// sensor profile.
#pragma once

#include <ruvo/util/Dimensions.h>

#include <string>
#include <vector>

namespace ruvo {
namespace capture {

// A frame size the driver lists for the raw format in use: one size (`step` 0 x 0, `min` equal to
// `max`) or a range from `min` to `max` in steps of `step`. `processed` is what the camera
// processes when asked for it: the size itself, the largest centred crop inside it whose width and
// height are multiples of 16 (a range: its largest such size), or 0 x 0 when nothing fits.
struct OfferedFrameSize {
    ruvo::util::Dimensions min;
    ruvo::util::Dimensions max;
    ruvo::util::Dimensions step;
    ruvo::util::Dimensions processed;
};

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
    // The driver's frame sizes for that format, in its order; empty when it lists none.
    std::vector<OfferedFrameSize> frameSizes;
};

}  // namespace capture
}  // namespace ruvo
