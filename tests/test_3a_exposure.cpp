// Auto exposure on a started camera with crafted frames, checked on the simulated sensor's
// exposure and gain registers: manual and lock branches, the dead band, the proportional step
// and its limits, which luminance drives the loop, and the skin threshold.
#include "test_3a_rig.h"

#include "support/GpuPresence.h"
#include "support/LogCapture.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <utility>
#include <vector>

namespace ruvo {
namespace capture {
namespace {

using testing::CameraRig;
using testing::CraftedFrame;
using Access = CUDACameraTestAccess;

using testing::kHeight;
using testing::kWidth;

// Texture whose contrast differs from region to region, on a base level.
void fillTextured(CraftedFrame& frame, uint8_t base) {
    frame.fill(base, 128, 128);
    frame.fillLuma([base](uint32_t x, uint32_t y) {
        const uint32_t span = 10 + 20 * (x * 4 / kWidth) + 5 * (y * 4 / kHeight);
        return static_cast<uint8_t>(base + (x * 31 + y * 17) % span);
    });
}

std::pair<int32_t, int32_t> exposureAndGain(const CameraRig& rig) {
    return {rig.reg(sensor::CID_EXPOSURE), rig.reg(sensor::CID_GAIN)};
}

// Lock is set too: manual mode wins over it.
TEST(ManualExposure, WritesTheGainRegisterAndTheTimeInLinesAndWinsOverLock) {
    RUVO_REQUIRE_CUDA_DEVICE();
    CameraRig rig({});
    CraftedFrame frame(kWidth, kHeight);
    Access::aeExposure(*rig.camera) = 777;
    Access::aeGain(*rig.camera) = 333.0f;
    // 0.01 s is 22330.2 lines; 1/30 s is 74433.99 lines: line 74433, also the frame period at 30 frames/s.
    const struct {
        float gain, seconds;
        int32_t gainRegister, exposureRegister;
    } cases[] = {{1.0f, 0.01f, 128, 22330},
                 {3.0f, 0.01f, 440, 22330},
                 {16.0f, 1.0f / 30.0f, 2039, 74433},
                 {-1.0f, 0.01f, 0, 22330}};
    for (const auto& c : cases) {
        rig.change([&c](Controls& controls) {
            controls.ae.manual = true;
            controls.ae.lock = true;
            controls.ae.manualGain = c.gain;
            controls.ae.manualExposure = c.seconds;
        });
        rig.evaluate(frame.bucket);
        EXPECT_EQ(exposureAndGain(rig), std::make_pair(c.exposureRegister, c.gainRegister)) << c.gain;
    }
    EXPECT_TRUE(Access::aeNeedsUpdate(*rig.camera));
    EXPECT_EQ(Access::aeExposure(*rig.camera), 777) << "manual mode keeps the automatic memory";
    EXPECT_EQ(Access::aeGain(*rig.camera), 333.0f);
}

TEST(LockedExposure, WritesBackTheLastAutomaticValuesOnce) {
    RUVO_REQUIRE_CUDA_DEVICE();
    CameraRig rig({});
    CraftedFrame frame(kWidth, kHeight);
    frame.fill(100, 128, 128);
    rig.exposeForStatistic();
    rig.change([](Controls& c) { c.ae.targetY = 0.9f; });
    rig.evaluate(frame.bucket);
    const auto automatic = exposureAndGain(rig);
    EXPECT_EQ(automatic.first, Access::aeExposure(*rig.camera));
    EXPECT_EQ(automatic.second, static_cast<int32_t>(Access::aeGain(*rig.camera)));

    rig.change([](Controls& c) {
        c.ae.manual = true;
        c.ae.manualGain = 2.0f;
        c.ae.manualExposure = 0.01f;
    });
    rig.evaluate(frame.bucket);
    ASSERT_EQ(exposureAndGain(rig), std::make_pair(22330, 376));

    rig.change([](Controls& c) {
        c.ae.manual = false;
        c.ae.lock = true;
    });
    rig.evaluate(frame.bucket);
    EXPECT_EQ(exposureAndGain(rig), automatic) << "the automatic values, not the manual ones";
    EXPECT_FALSE(Access::aeNeedsUpdate(*rig.camera));

    rig.setReg(sensor::CID_EXPOSURE, 5000);
    rig.evaluate(frame.bucket);
    EXPECT_EQ(rig.reg(sensor::CID_EXPOSURE), 5000) << "written back only once";
}

TEST(AutoExposure, DeadBandWritesNothingAndLeavesTheFlag) {
    RUVO_REQUIRE_CUDA_DEVICE();
    CameraRig rig({});
    CraftedFrame frame(kWidth, kHeight);
    const int32_t statistic = rig.exposeForStatistic();
    ASSERT_GT(statistic, 0);
    rig.change([&](Controls& c) { c.ae.targetY = static_cast<float>(statistic) / 1023.0f; });
    rig.setReg(sensor::CID_EXPOSURE, 12345);
    rig.setReg(sensor::CID_GAIN, 300);
    for (bool flag : {true, false}) {
        Access::aeNeedsUpdate(*rig.camera) = flag;
        rig.evaluate(frame.bucket);
        EXPECT_EQ(exposureAndGain(rig), std::make_pair(12345, 300));
        EXPECT_EQ(Access::aeNeedsUpdate(*rig.camera), flag);
    }
}

// Exposure and gain written from exposure 20000 and gain 2.0 for `frame`.
std::pair<int32_t, int32_t> stepFrom20000(CameraRig& rig, const CraftedFrame& frame) {
    rig.resetExposure(20000, 2.0f);
    rig.evaluate(frame.bucket);
    return exposureAndGain(rig);
}

// The driver's statistic drives the step without a skin histogram, in AVGY mode and past the
// too-bright threshold (which logs why); otherwise region metering of the image does.
TEST(AutoExposure, WhichLuminanceDrivesTheStep) {
    RUVO_REQUIRE_CUDA_DEVICE();
    CraftedFrame dark(kWidth, kHeight, 7);
    CraftedFrame bright(kWidth, kHeight, 7);
    fillTextured(dark, 20);
    fillTextured(bright, 150);
    const std::string failsafe = "Luminance auto-exposure: too bright failsafe, 0.01 < avgY = ";
    const struct {
        const char* name;
        testing::SimKeys keys;
        bool avgYMode;
        bool regionMetering;
    } cases[] = {{"no skin histogram", {{"outputBufferFormats", "0"}}, false, false},
                 {"AVGY mode", {{"outputBufferFormats", "2"}}, true, false},
                 {"too bright", {{"outputBufferFormats", "2"}, {"ae.avgYThreshold", "0.01"}}, false, false},
                 {"region metering", {{"outputBufferFormats", "2"}}, false, true}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        CameraRig rig(c.keys);
        if (c.avgYMode) rig.change([](Controls& controls) { controls.ae.manualMode = "AVGY"; });
        const int32_t statistic = rig.exposeForStatistic();
        ruvo::test::LogCapture log("Capture.CUDACamera");
        const auto fromDark = stepFrom20000(rig, dark);
        const auto fromBright = stepFrom20000(rig, bright);
        std::vector<std::string> failsafeLines;
        for (const std::string& line : log.lines())
            if (line.rfind(failsafe, 0) == 0) failsafeLines.push_back(line);
        if (c.regionMetering) {
            EXPECT_GT(fromDark.first, 20000) << "a dark image asks for more light";
            EXPECT_LT(fromBright.first, 20000) << "a bright image asks for less";
            EXPECT_GT(fromDark.second, fromBright.second);
            EXPECT_TRUE(failsafeLines.empty());
            continue;
        }
        // One step of the control law from the statistic on 0..1 (exposure range 1..74433, gain 0.6..16).
        const double avgY = statistic / 1023.0;
        const double err = 0.3 - avgY;
        const double t = (20000.0 - 1.0) / (74433.0 - 1.0);
        EXPECT_NEAR(fromDark.first, 1.0 + (t + err * 0.05 * t / avgY) * (74433.0 - 1.0), 1.5);
        const double gain = 0.6 + ((2.0 - 0.6) / 15.4 + err * 0.02) * 15.4;
        EXPECT_NEAR(fromDark.second, gainToRegister(static_cast<float>(gain)), 1.0);
        EXPECT_EQ(fromBright, fromDark) << "the image plays no part";
        ASSERT_EQ(failsafeLines.size(), std::string(c.name) == "too bright" ? 2u : 0u);
        for (const std::string& line : failsafeLines)
            EXPECT_NEAR(std::stod(line.substr(failsafe.size())), avgY, 1e-5) << line;
    }
}

TEST(AutoExposure, GainStaysWithinRegisters76And2039) {
    RUVO_REQUIRE_CUDA_DEVICE();
    CameraRig rig({});
    CraftedFrame frame(kWidth, kHeight);
    frame.fill(100, 128, 128);
    rig.exposeForStatistic();
    for (float target : {5.0f, -5.0f}) {
        rig.change([target](Controls& c) { c.ae.targetY = target; });
        for (int i = 0; i < 60; ++i) {
            rig.evaluate(frame.bucket);
            ASSERT_GE(rig.reg(sensor::CID_GAIN), 76);
            ASSERT_LE(rig.reg(sensor::CID_GAIN), 2039);
            ASSERT_GE(rig.reg(sensor::CID_EXPOSURE), 372) << "0.000166667 s is 372 lines";
            ASSERT_LE(rig.reg(sensor::CID_EXPOSURE), 74433);
        }
        EXPECT_EQ(rig.reg(sensor::CID_GAIN), target > 0 ? 2039 : 76);
        EXPECT_EQ(Access::currExpGain(*rig.camera), target > 0 ? 16.0f : 0.6f);
    }
}

TEST(AutoExposure, SkinRatioExactlyAtItsThresholdChangesNothing) {
    RUVO_REQUIRE_CUDA_DEVICE();
    // 2304 skin pixels of the 1280 x 720 image's half-size histogram.
    const float ratio = (2304.0f / kWidth / kHeight) * 4;
    char threshold[32];
    std::snprintf(threshold, sizeof threshold, "%.9g", static_cast<double>(ratio));
    CameraRig rig({{"outputBufferFormats", "2"}, {"ae.skinRatioThreshold", threshold}});
    ASSERT_EQ(rig.camera->getParams().ae.skinRatioThreshold, ratio);
    testing::Listener meta("CapDevCUDAExpMeta");

    CraftedFrame frame(kWidth, kHeight, 7);
    fillTextured(frame, 60);
    auto stepWithSkin = [&](uint32_t pixels) {
        frame.setSkin(pixels, 230);
        std::srand(11);  // the same sample offsets every time
        return stepFrom20000(rig, frame);
    };
    const auto noSkin = stepWithSkin(0);
    EXPECT_EQ(stepWithSkin(2304), noSkin);
    EXPECT_TRUE(meta.texts.empty());
    EXPECT_NE(stepWithSkin(2400), noSkin) << "just above the threshold the skin counts";
    EXPECT_EQ(meta.texts.size(), 1u);
}

}  // namespace
}  // namespace capture
}  // namespace ruvo
