// Entry points of the image pipeline: the output configurations, the demosaic modes, the
// parameter block of the colour kernels, the dispatcher cudaISP that enqueues a configuration's
// kernel sequence on a bucket's stream, and the scratch allocation of the luminance histogram.
// Implemented once, in CUDAKernels.cu, for both builds.
#pragma once

#include <cuda_runtime.h>

#include <cstddef>
#include <cstdint>

namespace ruvo {
namespace capture {

enum CUDAOutputConfiguration {
    YUV_ONLY = 0,
    YUV_2 = 1,
    YUV_2_4_SKIN_HISTOGRAM = 2,
    YUV_2_4 = 3,
    YUV_SKIN = 4,
    YUV_GRADIENT = 5,
    YUV_2_4_GRADIENT = 6,
    YUV_2_4_GRADIENT_2_4 = 7,
    YUV_2_GRADIENT_VECTOR_2 = 8,
    BGGR = 9,
    NO_DEMOSAIC_RGB = 10,
    RGB_ONLY = 11
};

enum CUDADemosaicMode { BILINEAR_5 = 0, LANCZOS_11 = 1 };

// Passed by value to every colour kernel.
struct cudaKernelParams {
    const void* sbggr;  // raw frame: 16-bit samples, row-major, `width` per row, B G / G R quads
    uint32_t width;     // pixels; also the row stride of the raw frame and full-size outputs
    uint32_t height;    // rows processed (the bucket's allocated height)
    float gammaR;
    float gammaG;
    float gammaB;
    float gammaCr;
    float gammaCb;
};

// Enqueues the kernels of `outputBufferConfiguration` on `stream`; target k is output buffer k.
void cudaISP(cudaStream_t& stream, int outputBufferConfiguration, size_t nTargets, CUDADemosaicMode demosaicMode,
             const unsigned short* sbggr, unsigned char** targets, unsigned char*** extra, int** extraLengths,
             unsigned int width, unsigned int height, float gammaR, float gammaG, float gammaB, float gammaCr,
             float gammaCb, float colorModelThreshold);

// Sizes and allocates the scratch memory of the algorithm named `algorithm` for width x height
// one-byte samples; throws the std::string "CUB algorithm specification is invalid" for an
// unknown name.
void allocateCUBBuffer(unsigned int& temp_size, unsigned char** temp_storage, const char* algorithm, int width,
                       int height);

// Bytes the kernels write into output buffer `buffer` of `configuration` for a processed size of
// width x cudaHeight, in either demosaic mode; 0 for a buffer that no kernel writes. BGGR writes a
// 3-byte-per-pixel RGB view of the mosaic into its buffer 1, more than that buffer's table format
// (YUV420p) holds, so a bucket allocates the larger of the table size and this.
size_t kernelOutputBytes(int configuration, size_t buffer, unsigned width, unsigned cudaHeight);

}  // namespace capture
}  // namespace ruvo
