// What the 3A tests share: a started camera on a fresh stepped simulated sensor whose control
// registers the tests read back, frames crafted byte by byte for its evaluation, exact placement
// of the metering samples, and the texts sent on a diagnostics channel.
#pragma once

#include "CUDACamera.h"
#include "SensorControls.h"
#include "sim/SimulatedSensor.h"
#include "support/CameraTestAccess.h"
#include "support/sim_client.h"

#include <ruvo/util/Channel.h>

#include <cstdlib>
#include <functional>
#include <initializer_list>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace ruvo {
namespace capture {
namespace testing {

// Frame size of the rig's camera unless the keys say otherwise.
constexpr uint32_t kWidth = 1280;
constexpr uint32_t kHeight = 720;

// A camera started on a stepped simulated sensor.
class CameraRig {
public:
    explicit CameraRig(SimKeys keys, int index = 0) : path(uniqueSimPath("3a")) {
        keys.emplace("sim.clock", "stepped");
        keys["path"] = path;
        keys.emplace("width", std::to_string(kWidth));
        keys.emplace("height", std::to_string(kHeight));
        camera = std::make_unique<CUDACamera>(cameraEntry(keys), index);
        camera->start();
        sensor = sim::findSensor(path);
    }
    CameraRig(std::initializer_list<SimKeys::value_type> keys, int index = 0) : CameraRig(SimKeys(keys), index) {}
    ~CameraRig() { camera->stop(); }
    CameraRig(const CameraRig&) = delete;
    CameraRig& operator=(const CameraRig&) = delete;

    int32_t reg(uint32_t id) const { return sensor->control(id); }
    void setReg(uint32_t id, int32_t value) { camera->setControl(id, value); }

    // Changes the camera's controls through its public setter.
    void change(const std::function<void(Controls&)>& edit) {
        Controls c = camera->getControls();
        edit(c);
        camera->setControls(c);
    }

    void evaluate(const CUDACamera::Bucket& bucket) { CUDACameraTestAccess::evaluate3A(*camera, bucket); }

    // Exposes one frame so that the driver's luminance statistic describes the current scene.
    int32_t exposeForStatistic() {
        sensor->step();
        return reg(sensor::CID_AVG_LUMINANCE);
    }

    // Puts exposure, gain and the controller memories in a known state.
    void resetExposure(int32_t exposure, float gain) {
        setReg(sensor::CID_EXPOSURE, exposure);
        setReg(sensor::CID_GAIN, gainToRegister(gain));
        CUDACameraTestAccess::currExpGain(*camera) = gain;
    }

    std::string path;
    std::unique_ptr<CUDACamera> camera;
    std::shared_ptr<sim::SimulatedSensor> sensor;
};

// A bucket for the evaluation: output buffer 0 a YUV 4:2:0 image of width x height that the
// test fills, and, with five or more outputs, buffer 4 a skin histogram of 256 counters.
class CraftedFrame {
public:
    CraftedFrame(uint32_t width, uint32_t height, size_t outputs = 1)
        : yuv(static_cast<size_t>(width) * height * 3 / 2, 0), histogram(256, 0) {
        bucket.width = width;
        bucket.height = height;
        bucket.cuda_height = height;
        bucket.status = CUDACamera::Bucket::USED;
        for (size_t k = 0; k < outputs; ++k) bucket.buffers.emplace_back(width, height, 0, 1, height);
        CUDACamera::Bucket::OutputBuffer& image = bucket.buffers[0];
        image.cudaOut.host = image.cudaOut.device = image.frame.data = yuv.data();
        image.cudaOut.size = image.frame.size = static_cast<uint32_t>(yuv.size());
        if (outputs > 4) {
            CUDACamera::Bucket::OutputBuffer& skin = bucket.buffers[4];
            skin.cudaOut.host = skin.cudaOut.device = histogram.data();
            skin.cudaOut.size = static_cast<uint32_t>(histogram.size() * sizeof(uint32_t));
        }
        setSkin(0, 0);
    }

    uint8_t& y(uint32_t x, uint32_t row) { return yuv[static_cast<size_t>(row) * width() + x]; }

    void fill(uint8_t Y, uint8_t U, uint8_t V) {
        std::fill(yuv.begin(), yuv.begin() + lumaBytes(), Y);
        std::fill(yuv.begin() + lumaBytes(), yuv.begin() + lumaBytes() * 5 / 4, U);
        std::fill(yuv.begin() + lumaBytes() * 5 / 4, yuv.end(), V);
    }
    // Fills the Y plane from a function of the position.
    void fillLuma(const std::function<uint8_t(uint32_t, uint32_t)>& f) {
        for (uint32_t row = 0; row < height(); ++row)
            for (uint32_t x = 0; x < width(); ++x) y(x, row) = f(x, row);
    }
    // `pixels` pixels of the half-size image are skin, all of luminance `luminance`.
    void setSkin(uint32_t pixels, uint8_t luminance) {
        std::fill(histogram.begin(), histogram.end(), 0u);
        histogram[0] = width() * height() / 4 - pixels;
        histogram[luminance] += pixels;
    }

    uint32_t width() const { return bucket.width; }
    uint32_t height() const { return bucket.height; }

    CUDACamera::Bucket bucket;
    std::vector<uint8_t> yuv;
    std::vector<uint32_t> histogram;

private:
    size_t lumaBytes() const { return static_cast<size_t>(width()) * height(); }
};

// Makes sample i of the next evaluation fall on positions[i]: seeds rand() so that the frame's
// two table offsets are known, writes the columns and rows where those offsets will read them,
// and seeds rand() again. The camera's numSamples must equal positions.size().
inline void placeSamples(CUDACamera& camera, const std::vector<std::pair<int, int>>& positions, unsigned seed = 7) {
    const auto n = static_cast<uint32_t>(positions.size());
    std::srand(seed);
    const uint32_t offsetX = static_cast<uint32_t>(std::rand()) % n;
    const uint32_t offsetY = static_cast<uint32_t>(std::rand()) % n;
    std::vector<std::pair<int, int>>& table = CUDACameraTestAccess::samples(camera);
    for (uint32_t i = 0; i < n; ++i) {
        table[(i + offsetX) % n].first = positions[i].first;
        table[(i + offsetY) % n].second = positions[i].second;
    }
    std::srand(seed);
}

// Collects the texts sent on one channel while it lives.
class Listener {
public:
    explicit Listener(const std::string& name) : _channel(ruvo::util::Channel::get(name)) {
        _id = _channel->addListener([this](const std::string& text) { texts.push_back(text); });
    }
    ~Listener() { _channel->removeListener(_id); }
    void enable(bool on) { _channel->setEnabled(on); }
    std::vector<std::string> texts;

private:
    std::shared_ptr<ruvo::util::Channel> _channel;
    ruvo::util::Channel::ListenerId _id = 0;
};

}  // namespace testing
}  // namespace capture
}  // namespace ruvo
