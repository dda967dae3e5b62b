// The host runtime's kernels and its strict mode: launches (with launch-time fault injection),
// deferred execution on stream synchronisation, and managed memory mapped twice so that the
// CPU's view can be protected while kernels are pending, as on a device without concurrent
// managed access. A CPU access to a protected view is caught by a SIGSEGV handler, recorded and
// let through, so that a test reports it instead of the process dying.
#include "HostDeviceWork.h"
#include "HostRuntimeControl.h"
#include "HostRuntimeState.h"

#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <stdexcept>

namespace ruvo {
namespace hostrt {

namespace {

// The protected ranges as the signal handler reads them: lock-free, a fixed number of slots.
struct Guard {
    std::atomic<uintptr_t> begin{0};
    std::atomic<uintptr_t> end{0};
    std::atomic<unsigned> attach{0};
    std::atomic<bool> locked{false};
};
constexpr int kGuards = 1024;
Guard guards[kGuards];

// The first recorded CPU accesses to a protected view.
struct Violation {
    std::atomic<uintptr_t> address{0};
    std::atomic<size_t> size{0};
    std::atomic<unsigned> attach{0};
};
constexpr int kViolations = 16;
Violation violations[kViolations];
std::atomic<int> violationCount{0};

struct sigaction previousAction;
std::condition_variable released;  // hold() lifted, or a stream's running kernel finished

void onAccessFault(int, siginfo_t* info, void*) {
    const auto address = reinterpret_cast<uintptr_t>(info->si_addr);
    for (Guard& g : guards) {
        const uintptr_t begin = g.begin.load();
        if (begin == 0 || address < begin || address >= g.end.load() || !g.locked.load()) continue;
        const int n = violationCount.fetch_add(1);
        if (n < kViolations) {
            violations[n].address = address;
            violations[n].size = g.end.load() - begin;
            violations[n].attach = g.attach.load();
        }
        g.locked = false;
        mprotect(reinterpret_cast<void*>(begin), g.end.load() - begin, PROT_READ | PROT_WRITE);
        return;  // the access is repeated, now allowed
    }
    sigaction(SIGSEGV, &previousAction, nullptr);  // not ours: the access faults again, as it would have
}

const char* attachName(unsigned attach) {
    if (attach == cudaMemAttachSingle) return "attached to one stream";
    if (attach == cudaMemAttachHost) return "attached to the host";
    return "attached globally";
}

bool anyBusy(const RuntimeState& s) {
    for (const auto& [stream, work] : s.work) {
        if (work.busy()) return true;
    }
    return false;
}

bool streamBusy(const RuntimeState& s, cudaStream_t stream) {
    auto it = s.work.find(stream);
    return it != s.work.end() && it->second.busy();
}

}  // namespace

bool mapManaged(size_t bytes, void** hostView, Allocation& record) {
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    record.mapped = (bytes + page - 1) / page * page;
    const int fd = memfd_create("ruvo-managed", MFD_CLOEXEC);
    if (fd < 0) return false;
    void* host = MAP_FAILED;
    void* device = MAP_FAILED;
    if (ftruncate(fd, static_cast<off_t>(record.mapped)) == 0) {
        host = mmap(nullptr, record.mapped, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        device = mmap(nullptr, record.mapped, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    }
    close(fd);
    if (host == MAP_FAILED || device == MAP_FAILED) {
        if (host != MAP_FAILED) munmap(host, record.mapped);
        if (device != MAP_FAILED) munmap(device, record.mapped);
        return false;
    }
    for (int i = 0; i < kGuards; ++i) {
        if (guards[i].begin.load() != 0) continue;
        guards[i].end = reinterpret_cast<uintptr_t>(host) + record.mapped;
        guards[i].locked = false;
        guards[i].begin = reinterpret_cast<uintptr_t>(host);
        record.guard = i;
        break;
    }
    record.deviceView = static_cast<unsigned char*>(device);
    *hostView = host;
    return true;
}

void unmapManaged(void* hostView, Allocation& record) {
    if (record.guard >= 0) {
        guards[record.guard].begin = 0;
        guards[record.guard].locked = false;
    }
    munmap(record.deviceView, record.mapped);
    munmap(hostView, record.mapped);
}

void updateProtection(RuntimeState& s) {
    const bool busy = anyBusy(s);
    for (auto& [ptr, a] : s.allocations) {
        if (a.guard < 0) continue;
        Guard& g = guards[a.guard];
        g.attach = a.attach;
        const bool lock = a.attach == cudaMemAttachGlobal   ? busy
                          : a.attach == cudaMemAttachSingle ? streamBusy(s, a.stream)
                                                            : false;
        if (g.locked.load() == lock) continue;
        g.locked = lock;
        mprotect(const_cast<void*>(ptr), a.mapped, lock ? PROT_NONE : PROT_READ | PROT_WRITE);
    }
}

void installAccessHandler() {
    static std::once_flag once;
    std::call_once(once, [] {
        struct sigaction action {};
        action.sa_sigaction = onAccessFault;
        action.sa_flags = SA_SIGINFO | SA_NODEFER;
        sigemptyset(&action.sa_mask);
        sigaction(SIGSEGV, &action, &previousAction);
    });
}

void drain(cudaStream_t stream) {
    RuntimeState& s = state();
    std::unique_lock<std::mutex> lock(s.mutex);
    for (;;) {
        // In stream order: a kernel another thread is running on this stream finishes first.
        released.wait(lock, [&] { return !s.held && (s.work.count(stream) == 0 || s.work[stream].running == 0); });
        auto it = s.work.find(stream);
        if (it == s.work.end() || it->second.queued.empty()) break;
        std::function<void()> work = std::move(it->second.queued.front());
        it->second.queued.pop_front();
        ++it->second.running;
        lock.unlock();
        work();
        lock.lock();
        --s.work[stream].running;
        released.notify_all();
    }
    updateProtection(s);
}

void drainAll() {
    std::vector<cudaStream_t> streams;
    {
        RuntimeState& s = state();
        std::lock_guard<std::mutex> lock(s.mutex);
        for (const auto& [stream, work] : s.work) streams.push_back(stream);
    }
    for (cudaStream_t stream : streams) drain(stream);
}

cudaError_t launch(const char* kernel, cudaStream_t stream, std::function<void()> work) {
    RuntimeState& s = state();
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        cudaError_t e = injected(s, kernel);
        if (e == cudaSuccess && stream != nullptr && s.streams.count(stream) == 0) e = cudaErrorInvalidResourceHandle;
        if (e != cudaSuccess) {
            lastError = e;
            return e;
        }
        if (s.strict) {
            s.work[stream].queued.push_back(std::move(work));
            updateProtection(s);
            return cudaSuccess;
        }
    }
    work();
    return cudaSuccess;
}

const void* deviceView(const void* ptr) {
    RuntimeState& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    if (!s.strict || ptr == nullptr) return ptr;
    auto it = s.allocations.upper_bound(ptr);
    if (it == s.allocations.begin()) return ptr;
    --it;
    const auto* base = static_cast<const unsigned char*>(it->first);
    const auto* p = static_cast<const unsigned char*>(ptr);
    if (p >= base + it->second.mapped) return ptr;
    return it->second.deviceView + (p - base);
}

void setStrictMode(bool on) {
    RuntimeState& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    if (!s.allocations.empty()) throw std::logic_error("host runtime: strict mode switched with allocations alive");
    s.strict = on;
    s.held = false;
    s.contextActive = false;  // a fresh device: its context is made by the next call that needs one
    s.deviceFlags = 0;
    violationCount = 0;
    if (on) installAccessHandler();
}

std::vector<std::string> accessViolations() {
    std::vector<std::string> lines;
    const int n = violationCount.load();
    for (int i = 0; i < n && i < kViolations; ++i) {
        char line[200];
        std::snprintf(line, sizeof line,
                      "CPU access at %#zx to managed memory of %zu bytes %s while kernels were pending (a bus "
                      "error on a device without concurrent managed access)",
                      static_cast<size_t>(violations[i].address.load()), violations[i].size.load(),
                      attachName(violations[i].attach.load()));
        lines.emplace_back(line);
    }
    if (n > kViolations) lines.emplace_back("... " + std::to_string(n - kViolations) + " more");
    return lines;
}

void hold() {
    locked([&](RuntimeState& s) { s.held = true; });
}

void release() {
    locked([&](RuntimeState& s) { s.held = false; });
    released.notify_all();
}

size_t pendingLaunches() {
    return locked([&](RuntimeState& s) {
        size_t n = 0;
        for (const auto& [stream, work] : s.work) n += work.queued.size() + static_cast<size_t>(work.running);
        return n;
    });
}

}  // namespace hostrt
}  // namespace ruvo
