// The simulated sensor's control descriptions, values and write latency.
#include "sim/ControlTable.h"

#include "SensorControls.h"

#include <linux/videodev2.h>

#include <algorithm>
#include <cmath>
#include <stdexcept>

namespace ruvo {
namespace capture {
namespace sim {
namespace {

ControlInfo integer(uint32_t id, const char* name, int32_t minimum, int32_t maximum, int32_t defaultValue) {
    return ControlInfo{id, name, V4L2_CTRL_TYPE_INTEGER, minimum, maximum, 1, defaultValue, 0};
}

ControlInfo boolean(uint32_t id, const char* name) {
    return ControlInfo{id, name, V4L2_CTRL_TYPE_BOOLEAN, 0, 1, 1, 0, 0};
}

ControlInfo readOnly(ControlInfo info) {
    info.flags |= V4L2_CTRL_FLAG_READ_ONLY;
    return info;
}

ControlInfo classHeading(uint32_t id, const char* name) {
    return ControlInfo{
        id, name, V4L2_CTRL_TYPE_CTRL_CLASS, 0, 0, 0, 0, V4L2_CTRL_FLAG_READ_ONLY | V4L2_CTRL_FLAG_WRITE_ONLY};
}

// Standard controls only: exposure in lines or in 100 us, analogue or linear gain, the blanking
// and pixel rate that time a line, the black level, and flips that change the Bayer order.
std::vector<ControlInfo> genericControls(float fps, int32_t blackLevel, StandardControls standard) {
    const double period = 1.0 / static_cast<double>(fps);
    const double unit = standard.exposure == ExposureControl::Lines ? kGenericLineSeconds : kAbsoluteExposureSeconds;
    const auto periodUnits = static_cast<int32_t>(std::floor(period / unit));
    const auto defaultUnits = static_cast<int32_t>(std::lround(kDefaultExposureSeconds / unit));
    ControlInfo hflip = boolean(V4L2_CID_HFLIP, "Horizontal Flip");
    ControlInfo vflip = boolean(V4L2_CID_VFLIP, "Vertical Flip");
    hflip.flags = vflip.flags = V4L2_CTRL_FLAG_MODIFY_LAYOUT;
    ControlInfo pixelRate =
        readOnly(integer(V4L2_CID_PIXEL_RATE, "Pixel Rate", kGenericPixelRate, kGenericPixelRate, kGenericPixelRate));
    pixelRate.type = V4L2_CTRL_TYPE_INTEGER64;
    const int32_t blanking = kGenericLineLength - 1280;
    std::vector<ControlInfo> controls = {
        classHeading(V4L2_CID_USER_CLASS, "User Controls"),
        readOnly(integer(V4L2_CID_BLACK_LEVEL, "Black Level", 0, 1023, blackLevel)),
        hflip,
        vflip,
        classHeading(V4L2_CID_IMAGE_SOURCE_CLASS, "Image Source Controls"),
        readOnly(integer(V4L2_CID_HBLANK, "Horizontal Blanking", 0, kGenericLineLength, blanking)),
        classHeading(V4L2_CID_IMAGE_PROC_CLASS, "Image Processing Controls"),
        pixelRate,
    };
    const int32_t exposureDefault = std::min(defaultUnits, periodUnits);
    if (standard.exposure == ExposureControl::Lines) {
        controls.push_back(integer(V4L2_CID_EXPOSURE, "Exposure", 1, periodUnits, exposureDefault));
    } else {
        controls.push_back(classHeading(V4L2_CID_CAMERA_CLASS, "Camera Controls"));
        controls.push_back(
            integer(V4L2_CID_EXPOSURE_ABSOLUTE, "Exposure Time, Absolute", 1, periodUnits, exposureDefault));
    }
    if (standard.gain == GainControl::Analogue)
        controls.push_back(integer(V4L2_CID_ANALOGUE_GAIN, "Analogue Gain", 0, kGenericMaxGainCode, 0));
    else
        controls.push_back(integer(V4L2_CID_GAIN, "Gain", kLinearGainUnity, kLinearMaxGainCode, kLinearGainUnity));
    return controls;
}

// The default sensor's controls, its private ones included.
std::vector<ControlInfo> defaultControls(float fps) {
    using namespace sensor;
    const auto framePeriodLines =
        static_cast<int32_t>(std::floor(1e6 / static_cast<double>(fps) / kExposureUnitMicroseconds));
    const auto defaultLines =
        static_cast<int32_t>(std::lround(kDefaultExposureSeconds * 1e6 / kExposureUnitMicroseconds));
    ControlInfo luminance = integer(CID_AVG_LUMINANCE, "Average Luminance", 0, kLuminanceMaximum, 0);
    luminance.flags = V4L2_CTRL_FLAG_READ_ONLY | V4L2_CTRL_FLAG_VOLATILE;
    // Every control is in the user class, which the kernel's control framework heads with a
    // class control that can be neither read nor written.
    return {
        classHeading(V4L2_CID_USER_CLASS, "User Controls"),
        integer(CID_EXPOSURE, "Exposure", 1, framePeriodLines, std::min(defaultLines, framePeriodLines)),
        integer(CID_GAIN, "Analogue Gain", 0, 2047, 128),
        boolean(CID_HFLIP, "Horizontal Flip"),
        boolean(CID_VFLIP, "Vertical Flip"),
        integer(CID_RED_GAIN, "Red Gain", 0, 4095, 1024),
        integer(CID_GREEN_GAIN, "Green Gain", 0, 4095, 1024),
        integer(CID_BLUE_GAIN, "Blue Gain", 0, 4095, 1024),
        luminance,
        boolean(CID_METER_ENABLE, "Metering Window Enable"),
        integer(CID_METER_LEFT, "Metering Window Left", 0, kSensorWidth - 1, 0),
        integer(CID_METER_TOP, "Metering Window Top", 0, kSensorHeight - 1, 0),
        integer(CID_METER_WIDTH, "Metering Window Width", 0, kSensorWidth, 0),
        integer(CID_METER_HEIGHT, "Metering Window Height", 0, kSensorHeight, 0),
    };
}

}  // namespace

ControlTable::ControlTable(float fps, ControlSet set, int32_t blackLevel, StandardControls standard)
    : _infos(set == ControlSet::Generic ? genericControls(fps, blackLevel, standard) : defaultControls(fps)),
      _exposureId(set == ControlSet::Generic && standard.exposure == ExposureControl::Absolute
                      ? V4L2_CID_EXPOSURE_ABSOLUTE
                      : sensor::CID_EXPOSURE),
      _gainId(set != ControlSet::Generic             ? sensor::CID_GAIN
              : standard.gain == GainControl::Linear ? V4L2_CID_GAIN
                                                     : V4L2_CID_ANALOGUE_GAIN) {
    std::sort(_infos.begin(), _infos.end(), [](const ControlInfo& a, const ControlInfo& b) { return a.id < b.id; });
    for (const ControlInfo& info : _infos) _values.push_back(info.defaultValue);
}

const ControlInfo* ControlTable::find(uint32_t id) const {
    auto it = std::lower_bound(_infos.begin(), _infos.end(), id,
                               [](const ControlInfo& info, uint32_t key) { return info.id < key; });
    return it != _infos.end() && it->id == id ? &*it : nullptr;
}

const ControlInfo* ControlTable::next(uint32_t id) const {
    auto it = std::upper_bound(_infos.begin(), _infos.end(), id,
                               [](uint32_t key, const ControlInfo& info) { return key < info.id; });
    return it != _infos.end() ? &*it : nullptr;
}

int32_t ControlTable::value(uint32_t id) const {
    const ControlInfo* info = find(id);
    if (!info) throw std::out_of_range("no sensor control " + std::to_string(id));
    return _values[static_cast<size_t>(info - _infos.data())];
}

int32_t ControlTable::clamp(uint32_t id, int32_t requested) const {
    const ControlInfo* info = find(id);
    if (!info) throw std::out_of_range("no sensor control " + std::to_string(id));
    int64_t v = requested;
    if (info->type == V4L2_CTRL_TYPE_CTRL_CLASS) {
        v = 0;  // a heading holds no value
    } else if (info->type == V4L2_CTRL_TYPE_BOOLEAN) {
        v = requested != 0;
    } else {
        // Clamp, then round to the nearest step counted from the minimum, as the kernel does.
        v = std::clamp<int64_t>(v, info->minimum, info->maximum);
        const int64_t offset = v - info->minimum;
        v = info->minimum + info->step * ((offset + info->step / 2) / info->step);
        if (v > info->maximum) v -= info->step;
    }
    return static_cast<int32_t>(v);
}

int32_t ControlTable::set(uint32_t id, int32_t requested) {
    const int32_t v = clamp(id, requested);
    _values[static_cast<size_t>(find(id) - _infos.data())] = v;
    return v;
}

void DelayedValue::schedule(int32_t value, uint64_t nextFrame, uint32_t delay) {
    const uint64_t frame = nextFrame + delay;
    // A later write scheduled for the same or an earlier frame overrides what was pending there.
    while (!_pending.empty() && _pending.back().frame >= frame) _pending.pop_back();
    _pending.push_back(Pending{frame, value});
}

void DelayedValue::reset(int32_t value) {
    _pending.clear();
    _effective = value;
}

int32_t DelayedValue::advanceTo(uint64_t frame) {
    while (!_pending.empty() && _pending.front().frame <= frame) {
        _effective = _pending.front().value;
        _pending.pop_front();
    }
    return _effective;
}

}  // namespace sim
}  // namespace capture
}  // namespace ruvo
