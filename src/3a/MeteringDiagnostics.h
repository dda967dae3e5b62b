// The two JSON texts that auto exposure publishes for tools watching the metering live: the
// final weight of every region ("CapDevCUDAExpStat") and the skin-histogram statistics
// ("CapDevCUDAExpMeta"). Built only when a listener is attached to the channel.
#pragma once

#include "3a/Metering.h"

#include <cstdint>
#include <string>
#include <vector>

namespace ruvo {
namespace capture {
namespace metering {

// Channel names of the two records.
const std::string& expStatChannelName();
const std::string& expMetaChannelName();

// { "width": <side>, "height": <side>, "cameraIndex": "<index>", "data": [<weight>,...]}
// with the weights of all regions in region order, each printed with six decimals.
std::string expStatRecord(int side, int cameraIndex, const std::vector<Region>& regions);

// The skin statistics of one frame and the size of the skin image at `level` (0 for a level
// that is not a pyramid level).
struct ExpMeta {
    std::string cameraName;
    int cameraIndex = 0;
    uint32_t skinPixels = 0;
    int32_t sumLuminance = 0;
    float meanLuminance = 0.0f;  // 0..1
    uint32_t width = 0;          // frame width
    uint32_t cudaHeight = 0;     // allocated rows of the frame
    int level = 0;
};

std::string expMetaRecord(const ExpMeta& meta);

}  // namespace metering
}  // namespace capture
}  // namespace ruvo
