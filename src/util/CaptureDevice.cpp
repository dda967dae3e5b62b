// Base class of capture devices: keeps the configuration and the client's callback.
#include <ruvo/capture/CaptureDevice.h>

namespace ruvo {
namespace capture {

CaptureDevice::CaptureDevice(Poco::AutoPtr<Poco::Util::AbstractConfiguration> config) : _config(config) {}

CaptureDevice::~CaptureDevice() = default;

void CaptureDevice::setCallback(OnNewDataCallback callback) {
    auto shared = callback ? std::make_shared<const OnNewDataCallback>(std::move(callback)) : nullptr;
    std::lock_guard<std::mutex> lock(_callbackMutex);
    _callback = std::move(shared);
}

void CaptureDevice::onNewData(const std::vector<std::shared_ptr<Frame>>& frames) {
    std::shared_ptr<const OnNewDataCallback> callback;
    {
        std::lock_guard<std::mutex> lock(_callbackMutex);
        callback = _callback;
    }
    if (callback) (*callback)(frames);
}

}  // namespace capture
}  // namespace ruvo
