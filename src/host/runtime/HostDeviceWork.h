// How the host build's executors hand kernels to the host runtime: a launch on a stream (run at
// once, or in strict mode when the stream is synchronised), and the pointer the kernel itself
// uses for a buffer (in strict mode managed memory is reached by kernels through a second mapping,
// so that its host view can be protected while the kernel is pending).
#pragma once

#include <cuda_runtime.h>

#include <functional>

namespace ruvo {
namespace hostrt {

// Launches `work` as the kernel `kernel` on `stream`. A failure injected for the kernel's name
// (failCall) fails the launch as a real launch-time error does: nothing runs, and only
// cudaGetLastError / cudaPeekAtLastError report it. Returns the launch's error (as CUB's launches do).
cudaError_t launch(const char* kernel, cudaStream_t stream, std::function<void()> work);

// The address kernels use for `ptr`: in strict mode the device view of a managed allocation
// (any offset into it), otherwise `ptr` itself.
const void* deviceView(const void* ptr);
template <class T>
T* deviceView(T* ptr) {
    return static_cast<T*>(const_cast<void*>(deviceView(static_cast<const void*>(ptr))));
}

}  // namespace hostrt
}  // namespace ruvo
