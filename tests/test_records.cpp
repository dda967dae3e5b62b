// The records of the capture interface: output buffer equality, Range bounds, and the hand-over
// of a batch by CaptureDevice.
#include <ruvo/capture/CaptureDevice.h>
#include <ruvo/capture/Frame.h>
#include <ruvo/util/Range.h>

#include <Poco/Util/MapConfiguration.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <vector>

namespace {

using ruvo::capture::Frame;
using ruvo::capture::OutputBufferDefinition;
using Batch = std::vector<std::shared_ptr<Frame>>;

// A changed output list restarts the camera: each field on its own must make a difference.
TEST(OutputBufferDefinitionEquality, EveryFieldTakesPart) {
    const OutputBufferDefinition a{Frame::Y8, Frame::SKIN_Y, Frame::HALF};
    EXPECT_TRUE(a == (OutputBufferDefinition{Frame::Y8, Frame::SKIN_Y, Frame::HALF}));
    EXPECT_TRUE(a != (OutputBufferDefinition{Frame::Y8, Frame::SKIN_Y, Frame::EIGHTH}));
    EXPECT_TRUE(a != (OutputBufferDefinition{Frame::Y8, Frame::GRADIENT_X, Frame::HALF}));
    EXPECT_TRUE(a != (OutputBufferDefinition{Frame::YUV420p, Frame::SKIN_Y, Frame::HALF}));
}

TEST(RangeBounds, ClosedIntervalWithInclusiveBounds) {
    ruvo::util::Range<float> time(0.001f, 0.03f);
    EXPECT_TRUE(time.in(0.001f) && time.in(0.03f) && !time.out(0.03f));
    EXPECT_TRUE(time.out(0.0009f) && time.out(0.031f));
    time.setLow(0.05f);  // now above the upper bound
    EXPECT_FALSE(time.valid());
    time.setHigh(0.05f);
    EXPECT_TRUE(time.valid() && time.in(0.05f)) << "a single point is a valid range";
}

// The smallest concrete device: only the batch hand-over of the base class is under test.
class BatchOnlyDevice : public ruvo::capture::CaptureDevice {
public:
    BatchOnlyDevice() : CaptureDevice(new Poco::Util::MapConfiguration) {}
    void start() override {}
    void stop() override {}
    bool isRunning() override { return false; }
    void setControls(uint32_t, const ruvo::capture::Controls&) override {}
    bool setNamedControls(uint32_t, const std::string&) override { return false; }
    ruvo::capture::Controls getControls(uint32_t) override { return {}; }
    uint32_t numDevices() override { return 0; }
    ruvo::capture::Capabilities getCapabilities(uint32_t) override { return {}; }
};

// Each batch reaches the latest callback, and the device keeps no reference to a frame it handed
// over or dropped (without a callback).
TEST(CaptureDeviceCallback, EachBatchReachesTheLatestCallbackAndIsNotKept) {
    BatchOnlyDevice device;
    bool released = false;
    Batch batch = {std::shared_ptr<Frame>(new Frame, [&released](Frame* f) {
        released = true;
        delete f;
    })};
    device.onNewData(batch);  // no callback yet: dropped
    std::vector<Batch> first, second;
    device.setCallback([&](const Batch& b) { first.push_back(b); });
    device.onNewData(batch);
    device.onNewData(batch);
    ASSERT_EQ(first.size(), 2u);
    EXPECT_EQ(first[0], batch);

    device.setCallback([&](const Batch& b) { second.push_back(b); });
    device.onNewData(batch);
    EXPECT_EQ(first.size(), 2u);
    EXPECT_EQ(second.size(), 1u);

    device.setCallback(nullptr);
    device.onNewData(batch);
    EXPECT_EQ(second.size(), 1u);
    first.clear();
    second.clear();
    batch.clear();
    EXPECT_TRUE(released) << "the device kept a reference to a frame";
}

}  // namespace
