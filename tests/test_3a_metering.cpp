// The arithmetic of auto exposure and white balance that the camera tests cannot reach through
// the sensor, checked against values worked out by hand or computed here by direct loops:
// register conversions, sampling and region statistics, contrast and skin weights, skin
// statistics and blend, the gray test, exposure limits and the not-a-number fallbacks; and what
// the diagnostics records print for values a camera rarely makes; and the search for the
// illuminant along a colour-temperature curve, fed by the colour kernels' own arithmetic.
#include "3a/CurveWhiteBalance.h"
#include "3a/Metering.h"
#include "3a/MeteringDiagnostics.h"
#include "SensorControls.h"
#include "kernels/ColourPath.h"
#include "sensor/SensorProfile.h"

#include <ruvo/capture/CaptureDeviceException.h>

#include <Poco/Util/MapConfiguration.h>

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <map>
#include <string>
#include <vector>

namespace ruvo {
namespace capture {
namespace {

using metering::MeteringScratch;
using metering::Region;

// ---- register conversions ----

// Within the sensor's gain stages the register encodes the gain to one fine step of its stage,
// rounding down: decoding never overshoots and loses less than one step. The manual gains 1, 3,
// 16 and -1 and the limits 0.6 and 16 are checked on the sensor by the exposure tests.
TEST(GainToRegister, DecodesBackWithinOneFineStep) {
    EXPECT_EQ(gainToRegister(1.99f), 254);
    EXPECT_EQ(gainToRegister(2.0f), 376) << "a stage boundary jumps in register space";
    EXPECT_EQ(gainToRegister(std::numeric_limits<float>::quiet_NaN()), 0);
    for (float g = 0.0f; g < 15.99f; g += 0.00731f) {
        const float decoded = gainFromRegister(gainToRegister(g));
        const float step = g < 2.0f ? 1.0f / 128 : g < 4.0f ? 1.0f / 64 : g < 8.0f ? 1.0f / 32 : 1.0f / 16;
        EXPECT_LE(decoded, g + 1e-4f) << g;
        EXPECT_GT(decoded, g - step - 1e-4f) << g;
    }
}

TEST(ExposureUnits, SecondsAndRegisters) {
    // 1/30 s is 74433.9988 lines. (The float nearest 1/30 is 0.0039 lines longer and so is
    // line 74434: the driver's frame-period maximum of 74433 clamps it at 30 frames/s.)
    const sensor::SensorProfile& profile = sensor::defaultSensorProfile();
    EXPECT_EQ(profile.exposureRegister(1.0 / 30.0), 74433);
    EXPECT_NEAR(profile.exposureSeconds(74433), 74433 * 0.44782403e-6, 1e-8);
    EXPECT_NEAR(profile.exposureSeconds(2233022), 1.0, 1e-6);
    EXPECT_EQ(profile.exposureRegister(std::numeric_limits<double>::quiet_NaN()), 0);
    EXPECT_EQ(profile.exposureRegister(1e30), INT32_MAX);
    EXPECT_EQ(profile.exposureRegister(-1e30), INT32_MIN);
}

// ---- sampling ----

// A small YUV 4:2:0 image whose every byte is a known function of its position.
struct TestImage {
    uint32_t width, height, rows;
    std::vector<uint8_t> bytes;
    TestImage(uint32_t w, uint32_t h, uint32_t r) : width(w), height(h), rows(r), bytes(w * r * 3 / 2, 0) {}
    uint8_t& y(uint32_t x, uint32_t row) { return bytes[row * width + x]; }
    uint8_t& u(uint32_t x, uint32_t row) { return bytes[width * rows + (row / 2) * (width / 2) + x / 2]; }
    uint8_t& v(uint32_t x, uint32_t row) { return bytes[width * rows * 5 / 4 + (row / 2) * (width / 2) + x / 2]; }
    metering::YuvImage view() const { return metering::yuvImage(bytes.data(), width, height, rows); }
};

// The image has 6 allocated rows for 4 visible: U starts after 8 x 6 luma bytes.
TEST(SampleRegions, ColumnAndRowComeFromDifferentTableEntries) {
    TestImage image(8, 4, 6);
    for (uint32_t r = 0; r < 4; ++r)
        for (uint32_t x = 0; x < 8; ++x) image.y(x, r) = static_cast<uint8_t>(10 * r + x);
    const metering::SampleTable table = {{1, 0}, {3, 1}, {5, 2}, {7, 3}};
    MeteringScratch scratch;
    metering::sampleRegions(image.view(), table, 4, 1, 3, 4.0f, 4, scratch);
    // Sample i: column of entry (i + 1) % 4, row of entry (i + 3) % 4.
    const std::vector<uint8_t> expected = {3 + 30, 5 + 0, 7 + 10, 1 + 20};
    EXPECT_EQ(scratch.samples.y, expected);
    EXPECT_EQ(image.view().u - image.bytes.data(), 48);
    EXPECT_EQ(image.view().v - image.bytes.data(), 60);
}

TEST(SampleRegions, RegionSumsExtremesAndTheOrSkinCount) {
    TestImage image(40, 20, 20);
    for (uint32_t r = 0; r < 20; ++r) {
        for (uint32_t x = 0; x < 40; ++x) {
            image.y(x, r) = static_cast<uint8_t>(3 * x + r);
            image.u(x, r) = 250;  // far outside any skin range
            image.v(x, r) = 5;
        }
    }
    metering::SampleTable table;
    for (int i = 0; i < 50; ++i) table.emplace_back((i * 7) % 40, (i * 3) % 20);
    MeteringScratch scratch;
    const float sumSkin = metering::sampleRegions(image.view(), table, 50, 0, 0, 50.0f, 4, scratch);

    // Direct loop: per region of the 2 x 2 grid, column-major.
    std::vector<float> sum(4, 0.0f), lo(4, 1e9f), hi(4, -1e9f);
    std::vector<int> count(4, 0);
    for (const auto& [x, y] : table) {
        const int region = (x < 20 ? 0 : 2) + (y < 10 ? 0 : 1);
        const float lum = static_cast<float>(3 * x + y);
        sum[region] += lum;
        lo[region] = std::min(lo[region], lum);
        hi[region] = std::max(hi[region], lum);
        count[region] += 1;
    }
    float expectedSumSkin = 0.0f;
    for (int r = 0; r < 4; ++r) {
        const Region& region = scratch.regions[r];
        EXPECT_EQ(region.counter, count[r]);
        EXPECT_FLOAT_EQ(region.avgLum, sum[r]);
        EXPECT_EQ(region.minLum, lo[r]);
        EXPECT_EQ(region.maxLum, hi[r]);
        // Every sample counts as skin, whatever its colour.
        EXPECT_EQ(region.skinPixelCnt, static_cast<float>(count[r]));
        expectedSumSkin += count[r] * (count[r] + 1) / 2.0f;
    }
    EXPECT_EQ(sumSkin, expectedSumSkin);
}

// ---- weights ----

// Regions filled by hand: region r holds the given samples.
MeteringScratch scratchWithSamples(const std::vector<std::vector<float>>& samples) {
    MeteringScratch scratch;
    scratch.regions.assign(samples.size(), Region());
    for (uint32_t r = 0; r < samples.size(); ++r) {
        for (float lum : samples[r]) {
            scratch.regions[r].avgLum += lum;
            scratch.regions[r].counter += 1;
            scratch.sampleRegion.push_back(r);
            scratch.samples.y.push_back(static_cast<uint8_t>(lum));
        }
    }
    return scratch;
}

// Typical and atypical contrast are weighed through the camera by the two-by-two record tests.
TEST(ContrastWeighting, EqualContrastOrAnEmptyRegionGivesNotANumber) {
    MeteringScratch uniform = scratchWithSamples({{10, 20}, {30, 40}});
    const float prior[] = {1.0f, 1.0f};
    metering::contrastWeighting(uniform, prior, 2.0f);
    EXPECT_TRUE(std::isnan(metering::weightedLuminance(uniform.regions)));

    MeteringScratch empty = scratchWithSamples({{10, 20}, {}});
    metering::contrastWeighting(empty, prior, 2.0f);
    EXPECT_TRUE(std::isnan(empty.regions[1].avgLum));
    EXPECT_TRUE(std::isnan(metering::weightedLuminance(empty.regions)));
}

TEST(SkinBoost, ThreeBandsOfTheSkinShare) {
    // share >= 0.2: times (1 + share)
    EXPECT_FLOAT_EQ(metering::skinBoostedWeight(0.5f, 30.0f, 100.0f), 0.5f * 1.3f);
    EXPECT_FLOAT_EQ(metering::skinBoostedWeight(0.5f, 20.0f, 100.0f), 0.5f * 1.2f);
    // share < 0.1: unchanged
    EXPECT_FLOAT_EQ(metering::skinBoostedWeight(0.5f, 9.0f, 100.0f), 0.5f);
    // between: mix 0.5 of the old weight and the boost, times the boost
    EXPECT_FLOAT_EQ(metering::skinBoostedWeight(0.5f, 15.0f, 100.0f), 0.5f * 1.15f * (0.25f + 0.575f));
    // at 0.1 the mix is 0: the weight is squared and boosted
    EXPECT_FLOAT_EQ(metering::skinBoostedWeight(0.5f, 10.0f, 100.0f), 0.5f * 1.1f * 0.5f);
}

// ---- skin statistics and blend ----

// The camera's diagnostics and skin threshold tests check the statistics of an unpadded frame.
TEST(SkinStatistics, PaddingRowsCountAsSkinPixels) {
    // 1920 x 1080 with 1152 rows: the padding rows count as pixels, the ratio uses the visible
    // height, and the mean is an integer division (255 / 34560 is 0).
    std::vector<uint32_t> h(256, 0);
    h[0] = 1920 * 1080 / 4;
    h[255] = 1;
    const metering::SkinStats padded = metering::skinStatistics(h.data(), 1920, 1080, 1152);
    EXPECT_EQ(padded.skinPixels, 1920u * 72 / 4);
    EXPECT_FLOAT_EQ(padded.skinRatio, static_cast<float>(1920 * 72 / 4) / 1920 / 1080 * 4);
    EXPECT_EQ(metering::skinMeanNorm(padded), 0.0f);
}

metering::SkinBlendParams blendParams() {
    metering::SkinBlendParams p;
    p.skinRatioThreshold = 0.01f;
    p.skinRatioMixThreshold = 0.03f;
    p.skinSegmentedTargetY = 0.5f;
    p.skinWeight = 0.7f;
    p.regionWeight = 0.3f;
    return p;
}

TEST(SkinBlend, JustAboveTheThresholdSlidesTowardTheSkinTargetThenUsesTheSkinMean) {
    const metering::SkinBlend mixed = metering::blendSkin(0.2f, 0.025f, 0.9f, blendParams());
    EXPECT_TRUE(mixed.mixed);
    EXPECT_NEAR(mixed.alpha, 0.5f, 1e-6);
    EXPECT_NEAR(mixed.y, (0.5f * 0.2f + 0.5f * 0.5f) * 0.7f + 0.2f * 0.3f, 1e-6);
    const metering::SkinBlend skin = metering::blendSkin(0.2f, 0.05f, 0.9f, blendParams());
    EXPECT_FALSE(skin.mixed);
    EXPECT_NEAR(skin.y, 0.9f * 0.7f + 0.2f * 0.3f, 1e-6);
}

// ---- gray test ----

TEST(GrayMeasure, ChromaDistanceOverLuminance) {
    EXPECT_EQ(metering::grayMeasure(100, 128, 128), 0.0f);
    EXPECT_FLOAT_EQ(metering::grayMeasure(100, 118, 138), 0.2f);
    EXPECT_FLOAT_EQ(metering::grayMeasure(50, 140, 125), 0.3f);
    // Y = 0: infinite or undefined, never below a threshold.
    EXPECT_FALSE(metering::grayMeasure(0, 128, 128) < 0.3f);
    EXPECT_FALSE(metering::grayMeasure(0, 130, 128) < 0.3f);
}

// ---- white balance along the colour-temperature curve ----

struct YuvBytes {
    uint8_t y, u, v;
};

// The bytes the colour kernels write for a flat patch of linear colour (0..1 of full scale).
YuvBytes kernelYuv(float r, float g, float b, const kernels::Gammas& gammas) {
    constexpr float kFull = 16383.0f;
    kernels::QuadRgb quad;
    for (int site = 0; site < 4; ++site) {
        quad.r[site] = r * kFull;
        quad.g[site] = g * kFull;
        quad.b[site] = b * kFull;
    }
    const kernels::YuvQuad yuv = kernels::colourQuad(quad, gammas);
    return {kernels::truncateToByte(yuv.y[0]), kernels::truncateToByte(yuv.u), kernels::truncateToByte(yuv.v)};
}

// Exponents chosen unequal, the chroma ones far apart, so that a channel or a chroma plane
// undone with another's exponent, or a wrong weight, moves the ratios well past the tolerance.
TEST(CurveWhiteBalance, LinearColourBackFromTheKernelsBytes) {
    const kernels::Gammas shapes[] = {{0.8f, 0.8f, 0.8f, 0.78f, 0.78f}, {0.7f, 0.8f, 0.9f, 0.6f, 0.95f}};
    const float colours[][3] = {
        {0.3f, 0.3f, 0.3f}, {0.2f, 0.3f, 0.25f}, {0.4f, 0.35f, 0.2f}, {0.1f, 0.12f, 0.16f}, {0.5f, 0.25f, 0.1f}};
    for (const kernels::Gammas& k : shapes) {
        const metering::ColourShape shape{k.r, k.g, k.b, k.cr, k.cb};
        for (const auto& c : colours) {
            const YuvBytes bytes = kernelYuv(c[0], c[1], c[2], k);
            float rgb[3];
            ASSERT_TRUE(metering::linearRgb(bytes.y, bytes.u, bytes.v, shape, rgb));
            EXPECT_NEAR(rgb[0] / rgb[1], c[0] / c[1], 0.03f * c[0] / c[1]) << c[0] << " " << c[1] << " " << c[2];
            EXPECT_NEAR(rgb[2] / rgb[1], c[2] / c[1], 0.03f * c[2] / c[1]) << c[0] << " " << c[1] << " " << c[2];
        }
    }
}

// A scene under 3000 K seen with the gains of 5000 K: a third of it gray, the rest coloured
// surfaces whose raw colour lies on the curve at daylight temperatures (blue sky, bluish
// paint), as under tungsten blue surfaces do. A mean over everything near the curve would land
// between; the grays' cluster must win, and the curve's gains at the estimate neutralise them.
TEST(CurveWhiteBalance, GraysClusterOutvotesColoursLyingOnTheCurve) {
    const metering::ColourTemperatureCurve curve = metering::builtInCurve();
    const metering::ChannelGains applied = metering::gainsAt(curve, 5000.0f);
    const kernels::Gammas k{0.8f, 0.8f, 0.8f, 0.78f, 0.78f};
    metering::Samples samples;
    const auto add = [&](float kelvin, float level, int count) {
        const metering::ChannelGains gray = metering::gainsAt(curve, kelvin);  // raw gray: 1 / gains
        const YuvBytes b = kernelYuv(level * applied.red / gray.red, level, level * applied.blue / gray.blue, k);
        for (int i = 0; i < count; ++i) {
            samples.y.push_back(b.y);
            samples.u.push_back(b.u);
            samples.v.push_back(b.v);
        }
    };
    add(3000.0f, 0.2f, 100);
    const float colours[] = {5500.0f, 6500.0f, 7500.0f, 9000.0f, 11000.0f};
    for (float kelvin : colours) add(kelvin, 0.15f, 40);
    add(3000.0f, 0.0f, 50);  // black: no vote
    metering::CurveScratch scratch;
    const auto count = static_cast<uint32_t>(samples.y.size());
    const metering::IlluminantEstimate estimate =
        metering::estimateIlluminant(samples, count, metering::ColourShape{}, applied, curve, {}, scratch);
    ASSERT_TRUE(estimate.found);
    EXPECT_NEAR(1e6f / estimate.kelvin, 1e6f / 3000.0f, 5.0f);

    // Nothing near the curve (saturated green): no estimate, so the gains stay.
    const YuvBytes green = kernelYuv(0.05f, 0.4f, 0.05f, k);
    metering::Samples greens{{},
                             {},
                             std::vector<uint8_t>(200, green.y),
                             std::vector<uint8_t>(200, green.u),
                             std::vector<uint8_t>(200, green.v)};
    EXPECT_FALSE(metering::estimateIlluminant(greens, 200, {}, applied, curve, {}, scratch).found);
}

// A curve given in a configuration is read as written and answered along its length; every
// malformed one is refused naming its keys.
TEST(ColourTemperatureCurve, ReadFromAConfigurationOrRefused) {
    using Keys = std::map<std::string, std::string>;
    const auto read = [](const Keys& keys) {
        Poco::AutoPtr<Poco::Util::MapConfiguration> config(new Poco::Util::MapConfiguration());
        for (const auto& [key, value] : keys) config->setString(key, value);
        return metering::readColourTemperatureCurve(*config, "awb.curve");
    };
    const Keys good = {{"awb.curve.kelvin", "2500, 4000,6500"},
                       {"awb.curve.redGain", "1.2,1.6,2.0"},
                       {"awb.curve.blueGain", "2.4,1.6,1.1"},
                       {"awb.curve.referenceKelvin", "4000"}};
    const metering::ColourTemperatureCurve curve = read(good);
    ASSERT_EQ(curve.points.size(), 3u);
    EXPECT_FLOAT_EQ(metering::gainsAt(curve, 4000.0f).blue, 1.6f);
    EXPECT_FLOAT_EQ(metering::gainsAt(curve, 9000.0f).red, 2.0f);  // held past the end
    // Any point of the curve projects back onto its own temperature.
    for (float kelvin : {2600.0f, 3100.0f, 5200.0f}) {
        const metering::ChannelGains g = metering::gainsAt(curve, kelvin);
        const metering::CurvePosition p = metering::nearestOnCurve(curve, -std::log(g.red), -std::log(g.blue));
        EXPECT_NEAR(p.mired, 1e6f / kelvin, 0.01f) << kelvin;
        EXPECT_NEAR(p.distance, 0.0f, 1e-5f) << kelvin;
    }
    EXPECT_EQ(read({}).points.size(), metering::builtInCurve().points.size());

    const std::vector<std::pair<std::string, std::string>> bad = {
        {"awb.curve.kelvin", "2500,4000,x"},    {"awb.curve.kelvin", "2500,4000"},
        {"awb.curve.kelvin", "2500,6500,4000"}, {"awb.curve.redGain", "1.2,-1.6,2.0"},
        {"awb.curve.referenceKelvin", "8000"},  {"awb.curve.blueGain", "2.4,1.6,inf"},
    };
    for (const auto& [key, value] : bad) {
        Keys keys = good;
        keys[key] = value;
        EXPECT_THROW(read(keys), CaptureDeviceException) << key << " = " << value;
    }
    Keys partial = good;
    partial.erase("awb.curve.blueGain");
    EXPECT_THROW(read(partial), CaptureDeviceException);
}

// ---- controller steps ----

metering::ExposureStep exposureStep() {
    metering::ExposureStep s;
    s.timeMin = 1.0f;
    s.timeMax = 74433.0f;
    s.lowSeconds = 0.000166667f;
    s.highSeconds = 1.0f / 30.0f;
    s.exposureP = 0.05f;
    s.manualExposure = 1.0f / 30.0f;
    return s;
}

TEST(NextExposure, LimitedByRegisterRangeAndPermittedTime) {
    // Far too dark: the register maximum, within 1/30 s; the way through seconds may lose the
    // last unit to truncation.
    EXPECT_NEAR(metering::nextExposure(70000.0f, 10.0f, 0.01f, exposureStep()), 74433.0f, 1.0f);
    EXPECT_LE(metering::nextExposure(70000.0f, 10.0f, 0.01f, exposureStep()), 74433.0f);
    // Far too bright: the register minimum, then the shortest permitted time, 372.17 units.
    EXPECT_EQ(metering::nextExposure(1000.0f, -10.0f, 0.01f, exposureStep()), 372.0f);
    metering::ExposureStep narrow = exposureStep();
    narrow.highSeconds = 0.01f;
    EXPECT_EQ(metering::nextExposure(70000.0f, 10.0f, 0.01f, narrow), 22330.0f);
}

// On a coarse unit the loop carries its unrounded exposure: corrections under one unit add up
// where the whole-unit step stays put, a register someone else wrote restarts the step from the
// register, and the carry stays within the limits (no wind-up past them).
TEST(NextExposureCarried, SubUnitStepsAddUpWithinTheLimits) {
    metering::ExposureStep s = exposureStep();
    s.timeMax = 333.0f;
    s.unitMicroseconds = 100.0;
    metering::ExposureCarry carry;
    std::vector<float> regs{55.0f};  // each frame +0.3 units: 55.3, 55.6, 55.9, 56.2
    for (int frame = 0; frame < 4; ++frame)
        regs.push_back(metering::nextExposureCarried(regs.back(), 0.03f, 0.27f, s, carry));
    EXPECT_EQ(regs, (std::vector<float>{55.0f, 55.0f, 55.0f, 55.0f, 56.0f}));
    EXPECT_EQ(metering::nextExposure(55.0f, 0.03f, 0.27f, s), 55.0f);
    EXPECT_EQ(metering::nextExposureCarried(40.0f, 0.03f, 0.27f, s, carry), 40.0f);
    EXPECT_NEAR(carry.target, 40.22f, 0.01f);
    metering::ExposureStep narrow = s;
    narrow.highSeconds = 0.01f;
    struct Case {
        float current, err;
        const metering::ExposureStep& step;
        float reg, target;
    };
    for (const Case& c : {Case{300.0f, 10.0f, s, 333.0f, 333.0f}, Case{300.0f, 10.0f, narrow, 100.0f, 100.0f},
                          Case{3.0f, -10.0f, s, 1.0f, 1.6667f}}) {
        EXPECT_EQ(metering::nextExposureCarried(c.current, c.err, 0.01f, c.step, carry), c.reg) << c.current;
        EXPECT_NEAR(carry.target, c.target, 1e-3f) << c.current;
    }
}

// The steps, gain limits and channel clamps are checked on the sensor by the exposure and white
// balance tests; what is left are the not-a-number fallbacks.
TEST(ControllerSteps, NotANumberFallsBack) {
    const float nan = std::numeric_limits<float>::quiet_NaN();
    // The manual time, unconverted; at the register minimum with zero error and zero luminance
    // the step is 0 / 0.
    EXPECT_EQ(metering::nextExposure(1.0f, 0.0f, 0.0f, exposureStep()), 1.0f / 30.0f);
    EXPECT_EQ(metering::nextExposure(5000.0f, nan, 0.3f, exposureStep()), 1.0f / 30.0f);
    metering::ExposureCarry carry{40.5f, 40.0f};
    EXPECT_EQ(metering::nextExposureCarried(40.0f, nan, 0.3f, exposureStep(), carry), 1.0f / 30.0f);
    EXPECT_TRUE(std::isnan(carry.target));  // nothing carried on
    EXPECT_EQ(metering::nextGain(15.0f, nan, 0.02f, 2.5f), 2.5f);
    // An empty channel range divides zero by zero: its minimum.
    EXPECT_EQ(metering::nextChannelGain(100.0f, 100.0f, 100.0f, 0.1f, 0.15f), 100.0f);
}

// ---- diagnostics records (the camera tests check them byte for byte) ----

TEST(ExpStatRecord, SixDecimalsAndNotANumber) {
    std::vector<metering::Region> regions(3);
    regions[0].weight = 1.0f;
    regions[1].weight = 0.0000004f;
    regions[2].weight = std::numeric_limits<float>::quiet_NaN();
    EXPECT_EQ(metering::expStatRecord(1, 12, regions),
              "{ \"width\": 1, \"height\": 1, \"cameraIndex\": \"12\", \"data\": [1.000000,0.000000,nan]}");
}

// Levels that are no pyramid level (NOT_APPLICABLE, or level 0 where the output list has fewer
// than seven entries) give the full size; counts print as unsigned and signed.
TEST(ExpMetaRecord, LevelsThatAreNoPyramidLevelReadAsZero) {
    metering::ExpMeta meta;
    meta.width = 1920;
    meta.cudaHeight = 1152;
    for (int level : {-2, 0}) {
        meta.level = level;
        EXPECT_NE(metering::expMetaRecord(meta).find("\"bufferDims\": { \"width\":1920, \"height\":1152} }"),
                  std::string::npos);
    }
    meta.skinPixels = 4294967295u;  // a wrapped count
    meta.sumLuminance = -5;
    const std::string text = metering::expMetaRecord(meta);
    EXPECT_NE(text.find("\"numPixelsCount\": 4294967295, \"sumPixelsLuminance\": -5, "), std::string::npos) << text;
}

}  // namespace
}  // namespace capture
}  // namespace ruvo
