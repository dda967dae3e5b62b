// The metering diagnostics records, byte for byte: the region weights of a 2 x 2 grid and the
// skin statistics of a camera named "left" with index 1, including the level guard.
#include "MeteringDiagnostics.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
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

}  // namespace
}  // namespace capture
}  // namespace ruvo
