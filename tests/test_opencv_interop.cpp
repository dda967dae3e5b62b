// OpenCV views of frames point at the frame's own bytes with the frame's geometry.
#include <ruvo/capture/OpenCVInterop.h>

#include <gtest/gtest.h>

#include <vector>

using namespace ruvo::capture;

TEST(OpenCVInterop, ViewsShareTheFramesBytes) {
    std::vector<uint8_t> buffer(64 * 48 * 3 / 2);
    for (size_t i = 0; i < buffer.size(); ++i) buffer[i] = static_cast<uint8_t>(i);
    Frame f;
    f.format = Frame::YUV420p;
    f.width = 64;
    f.height = 48;
    f.planes[0] = Plane{buffer.data(), 64, 48, 64};
    f.planes[1] = Plane{buffer.data() + 64 * 48, 32, 24, 32};
    f.planes[2] = Plane{buffer.data() + 64 * 48 + 32 * 24, 32, 24, 32};
    cv::Mat y = cvview::image(f);
    EXPECT_EQ(y.data, buffer.data());
    EXPECT_EQ(y.cols, 64);
    EXPECT_EQ(y.rows, 48);
    cv::Mat v = cvview::plane(f, 2);
    EXPECT_EQ(v.at<uint8_t>(1, 2), buffer[64 * 48 + 32 * 24 + 32 + 2]);
    EXPECT_EQ(cvview::i420(f).rows, 72);
    f.planes[1].data += 64;  // padded rows: no single I420 image
    EXPECT_THROW(cvview::i420(f), std::invalid_argument);
    EXPECT_THROW(cvview::plane(f, 3), std::invalid_argument);
}

TEST(OpenCVInterop, RgbAndHistogramViews) {
    std::vector<uint8_t> rgb(4 * 2 * 3, 7);
    Frame f;
    f.format = Frame::RGB24;
    f.width = 4;
    f.height = 2;
    f.planes[0] = Plane{rgb.data(), 4, 2, 12};
    cv::Mat m = cvview::image(f);
    EXPECT_EQ(m.type(), CV_8UC3);
    EXPECT_EQ(m.step[0], 12u);
    std::vector<int32_t> counters(256, 3);
    Frame h;
    h.format = Frame::HISTOGRAM8;
    h.planes[0] = Plane{reinterpret_cast<uint8_t*>(counters.data()), 0, 0, 0};
    EXPECT_EQ(cvview::image(h).at<int32_t>(0, 255), 3);
}
