// The pipeline's colour shaping undone on its YUV bytes: a sample's luma and its block's chroma
// back to the shaped red, green and blue, and each of those back to linear light through its own
// exponent. Curve white balance reads chromaticities this way, and auto exposure the linear luma
// when the sensor has no luminance statistic.
#pragma once

#include "3a/Metering.h"

#include <array>
#include <cstdint>

namespace ruvo {
namespace capture {
namespace metering {

// The pipeline's colour shaping: per-channel exponents of the linear values, and the exponents
// of the blue-difference (chromaU) and red-difference (chromaV) values.
struct ColourShape {
    float red = 0.8f, green = 0.8f, blue = 0.8f;
    float chromaU = 0.78f, chromaV = 0.78f;
};

// Linear red, green and blue (0..1 of full scale) of a pixel with luma y and the chroma u, v of
// its 2 x 2 block, as the pipeline wrote them (bytes, truncated). False when the bytes describe
// no colour with all three channels above zero.
bool linearRgb(uint8_t y, uint8_t u, uint8_t v, const ColourShape& shape, float rgb[3]);

// The mean linear luma (0.299 R + 0.587 G + 0.114 B, 0..1 of full scale) of every `step`-th pixel
// of every `step`-th row (step even), each sample taken back through linearRgb's inverse with the
// channels' own exponents; shaped values outside 0..1 are held to it. The inverse is kept as
// tables in fixed point (1/4096 of full scale), rebuilt when the shape changes, so that a sample
// costs a few integer additions and lookups.
class LinearLuma {
public:
    float mean(const YuvImage& image, const ColourShape& shape, uint32_t step = 4);

private:
    static constexpr int32_t kSteps = 4096;
    struct Shares {
        int32_t red, green, blue;
    };
    void build(const ColourShape& shape);

    bool _built = false;
    ColourShape _shape;
    std::array<int32_t, 256> _luma{};
    std::array<Shares, 256> _fromU{}, _fromV{};
    // Per channel: its luma weight times its linear value, at each fixed-point shaped value, in
    // units of 2^-24 (integer sums have no rounding and no long dependency chain).
    static constexpr double kUnit = 1 << 24;
    std::array<std::array<uint32_t, kSteps + 1>, 3> _weighted{};
};

}  // namespace metering
}  // namespace capture
}  // namespace ruvo
