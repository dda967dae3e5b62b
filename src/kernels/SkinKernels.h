// Skin-colour decisions on the bilinear colour path: a chroma box that marks non-skin quads in a
// copy of the colour image, and a gated three-cluster colour model that keeps the mean luminance
// of skin quads in a half-size plane for the exposure histogram.
#pragma once

#include "ColourKernels.h"

namespace ruvo {
namespace capture {
namespace kernels {

// Signed closeness of x to the inclusive band [low, high]: >= 0 inside, < 0 outside. The sign of
// the product is exact, and a band test written as one comparison keeps the host loop free of
// branches that the compiler would otherwise build from chained comparisons.
__host__ __device__ __forceinline__ float bandMargin(float x, float low, float high) { return (x - low) * (high - x); }

__host__ __device__ __forceinline__ float minOf(float a, float b) { return a < b ? a : b; }

// Chroma box of the segmented image, bounds inclusive, on the clamped (untruncated) U and V.
__host__ __device__ __forceinline__ bool isSegmentSkin(float u, float v) {
    return minOf(bandMargin(u, 65.0f, 122.0f), bandMargin(v, 135.0f, 195.0f)) >= 0.0f;
}

// Wider U gate of the colour model, bounds inclusive.
__host__ __device__ __forceinline__ bool passesSkinGate(float u, float v) {
    return minOf(bandMargin(u, 59.0f, 129.0f), bandMargin(v, 135.0f, 195.0f)) >= 0.0f;
}

struct Row3 {
    float y;
    float u;
    float v;
};

// One skin colour cluster: its mean in (Y, U, V) and the rows of its weight matrix.
struct SkinCluster {
    Row3 mean;
    Row3 row1;
    Row3 row2;
    Row3 row3;
};

__host__ __device__ __forceinline__ SkinCluster skinCluster1() {
    return {{43.629f, 123.0f, 132.0f},
            {0.112634f, -0.098015f, -0.484461f},
            {-0.098015f, 2.263125f, 1.451641f},
            {-0.484461f, 1.451641f, 18.760693f}};
}

// Not symmetric: the row-1 U weight and the row-2 Y weight are a factor of ten apart.
__host__ __device__ __forceinline__ SkinCluster skinCluster2() {
    return {{114.163f, 112.215f, 146.627f},
            {0.00077086f, -0.0010396f, 0.00063102f},
            {-0.00010396f, 0.034774f, 0.021805f},
            {0.00063102f, 0.021805f, 0.039909f}};
}

__host__ __device__ __forceinline__ SkinCluster skinCluster3() {
    return {{170.677f, 110.914f, 145.247f},
            {0.111941f, -0.197147f, 0.345541f},
            {-0.197147f, 1.236792f, -0.059241f},
            {0.345541f, -0.059241f, 2.415464f}};
}

__host__ __device__ __forceinline__ float dot3(const Row3& row, float dy, float du, float dv) {
    return row.y * dy + row.u * du + row.v * dv;
}

// d M d^T with d = (Y, U, V) - mean, evaluated row by row.
__host__ __device__ __forceinline__ float clusterDistance(const SkinCluster& c, float y, float u, float v) {
    const float dy = y - c.mean.y;
    const float du = u - c.mean.u;
    const float dv = v - c.mean.v;
    return dy * dot3(c.row1, dy, du, dv) + du * dot3(c.row2, dy, du, dv) + dv * dot3(c.row3, dy, du, dv);
}

// Smallest distance to the three clusters.
__host__ __device__ __forceinline__ float skinScore(float y, float u, float v) {
    const float d1 = clusterDistance(skinCluster1(), y, u, v);
    const float d2 = clusterDistance(skinCluster2(), y, u, v);
    const float d3 = clusterDistance(skinCluster3(), y, u, v);
    return minOf(minOf(d1, d2), d3);
}

// The skin-luminance byte of a quad: its mean luma if it passes the gate and scores strictly
// below the threshold, else 0.
__host__ __device__ __forceinline__ unsigned char skinLuminance(const YuvQuad& quad, float threshold) {
    const float ym = 0.25f * (quad.y[0] + quad.y[1] + quad.y[2] + quad.y[3]);
    const float gated = passesSkinGate(quad.u, quad.v) ? skinScore(ym, quad.u, quad.v) : threshold;
    return truncateToByte(gated < threshold ? ym : 0.0f);
}

// Colour image, plus a YUV420p copy with the same luma whose chroma is the quad's own for skin
// quads and 255, 255 for the others.
struct SegmentSkinSink {
    unsigned char* yuv;
    unsigned char* skin;
    __host__ __device__ __forceinline__ void operator()(const cudaKernelParams& p, unsigned tx, unsigned ty,
                                                        const RawWindow&, const QuadRgb& rgb) const {
        const YuvQuad quad = colourQuad(rgb, gammasOf(p));
        storeYuvQuad(yuv, p.width, p.height, tx, ty, quad);
        storeLumaQuad(skin, p.width, tx, ty, quad);
        const bool isSkin = isSegmentSkin(quad.u, quad.v);
        const float u = isSkin ? quad.u : 255.0f;
        const float v = isSkin ? quad.v : 255.0f;
        storeChromaQuad(skin, p.width, p.height, tx, ty, truncateToByte(u), truncateToByte(v));
    }
};

// Colour image, plus one skin-luminance byte per quad in a half-size Y8 plane.
struct SkinHistogramSink {
    unsigned char* yuv;
    unsigned char* skinY;
    float threshold;
    __host__ __device__ __forceinline__ void operator()(const cudaKernelParams& p, unsigned tx, unsigned ty,
                                                        const RawWindow&, const QuadRgb& rgb) const {
        const YuvQuad quad = colourQuad(rgb, gammasOf(p));
        storeYuvQuad(yuv, p.width, p.height, tx, ty, quad);
        skinY[static_cast<size_t>(ty) * (p.width / 2) + static_cast<size_t>(tx)] = skinLuminance(quad, threshold);
    }
};

using Yuv420FastSegmentSkin = ColourKernel<BilinearMode, SegmentSkinSink>;
using Yuv420FastSkinHistogram = ColourKernel<BilinearMode, SkinHistogramSink>;

}  // namespace kernels
}  // namespace capture
}  // namespace ruvo
