// The generic capture-device interface that applications program against: start and stop,
// per-camera controls and capabilities, and the delivery of frame batches to one callback.
#pragma once

#include <ruvo/capture/Capabilities.h>
#include <ruvo/capture/CaptureDeviceException.h>
#include <ruvo/capture/Frame.h>

#include <Poco/AutoPtr.h>
#include <Poco/Util/AbstractConfiguration.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace ruvo {
namespace capture {

class CaptureDevice {
public:
    explicit CaptureDevice(Poco::AutoPtr<Poco::Util::AbstractConfiguration> config);
    virtual ~CaptureDevice();

    virtual void start() = 0;
    virtual void stop() = 0;
    virtual bool isRunning() = 0;
    virtual void setControls(uint32_t cameraId, const Controls& controls) = 0;
    virtual bool setNamedControls(uint32_t cameraId, const std::string& name) = 0;
    virtual Controls getControls(uint32_t cameraId) = 0;
    virtual uint32_t numDevices() = 0;
    virtual Capabilities getCapabilities(uint32_t cameraId) = 0;
    // Hands one batch to the registered callback; batches arriving without one are dropped,
    // which returns their buffers.
    virtual void onNewData(const std::vector<std::shared_ptr<Frame>>& frames);

    // Registers the client's callback; replaces any earlier one. Safe while running.
    void setCallback(OnNewDataCallback callback);

protected:
    Poco::AutoPtr<Poco::Util::AbstractConfiguration> _config;

private:
    std::mutex _callbackMutex;
    std::shared_ptr<const OnNewDataCallback> _callback;  // swapped whole; copying it allocates nothing
};

}  // namespace capture
}  // namespace ruvo
