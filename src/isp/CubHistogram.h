// The even-bin histogram as the dispatcher calls it. `cub::DeviceHistogram::HistogramEven` written
// inside ruvo::capture resolves to this adapter (an inner namespace hides ::cub), which keeps the
// call texts of the checked calls stable across CUB versions: the CUDA build forwards to the
// toolkit's CUB, the host build counts on CPU threads (src/host/runtime/HostCub.cpp).
#pragma once

#include <cuda_runtime.h>

#include <cstddef>

namespace ruvo {
namespace capture {
namespace cub {

struct DeviceHistogram {
    // Counts num_samples one-byte samples into num_levels - 1 bins of equal width over
    // [lower_level, upper_level) into d_histogram (bins are cleared first). With a null
    // d_temp_storage only the scratch size is written to temp_storage_bytes. debug_synchronous is
    // accepted for older CUB's argument list and has no effect.
    static cudaError_t HistogramEven(void* d_temp_storage, size_t& temp_storage_bytes, const unsigned char* d_samples,
                                     int* d_histogram, int num_levels, int lower_level, int upper_level,
                                     int num_samples, cudaStream_t stream = 0, bool debug_synchronous = false);
    // The same with a 32-bit scratch size.
    static cudaError_t HistogramEven(void* d_temp_storage, unsigned int& temp_storage_bytes,
                                     const unsigned char* d_samples, int* d_histogram, int num_levels, int lower_level,
                                     int upper_level, int num_samples, cudaStream_t stream = 0,
                                     bool debug_synchronous = false) {
        size_t bytes = temp_storage_bytes;
        const cudaError_t result = HistogramEven(d_temp_storage, bytes, d_samples, d_histogram, num_levels, lower_level,
                                                 upper_level, num_samples, stream, debug_synchronous);
        temp_storage_bytes = static_cast<unsigned int>(bytes);
        return result;
    }
};

}  // namespace cub
}  // namespace capture
}  // namespace ruvo
