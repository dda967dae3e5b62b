// Host runtime implementation: memory is aligned host memory, streams are plain objects,
// work enqueued on a stream has completed when the enqueuing call returns (in strict mode, when
// the stream is synchronised: HostDeviceModel.cpp). Every entry point can be made to fail through
// the fault table (HostRuntimeControl.h).
#include "HostRuntimeControl.h"
#include "HostRuntimeState.h"

#include <cuda_runtime.h>

#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <string>

namespace ruvo {
namespace hostrt {

thread_local cudaError_t lastError = cudaSuccess;  // per thread, as CUDA's

RuntimeState& state() {
    static RuntimeState* s = new RuntimeState();  // never destroyed: usable during static teardown
    return *s;
}

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

}  // namespace hostrt
}  // namespace ruvo

namespace {

using ruvo::hostrt::Allocation;
using ruvo::hostrt::RuntimeState;
using ruvo::hostrt::state;

constexpr size_t kAlignment = 256;  // as cudaMalloc: suitably aligned for any vector access

cudaError_t record(cudaError_t e) {
    if (e != cudaSuccess) ruvo::hostrt::lastError = e;
    return e;
}

// The opening of every entry point that can be made to fail: under the runtime's lock, the fault
// injected for `call` (the entry point's own name, __func__) if one is due, else body(state).
// Either error becomes the last error.
template <class Body>
cudaError_t entry(const char* call, Body&& body) {
    RuntimeState& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    if (cudaError_t e = ruvo::hostrt::injected(s, call)) return record(e);
    return record(body(s));
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
        {cudaErrorInvalidConfiguration, {"cudaErrorInvalidConfiguration", "invalid configuration argument"}},
        {cudaErrorNoKernelImageForDevice,
         {"cudaErrorNoKernelImageForDevice", "no kernel image is available for execution on the device"}},
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
// In strict mode managed memory is mapped twice (HostDeviceModel.cpp). The caller holds the mutex.
cudaError_t allocate(RuntimeState& s, void** ptr, size_t size, bool managed, unsigned attach) {
    if (ptr == nullptr) return cudaErrorInvalidValue;
    if (size == 0) {
        *ptr = nullptr;
        return managed ? cudaErrorInvalidValue : cudaSuccess;
    }
    Allocation record;
    record.size = size;
    record.managed = managed;
    record.attach = attach;
    void* p = nullptr;
    if (managed && s.strict) {
        if (!ruvo::hostrt::mapManaged(size, &p, record)) return cudaErrorMemoryAllocation;
    } else {
        record.mapped = (size + kAlignment - 1) / kAlignment * kAlignment;
        p = std::aligned_alloc(kAlignment, record.mapped);
        if (p == nullptr) return cudaErrorMemoryAllocation;
        record.deviceView = static_cast<unsigned char*>(p);
    }
    if (s.allocationFill >= 0) std::memset(record.deviceView, s.allocationFill, record.mapped);
    s.allocations[p] = record;
    s.contextActive = true;
    ruvo::hostrt::updateProtection(s);
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
        prop->concurrentManagedAccess = s.strict ? 0 : 1;
        prop->canMapHostMemory = 1;
        prop->integrated = 1;
        return cudaSuccess;
    });
}

cudaError_t cudaSetDevice(int device) {
    return entry(__func__, [&](RuntimeState& s) -> cudaError_t {
        if (device < 0 || device >= s.deviceCount) return cudaErrorInvalidDevice;
        s.device = device;
        s.contextActive = true;
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
        if (s.strict && s.contextActive) return cudaErrorSetOnActiveProcess;
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
    ruvo::hostrt::drainAll();
    return entry(__func__, [&](RuntimeState& s) -> cudaError_t {
        s.deviceFlags = 0;
        s.contextActive = false;
        return cudaSuccess;
    });
}

cudaError_t cudaDeviceSynchronize(void) {
    ruvo::hostrt::drainAll();
    return entry(__func__, [](RuntimeState&) { return cudaSuccess; });
}

cudaError_t cudaMallocManaged(void** devPtr, size_t size, unsigned int flags) {
    return entry(__func__, [&](RuntimeState& s) -> cudaError_t {
        if (flags != cudaMemAttachGlobal && flags != cudaMemAttachHost) return cudaErrorInvalidValue;
        return allocate(s, devPtr, size, true, flags);
    });
}

cudaError_t cudaMalloc(void** devPtr, size_t size) {
    return entry(__func__, [&](RuntimeState& s) { return allocate(s, devPtr, size, false, cudaMemAttachGlobal); });
}

// As on a device, freeing waits for the kernels that may still use the memory.
cudaError_t cudaFree(void* devPtr) {
    ruvo::hostrt::drainAll();
    return entry(__func__, [&](RuntimeState& s) -> cudaError_t {
        if (devPtr == nullptr) return cudaSuccess;
        auto it = s.allocations.find(devPtr);
        if (it == s.allocations.end()) return cudaErrorInvalidValue;
        if (it->second.guard >= 0) {
            ruvo::hostrt::unmapManaged(devPtr, it->second);
        } else {
            std::free(devPtr);
        }
        s.allocations.erase(it);
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
        s.contextActive = true;
        return cudaSuccess;
    });
}

cudaError_t cudaStreamCreate(cudaStream_t* stream) { return cudaStreamCreateWithFlags(stream, cudaStreamDefault); }

// The stream's pending kernels finish first, as they do on a device.
cudaError_t cudaStreamDestroy(cudaStream_t stream) {
    if (stream != nullptr) ruvo::hostrt::drain(stream);
    return entry(__func__, [&](RuntimeState& s) -> cudaError_t {
        if (s.streams.erase(stream) == 0) return cudaErrorInvalidResourceHandle;
        for (auto& [ptr, a] : s.allocations) {
            if (a.attach == cudaMemAttachSingle && a.stream == stream) {
                a.attach = cudaMemAttachGlobal;
                a.stream = nullptr;
            }
        }
        s.work.erase(stream);
        ruvo::hostrt::updateProtection(s);
        delete stream;
        return cudaSuccess;
    });
}

cudaError_t cudaStreamAttachMemAsync(cudaStream_t stream, void* devPtr, size_t length, unsigned int flags) {
    return entry(__func__, [&](RuntimeState& s) -> cudaError_t {
        auto alloc = s.allocations.find(devPtr);
        if (alloc == s.allocations.end() || !alloc->second.managed || (length != 0 && length != alloc->second.size)) {
            return cudaErrorInvalidValue;
        }
        if (stream != nullptr && s.streams.count(stream) == 0) return cudaErrorInvalidResourceHandle;
        if (flags == cudaMemAttachSingle && stream == nullptr) return cudaErrorInvalidValue;
        if (flags != cudaMemAttachSingle && flags != cudaMemAttachGlobal && flags != cudaMemAttachHost) {
            return cudaErrorInvalidValue;
        }
        alloc->second.attach = flags;
        alloc->second.stream = flags == cudaMemAttachSingle ? stream : nullptr;
        ruvo::hostrt::updateProtection(s);
        return cudaSuccess;
    });
}

cudaError_t cudaStreamSynchronize(cudaStream_t stream) {
    ruvo::hostrt::drain(stream);
    return entry(__func__, [&](RuntimeState& s) -> cudaError_t {
        if (stream != nullptr && s.streams.count(stream) == 0) return cudaErrorInvalidResourceHandle;
        return cudaSuccess;
    });
}

cudaError_t cudaGetLastError(void) {
    cudaError_t e = ruvo::hostrt::lastError;
    ruvo::hostrt::lastError = cudaSuccess;
    return e;
}

cudaError_t cudaPeekAtLastError(void) { return ruvo::hostrt::lastError; }

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
    locked([&](RuntimeState& s) { s.faults[call] = Fault{error, count, skip}; });
}

void resetFaults() {
    locked([&](RuntimeState& s) {
        s.faults.clear();
        s.deviceCount = 1;
        lastError = cudaSuccess;
        s.allocationFill = -1;
    });
}

void fillNewAllocations(int byte) {
    locked([&](RuntimeState& s) { s.allocationFill = byte; });
}

void setDeviceCount(int count) {
    locked([&](RuntimeState& s) { s.deviceCount = count; });
}

size_t liveAllocations() {
    return locked([&](RuntimeState& s) { return s.allocations.size(); });
}

size_t liveStreams() {
    return locked([&](RuntimeState& s) { return s.streams.size(); });
}

cudaStream_t attachedStream(const void* ptr) {
    return locked([&](RuntimeState& s) {
        auto it = s.allocations.find(ptr);
        return it == s.allocations.end() ? nullptr : it->second.stream;
    });
}

size_t allocationSize(const void* ptr) {
    return locked([&](RuntimeState& s) {
        auto it = s.allocations.find(ptr);
        return it == s.allocations.end() ? 0 : it->second.size;
    });
}

}  // namespace hostrt
}  // namespace ruvo
