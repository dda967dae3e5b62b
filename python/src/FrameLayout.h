// How a frame's planes lie in memory: samples per pixel and the bytes from one row to the next.
#pragma once

#include <ruvo/capture/Frame.h>

#include <cstddef>
#include <cstdint>

namespace ruvo {
namespace python {

// Rows of interleaved 3-byte pixels for RGB24 and BGR24; one byte per sample otherwise.
inline size_t channels(capture::Frame::Format format) {
    return format == capture::Frame::RGB24 || format == capture::Frame::BGR24 ? 3 : 1;
}

// Bytes from one row to the next. The pipeline gives the stride of an interleaved RGB buffer in
// pixels and of every other buffer in bytes; a stride shorter than the row's bytes is in pixels.
inline int64_t rowPitch(const capture::Frame& frame, const capture::Plane& plane) {
    const size_t rowBytes = static_cast<size_t>(plane.width) * channels(frame.format);
    return plane.stride >= rowBytes ? plane.stride : static_cast<int64_t>(plane.stride) * channels(frame.format);
}

inline size_t planeCount(const capture::Frame& frame) { return frame.format == capture::Frame::YUV420p ? 3 : 1; }

constexpr size_t kHistogramBins = 256;

// The array shape of one plane: (H, W) bytes, (H, W, 3) for RGB24 and BGR24, (256,) int32 counts
// for the histogram. Strides are in elements.
struct PlaneShape {
    size_t ndim = 0;
    size_t shape[3] = {0, 0, 0};
    int64_t strides[3] = {0, 0, 0};
    bool counts = false;  // int32 histogram counts rather than bytes
};

inline PlaneShape planeShape(const capture::Frame& frame, const capture::Plane& plane) {
    if (frame.format == capture::Frame::HISTOGRAM8) return {1, {kHistogramBins}, {1}, true};
    const int64_t pitch = rowPitch(frame, plane);
    if (channels(frame.format) == 3) return {3, {plane.height, plane.width, 3}, {pitch, 3, 1}, false};
    return {2, {plane.height, plane.width}, {pitch, 1}, false};
}

}  // namespace python
}  // namespace ruvo
