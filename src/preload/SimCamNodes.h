// The simulated V4L2 nodes of the preload library: which paths are served, and the open files
// on them, each a real descriptor that polls as the sensor's node would.
#pragma once

#include "io/DeviceIo.h"

#include <sys/stat.h>

#include <condition_variable>
#include <cstdio>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace ruvo {
namespace capture {
namespace simcam {

class Nodes {
public:
    // Reads the configuration named by RUVO_SIMCAM_CONFIG, or the one node RUVO_SIMCAM_NODE.
    Nodes();
    ~Nodes();

    bool serves(const char* path) const;
    bool owns(int fd) const;
    bool mapped(const void* address) const;

    int open(const std::string& path, int flags);
    int close(int fd);
    int ioctl(int fd, unsigned long request, void* argument);
    void* mmap(int fd, size_t length, off_t offset);
    int munmap(void* address, size_t length);
    int stat(const std::string& path, struct ::stat* status);
    int fstat(int fd, struct ::stat* status);
    // The uevent of a served node's sysfs directory, as a read-only stream; null for any other path.
    FILE* openUevent(const char* path) const;

private:
    struct Node {
        std::string simPath;  // the sensor's "sim:" path
        std::shared_ptr<DeviceIo> io;
        unsigned minor = 0;
    };
    struct OpenFile {
        const Node* node = nullptr;
        int simFd = -1;
        bool readable = false;
        bool stop = false;
        std::thread watcher;
    };

    void watch(int fd, OpenFile& file);
    void refresh(int fd, OpenFile& file);  // under _mutex

    std::map<std::string, Node> _nodes;
    mutable std::mutex _mutex;
    std::condition_variable _changed;
    std::map<int, std::shared_ptr<OpenFile>> _files;  // by the real descriptor handed out
    std::map<const void*, const Node*> _mappings;     // address -> the node whose buffer it is
};

// The process's nodes, made on first use; null while they are being made (the configuration
// is read through the interposed calls) and when none is configured.
Nodes* nodes();

}  // namespace simcam
}  // namespace capture
}  // namespace ruvo
