// The arithmetic of auto exposure and auto white balance: sampling, region statistics, weights,
// the gray test and the proportional updates.
#include "3a/Metering.h"

#include "SensorControls.h"

#include <cmath>

namespace ruvo {
namespace capture {
namespace metering {

YuvImage yuvImage(const uint8_t* data, uint32_t width, uint32_t height, uint32_t rows) {
    YuvImage image;
    const size_t luma = static_cast<size_t>(width) * rows;
    image.y = data;
    image.u = data + luma;
    image.v = data + luma + luma / 4;
    image.width = width;
    image.height = height;
    return image;
}

uint32_t gridSide(int32_t numRegions) {
    return static_cast<uint32_t>(std::sqrt(static_cast<double>(static_cast<uint32_t>(numRegions))));
}

uint32_t passLength(float numSamples) {
    if (!(numSamples > 0.0f)) return 0;
    const double count = std::ceil(static_cast<double>(numSamples));
    return count >= 4294967295.0 ? UINT32_MAX : static_cast<uint32_t>(count);
}

void gatherSamples(const YuvImage& image, const SampleTable& table, uint32_t tableSize, uint32_t offsetX,
                   uint32_t offsetY, uint32_t count, Samples& out) {
    out.col.resize(count);
    out.row.resize(count);
    out.y.resize(count);
    out.u.resize(count);
    out.v.resize(count);
    const uint32_t chromaWidth = image.width / 2;
    // (i + offset) mod tableSize, kept by wrapping instead of dividing on every sample.
    uint32_t colEntry = offsetX % tableSize;
    uint32_t rowEntry = offsetY % tableSize;
    for (uint32_t i = 0; i < count; ++i) {
        const uint32_t col = foldIntoImage(table[colEntry].first, image.width);
        const uint32_t row = foldIntoImage(table[rowEntry].second, image.height);
        const size_t chroma = static_cast<size_t>(row / 2) * chromaWidth + col / 2;
        out.col[i] = col;
        out.row[i] = row;
        out.y[i] = image.y[static_cast<size_t>(row) * image.width + col];
        out.u[i] = image.u[chroma];
        out.v[i] = image.v[chroma];
        if (++colEntry == tableSize) colEntry = 0;
        if (++rowEntry == tableSize) rowEntry = 0;
    }
}

float sampleRegions(const YuvImage& image, const SampleTable& table, uint32_t tableSize, uint32_t offsetX,
                    uint32_t offsetY, float numSamples, int32_t numRegions, MeteringScratch& scratch) {
    Samples& samples = scratch.samples;
    gatherSamples(image, table, tableSize, offsetX, offsetY, passLength(numSamples), samples);
    scratch.regions.assign(static_cast<uint32_t>(numRegions), Region());
    scratch.sampleRegion.resize(samples.y.size());
    const uint32_t side = gridSide(numRegions);
    float sumSkin = 0.0f;
    for (size_t i = 0; i < samples.y.size(); ++i) {
        const uint32_t index = regionIndex(samples.col[i], samples.row[i], side, image.width, image.height);
        const float lum = samples.y[i];
        Region& region = scratch.regions[index];
        if (countsAsSkin(lum, samples.u[i], samples.v[i])) region.skinPixelCnt += 1.0f;
        sumSkin += region.skinPixelCnt;
        scratch.sampleRegion[i] = index;
        if (lum < region.minLum) region.minLum = lum;
        if (lum > region.maxLum) region.maxLum = lum;
        region.avgLum += lum;
        region.counter += 1;
    }
    return sumSkin;
}

float populationStdDev(const float* values, size_t count, float mean) {
    float sum = 0.0f;
    for (size_t i = 0; i < count; ++i) {
        const float d = values[i] - mean;
        sum += d * d;
    }
    return std::sqrt(sum / static_cast<float>(count));
}

// Region deviations over the recorded samples, each region's squares summed in sampling order.
static void regionDeviations(MeteringScratch& scratch) {
    std::vector<Region>& regions = scratch.regions;
    scratch.devLum.assign(regions.size(), 0.0f);
    for (size_t s = 0; s < scratch.sampleRegion.size(); ++s) {
        const uint32_t r = scratch.sampleRegion[s];
        const float d = static_cast<float>(scratch.samples.y[s]) - regions[r].avgLum;
        scratch.devLum[r] += d * d;
    }
    for (size_t r = 0; r < regions.size(); ++r) {
        scratch.devLum[r] = std::sqrt(scratch.devLum[r] / static_cast<float>(regions[r].counter));
    }
}

void contrastWeighting(MeteringScratch& scratch, const float* winWeights, float sumWinWeights) {
    std::vector<Region>& regions = scratch.regions;
    for (Region& region : regions) region.avgLum = region.avgLum / static_cast<float>(region.counter);
    regionDeviations(scratch);
    const auto count = static_cast<float>(regions.size());
    float sumDev = 0.0f;
    for (float dev : scratch.devLum) sumDev += dev;
    const float meanstdv = sumDev / count;
    const float stdvstdv = populationStdDev(scratch.devLum.data(), scratch.devLum.size(), meanstdv);
    const double twoVar = 2.0 * static_cast<double>(stdvstdv) * static_cast<double>(stdvstdv);
    for (size_t r = 0; r < regions.size(); ++r) {
        const double d = static_cast<double>(scratch.devLum[r]) - static_cast<double>(meanstdv);
        regions[r].weight = static_cast<float>(std::exp(-0.5 * d * d / twoVar));
        regions[r].weight *= winWeights[r] / sumWinWeights;
    }
}

float skinBoostedWeight(float weight, float skinPixelCnt, float sumSkin) {
    const float ratio = skinPixelCnt / sumSkin;
    const float tempw = 1.0f + ratio;
    if (ratio >= 0.2f) return weight * tempw;
    if (ratio < 0.1f) return weight;
    const float mix = (ratio - 0.1f) * 10.0f;
    return weight * (tempw * (weight * (1.0f - mix) + mix * tempw));
}

float weightedLuminance(const std::vector<Region>& regions) {
    float sumWeights = 0.0f;
    for (const Region& region : regions) sumWeights += region.weight;
    float y = 0.0f;
    for (const Region& region : regions) y += region.avgLum * region.weight / sumWeights;
    return y / 255.0f;
}

SkinStats skinStatistics(const uint32_t* histogram, uint32_t width, uint32_t height, uint32_t cudaHeight) {
    SkinStats skin;
    uint32_t sum = 0;  // wraps as the 32-bit sum does; 255 x the pixels of 2688 x 1520 / 4 fits
    for (uint32_t i = 1; i < 256; ++i) sum += i * histogram[i];
    skin.sum = static_cast<int32_t>(sum);
    skin.skinPixels = width * cudaHeight / 4 - histogram[0];
    skin.skinRatio = (static_cast<float>(skin.skinPixels) / static_cast<float>(width) / static_cast<float>(height)) * 4;
    return skin;
}

float skinMeanNorm(const SkinStats& skin) {
    // No skin pixel with a skin share above its threshold needs a negative threshold; read it as 0.
    if (skin.skinPixels == 0) return 0.0f;
    const uint32_t mean = static_cast<uint32_t>(skin.sum) / skin.skinPixels;
    return static_cast<float>(mean) / 255.0f;
}

SkinBlend blendSkin(float regionY, float skinRatio, float skinMeanNorm, const SkinBlendParams& p) {
    SkinBlend blend;
    const float d = skinRatio - p.skinRatioThreshold;
    float skinY = skinMeanNorm;
    if (d < p.skinRatioMixThreshold) {
        blend.mixed = true;
        blend.alpha = d / p.skinRatioMixThreshold;
        skinY = (1.0f - blend.alpha) * regionY + blend.alpha * p.skinSegmentedTargetY;
    }
    blend.y = skinY * p.skinWeight + regionY * p.regionWeight;
    return blend;
}

GraySums sampleGray(const YuvImage& image, const SampleTable& table, int tableSize, int offsetX, int offsetY,
                    float numSamples, float grayThreshold, Samples& scratch) {
    gatherSamples(image, table, static_cast<uint32_t>(tableSize), static_cast<uint32_t>(offsetX),
                  static_cast<uint32_t>(offsetY), passLength(numSamples), scratch);
    GraySums sums;
    for (size_t i = 0; i < scratch.y.size(); ++i) {
        const float u = scratch.u[i];
        const float v = scratch.v[i];
        if (grayMeasure(scratch.y[i], u, v) < grayThreshold) {
            sums.sumU += u;
            sums.countU += 1;
            sums.sumV += v;
            sums.countV += 1;
        }
    }
    return sums;
}

// The proportional exposure step from `current`, within the register range.
static float exposureStepFrom(float current, float err, float avgY, const ExposureStep& s) {
    const float timeRange = s.timeMax - s.timeMin;
    const float time = (current - s.timeMin) / timeRange;
    const float timeNew = s.timeMin + (time + err * s.exposureP * time / avgY) * timeRange;
    return clampKeepNaN(timeNew, s.timeMin, s.timeMax);
}

float nextExposure(float current, float err, float avgY, const ExposureStep& s) {
    const float timeNew = exposureStepFrom(current, err, avgY, s);
    // Whole register units, then the permitted time in seconds, then whole units again.
    double seconds = std::trunc(timeNew) * s.unitMicroseconds / 1000000.0;
    seconds = seconds < s.lowSeconds ? s.lowSeconds : (seconds > s.highSeconds ? s.highSeconds : seconds);
    const auto units = static_cast<float>(std::trunc(seconds * 1000000.0 / s.unitMicroseconds));
    const float result = clampKeepNaN(units, s.timeMin, s.timeMax);
    return std::isnan(result) ? s.manualExposure : result;
}

float nextExposureCarried(float current, float err, float avgY, const ExposureStep& s, ExposureCarry& carry) {
    const bool carried = !std::isnan(carry.target) && carry.reg == current;
    float target = exposureStepFrom(carried ? carry.target : current, err, avgY, s);
    const double unitsPerSecond = 1000000.0 / s.unitMicroseconds;
    target = clampKeepNaN(target, static_cast<float>(s.lowSeconds * unitsPerSecond),
                          static_cast<float>(s.highSeconds * unitsPerSecond));
    target = clampKeepNaN(target, s.timeMin, s.timeMax);
    if (std::isnan(target)) {
        carry = ExposureCarry();
        return s.manualExposure;
    }
    carry.target = target;
    carry.reg = std::trunc(target);
    return carry.reg;
}

float nextGain(float currentGain, float err, float gainP, float manualGain) {
    const double gain = (static_cast<double>(currentGain) - 0.6) / 15.4;
    auto gainNew = static_cast<float>(0.6 + (gain + static_cast<double>(err) * gainP) * 15.4);
    if (gainNew < 0.6f) return 0.6f;
    if (gainNew > 16.0f) return 16.0f;
    if (std::isnan(gainNew)) return manualGain;
    return gainNew;
}

float nextChannelGain(float current, float minGain, float maxGain, float err, float P) {
    const float range = maxGain - minGain;
    const float gain = minGain + ((current - minGain) / range + err * P) * range;
    const float clamped = clampKeepNaN(gain, minGain, maxGain);
    return std::isnan(clamped) ? minGain : clamped;
}

}  // namespace metering
}  // namespace capture
}  // namespace ruvo
