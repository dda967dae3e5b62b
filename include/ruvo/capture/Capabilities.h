// What a camera can do, as reported by CaptureDevice::getCapabilities: the frame sizes it
// delivers, in the order the camera lists them.
#pragma once

#include <ruvo/util/Dimensions.h>

#include <vector>

namespace ruvo {
namespace capture {

struct Capabilities {
    std::vector<ruvo::util::Dimensions> resolutions;
};

}  // namespace capture
}  // namespace ruvo
