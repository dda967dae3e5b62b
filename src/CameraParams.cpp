// Reads a camera's configuration entry into CUDACameraParams, key by key in a fixed order,
// with the defaults and validations of each key.
#include "CameraParams.h"

#include "OutputBufferConfig.h"
#include "sensor/PixelFormats.h"
#include "sensor/SensorProfile.h"

#include <ruvo/capture/CaptureDeviceException.h>

namespace ruvo {
namespace capture {

namespace {

float readFloat(const Poco::AutoPtr<Poco::Util::AbstractConfiguration>& config, const std::string& key,
                double fallback) {
    return static_cast<float>(config->getDouble(key, fallback));
}

std::optional<WhiteBalanceMode> readWhiteBalanceMode(const Poco::Util::AbstractConfiguration& config) {
    if (!config.has("awb.mode")) return std::nullopt;
    const std::string name = config.getString("awb.mode");
    if (name == "gray") return WhiteBalanceMode::Gray;
    if (name == "curve") return WhiteBalanceMode::Curve;
    throw CaptureDeviceException("Unsupported awb.mode \"" + name + "\": expected gray or curve");
}

}  // namespace

CUDACameraParams::CUDACameraParams(Poco::AutoPtr<Poco::Util::AbstractConfiguration> config) {
    name = config->getString("name", "CUDACamera");
    path = config->getString("path");
    bufferPoolSize = config->getUInt("bufferPoolSize", 4);
    const std::string memoryName = config->getString("memory", "auto");
    if (memoryName == "userptr")
        memory = CaptureMemory::UserPtr;
    else if (memoryName == "mmap")
        memory = CaptureMemory::Mmap;
    else if (memoryName != "auto")
        throw CaptureDeviceException("Unsupported memory \"" + memoryName + "\": expected auto, userptr or mmap");
    pixelFormat = config->getString("pixelFormat", "auto");
    if (pixelFormat != "auto") sensor::parsePixelFormat(pixelFormat, "pixelFormat");  // refused here, not at start
    sensorProfile = config->getString("sensor", "auto");
    if (sensorProfile != "auto")
        sensor::loadSensorProfile(sensorProfile);  // a bad name or file is refused here, not at start
    width = config->getUInt("width", 1280);
    height = config->getUInt("height", 720);
    hFlip = config->getBool("hFlip", true);
    vFlip = config->getBool("vFlip", true);
    gamma.R = readFloat(config, "gamma.R", 0.8);
    gamma.G = readFloat(config, "gamma.G", 0.8);
    gamma.B = readFloat(config, "gamma.B", 0.8);
    gamma.Cr = readFloat(config, "gamma.Cr", 0.78);
    gamma.Cb = readFloat(config, "gamma.Cb", 0.78);
    numSamples = config->getUInt("numSamples", 10000);
    ae.numRegions = static_cast<int32_t>(config->getUInt("ae.numRegions", 16));
    ae.exposureP = readFloat(config, "ae.exposureP", 0.05);
    ae.gainP = readFloat(config, "ae.gainP", 0.02);
    ae.targetY = readFloat(config, "ae.targetY", 0.3);
    ae.avgYThreshold = readFloat(config, "ae.avgYThreshold", 0.4);
    ae.skinSegmentedTargetY = readFloat(config, "ae.skinSegmentedTargetY", 0.5);
    ae.skinSegmentedAvgYThreshold = readFloat(config, "ae.skinSegmentedAvgYThreshold", 0.8);
    ae.skinRatioThreshold = readFloat(config, "ae.skinRatioThreshold", 0.01);
    ae.skinRatioMixThreshold = readFloat(config, "ae.skinRatioMixThreshold", 0.03);
    ae.numSamples = static_cast<float>(config->getUInt("ae.numSamples", 1000));
    ae.errorY = readFloat(config, "ae.errorY", 0.0001);
    awb.grayThreshold = readFloat(config, "awb.grayThreshold", 0.3);
    awb.numSamples = static_cast<float>(config->getUInt("awb.numSamples", 1000));
    awb.P = readFloat(config, "awb.P", 0.15);
    awb.targetU = readFloat(config, "awb.targetU", 0.49);
    awb.targetV = readFloat(config, "awb.targetV", 0.51);
    awb.seed = config->getUInt("awb.seed", 0);
    awb.mode = readWhiteBalanceMode(*config);
    awb.curve = metering::readColourTemperatureCurve(*config, "awb.curve");

    outputBufferFormats = static_cast<uint32_t>(config->getInt("outputBufferFormats", YUV_ONLY));
    if (outputBufferFormats >= CUDA_OUTPUT_BUFFER_CONFIG.size()) {
        throw CaptureDeviceException("Unsupported CUDA output configuration");
    }
    auto mode = static_cast<uint32_t>(config->getInt("demosaicMode", BILINEAR_5));
    if (mode > LANCZOS_11) throw CaptureDeviceException("Unsupported CUDA demosaic configuration");
    demosaicMode = static_cast<CUDADemosaicMode>(mode);

    // Bounds beyond which a value could only exhaust memory or divide by zero per frame.
    if (bufferPoolSize > kMaxBufferPoolSize) throw CaptureDeviceException("Unsupported buffer pool size");
    if (numSamples == 0 || numSamples > kMaxMeteringSamples) {
        throw CaptureDeviceException("Unsupported number of metering samples");
    }
    if (static_cast<uint32_t>(ae.numRegions) > kMaxMeteringRegions) {
        throw CaptureDeviceException("Unsupported number of metering regions");
    }

    regionWeight = readFloat(config, "regionExposureWeight", 0.3);
    skinWeight = readFloat(config, "skinExposureWeight", 0.7);
    colorModelThreshold = readFloat(config, "colorModelThreshold", 10.0);
}

}  // namespace capture
}  // namespace ruvo
