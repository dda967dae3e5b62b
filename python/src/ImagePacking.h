// A frame's image packed into a caller's buffer for message transports such as ROS 2
// sensor_msgs/Image: rows without padding, in one of the transports' encodings.
#pragma once

#include <ruvo/capture/Frame.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace ruvo {
namespace python {

struct PackedLayout {
    size_t step = 0;   // bytes per row of the first plane
    size_t bytes = 0;  // bytes of the whole packed image
};

// The layout of `frame` packed as `encoding`: "mono8" (Y8), "rgb8" (RGB24, or YUV420p converted),
// "bgr8" (BGR24) or "nv12" (YUV420p: the luma rows, then rows of interleaved U, V pairs). Throws
// std::invalid_argument naming the format and the encoding when the frame has no such image.
PackedLayout packedLayout(const capture::Frame& frame, const std::string& encoding);

// Writes the packed image into `out`, which holds at least packedLayout(frame, encoding).bytes.
void packImage(const capture::Frame& frame, const std::string& encoding, uint8_t* out);

}  // namespace python
}  // namespace ruvo
