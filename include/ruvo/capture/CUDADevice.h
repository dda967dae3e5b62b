// The capture device that applications create: it brings up CUDA, builds one camera per
// enabled "devices[i]" entry of its configuration, runs a reader thread per camera and one
// delivery thread, and hands batches of processed frames to the registered callback.
#pragma once

#include <ruvo/capture/CaptureDevice.h>

#include <Poco/Logger.h>

#include <map>
#include <string>

namespace ruvo {
namespace capture {

class CUDADeviceImpl;

class CUDADevice : public CaptureDevice {
public:
    // Display text of each output configuration, by CUDAOutputConfiguration value.
    static const std::map<int, std::string> outputConfigDescriptions;

    explicit CUDADevice(Poco::AutoPtr<Poco::Util::AbstractConfiguration> config);
    ~CUDADevice() override;
    CUDADevice(const CUDADevice&) = delete;
    CUDADevice& operator=(const CUDADevice&) = delete;

    // Starts every camera, then the reader threads, then the delivery thread.
    void start() override;
    // Stops the threads, then every camera; returns once clients have given back every frame.
    void stop() override;
    bool isRunning() override;
    // Replaces camera `cameraId`'s controls; a refused change leaves the previous controls in
    // place and throws CUDADeviceException with the camera's message.
    void setControls(uint32_t cameraId, const Controls& controls) override;
    // Applies a named preset ("default", "barcode", "oru"); false for an unknown name.
    bool setNamedControls(uint32_t cameraId, const std::string& name) override;
    Controls getControls(uint32_t cameraId) override;
    uint32_t numDevices() override;
    Capabilities getCapabilities(uint32_t cameraId) override;

private:
    Poco::Logger& _logger;
    CUDADeviceImpl* _impl;
};

}  // namespace capture
}  // namespace ruvo
