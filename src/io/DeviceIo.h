// The one narrow interface through which a camera reaches its device node. Calls behave like
// the system calls they are named after: they return -1 and set errno on failure. The system
// implementation forwards to the kernel; a path beginning with "sim:" is served in process by
// the simulated sensor.
#pragma once

#include <Poco/AutoPtr.h>
#include <Poco/Util/AbstractConfiguration.h>

#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/time.h>

#include <memory>
#include <string>

namespace ruvo {
namespace capture {

class DeviceIo {
public:
    virtual ~DeviceIo() = default;

    virtual int stat(const std::string& path, struct ::stat* status) = 0;
    virtual int open(const std::string& path, int flags) = 0;
    virtual int close(int fd) = 0;
    virtual int ioctl(int fd, unsigned long request, void* argument) = 0;
    // Waits until `fd` is readable or `timeout` passes (null: no limit). Returns the number of
    // ready descriptors (1), 0 on time-out, -1 with errno on failure (EINTR when interrupted).
    virtual int select(int fd, struct ::timeval* timeout) = 0;
    // Maps `length` bytes of the driver buffer at `offset` (the m.offset QUERYBUF reported),
    // shared and readable and writable. Returns MAP_FAILED with errno on failure.
    virtual void* mmap(int fd, size_t length, off_t offset) = 0;
    virtual int munmap(void* address, size_t length) = 0;
};

// The kernel's calls.
std::shared_ptr<DeviceIo> systemDeviceIo();

// The implementation for a camera's configured `path`: the simulated sensor, configured from
// the "sim.*" keys of `cameraConfig`, when the path begins with "sim:"; the kernel otherwise.
std::shared_ptr<DeviceIo> makeDeviceIo(const std::string& path,
                                       Poco::AutoPtr<Poco::Util::AbstractConfiguration> cameraConfig);

}  // namespace capture
}  // namespace ruvo
