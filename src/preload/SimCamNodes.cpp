// Configuration and open files of the preload library's simulated nodes.
#include "preload/SimCamNodes.h"

#include <Poco/AutoPtr.h>
#include <Poco/Util/MapConfiguration.h>
#include <Poco/Util/PropertyFileConfiguration.h>

#include <dlfcn.h>
#include <sys/eventfd.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace ruvo {
namespace capture {
namespace simcam {
namespace {

constexpr unsigned kVideoMajor = 81;
constexpr unsigned kFirstMinor = 200;  // above the minors real video nodes usually take
constexpr int kWatchMicroseconds = 20000;

int realClose(int fd) {
    static auto f = reinterpret_cast<int (*)(int)>(dlsym(RTLD_NEXT, "close"));
    return f(fd);
}

thread_local bool loading = false;

}  // namespace

Nodes::Nodes() {
    Poco::AutoPtr<Poco::Util::AbstractConfiguration> config;
    if (const char* file = std::getenv("RUVO_SIMCAM_CONFIG")) {
        config = new Poco::Util::PropertyFileConfiguration(file);
    } else if (const char* node = std::getenv("RUVO_SIMCAM_NODE")) {
        Poco::AutoPtr<Poco::Util::MapConfiguration> single(new Poco::Util::MapConfiguration);
        single->setString("node.0.path", node);
        config = single;
    } else {
        return;
    }
    Poco::Util::AbstractConfiguration::Keys keys;
    config->keys("node", keys);
    unsigned minor = kFirstMinor;
    for (const std::string& key : keys) {
        Poco::AutoPtr<Poco::Util::AbstractConfiguration> entry = config->createView("node." + key);
        const std::string path = entry->getString("path");
        Node& node = _nodes[path];
        node.simPath = "sim:simcam-" + key;
        node.io = makeDeviceIo(node.simPath, entry);
        node.minor = minor++;
    }
}

Nodes::~Nodes() {
    std::unique_lock<std::mutex> lock(_mutex);
    for (auto& [fd, file] : _files) file->stop = true;
    _changed.notify_all();
    std::map<int, std::shared_ptr<OpenFile>> files = _files;
    lock.unlock();
    for (auto& [fd, file] : files)
        if (file->watcher.joinable()) file->watcher.join();
}

bool Nodes::serves(const char* path) const { return path && _nodes.count(path) != 0; }

bool Nodes::owns(int fd) const {
    std::lock_guard<std::mutex> lock(_mutex);
    return _files.count(fd) != 0;
}

bool Nodes::mapped(const void* address) const {
    std::lock_guard<std::mutex> lock(_mutex);
    return _mappings.count(address) != 0;
}

int Nodes::open(const std::string& path, int flags) {
    const Node& node = _nodes.at(path);
    const int simFd = node.io->open(node.simPath, flags);
    if (simFd == -1) return -1;
    const int fd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (fd == -1) {
        const int error = errno;
        node.io->close(simFd);
        errno = error;
        return -1;
    }
    auto file = std::make_shared<OpenFile>();
    file->node = &node;
    file->simFd = simFd;
    std::lock_guard<std::mutex> lock(_mutex);
    _files[fd] = file;
    refresh(fd, *file);
    file->watcher = std::thread([this, fd, file] { watch(fd, *file); });
    return fd;
}

void Nodes::refresh(int fd, OpenFile& file) {
    timeval zero{0, 0};
    const bool readable = file.node->io->select(file.simFd, &zero) == 1;
    if (readable == file.readable) return;
    uint64_t value = 1;
    if (readable) {
        if (::write(fd, &value, sizeof value) != sizeof value) return;
    } else if (::read(fd, &value, sizeof value) != sizeof value) {
        return;
    }
    file.readable = readable;
    _changed.notify_all();
}

void Nodes::watch(int fd, OpenFile& file) {
    std::unique_lock<std::mutex> lock(_mutex);
    while (!file.stop) {
        if (file.readable) {
            // Nothing to do until a request changes the state or the stream does on its own.
            _changed.wait_for(lock, std::chrono::microseconds(kWatchMicroseconds));
        } else {
            lock.unlock();
            timeval wait{0, kWatchMicroseconds};
            file.node->io->select(file.simFd, &wait);
            lock.lock();
        }
        if (!file.stop) refresh(fd, file);
    }
}

int Nodes::close(int fd) {
    std::unique_lock<std::mutex> lock(_mutex);
    auto it = _files.find(fd);
    if (it == _files.end()) {
        errno = EBADF;
        return -1;
    }
    std::shared_ptr<OpenFile> file = std::move(it->second);
    _files.erase(it);
    file->stop = true;
    _changed.notify_all();
    lock.unlock();
    file->watcher.join();
    file->node->io->close(file->simFd);
    return realClose(fd);
}

int Nodes::ioctl(int fd, unsigned long request, void* argument) {
    std::unique_lock<std::mutex> lock(_mutex);
    const std::shared_ptr<OpenFile> file = _files.at(fd);
    lock.unlock();
    const int result = file->node->io->ioctl(file->simFd, request, argument);
    const int error = errno;
    lock.lock();
    if (!file->stop) refresh(fd, *file);
    errno = error;
    return result;
}

void* Nodes::mmap(int fd, size_t length, off_t offset) {
    std::lock_guard<std::mutex> lock(_mutex);
    const OpenFile& file = *_files.at(fd);
    void* address = file.node->io->mmap(file.simFd, length, offset);
    if (address != MAP_FAILED) _mappings[address] = file.node;
    return address;
}

int Nodes::munmap(void* address, size_t length) {
    std::lock_guard<std::mutex> lock(_mutex);
    auto it = _mappings.find(address);
    if (it == _mappings.end()) {
        errno = EINVAL;
        return -1;
    }
    // A mapping outlives the descriptor it was made through; the node's io lives as long as the process.
    const int result = it->second->io->munmap(address, length);
    _mappings.erase(it);
    return result;
}

int Nodes::stat(const std::string& path, struct ::stat* status) {
    const Node& node = _nodes.at(path);
    std::memset(status, 0, sizeof *status);
    status->st_mode = S_IFCHR | 0660;
    status->st_rdev = makedev(kVideoMajor, node.minor);
    status->st_nlink = 1;
    return 0;
}

int Nodes::fstat(int fd, struct ::stat* status) {
    std::lock_guard<std::mutex> lock(_mutex);
    for (const auto& [path, node] : _nodes)
        if (&node == _files.at(fd)->node) return stat(path, status);
    errno = EBADF;
    return -1;
}

FILE* Nodes::openUevent(const char* path) const {
    if (!path) return nullptr;
    for (const auto& [nodePath, node] : _nodes) {
        const std::string uevent =
            "/sys/dev/char/" + std::to_string(kVideoMajor) + ":" + std::to_string(node.minor) + "/uevent";
        if (uevent != path) continue;
        const std::string text = "MAJOR=" + std::to_string(kVideoMajor) + "\nMINOR=" + std::to_string(node.minor) +
                                 "\nDEVNAME=video" + std::to_string(node.minor) + "\n";
        FILE* stream = tmpfile();
        if (!stream) return nullptr;
        std::fputs(text.c_str(), stream);
        std::rewind(stream);
        return stream;
    }
    return nullptr;
}

Nodes* nodes() {
    if (loading) return nullptr;
    static Nodes* instance = [] {
        loading = true;
        Nodes* made = new Nodes;  // never destroyed: in use until the process exits
        loading = false;
        return made;
    }();
    return instance;
}

}  // namespace simcam
}  // namespace capture
}  // namespace ruvo
