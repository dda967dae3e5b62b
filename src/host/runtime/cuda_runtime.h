// Host runtime: the subset of the CUDA runtime API that the capture library calls, for the
// host build. Managed and device memory are ordinary aligned host memory; a stream is an
// object whose work has already run when the enqueuing call returns (unless the strict mode of
// HostRuntimeControl.h defers it to the stream's synchronisation). Error codes, flag values
// and error texts are CUDA's own, so messages read the same in both builds.
#pragma once

#include <cstddef>

#ifndef __host__
#define __host__
#endif
#ifndef __device__
#define __device__
#endif
#ifndef __global__
#define __global__
#endif
#ifndef __forceinline__
#define __forceinline__ inline __attribute__((always_inline))
#endif

// Error codes with CUDA's numbers (only those the host runtime can produce or tests inject).
enum cudaError {
    cudaSuccess = 0,
    cudaErrorInvalidValue = 1,
    cudaErrorMemoryAllocation = 2,
    cudaErrorInitializationError = 3,
    cudaErrorCudartUnloading = 4,
    cudaErrorInvalidConfiguration = 9,
    cudaErrorLaunchFailure = 719,
    cudaErrorInsufficientDriver = 35,
    cudaErrorInvalidDevice = 101,
    cudaErrorNoDevice = 100,
    cudaErrorNoKernelImageForDevice = 209,
    cudaErrorSetOnActiveProcess = 36,
    cudaErrorInvalidResourceHandle = 400,
    cudaErrorNotReady = 600,
    cudaErrorIllegalAddress = 700,
    cudaErrorLaunchOutOfResources = 701,
    cudaErrorHostMemoryAlreadyRegistered = 712,
    cudaErrorHostMemoryNotRegistered = 713,
    cudaErrorNotSupported = 801,
    cudaErrorUnknown = 999
};
typedef enum cudaError cudaError_t;

// Device flags (cudaSetDeviceFlags).
#define cudaDeviceScheduleAuto 0x00
#define cudaDeviceScheduleSpin 0x01
#define cudaDeviceScheduleYield 0x02
#define cudaDeviceScheduleBlockingSync 0x04
#define cudaDeviceMapHost 0x08
#define cudaDeviceLmemResizeToMax 0x10

// Managed memory attach flags.
#define cudaHostRegisterDefault 0x00
#define cudaHostRegisterMapped 0x02
#define cudaMemAttachGlobal 0x01
#define cudaMemAttachHost 0x02
#define cudaMemAttachSingle 0x04

// Stream flags.
#define cudaStreamDefault 0x00
#define cudaStreamNonBlocking 0x01

struct CUstream_st;
typedef struct CUstream_st* cudaStream_t;

struct cudaDeviceProp {
    char name[256];
    size_t totalGlobalMem;
    int major;
    int minor;
    int multiProcessorCount;
    int managedMemory;
    int concurrentManagedAccess;
    int canMapHostMemory;
    int integrated;
};

extern "C" {
cudaError_t cudaGetDeviceCount(int* count);
cudaError_t cudaGetDeviceProperties(cudaDeviceProp* prop, int device);
cudaError_t cudaSetDevice(int device);
cudaError_t cudaGetDevice(int* device);
cudaError_t cudaSetDeviceFlags(unsigned int flags);
cudaError_t cudaGetDeviceFlags(unsigned int* flags);
cudaError_t cudaDeviceReset(void);
cudaError_t cudaDeviceSynchronize(void);
cudaError_t cudaMallocManaged(void** devPtr, size_t size, unsigned int flags);
cudaError_t cudaMalloc(void** devPtr, size_t size);
cudaError_t cudaFree(void* devPtr);
cudaError_t cudaHostRegister(void* ptr, size_t size, unsigned int flags);
cudaError_t cudaHostUnregister(void* ptr);
cudaError_t cudaHostGetDevicePointer(void** pDevice, void* pHost, unsigned int flags);
cudaError_t cudaStreamCreate(cudaStream_t* stream);
cudaError_t cudaStreamCreateWithFlags(cudaStream_t* stream, unsigned int flags);
cudaError_t cudaStreamDestroy(cudaStream_t stream);
cudaError_t cudaStreamAttachMemAsync(cudaStream_t stream, void* devPtr, size_t length, unsigned int flags);
cudaError_t cudaStreamSynchronize(cudaStream_t stream);
cudaError_t cudaGetLastError(void);
cudaError_t cudaPeekAtLastError(void);
const char* cudaGetErrorName(cudaError_t error);
const char* cudaGetErrorString(cudaError_t error);
}

// The runtime's C++ overload for typed device pointers.
template <class T>
inline cudaError_t cudaMalloc(T** devPtr, size_t size) {
    return cudaMalloc(reinterpret_cast<void**>(devPtr), size);
}
