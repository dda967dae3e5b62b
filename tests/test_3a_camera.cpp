// 3A on a started camera, checked on the simulated sensor's registers and the diagnostics
// channels, with crafted frames: auto exposure's manual and lock branches, dead band, step and
// limits, which luminance drives it and the skin threshold; white balance's gray-world step,
// perturbation, tie rule, clamping, manual and lock (gain registers 0..4095, 1024 for a factor of
// 1); the metering records byte for byte.
#include "support/rig_3a.h"

#include "support/GpuPresence.h"

#include <ruvo/capture/CaptureDeviceException.h>
#include "support/LogCapture.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <fstream>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace ruvo {
namespace capture {
namespace {

using testing::CameraRig;
using testing::CraftedFrame;
using testing::kHeight;
using testing::kWidth;

// ---- auto exposure ----
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

// Lock is set too: manual mode wins over it. The registers follow the sensor profile's laws: the
// default sensor's lines of 0.44782403 us and four-stage gain curve; the generic sensor's lines of
// 3448 pixel clocks at 182.4 MHz (from its pixel rate and blanking controls) and the rational law
// 256 / (256 - code), read back through the simulator's own law; a profile file's configured
// line time and linear law; and, where the driver offers only V4L2_CID_EXPOSURE_ABSOLUTE and
// V4L2_CID_GAIN, 100 us units and the linear law with the control's default (256) as unity. The
// driver clamps to its range. A bad profile file is refused.
TEST(ManualExposure, WritesTheGainRegisterAndTheTimeInLinesAndWinsOverLock) {
    RUVO_REQUIRE_CUDA_DEVICE();
    CraftedFrame frame(kWidth, kHeight);
    const std::string file = ::testing::TempDir() + "ruvo-linear-sensor.json";
    std::ofstream(file) << R"({"exposure": {"lineTime": 20}, "gain": {"law": "linear", "unity": 32}})";
    // The registers each sensor writes, and the simulator's own code-to-gain law where it has one.
    const struct {
        std::string name;
        testing::SimKeys keys;
        uint32_t exposureId, gainId;
        float (*law)(int32_t);
    } sensors[] = {
        {"default", {}, sensor::CID_EXPOSURE, sensor::CID_GAIN, nullptr},
        {"generic", {{"sim.controls", "generic"}}, V4L2_CID_EXPOSURE, V4L2_CID_ANALOGUE_GAIN, sim::genericGain},
        {"file", {{"sim.controls", "generic"}, {"sensor", file}}, V4L2_CID_EXPOSURE, V4L2_CID_ANALOGUE_GAIN, nullptr},
        {"absolute",
         {{"sim.controls", "generic"}, {"sim.exposureControl", "absolute"}, {"sim.gainControl", "gain"}},
         V4L2_CID_EXPOSURE_ABSOLUTE,
         V4L2_CID_GAIN,
         sim::linearGain}};
    // 0.01 s is 22330.2 lines; 1/30 s is 74433.99 lines: line 74433, also the frame period at 30 frames/s.
    // Generic: 0.01 s is 529.002 lines, 1/30 s 1763.34 (the frame period, 1763). File: 0.01f s, just
    // below 0.01, is 499.99999 lines of 20 us, truncated to 499; 1/30 s is 1666.7. Absolute: 0.01f s is
    // 99.99999 units of 100 us, truncated to 99; 1/30 s is 333.3.
    const struct {
        const char* sensor;
        float gain, seconds;
        int32_t gainRegister, exposureRegister;
    } cases[] = {{"default", 1.0f, 0.01f, 128, 22330},
                 {"default", 3.0f, 0.01f, 440, 22330},
                 {"default", 16.0f, 1.0f / 30.0f, 2039, 74433},
                 {"default", -1.0f, 0.01f, 0, 22330},
                 {"generic", 1.0f, 0.01f, 0, 529},
                 {"generic", 2.0f, 0.01f, 128, 529},
                 {"generic", 4.0f, 1.0f / 30.0f, 192, 1763},
                 {"generic", 16.0f, 0.01f, 232, 529},
                 {"file", 2.0f, 0.01f, 64, 499},
                 {"file", 0.5f, 1.0f / 30.0f, 16, 1666},
                 {"absolute", 2.0f, 0.01f, 512, 99},
                 {"absolute", 16.0f, 1.0f / 30.0f, 2560, 333}};
    for (const auto& [name, keys, exposureId, gainId, law] : sensors) {
        CameraRig rig(keys);
        for (const auto& c : cases) {
            if (c.sensor != name) continue;
            rig.change([&c](Controls& controls) {
                controls.ae.manual = true;
                controls.ae.lock = true;
                controls.ae.manualGain = c.gain;
                controls.ae.manualExposure = c.seconds;
            });
            rig.evaluate(frame.bucket);
            const std::pair<int32_t, int32_t> written{rig.reg(exposureId), rig.reg(gainId)};
            EXPECT_EQ(written, std::make_pair(c.exposureRegister, c.gainRegister)) << name << " " << c.gain;
            // Code to gain: the camera's reading of the register is the simulator's.
            if (law) {
                EXPECT_FLOAT_EQ(rig.camera->sensorProfile().gain.toGain(written.second), law(written.second));
            }
        }
    }
    std::ofstream(file) << R"({"gain": {"law": "cubic"}})";
    try {
        CameraRig rig({{"sensor", file}});
        ADD_FAILURE() << "a gain law that does not exist was taken";
    } catch (const CaptureDeviceException& e) {
        EXPECT_EQ(std::string(e.what()),
                  "sensor profile " + file + ": gain.law = \"cubic\": expected one of fourStage, linear, rational");
    }
    std::remove(file.c_str());
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

    rig.setReg(sensor::CID_EXPOSURE, 5000);
    rig.evaluate(frame.bucket);
    EXPECT_EQ(rig.reg(sensor::CID_EXPOSURE), 5000) << "written back only once";

    rig.change([](Controls& c) { c.ae.manual = true; });
    rig.evaluate(frame.bucket);
    rig.change([](Controls& c) { c.ae.manual = false; });
    rig.evaluate(frame.bucket);
    EXPECT_EQ(exposureAndGain(rig), automatic) << "manual mode arms the write-back again";
}

// An error inside the dead band writes nothing and arms no write-back for a later lock; just
// outside it the step is taken.
TEST(AutoExposure, DeadBandWritesNothingAndArmsNoWriteBack) {
    RUVO_REQUIRE_CUDA_DEVICE();
    CameraRig rig({});
    CraftedFrame frame(kWidth, kHeight);
    const int32_t statistic = rig.exposeForStatistic();
    ASSERT_GT(statistic, 0);
    const float band = rig.camera->getParams().ae.errorY;
    for (float factor : {0.5f, -0.5f, 1.5f}) {
        rig.change([&](Controls& c) { c.ae.targetY = static_cast<float>(statistic) / 1023.0f + factor * band; });
        rig.setReg(sensor::CID_EXPOSURE, 12345);
        rig.setReg(sensor::CID_GAIN, 300);
        rig.evaluate(frame.bucket);
        if (factor > 1.0f) {
            EXPECT_NE(exposureAndGain(rig), std::make_pair(12345, 300)) << "outside the dead band";
            continue;
        }
        EXPECT_EQ(exposureAndGain(rig), std::make_pair(12345, 300)) << factor;
        rig.setReg(sensor::CID_EXPOSURE, 6789);
        rig.change([](Controls& c) { c.ae.lock = true; });
        rig.evaluate(frame.bucket);
        EXPECT_EQ(rig.reg(sensor::CID_EXPOSURE), 6789) << "nothing to write back";
        rig.change([](Controls& c) { c.ae.lock = false; });
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
        // A proportional step: twice the error moves the exposure twice as far, the way the
        // statistic (on 0..1) lies from the target.
        const double avgY = statistic / 1023.0;
        rig.change([avgY](Controls& controls) { controls.ae.targetY = static_cast<float>(2 * 0.3 - avgY); });
        const auto twiceTheError = stepFrom20000(rig, dark);
        const int direction = avgY < 0.3 ? 1 : -1;
        EXPECT_GT(direction * (fromDark.first - 20000), 0);
        EXPECT_GT(direction * (fromDark.second - gainToRegister(2.0f)), 0);
        EXPECT_NEAR(twiceTheError.first - 20000, 2.0 * (fromDark.first - 20000), 2.0);
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

// ---- white balance ----

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
    }
    // Evaluates a frame of one colour and returns the gain registers.
    Gains evaluate(uint8_t y, uint8_t u, uint8_t v) {
        testing::CraftedFrame frame(testing::kWidth, testing::kHeight);
        frame.fill(y, u, v);
        rig->evaluate(frame.bucket);
        return {rig->reg(sensor::CID_RED_GAIN), rig->reg(sensor::CID_GREEN_GAIN), rig->reg(sensor::CID_BLUE_GAIN)};
    }

    std::unique_ptr<testing::CameraRig> rig;
};

TEST_F(WhiteBalance, UniformGrayMovesOnlyBlueDownward) {
    start();
    // avgU = avgV = 128/255: errU = 0.49 - 0.50196, errV = 0.51 - 0.50196; |errU| is larger.
    const double blue = 1024 + (0.49 - 128.0 / 255) * kStepPerError;
    EXPECT_EQ(evaluate(100, 128, 128), (Gains{1024, 1024, static_cast<int32_t>(blue)}));
}

TEST_F(WhiteBalance, EqualErrorsMoveRed) {
    start({{"awb.targetU", "0.5"}, {"awb.targetV", "0.5"}});
    const double red = 1024 + (0.5 - 120.0 / 255) * kStepPerError;
    EXPECT_EQ(evaluate(100, 120, 120), (Gains{static_cast<int32_t>(red), 1024, 1024}));  // gray measure 0.16
}

// Coloured (gray measure 2.4) and black (Y = 0 is never gray) frames: the error is minus a
// perturbation in [-0.1, 0.1], logged; the larger of the two moves its gain by P times it.
TEST_F(WhiteBalance, NothingGrayPerturbsExactlyOneGain) {
    start();
    ruvo::test::LogCapture log("Capture.CUDACamera");
    const std::string prefix = "AWB stuck, perturbation applied ";
    Gains before{1024, 1024, 1024};
    for (int i = 0; i < 4; ++i) {
        const Gains after = i % 2 == 0 ? evaluate(100, 250, 10) : evaluate(0, 128, 128);
        std::vector<std::string> lines;
        for (const std::string& line : log.lines())
            if (line.rfind(prefix, 0) == 0) lines.push_back(line);
        ASSERT_EQ(lines.size(), static_cast<size_t>(i + 1));
        const std::string numbers = lines.back().substr(prefix.size());
        const double pu = std::stod(numbers);
        const double pv = std::stod(numbers.substr(numbers.find(", ") + 2));
        ASSERT_LE(std::fabs(pu), 0.1);
        ASSERT_LE(std::fabs(pv), 0.1);
        const bool blueMoves = std::fabs(pu) > std::fabs(pv);
        const int32_t moved = blueMoves ? after.blue - before.blue : after.red - before.red;
        EXPECT_NEAR(moved, -(blueMoves ? pu : pv) * kStepPerError, 1.0) << numbers;
        EXPECT_EQ(blueMoves ? after.red : after.blue, blueMoves ? before.red : before.blue) << numbers;
        EXPECT_EQ(after.green, 1024);
        before = after;
    }
}

// Driven past the driver's range, the gains stop at its limits, and the first step back leaves
// them at once: the controller's memory stops at the limits too.
TEST_F(WhiteBalance, GainsBeyondTheDriverRangeAreWrittenAsItsLimits) {
    start();
    // Gray measure 0.28; errV = 0.51 - 100/255 moves red up by about 72 a frame.
    for (int i = 0; i < 50; ++i) ASSERT_LE(evaluate(100, 128, 100).red, 4095);
    EXPECT_EQ(evaluate(100, 128, 100).red, 4095);
    EXPECT_LT(evaluate(100, 128, 150).red, 4095);
    // Gray measure 0.22; errU = 0.49 - 150/255 moves blue down by about 60 a frame.
    for (int i = 0; i < 20; ++i) ASSERT_GE(evaluate(100, 150, 128).blue, 0);
    EXPECT_EQ(evaluate(100, 150, 128).blue, 0);
    EXPECT_GT(evaluate(100, 100, 128).blue, 0);
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
    rig->setReg(sensor::CID_RED_GAIN, 500);
    EXPECT_EQ(evaluate(100, 128, 128).red, 500) << "written back only once";

    rig->change([](Controls& c) { c.awb.manual = true; });
    evaluate(100, 128, 128);
    rig->change([](Controls& c) { c.awb.manual = false; });
    EXPECT_EQ(evaluate(100, 128, 128).red, automatic.red) << "manual mode arms the write-back again";
}

// ---- diagnostics records ----

// A camera "left" with index 1 metering a 2 x 2 grid with two samples per region: regions 0, 1
// and 3 flat (deviation 0), region 2 (top right, column-major) at 96 and 104 (deviation 4).
class TwoByTwo : public ::testing::Test {
protected:
    TwoByTwo() : frame(kWidth, kHeight, 7) {
        frame.fill(100, 128, 128);
        frame.fillLuma([](uint32_t x, uint32_t y) -> uint8_t {
            if (x < kWidth / 2) return y < kHeight / 2 ? 100 : 50;
            return y < kHeight / 2 ? 100 : 200;
        });
        frame.y(700, 100) = 96;
        frame.y(900, 200) = 104;
    }
    void SetUp() override {
        RUVO_REQUIRE_CUDA_DEVICE();
        rig = std::make_unique<testing::CameraRig>(testing::SimKeys{{"name", "left"},
                                                                    {"outputBufferFormats", "2"},
                                                                    {"ae.numRegions", "4"},
                                                                    {"numSamples", "8"},
                                                                    {"ae.numSamples", "8"},
                                                                    {"awb.numSamples", "8"}},
                                                   1);
    }
    void evaluate() {
        testing::placeSamples(
            *rig->camera,
            {{100, 100}, {200, 200}, {100, 400}, {300, 500}, {700, 100}, {900, 200}, {700, 400}, {1000, 600}});
        rig->evaluate(frame.bucket);
    }

    std::unique_ptr<testing::CameraRig> rig;
    testing::CraftedFrame frame;
    testing::Listener stat{"CapDevCUDAExpStat"};
    testing::Listener meta{"CapDevCUDAExpMeta"};
};

std::string sixDecimals(double value) {
    char text[32];
    std::snprintf(text, sizeof text, "%f", value);
    return text;
}

TEST_F(TwoByTwo, StatRecordCarriesTheRegionWeights) {
    stat.enable(false);
    evaluate();
    EXPECT_TRUE(stat.texts.empty()) << "nothing is sent to a disabled channel";
    stat.enable(true);
    evaluate();
    // Deviations 0, 0, 4, 0: mean 1, variance 3; weight exp(-0.5 d^2 / (2 * 3)) times the prior
    // share, a quarter for each region of a 2 x 2 grid.
    const std::string typical = sixDecimals(std::exp(-1.0 / 12) / 4);
    const std::string contrasted = sixDecimals(std::exp(-0.75) / 4);
    ASSERT_EQ(stat.texts.size(), 1u);
    EXPECT_EQ(stat.texts[0], "{ \"width\": 2, \"height\": 2, \"cameraIndex\": \"1\", \"data\": [" + typical + "," +
                                 typical + "," + contrasted + "," + typical + "]}");
    EXPECT_TRUE(meta.texts.empty()) << "no skin in view";
}

TEST_F(TwoByTwo, MetaRecordOfCameraLeftWithIndexOne) {
    frame.setSkin(9216, 180);  // skin ratio 0.04
    meta.enable(false);
    evaluate();
    EXPECT_TRUE(meta.texts.empty()) << "nothing is sent to a disabled channel";
    meta.enable(true);
    evaluate();
    ASSERT_EQ(meta.texts.size(), 1u);
    EXPECT_EQ(meta.texts[0],
              "{ \"type\": \"Metering Metadata\", \"cameraName\": \"left\", \"cameraIndex\": \"1\", "
              "\"numPixelsCount\": 9216, \"sumPixelsLuminance\": 1658880, \"meanLuminance\": 0.705882, "
              "\"bufferDims\": { \"width\":80, \"height\":45} }");
}

}  // namespace
}  // namespace capture
}  // namespace ruvo
