// The simulated sensor's physical model, measured on delivered frames: exposure and gain
// linearity up to clipping, the analogue gain stages, channel gains, illuminant, flips, sample
// layout, seeded noise and the render cache.
#include "support/sim_client.h"

#include <ruvo/capture/CaptureDeviceException.h>

#include <gtest/gtest.h>

#include <cmath>

namespace ruvo {
namespace capture {
namespace {

using namespace sensor;
using testing::channelMean;
using testing::SimClient;

constexpr int kW = 672, kH = 380;
constexpr double kPedestal = 64.0;

// A neutral scene with no symmetry: a different reflectance at nearly every pixel.
class DiagonalScene : public sim::Scene {
public:
    sim::Rgb reflectance(int x, int y, int, int) const override {
        const float v = static_cast<float>((x * 3 + y * 7) % 101) / 100.0f;
        return sim::Rgb{v, v, v};
    }
};

// A client streaming 672x380 with one buffer, exposure and gain applied at the next frame.
struct Stream {
    explicit Stream(testing::SimKeys keys)
        : c([&] {
              keys.emplace("sim.exposureDelay", "0");
              keys.emplace("sim.gainDelay", "0");
              return keys;
          }()) {
        c.start(kW, kH, 1);
    }
    // Captures one frame and returns its samples (valid until the next capture).
    const uint16_t* capture() {
        const v4l2_buffer b = c.stepAndDequeue();
        EXPECT_EQ(c.queue(b.index), 0);
        return c.samples(b.index);
    }
    double mean(int channel) { return channelMean(capture(), kW, channel, 0, 0, kW, kH); }
    SimClient c;
};

TEST(SimModel, DoublingTheExposureDoublesTheSignalUntilItClips) {
    Stream s({{"sim.scene", "flat"}, {"sim.level", "0.5"}});
    double previous = 0.0;
    for (int32_t lines = 2000; lines <= 32000; lines *= 2) {
        s.c.set(CID_EXPOSURE, lines);
        const double signal = s.mean(1) - kPedestal;
        if (previous > 0.0) {
            EXPECT_NEAR(signal / previous, 2.0, 0.03) << lines;
        }
        previous = signal;
    }
    EXPECT_GT(previous, 600.0);
    s.c.set(CID_EXPOSURE, 64000);
    EXPECT_DOUBLE_EQ(s.mean(1), 1023.0) << "clipped to 10 bits";
}

TEST(SimModel, GainStagesDecodeAsTheRegisterTable) {
    Stream s({{"sim.scene", "flat"}, {"sim.level", "0.5"}});
    s.c.set(CID_EXPOSURE, 2233);
    const double unity = s.mean(1) - kPedestal;
    ASSERT_NEAR(unity, 50.0, 1.0);
    for (const auto& [reg, gain] : {std::pair{-5, 0.0}, std::pair{128, 1.0}, std::pair{376, 2.0}, std::pair{884, 4.0},
                                    std::pair{1912, 8.0}, std::pair{5000, 16.3125}}) {
        s.c.set(CID_GAIN, reg);
        const double signal = s.mean(1) - kPedestal;
        EXPECT_NEAR(signal / unity, gain, 0.015 * gain + 0.01) << "register " << reg;
    }
}

TEST(SimModel, AChannelGainOf2048DoublesOnlyItsChannel) {
    Stream s({{"sim.scene", "flat"}, {"sim.level", "0.3"}});
    const double base[3] = {s.mean(0) - kPedestal, s.mean(1) - kPedestal, s.mean(2) - kPedestal};
    const uint32_t ids[3] = {CID_RED_GAIN, CID_GREEN_GAIN, CID_BLUE_GAIN};
    for (int doubled = 0; doubled < 3; ++doubled) {
        s.c.set(ids[doubled], 2048);
        const uint16_t* frame = s.capture();
        for (int channel = 0; channel < 3; ++channel) {
            const double signal = channelMean(frame, kW, channel, 0, 0, kW, kH) - kPedestal;
            EXPECT_NEAR(signal / base[channel], channel == doubled ? 2.0 : 1.0, 0.01)
                << "doubled " << doubled << ", channel " << channel;
        }
        s.c.set(ids[doubled], 1024);
    }
}

TEST(SimModel, IlluminanceScalesAndColourTemperatureTintsTheSignal) {
    Stream s({{"sim.scene", "flat"}, {"sim.level", "0.3"}});
    const double green = s.mean(1) - kPedestal;
    EXPECT_NEAR(s.mean(0) - kPedestal, green, 0.5) << "neutral at 6500 K";
    EXPECT_NEAR(s.mean(2) - kPedestal, green, 0.5) << "neutral at 6500 K";
    s.c.sensor().setIlluminance(2.0f);
    EXPECT_NEAR((s.mean(1) - kPedestal) / green, 2.0, 0.01);
    s.c.sensor().setIlluminance(1.0f);
    double lastRed = INFINITY, lastBlue = 0.0;
    for (float kelvin : {2000.0f, 2850.0f, 4000.0f, 6500.0f, 9000.0f}) {
        s.c.sensor().setColourTemperature(kelvin);
        const uint16_t* frame = s.capture();
        const double g = channelMean(frame, kW, 1, 0, 0, kW, kH) - kPedestal;
        const double redRatio = (channelMean(frame, kW, 0, 0, 0, kW, kH) - kPedestal) / g;
        const double blueRatio = (channelMean(frame, kW, 2, 0, 0, kW, kH) - kPedestal) / g;
        EXPECT_NEAR(g, green, 0.5) << "green is the reference channel";
        EXPECT_LT(redRatio, lastRed) << kelvin;
        EXPECT_GT(blueRatio, lastBlue) << kelvin;
        if (kelvin < 6500.0f) {
            EXPECT_GT(redRatio, blueRatio) << "warm light";
        }
        lastRed = redRatio;
        lastBlue = blueRatio;
    }
    EXPECT_THROW(s.c.sensor().setIlluminance(-1.0f), CaptureDeviceException);
    EXPECT_THROW(s.c.sensor().setColourTemperature(500.0f), CaptureDeviceException);
}

TEST(SimModel, FlipsMirrorTheReadout) {
    Stream s(testing::SimKeys{});
    s.c.sensor().setScene(std::make_shared<DiagonalScene>());
    const uint16_t* captured = s.capture();
    const std::vector<uint16_t> upright(captured, captured + kW * kH);
    for (const auto& [h, v] : {std::pair{1, 0}, std::pair{0, 1}, std::pair{1, 1}}) {
        s.c.set(CID_HFLIP, h);
        s.c.set(CID_VFLIP, v);
        const uint16_t* flipped = s.capture();
        int mismatches = 0;
        for (int y = 0; y < kH; ++y)
            for (int x = 0; x < kW; ++x)
                mismatches += flipped[y * kW + x] != upright[(v ? kH - 1 - y : y) * kW + (h ? kW - 1 - x : x)];
        EXPECT_EQ(mismatches, 0) << "hflip " << h << " vflip " << v;
    }
}

TEST(SimModel, SamplesAreTenBitValuesTimesSixteenOrPlain) {
    Stream msb(testing::SimKeys{{"sim.scene", "chart"}});
    Stream lsb({{"sim.scene", "chart"}, {"sim.samples", "lsb10"}});
    const uint16_t* a = msb.capture();
    const uint16_t* b = lsb.capture();
    int mismatches = 0;
    uint16_t largest = 0;
    for (int i = 0; i < kW * kH; ++i) {
        mismatches += a[i] != b[i] * 16 || b[i] > 1023;
        largest = std::max(largest, a[i]);
    }
    EXPECT_EQ(mismatches, 0);
    EXPECT_LE(largest, 1023 * 16);
}

TEST(SimModel, NoiseFollowsShotAndReadNoiseAndIsReproducibleFromTheSeed) {
    const testing::SimKeys keys{
        {"sim.scene", "flat"}, {"sim.level", "0.5"}, {"sim.noise", "true"}, {"sim.readNoise", "2"}, {"sim.seed", "42"}};
    Stream s(keys);
    s.c.set(CID_EXPOSURE, 17866);  // 400 codes of signal
    for (const auto& [gainRegister, gain] : {std::pair{128, 1.0}, std::pair{376, 2.0}}) {
        s.c.set(CID_GAIN, gainRegister);
        const uint16_t* frame = s.capture();
        double sum = 0.0, sumSquares = 0.0;
        long n = 0;
        for (int y = 0; y < kH; ++y)
            for (int x = (y + 1) % 2; x < kW; x += 2) {  // green sites
                const double v = frame[y * kW + x] >> 4;
                sum += v;
                sumSquares += v * v;
                ++n;
            }
        const double mean = sum / n;
        const double variance = sumSquares / n - mean * mean;
        const double signal = 400.0 * gain;
        // Shot noise at 0.1 codes per electron times the gain, read noise 2, rounding 1/12.
        EXPECT_NEAR(mean, kPedestal + signal, 0.5);
        EXPECT_NEAR(variance, signal * 0.1 * gain + 4.0 + 1.0 / 12.0, 0.05 * variance) << gain;
    }
    Stream again(keys);
    again.c.set(CID_EXPOSURE, 17866);
    Stream otherSeed([&] {
        testing::SimKeys k = keys;
        k["sim.seed"] = "43";
        return k;
    }());
    otherSeed.c.set(CID_EXPOSURE, 17866);
    const uint16_t* firstFrame = again.capture();
    const std::vector<uint16_t> first(firstFrame, firstFrame + kW * kH);
    Stream replay(keys);
    replay.c.set(CID_EXPOSURE, 17866);
    const uint16_t* replayed = replay.capture();
    EXPECT_TRUE(std::equal(first.begin(), first.end(), replayed)) << "same seed, same frame number";
    const uint16_t* secondFrame = replay.capture();
    EXPECT_FALSE(std::equal(first.begin(), first.end(), secondFrame)) << "each frame draws afresh";
    const uint16_t* other = otherSeed.capture();
    EXPECT_FALSE(std::equal(first.begin(), first.end(), other)) << "another seed";
}

TEST(SimModel, TheNoiselessFrameIsRenderedOncePerChange) {
    Stream s(testing::SimKeys{{"sim.scene", "chart"}});
    s.capture();
    const uint64_t renders = s.c.sensor().renderCount();
    s.capture();
    s.capture();
    EXPECT_EQ(s.c.sensor().renderCount(), renders);
    s.c.set(CID_BLUE_GAIN, 900);
    s.capture();
    s.capture();
    EXPECT_EQ(s.c.sensor().renderCount(), renders + 1);
}

}  // namespace
}  // namespace capture
}  // namespace ruvo
