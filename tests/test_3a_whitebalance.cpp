// Auto white balance on a started camera with crafted frames, checked on the simulated sensor's
// red, green and blue gain registers (range 0..4095, 1024 for a factor of 1): the gray-world
// step, the perturbation when nothing is gray, the tie rule, clamping, manual and lock.
#include "test_3a_rig.h"

#include "support/GpuPresence.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <string>

namespace ruvo {
namespace capture {
namespace {

using testing::CameraRig;
using testing::CraftedFrame;
using Access = CUDACameraTestAccess;

using testing::kHeight;
using testing::kWidth;
constexpr double kStepPerError = 0.15 * 4095;  // P times the register range

struct Gains {
    int32_t red, green, blue;
    bool operator==(const Gains& o) const { return red == o.red && green == o.green && blue == o.blue; }
};

Gains gains(const CameraRig& rig) {
    return {rig.reg(sensor::CID_RED_GAIN), rig.reg(sensor::CID_GREEN_GAIN), rig.reg(sensor::CID_BLUE_GAIN)};
}

// Exposure stays out of the way: locked with nothing to write back.
void lockExposure(CameraRig& rig) {
    rig.change([](Controls& c) { c.ae.lock = true; });
    Access::aeNeedsUpdate(*rig.camera) = false;
}

TEST(AutoWhiteBalance, UniformGrayMovesOnlyBlueDownward) {
    RUVO_REQUIRE_CUDA_DEVICE();
    CameraRig rig({});
    lockExposure(rig);
    CraftedFrame frame(kWidth, kHeight);
    frame.fill(100, 128, 128);
    rig.evaluate(frame.bucket);
    // avgU = avgV = 128/255: errU = 0.49 - 0.50196, errV = 0.51 - 0.50196; |errU| is larger.
    const double blue = 1024 + (0.49 - 128.0 / 255) * kStepPerError;
    EXPECT_EQ(gains(rig), (Gains{1024, 1024, static_cast<int32_t>(blue)}));
    EXPECT_NEAR(Access::currBlueGain(*rig.camera), blue, 1e-3);
    EXPECT_EQ(Access::awbBlueGain(*rig.camera), static_cast<int32_t>(blue));
    EXPECT_TRUE(Access::awbNeedsUpdate(*rig.camera));
}

TEST(AutoWhiteBalance, EqualErrorsMoveRed) {
    RUVO_REQUIRE_CUDA_DEVICE();
    CameraRig rig({{"awb.targetU", "0.5"}, {"awb.targetV", "0.5"}});
    lockExposure(rig);
    CraftedFrame frame(kWidth, kHeight);
    frame.fill(100, 120, 120);  // gray measure 0.16
    rig.evaluate(frame.bucket);
    const double red = 1024 + (0.5 - 120.0 / 255) * kStepPerError;
    EXPECT_EQ(gains(rig), (Gains{static_cast<int32_t>(red), 1024, 1024}));
}

// The two perturbations the camera's engine will draw next: uniform in [-0.1, 0.1].
std::pair<float, float> nextPerturbations(CUDACamera& camera) {
    std::mt19937 engine = Access::prng(camera);
    const float u = static_cast<float>(engine()) / 4294967296.0f * 0.2f - 0.1f;
    const float v = static_cast<float>(engine()) / 4294967296.0f * 0.2f - 0.1f;
    return {u, v};
}

TEST(AutoWhiteBalance, NothingGrayPerturbsExactlyOneGain) {
    RUVO_REQUIRE_CUDA_DEVICE();
    CameraRig rig({});
    lockExposure(rig);
    CraftedFrame coloured(kWidth, kHeight);
    coloured.fill(100, 250, 10);  // gray measure 2.4
    CraftedFrame black(kWidth, kHeight);
    black.fill(0, 128, 128);  // Y = 0 is never gray
    testing::LogCapture log("Capture.CUDACamera");
    int evaluations = 0;
    for (const CraftedFrame* frame : {&coloured, &black, &coloured, &black}) {
        const Gains before = gains(rig);
        const auto [pu, pv] = nextPerturbations(*rig.camera);
        rig.evaluate(frame->bucket);
        ++evaluations;
        const Gains after = gains(rig);
        // The error is minus the perturbation; the larger one moves its gain, red on a tie.
        if (std::fabs(pu) > std::fabs(pv)) {
            EXPECT_EQ(after.red, before.red);
            EXPECT_NEAR(after.blue, Access::currBlueGain(*rig.camera), 1.0);
            EXPECT_NEAR(Access::currBlueGain(*rig.camera) - before.blue, -pu * kStepPerError, 1.0);
        } else {
            EXPECT_EQ(after.blue, before.blue);
            EXPECT_NEAR(Access::currRedGain(*rig.camera) - before.red, -pv * kStepPerError, 1.0);
        }
        EXPECT_EQ(after.green, 1024);
        const auto lines = log.startingWith("AWB stuck, perturbation applied ");
        ASSERT_EQ(lines.size(), static_cast<size_t>(evaluations));
        const std::string numbers = lines.back().substr(32);
        EXPECT_NEAR(std::stof(numbers), pu, 1e-5) << numbers;
        EXPECT_NEAR(std::stof(numbers.substr(numbers.find(", ") + 2)), pv, 1e-5) << numbers;
    }
}

TEST(AutoWhiteBalance, GainsBeyondTheDriverRangeAreWrittenAsItsLimits) {
    RUVO_REQUIRE_CUDA_DEVICE();
    CameraRig rig({});
    lockExposure(rig);
    CraftedFrame reddish(kWidth, kHeight);
    reddish.fill(100, 128, 100);  // gray measure 0.28; errV = 0.51 - 100/255 moves red up
    Access::currRedGain(*rig.camera) = 4090.0f;
    rig.evaluate(reddish.bucket);
    EXPECT_EQ(rig.reg(sensor::CID_RED_GAIN), 4095);
    EXPECT_EQ(Access::currRedGain(*rig.camera), 4095.0f);

    CraftedFrame bluish(kWidth, kHeight);
    bluish.fill(100, 150, 128);  // gray measure 0.22; errU = 0.49 - 150/255 moves blue down
    Access::currBlueGain(*rig.camera) = 5.0f;
    rig.evaluate(bluish.bucket);
    EXPECT_EQ(rig.reg(sensor::CID_BLUE_GAIN), 0);
    EXPECT_EQ(Access::currBlueGain(*rig.camera), 0.0f);
}

TEST(ManualWhiteBalance, WritesFactorsInUnitsOf1024AndWinsOverLock) {
    RUVO_REQUIRE_CUDA_DEVICE();
    CameraRig rig({});
    lockExposure(rig);
    CraftedFrame frame(kWidth, kHeight);
    frame.fill(100, 128, 128);
    for (uint32_t id : {sensor::CID_RED_GAIN, sensor::CID_GREEN_GAIN, sensor::CID_BLUE_GAIN}) rig.setReg(id, 700);
    rig.change([](Controls& c) {
        c.awb.manual = true;
        c.awb.lock = true;
        c.awb.manualRedGain = c.awb.manualGreenGain = c.awb.manualBlueGain = 1.0f;
    });
    rig.evaluate(frame.bucket);
    EXPECT_EQ(gains(rig), (Gains{1024, 1024, 1024}));
    rig.change([](Controls& c) {
        c.awb.manualRedGain = 0.5f;
        c.awb.manualGreenGain = 2.0f;
        c.awb.manualBlueGain = 1.5f;
    });
    rig.evaluate(frame.bucket);
    EXPECT_EQ(gains(rig), (Gains{512, 2048, 1536}));
    EXPECT_TRUE(Access::awbNeedsUpdate(*rig.camera));
}

TEST(LockedWhiteBalance, WritesBackTheLastAutomaticRedAndBlueOnce) {
    RUVO_REQUIRE_CUDA_DEVICE();
    CameraRig rig({});
    lockExposure(rig);
    CraftedFrame gray(kWidth, kHeight);
    gray.fill(100, 128, 128);
    CraftedFrame reddish(kWidth, kHeight);
    reddish.fill(100, 128, 100);
    rig.evaluate(gray.bucket);     // blue moves
    rig.evaluate(reddish.bucket);  // red moves
    const Gains automatic = gains(rig);
    ASSERT_NE(automatic.red, 1024);
    ASSERT_NE(automatic.blue, 1024);

    rig.change([](Controls& c) {
        c.awb.manual = true;
        c.awb.manualRedGain = c.awb.manualGreenGain = c.awb.manualBlueGain = 2.0f;
    });
    rig.evaluate(gray.bucket);
    rig.change([](Controls& c) {
        c.awb.manual = false;
        c.awb.lock = true;
    });
    rig.evaluate(gray.bucket);
    EXPECT_EQ(gains(rig), (Gains{automatic.red, 2048, automatic.blue})) << "green is not written back";
    EXPECT_FALSE(Access::awbNeedsUpdate(*rig.camera));

    rig.setReg(sensor::CID_RED_GAIN, 500);
    rig.evaluate(gray.bucket);
    EXPECT_EQ(rig.reg(sensor::CID_RED_GAIN), 500) << "written back only once";
}

}  // namespace
}  // namespace capture
}  // namespace ruvo
