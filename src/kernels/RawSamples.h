// Raw sample layouts and their conversion to the pipeline's input: 16-bit samples on a 14-bit full
// scale (16383), in B G / G R quads. Sensors deliver 8 to 16 bits per sample, one or two bytes each
// with the value in the low bits, or CSI-2 packed (four 10-bit or two 12-bit samples in 5 or 3
// bytes), in any of the four Bayer orders. The conversion runs once per frame before the colour
// kernels, which then read one layout only.
//
// Bayer order by shifted origin: the converted frame starts at the first B sample of the delivered
// one, so output (y, x) is input (y + dy, x + dx) with (dy, dx) in {0, 1}. The row or column that
// the shift moves past the last one is taken from two rows or columns before it (the nearest
// sample of the same colour), so the frame keeps its size and every quad its colours.
#pragma once

#include <cuda_runtime.h>  // __host__ __device__ in the host build

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace ruvo {
namespace capture {
namespace kernels {

// The colours of the top-left quad, first row then second.
enum class BayerOrder : uint8_t { kBGGR, kGBRG, kGRBG, kRGGB };

enum class SampleStorage : uint8_t {
    kBytes,         // one byte per sample (8 bits)
    kWords,         // one little-endian 16-bit word per sample, value in the low `bits`
    kCsi2Packed10,  // four samples in five bytes: the high 8 bits of each, then their low 2 bits
    kCsi2Packed12   // two samples in three bytes: the high 8 bits of each, then their low 4 bits
};

struct RawLayout {
    BayerOrder order;
    SampleStorage storage;
    uint8_t bits;  // significant bits per sample, 8 to 16

    // 16-bit words with 14 significant bits, B G / G R: the pipeline's own input, no conversion.
    __host__ __device__ constexpr bool isPipelineLayout() const {
        return order == BayerOrder::kBGGR && storage == SampleStorage::kWords && bits == 14;
    }
};

constexpr RawLayout kPipelineLayout{BayerOrder::kBGGR, SampleStorage::kWords, 14};

// Row and column of the first B sample.
__host__ __device__ constexpr unsigned bayerRowOffset(BayerOrder order) {
    return order == BayerOrder::kGRBG || order == BayerOrder::kRGGB ? 1u : 0u;
}
__host__ __device__ constexpr unsigned bayerColumnOffset(BayerOrder order) {
    return order == BayerOrder::kGBRG || order == BayerOrder::kRGGB ? 1u : 0u;
}

// Bytes of one row of `width` samples without padding.
__host__ __device__ constexpr size_t packedRowBytes(SampleStorage storage, unsigned width) {
    switch (storage) {
        case SampleStorage::kBytes:
            return width;
        case SampleStorage::kWords:
            return 2 * static_cast<size_t>(width);
        case SampleStorage::kCsi2Packed10:
            return static_cast<size_t>(width) * 5 / 4;
        case SampleStorage::kCsi2Packed12:
            return static_cast<size_t>(width) * 3 / 2;
    }
    return 0;
}

// Sample x of a row, as delivered (the value in the low bits).
// kGroup: samples that share their bytes; a row is a whole number of groups. read() takes one
// sample (a CUDA thread's), readGroup() the samples of one group (the host's row loop).
struct ByteSamples {
    static constexpr unsigned kGroup = 1;
    __host__ __device__ __forceinline__ static unsigned read(const uint8_t* row, size_t x) { return row[x]; }
    static void readGroup(const uint8_t* row, size_t g, unsigned (&v)[kGroup]) { v[0] = read(row, g); }
};
struct WordSamples {
    static constexpr unsigned kGroup = 1;
    __host__ __device__ __forceinline__ static unsigned read(const uint8_t* row, size_t x) {
        return row[2 * x] | (static_cast<unsigned>(row[2 * x + 1]) << 8);
    }
    static void readGroup(const uint8_t* row, size_t g, unsigned (&v)[kGroup]) { v[0] = read(row, g); }
};
// CSI-2 packing of samples with kLowBits bits below their high byte: a group of 8 / kLowBits
// samples is their high bytes, then one byte of their low bits, the first sample's lowest.
template <unsigned kLowBits>
struct Csi2PackedSamples {
    static constexpr unsigned kGroup = 8 / kLowBits;
    static constexpr unsigned kLowMask = (1u << kLowBits) - 1u;

    __host__ __device__ __forceinline__ static unsigned read(const uint8_t* row, size_t x) {
        const uint8_t* group = row + (kGroup + 1) * (x / kGroup);
        const unsigned lane = static_cast<unsigned>(x % kGroup);
        return (static_cast<unsigned>(group[lane]) << kLowBits) | ((group[kGroup] >> (kLowBits * lane)) & kLowMask);
    }
    // The samples of group g, from its bytes loaded once.
    static void readGroup(const uint8_t* row, size_t g, unsigned (&v)[kGroup]) {
        const uint8_t* group = row + (kGroup + 1) * g;
        const unsigned low = group[kGroup];
        for (unsigned lane = 0; lane < kGroup; ++lane) {
            v[lane] = (static_cast<unsigned>(group[lane]) << kLowBits) | ((low >> (kLowBits * lane)) & kLowMask);
        }
    }
};
using Csi2Packed10Samples = Csi2PackedSamples<2>;
using Csi2Packed12Samples = Csi2PackedSamples<4>;

// Index of the delivered row or column that output position p reads: p + offset, or two back
// when that falls one past the end.
__host__ __device__ __forceinline__ unsigned shiftedIndex(unsigned p, unsigned offset, unsigned size) {
    const unsigned shifted = p + offset;
    return shifted < size ? shifted : shifted - 2;
}

// A delivered value of `bits` bits on the 14-bit scale: multiplied by 2^(14 - bits), or divided by
// 4 (truncating) for 16 bits. Bits above `bits` are ignored.
__host__ __device__ __forceinline__ uint16_t toPipelineScale(unsigned value, unsigned bits) {
    const unsigned masked = value & ((1u << bits) - 1u);
    return static_cast<uint16_t>(bits <= 14 ? masked << (14 - bits) : masked >> (bits - 14));
}

// One thread per output sample (the CUDA build, width x height threads), or one call of row() per
// output row (the host build).
template <class Samples>
struct RawUnpack {
    const uint8_t* in;
    size_t inStride;  // bytes per delivered row
    uint16_t* out;    // width x height samples, row stride width
    unsigned width;
    unsigned height;
    unsigned bits;
    unsigned rowOffset;
    unsigned columnOffset;

    __host__ __device__ __forceinline__ void operator()(unsigned tx, unsigned ty) const {
        const uint8_t* row = in + shiftedIndex(ty, rowOffset, height) * inStride;
        const unsigned value = Samples::read(row, shiftedIndex(tx, columnOffset, width));
        out[static_cast<size_t>(ty) * width + tx] = toPipelineScale(value, bits);
    }

    const uint8_t* sourceRow(unsigned ty) const { return in + shiftedIndex(ty, rowOffset, height) * inStride; }
    uint16_t* outputRow(unsigned ty) const { return out + static_cast<size_t>(ty) * width; }

    // Samples of groups firstGroup onwards of a delivered row converted in place order (a loop the
    // host vectoriser takes: the lanes of a group are constants, the scale is two shifts fixed for
    // the row, and the rows do not overlap).
    void convertGroups(const uint8_t* __restrict__ src, uint16_t* __restrict__ dst, size_t firstGroup) const {
        const unsigned mask = (1u << bits) - 1u;
        const unsigned up = bits <= 14 ? 14 - bits : 0;
        const unsigned down = bits <= 14 ? 0 : bits - 14;
        const size_t groups = width / Samples::kGroup;
        for (size_t g = firstGroup; g < groups; ++g) {
            unsigned v[Samples::kGroup];
            Samples::readGroup(src, g, v);
            for (size_t lane = 0; lane < Samples::kGroup; ++lane) {
                dst[g * Samples::kGroup + lane] = static_cast<uint16_t>(((v[lane] & mask) << up) >> down);
            }
        }
    }
    // A converted row moved left by the column offset, the last sample taken from two columns
    // before it.
    void shiftColumns(uint16_t* dst) const {
        if (columnOffset == 0) return;
        std::memmove(dst, dst + 1, (width - 1) * sizeof(uint16_t));
        dst[width - 1] = dst[width - 3];
    }
    // Output row ty.
    void row(unsigned ty) const {
        uint16_t* dst = outputRow(ty);
        convertGroups(sourceRow(ty), dst, 0);
        shiftColumns(dst);
    }
};

// Black level and white balance applied to pipeline samples after the conversion, for sensors
// without channel-gain controls: each sample loses the black level (the white point is not
// stretched: the signal keeps its scale, as the sensor's own gains would give it) and is
// multiplied by its channel's gain, rounded and held to 0..16383.
struct RawLevels {
    float black = 0.0f;  // on the 14-bit scale
    // [row parity][column parity] of the B G / G R quad: the channel's gain.
    float scale[2][2] = {{1.0f, 1.0f}, {1.0f, 1.0f}};
};

__host__ __device__ __forceinline__ uint16_t levelSample(unsigned value, float black, float scale) {
    const float x = (static_cast<float>(value) - black) * scale + 0.5f;
    return static_cast<uint16_t>(x <= 0.0f ? 0.0f : (x >= 16383.0f ? 16383.0f : x));
}

// One thread per sample (CUDA), or one call of row() per row (host), in place.
struct RawLevelPass {
    uint16_t* data;  // width x height samples, row stride width
    unsigned width;
    unsigned height;
    RawLevels levels;

    __host__ __device__ __forceinline__ void operator()(unsigned tx, unsigned ty) const {
        uint16_t& v = data[static_cast<size_t>(ty) * width + tx];
        v = levelSample(v, levels.black, levels.scale[ty & 1][tx & 1]);
    }
    // Pairs of samples, so that the two scales of the row are constants of the vectorised loop.
    void row(unsigned ty) const {
        uint16_t* __restrict__ p = data + static_cast<size_t>(ty) * width;
        const float black = levels.black, even = levels.scale[ty & 1][0], odd = levels.scale[ty & 1][1];
        for (unsigned x = 0; x + 1 < width; x += 2) {
            p[x] = levelSample(p[x], black, even);
            p[x + 1] = levelSample(p[x + 1], black, odd);
        }
    }
};

// Calls visit(functor) with the conversion of a delivered frame to the pipeline's input.
template <class Visit>
void visitRawUnpack(const RawLayout& layout, const void* in, size_t inStride, uint16_t* out, unsigned width,
                    unsigned height, Visit&& visit) {
    const uint8_t* bytes = static_cast<const uint8_t*>(in);
    const unsigned dy = bayerRowOffset(layout.order);
    const unsigned dx = bayerColumnOffset(layout.order);
    switch (layout.storage) {
        case SampleStorage::kBytes:
            return visit(RawUnpack<ByteSamples>{bytes, inStride, out, width, height, layout.bits, dy, dx});
        case SampleStorage::kWords:
            return visit(RawUnpack<WordSamples>{bytes, inStride, out, width, height, layout.bits, dy, dx});
        case SampleStorage::kCsi2Packed10:
            return visit(RawUnpack<Csi2Packed10Samples>{bytes, inStride, out, width, height, 10, dy, dx});
        case SampleStorage::kCsi2Packed12:
            return visit(RawUnpack<Csi2Packed12Samples>{bytes, inStride, out, width, height, 12, dy, dx});
    }
}

}  // namespace kernels
}  // namespace capture
}  // namespace ruvo
