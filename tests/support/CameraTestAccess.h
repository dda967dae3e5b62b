// Gives tests what a camera does not show through its public calls or the sensor's registers:
// the 3A evaluation of a crafted bucket, the bucket pool, the metering sample table and region
// prior, the exposure controller's gain memory and metered luminance, and the device I/O it uses.
#pragma once

#include "CUDACamera.h"

#include <memory>
#include <utility>
#include <vector>

namespace ruvo {
namespace capture {

class CUDACameraTestAccess {
public:
    static void evaluate3A(CUDACamera& camera, const CUDACamera::Bucket& bucket) { camera.evaluate_3A(bucket); }
    static std::vector<CUDACamera::Bucket>& buckets(CUDACamera& camera) { return camera._buckets; }
    static std::vector<std::pair<int, int>>& samples(CUDACamera& camera) { return camera._initialSampleDist; }
    static const std::vector<float>& winWeights(const CUDACamera& camera) { return camera.winWeights; }
    static float sumWinWeights(const CUDACamera& camera) { return camera.sumWinWeights; }
    static float& currExpGain(CUDACamera& camera) { return camera._currExpGain; }
    static float aeMeteredY(const CUDACamera& camera) { return camera._aeMeteredY; }
    static int index(const CUDACamera& camera) { return camera._index; }
    static std::shared_ptr<DeviceIo>& io(CUDACamera& camera) { return camera._io; }
};

}  // namespace capture
}  // namespace ruvo
