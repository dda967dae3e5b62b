// Auto exposure on a started camera with crafted frames, checked on the simulated sensor's
// exposure and gain registers: manual and lock branches, the dead band, the proportional step
// and its limits, which luminance drives the loop, and the skin threshold.
#include "test_3a_rig.h"

#include "support/GpuPresence.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <string>
#include <utility>

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

TEST(ManualExposure, WritesTheGainRegisterAndTheTimeInLines) {
    RUVO_REQUIRE_CUDA_DEVICE();
    CameraRig rig({});
    CraftedFrame frame(kWidth, kHeight);
    frame.fill(100, 128, 128);
    Access::aeExposure(*rig.camera) = 777;
    Access::aeGain(*rig.camera) = 333.0f;
    for (const auto& [gain, reg] : {std::pair<float, int32_t>{1.0f, 128}, {3.0f, 440}, {16.0f, 2039}, {-1.0f, 0}}) {
        rig.change([&, gain = gain](Controls& c) {
            c.ae.manual = true;
            c.ae.manualGain = gain;
            c.ae.manualExposure = 0.01f;
        });
        rig.evaluate(frame.bucket);
        EXPECT_EQ(rig.reg(sensor::CID_GAIN), reg) << gain;
        EXPECT_EQ(rig.reg(sensor::CID_EXPOSURE), 22330) << "0.01 s is 22330.2 lines";
    }
    // 1/30 s is 74433.99 lines: line 74433, also the frame period at 30 frames/s.
    rig.change([](Controls& c) { c.ae.manualExposure = 1.0f / 30.0f; });
    rig.evaluate(frame.bucket);
    EXPECT_EQ(rig.reg(sensor::CID_EXPOSURE), 74433);
    EXPECT_TRUE(Access::aeNeedsUpdate(*rig.camera));
    EXPECT_EQ(Access::aeExposure(*rig.camera), 777) << "manual mode keeps the automatic memory";
    EXPECT_EQ(Access::aeGain(*rig.camera), 333.0f);
}

TEST(ManualExposure, WinsOverLock) {
    RUVO_REQUIRE_CUDA_DEVICE();
    CameraRig rig({});
    CraftedFrame frame(kWidth, kHeight);
    rig.change([](Controls& c) {
        c.ae.manual = true;
        c.ae.lock = true;
        c.ae.manualGain = 3.0f;
        c.ae.manualExposure = 0.01f;
    });
    rig.evaluate(frame.bucket);
    EXPECT_EQ(exposureAndGain(rig), std::make_pair(22330, 440));
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

// One automatic step from exposure 20000 and gain 2.0, worked out from the control law.
std::pair<double, double> expectedStep(int32_t statistic, float targetY) {
    const double avgY = statistic / 1023.0;
    const double err = targetY - avgY;
    const double t = (20000.0 - 1.0) / (74433.0 - 1.0);
    const double exposure = 1.0 + (t + err * 0.05 * t / avgY) * (74433.0 - 1.0);
    const double gain = 0.6 + ((2.0 - 0.6) / 15.4 + err * 0.02) * 15.4;
    return {exposure, gain};
}

// Exposure and gain written from exposure 20000 and gain 2.0 for `frame`.
std::pair<int32_t, int32_t> stepFrom20000(CameraRig& rig, const CraftedFrame& frame) {
    rig.resetExposure(20000, 2.0f);
    rig.evaluate(frame.bucket);
    return exposureAndGain(rig);
}

TEST(AutoExposure, DriverStatisticAloneWithoutSkinHistogramOrInAvgYMode) {
    RUVO_REQUIRE_CUDA_DEVICE();
    CraftedFrame dark(kWidth, kHeight, 7);
    CraftedFrame bright(kWidth, kHeight, 7);
    fillTextured(dark, 20);
    fillTextured(bright, 150);
    for (const char* configuration : {"0", "2"}) {
        CameraRig rig({{"outputBufferFormats", configuration}});
        if (std::string(configuration) == "2") rig.change([](Controls& c) { c.ae.manualMode = "AVGY"; });
        const int32_t statistic = rig.exposeForStatistic();
        const auto written = stepFrom20000(rig, dark);
        const auto [exposure, gain] = expectedStep(statistic, 0.3f);
        EXPECT_NEAR(written.first, exposure, 1.5) << configuration;
        EXPECT_NEAR(written.second, gainToRegister(static_cast<float>(gain)), 1.0) << configuration;
        EXPECT_EQ(stepFrom20000(rig, bright), written) << "the image plays no part, configuration " << configuration;
    }
}

TEST(AutoExposure, RegionMeteringMetersTheImageWhenTheSkinHistogramIsThere) {
    RUVO_REQUIRE_CUDA_DEVICE();
    CameraRig rig({{"outputBufferFormats", "2"}});
    CraftedFrame dark(kWidth, kHeight, 7);
    CraftedFrame bright(kWidth, kHeight, 7);
    fillTextured(dark, 20);
    fillTextured(bright, 150);
    rig.exposeForStatistic();
    const auto fromDark = stepFrom20000(rig, dark);
    const auto fromBright = stepFrom20000(rig, bright);
    EXPECT_GT(fromDark.first, 20000) << "a dark image asks for more light";
    EXPECT_LT(fromBright.first, 20000) << "a bright image asks for less";
    EXPECT_GT(fromDark.second, fromBright.second);
}

TEST(AutoExposure, TooBrightFailsafeLogsAndUsesTheDriverStatistic) {
    RUVO_REQUIRE_CUDA_DEVICE();
    CameraRig rig({{"outputBufferFormats", "2"}, {"ae.avgYThreshold", "0.01"}});
    CraftedFrame dark(kWidth, kHeight, 7);
    CraftedFrame bright(kWidth, kHeight, 7);
    fillTextured(dark, 20);
    fillTextured(bright, 150);
    const int32_t statistic = rig.exposeForStatistic();
    testing::LogCapture log("Capture.CUDACamera");
    const auto written = stepFrom20000(rig, dark);
    EXPECT_EQ(stepFrom20000(rig, bright), written);
    const auto [exposure, gain] = expectedStep(statistic, 0.3f);
    EXPECT_NEAR(written.first, exposure, 1.5);
    const auto lines = log.startingWith("Luminance auto-exposure: too bright failsafe, 0.01 < avgY = ");
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_NEAR(std::stod(lines[0].substr(lines[0].rfind(' '))), statistic / 1023.0, 1e-5);
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
