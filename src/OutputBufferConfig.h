// The output buffers of every output configuration, in buffer order: buffer k of a bucket is
// entry k of its configuration's row, and the kernels write exactly those positions.
#pragma once

#include <ruvo/capture/Frame.h>

#include <vector>

namespace ruvo {
namespace capture {

// Indexed by CUDAOutputConfiguration; 12 rows.
extern const std::vector<std::vector<OutputBufferDefinition>> CUDA_OUTPUT_BUFFER_CONFIG;

}  // namespace capture
}  // namespace ruvo
