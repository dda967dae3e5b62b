// The arithmetic of the per-frame auto exposure and auto white balance, as pure functions of
// their inputs: sampling the processed YUV image at the metering positions, region statistics,
// contrast and skin weighting, the gray test, and the proportional updates of the sensor values.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <utility>
#include <vector>

namespace ruvo {
namespace capture {
namespace metering {

using SampleTable = std::vector<std::pair<int, int>>;  // (column, row) in full-resolution pixels

// A planar YUV 4:2:0 image as the pipeline writes it: Y of width x rows bytes, then U
// (blue-difference) and V (red-difference), each (width/2) x (rows/2) bytes, without padding.
// `height` is the visible height; `rows` the allocated one that places the chroma planes.
struct YuvImage {
    const uint8_t* y = nullptr;
    const uint8_t* u = nullptr;
    const uint8_t* v = nullptr;
    uint32_t width = 0;
    uint32_t height = 0;
};

YuvImage yuvImage(const uint8_t* data, uint32_t width, uint32_t height, uint32_t rows);

// One metering region of one evaluation.
struct Region {
    float avgLum = 0.0f;  // sum of sampled luminance, then the mean
    float maxLum = std::numeric_limits<float>::lowest();
    float minLum = std::numeric_limits<float>::max();
    int counter = 0;  // samples that fell into the region
    float weight = 0.0f;
    float skinPixelCnt = 0.0f;
};

// The bytes of one metering pass, in sampling order.
struct Samples {
    std::vector<uint32_t> col;
    std::vector<uint32_t> row;
    std::vector<uint8_t> y;
    std::vector<uint8_t> u;  // chroma of the 2 x 2 block holding the sample
    std::vector<uint8_t> v;
};

// The exposure loop's state on a coarse exposure unit: the unrounded exposure the last step
// computed, and the whole register value written for it. No target: nothing carried.
struct ExposureCarry {
    float target = std::numeric_limits<float>::quiet_NaN();
    float reg = 0.0f;
};

// Per-evaluation state of the metering, kept by the camera so that a frame allocates nothing
// once the first one has sized the vectors; and the exposure carry, which lives as long.
struct MeteringScratch {
    Samples samples;
    std::vector<Region> regions;
    std::vector<uint32_t> sampleRegion;  // region index of each sample
    std::vector<float> devLum;           // per region: standard deviation of its luminance
    ExposureCarry exposureCarry;
};

// Side of the square region grid: the integer square root of the region count.
uint32_t gridSide(int32_t numRegions);

// Region of the sample at column x, row y of a width x height image in a side x side grid. The
// index is column-major: the column's grid cell times side plus the row's grid cell.
inline uint32_t regionIndex(uint32_t x, uint32_t y, uint32_t side, uint32_t width, uint32_t height) {
    const uint32_t xCoor = x * side / width;
    const uint32_t yCoor = y * side / height;
    return xCoor * side + yCoor;
}

// The skin test of the region metering. Its tests are joined by "or", so every sample passes.
inline bool countsAsSkin(float lum, float cb, float cr) {
    return cb > 59.0f || cb < 129.0f || cr > 135.0f || cr < 195.0f || lum > 40.0f || lum < 190.0f;
}

// Folds a sample position drawn for another frame size back into the image, so that a table
// drawn before a change of resolution never reads outside the planes.
inline uint32_t foldIntoImage(int position, uint32_t size) {
    const auto p = static_cast<uint32_t>(position);
    return p < size ? p : p % size;
}

// Number of samples in a pass that runs i = 0, 1, ... while i, as a float, is below numSamples.
uint32_t passLength(float numSamples);

// Reads the bytes of `count` samples: sample i at the column of table entry (i + offsetX) mod
// tableSize and the row of entry (i + offsetY) mod tableSize. The reads depend on nothing but
// the table, so on an image that is not in cache their misses overlap.
void gatherSamples(const YuvImage& image, const SampleTable& table, uint32_t tableSize, uint32_t offsetX,
                   uint32_t offsetY, uint32_t count, Samples& out);

// Samples the image for the region metering (pass length from numSamples, positions as
// gatherSamples takes them) and fills scratch with numRegions fresh regions: their sums,
// extremes, counts and skin counts. Returns the sum over samples of their region's skin count
// after the sample was counted.
float sampleRegions(const YuvImage& image, const SampleTable& table, uint32_t tableSize, uint32_t offsetX,
                    uint32_t offsetY, float numSamples, int32_t numRegions, MeteringScratch& scratch);

// Population standard deviation of `values`, given their mean.
float populationStdDev(const float* values, size_t count, float mean);

// Turns the region sums into means and weights every region by how typical its contrast is
// (a Gaussian of its luminance deviation about the mean deviation) times its share of the
// centre prior `winWeights[i] / sumWinWeights`.
void contrastWeighting(MeteringScratch& scratch, const float* winWeights, float sumWinWeights);

// A region's weight after the skin boost, given its skin count and the sum of the skin counts.
float skinBoostedWeight(float weight, float skinPixelCnt, float sumSkin);

// Mean of the region means weighted by the region weights, on a 0..1 scale.
float weightedLuminance(const std::vector<Region>& regions);

// Skin statistics of the skin-masked luminance histogram of the half-resolution image.
struct SkinStats {
    int32_t sum = 0;          // sum of luminance times count over the skin bins 1..255
    uint32_t skinPixels = 0;  // pixels counted as skin (bin 0 counts the others)
    float skinRatio = 0.0f;   // skin share of the image
};

SkinStats skinStatistics(const uint32_t* histogram, uint32_t width, uint32_t height, uint32_t cudaHeight);

// Mean skin luminance on a 0..1 scale: the integer mean of the histogram, divided by 255.
float skinMeanNorm(const SkinStats& skin);

struct SkinBlendParams {
    float skinRatioThreshold = 0.0f;
    float skinRatioMixThreshold = 0.0f;
    float skinSegmentedTargetY = 0.0f;  // already offset by the exposure value
    float skinWeight = 0.0f;
    float regionWeight = 0.0f;
};

struct SkinBlend {
    float y = 0.0f;      // blended luminance
    bool mixed = false;  // the skin share was just above its threshold: target mixed in
    float alpha = 0.0f;  // share of the skin target when mixed
};

// Blends the region luminance with the skin luminance once skin covers more than the threshold.
// Just above the threshold the skin term slides from the region luminance toward the skin target.
SkinBlend blendSkin(float regionY, float skinRatio, float skinMeanNorm, const SkinBlendParams& p);

// Gray measure of a pixel: chroma distance from neutral relative to its luminance. A pixel with
// Y = 0 gives infinity or not-a-number and is never gray.
inline float grayMeasure(float y, float u, float v) {
    const float du = u < 128.0f ? 128.0f - u : u - 128.0f;
    const float dv = v < 128.0f ? 128.0f - v : v - 128.0f;
    return static_cast<float>((static_cast<double>(du) + static_cast<double>(dv)) / y);
}

struct GraySums {
    float sumU = 0.0f;
    float sumV = 0.0f;
    int countU = 0;
    int countV = 0;
};

// Sums the chroma of the gray samples of a pass of numSamples, positions as gatherSamples takes
// them (the offsets are remainders of the table size, so signed and unsigned arithmetic agree).
GraySums sampleGray(const YuvImage& image, const SampleTable& table, int tableSize, int offsetX, int offsetY,
                    float numSamples, float grayThreshold, Samples& scratch);

// Clamps x to [lo, hi]; a value that is not a number stays one.
inline float clampKeepNaN(float x, float lo, float hi) { return x < lo ? lo : (x > hi ? hi : x); }

struct ExposureStep {
    float timeMin = 0.0f;  // exposure register range reported by the driver
    float timeMax = 0.0f;
    float lowSeconds = 0.0f;  // permitted exposure time, seconds
    float highSeconds = 0.0f;
    float exposureP = 0.0f;
    float manualExposure = 0.0f;           // fallback, used as it stands when the result is not a number
    double unitMicroseconds = 0.44782403;  // one exposure register unit
};

// Next exposure register: a step proportional to the current exposure and to the luminance
// error, divided by the measured luminance; then limited to the register range and the permitted
// time. Returned before the final truncation so that the caller sees a not-a-number fallback.
float nextExposure(float current, float err, float avgY, const ExposureStep& s);

// Next exposure register on a coarse unit (100 us: at 2.5 ms one unit is 4%): the step of
// nextExposure, taken from the carried unrounded exposure while the register still holds that
// carry's truncation, else from the register (manual exposure, a preset or a restart wrote it).
// The result, limited as nextExposure limits it but not rounded, is carried on; its truncation is
// returned. Steps smaller than a unit so add up instead of being dropped frame after frame.
float nextExposureCarried(float current, float err, float avgY, const ExposureStep& s, ExposureCarry& carry);

// Next analogue gain factor, in 0.6..16: a step proportional to the luminance error over the
// gain span 0.6..16; not-a-number falls back to `manualGain`.
float nextGain(float currentGain, float err, float gainP, float manualGain);

// Next white-balance register of one channel: a step of err * P of the register range, clamped
// to the range; not-a-number gives the minimum.
float nextChannelGain(float current, float minGain, float maxGain, float err, float P);

}  // namespace metering
}  // namespace capture
}  // namespace ruvo
