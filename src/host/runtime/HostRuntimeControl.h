// Test and diagnostics hooks of the host runtime: make a chosen runtime call fail with a
// chosen error, set the number of devices, poison new allocations, and count live allocations
// and streams so that tests can check that every buffer and stream that was made is given back.
#pragma once

#include <cuda_runtime.h>

#include <cstddef>
#include <string>

namespace ruvo {
namespace hostrt {

// The next `count` calls of the runtime function `call` (its name, e.g. "cudaMallocManaged"),
// after skipping `skip` successful ones, return `error` without doing anything.
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

}  // namespace hostrt
}  // namespace ruvo
