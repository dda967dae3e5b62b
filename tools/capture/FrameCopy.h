// A copy of one delivered frame's pixels and labels, taken while the frame is held, so that the
// buffer goes back to its camera at once and the slow conversion and PNG writing happen later.
#pragma once

#include <ruvo/capture/Frame.h>

#include <array>
#include <cstdint>
#include <vector>

namespace ruvo {
namespace tool {

struct FrameCopy {
    uint32_t cameraId = 0;
    uint32_t batchIndex = 0;
    uint32_t frameId = 0;
    capture::Frame::Format format = capture::Frame::INVALID;
    capture::Frame::OutputType outputType = capture::Frame::COLOR;
    capture::Frame::OutputLevel outputLevel = capture::Frame::ORIGINAL;
    uint32_t width = 0;
    uint32_t height = 0;
    // Rows packed without padding: Y8 one plane of width x height bytes; YUV420p Y, U and V (U and
    // V width/2 x height/2); RGB24/BGR24 width x height x 3 bytes; HISTOGRAM8 256 int32 counters.
    std::array<std::vector<uint8_t>, 3> planes;
};

constexpr size_t kHistogramBins = 256;

// Bytes per sample of plane 0 for the formats the tool can show; 0 for the others.
uint32_t bytesPerSample(capture::Frame::Format format);

// Copies the planes of `frame`. A plane's stride is taken in bytes when it covers a row, and in
// samples otherwise (the RGB24 buffers give their stride in pixels). Throws ToolError for a
// frame without data or of a format the tool cannot show (YUYV, SBGGR10).
FrameCopy copyFrame(const capture::Frame& frame);

}  // namespace tool
}  // namespace ruvo
