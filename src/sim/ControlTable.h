// The simulated sensor's V4L2 controls: their descriptions (type, range, step, default), current
// values with the kernel's clamping rules, and the frame latency of exposure and gain writes.
#pragma once

#include <cstdint>
#include <deque>
#include <vector>

namespace ruvo {
namespace capture {
namespace sim {

struct ControlInfo {
    uint32_t id = 0;
    const char* name = "";
    uint32_t type = 0;  // V4L2_CTRL_TYPE_INTEGER, _BOOLEAN, or _CTRL_CLASS for the class heading
    int32_t minimum = 0, maximum = 0, step = 1, defaultValue = 0;
    uint32_t flags = 0;  // V4L2_CTRL_FLAG_*
};

// Sensor geometry limits for the metering rectangle: the largest supported frame.
constexpr int32_t kSensorWidth = 2688;
constexpr int32_t kSensorHeight = 1520;
// Default exposure: 10 ms in sensor lines, or one frame period if that is shorter.
constexpr double kDefaultExposureSeconds = 0.010;
// Largest value of the average-luminance statistic: the mean of 10-bit samples.
constexpr int32_t kLuminanceMaximum = 1023;

// The controls the sensor offers: the default sensor's (with the private channel gains, luminance
// statistic and metering window), or the standard ones only (sim.controls = generic).
enum class ControlSet { Default, Generic };

// The generic set's timing and gain law: every line takes kGenericLineLength pixel clocks at
// kGenericPixelRate (the horizontal blanking is the line past the frame width), and the analogue
// gain code x gives 256 / (256 - x).
constexpr int32_t kGenericPixelRate = 182400000;
constexpr int32_t kGenericLineLength = 3448;
constexpr int32_t kGenericMaxGainCode = 232;
constexpr double kGenericLineSeconds = static_cast<double>(kGenericLineLength) / kGenericPixelRate;
constexpr float genericGain(int32_t code) { return 256.0f / (256.0f - static_cast<float>(code)); }

// The generic set's exposure control: V4L2_CID_EXPOSURE in lines, or V4L2_CID_EXPOSURE_ABSOLUTE
// in units of kAbsoluteExposureSeconds (sim.exposureControl = lines | absolute). Its gain
// control: V4L2_CID_ANALOGUE_GAIN by the law above, or V4L2_CID_GAIN, linear with
// kLinearGainUnity for a gain of 1 (sim.gainControl = analogue | gain).
enum class ExposureControl { Lines, Absolute };
enum class GainControl { Analogue, Linear };
constexpr double kAbsoluteExposureSeconds = 100e-6;
constexpr int32_t kLinearGainUnity = 256;
constexpr int32_t kLinearMaxGainCode = 2560;
constexpr float linearGain(int32_t code) { return static_cast<float>(code) / static_cast<float>(kLinearGainUnity); }
struct StandardControls {
    ExposureControl exposure = ExposureControl::Lines;
    GainControl gain = GainControl::Analogue;
};

class ControlTable {
public:
    // The exposure maximum is one frame period at `fps`, in sensor lines. The generic set's
    // black level reads `blackLevel` (10-bit codes).
    explicit ControlTable(float fps, ControlSet set = ControlSet::Default, int32_t blackLevel = 0,
                          StandardControls standard = {});
    // The controls holding the exposure and the analogue gain (both delayed).
    uint32_t exposureId() const { return _exposureId; }
    uint32_t gainId() const { return _gainId; }

    // The control with this id, or null.
    const ControlInfo* find(uint32_t id) const;
    // The control with the smallest id above `id`, or null (V4L2_CTRL_FLAG_NEXT_CTRL).
    const ControlInfo* next(uint32_t id) const;

    // Current value; the id must name a control.
    int32_t value(uint32_t id) const;
    // `requested` clamped to the range and rounded to the step (booleans become 0 or 1): the
    // value a write of `requested` stores.
    int32_t clamp(uint32_t id, int32_t requested) const;
    // Stores clamp(id, requested) and returns it. Read-only controls are the caller's to refuse.
    int32_t set(uint32_t id, int32_t requested);

private:
    std::vector<ControlInfo> _infos;  // ascending id
    std::vector<int32_t> _values;     // parallel to _infos
    uint32_t _exposureId;
    uint32_t _gainId;
};

// The value a frame sees of a control whose writes take effect `delay` frames after they are
// made: writes are held until the frame number they were scheduled for.
class DelayedValue {
public:
    explicit DelayedValue(int32_t initial = 0) : _effective(initial) {}

    // A write made when `nextFrame` is the next frame to be exposed shows from frame
    // nextFrame + delay on.
    void schedule(int32_t value, uint64_t nextFrame, uint32_t delay);
    // Takes effect at once, dropping writes still held (the sensor is not streaming).
    void reset(int32_t value);
    // The value frame `frame` sees; frames are asked for in increasing order.
    int32_t advanceTo(uint64_t frame);

private:
    struct Pending {
        uint64_t frame;
        int32_t value;
    };
    int32_t _effective;
    std::deque<Pending> _pending;
};

}  // namespace sim
}  // namespace capture
}  // namespace ruvo
