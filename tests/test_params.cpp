// Camera parameters read from a camera's configuration entry (defaults, validation, failures
// of the typed getters, nested keys through configuration views) and the output buffer table.
#include "CameraParams.h"
#include "OutputBufferConfig.h"

#include <ruvo/capture/CaptureDeviceException.h>

#include <Poco/AutoPtr.h>
#include <Poco/Exception.h>
#include <Poco/Util/MapConfiguration.h>
#include <Poco/Util/PropertyFileConfiguration.h>
#include <gtest/gtest.h>

#include <initializer_list>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace {

using ruvo::capture::CaptureDeviceException;
using ruvo::capture::CUDA_OUTPUT_BUFFER_CONFIG;
using ruvo::capture::CUDACameraParams;
using ruvo::capture::Frame;
using ruvo::capture::OutputBufferDefinition;
using Config = Poco::AutoPtr<Poco::Util::AbstractConfiguration>;

// A camera entry holding "path" and the given keys.
Config entry(std::initializer_list<std::pair<const char*, const char*>> keys) {
    Poco::AutoPtr<Poco::Util::MapConfiguration> config(new Poco::Util::MapConfiguration);
    config->setString("path", "/dev/video0");
    for (const auto& [key, value] : keys) config->setString(key, value);
    return config;
}

// The defaults that differ from what the constructor holds before reading (pool 4, 0 x 0, flips
// off, gammas 0.8), and those of the values that other parts rely on.
TEST(CameraParamsDefaults, EntryWithOnlyAPathGivesTheDocumentedDefaults) {
    const CUDACameraParams p(entry({}));
    EXPECT_EQ(p.name, "CUDACamera");
    EXPECT_EQ(p.path, "/dev/video0");
    EXPECT_EQ(p.bufferPoolSize, 4u);
    EXPECT_EQ(p.width, 1280u);
    EXPECT_EQ(p.height, 720u);
    EXPECT_TRUE(p.hFlip);
    EXPECT_TRUE(p.vFlip);
    EXPECT_FLOAT_EQ(p.gamma.R, 0.8f);
    EXPECT_FLOAT_EQ(p.gamma.G, 0.8f);
    EXPECT_FLOAT_EQ(p.gamma.B, 0.8f);
    EXPECT_FLOAT_EQ(p.gamma.Cr, 0.78f);
    EXPECT_FLOAT_EQ(p.gamma.Cb, 0.78f);
    EXPECT_EQ(p.numSamples, 10000u);
    EXPECT_EQ(p.ae.numRegions, 16);
    EXPECT_EQ(p.ae.alpha, 0.0f);
    EXPECT_EQ(p.ae.numSamples, 1000.0f);
    EXPECT_EQ(p.awb.numSamples, 1000.0f);
    EXPECT_EQ(p.awb.seed, 0u);
    EXPECT_EQ(p.outputBufferFormats, static_cast<uint32_t>(ruvo::capture::YUV_ONLY));
    EXPECT_EQ(p.demosaicMode, ruvo::capture::BILINEAR_5);
    EXPECT_FLOAT_EQ(p.colorModelThreshold, 10.0f);
}

// Values outside the table, and values that could only exhaust memory or divide by zero every
// frame, are refused with their message; the last value allowed is accepted.
TEST(CameraParamsValidation, OutOfRangeValuesAreRefusedWithTheirMessage) {
    const struct {
        const char* key;
        const char* value;
        std::string message;
    } cases[] = {
        {"outputBufferFormats", "11", ""},
        {"outputBufferFormats", "12", "Unsupported CUDA output configuration"},
        {"outputBufferFormats", "-1", "Unsupported CUDA output configuration"},
        {"demosaicMode", "1", ""},
        {"demosaicMode", "2", "Unsupported CUDA demosaic configuration"},
        {"demosaicMode", "-1", "Unsupported CUDA demosaic configuration"},
        {"bufferPoolSize", "32", ""},
        {"bufferPoolSize", "33", "Unsupported buffer pool size"},
        {"numSamples", "0", "Unsupported number of metering samples"},
        {"numSamples", "10000001", "Unsupported number of metering samples"},
        {"ae.numRegions", "65536", ""},
        {"ae.numRegions", "65537", "Unsupported number of metering regions"},
        {"regionExposureWeight", "-2.5", ""},  // weights are not checked
        {"memory", "mmap", ""},
        {"memory", "MMAP", "Unsupported memory \"MMAP\": expected auto, userptr or mmap"},
    };
    for (const auto& c : cases) {
        std::string message;
        try {
            CUDACameraParams params(entry({{c.key, c.value}}));
        } catch (const CaptureDeviceException& e) {
            message = e.what();
        }
        EXPECT_EQ(message, c.message) << c.key << " = " << c.value;
    }
    EXPECT_EQ(CUDACameraParams(entry({{"outputBufferFormats", "11"}})).outputBufferFormats, 11u);
    EXPECT_EQ(CUDACameraParams(entry({{"demosaicMode", "1"}})).demosaicMode, ruvo::capture::LANCZOS_11);
}

TEST(CameraParamsFailures, ConfigurationLibraryExceptionsPassThrough) {
    Config noPath(new Poco::Util::MapConfiguration);
    noPath->setString("width", "640");
    EXPECT_THROW(CUDACameraParams{noPath}, Poco::NotFoundException);
    EXPECT_THROW(CUDACameraParams(entry({{"width", "abc"}})), Poco::SyntaxException);
    EXPECT_THROW(CUDACameraParams(entry({{"gamma.Cb", "bright"}})), Poco::SyntaxException);
    EXPECT_THROW(CUDACameraParams(entry({{"vFlip", "maybe"}})), Poco::SyntaxException);
    EXPECT_THROW(CUDACameraParams(entry({{"ae.numSamples", "250.5"}})), Poco::SyntaxException);  // a count
    EXPECT_THROW(CUDACameraParams{Config()}, Poco::NullPointerException);
}

// Both entries of a two-camera configuration, read through views of "devices[0]" and "devices[1]".
TEST(CameraParamsViews, NestedKeysOfAPropertiesConfiguration) {
    std::istringstream properties(
        "devices[0].path = sim:chart\n"
        "devices[0].name = front\n"
        "devices[0].hFlip = false\n"
        "devices[0].gamma.Cr = 0.5\n"
        "devices[0].ae.numSamples = 250\n"
        "devices[0].awb.seed = 7\n"
        "devices[0].outputBufferFormats = 9\n"
        "devices[1].path = /dev/video1\n"
        "devices[1].width = 640\n");
    const Config whole(new Poco::Util::PropertyFileConfiguration(properties));
    const CUDACameraParams first(whole->createView("devices[0]"));
    EXPECT_EQ(first.path, "sim:chart");
    EXPECT_EQ(first.name, "front");
    EXPECT_EQ(first.ae.numSamples, 250.0f);
    EXPECT_FLOAT_EQ(first.gamma.Cr, 0.5f);
    EXPECT_EQ(first.awb.seed, 7u);
    EXPECT_EQ(first.outputBufferFormats, static_cast<uint32_t>(ruvo::capture::BGGR));
    EXPECT_FALSE(first.hFlip);
    EXPECT_EQ(first.width, 1280u);  // absent here: default

    const CUDACameraParams second(whole->createView("devices[1]"));
    EXPECT_EQ(second.path, "/dev/video1");
    EXPECT_EQ(second.name, "CUDACamera");
    EXPECT_EQ(second.ae.numSamples, 1000.0f);
    EXPECT_EQ(second.width, 640u);
}

TEST(OutputBufferTable, RowSizesAndTheIrregularRows) {
    const std::vector<size_t> sizes = {1, 2, 7, 4, 2, 3, 5, 9, 6, 3, 2, 1};
    ASSERT_EQ(CUDA_OUTPUT_BUFFER_CONFIG.size(), sizes.size());
    for (size_t row = 0; row < sizes.size(); ++row) {
        EXPECT_EQ(CUDA_OUTPUT_BUFFER_CONFIG[row].size(), sizes[row]) << "row " << row;
    }

    const std::vector<OutputBufferDefinition> skinHistogram = {
        {Frame::YUV420p, Frame::COLOR, Frame::ORIGINAL},
        {Frame::YUV420p, Frame::COLOR, Frame::HALF},
        {Frame::YUV420p, Frame::COLOR, Frame::QUARTER},
        {Frame::Y8, Frame::SKIN_Y, Frame::HALF},
        {Frame::HISTOGRAM8, Frame::SKIN_HISTOGRAM, Frame::NOT_APPLICABLE},
        {Frame::Y8, Frame::SKIN_Y, Frame::EIGHTH},
        {Frame::Y8, Frame::SKIN_Y, Frame::SIXTEENTH},
    };
    EXPECT_EQ(CUDA_OUTPUT_BUFFER_CONFIG[ruvo::capture::YUV_2_4_SKIN_HISTOGRAM], skinHistogram);

    const std::vector<OutputBufferDefinition> bggr = {
        {Frame::YUV420p, Frame::COLOR, Frame::ORIGINAL},
        {Frame::YUV420p, Frame::COLOR, Frame::ORIGINAL},
        {Frame::RGB24, Frame::BAYER, Frame::ORIGINAL},
    };
    EXPECT_EQ(CUDA_OUTPUT_BUFFER_CONFIG[ruvo::capture::BGGR], bggr);

    // Only the two RGB configurations do not start with the full-size colour image.
    const OutputBufferDefinition fullColour{Frame::YUV420p, Frame::COLOR, Frame::ORIGINAL};
    const OutputBufferDefinition fullRgb{Frame::RGB24, Frame::COLOR, Frame::ORIGINAL};
    for (size_t row = 0; row < CUDA_OUTPUT_BUFFER_CONFIG.size(); ++row) {
        const bool rgb = row == ruvo::capture::NO_DEMOSAIC_RGB || row == ruvo::capture::RGB_ONLY;
        EXPECT_EQ(CUDA_OUTPUT_BUFFER_CONFIG[row].front(), rgb ? fullRgb : fullColour) << "row " << row;
    }
}

}  // namespace
