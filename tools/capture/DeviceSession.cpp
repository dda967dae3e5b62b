// Building, starting and stopping the capture device for the tool.
#include "DeviceSession.h"

#include "Configuration.h"
#include "ToolError.h"

#include <Poco/Exception.h>

namespace ruvo {
namespace tool {

namespace {

// The text of the exception in flight; only called inside a catch block.
std::string currentErrorText(const Poco::Util::AbstractConfiguration* config) {
    try {
        throw;
    } catch (const Poco::Exception& e) {
        return config != nullptr ? describeConfigurationError(e, *config) : e.displayText();
    } catch (const std::exception& e) {
        return e.what();
    } catch (const std::string& s) {
        return s;
    } catch (...) {
        return "unknown error";
    }
}

}  // namespace

DeviceSession::DeviceSession(Poco::AutoPtr<Poco::Util::AbstractConfiguration> config) {
    try {
        _device = std::make_unique<capture::CUDADevice>(config);
    } catch (...) {
        throw ToolError("cannot build the cameras: " + currentErrorText(config.get()));
    }
}

DeviceSession::~DeviceSession() {
    try {
        stop();
    } catch (...) {
    }
}

void DeviceSession::start() {
    try {
        _device->start();
        _started = true;
    } catch (...) {
        const std::string reason = currentErrorText(nullptr);
        try {
            _device->stop();  // cameras started before the failing one are streaming
        } catch (...) {
        }
        throw ToolError("cannot start the cameras: " + reason);
    }
}

void DeviceSession::stop() {
    if (!_started) return;
    _started = false;
    if (_releaseFrames) _releaseFrames();
    try {
        _device->stop();
    } catch (...) {
        throw ToolError("cannot stop the cameras: " + currentErrorText(nullptr));
    }
}

}  // namespace tool
}  // namespace ruvo
