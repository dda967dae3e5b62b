// The capture device of one tool command: built from the configuration with errors a user can
// read, started so that a failed start stops what did start, and always stopped in the end,
// after the frames the tool still holds have been let go.
#pragma once

#include <ruvo/capture/CUDADevice.h>

#include <Poco/AutoPtr.h>
#include <Poco/Util/AbstractConfiguration.h>

#include <functional>
#include <memory>

namespace ruvo {
namespace tool {

class DeviceSession {
public:
    // Builds the device. Throws ToolError naming what is wrong (a key that did not parse, an
    // unsupported configuration, no CUDA device).
    explicit DeviceSession(Poco::AutoPtr<Poco::Util::AbstractConfiguration> config);
    // Stops a started device, ignoring failures (the error that unwinds matters more).
    ~DeviceSession();
    DeviceSession(const DeviceSession&) = delete;
    DeviceSession& operator=(const DeviceSession&) = delete;

    capture::CUDADevice& device() { return *_device; }

    // Called before every stop: must drop every frame the caller holds, since stopping waits
    // for all of them.
    void setReleaseFrames(std::function<void()> releaseFrames) { _releaseFrames = std::move(releaseFrames); }

    // Starts the cameras and threads. Throws ToolError after stopping whatever did start.
    void start();
    // Stops the device once; later calls do nothing. Throws ToolError when stopping fails.
    void stop();

private:
    std::unique_ptr<capture::CUDADevice> _device;
    std::function<void()> _releaseFrames;
    bool _started = false;
};

}  // namespace tool
}  // namespace ruvo
