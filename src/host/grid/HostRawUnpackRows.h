// The raw-frame conversions run on the host (HostGridUnpack.cpp): rows in parallel, each row one
// vectorised loop; each returns when the whole frame is converted.
#pragma once

#include "kernels/RawSamples.h"

namespace ruvo {
namespace capture {
namespace kernels {

void runRawUnpack(const RawUnpack<ByteSamples>& unpack);
void runRawUnpack(const RawUnpack<WordSamples>& unpack);
void runRawUnpack(const RawUnpack<Csi2Packed10Samples>& unpack);
void runRawUnpack(const RawUnpack<Csi2Packed12Samples>& unpack);
void runRawLevels(const RawLevelPass& pass);

}  // namespace kernels
}  // namespace capture
}  // namespace ruvo
