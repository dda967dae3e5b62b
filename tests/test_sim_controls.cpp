// The simulated sensor's V4L2 controls: descriptions, clamping, the read-only luminance
// statistic and its metering rectangle, and the frame latency of exposure and gain.
#include "support/sim_client.h"

#include <gtest/gtest.h>

#include <cmath>

namespace ruvo {
namespace capture {
namespace {

using namespace sensor;
using testing::SimClient;

// Mean 10-bit value of every sample of a frame, pedestal included.
double frameMean(SimClient& c, const v4l2_buffer& b) {
    const uint16_t* s = c.samples(b.index);
    double sum = 0.0;
    for (size_t i = 0; i < c.sampleCount(); ++i) sum += s[i] >> 4;
    return sum / static_cast<double>(c.sampleCount());
}

TEST(SimControls, DescriptionsGiveTypeRangeStepAndDefault) {
    SimClient c;
    struct Expected {
        uint32_t id, type;
        int32_t min, max, def;
    };
    const Expected table[] = {
        {CID_EXPOSURE, V4L2_CTRL_TYPE_INTEGER, 1, 74433, 22330},
        {CID_GAIN, V4L2_CTRL_TYPE_INTEGER, 0, 2047, 128},
        {CID_HFLIP, V4L2_CTRL_TYPE_BOOLEAN, 0, 1, 0},
        {CID_VFLIP, V4L2_CTRL_TYPE_BOOLEAN, 0, 1, 0},
        {CID_RED_GAIN, V4L2_CTRL_TYPE_INTEGER, 0, 4095, 1024},
        {CID_GREEN_GAIN, V4L2_CTRL_TYPE_INTEGER, 0, 4095, 1024},
        {CID_BLUE_GAIN, V4L2_CTRL_TYPE_INTEGER, 0, 4095, 1024},
        {CID_AVG_LUMINANCE, V4L2_CTRL_TYPE_INTEGER, 0, 1023, 0},
        {CID_METER_ENABLE, V4L2_CTRL_TYPE_BOOLEAN, 0, 1, 0},
        {CID_METER_LEFT, V4L2_CTRL_TYPE_INTEGER, 0, 2687, 0},
        {CID_METER_TOP, V4L2_CTRL_TYPE_INTEGER, 0, 1519, 0},
        {CID_METER_WIDTH, V4L2_CTRL_TYPE_INTEGER, 0, 2688, 0},
        {CID_METER_HEIGHT, V4L2_CTRL_TYPE_INTEGER, 0, 1520, 0},
    };
    for (const Expected& e : table) {
        const v4l2_queryctrl q = c.query(e.id);
        EXPECT_EQ(q.type, e.type) << std::hex << e.id;
        EXPECT_EQ(q.minimum, e.min) << std::hex << e.id;
        EXPECT_EQ(q.maximum, e.max) << std::hex << e.id;
        EXPECT_EQ(q.step, 1) << std::hex << e.id;
        EXPECT_EQ(q.default_value, e.def) << std::hex << e.id;
        EXPECT_EQ(c.get(e.id), e.def) << std::hex << e.id;
        EXPECT_EQ((q.flags & V4L2_CTRL_FLAG_READ_ONLY) != 0, e.id == CID_AVG_LUMINANCE) << std::hex << e.id;
    }
    // Enumeration visits exactly these, in ascending order.
    std::vector<uint32_t> seen;
    v4l2_queryctrl q{};
    q.id = V4L2_CTRL_FLAG_NEXT_CTRL;
    while (c.call(VIDIOC_QUERYCTRL, &q) == 0) {
        seen.push_back(q.id);
        q.id |= V4L2_CTRL_FLAG_NEXT_CTRL;
    }
    ASSERT_EQ(seen.size(), std::size(table));
    EXPECT_TRUE(std::is_sorted(seen.begin(), seen.end()));
}

TEST(SimControls, ExposureLimitIsOneFramePeriod) {
    // Frame period in sensor lines of 0.44782403 us, truncated.
    for (const auto& [fps, lines] : {std::pair{"30", 74433}, std::pair{"60", 37216}, std::pair{"120", 18608}}) {
        SimClient c({{"sim.fps", fps}});
        EXPECT_EQ(c.query(CID_EXPOSURE).maximum, lines) << fps;
        EXPECT_EQ(c.query(CID_EXPOSURE).default_value, std::min(22330, lines)) << fps;
    }
}

TEST(SimControls, UnknownReadOnlyAndOutOfRangeWrites) {
    SimClient c;
    for (uint32_t id : {0x00980900u, 0x00981009u, 0u}) {
        v4l2_queryctrl q{};
        q.id = id;
        EXPECT_EQ(c.call(VIDIOC_QUERYCTRL, &q), EINVAL) << std::hex << id;
        v4l2_control control{id, 1};
        EXPECT_EQ(c.call(VIDIOC_G_CTRL, &control), EINVAL) << std::hex << id;
        EXPECT_EQ(c.call(VIDIOC_S_CTRL, &control), EINVAL) << std::hex << id;
    }
    v4l2_control statistic{CID_AVG_LUMINANCE, 5};
    EXPECT_EQ(c.call(VIDIOC_S_CTRL, &statistic), EACCES);
    EXPECT_EQ(c.get(CID_AVG_LUMINANCE), 0);
    EXPECT_EQ(c.set(CID_EXPOSURE, 1000000), 74433);
    EXPECT_EQ(c.set(CID_EXPOSURE, -3), 1);
    EXPECT_EQ(c.set(CID_GAIN, -5), 0);
    EXPECT_EQ(c.set(CID_GAIN, 5000), 2047);
    EXPECT_EQ(c.set(CID_HFLIP, 7), 1);
    EXPECT_EQ(c.set(CID_RED_GAIN, 5000), 4095);
    EXPECT_EQ(c.set(CID_METER_LEFT, 3000), 2687);
    EXPECT_EQ(c.get(CID_EXPOSURE), 1);
    EXPECT_EQ(c.sensor().control(CID_GAIN), 2047);
}

TEST(SimControls, ExposureShowsTwoFramesAfterTheWriteAndGainOne) {
    SimClient c({{"sim.scene", "flat"}, {"sim.level", "0.18"}});
    c.start(672, 380, 1);
    const auto next = [&] {
        const v4l2_buffer b = c.stepAndDequeue();
        const double mean = frameMean(c, b);
        EXPECT_EQ(c.queue(b.index), 0);
        return mean;
    };
    // Driver defaults: 10 ms at unity gain puts reflectance 0.18 at 180 codes over a pedestal of 64.
    EXPECT_DOUBLE_EQ(next(), 244.0);
    c.set(CID_EXPOSURE, 22330 / 2);
    EXPECT_DOUBLE_EQ(next(), 244.0);
    EXPECT_DOUBLE_EQ(next(), 244.0);
    EXPECT_DOUBLE_EQ(next(), 154.0);
    c.set(CID_GAIN, 256);
    EXPECT_DOUBLE_EQ(next(), 154.0);
    EXPECT_DOUBLE_EQ(next(), 244.0);
    EXPECT_EQ(c.get(CID_EXPOSURE), 22330 / 2) << "the control reads back at once";
}

TEST(SimControls, LatenciesAreConfigurable) {
    SimClient c({{"sim.scene", "flat"}, {"sim.exposureDelay", "0"}, {"sim.gainDelay", "3"}});
    c.start(672, 380, 1);
    const auto next = [&] {
        const v4l2_buffer b = c.stepAndDequeue();
        const double mean = frameMean(c, b);
        EXPECT_EQ(c.queue(b.index), 0);
        return mean;
    };
    c.set(CID_EXPOSURE, 22330 / 2);
    EXPECT_DOUBLE_EQ(next(), 154.0);
    c.set(CID_GAIN, 256);
    EXPECT_DOUBLE_EQ(next(), 154.0);
    EXPECT_DOUBLE_EQ(next(), 154.0);
    EXPECT_DOUBLE_EQ(next(), 154.0);
    EXPECT_DOUBLE_EQ(next(), 244.0);
}

TEST(SimControls, WritesBeforeStreamingShowInTheFirstFrame) {
    SimClient c({{"sim.scene", "flat"}});
    c.setFormat(672, 380);
    c.set(CID_EXPOSURE, 22330 / 2);
    c.requestBuffers(1);
    c.queueAll();
    c.streamOn();
    EXPECT_DOUBLE_EQ(frameMean(c, c.stepAndDequeue()), 154.0);
}

TEST(SimControls, LuminanceStatisticFollowsTheMeteringRectangle) {
    SimClient c({{"sim.scene", "chart"}});
    c.start(672, 380, 1);
    const auto measure = [&](int x0, int y0, int x1, int y1) {
        const v4l2_buffer b = c.stepAndDequeue();
        const uint16_t* s = c.samples(b.index);
        double sum = 0.0;
        for (int y = y0; y < y1; ++y)
            for (int x = x0; x < x1; ++x) sum += s[y * 672 + x] >> 4;
        EXPECT_EQ(c.queue(b.index), 0);
        return std::pair{c.get(CID_AVG_LUMINANCE), static_cast<int>(std::lround(sum / ((x1 - x0) * (y1 - y0))))};
    };
    const auto [whole, wholeReference] = measure(0, 0, 672, 380);
    EXPECT_EQ(whole, wholeReference);
    EXPECT_GT(whole, 64) << "above the pedestal";
    // The dark-skin patch and the white patch meter differently.
    c.set(CID_METER_ENABLE, 1);
    c.set(CID_METER_LEFT, 80);
    c.set(CID_METER_TOP, 50);
    c.set(CID_METER_WIDTH, 40);
    c.set(CID_METER_HEIGHT, 20);
    const auto [skin, skinReference] = measure(80, 50, 120, 70);
    EXPECT_EQ(skin, skinReference);
    c.set(CID_METER_LEFT, 70);
    c.set(CID_METER_TOP, 230);
    const auto [white, whiteReference] = measure(70, 230, 110, 250);
    EXPECT_EQ(white, whiteReference);
    EXPECT_GT(white, skin + 300);
    // Clipped at the frame's edge; the whole frame when empty or off.
    c.set(CID_METER_LEFT, 600);
    c.set(CID_METER_WIDTH, 500);
    EXPECT_EQ(measure(600, 230, 672, 250).first, measure(600, 230, 672, 250).second);
    c.set(CID_METER_WIDTH, 0);
    EXPECT_EQ(measure(0, 0, 672, 380).first, whole);
    c.set(CID_METER_WIDTH, 40);
    c.set(CID_METER_ENABLE, 0);
    EXPECT_EQ(measure(0, 0, 672, 380).first, whole);
}

}  // namespace
}  // namespace capture
}  // namespace ruvo
