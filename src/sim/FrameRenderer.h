// Turns the sensor's state into frames. The noiseless frame is rendered once per change of what
// it depends on (scene, size, flips, exposure, gains, illuminance, colour temperature, colour
// response, pedestal, layout) and then copied into each queued buffer; noise, when enabled, is
// drawn per frame.
#pragma once

#include "kernels/RawSamples.h"
#include "sim/Scene.h"
#include "sim/SimConfig.h"

#include <cstdint>
#include <memory>
#include <vector>

namespace ruvo {
namespace capture {
namespace sim {

// Everything one frame's noiseless samples depend on. Register values as the driver's controls
// hold them; `sceneVersion` changes whenever `scene` is replaced.
struct FrameSettings {
    std::shared_ptr<const Scene> scene;
    uint64_t sceneVersion = 0;
    int width = 0, height = 0;
    bool hFlip = false, vFlip = false;
    int32_t exposure = 0, gain = 0;
    int32_t redGain = 1024, greenGain = 1024, blueGain = 1024;
    float illuminance = 1.0f;
    float colourTemperature = 6500.0f;
    ColourResponse response = ColourResponse::Neutral;
    int32_t pedestal = 0;
    kernels::RawLayout layout = kernels::kPipelineLayout;  // of the delivered frame
};

struct NoiseSettings {
    bool enabled = false;
    float readNoise = 0.0f;  // 10-bit codes
    uint64_t seed = 0;
};

// The metering rectangle in pixels of the delivered frame. Clipped to the frame; the whole frame
// is metered when it is disabled or empty after clipping.
struct MeterRect {
    bool enabled = false;
    int32_t left = 0, top = 0, width = 0, height = 0;
};

// Used by one thread at a time (the sensor serialises frame production).
class FrameRenderer {
public:
    // Writes frame `frameNumber` into `destination`, width x height samples in the settings'
    // layout, unpadded rows.
    void write(const FrameSettings& settings, const NoiseSettings& noise, uint64_t frameNumber, uint8_t* destination);

    // Mean 10-bit level, pedestal included and rounded, of the noiseless frame over `rect`.
    int32_t meanLevel(const FrameSettings& settings, const MeterRect& rect);

    // How many times a noiseless frame was rendered (not copied) so far.
    uint64_t renderCount() const { return _renders; }

private:
    void ensureFrame(const FrameSettings& settings);
    void buildPlane(const FrameSettings& settings);
    void writeNoisy(const FrameSettings& settings, const NoiseSettings& noise, uint64_t frameNumber,
                    uint16_t* destination, int shift) const;

    // Per pixel, the scene's reflectance in the channel of that pixel's colour filter, mirrored
    // as the flips ask.
    std::vector<float> _plane;
    FrameSettings _planeKey;
    bool _planeValid = false;

    // Samples as 16-bit words: in the delivered layout when it is one, else 10-bit codes that
    // are packed per row on their way out.
    std::vector<uint16_t> _frame;
    std::vector<uint16_t> _noisy;  // a noisy frame's codes before packing
    FrameSettings _frameKey;
    bool _frameValid = false;
    uint64_t _renders = 0;

    MeterRect _meterKey;
    uint64_t _meterRender = 0;
    int32_t _meterValue = -1;
};

}  // namespace sim
}  // namespace capture
}  // namespace ruvo
