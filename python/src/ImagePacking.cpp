// Packing a frame's planes for message transports. YUV 4:2:0 to rgb8 uses the capture tool's
// conversion, so a published rgb8 image has the bytes of the PNG the tool writes.
#include "ImagePacking.h"

#include "FrameLayout.h"
#include "FrameNames.h"
#include "ImageConvert.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace ruvo {
namespace python {
namespace {

using capture::Frame;

bool accepts(Frame::Format format, const std::string& encoding) {
    switch (format) {
        case Frame::Y8:
            return encoding == "mono8";
        case Frame::RGB24:
            return encoding == "rgb8";
        case Frame::BGR24:
            return encoding == "bgr8";
        case Frame::YUV420p:
            return encoding == "nv12" || encoding == "rgb8";
        default:
            return false;
    }
}

// Rows of `rowBytes` from a plane with its own pitch into consecutive rows of `out`.
uint8_t* copyRows(const Frame& frame, const capture::Plane& plane, size_t rowBytes, uint8_t* out) {
    const size_t pitch = static_cast<size_t>(rowPitch(frame, plane));
    for (uint32_t y = 0; y < plane.height; ++y, out += rowBytes) std::memcpy(out, plane.data + y * pitch, rowBytes);
    return out;
}

void packNv12(const Frame& frame, uint8_t* out) {
    out = copyRows(frame, frame.planes[0], frame.planes[0].width, out);
    const capture::Plane& u = frame.planes[1];
    const capture::Plane& v = frame.planes[2];
    for (uint32_t y = 0; y < u.height; ++y) {
        const uint8_t* uRow = u.data + static_cast<size_t>(y) * u.stride;
        const uint8_t* vRow = v.data + static_cast<size_t>(y) * v.stride;
        for (uint32_t x = 0; x < u.width; ++x) {
            *out++ = uRow[x];
            *out++ = vRow[x];
        }
    }
}

// Each chroma sample covers 2 x 2 luma samples; an odd last row or column takes the last one.
void packYuvAsRgb(const Frame& frame, uint8_t* out) {
    const capture::Plane& luma = frame.planes[0];
    const capture::Plane& u = frame.planes[1];
    const capture::Plane& v = frame.planes[2];
    const size_t rgbRow = static_cast<size_t>(luma.width) * 3;
    for (uint32_t y = 0; y < luma.height; y += 2, out += 2 * rgbRow) {
        const bool pair = y + 1 < luma.height;
        const uint8_t* row = luma.data + static_cast<size_t>(y) * luma.stride;
        const size_t chromaRow = std::min(y / 2, u.height - 1);
        tool::yuv420RowsToRgb(row, pair ? row + luma.stride : nullptr, u.data + chromaRow * u.stride,
                              v.data + chromaRow * v.stride, luma.width, u.width, out, pair ? out + rgbRow : nullptr);
    }
}

}  // namespace

PackedLayout packedLayout(const Frame& frame, const std::string& encoding) {
    if (!accepts(frame.format, encoding)) {
        throw std::invalid_argument(std::string("a ") + tool::formatName(frame.format) + " frame has no \"" + encoding +
                                    "\" image");
    }
    const capture::Plane& first = frame.planes[0];
    if (frame.format == Frame::YUV420p && (first.width < 2 || first.height < 2)) {
        throw std::invalid_argument("a YUV420p frame smaller than 2 x 2 has no \"" + encoding + "\" image");
    }
    if (frame.format == Frame::YUV420p && encoding == "nv12") {
        const size_t chroma = static_cast<size_t>(frame.planes[1].width) * frame.planes[1].height * 2;
        return {first.width, static_cast<size_t>(first.width) * first.height + chroma};
    }
    const size_t step = static_cast<size_t>(first.width) * (encoding == "mono8" ? 1 : 3);
    return {step, step * first.height};
}

void packImage(const Frame& frame, const std::string& encoding, uint8_t* out) {
    if (frame.format == Frame::YUV420p) {
        if (encoding == "nv12") return packNv12(frame, out);
        return packYuvAsRgb(frame, out);
    }
    copyRows(frame, frame.planes[0], packedLayout(frame, encoding).step, out);
}

}  // namespace python
}  // namespace ruvo
