// Where the planes of a delivered frame lie inside its output buffer. YUV420p chroma planes
// follow the allocated rows (the layout the pipeline writes), not the visible height.
#pragma once

#include <ruvo/capture/Frame.h>

#include <cstddef>
#include <cstdint>

namespace ruvo {
namespace capture {

// Fills plane 0 and, for YUV420p, planes 1 (U) and 2 (V) of `frame`, whose format, width and
// height are set, for a buffer starting at `data` with `stride` and `allocatedRows`.
inline void setFramePlanes(Frame& frame, uint8_t* data, uint32_t stride, uint32_t allocatedRows) {
    frame.planes[0] = Plane{data, frame.width, frame.height, stride};
    if (frame.format != Frame::YUV420p) return;
    const uint32_t w = frame.width;
    const uint32_t h = frame.height;
    const size_t n = static_cast<size_t>(w) * allocatedRows;
    frame.planes[1] = Plane{data + n, w / 2, h / 2, w / 2};
    frame.planes[2] = Plane{data + n + n / 4, w / 2, h / 2, w / 2};
}

}  // namespace capture
}  // namespace ruvo
