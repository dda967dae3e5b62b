// The configuration record of one camera, read once from the camera's configuration entry.
// CUDACamera::Params is this type.
#pragma once

#include "3a/ColourTemperatureCurve.h"
#include "CUDAKernels.h"

#include <Poco/AutoPtr.h>
#include <Poco/Util/AbstractConfiguration.h>

#include <cstdint>
#include <optional>
#include <string>

namespace ruvo {
namespace capture {

// Largest accepted values: V4L2's buffer limit, and sizes far beyond any use of the metering.
constexpr uint32_t kMaxBufferPoolSize = 32;
constexpr uint32_t kMaxMeteringSamples = 10000000;
constexpr uint32_t kMaxMeteringRegions = 65536;

// How frames reach the camera's memory: the driver writes into the camera's own buffers
// (user pointers), or the camera maps the driver's buffers; auto takes user pointers where the
// driver offers them.
enum class CaptureMemory { Auto, UserPtr, Mmap };

// How auto white balance finds the illuminant: the gray test over the metering samples, or the
// search along the sensor's colour-temperature curve.
enum class WhiteBalanceMode { Gray, Curve };

struct CUDACameraParams {
    struct Gamma {
        float R = 0.8f, G = 0.8f, B = 0.8f, Cr = 0.8f, Cb = 0.8f;
    };
    struct AutoExposure {
        int32_t numRegions = 0;
        float alpha = 0.0f;  // no configuration key
        float exposureP = 0.0f;
        float gainP = 0.0f;
        float targetY = 0.0f;
        float avgYThreshold = 0.0f;
        float skinSegmentedTargetY = 0.0f;
        float skinSegmentedAvgYThreshold = 0.0f;
        float skinRatioThreshold = 0.0f;
        float skinRatioMixThreshold = 0.0f;
        float numSamples = 0.0f;  // read as an unsigned count, kept as float for the 3A divisions
        float errorY = 0.0f;
    };
    struct AutoWhiteBalance {
        float grayThreshold = 0.0f;
        float numSamples = 0.0f;  // read as an unsigned count, kept as float
        float P = 0.0f;
        float targetU = 0.0f;
        float targetV = 0.0f;
        uint32_t seed = 0;
        // "awb.mode": gray | curve; absent, the sensor profile's whiteBalance.mode decides at start
        std::optional<WhiteBalanceMode> mode;
        metering::ColourTemperatureCurve curve;  // "awb.curve.*"
    };

    std::string name;
    std::string path;
    uint32_t bufferPoolSize = 4;
    CaptureMemory memory = CaptureMemory::Auto;  // "memory": auto | userptr | mmap
    std::string pixelFormat = "auto";            // "pixelFormat": auto | default | a Bayer fourcc
    std::string sensorProfile = "auto";          // "sensor": auto | default | generic | a profile file
    uint32_t width = 0;
    uint32_t height = 0;
    bool hFlip = false;
    bool vFlip = false;
    Gamma gamma;
    uint32_t numSamples = 0;  // size of the metering sample table
    AutoExposure ae;
    AutoWhiteBalance awb;
    uint32_t outputBufferFormats = 0;  // a CUDAOutputConfiguration
    CUDADemosaicMode demosaicMode = BILINEAR_5;
    float regionWeight = 0.0f;
    float skinWeight = 0.0f;
    float colorModelThreshold = 0.0f;

    // Reads every key of the camera's configuration entry; throws Poco's NotFoundException for a
    // missing "path", its SyntaxException for an unparsable value, and CaptureDeviceException for
    // an unsupported output configuration, demosaic mode or white-balance mode, a malformed
    // colour-temperature curve, or a pool size or metering count
    // beyond the bounds above (or no metering samples at all).
    explicit CUDACameraParams(Poco::AutoPtr<Poco::Util::AbstractConfiguration> config);
};

}  // namespace capture
}  // namespace ruvo
