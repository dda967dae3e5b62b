// Auto white balance on a started camera with crafted uniform frames, checked on the simulated
// sensor's red, green and blue gain registers (range 0..4095, 1024 for a factor of 1): the
// gray-world step, the perturbation when nothing is gray, the tie rule, clamping, manual and lock.
#include "test_3a_rig.h"

#include "support/GpuPresence.h"
#include "support/LogCapture.h"

#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace ruvo {
namespace capture {
namespace {

using Access = CUDACameraTestAccess;
constexpr double kStepPerError = 0.15 * 4095;  // P times the register range

struct Gains {
    int32_t red, green, blue;
    bool operator==(const Gains& o) const { return red == o.red && green == o.green && blue == o.blue; }
};

// A camera whose exposure stays out of the way: locked with nothing to write back.
class WhiteBalance : public ::testing::Test {
protected:
    void SetUp() override { RUVO_REQUIRE_CUDA_DEVICE(); }
    void start(const testing::SimKeys& keys = {}) {
        rig = std::make_unique<testing::CameraRig>(keys);
        rig->change([](Controls& c) { c.ae.lock = true; });
        Access::aeNeedsUpdate(*rig->camera) = false;
    }
    // Evaluates a frame of one colour and returns the gain registers.
    Gains evaluate(uint8_t y, uint8_t u, uint8_t v) {
        testing::CraftedFrame frame(testing::kWidth, testing::kHeight);
        frame.fill(y, u, v);
        rig->evaluate(frame.bucket);
        return {rig->reg(sensor::CID_RED_GAIN), rig->reg(sensor::CID_GREEN_GAIN), rig->reg(sensor::CID_BLUE_GAIN)};
    }
    CUDACamera& camera() { return *rig->camera; }

    std::unique_ptr<testing::CameraRig> rig;
};

TEST_F(WhiteBalance, UniformGrayMovesOnlyBlueDownward) {
    start();
    // avgU = avgV = 128/255: errU = 0.49 - 0.50196, errV = 0.51 - 0.50196; |errU| is larger.
    const double blue = 1024 + (0.49 - 128.0 / 255) * kStepPerError;
    EXPECT_EQ(evaluate(100, 128, 128), (Gains{1024, 1024, static_cast<int32_t>(blue)}));
    EXPECT_NEAR(Access::currBlueGain(camera()), blue, 1e-3);
    EXPECT_EQ(Access::awbBlueGain(camera()), static_cast<int32_t>(blue));
    EXPECT_TRUE(Access::awbNeedsUpdate(camera()));
}

TEST_F(WhiteBalance, EqualErrorsMoveRed) {
    start({{"awb.targetU", "0.5"}, {"awb.targetV", "0.5"}});
    const double red = 1024 + (0.5 - 120.0 / 255) * kStepPerError;
    EXPECT_EQ(evaluate(100, 120, 120), (Gains{static_cast<int32_t>(red), 1024, 1024}));  // gray measure 0.16
}

// Coloured (gray measure 2.4) and black (Y = 0 is never gray) frames: the error is minus a
// perturbation uniform in [-0.1, 0.1], drawn from the camera's engine; the larger moves its gain.
TEST_F(WhiteBalance, NothingGrayPerturbsExactlyOneGain) {
    start();
    ruvo::test::LogCapture log("Capture.CUDACamera");
    const std::string prefix = "AWB stuck, perturbation applied ";
    for (int i = 0; i < 4; ++i) {
        std::mt19937 engine = Access::prng(camera());
        const float pu = static_cast<float>(engine()) / 4294967296.0f * 0.2f - 0.1f;
        const float pv = static_cast<float>(engine()) / 4294967296.0f * 0.2f - 0.1f;
        const float redBefore = Access::currRedGain(camera());
        const float blueBefore = Access::currBlueGain(camera());
        const Gains after = i % 2 == 0 ? evaluate(100, 250, 10) : evaluate(0, 128, 128);
        if (std::fabs(pu) > std::fabs(pv)) {
            EXPECT_EQ(Access::currRedGain(camera()), redBefore);
            EXPECT_EQ(after.blue, static_cast<int32_t>(Access::currBlueGain(camera())));
            EXPECT_NEAR(Access::currBlueGain(camera()) - blueBefore, -pu * kStepPerError, 1e-2);
        } else {
            EXPECT_EQ(Access::currBlueGain(camera()), blueBefore);
            EXPECT_EQ(after.red, static_cast<int32_t>(Access::currRedGain(camera())));
            EXPECT_NEAR(Access::currRedGain(camera()) - redBefore, -pv * kStepPerError, 1e-2);
        }
        EXPECT_EQ(after.green, 1024);
        std::vector<std::string> lines;
        for (const std::string& line : log.lines())
            if (line.rfind(prefix, 0) == 0) lines.push_back(line);
        ASSERT_EQ(lines.size(), static_cast<size_t>(i + 1));
        const std::string numbers = lines.back().substr(prefix.size());
        EXPECT_NEAR(std::stof(numbers), pu, 1e-5) << numbers;
        EXPECT_NEAR(std::stof(numbers.substr(numbers.find(", ") + 2)), pv, 1e-5) << numbers;
    }
}

TEST_F(WhiteBalance, GainsBeyondTheDriverRangeAreWrittenAsItsLimits) {
    start();
    Access::currRedGain(camera()) = 4090.0f;
    // Gray measure 0.28; errV = 0.51 - 100/255 moves red up.
    EXPECT_EQ(evaluate(100, 128, 100).red, 4095);
    EXPECT_EQ(Access::currRedGain(camera()), 4095.0f);
    Access::currBlueGain(camera()) = 5.0f;
    // Gray measure 0.22; errU = 0.49 - 150/255 moves blue down.
    EXPECT_EQ(evaluate(100, 150, 128).blue, 0);
    EXPECT_EQ(Access::currBlueGain(camera()), 0.0f);
}

TEST_F(WhiteBalance, ManualWritesFactorsInUnitsOf1024AndWinsOverLock) {
    start();
    for (uint32_t id : {sensor::CID_RED_GAIN, sensor::CID_GREEN_GAIN, sensor::CID_BLUE_GAIN}) rig->setReg(id, 700);
    rig->change([](Controls& c) {
        c.awb.manual = true;
        c.awb.lock = true;
        c.awb.manualRedGain = 0.5f;
        c.awb.manualGreenGain = 2.0f;
        c.awb.manualBlueGain = 1.5f;
    });
    EXPECT_EQ(evaluate(100, 128, 128), (Gains{512, 2048, 1536}));
    EXPECT_TRUE(Access::awbNeedsUpdate(camera()));
}

TEST_F(WhiteBalance, LockWritesBackTheLastAutomaticRedAndBlueOnce) {
    start();
    evaluate(100, 128, 128);                          // blue moves
    const Gains automatic = evaluate(100, 128, 100);  // red moves
    ASSERT_NE(automatic.red, 1024);
    ASSERT_NE(automatic.blue, 1024);
    rig->change([](Controls& c) {
        c.awb.manual = true;
        c.awb.manualRedGain = c.awb.manualGreenGain = c.awb.manualBlueGain = 2.0f;
    });
    evaluate(100, 128, 128);
    rig->change([](Controls& c) {
        c.awb.manual = false;
        c.awb.lock = true;
    });
    EXPECT_EQ(evaluate(100, 128, 128), (Gains{automatic.red, 2048, automatic.blue})) << "green is not written back";
    EXPECT_FALSE(Access::awbNeedsUpdate(camera()));
    rig->setReg(sensor::CID_RED_GAIN, 500);
    EXPECT_EQ(evaluate(100, 128, 128).red, 500) << "written back only once";
}

}  // namespace
}  // namespace capture
}  // namespace ruvo
