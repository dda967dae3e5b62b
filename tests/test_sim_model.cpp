// What the simulated sensor writes into its frames, measured on delivered frames: its V4L2
// controls (ranges, clamping, latency, the luminance statistic over the metering rectangle), the
// physical model (exposure and gain linearity up to clipping, gain stages, channel gains,
// colour temperature, flips, sample layout, seeded noise) and its scenes.
#include "support/sim_client.h"

#include <ruvo/capture/CaptureDeviceException.h>

#include <gtest/gtest.h>

#include <cmath>

namespace ruvo::capture {
namespace {

using namespace sensor;
using testing::channelMean;
using testing::SimClient;
using testing::SimKeys;

constexpr int kW = 672, kH = 380;
constexpr double kPedestal = 64.0;

// A client streaming 672x380 with one buffer; exposure and gain apply at the next frame unless
// `keys` say otherwise.
struct Stream {
    explicit Stream(SimKeys keys, bool immediate = true)
        : c([&] {
              if (immediate) keys.insert({{"sim.exposureDelay", "0"}, {"sim.gainDelay", "0"}});
              return keys;
          }()) {
        c.start(kW, kH, 1);
    }
    Stream(std::initializer_list<SimKeys::value_type> keys) : Stream(SimKeys(keys)) {}
    // Captures one frame and returns its samples (valid until the next capture).
    const uint16_t* capture() {
        const v4l2_buffer b = c.stepAndDequeue();
        EXPECT_EQ(c.queue(b.index), 0);
        return c.samples(b.index);
    }
    double mean(int channel, const uint16_t* frame = nullptr) {
        return channelMean(frame ? frame : capture(), kW, channel, 0, 0, kW, kH);
    }
    SimClient c;
};

// The exposure limit is one frame period in lines of 0.44782403 us, truncated; the default
// exposure is 22330 lines where that fits.
TEST(SimControls, ExposureLimitIsOneFramePeriod) {
    for (const auto& [fps, lines] : {std::pair{"30", 74433}, std::pair{"60", 37216}, std::pair{"120", 18608}}) {
        SimClient c({{"sim.fps", fps}});
        v4l2_queryctrl query{};
        query.id = CID_EXPOSURE;
        ASSERT_EQ(c.call(VIDIOC_QUERYCTRL, &query), 0);
        EXPECT_EQ(query.maximum, lines) << fps;
        EXPECT_EQ(c.get(CID_EXPOSURE), std::min(22330, lines)) << fps;
    }
}

TEST(SimControls, UnknownReadOnlyAndOutOfRangeWrites) {
    SimClient c;
    for (uint32_t id : {0x00980900u, 0x00981009u, 0u}) {
        v4l2_control control{id, 1};
        EXPECT_EQ(c.call(VIDIOC_G_CTRL, &control), EINVAL) << id;
        EXPECT_EQ(c.call(VIDIOC_S_CTRL, &control), EINVAL) << id;
    }
    v4l2_control statistic{CID_AVG_LUMINANCE, 5};
    EXPECT_EQ(c.call(VIDIOC_S_CTRL, &statistic), EACCES);
    EXPECT_EQ(c.get(CID_AVG_LUMINANCE), 0);
    for (const auto& [id, value, stored] :
         {std::tuple{CID_EXPOSURE, 1000000, 74433}, std::tuple{CID_EXPOSURE, -3, 1}, std::tuple{CID_GAIN, -5, 0},
          std::tuple{CID_GAIN, 5000, 2047}, std::tuple{CID_HFLIP, 7, 1}, std::tuple{CID_RED_GAIN, 5000, 4095},
          std::tuple{CID_METER_LEFT, 3000, 2687}}) {
        EXPECT_EQ(c.set(id, value), stored) << id << " set to " << value;
        EXPECT_EQ(c.sensor().control(id), stored) << id << " set to " << value;
    }
}

// Half the exposure is written before frame 1 and twice the gain before frame 4: each shows
// after its number of frames (by default exposure 2, gain 1). A write before streaming shows in
// the first frame. Defaults: 10 ms at unity gain put reflectance 0.18 at 180 codes over 64.
TEST(SimControls, ExposureAndGainShowAfterTheirLatency) {
    const std::pair<SimKeys, std::vector<double>> cases[] = {
        {{{"sim.scene", "flat"}}, {244, 244, 244, 154, 154, 244, 244, 244}},
        {{{"sim.scene", "flat"}, {"sim.exposureDelay", "0"}, {"sim.gainDelay", "3"}},
         {244, 154, 154, 154, 154, 154, 154, 244}},
    };
    for (const auto& [keys, means] : cases) {
        SCOPED_TRACE(keys.size() == 1 ? "default latencies" : "latencies 0 and 3");
        Stream s(keys, false);
        for (size_t frame = 0; frame < means.size(); ++frame) {
            if (frame == 1) s.c.set(CID_EXPOSURE, 22330 / 2);
            if (frame == 4) s.c.set(CID_GAIN, 256);
            EXPECT_DOUBLE_EQ(s.mean(1), means[frame]) << "frame " << frame;
        }
        EXPECT_EQ(s.c.get(CID_EXPOSURE), 22330 / 2) << "the control reads back at once";
    }
    SimClient c({{"sim.scene", "flat"}});
    c.setFormat(kW, kH);
    c.set(CID_EXPOSURE, 22330 / 2);
    c.requestBuffers(1);
    c.queueAll();
    c.streamOn();
    EXPECT_DOUBLE_EQ(channelMean(c.samples(c.stepAndDequeue().index), kW, 1, 0, 0, kW, kH), 154.0);
}

TEST(SimControls, LuminanceStatisticFollowsTheMeteringRectangle) {
    Stream s({{"sim.scene", "chart"}});
    // The statistic of the frame just captured, and the mean of all its samples in the rectangle.
    const auto measure = [&](int x0, int y0, int x1, int y1) {
        const uint16_t* frame = s.capture();
        double sum = 0.0;
        for (int y = y0; y < y1; ++y)
            for (int x = x0; x < x1; ++x) sum += frame[y * kW + x] >> 4;
        return std::pair{s.c.get(CID_AVG_LUMINANCE), static_cast<int>(std::lround(sum / ((x1 - x0) * (y1 - y0))))};
    };
    const auto [whole, wholeReference] = measure(0, 0, kW, kH);
    EXPECT_EQ(whole, wholeReference);
    EXPECT_GT(whole, 64) << "above the pedestal";
    // The dark-skin patch and the white patch meter differently.
    for (const auto& [id, value] :
         {std::pair{CID_METER_ENABLE, 1}, std::pair{CID_METER_LEFT, 80}, std::pair{CID_METER_TOP, 50},
          std::pair{CID_METER_WIDTH, 40}, std::pair{CID_METER_HEIGHT, 20}})
        s.c.set(id, value);
    const auto [skin, skinReference] = measure(80, 50, 120, 70);
    EXPECT_EQ(skin, skinReference);
    s.c.set(CID_METER_LEFT, 70);
    s.c.set(CID_METER_TOP, 230);
    const auto [white, whiteReference] = measure(70, 230, 110, 250);
    EXPECT_EQ(white, whiteReference);
    EXPECT_GT(white, skin + 300);
    // Clipped at the frame's edge; the whole frame when empty or off.
    s.c.set(CID_METER_LEFT, 600);
    s.c.set(CID_METER_WIDTH, 500);
    const auto [clipped, clippedReference] = measure(600, 230, kW, 250);
    EXPECT_EQ(clipped, clippedReference);
    s.c.set(CID_METER_WIDTH, 0);
    EXPECT_EQ(measure(0, 0, kW, kH).first, whole);
    s.c.set(CID_METER_WIDTH, 40);
    s.c.set(CID_METER_ENABLE, 0);
    EXPECT_EQ(measure(0, 0, kW, kH).first, whole);
}

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
        EXPECT_NEAR((s.mean(1) - kPedestal) / unity, gain, 0.015 * gain + 0.01) << "register " << reg;
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
            EXPECT_NEAR((s.mean(channel, frame) - kPedestal) / base[channel], channel == doubled ? 2.0 : 1.0, 0.01)
                << "doubled " << doubled << ", channel " << channel;
        }
        s.c.set(ids[doubled], 1024);
    }
}

// Illuminance scales the signal and colour temperature tints red against blue (neutral at
// 6500 K), scripted at given frames or set at run time.
TEST(SimModel, IlluminanceAndColourTemperatureScriptedOrSet) {
    Stream s({{"sim.scene", "flat"},
              {"sim.level", "0.3"},
              {"sim.script", "2:illuminance=2; 4:colourTemperature=3000,illuminance=0.5"}});
    std::vector<double> green, redOverGreen;
    for (int frame = 0; frame < 6; ++frame) {
        const uint16_t* f = s.capture();
        green.push_back(s.mean(1, f) - kPedestal);
        redOverGreen.push_back((s.mean(0, f) - kPedestal) / green.back());
        if (frame == 0) {
            EXPECT_NEAR(s.mean(2, f) - kPedestal, green[0], 0.5) << "neutral at 6500 K";
        }
    }
    for (const auto& [frame, gain] : {std::pair{1, 1.0}, std::pair{2, 2.0}, std::pair{3, 2.0}, std::pair{4, 0.5}})
        EXPECT_NEAR(green[frame] / green[0], gain, 0.01) << "frame " << frame;
    EXPECT_NEAR(redOverGreen[3], 1.0, 0.01);
    EXPECT_GT(redOverGreen[4], 1.3) << "warm light from frame 4";
    EXPECT_FLOAT_EQ(s.c.sensor().colourTemperature(), 3000.0f);
    // A run-time setting holds until the next scripted change (none is left).
    s.c.sensor().setIlluminance(1.0f);
    s.c.sensor().setColourTemperature(9000.0f);
    const uint16_t* cool = s.capture();
    EXPECT_NEAR((s.mean(1, cool) - kPedestal) / green[0], 1.0, 0.01);
    EXPECT_GT(s.mean(2, cool), s.mean(0, cool) + 10.0) << "cool light";
    EXPECT_THROW(s.c.sensor().setColourTemperature(500.0f), CaptureDeviceException);
}

// A neutral scene with no symmetry: a different reflectance at nearly every pixel.
class DiagonalScene : public sim::Scene {
public:
    sim::Rgb reflectance(int x, int y, int, int) const override {
        const float v = static_cast<float>((x * 3 + y * 7) % 101) / 100.0f;
        return sim::Rgb{v, v, v};
    }
};

TEST(SimModel, FlipsMirrorTheReadout) {
    Stream s(SimKeys{});
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

TEST(SimModel, NoiseFollowsShotAndReadNoiseAndIsReproducibleFromTheSeed) {
    // A noisy stream drawing from `seed`, with 400 codes of signal at unity gain.
    const auto stream = [](const char* seed) {
        auto s = std::make_unique<Stream>(SimKeys{{"sim.scene", "flat"},
                                                  {"sim.level", "0.5"},
                                                  {"sim.noise", "true"},
                                                  {"sim.readNoise", "2"},
                                                  {"sim.seed", seed}});
        s->c.set(CID_EXPOSURE, 17866);
        return s;
    };
    auto s = stream("42");
    const uint16_t* captured = s->capture();
    const std::vector<uint16_t> first(captured, captured + kW * kH);
    for (const auto& [gainRegister, gain] : {std::pair{128, 1.0}, std::pair{376, 2.0}}) {
        s->c.set(CID_GAIN, gainRegister);
        const uint16_t* frame = s->capture();
        double sum = 0.0, sumSquares = 0.0;
        long n = 0;
        for (int y = 0; y < kH; ++y)
            for (int x = (y + 1) % 2; x < kW; x += 2) {  // green sites
                const double v = frame[y * kW + x] >> 4;
                sum += v;
                sumSquares += v * v;
                ++n;
            }
        const double mean = sum / n, variance = sumSquares / n - mean * mean, signal = 400.0 * gain;
        // Shot noise at 0.1 codes per electron times the gain, read noise 2, rounding 1/12.
        EXPECT_NEAR(mean, kPedestal + signal, 0.5);
        EXPECT_NEAR(variance, signal * 0.1 * gain + 4.0 + 1.0 / 12.0, 0.05 * variance) << gain;
    }
    auto replay = stream("42");
    EXPECT_TRUE(std::equal(first.begin(), first.end(), replay->capture())) << "same seed, same frame number";
    EXPECT_FALSE(std::equal(first.begin(), first.end(), replay->capture())) << "each frame draws afresh";
    EXPECT_FALSE(std::equal(first.begin(), first.end(), stream("43")->capture())) << "another seed";
}

TEST(SimScenes, ChartPatchesHaveTheirLinearColours) {
    Stream s({{"sim.scene", "chart"}});
    const uint16_t* frame = s.capture();
    // The background is reflectance 0.18; it calibrates codes per unit reflectance.
    const double scale = (channelMean(frame, kW, 1, 0, 0, kW, 20) - kPedestal) / 0.18;
    ASSERT_NEAR(scale, 1000.0, 2.0);
    struct Patch {
        int index;
        double rgb[3];  // linear sRGB of the patch's 8-bit values, computed independently
    };
    for (const Patch& p : {Patch{0, {0.1714, 0.0844, 0.0578}}, Patch{1, {0.5395, 0.3050, 0.2232}},
                           Patch{18, {0.8963, 0.8963, 0.8879}}, Patch{23, {0.0343, 0.0343, 0.0343}}}) {
        // The middle 60% of the patch.
        const sim::RelativeRect r = sim::chartPatchRect(p.index);
        const float insetX = (r.right - r.left) * 0.2f, insetY = (r.bottom - r.top) * 0.2f;
        for (int channel = 0; channel < 3; ++channel) {
            EXPECT_NEAR(channelMean(frame, kW, channel, static_cast<int>((r.left + insetX) * kW),
                                    static_cast<int>((r.top + insetY) * kH), static_cast<int>((r.right - insetX) * kW),
                                    static_cast<int>((r.bottom - insetY) * kH)),
                        kPedestal + p.rgb[channel] * scale, 1.0)
                << "patch " << p.index << ", channel " << channel;
        }
    }
    EXPECT_THROW(sim::chartPatchRect(24), std::out_of_range);
}

TEST(SimScenes, ZonePlateFollowsItsFormula) {
    Stream s({{"sim.scene", "zoneplate"}});
    const uint16_t* frame = s.capture();
    // 0.5 + 0.4 cos(pi r^2 / width) at pixel centres, r from the frame centre.
    for (const auto& [x, y] : {std::pair{kW / 2, kH / 2}, std::pair{kW / 2 + 26, kH / 2},
                               std::pair{kW / 2, kH / 2 + 26}, std::pair{kW - 1, kH / 2}, std::pair{0, 0}}) {
        const double dx = x + 0.5 - kW / 2.0, dy = y + 0.5 - kH / 2.0;
        EXPECT_NEAR(frame[y * kW + x] >> 4,
                    kPedestal + 1000.0 * (0.5 + 0.4 * std::cos(M_PI * (dx * dx + dy * dy) / kW)), 1.0)
            << x << "," << y;
    }
}

TEST(SimScenes, PngImagesAreDecodedToLinearReflectanceAndStretched) {
    // 2x2 pixels, 8-bit sRGB: red, blue / gray 128, white.
    Stream s({{"sim.scene", RUVO_TEST_DATA_DIR "/sim_quad_2x2.png"}});
    s.c.set(CID_EXPOSURE, 22330 / 2);  // 500 codes per unit reflectance
    const uint16_t* frame = s.capture();
    // Bilinear stretching of 2 pixels over 672 x 380 leaves each source pixel pure in the outer
    // quarter of the frame (x < 168 or x >= 504, y < 95 or y >= 285); sample inside those.
    const auto quarter = [&](int qx, int qy, int channel) {
        const int x0 = qx == 0 ? 20 : 532, y0 = qy == 0 ? 10 : 300;
        return channelMean(frame, kW, channel, x0, y0, x0 + 120, y0 + 70) - kPedestal;
    };
    EXPECT_NEAR(quarter(0, 0, 0), 500.0, 1.0);
    EXPECT_NEAR(quarter(0, 0, 1), 0.0, 0.5);
    EXPECT_NEAR(quarter(0, 1, 1), 0.2159 * 500.0, 1.0) << "sRGB 128 is linear 0.2159";
    EXPECT_NEAR(quarter(1, 1, 2), 500.0, 1.0);
    // Between the quarters the image is interpolated, not stepped.
    const double mid = channelMean(frame, kW, 0, kW / 2 - 2, 20, kW / 2 + 2, 70) - kPedestal;
    EXPECT_GT(mid, 100.0);
    EXPECT_LT(mid, 400.0);
    try {
        SimClient missing({{"sim.scene", "/nonexistent/scene.png"}});
        ADD_FAILURE() << "a missing PNG is refused";
    } catch (const CaptureDeviceException& e) {
        EXPECT_NE(std::string(e.what()).find("/nonexistent/scene.png"), std::string::npos) << e.what();
    }
}

}  // namespace
}  // namespace ruvo::capture
