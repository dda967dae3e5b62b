// CUDACamera's runtime controls: reading them and the capabilities, replacing them with
// validation (restarting the device when the size or output list changes), and named presets.
#include "CUDACamera.h"

#include "OutputBufferConfig.h"
#include "SensorControls.h"
#include "isp/LaunchGeometry.h"

#include <ruvo/capture/CaptureDeviceException.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <string>

namespace ruvo {
namespace capture {

namespace {

// The default sensor's sizes, the ones the capabilities list.
const std::array<ruvo::util::Dimensions, 4> kSupportedSizes = {
    ruvo::util::Dimensions(672, 380), ruvo::util::Dimensions(1280, 720), ruvo::util::Dimensions(1920, 1080),
    ruvo::util::Dimensions(2688, 1520)};

void validate(const Controls& c) {
    // Those and every other size the pipeline takes (sides multiples of 16); the driver may
    // still refuse it at the next start.
    if (!kernels::takesFrameSize(c.width, c.height)) {
        throw CaptureDeviceException("Unsupported resolution");
    }
    if (std::find(CUDA_OUTPUT_BUFFER_CONFIG.begin(), CUDA_OUTPUT_BUFFER_CONFIG.end(), c.outputBuffers) ==
        CUDA_OUTPUT_BUFFER_CONFIG.end()) {
        throw CaptureDeviceException("Unsupported output buffer configuration");
    }
    if (c.outputBuffersConfIndex >= CUDA_OUTPUT_BUFFER_CONFIG.size()) {
        throw CaptureDeviceException("Output buffer configuration index out of range");
    }
    // The kernels run for the index and write into the buffers of the list: they must agree.
    if (CUDA_OUTPUT_BUFFER_CONFIG[c.outputBuffersConfIndex] != c.outputBuffers) {
        throw CaptureDeviceException("Output buffer configuration index " + std::to_string(c.outputBuffersConfIndex) +
                                     " does not match the output buffer list");
    }
    // Gammas, gains and targets reach per-pixel powers and register conversions: only numbers.
    for (float v : {c.awb.gammaRed, c.awb.gammaGreen, c.awb.gammaBlue, c.awb.gammaCr, c.awb.gammaCb,
                    c.awb.manualRedGain, c.awb.manualGreenGain, c.awb.manualBlueGain, c.ae.manualExposure,
                    c.ae.manualGain, c.ae.ev, c.ae.targetY, c.ae.time.low(), c.ae.time.high()}) {
        if (!std::isfinite(v)) throw CaptureDeviceException("Unsupported control value: not a finite number");
    }
}

// Channel gains that a restart would reset to the driver's defaults, written back before the
// exposure and gain (where the sensor lacks them, the pipeline's multipliers).
constexpr uint32_t kChannelGains[] = {sensor::CID_RED_GAIN, sensor::CID_GREEN_GAIN, sensor::CID_BLUE_GAIN};

}  // namespace

Controls CUDACamera::getControls() {
    Poco::FastMutex::ScopedLock lock(_mutexControls);
    return _controls;
}

void CUDACamera::copyControls(Controls& into) {
    Poco::FastMutex::ScopedLock lock(_mutexControls);
    into = _controls;
}

Capabilities CUDACamera::getCapabilities() {
    Capabilities capabilities;
    capabilities.resolutions.assign(kSupportedSizes.begin(), kSupportedSizes.end());
    describeFormats(capabilities);
    capabilities.sensorProfile = _profile.name;
    capabilities.emulatedControls = emulatedControls();
    return capabilities;
}

void CUDACamera::setControls(const Controls& c) {
    validate(c);
    if (!_isRunning) {
        Poco::FastMutex::ScopedLock lock(_mutexControls);
        _controls = c;
        return;
    }
    bool restart;
    {
        Poco::FastMutex::ScopedLock lock(_mutexControls);
        // Flips that the sensor refuses while streaming take a restart as a new size does.
        const bool flips = _profile.flipsBeforeStreaming && (c.hFlip != _controls.hFlip || c.vFlip != _controls.vFlip);
        restart = flips || c.width != _controls.width || c.height != _controls.height ||
                  c.outputBuffers != _controls.outputBuffers;
    }
    // A size the running driver cannot give is refused before the restart, which would fail.
    if (restart && !driverGives(c.width, c.height)) throw CaptureDeviceException("Unsupported resolution");
    if (restart) restartKeepingSensorValues(c);
    {
        Poco::FastMutex::ScopedLock lock(_mutexControls);
        _controls = c;
    }
    programMeteringRectangle(_controls.ae.regions);
    if (!_profile.flipsBeforeStreaming) applyFlips();
}

// Restarts with `c`, writing back the exposure, gain and channel gains in use before.
void CUDACamera::restartKeepingSensorValues(const Controls& c) {
    const uint32_t exposure = _profile.exposureControl, gain = _profile.gainControl;
    std::array<int32_t, 3> keptChannels{};
    for (size_t i = 0; i < keptChannels.size(); ++i) keptChannels[i] = readChannelGain(kChannelGains[i]);
    const int32_t keptExposure = getControl(exposure);
    const int32_t keptGain = getControl(gain);
    stop();
    {
        Poco::FastMutex::ScopedLock lock(_mutexControls);
        _controls = c;
    }
    start();
    for (size_t i = 0; i < keptChannels.size(); ++i) writeChannelGain(kChannelGains[i], keptChannels[i]);
    setControl(exposure, keptExposure);
    setControl(gain, keptGain);
}

bool CUDACamera::setControls(const std::string& name) {
    if (name != "default" && name != "barcode" && name != "oru") {
        _logger.warning("controls attempting to set to " + name + " but it is not implemented!");
        return false;
    }
    Controls c = getControls();
    if (name == "default") {
        c.ae.targetY = _params.ae.targetY;
        c.ae.manualMode = "default";
    } else if (name == "barcode") {
        c.ae.targetY = 0.2f;
        c.ae.manualMode = "AVGY";
    } else {
        c.ae.manualMode = "oru";
    }
    setControls(c);
    _logger.information("controls set to " + name);
    return true;
}

}  // namespace capture
}  // namespace ruvo
