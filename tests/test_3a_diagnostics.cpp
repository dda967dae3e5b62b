// The metering diagnostics records, byte for byte: the region weights of a 2 x 2 grid and the
// skin statistics of a camera named "left" with index 1, from the record builders and from a
// camera's evaluation of a crafted frame; and no record without an enabled, listened channel.
#include "MeteringDiagnostics.h"
#include "test_3a_rig.h"

#include "support/GpuPresence.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <limits>
#include <memory>
#include <string>
#include <vector>

namespace ruvo {
namespace capture {
namespace {

std::vector<metering::Region> regionsWithWeights(const std::vector<float>& weights) {
    std::vector<metering::Region> regions(weights.size());
    for (size_t i = 0; i < weights.size(); ++i) regions[i].weight = weights[i];
    return regions;
}

TEST(ExpStatRecord, TwoByTwoGrid) {
    const auto regions = regionsWithWeights({0.123456f, 0.234567f, 0.345678f, 0.296299f});
    EXPECT_EQ(metering::expStatRecord(2, 0, regions),
              "{ \"width\": 2, \"height\": 2, \"cameraIndex\": \"0\", \"data\": "
              "[0.123456,0.234567,0.345678,0.296299]}");
}

TEST(ExpStatRecord, SixDecimalsAndNotANumber) {
    const auto regions = regionsWithWeights({1.0f, 0.0000004f, std::numeric_limits<float>::quiet_NaN()});
    const std::string text = metering::expStatRecord(1, 12, regions);
    EXPECT_EQ(text.substr(0, 57), "{ \"width\": 1, \"height\": 1, \"cameraIndex\": \"12\", \"data\": [");
    EXPECT_EQ(text.substr(57, 18), "1.000000,0.000000,");
    EXPECT_NE(text.find("nan]}"), std::string::npos) << text;
}

metering::ExpMeta leftCamera() {
    metering::ExpMeta meta;
    meta.cameraName = "left";
    meta.cameraIndex = 1;
    meta.skinPixels = 1000;
    meta.sumLuminance = 140000;
    meta.meanLuminance = 140.0f / 255.0f;
    meta.width = 1920;
    meta.cudaHeight = 1152;
    meta.level = 4;  // SIXTEENTH
    return meta;
}

TEST(ExpMetaRecord, CameraLeftWithIndexOne) {
    EXPECT_EQ(metering::expMetaRecord(leftCamera()),
              "{ \"type\": \"Metering Metadata\", \"cameraName\": \"left\", \"cameraIndex\": \"1\", "
              "\"numPixelsCount\": 1000, \"sumPixelsLuminance\": 140000, \"meanLuminance\": 0.549020, "
              "\"bufferDims\": { \"width\":120, \"height\":72} }");
}

TEST(ExpMetaRecord, LevelsThatAreNoPyramidLevelReadAsZero) {
    metering::ExpMeta meta = leftCamera();
    meta.level = -2;  // NOT_APPLICABLE
    EXPECT_NE(metering::expMetaRecord(meta).find("\"bufferDims\": { \"width\":1920, \"height\":1152} }"),
              std::string::npos);
    meta.level = 0;
    meta.skinPixels = 4294967295u;  // a wrapped count prints unsigned
    meta.sumLuminance = -5;
    const std::string text = metering::expMetaRecord(meta);
    EXPECT_NE(text.find("\"numPixelsCount\": 4294967295, \"sumPixelsLuminance\": -5, "), std::string::npos) << text;
}

TEST(ExpRecords, ChannelNames) {
    EXPECT_EQ(metering::expStatChannelName(), "CapDevCUDAExpStat");
    EXPECT_EQ(metering::expMetaChannelName(), "CapDevCUDAExpMeta");
}

// ---- through the camera ----

using testing::kHeight;
using testing::kWidth;

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
};

std::string sixDecimals(double value) {
    char text[32];
    std::snprintf(text, sizeof text, "%f", value);
    return text;
}

TEST_F(TwoByTwo, StatRecordCarriesTheRegionWeights) {
    testing::Listener stat("CapDevCUDAExpStat");
    testing::Listener meta("CapDevCUDAExpMeta");
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
    testing::Listener meta("CapDevCUDAExpMeta");
    frame.setSkin(9216, 180);  // skin ratio 0.04
    evaluate();
    ASSERT_EQ(meta.texts.size(), 1u);
    EXPECT_EQ(meta.texts[0],
              "{ \"type\": \"Metering Metadata\", \"cameraName\": \"left\", \"cameraIndex\": \"1\", "
              "\"numPixelsCount\": 9216, \"sumPixelsLuminance\": 1658880, \"meanLuminance\": 0.705882, "
              "\"bufferDims\": { \"width\":80, \"height\":45} }");
}

TEST_F(TwoByTwo, NothingIsSentToADisabledChannel) {
    testing::Listener stat("CapDevCUDAExpStat");
    testing::Listener meta("CapDevCUDAExpMeta");
    stat.enable(false);
    meta.enable(false);
    frame.setSkin(9216, 180);
    evaluate();
    stat.enable(true);
    meta.enable(true);
    EXPECT_TRUE(stat.texts.empty());
    EXPECT_TRUE(meta.texts.empty());
}

}  // namespace
}  // namespace capture
}  // namespace ruvo
