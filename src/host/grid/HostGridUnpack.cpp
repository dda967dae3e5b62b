// Host runs of the raw-frame conversions: rows in parallel, each row one vectorised loop.
#include "host/grid/HostGrid.h"
#include "host/grid/HostRawUnpackRows.h"

namespace ruvo {
namespace capture {
namespace kernels {

namespace {

template <class Samples>
RUVO_ROW_CLONES void unpackRow(const RawUnpack<Samples>& unpack, unsigned ty) {
    unpack.row(ty);
}

template <class Samples>
void unpackRows(const RawUnpack<Samples>& unpack) {
    const int rows = static_cast<int>(unpack.height);
#pragma omp parallel for schedule(dynamic, 8)
    for (int ty = 0; ty < rows; ++ty) unpackRow(unpack, static_cast<unsigned>(ty));
}

}  // namespace

void runRawUnpack(const RawUnpack<ByteSamples>& unpack) { unpackRows(unpack); }
void runRawUnpack(const RawUnpack<WordSamples>& unpack) { unpackRows(unpack); }
void runRawUnpack(const RawUnpack<Csi2Packed10Samples>& unpack) { unpackRows(unpack); }
void runRawUnpack(const RawUnpack<Csi2Packed12Samples>& unpack) { unpackRows(unpack); }

}  // namespace kernels
}  // namespace capture
}  // namespace ruvo
