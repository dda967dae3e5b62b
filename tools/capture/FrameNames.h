// Printable names of the frame classifications: the enumerator names of formats, output types and
// pyramid levels (for listings and file names) and the display text of an output type.
#pragma once

#include <ruvo/capture/Frame.h>

#include <string>

namespace ruvo {
namespace tool {

const char* formatName(capture::Frame::Format format);               // "YUV420p", or "format N"
std::string outputTypeKey(capture::Frame::OutputType type);          // "skin_y": lower case, for file names
std::string outputTypeDisplayName(capture::Frame::OutputType type);  // from OutputTypeNames
std::string levelName(capture::Frame::OutputLevel level);            // "HALF", or "level N"

}  // namespace tool
}  // namespace ruvo
