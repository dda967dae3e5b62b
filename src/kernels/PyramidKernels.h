// Per-thread work of the pyramid kernels: halving a YUV420p image, reducing a Y8 plane by four in
// one pass, and halving a Y8 plane with erosion of zeros. Averages are integer sums with the
// remainder dropped, except the erosion's, which is a single-precision quarter truncated.
#pragma once

#include "FastMath.h"

#include <cstddef>

namespace ruvo {
namespace capture {
namespace kernels {

// Sum of the 2 x 2 samples at (y, x) of a plane with row stride `stride`.
__host__ __device__ __forceinline__ unsigned sum2x2(const unsigned char* plane, size_t stride, size_t y, size_t x) {
    const unsigned char* p = plane + y * stride + x;
    return static_cast<unsigned>(p[0]) + p[1] + p[stride] + p[stride + 1];
}

// Halves the 4 x 4 block of thread (tx, ty) of a YUV420p image of width x height: the block's
// four 2 x 2 luma averages and the 2 x 2 chroma average of each chroma plane.
//
//   input Y (stride W)           output Y (stride W/2)
//   a a b b                      A B        A = (a + a + a + a) >> 2, ...
//   a a b b          -->         C D
//   c c d d
//   c c d d
__host__ __device__ __forceinline__ void stepDownYuvBlock(const unsigned char* in, unsigned width, unsigned height,
                                                          unsigned char* out, size_t tx, size_t ty) {
    const size_t w = width;
    const size_t plane = w * height;
    for (unsigned i = 0; i < 2; ++i) {
        for (unsigned j = 0; j < 2; ++j) {
            const unsigned sum = sum2x2(in, w, 4 * ty + 2 * i, 4 * tx + 2 * j);
            out[(2 * ty + i) * (w / 2) + 2 * tx + j] = static_cast<unsigned char>(sum >> 2);
        }
    }
    const size_t outChroma = ty * (w / 4) + tx;
    const unsigned u = sum2x2(in + plane, w / 2, 2 * ty, 2 * tx);
    out[plane / 4 + outChroma] = static_cast<unsigned char>(u >> 2);
    const unsigned v = sum2x2(in + plane + plane / 4, w / 2, 2 * ty, 2 * tx);
    out[5 * plane / 16 + outChroma] = static_cast<unsigned char>(v >> 2);
}

struct StepDownYuv {
    const unsigned char* in;
    int width;
    int height;
    unsigned char* out;
    __host__ __device__ __forceinline__ void operator()(unsigned tx, unsigned ty) const {
        stepDownYuvBlock(in, static_cast<unsigned>(width), static_cast<unsigned>(height), out, tx, ty);
    }
};

// Y8 plane reduced by four: the sum of the thread's 4 x 4 block >> 4, output stride width / 4.
struct StepDownYTwice {
    const unsigned char* in;
    int width;
    int height;
    unsigned char* out;
    __host__ __device__ __forceinline__ void operator()(unsigned tx, unsigned ty) const {
        const size_t w = static_cast<size_t>(width);
        const size_t y = 4 * static_cast<size_t>(ty);
        const size_t x = 4 * static_cast<size_t>(tx);
        const unsigned sum =
            sum2x2(in, w, y, x) + sum2x2(in, w, y, x + 2) + sum2x2(in, w, y + 2, x) + sum2x2(in, w, y + 2, x + 2);
        out[y / 4 * (w / 4) + x / 4] = static_cast<unsigned char>(sum >> 4);
    }
};

// Average of a 2 x 2 block that is 0 when any of its samples is 0.
__host__ __device__ __forceinline__ unsigned char erodedAverage(unsigned char a, unsigned char b, unsigned char c,
                                                                unsigned char d) {
    const bool anyZero = a == 0 || b == 0 || c == 0 || d == 0;
    const float mean = static_cast<float>(static_cast<unsigned>(a) + b + c + d) / 4.0f;
    return anyZero ? static_cast<unsigned char>(0) : truncateToByte(mean);
}

// Y8 plane halved with erosion of zeros, output stride width / 2.
struct StepDownErodeY {
    const unsigned char* in;
    int width;
    int height;
    unsigned char* out;
    __host__ __device__ __forceinline__ void operator()(unsigned tx, unsigned ty) const {
        const size_t w = static_cast<size_t>(width);
        const size_t x = tx;
        const size_t y = ty;
        const unsigned char* p = in + 2 * y * w + 2 * x;
        out[y * (w / 2) + x] = erodedAverage(p[0], p[1], p[w], p[w + 1]);
    }
};

}  // namespace kernels
}  // namespace capture
}  // namespace ruvo
