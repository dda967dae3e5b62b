// CUDACamera's sensor profile: the one the "sensor" key names, settled against the controls the
// driver reports; the reset of the sensor's controls at start; and what the pipeline does in
// place of the controls a sensor lacks (channel gains as multipliers on the raw samples, black
// level subtracted before demosaic, the luminance statistic measured from the frame).
#include "CUDACamera.h"

#include "SensorControls.h"
#include "isp/RawUnpack.h"

#include <ruvo/capture/CaptureDeviceException.h>

#include <Poco/Format.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <string>

namespace ruvo {
namespace capture {

namespace {

// Controls reset to the driver's defaults at every start, in this order, where the sensor has
// them (the luminance statistic 0x00981003 is read-only and left alone).
constexpr uint32_t kResetControls[] = {
    sensor::CID_EXPOSURE,   sensor::CID_GAIN,       sensor::CID_VFLIP,       sensor::CID_HFLIP,
    sensor::CID_RED_GAIN,   sensor::CID_GREEN_GAIN, sensor::CID_BLUE_GAIN,   sensor::CID_METER_ENABLE,
    sensor::CID_METER_LEFT, sensor::CID_METER_TOP,  sensor::CID_METER_WIDTH, sensor::CID_METER_HEIGHT,
};

// Range of the channel gains the pipeline applies, in 1/1024 units, as the default sensor's.
constexpr int32_t kDigitalGainMaximum = 4095;
constexpr int32_t kUnityChannelGain = 1024;

size_t channelIndex(uint32_t id) { return id == sensor::CID_RED_GAIN ? 0 : (id == sensor::CID_GREEN_GAIN ? 1 : 2); }

std::string hex(uint32_t id) { return Poco::format("0x%08X", id); }

}  // namespace

bool CUDACamera::hasControl(uint32_t id) {
    v4l2_queryctrl query{};
    query.id = id;
    return xioctl(VIDIOC_QUERYCTRL, &query) == 0 && !(query.flags & V4L2_CTRL_FLAG_DISABLED);
}

int64_t CUDACamera::getControl64(uint32_t id) {
    v4l2_ext_control control{};
    control.id = id;
    v4l2_ext_controls controls{};
    controls.which = V4L2_CTRL_WHICH_CUR_VAL;
    controls.count = 1;
    controls.controls = &control;
    if (xioctl(VIDIOC_G_EXT_CTRLS, &controls) == -1)
        throw CaptureDeviceException("VIDIOC_G_EXT_CTRLS " + hex(id) + " " + std::strerror(errno));
    return control.value64;
}

// The profile "sensor" names; under "auto" the default one when the driver has the private
// channel-gain controls, else the generic one. The private controls count only where the driver
// has them; the generic profile also takes its exposure and gain controls from the driver.
void CUDACamera::resolveSensorProfile() {
    const bool privateGains =
        hasControl(sensor::CID_RED_GAIN) && hasControl(sensor::CID_GREEN_GAIN) && hasControl(sensor::CID_BLUE_GAIN);
    if (_params.sensorProfile == "auto")
        _profile = privateGains ? sensor::defaultSensorProfile() : sensor::genericSensorProfile();
    else
        _profile = sensor::loadSensorProfile(_params.sensorProfile);
    sensor::SensorProfile& p = _profile;
    p.channelGains = p.channelGains && privateGains;
    p.luminanceStatistic = p.luminanceStatistic && hasControl(sensor::CID_AVG_LUMINANCE);
    p.meteringWindow = p.meteringWindow && hasControl(sensor::CID_METER_ENABLE);
    if (p.name == "generic") adaptGenericProfile();
    // Flips the driver marks as changing the Bayer order are set before streaming, whatever the profile says.
    if (hasControl(V4L2_CID_HFLIP) && (queryControl(V4L2_CID_HFLIP).flags & V4L2_CTRL_FLAG_MODIFY_LAYOUT)) {
        p.flipsModifyLayout = true;
        p.flipsBeforeStreaming = true;
    }
    for (uint32_t id : {p.exposureControl, p.gainControl}) {
        if (!hasControl(id))
            throw CaptureDeviceException(_params.path + ": sensor profile " + p.name + " uses control " + hex(id) +
                                         ", which the driver does not have");
    }
    if (p.blackLevelControl != 0 && hasControl(p.blackLevelControl)) p.blackLevel = getControl(p.blackLevelControl);
    const double black = p.blackLevelBits <= 14 ? p.blackLevel * (1u << (14 - p.blackLevelBits))
                                                : p.blackLevel / (1u << (p.blackLevelBits - 14));
    _blackLevel = static_cast<float>(std::min(black, 16000.0));
    for (std::atomic<int32_t>& gain : _digitalGains) gain = kUnityChannelGain;
}

// Exposure in 100 us where the driver has no line-based control, and gain by V4L2_CID_GAIN with
// its default as unity where it has no analogue gain.
void CUDACamera::adaptGenericProfile() {
    sensor::SensorProfile& p = _profile;
    if (!hasControl(p.exposureControl) && hasControl(V4L2_CID_EXPOSURE_ABSOLUTE)) {
        p.exposureControl = V4L2_CID_EXPOSURE_ABSOLUTE;
        p.exposureUnit = sensor::ExposureUnit::kHundredMicroseconds;
    }
    if (!hasControl(p.gainControl) && hasControl(V4L2_CID_GAIN)) {
        p.gainControl = V4L2_CID_GAIN;
        p.gain.law = sensor::GainLaw::kLinear;
        p.gain.unity = std::max(1, queryControl(V4L2_CID_GAIN).default_value);
    }
}

// A line time from the pixel rate and the horizontal blanking at this width, unless configured.
void CUDACamera::resolveLineTime(uint32_t width) {
    sensor::SensorProfile& p = _profile;
    if (p.exposureUnit != sensor::ExposureUnit::kLines || p.lineTimeMicroseconds > 0.0) return;
    if (!hasControl(V4L2_CID_PIXEL_RATE) || !hasControl(V4L2_CID_HBLANK))
        throw CaptureDeviceException(_params.path + ": sensor profile " + p.name +
                                     " needs exposure.lineTime, or V4L2_CID_PIXEL_RATE and V4L2_CID_HBLANK");
    const int64_t pixelRate = getControl64(V4L2_CID_PIXEL_RATE);
    if (pixelRate <= 0) throw CaptureDeviceException(_params.path + ": the driver reports no pixel rate");
    p.lineTimeMicroseconds = (width + static_cast<double>(getControl(V4L2_CID_HBLANK))) * 1e6 / pixelRate;
}

void CUDACamera::resetSensorControls() {
    std::vector<uint32_t> ids(std::begin(kResetControls), std::end(kResetControls));
    for (uint32_t id : {_profile.exposureControl, _profile.gainControl})
        if (std::find(ids.begin(), ids.end(), id) == ids.end()) ids.push_back(id);
    for (uint32_t id : ids) {
        // Flips that must not change while streaming were set before it began.
        if (_profile.flipsBeforeStreaming && (id == sensor::CID_HFLIP || id == sensor::CID_VFLIP)) continue;
        v4l2_queryctrl query{};
        query.id = id;
        if (xioctl(VIDIOC_QUERYCTRL, &query) == -1) continue;
        setControl(id, query.default_value);
    }
    for (std::atomic<int32_t>& gain : _digitalGains) gain = kUnityChannelGain;
}

int32_t CUDACamera::readChannelGain(uint32_t id) {
    return _profile.channelGains ? getControl(id) : _digitalGains[channelIndex(id)].load();
}

void CUDACamera::writeChannelGain(uint32_t id, int32_t value) {
    if (_profile.channelGains)
        setControl(id, value);
    else
        _digitalGains[channelIndex(id)] = std::clamp(value, 0, kDigitalGainMaximum);
}

v4l2_queryctrl CUDACamera::channelGainRange(uint32_t id) {
    if (_profile.channelGains) return queryControl(id);
    v4l2_queryctrl range{};
    range.id = id;
    range.maximum = kDigitalGainMaximum;
    range.default_value = kUnityChannelGain;
    return range;
}

// The frame's luminance on a 0..1 scale in place of the sensor's statistic, on its linear scale:
// the mean linear luma of the full-size image (every fourth pixel of every fourth row), each
// sample's red, green and blue taken back to linear light through their own live exponents.
float CUDACamera::averageLuminance(const Bucket& bucket) { return _linearLuma.mean(fullImage(bucket), colourShape()); }

// The colour shaping the kernels apply now.
metering::ColourShape CUDACamera::colourShape() const {
    metering::ColourShape shape;
    shape.red = _controls.awb.gammaRed;
    shape.green = _controls.awb.gammaGreen;
    shape.blue = _controls.awb.gammaBlue;
    shape.chromaU = _controls.awb.gammaCr;  // the kernels shape blue-difference with gammaCr
    shape.chromaV = _controls.awb.gammaCb;
    return shape;
}

// Black level and channel gains for the raw samples; none (identity) with the default profile.
bool CUDACamera::rawLevels(kernels::RawLevels& levels) const {
    const float red = _digitalGains[0] / 1024.0f, green = _digitalGains[1] / 1024.0f, blue = _digitalGains[2] / 1024.0f;
    if (_blackLevel <= 0.0f && red == 1.0f && green == 1.0f && blue == 1.0f) return false;
    levels.black = _blackLevel;
    levels.scale[0][0] = blue;
    levels.scale[0][1] = levels.scale[1][0] = green;
    levels.scale[1][1] = red;
    return true;
}

std::vector<std::string> CUDACamera::emulatedControls() const {
    std::vector<std::string> emulated;
    if (!_profile.channelGains) emulated.push_back("channel gains");
    if (_blackLevel > 0.0f) emulated.push_back("black level");
    if (!_profile.luminanceStatistic) emulated.push_back("luminance statistic");
    return emulated;
}

}  // namespace capture
}  // namespace ruvo
