// The text of "ruvo-capture info": each camera with its name, path, capabilities and every field
// of its current controls, then every output configuration with its description and buffers.
#pragma once

#include "Configuration.h"

#include <ruvo/capture/CUDADevice.h>

#include <ostream>
#include <vector>

namespace ruvo {
namespace tool {

void printControls(std::ostream& out, const capture::Controls& controls);

// The output configurations by number with their descriptions and buffer lists.
void printOutputConfigurations(std::ostream& out);

// The cameras of `device` (described by `cameras`, in the same order) and the configurations.
void printInfo(std::ostream& out, capture::CUDADevice& device, const std::vector<CameraEntry>& cameras);

}  // namespace tool
}  // namespace ruvo
