// Host runs of the raw-frame conversions: rows in parallel, each row one vectorised loop.
#include "host/grid/HostGrid.h"
#include "host/grid/HostRawUnpackRows.h"

#include <cstring>

namespace ruvo {
namespace capture {
namespace kernels {

namespace {

template <class Samples>
RUVO_ROW_CLONES void unpackRow(const RawUnpack<Samples>& unpack, unsigned ty) {
    unpack.row(ty);
}

#if defined(__GNUC__) && !defined(__clang__)
typedef uint8_t Bytes16 __attribute__((vector_size(16)));
typedef uint16_t Words8 __attribute__((vector_size(16)));

// Packed 10-bit rows, whose five-byte groups the vectoriser leaves scalar: eight samples (two
// groups, ten bytes) per step from one 16-byte load that stays inside the row's bytes. Byte
// shuffles put each sample's high byte and its group's low-bits byte into 16-bit lanes; the low
// bits of lane i are (low * 2^(6 - 2i)) >> 6 & 3. The groups the loads cannot reach go the common way.
template <>
RUVO_ROW_CLONES void unpackRow(const RawUnpack<Csi2Packed10Samples>& unpack, unsigned ty) {
    const Bytes16 highIndex = {0, 16, 1, 16, 2, 16, 3, 16, 5, 16, 6, 16, 7, 16, 8, 16};
    const Bytes16 lowIndex = {4, 16, 4, 16, 4, 16, 4, 16, 9, 16, 9, 16, 9, 16, 9, 16};
    const Words8 lowScale = {64, 16, 4, 1, 64, 16, 4, 1};
    const Bytes16 zero = {};
    const uint8_t* src = unpack.sourceRow(ty);
    uint16_t* dst = unpack.outputRow(ty);
    const size_t rowBytes = packedRowBytes(SampleStorage::kCsi2Packed10, unpack.width);
    size_t group = 0;
    for (; 5 * group + 16 <= rowBytes; group += 2) {
        Bytes16 bytes;
        std::memcpy(&bytes, src + 5 * group, sizeof bytes);
        const Words8 high = reinterpret_cast<Words8>(__builtin_shuffle(bytes, zero, highIndex));
        const Words8 low = reinterpret_cast<Words8>(__builtin_shuffle(bytes, zero, lowIndex));
        const Words8 samples = ((high << 2) | (((low * lowScale) >> 6) & 3)) << 4;
        std::memcpy(dst + 4 * group, &samples, sizeof samples);
    }
    unpack.convertGroups(src, dst, group);
    unpack.shiftColumns(dst);
}

// Packed 12-bit rows the same way: eight samples (four three-byte groups, twelve bytes) per step;
// the low bits of an even lane are the low nibble of its group's third byte, of an odd lane the
// high nibble ((low * 16) >> 4 and low >> 4, each & 15).
template <>
RUVO_ROW_CLONES void unpackRow(const RawUnpack<Csi2Packed12Samples>& unpack, unsigned ty) {
    const Bytes16 highIndex = {0, 16, 1, 16, 3, 16, 4, 16, 6, 16, 7, 16, 9, 16, 10, 16};
    const Bytes16 lowIndex = {2, 16, 2, 16, 5, 16, 5, 16, 8, 16, 8, 16, 11, 16, 11, 16};
    const Words8 lowScale = {16, 1, 16, 1, 16, 1, 16, 1};
    const Bytes16 zero = {};
    const uint8_t* src = unpack.sourceRow(ty);
    uint16_t* dst = unpack.outputRow(ty);
    const size_t rowBytes = packedRowBytes(SampleStorage::kCsi2Packed12, unpack.width);
    size_t group = 0;
    for (; 3 * group + 16 <= rowBytes && 2 * group + 8 <= unpack.width; group += 4) {
        Bytes16 bytes;
        std::memcpy(&bytes, src + 3 * group, sizeof bytes);
        const Words8 high = reinterpret_cast<Words8>(__builtin_shuffle(bytes, zero, highIndex));
        const Words8 low = reinterpret_cast<Words8>(__builtin_shuffle(bytes, zero, lowIndex));
        const Words8 samples = ((high << 4) | (((low * lowScale) >> 4) & 15)) << 2;
        std::memcpy(dst + 2 * group, &samples, sizeof samples);
    }
    unpack.convertGroups(src, dst, group);
    unpack.shiftColumns(dst);
}
#endif

#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
// 16-bit words: each sample one little-endian load, so the loop runs in 16-bit lanes (the common
// path assembles every sample from two bytes).
template <>
RUVO_ROW_CLONES void unpackRow(const RawUnpack<WordSamples>& unpack, unsigned ty) {
    const uint8_t* __restrict__ src = unpack.sourceRow(ty);
    uint16_t* __restrict__ dst = unpack.outputRow(ty);
    const auto mask = static_cast<uint16_t>((1u << unpack.bits) - 1u);
    const unsigned up = unpack.bits <= 14 ? 14 - unpack.bits : 0;
    const unsigned down = unpack.bits <= 14 ? 0 : unpack.bits - 14;
    for (unsigned x = 0; x < unpack.width; ++x) {
        uint16_t v;
        std::memcpy(&v, src + 2 * static_cast<size_t>(x), sizeof v);
        dst[x] = static_cast<uint16_t>(static_cast<uint16_t>((v & mask) << up) >> down);
    }
    unpack.shiftColumns(dst);
}
#endif

template <class Samples>
void unpackRows(const RawUnpack<Samples>& unpack) {
    const int rows = static_cast<int>(unpack.height);
#pragma omp parallel for schedule(dynamic, 8)
    for (int ty = 0; ty < rows; ++ty) unpackRow(unpack, static_cast<unsigned>(ty));
}

RUVO_ROW_CLONES void levelRow(const RawLevelPass& pass, unsigned ty) { pass.row(ty); }

}  // namespace

void runRawLevels(const RawLevelPass& pass) {
    const int rows = static_cast<int>(pass.height);
#pragma omp parallel for schedule(dynamic, 8)
    for (int ty = 0; ty < rows; ++ty) levelRow(pass, static_cast<unsigned>(ty));
}

void runRawUnpack(const RawUnpack<ByteSamples>& unpack) { unpackRows(unpack); }
void runRawUnpack(const RawUnpack<WordSamples>& unpack) { unpackRows(unpack); }
void runRawUnpack(const RawUnpack<Csi2Packed10Samples>& unpack) { unpackRows(unpack); }
void runRawUnpack(const RawUnpack<Csi2Packed12Samples>& unpack) { unpackRows(unpack); }

}  // namespace kernels
}  // namespace capture
}  // namespace ruvo
