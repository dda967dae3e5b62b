// Conversion of copied frames into viewable 8-bit images: YUV420p to RGB with the full-range
// BT.601 inverse of the pipeline's colour conversion, Y8 as gray, RGB24 as it is, BGR24 swapped,
// and the 256-bin skin luminance histogram drawn as a bar chart.
#pragma once

#include "FrameCopy.h"
#include "Image.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>

namespace ruvo {
namespace tool {

// Rounds halves away from zero, as std::round does, and clamps to 0..255. In double, value + 0.5
// is exact for every float, so truncating the clamped sum rounds exactly; no library call is made
// per sample.
inline uint8_t clampToByte(float value) {
    return static_cast<uint8_t>(std::min(255.0, std::max(0.0, static_cast<double>(value) + 0.5)));
}

// The pipeline stores Y = 255 (0.299 R + 0.587 G + 0.114 B) and U, V = 255 (c / 2 + 1/2) with the
// chroma c = 2 Cb, 2 Cr in [-1, 1], i.e. Cb = (B - Y) / 1.772 and Cr = (R - Y) / 1.402 centred on
// 127.5. This is the exact inverse on the 0..255 scale (the chroma power shaping is not undone).
// The chroma terms depend on one sample value each, so they are tabulated (chromaTables).
struct ChromaTerms {
    float red;     // 1.402 Cr
    float greenB;  // 0.344136 Cb
    float greenR;  // 0.714136 Cr
    float blue;    // 1.772 Cb
};

inline ChromaTerms chromaTerms(uint8_t u, uint8_t v) {
    const float cb = u - 127.5f;
    const float cr = v - 127.5f;
    return ChromaTerms{1.402f * cr, 0.344136f * cb, 0.714136f * cr, 1.772f * cb};
}

// chromaTerms of every sample value, computed once. Both conversions below read their terms from
// here, so a compiler cannot fuse a term's multiplication into the following addition in one of
// them and not in the other: they give the same bytes on every target.
struct ChromaTables {
    std::array<float, 256> red, greenB, greenR, blue;
};
const ChromaTables& chromaTables();

// One pixel: the definition of the conversion, rounding through clampToByte.
inline Rgb yuvToRgb(uint8_t y, uint8_t u, uint8_t v) {
    const ChromaTables& t = chromaTables();
    const float luma = y;
    return Rgb{clampToByte(luma + t.red[v]), clampToByte(luma - t.greenB[u] - t.greenR[v]),
               clampToByte(luma + t.blue[u])};
}

// Two rows of YUV 4:2:0 that share a chroma row as packed RGB, byte for byte as yuvToRgb gives
// them: `width` luma samples per row and the row's U and V samples, each covering two luma
// samples (an odd last luma sample, or any beyond `chromaWidth` pairs, takes the last chroma
// sample). `luma1` and `rgb1` are null for a single row. Written for the vector unit: the terms
// are laid out per luma sample in short blocks, once for both rows, then each block is converted
// without branches and rounded in float arithmetic.
void yuv420RowsToRgb(const uint8_t* luma0, const uint8_t* luma1, const uint8_t* u, const uint8_t* v, uint32_t width,
                     uint32_t chromaWidth, uint8_t* rgb0, uint8_t* rgb1);

// Height in pixels of the bar of `count` in a chart `plotHeight` pixels high whose tallest bar is
// `maxCount`, on a logarithmic scale (log(1 + count)) so that the tail of the distribution stays
// visible beside the large bin of masked-out pixels. Non-positive counts draw nothing, and any
// positive count at least one pixel.
inline uint32_t barHeight(int64_t count, int64_t maxCount, uint32_t plotHeight) {
    if (count <= 0 || maxCount <= 0) return 0;
    const double h =
        std::round(std::log1p(static_cast<double>(count)) / std::log1p(static_cast<double>(maxCount)) * plotHeight);
    return std::max<uint32_t>(1, std::min<uint32_t>(plotHeight, static_cast<uint32_t>(h)));
}

using Histogram = std::array<int32_t, kHistogramBins>;

// The counters of a HISTOGRAM8 copy.
Histogram histogramCounts(const FrameCopy& copy);

// A bar chart of the histogram: one 2-pixel bar per bin on white (heights from barHeight), with
// an axis and ticks every 64 bins.
Image histogramChart(const Histogram& counts);

// YUV420p planes (Y width x height, U and V width/2 x height/2) to RGB; each chroma sample
// covers a 2 x 2 block of luma.
Image yuv420ToRgb(const FrameCopy& copy);

// The viewable image of any copied frame. Throws ToolError for formats without a conversion.
Image toViewable(const FrameCopy& copy);

}  // namespace tool
}  // namespace ruvo
