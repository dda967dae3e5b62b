// The image pipeline's dispatcher, the same source in both builds (the host build compiles this
// file as C++): the kernel plan of a configuration handed launch by launch to the build's executor
// (src/isp/LaunchExecutor.h) and checked launch by launch, the skin-luminance histogram through the
// CUB adapter, and the histogram's scratch allocation.
#undef NDEBUG  // an unsupported processed size must abort in every build type

#include "CUDAKernels.h"

#include "CUDAUtils.h"
#include "isp/CubHistogram.h"
#include "isp/IspDispatch.h"
#include "isp/IspPlan.h"
#include "isp/LaunchExecutor.h"
#include "isp/LaunchGeometry.h"

#include <cstring>
#include <sstream>
#include <string>

namespace ruvo {
namespace capture {

namespace {

// Histogram of the half-size skin luminance plane (target 3) into the 256 counters of target 4,
// with the scratch memory allocated for target 4.
void histogramOfSkinLuminance(cudaStream_t& stream, unsigned char** targets, unsigned char*** extra, int** extraLengths,
                              unsigned int width, unsigned int height) {
    void* d_temp_storage = extra[4][0];
    size_t temp_storage_bytes = static_cast<size_t>(extraLengths[4][0]);
    int* d_hist = reinterpret_cast<int*>(targets[4]);
    const int n_levels = 257;
    // clang-format off
    CUDA_CHECK(cub::DeviceHistogram::HistogramEven( d_temp_storage, temp_storage_bytes, targets[3], d_hist, n_levels, 0, 256, (int)(width*height/4), stream, false));
    // clang-format on
}

// A launch fails at once (no kernel image for the device, too many resources for the block, an
// invalid configuration) and only cudaGetLastError says so; the stream's synchronisation would not.
// The message names the kernel, its shape, the output configuration and the size.
void checkLaunch(const kernels::PlannedLaunch& launch, const kernels::LaunchGeometry& geometry, int configuration) {
    const cudaError_t error = cudaGetLastError();
    if (error == cudaSuccess) return;
    const kernels::LaunchShape shape = geometry.shape(launch.step);
    std::ostringstream call;
    call << kernels::kernelName(launch.kernel) << "<<<(" << shape.grid.x << ", " << shape.grid.y << "), ("
         << shape.block.x << ", " << shape.block.y << ")>>> of output configuration " << configuration << " at "
         << geometry.width << "x" << geometry.height;
    cuda_throw(error, projectRelativePath(__FILE__), __LINE__, call.str().c_str());
}

// The plan must not reach past the targets the caller has: a controls record whose configuration
// index names more buffers than its output list would otherwise have kernels write through
// pointers that do not exist.
void checkTargets(int configuration, CUDADemosaicMode mode, size_t nTargets) {
    const int highest = kernels::highestTarget(kernels::planIsp(configuration, mode));
    if (static_cast<size_t>(highest) < nTargets) return;
    throw CUDADeviceException("Output configuration " + std::to_string(configuration) + " writes buffer " +
                              std::to_string(highest) + " but only " + std::to_string(nTargets) +
                              " output buffers were given");
}

}  // namespace

void cudaISP(cudaStream_t& stream, int outputBufferConfiguration, size_t nTargets, CUDADemosaicMode demosaicMode,
             const unsigned short* sbggr, unsigned char** targets, unsigned char*** extra, int** extraLengths,
             unsigned int width, unsigned int height, float gammaR, float gammaG, float gammaB, float gammaCr,
             float gammaCb, float colorModelThreshold) {
    checkTargets(outputBufferConfiguration, demosaicMode, nTargets);
    const cudaKernelParams params{sbggr, width, height, gammaR, gammaG, gammaB, gammaCr, gammaCb};
    (void)cudaGetLastError();  // an earlier failure was reported by its own checked call
    kernels::dispatchIsp(
        outputBufferConfiguration, demosaicMode, width, height,
        [&](const kernels::PlannedLaunch& launch, const kernels::LaunchGeometry& geometry) {
            kernels::executeLaunch(launch, geometry, params, targets, colorModelThreshold, stream);
            checkLaunch(launch, geometry, outputBufferConfiguration);
        },
        [&] { histogramOfSkinLuminance(stream, targets, extra, extraLengths, width, height); });
}

void allocateCUBBuffer(unsigned int& temp_size, unsigned char** temp_storage, const char* algorithm, int width,
                       int height) {
    temp_size = 0;
    if (std::strcmp(algorithm, "DeviceHistogram::HistogramEven") != 0) {
        throw std::string("CUB algorithm specification is invalid");
    }
    // clang-format off
    CUDA_CHECK(cub::DeviceHistogram::HistogramEven(NULL, temp_size, ((unsigned char*)NULL), ((int*)NULL), 257, 0, 256, width*height));
    // clang-format on
    if (temp_size != 0) CUDA_CHECK(cudaMalloc(temp_storage, temp_size));
}

size_t kernelOutputBytes(int configuration, size_t buffer, unsigned width, unsigned cudaHeight) {
    return kernels::plannedOutputBytes(configuration, buffer, width, cudaHeight);
}

}  // namespace capture
}  // namespace ruvo
