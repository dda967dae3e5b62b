// The simulated sensor's physical model as pure functions: how scene reflectance, illuminance,
// exposure time and gains become a 10-bit Bayer sample, how noise is drawn, and how samples are
// stored. FrameRenderer applies them to whole frames.
#pragma once

#include "SensorControls.h"
#include "sim/SimConfig.h"

#include <algorithm>
#include <cmath>
#include <cstdint>

namespace ruvo {
namespace capture {
namespace sim {

// 10-bit codes (above the pedestal) produced by a reflectance of 1.0 under the nominal
// illuminance (1.0) in one second at unity analogue and channel gain. With the driver defaults
// (10 ms exposure, gain register 128, channel gains 1024) a mid-gray reflectance of 0.18 gives
// 180 codes above the pedestal, white (0.9) gives 900: neither black nor clipped.
constexpr float kSensitivity = 100000.0f;
// 10-bit codes per photo-electron at unity gain (a full well of about 10,000 electrons).
constexpr float kCodesPerElectron = 0.1f;
constexpr int32_t kMaxCode = 1023;

enum BayerChannel { kRed = 0, kGreen = 1, kBlue = 2 };

// The colour filter over pixel (x, y) in the SBGGR pattern; the pattern stays BGGR whatever the
// flips, as the readout window moves by one pixel when mirrored:
//
//     x:  0  1  2  3
//   y=0   B  G  B  G
//   y=1   G  R  G  R
inline BayerChannel bayerChannel(int x, int y) {
    if ((y & 1) == 0) return (x & 1) == 0 ? kBlue : kGreen;
    return (x & 1) == 0 ? kGreen : kRed;
}

// Red and blue response of the sensor relative to green under illuminants of the given colour
// temperature, neutral (1, 1) at 6500 K, interpolated in mired over a small table.
struct ChannelMultipliers {
    float red = 1.0f, blue = 1.0f;
};
ChannelMultipliers colourTemperatureMultipliers(float kelvin);

// Red and blue response of a bare sensor relative to green under a black body at `kelvin`: the
// Planck spectrum weighted by each filter's Gaussian spectral sensitivity (peak, width, height
// in kRawFilters), summed over 380..720 nm in 5 nm steps.
ChannelMultipliers rawSensorMultipliers(float kelvin);

// The multipliers of a colour response: the table above for `Neutral`; for `Raw`, the bare sensor,
// green-dominant and strongly warm under tungsten light.
inline ChannelMultipliers channelMultipliers(ColourResponse response, float kelvin) {
    return response == ColourResponse::Raw ? rawSensorMultipliers(kelvin) : colourTemperatureMultipliers(kelvin);
}

// Exposure register (sensor lines) to seconds.
inline double exposureSeconds(int32_t exposureRegister) {
    return static_cast<double>(exposureRegister) * sensor::kExposureUnitMicroseconds * 1e-6;
}

// Codes per unit reflectance at one Bayer channel: illuminance x exposure time x analogue gain
// x channel gain (register units of 1/1024) x the illuminant's channel multiplier.
inline float channelScale(float illuminance, int32_t exposureRegister, int32_t gainRegister,
                          int32_t channelGainRegister, float illuminantMultiplier) {
    return static_cast<float>(kSensitivity * illuminance * exposureSeconds(exposureRegister) *
                              gainFromRegister(gainRegister) * (channelGainRegister / 1024.0) * illuminantMultiplier);
}

// Shot-noise variance per code of signal at one channel: the total gain in codes per electron.
inline float shotVariancePerCode(int32_t gainRegister, int32_t channelGainRegister) {
    return static_cast<float>(kCodesPerElectron * gainFromRegister(gainRegister) * (channelGainRegister / 1024.0));
}

// Standard deviation of the noise on a sample with `signal` codes above the pedestal: photon
// shot noise (variance proportional to the signal) and read noise, both in 10-bit codes.
inline float noiseSigma(float signal, float shotPerCode, float readNoise) {
    return std::sqrt(std::max(signal, 0.0f) * shotPerCode + readNoise * readNoise);
}

// The stored sample: pedestal + signal rounded and clipped to 10 bits, then placed in the field
// the layout asks for (shift 4: value x 16 in a 14-bit field; shift 0: plain 10-bit).
inline uint16_t storeSample(float signal, float pedestal, int shift) {
    const float code = std::min(std::max(pedestal + signal, 0.0f), static_cast<float>(kMaxCode));
    return static_cast<uint16_t>(static_cast<uint16_t>(code + 0.5f) << shift);
}

// storeSample for a signal and pedestal known to be >= 0 with a sum below kMaxScale + 1024: the
// clip is an integer minimum, which lets the compiler vectorise rows of these.
inline uint16_t storeNonNegativeSample(float signal, float pedestal, int shift) {
    const auto code = static_cast<int32_t>(pedestal + signal + 0.5f);
    return static_cast<uint16_t>((code > kMaxCode ? kMaxCode : code) << shift);
}

// The largest codes-per-reflectance scale a noiseless row is rendered with. Larger scales clip
// every reflectance above 1e-6 anyway, and the cap keeps codes within int32.
constexpr float kMaxScale = 1e9f;

// Noiseless samples for `count` (even) pixels of a row from reflectances in 0..1: `scaleEven`
// applies to even columns, `scaleOdd` to odd ones (B/G on even rows, G/R on odd rows), both in
// 0..kMaxScale; the pedestal is 0..1023.
inline void renderPairs(const float* reflectance, uint16_t* out, int count, float scaleEven, float scaleOdd,
                        float pedestal, int shift) {
    for (int x = 0; x < count; x += 2) {
        out[x] = storeNonNegativeSample(reflectance[x] * scaleEven, pedestal, shift);
        out[x + 1] = storeNonNegativeSample(reflectance[x + 1] * scaleOdd, pedestal, shift);
    }
}

// A whole row (`width` even) as renderPairs does it, in blocks of a fixed size so that the
// compiler vectorises each block without knowing the width.
inline void renderRow(const float* reflectance, uint16_t* out, int width, float scaleEven, float scaleOdd,
                      float pedestal, int shift) {
    constexpr int kBlock = 16;
    int x = 0;
    for (; x + kBlock <= width; x += kBlock)
        renderPairs(reflectance + x, out + x, kBlock, scaleEven, scaleOdd, pedestal, shift);
    renderPairs(reflectance + x, out + x, width - x, scaleEven, scaleOdd, pedestal, shift);
}

// Sum of the 10-bit values (stored sample >> shift) of `count` samples, in fixed-size blocks so
// that the compiler vectorises it. A row of up to 4 million samples fits the 32-bit sum.
inline uint32_t sumCodes(const uint16_t* samples, int count, int shift) {
    constexpr int kBlock = 16;
    uint32_t sum = 0;
    int x = 0;
    for (; x + kBlock <= count; x += kBlock) {
        uint32_t block = 0;
        for (int k = 0; k < kBlock; ++k) block += static_cast<uint32_t>(samples[x + k] >> shift);
        sum += block;
    }
    for (; x < count; ++x) sum += static_cast<uint32_t>(samples[x] >> shift);
    return sum;
}

// A step of the SplitMix64 generator: advances `state` and returns 64 random bits.
inline uint64_t splitMix64(uint64_t& state) {
    uint64_t z = (state += 0x9E3779B97F4A7C15ull);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
}

// Starting state of the noise generator for one row of one frame, so that a frame's noise
// depends only on the seed, the frame number and the row, never on timing or threads.
inline uint64_t noiseState(uint64_t seed, uint64_t frame, int row) {
    uint64_t state = seed;
    state ^= splitMix64(state) + frame;
    state ^= splitMix64(state) + static_cast<uint64_t>(row);
    splitMix64(state);
    return state;
}

// Standard normal deviates at 65536 equally spaced probabilities, indexed by 16 random bits.
const float* gaussianTable();

}  // namespace sim
}  // namespace capture
}  // namespace ruvo
