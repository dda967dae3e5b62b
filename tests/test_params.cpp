// Camera parameters read from a camera's configuration entry: validation, failures of the typed
// getters, nested keys and defaults through configuration views.
#include "CameraParams.h"

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

namespace {

using ruvo::capture::CaptureDeviceException;
using ruvo::capture::CUDACameraParams;
using Config = Poco::AutoPtr<Poco::Util::AbstractConfiguration>;

// A camera entry holding "path" and the given keys.
Config entry(std::initializer_list<std::pair<const char*, const char*>> keys) {
    Poco::AutoPtr<Poco::Util::MapConfiguration> config(new Poco::Util::MapConfiguration);
    config->setString("path", "/dev/video0");
    for (const auto& [key, value] : keys) config->setString(key, value);
    return config;
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
    EXPECT_EQ(CUDACameraParams(entry({{"demosaicMode", "1"}})).demosaicMode, ruvo::capture::LANCZOS_11);
}

// The tool's tests check that unreadable integers, floats and booleans name their key.
TEST(CameraParamsFailures, ConfigurationLibraryExceptionsPassThrough) {
    Config noPath(new Poco::Util::MapConfiguration);
    noPath->setString("width", "640");
    EXPECT_THROW(CUDACameraParams{noPath}, Poco::NotFoundException);
    EXPECT_THROW(CUDACameraParams(entry({{"gamma.Cb", "bright"}})), Poco::SyntaxException);
    EXPECT_THROW(CUDACameraParams(entry({{"ae.numSamples", "250.5"}})), Poco::SyntaxException);  // a count
    EXPECT_THROW(CUDACameraParams{Config()}, Poco::NullPointerException);
}

// Both entries of a two-camera configuration, read through views of "devices[0]" and "devices[1]":
// nested keys reach their entry only. (The tool's info test reads the same keys from every file format.)
TEST(CameraParamsViews, NestedKeysOfAPropertiesConfiguration) {
    std::istringstream properties(
        "devices[0].path = sim:chart\n"
        "devices[0].gamma.Cr = 0.5\n"
        "devices[0].ae.numSamples = 250\n"
        "devices[0].awb.seed = 7\n"
        "devices[1].path = /dev/video1\n"
        "devices[1].width = 640\n");
    const Config whole(new Poco::Util::PropertyFileConfiguration(properties));
    const CUDACameraParams first(whole->createView("devices[0]"));
    const CUDACameraParams second(whole->createView("devices[1]"));
    EXPECT_EQ(first.path, "sim:chart");
    EXPECT_EQ(first.ae.numSamples, 250.0f);
    EXPECT_FLOAT_EQ(first.gamma.Cr, 0.5f);
    EXPECT_EQ(first.awb.seed, 7u);
    EXPECT_NE(first.width, 640u);
    EXPECT_EQ(second.path, "/dev/video1");
    EXPECT_EQ(second.width, 640u);
    EXPECT_NE(second.ae.numSamples, 250.0f);
    EXPECT_NE(second.gamma.Cr, 0.5f);
}

}  // namespace
