// The table of V4L2 Bayer formats and their sample layouts.
#include "sensor/PixelFormats.h"

#include <ruvo/capture/CaptureDeviceException.h>

#include <linux/videodev2.h>

namespace ruvo {
namespace capture {
namespace sensor {

namespace {

using kernels::BayerOrder;
using kernels::SampleStorage;

PixelFormat format(uint32_t fourcc, BayerOrder order, SampleStorage storage, uint8_t bits, const char* description) {
    return PixelFormat{fourcc, kernels::RawLayout{order, storage, bits}, description};
}

std::vector<PixelFormat> makeBayerFormats() {
    constexpr BayerOrder B = BayerOrder::kBGGR, G = BayerOrder::kGBRG, g = BayerOrder::kGRBG, R = BayerOrder::kRGGB;
    constexpr SampleStorage W = SampleStorage::kWords, P10 = SampleStorage::kCsi2Packed10,
                            P12 = SampleStorage::kCsi2Packed12, B8 = SampleStorage::kBytes;
    return {
        format(V4L2_PIX_FMT_SBGGR16, B, W, 16, "16-bit Bayer BGBG/GRGR"),
        format(V4L2_PIX_FMT_SGBRG16, G, W, 16, "16-bit Bayer GBGB/RGRG"),
        format(V4L2_PIX_FMT_SGRBG16, g, W, 16, "16-bit Bayer GRGR/BGBG"),
        format(V4L2_PIX_FMT_SRGGB16, R, W, 16, "16-bit Bayer RGRG/GBGB"),
        format(V4L2_PIX_FMT_SBGGR12, B, W, 12, "12-bit Bayer BGBG/GRGR"),
        format(V4L2_PIX_FMT_SGBRG12, G, W, 12, "12-bit Bayer GBGB/RGRG"),
        format(V4L2_PIX_FMT_SGRBG12, g, W, 12, "12-bit Bayer GRGR/BGBG"),
        format(V4L2_PIX_FMT_SRGGB12, R, W, 12, "12-bit Bayer RGRG/GBGB"),
        format(V4L2_PIX_FMT_SBGGR12P, B, P12, 12, "12-bit Bayer BGBG/GRGR Packed"),
        format(V4L2_PIX_FMT_SGBRG12P, G, P12, 12, "12-bit Bayer GBGB/RGRG Packed"),
        format(V4L2_PIX_FMT_SGRBG12P, g, P12, 12, "12-bit Bayer GRGR/BGBG Packed"),
        format(V4L2_PIX_FMT_SRGGB12P, R, P12, 12, "12-bit Bayer RGRG/GBGB Packed"),
        format(V4L2_PIX_FMT_SBGGR10, B, W, 10, "10-bit Bayer BGBG/GRGR"),
        format(V4L2_PIX_FMT_SGBRG10, G, W, 10, "10-bit Bayer GBGB/RGRG"),
        format(V4L2_PIX_FMT_SGRBG10, g, W, 10, "10-bit Bayer GRGR/BGBG"),
        format(V4L2_PIX_FMT_SRGGB10, R, W, 10, "10-bit Bayer RGRG/GBGB"),
        format(V4L2_PIX_FMT_SBGGR10P, B, P10, 10, "10-bit Bayer BGBG/GRGR Packed"),
        format(V4L2_PIX_FMT_SGBRG10P, G, P10, 10, "10-bit Bayer GBGB/RGRG Packed"),
        format(V4L2_PIX_FMT_SGRBG10P, g, P10, 10, "10-bit Bayer GRGR/BGBG Packed"),
        format(V4L2_PIX_FMT_SRGGB10P, R, P10, 10, "10-bit Bayer RGRG/GBGB Packed"),
        format(V4L2_PIX_FMT_SBGGR8, B, B8, 8, "8-bit Bayer BGBG/GRGR"),
        format(V4L2_PIX_FMT_SGBRG8, G, B8, 8, "8-bit Bayer GBGB/RGRG"),
        format(V4L2_PIX_FMT_SGRBG8, g, B8, 8, "8-bit Bayer GRGR/BGBG"),
        format(V4L2_PIX_FMT_SRGGB8, R, B8, 8, "8-bit Bayer RGRG/GBGB"),
    };
}

}  // namespace

const PixelFormat& defaultLayoutFormat() {
    static const PixelFormat f{V4L2_PIX_FMT_SBGGR10, kernels::kPipelineLayout, "10-bit Bayer BGBG/GRGR"};
    return f;
}

const std::vector<PixelFormat>& bayerFormats() {
    static const std::vector<PixelFormat> formats = makeBayerFormats();
    return formats;
}

const PixelFormat* findBayerFormat(uint32_t fourcc) {
    for (const PixelFormat& f : bayerFormats())
        if (f.fourcc == fourcc) return &f;
    return nullptr;
}

std::string fourccText(uint32_t fourcc) {
    std::string text(4, '?');
    for (int i = 0; i < 4; ++i) {
        const char c = static_cast<char>((fourcc >> (8 * i)) & 0xFF);
        if (c >= 0x20 && c < 0x7F) text[i] = c;
    }
    return text;
}

PixelFormat parsePixelFormat(const std::string& text, const std::string& key) {
    if (text == "default") return defaultLayoutFormat();
    if (text.size() == 4) {
        const uint32_t fourcc = v4l2_fourcc(text[0], text[1], text[2], text[3]);
        if (const PixelFormat* f = findBayerFormat(fourcc)) return *f;
    }
    throw CaptureDeviceException(key + " = \"" + text +
                                 "\": expected default or a Bayer fourcc such as BG10, RG12, BA81, pRAA or pRCC");
}

}  // namespace sensor
}  // namespace capture
}  // namespace ruvo
