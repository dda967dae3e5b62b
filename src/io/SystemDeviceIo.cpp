// The kernel's implementation of DeviceIo: each call is the system call of the same name on one
// descriptor, with the kernel's return value and errno passed through unchanged.
#include "io/DeviceIo.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <unistd.h>

#include <cerrno>

namespace ruvo {
namespace capture {
namespace {

class SystemDeviceIo : public DeviceIo {
public:
    int stat(const std::string& path, struct ::stat* status) override { return ::stat(path.c_str(), status); }

    int open(const std::string& path, int flags) override { return ::open(path.c_str(), flags); }

    int close(int fd) override { return ::close(fd); }

    int ioctl(int fd, unsigned long request, void* argument) override { return ::ioctl(fd, request, argument); }

    int select(int fd, struct ::timeval* timeout) override {
        // fd_set holds descriptors below FD_SETSIZE only; FD_SET on a larger one writes out of bounds.
        if (fd < 0 || fd >= FD_SETSIZE) {
            errno = fd < 0 ? EBADF : EINVAL;
            return -1;
        }
        fd_set readable;
        FD_ZERO(&readable);
        FD_SET(fd, &readable);
        return ::select(fd + 1, &readable, nullptr, nullptr, timeout);
    }

    void* mmap(int fd, size_t length, off_t offset) override {
        return ::mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_SHARED, fd, offset);
    }

    int munmap(void* address, size_t length) override { return ::munmap(address, length); }
};

}  // namespace

std::shared_ptr<DeviceIo> systemDeviceIo() {
    static const std::shared_ptr<DeviceIo> io = std::make_shared<SystemDeviceIo>();
    return io;
}

}  // namespace capture
}  // namespace ruvo
