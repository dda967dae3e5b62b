// Conversion of copied frames into viewable images.
#include "ImageConvert.h"

#include "FrameNames.h"
#include "ToolError.h"
#include "host/grid/RowClones.h"

#include <cstring>

namespace ruvo {
namespace tool {

using capture::Frame;

namespace {

constexpr uint32_t kBarWidth = 2;
constexpr uint32_t kChartMargin = 10;
constexpr uint32_t kPlotHeight = 200;
constexpr uint32_t kTickLength = 4;
const Rgb kBarColour{40, 90, 160};
const Rgb kAxisColour{0, 0, 0};

void fillRect(Image& image, uint32_t x0, uint32_t y0, uint32_t w, uint32_t h, Rgb colour) {
    for (uint32_t y = y0; y < y0 + h && y < image.height; ++y) {
        for (uint32_t x = x0; x < x0 + w && x < image.width; ++x) image.set(x, y, colour);
    }
}

Image packedRgb(const FrameCopy& copy, bool swapRedBlue) {
    Image image(copy.width, copy.height, 3);
    std::memcpy(image.pixels.data(), copy.planes[0].data(), image.pixels.size());
    if (swapRedBlue) {
        for (size_t i = 0; i < image.pixels.size(); i += 3) std::swap(image.pixels[i], image.pixels[i + 2]);
    }
    return image;
}

// clampToByte in float: the truncated integer part plus one from a half up (the subtraction is
// exact), then clamped; the same byte for every value the conversion can produce.
inline uint8_t roundToByte(float value) {
    const int32_t whole = static_cast<int32_t>(value);
    const int32_t rounded = whole + static_cast<int32_t>(value - static_cast<float>(whole) >= 0.5f);
    return static_cast<uint8_t>(rounded < 0 ? 0 : (rounded > 255 ? 255 : rounded));
}

ChromaTables makeChromaTables() {
    ChromaTables t;
    for (uint32_t i = 0; i < 256; ++i) {
        const ChromaTerms c = chromaTerms(static_cast<uint8_t>(i), static_cast<uint8_t>(i));
        t.red[i] = c.red;
        t.greenB[i] = c.greenB;
        t.greenR[i] = c.greenR;
        t.blue[i] = c.blue;
    }
    return t;
}

}  // namespace

const ChromaTables& chromaTables() {
    static const ChromaTables tables = makeChromaTables();
    return tables;
}

RUVO_ROW_CLONES void yuv420RowsToRgb(const uint8_t* luma0, const uint8_t* luma1, const uint8_t* u, const uint8_t* v,
                                     uint32_t width, uint32_t chromaWidth, uint8_t* rgb0, uint8_t* rgb1) {
    constexpr uint32_t kBlock = 64;
    const ChromaTables& t = chromaTables();
    const uint8_t* const luma[2] = {luma0, luma1};
    uint8_t* const rgb[2] = {rgb0, rgb1};
    const int rows = luma1 != nullptr ? 2 : 1;
    alignas(32) float y[kBlock] = {}, red[kBlock] = {}, greenB[kBlock] = {}, greenR[kBlock] = {}, blue[kBlock] = {};
    alignas(32) uint8_t r[kBlock], g[kBlock], b[kBlock];
    for (uint32_t x0 = 0; x0 < width; x0 += kBlock) {
        const uint32_t n = std::min(kBlock, width - x0);
        for (uint32_t i = 0; i < n; i += 2) {  // for an odd n, also the unused slot n
            const uint32_t c = std::min((x0 + i) / 2, chromaWidth - 1);
            red[i] = red[i + 1] = t.red[v[c]];
            greenB[i] = greenB[i + 1] = t.greenB[u[c]];
            greenR[i] = greenR[i + 1] = t.greenR[v[c]];
            blue[i] = blue[i + 1] = t.blue[u[c]];
        }
        for (int row = 0; row < rows; ++row) {
            for (uint32_t i = 0; i < n; ++i) y[i] = luma[row][x0 + i];
            for (uint32_t i = 0; i < kBlock; ++i) {
                r[i] = roundToByte(y[i] + red[i]);
                g[i] = roundToByte(y[i] - greenB[i] - greenR[i]);
                b[i] = roundToByte(y[i] + blue[i]);
            }
            uint8_t* out = rgb[row] + static_cast<size_t>(x0) * 3;
            for (uint32_t i = 0; i < n; ++i, out += 3) {
                out[0] = r[i];
                out[1] = g[i];
                out[2] = b[i];
            }
        }
    }
}

Histogram histogramCounts(const FrameCopy& copy) {
    Histogram counts{};
    if (copy.planes[0].size() < sizeof(counts)) throw ToolError("histogram frame with fewer than 256 counters");
    std::memcpy(counts.data(), copy.planes[0].data(), sizeof(counts));
    return counts;
}

Image histogramChart(const Histogram& counts) {
    const uint32_t plotWidth = static_cast<uint32_t>(kHistogramBins) * kBarWidth;
    Image chart(plotWidth + 2 * kChartMargin, kPlotHeight + 2 * kChartMargin + kTickLength, 3, 255);
    int64_t maxCount = 0;
    for (int32_t c : counts) maxCount = std::max<int64_t>(maxCount, c);
    const uint32_t baseline = kChartMargin + kPlotHeight;  // first row below the plot
    for (size_t bin = 0; bin < kHistogramBins; ++bin) {
        const uint32_t h = barHeight(counts[bin], maxCount, kPlotHeight);
        fillRect(chart, kChartMargin + static_cast<uint32_t>(bin) * kBarWidth, baseline - h, kBarWidth, h, kBarColour);
    }
    fillRect(chart, kChartMargin, baseline, plotWidth, 1, kAxisColour);
    for (uint32_t bin = 0; bin <= kHistogramBins; bin += 64) {
        fillRect(chart, kChartMargin + std::min(bin * kBarWidth, plotWidth - 1), baseline, 1, kTickLength, kAxisColour);
    }
    return chart;
}

Image yuv420ToRgb(const FrameCopy& copy) {
    Image image(copy.width, copy.height, 3);
    const uint32_t chromaWidth = copy.width / 2;
    const uint32_t chromaRows = copy.height / 2;
    const size_t rgbRow = static_cast<size_t>(copy.width) * 3;
    for (uint32_t y = 0; y < copy.height; y += 2) {
        const bool pair = y + 1 < copy.height;
        const uint8_t* luma = copy.planes[0].data() + static_cast<size_t>(y) * copy.width;
        const size_t chromaRow = static_cast<size_t>(std::min(y / 2, chromaRows - 1)) * chromaWidth;
        uint8_t* rgb = image.pixels.data() + y * rgbRow;
        yuv420RowsToRgb(luma, pair ? luma + copy.width : nullptr, &copy.planes[1][chromaRow],
                        &copy.planes[2][chromaRow], copy.width, chromaWidth, rgb, pair ? rgb + rgbRow : nullptr);
    }
    return image;
}

Image toViewable(const FrameCopy& copy) {
    switch (copy.format) {
        case Frame::YUV420p:
            if (copy.width < 2 || copy.height < 2) throw ToolError("YUV420p frame smaller than 2 x 2");
            return yuv420ToRgb(copy);
        case Frame::Y8: {
            Image image(copy.width, copy.height, 1);
            std::memcpy(image.pixels.data(), copy.planes[0].data(), image.pixels.size());
            return image;
        }
        case Frame::RGB24:
            return packedRgb(copy, false);
        case Frame::BGR24:
            return packedRgb(copy, true);
        case Frame::HISTOGRAM8:
            return histogramChart(histogramCounts(copy));
        default:
            break;
    }
    throw ToolError(std::string("no image conversion for frames of format ") + formatName(copy.format));
}

}  // namespace tool
}  // namespace ruvo
