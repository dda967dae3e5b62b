// Host build's even-bin histogram: the samples are split into slices counted in parallel into
// per-slice counters in the scratch memory, which are then summed into the output counters. The
// count is a kernel on the stream (deferred in strict mode), as the toolkit's is.
#include "isp/CubHistogram.h"

#include "HostDeviceWork.h"

#include <cstdint>
#include <cstring>

namespace ruvo {
namespace capture {
namespace cub {

namespace {

constexpr int kSlices = 8;

size_t scratchBytes(int bins) { return static_cast<size_t>(kSlices) * static_cast<size_t>(bins) * sizeof(int); }

void countSlice(const unsigned char* samples, int begin, int end, int* counts, int bins, int lower, int upper) {
    std::memset(counts, 0, static_cast<size_t>(bins) * sizeof(int));
    const int64_t range = static_cast<int64_t>(upper) - lower;
    for (int i = begin; i < end; ++i) {
        const int value = samples[i];
        if (value < lower || value >= upper) continue;
        counts[(static_cast<int64_t>(value) - lower) * bins / range] += 1;
    }
}

void count(const unsigned char* samples, int n, int* partial, int* histogram, int bins, int lower, int upper) {
#pragma omp parallel for schedule(static)
    for (int slice = 0; slice < kSlices; ++slice) {
        const int begin = static_cast<int>(static_cast<int64_t>(n) * slice / kSlices);
        const int end = static_cast<int>(static_cast<int64_t>(n) * (slice + 1) / kSlices);
        countSlice(samples, begin, end, partial + static_cast<size_t>(slice) * bins, bins, lower, upper);
    }
    for (int bin = 0; bin < bins; ++bin) {
        int total = 0;
        for (int slice = 0; slice < kSlices; ++slice) total += partial[static_cast<size_t>(slice) * bins + bin];
        histogram[bin] = total;
    }
}

}  // namespace

cudaError_t DeviceHistogram::HistogramEven(void* d_temp_storage, size_t& temp_storage_bytes,
                                           const unsigned char* d_samples, int* d_histogram, int num_levels,
                                           int lower_level, int upper_level, int num_samples, cudaStream_t stream,
                                           bool) {
    if (num_levels < 2 || upper_level <= lower_level || num_samples < 0) return cudaErrorInvalidValue;
    const int bins = num_levels - 1;
    if (d_temp_storage == nullptr) {
        temp_storage_bytes = scratchBytes(bins);
        return cudaSuccess;
    }
    if (temp_storage_bytes < scratchBytes(bins) || d_histogram == nullptr) return cudaErrorInvalidValue;
    if (d_samples == nullptr && num_samples > 0) return cudaErrorInvalidValue;
    return hostrt::launch(
        "DeviceHistogramSweepKernel", stream,
        [partial = hostrt::deviceView(static_cast<int*>(d_temp_storage)), samples = hostrt::deviceView(d_samples),
         histogram = hostrt::deviceView(d_histogram), bins, lower_level, upper_level,
         num_samples] { count(samples, num_samples, partial, histogram, bins, lower_level, upper_level); });
}

}  // namespace cub
}  // namespace capture
}  // namespace ruvo
