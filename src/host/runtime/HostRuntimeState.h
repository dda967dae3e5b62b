// The host runtime's shared state, used by the entry points (HostRuntime.cpp) and by the model of a
// device without concurrent managed access (HostDeviceModel.cpp). Internal to src/host/runtime/.
#pragma once

#include <cuda_runtime.h>

#include <cstddef>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>

struct CUstream_st {
    unsigned int flags;
};

namespace ruvo {
namespace hostrt {

struct Fault {
    cudaError_t error;
    int count;
    int skip;
};

struct Allocation {
    size_t size = 0;                        // bytes asked for
    size_t mapped = 0;                      // bytes the host view spans
    bool managed = false;                   // cudaMallocManaged rather than cudaMalloc
    unsigned attach = cudaMemAttachGlobal;  // cudaMemAttachGlobal, Host or Single
    cudaStream_t stream = nullptr;          // the stream of a cudaMemAttachSingle attachment
    unsigned char* deviceView = nullptr;    // where kernels reach the same bytes (strict: a second mapping)
    int guard = -1;                         // slot in the protection table (strict, managed only)
};

// Kernels enqueued on one stream and not yet finished (strict mode).
struct StreamWork {
    std::deque<std::function<void()>> queued;
    int running = 0;
    bool busy() const { return running > 0 || !queued.empty(); }
};

struct RuntimeState {
    std::mutex mutex;
    std::map<std::string, Fault> faults;
    std::map<const void*, Allocation> allocations;
    std::map<const void*, size_t> registered;  // host ranges given to cudaHostRegister, by start
    std::set<cudaStream_t> streams;
    std::map<cudaStream_t, StreamWork> work;  // by stream; the null stream too
    int deviceCount = 1;
    int device = 0;
    unsigned int deviceFlags = 0;
    bool contextActive = false;  // made by the first cudaSetDevice, allocation or stream; ended by reset
    int allocationFill = -1;     // byte every new allocation is filled with, -1 for none
    bool strict = false;
    bool held = false;  // strict: device work waits (hold()) before it runs
};

RuntimeState& state();

// body(state) under the runtime's lock.
template <class Body>
auto locked(Body&& body) {
    RuntimeState& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    return body(s);
}
// The calling thread's last error, as cudaGetLastError reports it.
extern thread_local cudaError_t lastError;
// Returns the injected error for `call` (a runtime function or kernel name), or cudaSuccess;
// caller holds the mutex.
cudaError_t injected(RuntimeState& s, const char* call);

// Strict-mode memory: a managed allocation of `bytes` mapped twice (host view returned, device
// view in the record); false when the system refuses the mapping.
bool mapManaged(size_t bytes, void** hostView, Allocation& record);
void unmapManaged(void* hostView, Allocation& record);
// Brings the host views' protection in line with the pending work; caller holds the mutex.
void updateProtection(RuntimeState& s);
// Installs the handler that records a CPU access to a protected host view (once per process).
void installAccessHandler();
// Runs, on the calling thread and in order, the work queued on `stream` (strict mode).
void drain(cudaStream_t stream);
// Runs the work queued on every stream (strict mode).
void drainAll();

}  // namespace hostrt
}  // namespace ruvo
