// The closed loop of auto exposure and white balance against the simulated sensor: frames are
// stepped through the whole camera (sensor, pipeline, 3A), and each frame reports the luminance
// the controller metered and the chroma of a neutral chart patch, so that tests and the
// convergence benchmark can count the frames a scene change takes to settle.
#pragma once

#include "support/rig_3a.h"

#include "sim/Scene.h"

#include <array>
#include <cmath>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace ruvo {
namespace capture {
namespace testing {

// One delivered frame as the loop sees it.
struct LoopFrame {
    float meteredY = 0.0f;  // luminance the exposure controller measured, 0..1
    float grayU = 0.0f;     // mean chroma of the neutral patch, 0..1
    float grayV = 0.0f;
    int32_t exposure = 0;  // registers after the frame's evaluation
    int32_t gain = 0;
    int32_t redGain = 0;
    int32_t blueGain = 0;
};

// A camera on the chart, stepped one frame at a time; no flips, so the chart is upright.
class ClosedLoop {
public:
    static constexpr int kGrayPatch = 20;  // neutral 6.5 of the colour checker

    // `extra` keys (white-balance mode, the sensor's colour response, ...) join the camera entry.
    ClosedLoop(const std::string& configuration, uint32_t width, uint32_t height, SimKeys extra = {})
        : rig(withLoopKeys(std::move(extra), configuration, width, height)) {}

    sim::SimulatedSensor& sensor() { return *rig.sensor; }
    const CUDACamera::Params& params() const { return rig.camera->getParams(); }

    LoopFrame next() {
        if (!rig.sensor->step()) throw std::runtime_error("the simulated sensor dropped a frame");
        CUDACamera::Bucket* bucket = rig.camera->read();
        if (bucket == nullptr) throw std::runtime_error("no frame after a step");
        // Every buffer goes back on every way out, so a failed read below cannot leave the rig's
        // stop() waiting for it.
        struct Release {
            CUDACamera& camera;
            const CUDACamera::Bucket& bucket;
            ~Release() {
                for (size_t k = 0; k < bucket.buffers.size(); ++k)
                    camera.release(bucket.index, static_cast<unsigned>(k));
            }
        } release{*rig.camera, *bucket};
        LoopFrame frame;
        frame.meteredY = CUDACameraTestAccess::aeMeteredY(*rig.camera);
        measureGrayPatch(*bucket, frame);
        frame.exposure = rig.reg(rig.camera->sensorProfile().exposureControl);
        frame.gain = rig.reg(rig.camera->sensorProfile().gainControl);
        // Without the sensor's channel gains, the pipeline's as the frame's feedback gives them.
        const bool sensorGains = rig.camera->sensorProfile().channelGains;
        const std::array<float, 4>& gains = bucket->feedback.autoWhiteBalanceGains;
        frame.redGain = sensorGains ? rig.reg(sensor::CID_RED_GAIN) : static_cast<int32_t>(gains.front() * 1024.0f);
        frame.blueGain = sensorGains ? rig.reg(sensor::CID_BLUE_GAIN) : static_cast<int32_t>(gains.back() * 1024.0f);
        return frame;
    }

    std::vector<LoopFrame> run(int frames) {
        std::vector<LoopFrame> out;
        for (int i = 0; i < frames; ++i) out.push_back(next());
        return out;
    }

    CameraRig rig;

private:
    static SimKeys withLoopKeys(SimKeys keys, const std::string& configuration, uint32_t width, uint32_t height) {
        keys.insert({{"outputBufferFormats", configuration},
                     {"width", std::to_string(width)},
                     {"height", std::to_string(height)},
                     {"hFlip", "false"},
                     {"vFlip", "false"},
                     {"sim.scene", "chart"}});
        return keys;
    }

    // Mean U and V over the middle half of the patch, from the full-size YUV 4:2:0 output.
    static void measureGrayPatch(const CUDACamera::Bucket& bucket, LoopFrame& frame) {
        const sim::RelativeRect patch = sim::chartPatchRect(kGrayPatch);
        const uint32_t w = bucket.width / 2;
        const uint32_t h = bucket.height / 2;
        const auto x0 = static_cast<uint32_t>((patch.left * 0.75f + patch.right * 0.25f) * w);
        const auto x1 = static_cast<uint32_t>((patch.left * 0.25f + patch.right * 0.75f) * w);
        const auto y0 = static_cast<uint32_t>((patch.top * 0.75f + patch.bottom * 0.25f) * h);
        const auto y1 = static_cast<uint32_t>((patch.top * 0.25f + patch.bottom * 0.75f) * h);
        const CUDACamera::CUDAFrame& image = bucket.buffers[0].frame;
        const size_t luma = static_cast<size_t>(image.width) * image.cuda_height;
        const uint8_t* u = image.data + luma;
        const uint8_t* v = u + luma / 4;
        double sumU = 0.0, sumV = 0.0;
        size_t count = 0;
        for (uint32_t y = y0; y < y1; ++y) {
            for (uint32_t x = x0; x < x1; ++x) {
                sumU += u[static_cast<size_t>(y) * w + x];
                sumV += v[static_cast<size_t>(y) * w + x];
                ++count;
            }
        }
        frame.grayU = static_cast<float>(sumU / count / 255.0);
        frame.grayV = static_cast<float>(sumV / count / 255.0);
    }
};

// How one quantity answered a step: frames until it entered the band and stayed there to the
// end of the record, how far it went past the target, and how often it left the band again
// after first reaching it (oscillation or jitter wider than the band).
struct Settling {
    int frames = -1;         // first frame of the final stretch inside the band; -1: never settled
    float overshoot = 0.0f;  // largest excursion past the target against the approach, relative
    int exits = 0;           // times it left the band after first entering it
};

// `values` from the first frame after the step; band is relative (0.05 for 5%).
inline Settling settling(const std::vector<float>& values, float target, float band) {
    Settling s;
    const float tolerance = std::fabs(target) * band;
    for (size_t i = values.size(); i-- > 0;) {
        if (!(std::fabs(values[i] - target) <= tolerance)) break;
        s.frames = static_cast<int>(i);
    }
    if (values.empty()) return s;
    const float approach = values.front() < target ? 1.0f : -1.0f;  // +1: rising toward the target
    bool reached = false;
    bool inside = false;
    for (float value : values) {
        const bool nowInside = std::fabs(value - target) <= tolerance;
        if (reached && inside && !nowInside) ++s.exits;
        reached = reached || nowInside;
        inside = nowInside;
        const float past = (value - target) * approach / std::fabs(target);
        if (past > s.overshoot) s.overshoot = past;
    }
    return s;
}

// Mean of each value and the up to `window - 1` values before it.
inline std::vector<float> movingAverage(const std::vector<float>& values, size_t window) {
    std::vector<float> out;
    float sum = 0.0f;
    for (size_t i = 0; i < values.size(); ++i) {
        sum += values[i];
        if (i >= window) sum -= values[i - window];
        out.push_back(sum / static_cast<float>(i < window ? i + 1 : window));
    }
    return out;
}

}  // namespace testing
}  // namespace capture
}  // namespace ruvo
