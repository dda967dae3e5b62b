// Test and diagnostics hooks of the host runtime: make a chosen runtime call or kernel launch fail
// with a chosen error, set the number of devices, poison new allocations, count live allocations
// and streams so that tests can check that every buffer and stream that was made is given back,
// and the strict mode that behaves as a device without concurrent managed access.
#pragma once

#include <cuda_runtime.h>

#include <cstddef>
#include <string>
#include <vector>

namespace ruvo {
namespace hostrt {

// The next `count` calls of the runtime function `call` (its name, e.g. "cudaMallocManaged"), or
// launches of the kernel of that name (e.g. "yuv420_fast"), after skipping `skip` successful ones,
// return `error` without doing anything.
void failCall(const std::string& call, cudaError_t error, int count = 1, int skip = 0);
// Removes every injected failure, restores one device and stops filling allocations.
void resetFaults();
// Fills every later allocation with `byte` (0 to 255; -1, the default, leaves memory as the system
// allocator gives it), so that a test sees reads of memory nothing has written, as on a GPU whose
// allocator hands back memory used before.
void fillNewAllocations(int byte);
// Number of devices the runtime reports (default 1; 0 makes cudaGetDeviceCount report none).
void setDeviceCount(int count);

// Allocations (managed and device) and streams currently alive.
size_t liveAllocations();
size_t liveStreams();
// Stream attachment recorded for a managed pointer: the stream, or null when global.
cudaStream_t attachedStream(const void* ptr);
// Size in bytes of a live allocation, 0 when `ptr` is not the start of one.
size_t allocationSize(const void* ptr);

// Strict mode, the behaviour of a device without concurrent managed access (every integrated
// GPU): reported as concurrentManagedAccess 0; kernels run when their stream (or the device) is
// synchronised, not inside the launch; managed memory attached globally cannot be touched by the
// CPU while any kernel is pending or running, memory attached to one stream while that stream's
// kernels are; device flags cannot be set once the device's context exists. A CPU access that a
// device would answer with a bus error is recorded (accessViolations) and then let through.
// Switched only while no allocation is alive (std::logic_error otherwise).
void setStrictMode(bool on);
// One line per recorded access: address, allocation size and attachment.
std::vector<std::string> accessViolations();
// Strict mode: while held, synchronising waits before it runs any kernel, so a test can act while
// kernels are pending; release() lets them run.
void hold();
void release();
// Kernels enqueued or running and not yet finished, on all streams.
size_t pendingLaunches();

}  // namespace hostrt
}  // namespace ruvo
