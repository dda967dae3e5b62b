// Zero-copy OpenCV views of a delivered frame's planes. The cv::Mat headers point into the
// frame's buffer and own nothing: keep the std::shared_ptr<Frame> alive while a view is used,
// or clone() the view to keep the pixels longer. Header-only; needs OpenCV's core module.
#pragma once

#include <ruvo/capture/Frame.h>

#include <opencv2/core.hpp>

#include <stdexcept>

namespace ruvo {
namespace capture {
namespace cvview {

// Plane `index` of a frame as an 8-bit single-channel image (Y, U or V of YUV420p; Y8 images).
inline cv::Mat plane(const Frame& frame, int index) {
    const Plane& p = frame.planes.at(static_cast<size_t>(index));
    if (p.data == nullptr) throw std::invalid_argument("frame has no plane " + std::to_string(index));
    return cv::Mat(static_cast<int>(p.height), static_cast<int>(p.width), CV_8UC1, p.data, p.stride);
}

// The image of a frame in its natural OpenCV type: CV_8UC1 luma (YUV420p, Y8), CV_8UC3 (RGB24,
// channels in R, G, B order), or a 1 x 256 CV_32SC1 row of histogram counters (HISTOGRAM8).
inline cv::Mat image(const Frame& frame) {
    switch (frame.format) {
        case Frame::YUV420p:
        case Frame::Y8:
            return plane(frame, 0);
        case Frame::RGB24:
            return cv::Mat(static_cast<int>(frame.height), static_cast<int>(frame.width), CV_8UC3, frame.planes[0].data,
                           static_cast<size_t>(frame.width) * 3);
        case Frame::HISTOGRAM8:
            return cv::Mat(1, 256, CV_32SC1, frame.planes[0].data);
        default:
            throw std::invalid_argument("no OpenCV view for frame format " + std::to_string(frame.format));
    }
}

// A YUV420p frame whose chroma planes directly follow its luma (allocated rows equal visible
// rows) as one (3/2 H) x W CV_8UC1 I420 image, ready for cv::cvtColor(..., COLOR_YUV2BGR_I420).
inline cv::Mat i420(const Frame& frame) {
    if (frame.format != Frame::YUV420p) throw std::invalid_argument("frame is not YUV420p");
    const size_t luma = static_cast<size_t>(frame.width) * frame.height;
    if (frame.planes[1].data != frame.planes[0].data + luma) {
        throw std::invalid_argument("chroma planes do not follow the luma plane (padded rows)");
    }
    return cv::Mat(static_cast<int>(frame.height * 3 / 2), static_cast<int>(frame.width), CV_8UC1,
                   frame.planes[0].data);
}

}  // namespace cvview
}  // namespace capture
}  // namespace ruvo
