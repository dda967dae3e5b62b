// The V4L2 Bayer pixel formats the pipeline takes, each with the sample layout it is converted
// from, and the default sensor's own layout: SBGGR10 values scaled into a 14-bit field, which the
// pipeline reads as delivered.
#pragma once

#include "kernels/RawSamples.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace ruvo {
namespace capture {
namespace sensor {

struct PixelFormat {
    uint32_t fourcc;
    kernels::RawLayout layout;
    const char* description;

    bool isDefaultLayout() const { return layout.isPipelineLayout(); }
    // Bytes of one row of `width` samples, unpadded.
    size_t rowBytes(uint32_t width) const { return kernels::packedRowBytes(layout.storage, width); }
};

// The default sensor's layout, delivered as V4L2_PIX_FMT_SBGGR10.
const PixelFormat& defaultLayoutFormat();

// The formats as V4L2 defines them (value in the low bits).
const std::vector<PixelFormat>& bayerFormats();

// The V4L2-defined format with this code; null when the pipeline cannot take it.
const PixelFormat* findBayerFormat(uint32_t fourcc);

// "BG10" for V4L2_PIX_FMT_SBGGR10; characters outside printable ASCII as '?'.
std::string fourccText(uint32_t fourcc);

// The format a configuration names: "default" for the default sensor's layout, or a fourcc
// of bayerFormats(). Throws CaptureDeviceException naming `key` and the accepted values.
PixelFormat parsePixelFormat(const std::string& text, const std::string& key);

}  // namespace sensor
}  // namespace capture
}  // namespace ruvo
