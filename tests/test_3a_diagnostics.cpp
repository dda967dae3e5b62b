// The metering diagnostics records, byte for byte: the region weights of a 2 x 2 grid and the
// skin statistics of a camera named "left" with index 1, from a camera's evaluation of a crafted
// frame, only to an enabled channel; and what the builders print for values a camera rarely makes.
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
    meta.cameraName = "left";
    meta.cameraIndex = 1;
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
