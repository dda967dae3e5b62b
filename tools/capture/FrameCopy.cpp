// Copying delivered frames out of the camera's buffers.
#include "FrameCopy.h"

#include "FrameNames.h"
#include "ToolError.h"

#include <cstring>

namespace ruvo {
namespace tool {

using capture::Frame;

namespace {

// Copies `rows` rows of `rowBytes` bytes from a plane into packed storage.
std::vector<uint8_t> copyPlane(const capture::Plane& plane, uint32_t rowBytes, uint32_t rows, uint32_t sampleBytes) {
    if (plane.data == nullptr) throw ToolError("a delivered frame has no pixel data");
    const size_t pitch = plane.stride >= rowBytes ? plane.stride : static_cast<size_t>(plane.stride) * sampleBytes;
    std::vector<uint8_t> out(static_cast<size_t>(rowBytes) * rows);
    for (uint32_t y = 0; y < rows; ++y) {
        std::memcpy(out.data() + static_cast<size_t>(y) * rowBytes, plane.data + y * pitch, rowBytes);
    }
    return out;
}

}  // namespace

uint32_t bytesPerSample(Frame::Format format) {
    switch (format) {
        case Frame::Y8:
        case Frame::YUV420p:
            return 1;
        case Frame::RGB24:
        case Frame::BGR24:
            return 3;
        case Frame::HISTOGRAM8:
            return 4;
        default:
            return 0;
    }
}

FrameCopy copyFrame(const Frame& frame) {
    FrameCopy copy;
    copy.cameraId = frame.cameraId;
    copy.batchIndex = frame.batchIndex;
    copy.frameId = frame.frameId;
    copy.format = frame.format;
    copy.outputType = frame.outputTypeId;
    copy.outputLevel = frame.outputLevelId;
    copy.width = frame.width;
    copy.height = frame.height;
    const uint32_t sample = bytesPerSample(frame.format);
    if (sample == 0) throw ToolError(std::string("cannot show frames of format ") + formatName(frame.format));
    if (frame.format == Frame::HISTOGRAM8) {
        const uint32_t bytes = kHistogramBins * sample;
        copy.planes[0] = copyPlane(frame.planes[0], bytes, 1, 1);
        return copy;
    }
    copy.planes[0] = copyPlane(frame.planes[0], frame.width * sample, frame.height, sample);
    if (frame.format == Frame::YUV420p) {
        copy.planes[1] = copyPlane(frame.planes[1], frame.width / 2, frame.height / 2, 1);
        copy.planes[2] = copyPlane(frame.planes[2], frame.width / 2, frame.height / 2, 1);
    }
    return copy;
}

}  // namespace tool
}  // namespace ruvo
