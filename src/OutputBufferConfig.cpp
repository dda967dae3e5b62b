// Rows of the output buffer table. The irregular rows (skin levels of row 2, the two identical
// colour buffers of row 9) are part of the contract with the kernels and stay as they are.
#include "OutputBufferConfig.h"

namespace ruvo {
namespace capture {

namespace {

using F = Frame;

constexpr OutputBufferDefinition colour(Frame::OutputLevel level) { return {F::YUV420p, F::COLOR, level}; }
constexpr OutputBufferDefinition y8(Frame::OutputType type, Frame::OutputLevel level) { return {F::Y8, type, level}; }

}  // namespace

const std::vector<std::vector<OutputBufferDefinition>> CUDA_OUTPUT_BUFFER_CONFIG = {
    // 0 YUV_ONLY
    {colour(F::ORIGINAL)},
    // 1 YUV_2
    {colour(F::ORIGINAL), colour(F::HALF)},
    // 2 YUV_2_4_SKIN_HISTOGRAM
    {colour(F::ORIGINAL),
     colour(F::HALF),
     colour(F::QUARTER),
     y8(F::SKIN_Y, F::HALF),
     {F::HISTOGRAM8, F::SKIN_HISTOGRAM, F::NOT_APPLICABLE},
     y8(F::SKIN_Y, F::EIGHTH),
     y8(F::SKIN_Y, F::SIXTEENTH)},
    // 3 YUV_2_4
    {colour(F::ORIGINAL), colour(F::HALF), colour(F::QUARTER), y8(F::SKIN_Y, F::HALF)},
    // 4 YUV_SKIN
    {colour(F::ORIGINAL), {F::YUV420p, F::SKIN, F::ORIGINAL}},
    // 5 YUV_GRADIENT
    {colour(F::ORIGINAL), y8(F::GRADIENT_X, F::ORIGINAL), y8(F::GRADIENT_Y, F::ORIGINAL)},
    // 6 YUV_2_4_GRADIENT
    {colour(F::ORIGINAL), colour(F::HALF), colour(F::QUARTER), y8(F::GRADIENT_X, F::ORIGINAL),
     y8(F::GRADIENT_Y, F::ORIGINAL)},
    // 7 YUV_2_4_GRADIENT_2_4
    {colour(F::ORIGINAL), colour(F::HALF), colour(F::QUARTER), y8(F::GRADIENT_X, F::ORIGINAL),
     y8(F::GRADIENT_Y, F::ORIGINAL), y8(F::GRADIENT_X, F::HALF), y8(F::GRADIENT_Y, F::HALF),
     y8(F::GRADIENT_X, F::QUARTER), y8(F::GRADIENT_Y, F::QUARTER)},
    // 8 YUV_2_GRADIENT_VECTOR_2
    {colour(F::ORIGINAL), colour(F::HALF), y8(F::GRADIENT_MAG, F::ORIGINAL), y8(F::GRADIENT_ORIENTATION, F::ORIGINAL),
     y8(F::GRADIENT_MAG, F::HALF), y8(F::GRADIENT_ORIENTATION, F::HALF)},
    // 9 BGGR
    {colour(F::ORIGINAL), colour(F::ORIGINAL), {F::RGB24, F::BAYER, F::ORIGINAL}},
    // 10 NO_DEMOSAIC_RGB
    {{F::RGB24, F::COLOR, F::ORIGINAL}, colour(F::ORIGINAL)},
    // 11 RGB_ONLY
    {{F::RGB24, F::COLOR, F::ORIGINAL}},
};

}  // namespace capture
}  // namespace ruvo
