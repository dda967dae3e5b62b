// Conversion of a delivered raw frame to the pipeline's input layout, enqueued on a bucket's
// stream before the colour kernels: a kernel launch in the CUDA build (src/isp/CudaRawUnpack.cu),
// a run over the host thread grid in the host build (src/host/HostRawUnpack.cpp).
#pragma once

#include "kernels/RawSamples.h"

#include <cuda_runtime.h>

#include <cstddef>
#include <cstdint>

namespace ruvo {
namespace capture {

// Writes width x height pipeline samples to `out` from the frame at `in` (rows of `inStride`
// bytes in `layout`). width and height are even and at least 2. Nothing is to be done, and this
// must not be called, for kernels::kPipelineLayout.
void unpackRawFrame(cudaStream_t stream, const kernels::RawLayout& layout, const void* in, size_t inStride,
                    uint16_t* out, unsigned width, unsigned height);

// Subtracts the black level and applies the channel gains to width x height pipeline samples in
// place (after the conversion, or on the default layout as delivered).
void applyRawLevels(cudaStream_t stream, const kernels::RawLevels& levels, uint16_t* data, unsigned width,
                    unsigned height);

}  // namespace capture
}  // namespace ruvo
