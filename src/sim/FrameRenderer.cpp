// Rendering, caching, noise and metering of simulated Bayer frames.
#include "sim/FrameRenderer.h"

#include "sim/SampleFormats.h"
#include "sim/SensorModel.h"

#include <algorithm>
#include <cstring>

namespace ruvo {
namespace capture {
namespace sim {
namespace {

bool samePlane(const FrameSettings& a, const FrameSettings& b) {
    return a.sceneVersion == b.sceneVersion && a.width == b.width && a.height == b.height && a.hFlip == b.hFlip &&
           a.vFlip == b.vFlip;
}

bool sameFrame(const FrameSettings& a, const FrameSettings& b) {
    return samePlane(a, b) && a.exposure == b.exposure && a.gain == b.gain && a.redGain == b.redGain &&
           a.greenGain == b.greenGain && a.blueGain == b.blueGain && a.illuminance == b.illuminance &&
           a.colourTemperature == b.colourTemperature && a.response == b.response && a.pedestal == b.pedestal &&
           a.layout.order == b.layout.order && a.layout.storage == b.layout.storage && a.layout.bits == b.layout.bits;
}

// The colour filter over delivered pixel (x, y): the sensor's B G / G R pattern moved so that
// its first B sample sits where the delivered order puts it.
BayerChannel channelAt(int x, int y, kernels::BayerOrder order) {
    return bayerChannel(x ^ static_cast<int>(kernels::bayerColumnOffset(order)),
                        y ^ static_cast<int>(kernels::bayerRowOffset(order)));
}

// The shift of the codes held in 16-bit words: into the delivered word, or none when the rows
// are packed from plain codes.
int codeShift(const FrameSettings& s) { return std::max(wordShift(s.layout), 0); }

bool sameRect(const MeterRect& a, const MeterRect& b) {
    return a.enabled == b.enabled && a.left == b.left && a.top == b.top && a.width == b.width && a.height == b.height;
}

// Codes per unit reflectance and shot variance per code, indexed by BayerChannel.
struct ChannelModel {
    float scale[3];
    float shot[3];
};

ChannelModel channelModel(const FrameSettings& s) {
    const ChannelMultipliers illuminant = channelMultipliers(s.response, s.colourTemperature);
    const int32_t gains[3] = {s.redGain, s.greenGain, s.blueGain};
    const float multipliers[3] = {illuminant.red, 1.0f, illuminant.blue};
    ChannelModel m{};
    for (int c = 0; c < 3; ++c) {
        m.scale[c] = channelScale(s.illuminance, s.exposure, s.gain, gains[c], multipliers[c]);
        m.shot[c] = shotVariancePerCode(s.gain, gains[c]);
    }
    return m;
}

// The frame-space bounds [x0, x1) x [y0, y1) that a metering rectangle covers.
struct Bounds {
    int x0, y0, x1, y1;
};

Bounds meterBounds(const MeterRect& r, int width, int height) {
    const auto clampTo = [](int64_t v, int limit) { return static_cast<int>(std::clamp<int64_t>(v, 0, limit)); };
    const Bounds b{clampTo(r.left, width), clampTo(r.top, height), clampTo(int64_t{r.left} + r.width, width),
                   clampTo(int64_t{r.top} + r.height, height)};
    if (!r.enabled || b.x1 <= b.x0 || b.y1 <= b.y0) return Bounds{0, 0, width, height};
    return b;
}

}  // namespace

void FrameRenderer::buildPlane(const FrameSettings& s) {
    _plane.resize(static_cast<size_t>(s.width) * s.height);
    const Scene& scene = *s.scene;
#pragma omp parallel for schedule(static)
    for (int y = 0; y < s.height; ++y) {
        const int sceneY = s.vFlip ? s.height - 1 - y : y;
        float* row = &_plane[static_cast<size_t>(y) * s.width];
        for (int x = 0; x < s.width; ++x) {
            const Rgb rgb = scene.reflectance(s.hFlip ? s.width - 1 - x : x, sceneY, s.width, s.height);
            const BayerChannel channel = channelAt(x, y, s.layout.order);
            const float value = channel == kRed ? rgb.r : (channel == kGreen ? rgb.g : rgb.b);
            // Reflectance is 0..1; a scene that strays (or gives NaN) is held to it.
            row[x] = value > 0.0f ? (value < 1.0f ? value : 1.0f) : 0.0f;
        }
    }
    _planeKey = s;
    _planeValid = true;
}

void FrameRenderer::ensureFrame(const FrameSettings& s) {
    if (_frameValid && sameFrame(_frameKey, s)) return;
    if (!_planeValid || !samePlane(_planeKey, s)) buildPlane(s);
    _frame.resize(_plane.size());
    const ChannelModel m = channelModel(s);
    float scale[3];
    for (int c = 0; c < 3; ++c) scale[c] = std::min(m.scale[c], kMaxScale);
    const float pedestal = static_cast<float>(s.pedestal);
    const int shift = codeShift(s);
    for (int y = 0; y < s.height; ++y) {
        const size_t offset = static_cast<size_t>(y) * s.width;
        renderRow(&_plane[offset], &_frame[offset], s.width, scale[channelAt(0, y, s.layout.order)],
                  scale[channelAt(1, y, s.layout.order)], pedestal, shift);
    }
    _frameKey = s;
    _frameValid = true;
    ++_renders;
}

void FrameRenderer::write(const FrameSettings& s, const NoiseSettings& noise, uint64_t frameNumber,
                          uint8_t* destination) {
    const bool words = wordShift(s.layout) >= 0;
    const uint16_t* codes = nullptr;
    if (noise.enabled) {
        if (!_planeValid || !samePlane(_planeKey, s)) buildPlane(s);
        if (!words) _noisy.resize(static_cast<size_t>(s.width) * s.height);
        uint16_t* target = words ? reinterpret_cast<uint16_t*>(destination) : _noisy.data();
        writeNoisy(s, noise, frameNumber, target, codeShift(s));
        codes = target;
    } else {
        ensureFrame(s);
        codes = _frame.data();
        if (words) std::memcpy(destination, codes, _frame.size() * sizeof(uint16_t));
    }
    if (words) return;
    const size_t rowBytes = kernels::packedRowBytes(s.layout.storage, static_cast<unsigned>(s.width));
    for (int y = 0; y < s.height; ++y)
        packRow(codes + static_cast<size_t>(y) * s.width, static_cast<size_t>(s.width), s.layout,
                destination + y * rowBytes);
}

void FrameRenderer::writeNoisy(const FrameSettings& s, const NoiseSettings& noise, uint64_t frameNumber,
                               uint16_t* destination, int shift) const {
    const ChannelModel m = channelModel(s);
    const float pedestal = static_cast<float>(s.pedestal);
    const float* gaussian = gaussianTable();
#pragma omp parallel for schedule(static)
    for (int y = 0; y < s.height; ++y) {
        const size_t offset = static_cast<size_t>(y) * s.width;
        const BayerChannel channels[2] = {channelAt(0, y, s.layout.order), channelAt(1, y, s.layout.order)};
        uint64_t state = noiseState(noise.seed, frameNumber, y);
        uint64_t bits = 0;
        for (int x = 0; x < s.width; ++x) {
            // Four 16-bit table indices per 64 random bits.
            if ((x & 3) == 0) bits = splitMix64(state);
            const float z = gaussian[bits & 0xFFFF];
            bits >>= 16;
            const BayerChannel c = channels[x & 1];
            const float signal = _plane[offset + x] * m.scale[c];
            destination[offset + x] =
                storeSample(signal + z * noiseSigma(signal, m.shot[c], noise.readNoise), pedestal, shift);
        }
    }
}

int32_t FrameRenderer::meanLevel(const FrameSettings& s, const MeterRect& rect) {
    ensureFrame(s);
    if (_meterValue >= 0 && _meterRender == _renders && sameRect(_meterKey, rect)) return _meterValue;
    const Bounds b = meterBounds(rect, s.width, s.height);
    const int shift = codeShift(s);
    uint64_t sum = 0;
    for (int y = b.y0; y < b.y1; ++y)
        sum += sumCodes(&_frame[static_cast<size_t>(y) * s.width + b.x0], b.x1 - b.x0, shift);
    const uint64_t count = static_cast<uint64_t>(b.x1 - b.x0) * static_cast<uint64_t>(b.y1 - b.y0);
    _meterValue = static_cast<int32_t>((sum + count / 2) / count);
    _meterKey = rect;
    _meterRender = _renders;
    return _meterValue;
}

}  // namespace sim
}  // namespace capture
}  // namespace ruvo
