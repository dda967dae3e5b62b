// The exceptions of the capture interface. Every capture failure can be caught as
// CaptureDeviceException (or std::runtime_error); failed CUDA calls and refused control
// changes arrive as CUDADeviceException.
#pragma once

#include <stdexcept>
#include <string>

namespace ruvo {
namespace capture {

class CaptureDeviceException : public std::runtime_error {
public:
    explicit CaptureDeviceException(const std::string& message) : std::runtime_error(message) {}
    ~CaptureDeviceException() override = default;
};

class CUDADeviceException : public CaptureDeviceException {
public:
    explicit CUDADeviceException(const std::string& message) : CaptureDeviceException(message) {}
};

}  // namespace capture
}  // namespace ruvo
