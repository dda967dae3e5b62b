// An LD_PRELOAD library that makes simulated sensors appear as V4L2 nodes to unmodified
// programs. Configured node paths are served by the in-process simulated sensor; every other
// path and descriptor goes to the C library untouched.
//
// Each open of a node gets a real descriptor (an eventfd) that select, poll and epoll watch: a
// watcher thread per open file keeps it readable exactly while the sensor would report the node
// readable, and every request on it re-evaluates that at once, so a dequeued frame does not
// leave the descriptor readable. stat and fstat describe a character device of the video major,
// and the sysfs uevent that tools read to learn the device type is served from memory.
// Each entry point is defined under its own name: without this, the C library's headers would
// emit `open` as `open64` (and so on), leaving the plain names uninterposed.
#undef _FILE_OFFSET_BITS

#include "preload/SimCamNodes.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

using ruvo::capture::simcam::Nodes;
using ruvo::capture::simcam::nodes;

namespace {

// The C library's own entry points.
template <class F>
F next(const char* name) {
    return reinterpret_cast<F>(dlsym(RTLD_NEXT, name));
}

int realOpen(const char* path, int flags, mode_t mode) {
    static auto f = next<int (*)(const char*, int, ...)>("open");
    return f(path, flags, mode);
}

}  // namespace

// Declares `mode`: the argument that follows `flags` in a call that may create a file, else 0.
// A statement of the variadic function itself, where va_start must be.
#define READ_CREATION_MODE(flags)          \
    mode_t mode = 0;                       \
    if ((flags) & (O_CREAT | O_TMPFILE)) { \
        va_list args;                      \
        va_start(args, flags);             \
        mode = va_arg(args, mode_t);       \
        va_end(args);                      \
    }

extern "C" {

int open(const char* path, int flags, ...) {
    READ_CREATION_MODE(flags)
    Nodes* n = nodes();
    if (n && n->serves(path)) return n->open(path, flags);
    return realOpen(path, flags, mode);
}

// The 64-bit names are the same functions on 64-bit Linux.
int open64(const char* path, int flags, ...) __attribute__((alias("open")));
int __open_2(const char* path, int flags) { return open(path, flags); }
int __open64_2(const char* path, int flags) { return open(path, flags); }

int openat(int dirfd, const char* path, int flags, ...) {
    READ_CREATION_MODE(flags)
    Nodes* n = nodes();
    if (n && path && path[0] == '/' && n->serves(path)) return n->open(path, flags);
    static auto f = next<int (*)(int, const char*, int, ...)>("openat");
    return f(dirfd, path, flags, mode);
}

int openat64(int dirfd, const char* path, int flags, ...) __attribute__((alias("openat")));

int close(int fd) {
    Nodes* n = nodes();
    if (n && n->owns(fd)) return n->close(fd);
    static auto f = next<int (*)(int)>("close");
    return f(fd);
}

int ioctl(int fd, unsigned long request, ...) {
    va_list args;
    va_start(args, request);
    void* argument = va_arg(args, void*);
    va_end(args);
    Nodes* n = nodes();
    if (n && n->owns(fd)) return n->ioctl(fd, request, argument);
    static auto f = next<int (*)(int, unsigned long, ...)>("ioctl");
    return f(fd, request, argument);
}

void* mmap(void* address, size_t length, int protection, int flags, int fd, off_t offset) {
    Nodes* n = nodes();
    if (n && n->owns(fd)) return n->mmap(fd, length, offset);
    static auto f = next<void* (*)(void*, size_t, int, int, int, off_t)>("mmap");
    return f(address, length, protection, flags, fd, offset);
}

void* mmap64(void* address, size_t length, int protection, int flags, int fd, off_t offset)
    __attribute__((alias("mmap")));

int munmap(void* address, size_t length) {
    Nodes* n = nodes();
    if (n && n->mapped(address)) return n->munmap(address, length);
    static auto f = next<int (*)(void*, size_t)>("munmap");
    return f(address, length);
}

int stat(const char* path, struct stat* status) {
    Nodes* n = nodes();
    if (n && n->serves(path)) return n->stat(path, status);
    static auto f = next<int (*)(const char*, struct stat*)>("stat");
    return f(path, status);
}

int stat64(const char* path, struct stat64* status) __attribute__((alias("stat")));

int fstat(int fd, struct stat* status) {
    Nodes* n = nodes();
    if (n && n->owns(fd)) return n->fstat(fd, status);
    static auto f = next<int (*)(int, struct stat*)>("fstat");
    return f(fd, status);
}

int fstat64(int fd, struct stat64* status) __attribute__((alias("fstat")));

FILE* fopen(const char* path, const char* mode) {
    Nodes* n = nodes();
    if (n) {
        if (FILE* uevent = n->openUevent(path)) return uevent;
    }
    static auto f = next<FILE* (*)(const char*, const char*)>("fopen");
    return f(path, mode);
}

FILE* fopen64(const char* path, const char* mode) __attribute__((alias("fopen")));

}  // extern "C"
