// Saving the last images of a run: every copied output buffer as its own PNG and one labelled
// contact sheet of all of them.
#pragma once

#include "Configuration.h"
#include "FrameCopy.h"

#include <string>
#include <vector>

namespace ruvo {
namespace tool {

// "cam1-buf5-gradient_x-half.png": camera, buffer index, output type and level.
std::string imageFileName(const FrameCopy& copy);

// The three label lines of a contact-sheet tile: camera and buffer, the output type's display
// name, the level with the size (or the bin count of a histogram).
std::vector<std::string> tileLabel(const FrameCopy& copy, const CameraEntry& camera);

// Writes every copy as "<directory>/<imageFileName>" and "<directory>/contact-sheet.png"; returns
// the paths written, the sheet last. Throws ToolError when an image cannot be converted or written.
std::vector<std::string> saveImages(const std::string& directory, const std::vector<FrameCopy>& copies,
                                    const std::vector<CameraEntry>& cameras);

}  // namespace tool
}  // namespace ruvo
