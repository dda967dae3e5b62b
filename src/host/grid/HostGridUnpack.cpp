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
