// Host runtime implementation: memory is aligned host memory, streams are plain objects,
// work enqueued on a stream has completed when the enqueuing call returns. Every entry point
// can be made to fail through the fault table (HostRuntimeControl.h).
#include "HostRuntimeControl.h"

#include <cuda_runtime.h>

#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <set>
#include <string>

struct CUstream_st {
    unsigned int flags;
};

namespace {

constexpr size_t kAlignment = 256;  // as cudaMalloc: suitably aligned for any vector access

struct Fault {
    cudaError_t error;
    int count;
    int skip;
};

struct RuntimeState {
    std::mutex mutex;
    std::map<std::string, Fault> faults;
    std::map<const void*, size_t> allocations;
    std::map<const void*, cudaStream_t> attachments;
    std::map<const void*, size_t> registered;  // host ranges made device-accessible
    std::set<cudaStream_t> streams;
    int deviceCount = 1;
    int device = 0;
    unsigned int deviceFlags = 0;
    cudaError_t lastError = cudaSuccess;
    int allocationFill = -1;  // byte every new allocation is filled with, -1 for none
};

RuntimeState& state() {
    static RuntimeState* s = new RuntimeState();  // never destroyed: usable during static teardown
    return *s;
}

// Returns the injected error for `call`, or cudaSuccess; caller holds the mutex.
cudaError_t injected(RuntimeState& s, const char* call) {
    auto it = s.faults.find(call);
    if (it == s.faults.end()) return cudaSuccess;
    Fault& f = it->second;
    if (f.skip > 0) {
        --f.skip;
        return cudaSuccess;
    }
    cudaError_t e = f.error;
    if (--f.count <= 0) s.faults.erase(it);
    return e;
}

cudaError_t record(RuntimeState& s, cudaError_t e) {
    if (e != cudaSuccess) s.lastError = e;
    return e;
}

// The opening of every entry point that can be made to fail: under the runtime's lock, the fault
// injected for `call` (the entry point's own name, __func__) if one is due, else body(state).
// Either error becomes the last error.
template <class Body>
cudaError_t entry(const char* call, Body&& body) {
    RuntimeState& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    if (cudaError_t e = injected(s, call)) return record(s, e);
    return record(s, body(s));
}

struct ErrorText {
    const char* name;
    const char* text;
};

const std::map<int, ErrorText>& errorTexts() {
    static const std::map<int, ErrorText> texts = {
        {cudaSuccess, {"cudaSuccess", "no error"}},
        {cudaErrorInvalidValue, {"cudaErrorInvalidValue", "invalid argument"}},
        {cudaErrorMemoryAllocation, {"cudaErrorMemoryAllocation", "out of memory"}},
        {cudaErrorInitializationError, {"cudaErrorInitializationError", "initialization error"}},
        {cudaErrorCudartUnloading, {"cudaErrorCudartUnloading", "driver shutting down"}},
        {cudaErrorInsufficientDriver,
         {"cudaErrorInsufficientDriver", "CUDA driver version is insufficient for CUDA runtime version"}},
        {cudaErrorSetOnActiveProcess,
         {"cudaErrorSetOnActiveProcess", "cannot set while device is active in this process"}},
        {cudaErrorNoDevice, {"cudaErrorNoDevice", "no CUDA-capable device is detected"}},
        {cudaErrorInvalidDevice, {"cudaErrorInvalidDevice", "invalid device ordinal"}},
        {cudaErrorInvalidResourceHandle, {"cudaErrorInvalidResourceHandle", "invalid resource handle"}},
        {cudaErrorNotReady, {"cudaErrorNotReady", "device not ready"}},
        {cudaErrorIllegalAddress, {"cudaErrorIllegalAddress", "an illegal memory access was encountered"}},
        {cudaErrorLaunchOutOfResources, {"cudaErrorLaunchOutOfResources", "too many resources requested for launch"}},
        {cudaErrorLaunchFailure, {"cudaErrorLaunchFailure", "unspecified launch failure"}},
        {cudaErrorNotSupported, {"cudaErrorNotSupported", "operation not supported"}},
        {cudaErrorHostMemoryAlreadyRegistered,
         {"cudaErrorHostMemoryAlreadyRegistered", "part or all of the requested memory range is already mapped"}},
        {cudaErrorHostMemoryNotRegistered,
         {"cudaErrorHostMemoryNotRegistered", "pointer does not correspond to a registered memory region"}},
        {cudaErrorUnknown, {"cudaErrorUnknown", "unknown error"}},
    };
    return texts;
}

// cudaMalloc of 0 bytes succeeds with a null pointer; cudaMallocManaged of 0 bytes is invalid.
// The caller holds the mutex.
cudaError_t allocate(RuntimeState& s, void** ptr, size_t size, bool zeroIsError) {
    if (ptr == nullptr) return cudaErrorInvalidValue;
    if (size == 0) {
        *ptr = nullptr;
        return zeroIsError ? cudaErrorInvalidValue : cudaSuccess;
    }
    size_t rounded = (size + kAlignment - 1) / kAlignment * kAlignment;
    void* p = std::aligned_alloc(kAlignment, rounded);
    if (p == nullptr) return cudaErrorMemoryAllocation;
    if (s.allocationFill >= 0) std::memset(p, s.allocationFill, rounded);
    s.allocations[p] = size;
    *ptr = p;
    return cudaSuccess;
}

}  // namespace

extern "C" {

cudaError_t cudaGetDeviceCount(int* count) {
    return entry(__func__, [&](RuntimeState& s) -> cudaError_t {
        if (count == nullptr) return cudaErrorInvalidValue;
        *count = s.deviceCount;
        return cudaSuccess;
    });
}

cudaError_t cudaGetDeviceProperties(cudaDeviceProp* prop, int device) {
    return entry(__func__, [&](RuntimeState& s) -> cudaError_t {
        if (prop == nullptr) return cudaErrorInvalidValue;
        if (device < 0 || device >= s.deviceCount) return cudaErrorInvalidDevice;
        std::memset(prop, 0, sizeof(*prop));
        std::strncpy(prop->name, "Host CPU (ruvo host runtime)", sizeof(prop->name) - 1);
        prop->major = 0;
        prop->minor = 0;
        prop->multiProcessorCount = 1;
        prop->managedMemory = 1;
        prop->concurrentManagedAccess = 1;
        prop->canMapHostMemory = 1;
        prop->integrated = 1;
        return cudaSuccess;
    });
}

cudaError_t cudaSetDevice(int device) {
    return entry(__func__, [&](RuntimeState& s) -> cudaError_t {
        if (device < 0 || device >= s.deviceCount) return cudaErrorInvalidDevice;
        s.device = device;
        return cudaSuccess;
    });
}

cudaError_t cudaGetDevice(int* device) {
    return entry(__func__, [&](RuntimeState& s) -> cudaError_t {
        if (device == nullptr) return cudaErrorInvalidValue;
        *device = s.device;
        return cudaSuccess;
    });
}

cudaError_t cudaSetDeviceFlags(unsigned int flags) {
    return entry(__func__, [&](RuntimeState& s) -> cudaError_t {
        if (flags & ~0x1fu) return cudaErrorInvalidValue;
        s.deviceFlags = flags;
        return cudaSuccess;
    });
}

cudaError_t cudaGetDeviceFlags(unsigned int* flags) {
    return entry(__func__, [&](RuntimeState& s) -> cudaError_t {
        if (flags == nullptr) return cudaErrorInvalidValue;
        *flags = s.deviceFlags;
        return cudaSuccess;
    });
}

cudaError_t cudaDeviceReset(void) {
    return entry(__func__, [&](RuntimeState& s) -> cudaError_t {
        s.deviceFlags = 0;
        return cudaSuccess;
    });
}

cudaError_t cudaDeviceSynchronize(void) {
    return entry(__func__, [](RuntimeState&) { return cudaSuccess; });
}

cudaError_t cudaMallocManaged(void** devPtr, size_t size, unsigned int flags) {
    return entry(__func__, [&](RuntimeState& s) -> cudaError_t {
        if (flags != cudaMemAttachGlobal && flags != cudaMemAttachHost) return cudaErrorInvalidValue;
        return allocate(s, devPtr, size, true);
    });
}

cudaError_t cudaMalloc(void** devPtr, size_t size) {
    return entry(__func__, [&](RuntimeState& s) { return allocate(s, devPtr, size, false); });
}

cudaError_t cudaFree(void* devPtr) {
    return entry(__func__, [&](RuntimeState& s) -> cudaError_t {
        if (devPtr == nullptr) return cudaSuccess;
        auto it = s.allocations.find(devPtr);
        if (it == s.allocations.end()) return cudaErrorInvalidValue;
        s.allocations.erase(it);
        s.attachments.erase(devPtr);
        std::free(devPtr);
        return cudaSuccess;
    });
}

// Host memory is device memory here: registering only records the range, so that the pointer
// the device would use can be asked for and the range given back once.
cudaError_t cudaHostRegister(void* ptr, size_t size, unsigned int flags) {
    return entry(__func__, [&](RuntimeState& s) -> cudaError_t {
        if (ptr == nullptr || size == 0 || (flags & ~0x0fu) != 0) return cudaErrorInvalidValue;
        if (!s.registered.emplace(ptr, size).second) return cudaErrorHostMemoryAlreadyRegistered;
        return cudaSuccess;
    });
}

cudaError_t cudaHostUnregister(void* ptr) {
    return entry(__func__, [&](RuntimeState& s) -> cudaError_t {
        return s.registered.erase(ptr) == 1 ? cudaSuccess : cudaErrorHostMemoryNotRegistered;
    });
}

cudaError_t cudaHostGetDevicePointer(void** pDevice, void* pHost, unsigned int flags) {
    return entry(__func__, [&](RuntimeState& s) -> cudaError_t {
        if (pDevice == nullptr || flags != 0) return cudaErrorInvalidValue;
        auto it = s.registered.upper_bound(pHost);
        if (it == s.registered.begin()) return cudaErrorInvalidValue;
        --it;
        const auto* base = static_cast<const char*>(it->first);
        if (static_cast<const char*>(pHost) >= base + it->second) return cudaErrorInvalidValue;
        *pDevice = pHost;
        return cudaSuccess;
    });
}

cudaError_t cudaStreamCreateWithFlags(cudaStream_t* stream, unsigned int flags) {
    return entry(__func__, [&](RuntimeState& s) -> cudaError_t {
        if (stream == nullptr || (flags & ~1u)) return cudaErrorInvalidValue;
        *stream = new CUstream_st{flags};
        s.streams.insert(*stream);
        return cudaSuccess;
    });
}

cudaError_t cudaStreamCreate(cudaStream_t* stream) { return cudaStreamCreateWithFlags(stream, cudaStreamDefault); }

cudaError_t cudaStreamDestroy(cudaStream_t stream) {
    return entry(__func__, [&](RuntimeState& s) -> cudaError_t {
        if (s.streams.erase(stream) == 0) return cudaErrorInvalidResourceHandle;
        for (auto it = s.attachments.begin(); it != s.attachments.end();) {
            it = it->second == stream ? s.attachments.erase(it) : std::next(it);
        }
        delete stream;
        return cudaSuccess;
    });
}

cudaError_t cudaStreamAttachMemAsync(cudaStream_t stream, void* devPtr, size_t length, unsigned int flags) {
    return entry(__func__, [&](RuntimeState& s) -> cudaError_t {
        auto alloc = s.allocations.find(devPtr);
        if (alloc == s.allocations.end() || (length != 0 && length != alloc->second)) {
            return cudaErrorInvalidValue;
        }
        if (stream != nullptr && s.streams.count(stream) == 0) return cudaErrorInvalidResourceHandle;
        if (flags == cudaMemAttachSingle) {
            if (stream == nullptr) return cudaErrorInvalidValue;
            s.attachments[devPtr] = stream;
        } else if (flags == cudaMemAttachGlobal || flags == cudaMemAttachHost) {
            s.attachments.erase(devPtr);
        } else {
            return cudaErrorInvalidValue;
        }
        return cudaSuccess;
    });
}

cudaError_t cudaStreamSynchronize(cudaStream_t stream) {
    return entry(__func__, [&](RuntimeState& s) -> cudaError_t {
        if (stream != nullptr && s.streams.count(stream) == 0) return cudaErrorInvalidResourceHandle;
        return cudaSuccess;
    });
}

cudaError_t cudaGetLastError(void) {
    RuntimeState& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    cudaError_t e = s.lastError;
    s.lastError = cudaSuccess;
    return e;
}

cudaError_t cudaPeekAtLastError(void) {
    RuntimeState& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    return s.lastError;
}

// Unknown codes have no name: a null pointer, which the error reporting must survive.
const char* cudaGetErrorName(cudaError_t error) {
    auto it = errorTexts().find(error);
    return it == errorTexts().end() ? nullptr : it->second.name;
}

const char* cudaGetErrorString(cudaError_t error) {
    auto it = errorTexts().find(error);
    return it == errorTexts().end() ? "unrecognized error code" : it->second.text;
}

}  // extern "C"

namespace ruvo {
namespace hostrt {

void failCall(const std::string& call, cudaError_t error, int count, int skip) {
    RuntimeState& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.faults[call] = Fault{error, count, skip};
}

void resetFaults() {
    RuntimeState& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.faults.clear();
    s.deviceCount = 1;
    s.lastError = cudaSuccess;
    s.allocationFill = -1;
}

void fillNewAllocations(int byte) {
    RuntimeState& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.allocationFill = byte;
}

void setDeviceCount(int count) {
    RuntimeState& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.deviceCount = count;
}

size_t liveAllocations() {
    RuntimeState& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    return s.allocations.size();
}

size_t liveStreams() {
    RuntimeState& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    return s.streams.size();
}

cudaStream_t attachedStream(const void* ptr) {
    RuntimeState& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    auto it = s.attachments.find(ptr);
    return it == s.attachments.end() ? nullptr : it->second;
}

size_t allocationSize(const void* ptr) {
    RuntimeState& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    auto it = s.allocations.find(ptr);
    return it == s.allocations.end() ? 0 : it->second;
}

}  // namespace hostrt
}  // namespace ruvo
