// Writing the tool's images as PNG files with libpng: 8-bit gray or RGB, fast compression.
#pragma once

#include "Image.h"

#include <string>

namespace ruvo {
namespace tool {

// Writes `image` to `path`. Throws ToolError with libpng's reason when the file cannot be written
// or the image is empty.
void writePng(const std::string& path, const Image& image);

}  // namespace tool
}  // namespace ruvo
