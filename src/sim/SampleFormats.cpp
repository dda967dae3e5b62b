// Offered formats of the simulated sensor and the packing of its codes into them.
#include "sim/SampleFormats.h"

#include <ruvo/capture/CaptureDeviceException.h>

#include <linux/videodev2.h>

#include <Poco/String.h>
#include <Poco/StringTokenizer.h>

namespace ruvo {
namespace capture {
namespace sim {

using kernels::SampleStorage;

std::vector<sensor::PixelFormat> readFormats(const Poco::Util::AbstractConfiguration& config, SampleLayout samples) {
    if (!config.has("sim.format")) {
        if (samples == SampleLayout::Msb14) return {sensor::defaultLayoutFormat()};
        return {*sensor::findBayerFormat(V4L2_PIX_FMT_SBGGR10)};
    }
    const std::string text = config.getString("sim.format");
    std::vector<sensor::PixelFormat> formats;
    const Poco::StringTokenizer entries(text, ",",
                                        Poco::StringTokenizer::TOK_TRIM | Poco::StringTokenizer::TOK_IGNORE_EMPTY);
    for (const std::string& entry : entries) {
        const sensor::PixelFormat format = sensor::parsePixelFormat(entry, "sim.format");
        for (const sensor::PixelFormat& other : formats) {
            if (other.fourcc == format.fourcc)
                throw CaptureDeviceException("sim.format = \"" + text + "\": " + sensor::fourccText(format.fourcc) +
                                             " offered twice (the default layout is delivered as BG10)");
        }
        formats.push_back(format);
    }
    if (formats.empty()) throw CaptureDeviceException("sim.format = \"" + text + "\": no format");
    return formats;
}

const sensor::PixelFormat& chooseFormat(const std::vector<sensor::PixelFormat>& formats, uint32_t fourcc) {
    for (const sensor::PixelFormat& format : formats)
        if (format.fourcc == fourcc) return format;
    return formats.front();
}

int wordShift(const kernels::RawLayout& layout) {
    if (layout.storage != SampleStorage::kWords || layout.bits < 10) return -1;
    return layout.isPipelineLayout() ? 4 : layout.bits - 10;
}

void packRow(const uint16_t* codes, size_t width, const kernels::RawLayout& layout, uint8_t* out) {
    switch (layout.storage) {
        case SampleStorage::kBytes:
            for (size_t x = 0; x < width; ++x)
                out[x] = static_cast<uint8_t>(codes[x] >= 1022 ? 255 : (codes[x] + 2) >> 2);
            return;
        case SampleStorage::kWords: {
            const int shift = wordShift(layout);
            for (size_t x = 0; x < width; ++x) {
                const unsigned v = static_cast<unsigned>(codes[x]) << shift;
                out[2 * x] = static_cast<uint8_t>(v);
                out[2 * x + 1] = static_cast<uint8_t>(v >> 8);
            }
            return;
        }
        case SampleStorage::kCsi2Packed10:
            // Four samples: their upper 8 bits, then their lower 2 bits, the first sample's lowest.
            for (size_t x = 0; x < width; x += 4, out += 5) {
                out[4] = 0;
                for (unsigned lane = 0; lane < 4; ++lane) {
                    out[lane] = static_cast<uint8_t>(codes[x + lane] >> 2);
                    out[4] |= static_cast<uint8_t>((codes[x + lane] & 3u) << (2 * lane));
                }
            }
            return;
        case SampleStorage::kCsi2Packed12:
            // Two 12-bit samples (code x 4): their upper 8 bits, then their lower 4 bits.
            for (size_t x = 0; x < width; x += 2, out += 3) {
                const unsigned a = static_cast<unsigned>(codes[x]) << 2, b = static_cast<unsigned>(codes[x + 1]) << 2;
                out[0] = static_cast<uint8_t>(a >> 4);
                out[1] = static_cast<uint8_t>(b >> 4);
                out[2] = static_cast<uint8_t>((a & 15u) | ((b & 15u) << 4));
            }
            return;
    }
}

}  // namespace sim
}  // namespace capture
}  // namespace ruvo
