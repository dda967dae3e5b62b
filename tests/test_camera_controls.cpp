// Runtime controls of a camera: validation order and messages, which changes restart the
// device and what survives a restart, the metering rectangle, flips, presets and capabilities.
#include "CUDACamera.h"
#include "OutputBufferConfig.h"
#include "SensorControls.h"
#include "sim/SimulatedSensor.h"
#include "support/GpuPresence.h"
#include "support/LogCapture.h"
#include "support/SimCamera.h"

#include <ruvo/capture/CaptureDeviceException.h>

#include <gtest/gtest.h>

#include <cmath>

using namespace ruvo::capture;
using ruvo::test::simCameraConfig;
using ruvo::test::uniqueSimPath;

namespace {

std::string refusal(CUDACamera& camera, const Controls& controls) {
    try {
        camera.setControls(controls);
    } catch (const CaptureDeviceException& e) {
        return e.what();
    }
    return "";
}

struct Camera : ::testing::Test {
    void SetUp() override { RUVO_REQUIRE_CUDA_DEVICE(); }
    std::string path = uniqueSimPath("controls");
    CUDACamera camera{simCameraConfig(path), 0};
    std::shared_ptr<sim::SimulatedSensor> sensor() { return sim::findSensor(path); }
};

}  // namespace

TEST_F(Camera, ValidationRefusesAndChangesNothing) {
    const Controls before = camera.getControls();
    Controls c = before;
    c.height = 721;
    c.outputBuffersConfIndex = 12;  // checked later than the size
    EXPECT_EQ(refusal(camera, c), "Unsupported resolution");
    c.height = 720;
    c.outputBuffers.pop_back();
    EXPECT_EQ(refusal(camera, c), "Unsupported output buffer configuration");
    c.outputBuffers = CUDA_OUTPUT_BUFFER_CONFIG[1];
    EXPECT_EQ(refusal(camera, c), "Output buffer configuration index out of range");
    c = before;
    c.awb.gammaRed = std::nanf("");
    EXPECT_EQ(refusal(camera, c), "Unsupported control value: not a finite number");
    c = before;
    c.ae.manualGain = INFINITY;
    EXPECT_EQ(refusal(camera, c), "Unsupported control value: not a finite number");
    const Controls after = camera.getControls();
    EXPECT_EQ(after.height, before.height);
    EXPECT_EQ(after.outputBuffers, before.outputBuffers);
    EXPECT_FLOAT_EQ(after.ae.manualGain, before.ae.manualGain);
    // Index and list are independent: a list of row 1 with index 3 is accepted.
    c = before;
    c.outputBuffers = CUDA_OUTPUT_BUFFER_CONFIG[1];
    c.outputBuffersConfIndex = 3;
    EXPECT_EQ(refusal(camera, c), "");
}

// Flips apply to the running sensor; a size change restarts it and keeps the sensor's values.
TEST_F(Camera, FlipsApplyLiveAndASizeChangeRestartsKeepingSensorValues) {
    camera.start();
    const uint32_t ids[] = {sensor::CID_RED_GAIN, sensor::CID_GREEN_GAIN, sensor::CID_BLUE_GAIN, sensor::CID_EXPOSURE,
                            sensor::CID_GAIN};
    const int32_t values[] = {1500, 900, 700, 4321, 600};
    for (int i = 0; i < 5; ++i) camera.setControl(ids[i], values[i]);
    Controls c = camera.getControls();
    c.hFlip = false;
    c.vFlip = false;
    camera.setControls(c);
    EXPECT_EQ(camera.getControl(sensor::CID_HFLIP), 0);
    EXPECT_EQ(camera.getControl(sensor::CID_VFLIP), 0);
    EXPECT_EQ(camera.getControl(sensor::CID_EXPOSURE), 4321) << "a restart at start would have reset it";
    c.width = 672;
    c.height = 380;
    camera.setControls(c);
    auto s = sensor();
    EXPECT_TRUE(s->streaming());
    EXPECT_EQ(s->format().width, 672u);
    for (int i = 0; i < 5; ++i) EXPECT_EQ(camera.getControl(ids[i]), values[i]) << std::hex << ids[i];
    s->step();
    CUDACamera::Bucket* bucket = camera.read();
    ASSERT_NE(bucket, nullptr);
    EXPECT_EQ(bucket->cuda_height, 384u);
    camera.release(bucket->index, 0);
    camera.stop();
}

TEST_F(Camera, MeteringRectangleFollowsTheExposureRegions) {
    camera.start();
    const auto meter = [&] {
        std::vector<int32_t> values;
        for (uint32_t id : {sensor::CID_METER_ENABLE, sensor::CID_METER_LEFT, sensor::CID_METER_TOP,
                            sensor::CID_METER_WIDTH, sensor::CID_METER_HEIGHT})
            values.push_back(camera.getControl(id));
        return values;
    };
    Controls c = camera.getControls();
    c.ae.regions = {ruvo::util::WeightedRegion(dlib::rectangle(10, 20, 109, 69), 0.5f)};
    camera.setControls(c);
    EXPECT_EQ(meter(), (std::vector<int32_t>{1, 10, 20, 100, 50}));
    c.ae.regions = {ruvo::util::WeightedRegion(dlib::rectangle(50, 20, 10, 69), 1.0f)};  // right < left
    camera.setControls(c);
    EXPECT_EQ(meter(), (std::vector<int32_t>{1, 50, 20, 0, 0}));
    c.ae.regions.clear();
    camera.setControls(c);
    EXPECT_EQ(meter(), (std::vector<int32_t>{0, 0, 0, 0, 0}));
    camera.stop();
}

TEST_F(Camera, Presets) {
    ruvo::test::LogCapture log("Capture.CUDACamera");
    EXPECT_TRUE(camera.setControls(std::string("barcode")));
    EXPECT_FLOAT_EQ(camera.getControls().ae.targetY, 0.2f);
    EXPECT_EQ(camera.getControls().ae.manualMode, "AVGY");
    EXPECT_TRUE(log.contains("controls set to barcode"));
    EXPECT_TRUE(camera.setControls(std::string("oru")));
    EXPECT_EQ(camera.getControls().ae.manualMode, "oru");
    EXPECT_FLOAT_EQ(camera.getControls().ae.targetY, 0.2f);
    EXPECT_TRUE(camera.setControls(std::string("default")));
    EXPECT_FLOAT_EQ(camera.getControls().ae.targetY, 0.3f);
    EXPECT_EQ(camera.getControls().ae.manualMode, "default");
    EXPECT_FALSE(camera.setControls(std::string("night")));
    EXPECT_TRUE(log.contains("controls attempting to set to night but it is not implemented!"));
    EXPECT_EQ(camera.getControls().ae.manualMode, "default");
}

// Changes made while stopped apply at start, which resets the sensor to its defaults and then
// applies flips and the exposure region.
TEST_F(Camera, ChangesWhileStoppedApplyAtStartAfterASensorReset) {
    Controls c = camera.getControls();
    c.hFlip = false;
    c.ae.regions = {ruvo::util::WeightedRegion(dlib::rectangle(0, 0, 9, 9), 1.0f)};
    c.outputBuffersConfIndex = 2;
    c.outputBuffers = CUDA_OUTPUT_BUFFER_CONFIG[2];
    camera.setControls(c);
    camera.start();
    for (uint32_t id : {sensor::CID_EXPOSURE, sensor::CID_GAIN, sensor::CID_RED_GAIN, sensor::CID_BLUE_GAIN}) {
        EXPECT_EQ(camera.getControl(id), camera.queryControl(id).default_value) << std::hex << id;
    }
    EXPECT_EQ(camera.getControl(sensor::CID_HFLIP), 0);
    EXPECT_EQ(camera.getControl(sensor::CID_VFLIP), 1);
    EXPECT_EQ(camera.getControl(sensor::CID_METER_WIDTH), 10);
    sensor()->step();
    CUDACamera::Bucket* bucket = camera.read();
    ASSERT_NE(bucket, nullptr);
    EXPECT_EQ(bucket->buffers.size(), 7u);
    for (unsigned k = 0; k < 7; ++k) camera.release(bucket->index, k);
    camera.stop();
}

// An interrupted control call is repeated, never reported.
TEST_F(Camera, InterruptedControlCallsAreRepeated) {
    camera.start();
    sensor()->interruptNextIoctl(3);
    camera.setControl(sensor::CID_RED_GAIN, 1500);
    sensor()->interruptNextIoctl(2);
    EXPECT_EQ(camera.getControl(sensor::CID_RED_GAIN), 1500);
    EXPECT_EQ(sensor()->interruptedIoctls(), 5u);
    camera.stop();
}
