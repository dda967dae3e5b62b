// What the simulated sensor looks at: the test chart's patches and ramp, flat fields, the zone
// plate, PNG images, and the script and setters that change illuminance and colour temperature.
#include "support/sim_client.h"

#include <ruvo/capture/CaptureDeviceException.h>

#include <gtest/gtest.h>

#include <cmath>

namespace ruvo {
namespace capture {
namespace {

using testing::channelMean;
using testing::SimClient;

constexpr int kW = 672, kH = 380;
constexpr double kPedestal = 64.0;

struct Capture {
    explicit Capture(testing::SimKeys keys) : c(std::move(keys)) { c.start(kW, kH, 1); }
    Capture(std::initializer_list<testing::SimKeys::value_type> keys) : Capture(testing::SimKeys(keys)) {}
    const uint16_t* next() {
        const v4l2_buffer b = c.stepAndDequeue();
        EXPECT_EQ(c.queue(b.index), 0);
        return c.samples(b.index);
    }
    SimClient c;
};

// Mean of one channel over the middle 60% of a frame-relative rectangle.
double patchMean(const uint16_t* frame, const sim::RelativeRect& r, int channel) {
    const float insetX = (r.right - r.left) * 0.2f, insetY = (r.bottom - r.top) * 0.2f;
    return channelMean(frame, kW, channel, static_cast<int>((r.left + insetX) * kW),
                       static_cast<int>((r.top + insetY) * kH), static_cast<int>((r.right - insetX) * kW),
                       static_cast<int>((r.bottom - insetY) * kH));
}

TEST(SimScenes, ChartPatchesHaveTheirLinearColours) {
    Capture s({{"sim.scene", "chart"}});
    const uint16_t* frame = s.next();
    // The background is reflectance 0.18; it calibrates codes per unit reflectance.
    const double scale = (channelMean(frame, kW, 1, 0, 0, kW, 20) - kPedestal) / 0.18;
    ASSERT_NEAR(scale, 1000.0, 2.0);
    struct Patch {
        int index;
        double r, g, b;  // linear sRGB of the patch's 8-bit values, computed independently
    };
    for (const Patch& p : {Patch{0, 0.1714, 0.0844, 0.0578}, Patch{1, 0.5395, 0.3050, 0.2232},
                           Patch{18, 0.8963, 0.8963, 0.8879}, Patch{23, 0.0343, 0.0343, 0.0343}}) {
        const sim::RelativeRect rect = sim::chartPatchRect(p.index);
        EXPECT_NEAR(patchMean(frame, rect, 0), kPedestal + p.r * scale, 1.0) << "patch " << p.index;
        EXPECT_NEAR(patchMean(frame, rect, 1), kPedestal + p.g * scale, 1.0) << "patch " << p.index;
        EXPECT_NEAR(patchMean(frame, rect, 2), kPedestal + p.b * scale, 1.0) << "patch " << p.index;
    }
    EXPECT_THROW(sim::chartPatchRect(24), std::out_of_range);
}

TEST(SimScenes, ChartRampRisesFromBlackToWhite) {
    Capture s({{"sim.scene", "chart"}});
    const uint16_t* frame = s.next();
    const sim::RelativeRect ramp = sim::chartRampRect();
    const int y0 = static_cast<int>(ramp.top * kH) + 2, y1 = static_cast<int>(ramp.bottom * kH) - 2;
    const int x0 = static_cast<int>(ramp.left * kW) + 1, x1 = static_cast<int>(ramp.right * kW) - 1;
    double previous = 0.0;
    for (int x = x0; x < x1; x += 2) {
        const double column = channelMean(frame, kW, 1, x, y0, x + 2, y1);
        EXPECT_GE(column, previous) << x;
        previous = column;
    }
    EXPECT_NEAR(channelMean(frame, kW, 1, x0, y0, x0 + 2, y1), kPedestal, 3.0);
    EXPECT_EQ(channelMean(frame, kW, 1, x1 - 2, y0, x1, y1), 1023.0) << "reflectance 1 clips at the defaults";
}

TEST(SimScenes, FlatFieldsZonePlateAndUnknownScenes) {
    Capture black({{"sim.scene", "flat"}, {"sim.level", "0"}});
    EXPECT_EQ(channelMean(black.next(), kW, 1, 0, 0, kW, kH), kPedestal);
    Capture white({{"sim.scene", "flat"}, {"sim.level", "1"}});
    EXPECT_EQ(channelMean(white.next(), kW, 0, 0, 0, kW, kH), 1023.0);

    Capture zone({{"sim.scene", "zoneplate"}});
    const uint16_t* frame = zone.next();
    const auto at = [&](int x, int y) { return frame[y * kW + x] >> 4; };
    // 0.5 + 0.4 cos(pi r^2 / width) at pixel centres, r from the frame centre.
    const auto expected = [&](int x, int y) {
        const double dx = x + 0.5 - kW / 2.0, dy = y + 0.5 - kH / 2.0;
        return kPedestal + 1000.0 * (0.5 + 0.4 * std::cos(M_PI * (dx * dx + dy * dy) / kW));
    };
    for (const auto& [x, y] : {std::pair{kW / 2, kH / 2}, std::pair{kW / 2 + 26, kH / 2},
                               std::pair{kW / 2, kH / 2 + 26}, std::pair{kW - 1, kH / 2}, std::pair{0, 0}})
        EXPECT_NEAR(at(x, y), expected(x, y), 1.0) << x << "," << y;
    EXPECT_GT(at(kW / 2, kH / 2), 960) << "0.9 at the centre";
    int asymmetric = 0;
    for (int x = 0; x < kW; ++x) asymmetric += at(x, 100) != at(kW - 1 - x, 100);
    EXPECT_EQ(asymmetric, 0);

    for (const char* name : {"stripes", "", "image.jpg"})
        EXPECT_THROW(SimClient({{"sim.scene", name}}), CaptureDeviceException) << name;
}

TEST(SimScenes, PngImagesAreDecodedToLinearReflectanceAndStretched) {
    // 2x2 pixels, 8-bit sRGB: red, blue / gray 128, white.
    const std::string path = RUVO_TEST_DATA_DIR "/sim_quad_2x2.png";
    Capture s({{"sim.scene", path}, {"sim.exposureDelay", "0"}});
    s.c.set(sensor::CID_EXPOSURE, 22330 / 2);  // 500 codes per unit reflectance
    const uint16_t* frame = s.next();
    // Bilinear stretching of 2 pixels over 672 x 380 leaves each source pixel pure in the outer
    // quarter of the frame (x < 168 or x >= 504, y < 95 or y >= 285); sample inside those.
    const auto quarter = [&](int qx, int qy, int channel) {
        const int x0 = qx == 0 ? 20 : 532, y0 = qy == 0 ? 10 : 300;
        return channelMean(frame, kW, channel, x0, y0, x0 + 120, y0 + 70) - kPedestal;
    };
    EXPECT_NEAR(quarter(0, 0, 0), 500.0, 1.0);
    EXPECT_NEAR(quarter(0, 0, 1), 0.0, 0.5);
    EXPECT_NEAR(quarter(1, 0, 2), 500.0, 1.0);
    EXPECT_NEAR(quarter(1, 0, 0), 0.0, 0.5);
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

TEST(SimScenes, ScriptChangesIlluminanceAndColourTemperatureAtGivenFrames) {
    Capture s({{"sim.scene", "flat"},
               {"sim.level", "0.3"},
               {"sim.script", "2:illuminance=2; 4:colourTemperature=3000,illuminance=0.5"}});
    std::vector<double> green, redOverGreen;
    for (int frame = 0; frame < 6; ++frame) {
        const uint16_t* f = s.next();
        const double g = channelMean(f, kW, 1, 0, 0, kW, kH) - kPedestal;
        green.push_back(g);
        redOverGreen.push_back((channelMean(f, kW, 0, 0, 0, kW, kH) - kPedestal) / g);
    }
    EXPECT_NEAR(green[1], green[0], 0.01);
    EXPECT_NEAR(green[2] / green[0], 2.0, 0.01);
    EXPECT_NEAR(green[3] / green[0], 2.0, 0.01);
    EXPECT_NEAR(green[4] / green[0], 0.5, 0.01);
    EXPECT_NEAR(redOverGreen[3], 1.0, 0.01);
    EXPECT_GT(redOverGreen[4], 1.3) << "warm light from frame 4";
    EXPECT_FLOAT_EQ(s.c.sensor().illuminance(), 0.5f);
    EXPECT_FLOAT_EQ(s.c.sensor().colourTemperature(), 3000.0f);
    // A run-time setting holds until the next scripted change (none is left).
    s.c.sensor().setIlluminance(1.0f);
    EXPECT_NEAR((channelMean(s.next(), kW, 1, 0, 0, kW, kH) - kPedestal) / green[0], 1.0, 0.01);
}

}  // namespace
}  // namespace capture
}  // namespace ruvo
