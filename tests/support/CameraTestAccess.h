// Gives tests access to a camera's private steps and state: the 3A evaluation on a crafted
// bucket, the bucket pool, the metering sample table and the controller memories.
#pragma once

#include "CUDACamera.h"

namespace ruvo {
namespace capture {

class CUDACameraTestAccess {
public:
    static void evaluate3A(CUDACamera& camera, const CUDACamera::Bucket& bucket) { camera.evaluate_3A(bucket); }
    static std::vector<CUDACamera::Bucket>& buckets(CUDACamera& camera) { return camera._buckets; }
    static const std::vector<std::pair<int, int>>& samples(const CUDACamera& camera) {
        return camera._initialSampleDist;
    }
    static std::vector<std::pair<int, int>>& sampleTable(CUDACamera& camera) { return camera._initialSampleDist; }
    static const std::vector<float>& winWeights(const CUDACamera& camera) { return camera.winWeights; }
    static float sumWinWeights(const CUDACamera& camera) { return camera.sumWinWeights; }
    static float& currExpGain(CUDACamera& camera) { return camera._currExpGain; }
    static float& currBlueGain(CUDACamera& camera) { return camera._currBlueGain; }
    static float& currRedGain(CUDACamera& camera) { return camera._currRedGain; }
    static float aeMeteredY(const CUDACamera& camera) { return camera._aeMeteredY; }
    static int32_t& aeExposure(CUDACamera& camera) { return camera._aeState.exposure; }
    static float& aeGain(CUDACamera& camera) { return camera._aeState.gain; }
    static bool& aeNeedsUpdate(CUDACamera& camera) { return camera._aeState.controlNeedsUpdate; }
    static int32_t& awbBlueGain(CUDACamera& camera) { return camera._awbState.blueGain; }
    static bool& awbNeedsUpdate(CUDACamera& camera) { return camera._awbState.controlNeedsUpdate; }
    static bool isRunning(const CUDACamera& camera) { return camera._isRunning; }
    static int index(const CUDACamera& camera) { return camera._index; }
    static std::mt19937& prng(CUDACamera& camera) { return camera._prng; }
};

}  // namespace capture
}  // namespace ruvo
