// The pipeline's colour shaping undone on its YUV bytes: a sample's luma and its block's chroma
// back to the shaped red, green and blue, and each of those back to linear light through its own
// exponent. Curve white balance reads chromaticities this way, and auto exposure the linear luma
// when the sensor has no luminance statistic.
#pragma once

#include "3a/Metering.h"

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
// of every `step`-th row (step even), each taken back through linearRgb's inverse with the
// channels' own exponents; shaped values outside 0..1 are held to it. Tables make it a few
// lookups per sample. 0 for an empty image.
float meanLinearLuma(const YuvImage& image, const ColourShape& shape, uint32_t step = 4);

}  // namespace metering
}  // namespace capture
}  // namespace ruvo
