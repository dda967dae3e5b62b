// The frame sizes the simulated sensor offers ("sim.sizes"): a list of discrete sizes (by default
// the default sensor's four) or one stepwise range, as ENUM_FRAMESIZES reports them and S_FMT
// grants them.
#pragma once

#include <linux/videodev2.h>

#include <cstdint>
#include <string>
#include <vector>

namespace ruvo {
namespace capture {
namespace sim {

struct FrameSize {
    uint32_t width;
    uint32_t height;
};

struct FrameSizes {
    std::vector<FrameSize> discrete{{672, 380}, {1280, 720}, {1920, 1080}, {2688, 1520}};
    bool stepwise = false;  // then min to max in steps of step, and `discrete` is unused
    FrameSize min{0, 0};
    FrameSize max{0, 0};
    FrameSize step{1, 1};

    // The offered size nearest to the request: the closest discrete size, or the request clamped
    // to the range and rounded to its steps.
    FrameSize nearest(uint32_t width, uint32_t height) const;
    // Fills entry `size->index`; EINVAL past the last (a range is the one entry, index 0).
    int enumerate(v4l2_frmsizeenum* size) const;
};

// Parses "1640x1232, 3280x2464" (discrete sizes) or "64x64..4096x3072/2x2" (a range with its
// steps). Throws CaptureDeviceException naming the key for anything else.
FrameSizes parseFrameSizes(const std::string& key, const std::string& text);

}  // namespace sim
}  // namespace capture
}  // namespace ruvo
