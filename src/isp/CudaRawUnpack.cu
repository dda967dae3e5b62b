// CUDA build: the raw-frame conversion as one launch on the bucket's stream, one thread per
// output sample. Sizes are any even width and height, so the grid is rounded up and the threads
// past the frame return.
#include "isp/RawUnpack.h"

namespace ruvo {
namespace capture {

namespace {

template <class Unpack>
__global__ void raw_unpack(Unpack unpack) {
    const unsigned tx = blockIdx.x * blockDim.x + threadIdx.x;
    const unsigned ty = blockIdx.y * blockDim.y + threadIdx.y;
    if (tx < unpack.width && ty < unpack.height) unpack(tx, ty);
}

__global__ void raw_levels(kernels::RawLevelPass pass) {
    const unsigned tx = blockIdx.x * blockDim.x + threadIdx.x;
    const unsigned ty = blockIdx.y * blockDim.y + threadIdx.y;
    if (tx < pass.width && ty < pass.height) pass(tx, ty);
}

}  // namespace

// Launch failures are not checked here: the caller learns of them when it synchronises the stream.
void unpackRawFrame(cudaStream_t stream, const kernels::RawLayout& layout, const void* in, size_t inStride,
                    uint16_t* out, unsigned width, unsigned height) {
    const dim3 block(64, 4, 1);
    const dim3 grid((width + block.x - 1) / block.x, (height + block.y - 1) / block.y, 1);
    kernels::visitRawUnpack(layout, in, inStride, out, width, height,
                            [&](const auto& unpack) { raw_unpack<<<grid, block, 0, stream>>>(unpack); });
}

void applyRawLevels(cudaStream_t stream, const kernels::RawLevels& levels, uint16_t* data, unsigned width,
                    unsigned height) {
    const dim3 block(64, 4, 1);
    const dim3 grid((width + block.x - 1) / block.x, (height + block.y - 1) / block.y, 1);
    raw_levels<<<grid, block, 0, stream>>>(kernels::RawLevelPass{data, width, height, levels});
}

}  // namespace capture
}  // namespace ruvo
