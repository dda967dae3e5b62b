// Conversion of copied frames into viewable images.
#include "ImageConvert.h"

#include "FrameNames.h"
#include "ToolError.h"

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

}  // namespace

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
    for (uint32_t y = 0; y < copy.height; ++y) {
        const uint8_t* luma = copy.planes[0].data() + static_cast<size_t>(y) * copy.width;
        const size_t chromaRow = static_cast<size_t>(std::min(y / 2, chromaRows - 1)) * chromaWidth;
        for (uint32_t x = 0; x < copy.width; ++x) {
            const size_t c = chromaRow + std::min(x / 2, chromaWidth - 1);
            image.set(x, y, yuvToRgb(luma[x], copy.planes[1][c], copy.planes[2][c]));
        }
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
