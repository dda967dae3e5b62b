// Host build: the raw-frame conversion runs over the host thread grid and has completed on return.
#include "host/grid/HostRawUnpackRows.h"
#include "isp/RawUnpack.h"

namespace ruvo {
namespace capture {

void unpackRawFrame(cudaStream_t, const kernels::RawLayout& layout, const void* in, size_t inStride, uint16_t* out,
                    unsigned width, unsigned height) {
    kernels::visitRawUnpack(layout, in, inStride, out, width, height,
                            [](const auto& unpack) { kernels::runRawUnpack(unpack); });
}

void applyRawLevels(cudaStream_t, const kernels::RawLevels& levels, uint16_t* data, unsigned width, unsigned height) {
    kernels::runRawLevels(kernels::RawLevelPass{data, width, height, levels});
}

}  // namespace capture
}  // namespace ruvo
