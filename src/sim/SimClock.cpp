// The simulated sensor's streaming and frame production: the real-time and free-running clock
// threads, and the exposure of one frame into the oldest queued buffer.
#include "sim/SimulatedSensor.h"

#include "sim/SampleFormats.h"

#include "SensorControls.h"

#include <time.h>

#include <cmath>

namespace ruvo {
namespace capture {
namespace sim {
namespace {

struct timeval monotonicNow() {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return {now.tv_sec, static_cast<suseconds_t>(now.tv_nsec / 1000)};
}

}  // namespace

void SimulatedSensor::startStreaming() {
    _streaming = true;
    _sequence = 0;
    const uint64_t epoch = ++_clockEpoch;
    if (_config.clock == ClockMode::Realtime) _clock = std::thread([this, epoch] { runRealtimeClock(epoch); });
    if (_config.clock == ClockMode::Free) _clock = std::thread([this, epoch] { runFreeClock(epoch); });
}

void SimulatedSensor::stopStreaming(std::unique_lock<std::mutex>& lock) {
    _streaming = false;
    _buffers.cancel();
    ++_clockEpoch;
    _clockCv.notify_all();
    _frameCv.notify_all();
    // After STREAMOFF the client may free its buffers: wait until no frame is being written.
    _frameCv.wait(lock, [&] { return !_filling; });
    std::thread clock = std::move(_clock);
    if (clock.joinable()) {
        lock.unlock();
        clock.join();
        lock.lock();
    }
}

bool SimulatedSensor::stalled(std::chrono::steady_clock::time_point now) const { return now < _stallUntil; }

MeterRect SimulatedSensor::meterRect() const {
    using namespace sensor;
    if (!_controls.find(CID_METER_ENABLE)) return MeterRect{};
    return MeterRect{_controls.value(CID_METER_ENABLE) != 0, _controls.value(CID_METER_LEFT),
                     _controls.value(CID_METER_TOP), _controls.value(CID_METER_WIDTH),
                     _controls.value(CID_METER_HEIGHT)};
}

FrameSettings SimulatedSensor::frameSettings(uint64_t frame) {
    using namespace sensor;
    for (; _nextScriptEvent < _config.script.size() && _config.script[_nextScriptEvent].frame <= frame;
         ++_nextScriptEvent) {
        const ScriptEvent& event = _config.script[_nextScriptEvent];
        if (event.parameter == ScriptEvent::Parameter::Illuminance)
            _illuminance = event.value;
        else
            _colourTemperature = event.value;
    }
    FrameSettings s;
    s.scene = _scene;
    s.sceneVersion = _sceneVersion;
    s.width = static_cast<int>(_format.width);
    s.height = static_cast<int>(_format.height);
    s.hFlip = _controls.value(CID_HFLIP) != 0;
    s.vFlip = _controls.value(CID_VFLIP) != 0;
    s.exposure = _exposure.advanceTo(frame);
    s.gain = _gain.advanceTo(frame);
    if (_config.controls == ControlSet::Generic) {
        // The model's units are the default sensor's: lines of its line time, its gain curve.
        const bool lines = _config.standard.exposure == ExposureControl::Lines;
        const double seconds = s.exposure * (lines ? kGenericLineSeconds : kAbsoluteExposureSeconds);
        s.exposure = static_cast<int32_t>(std::lround(seconds * 1e6 / sensor::kExposureUnitMicroseconds));
        s.gain =
            gainToRegister(_config.standard.gain == GainControl::Linear ? linearGain(s.gain) : genericGain(s.gain));
    } else {
        s.redGain = _controls.value(CID_RED_GAIN);
        s.greenGain = _controls.value(CID_GREEN_GAIN);
        s.blueGain = _controls.value(CID_BLUE_GAIN);
    }
    s.illuminance = _illuminance;
    s.colourTemperature = _colourTemperature;
    s.response = _config.colourResponse;
    s.pedestal = _config.pedestal;
    s.layout = deliveredLayout();
    return s;
}

// The layout of the delivered format: an offered one, or an offered one in the order the flips
// made of it.
kernels::RawLayout SimulatedSensor::deliveredLayout() const {
    const sensor::PixelFormat& offered = chooseFormat(_config.formats, underFlips(_format.pixelformat));
    kernels::RawLayout layout = offered.layout;
    if (const sensor::PixelFormat* delivered = sensor::findBayerFormat(_format.pixelformat))
        if (offered.fourcc != _format.pixelformat) layout.order = delivered->layout.order;
    return layout;
}

SimulatedSensor::Exposure SimulatedSensor::exposeFrame() {
    std::lock_guard<std::mutex> production(_fillMutex);
    std::unique_lock<std::mutex> lock(_mutex);
    if (!_streaming || _disconnected || stalled(std::chrono::steady_clock::now())) return Exposure::None;
    const uint64_t frame = _nextFrame++;
    const uint32_t sequence = _sequence++;
    const FrameSettings settings = frameSettings(frame);
    const MeterRect rect = meterRect();
    const NoiseSettings noise{_config.noise, _config.readNoise, _config.seed};
    const uint32_t bytes = _format.sizeimage;
    // A frame lost on its way to memory (sim.dropEvery) takes no buffer, as one with no buffer
    // queued; the driver's sequence counts it all the same.
    const bool lost = _config.dropEvery != 0 && (frame + 1) % _config.dropEvery == 0;
    const int index = lost ? -1 : _buffers.startFilling();
    const uint64_t generation = _buffers.generation();
    // The sensor writes straight into the buffer's memory: the client's, or the driver's own.
    auto* destination = index >= 0 ? _buffers.destination(index) : nullptr;
    _filling = true;
    lock.unlock();

    if (destination) _renderer.write(settings, noise, frame, destination);
    const int32_t level = _renderer.meanLevel(settings, rect);
    const struct timeval timestamp = monotonicNow();

    lock.lock();
    _filling = false;
    if (_controls.find(sensor::CID_AVG_LUMINANCE)) _controls.set(sensor::CID_AVG_LUMINANCE, level);
    Exposure result = Exposure::Dropped;
    if (index < 0) {
        ++_dropped;
    } else if (generation == _buffers.generation()) {
        // Every sim.errorEvery-th completed buffer is flagged as damaged in transfer.
        const bool damaged = _config.errorEvery != 0 && (_produced + _errorBuffers + 1) % _config.errorEvery == 0;
        _buffers.finishFilling(static_cast<size_t>(index), bytes, sequence, timestamp, damaged);
        ++(damaged ? _errorBuffers : _produced);
        result = damaged ? Exposure::Dropped : Exposure::Captured;
    }
    _frameCv.notify_all();
    return result;
}

void SimulatedSensor::runRealtimeClock(uint64_t epoch) {
    const auto period = std::chrono::duration_cast<std::chrono::steady_clock::duration>(
        std::chrono::duration<double>(1.0 / _config.fps));
    auto next = std::chrono::steady_clock::now() + period;
    std::unique_lock<std::mutex> lock(_mutex);
    while (true) {
        if (_clockCv.wait_until(lock, next, [&] { return _clockEpoch != epoch; })) return;
        lock.unlock();
        exposeFrame();
        lock.lock();
        // A tick missed because this thread ran late is skipped, not counted as a dropped frame.
        next += period;
        const auto now = std::chrono::steady_clock::now();
        while (next <= now) next += period;
    }
}

void SimulatedSensor::runFreeClock(uint64_t epoch) {
    std::unique_lock<std::mutex> lock(_mutex);
    while (true) {
        _clockCv.wait(lock, [&] { return _clockEpoch != epoch || (_buffers.hasQueued() && !_disconnected); });
        if (_clockEpoch != epoch) return;
        if (stalled(std::chrono::steady_clock::now())) {
            const auto until = _stallUntil;
            // Wakes early when the stream stops or the stall is changed.
            _clockCv.wait_until(lock, until, [&] { return _clockEpoch != epoch || _stallUntil != until; });
            continue;
        }
        lock.unlock();
        exposeFrame();
        lock.lock();
    }
}

}  // namespace sim
}  // namespace capture
}  // namespace ruvo
