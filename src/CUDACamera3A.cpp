// CUDACamera's per-frame auto exposure and auto white balance: the manual, lock and automatic
// branches of both, the metering of the processed image and the skin histogram, the writes of
// exposure and gain to the sensor by its profile's laws and of channel gains to the sensor or
// the pipeline, and the metering diagnostics records.
#include "CUDACamera.h"

#include "3a/CurveWhiteBalance.h"
#include "3a/Metering.h"
#include "3a/MeteringDiagnostics.h"
#include "SensorControls.h"

#include <ruvo/capture/CaptureDeviceException.h>
#include <ruvo/util/Channel.h>

#include <Poco/LogStream.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <string>

namespace ruvo {
namespace capture {

namespace {

constexpr size_t kFullImageBuffer = 0;
constexpr size_t kSkinHistogramBuffer = 4;
constexpr size_t kSkinImageEntry = 6;  // output list entry whose level sizes the skin image
constexpr uint32_t kHistogramBins = 256;

float controlRange(const v4l2_queryctrl& range) {
    return static_cast<float>(static_cast<int64_t>(range.maximum) - static_cast<int64_t>(range.minimum));
}

}  // namespace

void CUDACamera::evaluate_3A(const Bucket& bucket) {
    checkSampleTable();
    // Every call walks the sample table from two new starting points, one for the columns and one
    // for the rows, drawn before any mode is looked at.
    const uint32_t offsetX = static_cast<uint32_t>(std::rand()) % _params.numSamples;
    const uint32_t offsetY = static_cast<uint32_t>(std::rand()) % _params.numSamples;

    if (_controls.ae.manual) {
        applyManualExposure();
    } else if (_controls.ae.lock) {
        restoreExposure();
    } else {
        autoExposure(bucket, offsetX, offsetY);
    }

    if (_controls.awb.manual) {
        applyManualWhiteBalance();
    } else if (_controls.awb.lock) {
        restoreWhiteBalance();
    } else if (whiteBalanceMode() == WhiteBalanceMode::Curve) {
        curveWhiteBalance(bucket, offsetX, offsetY);
    } else {
        autoWhiteBalance(bucket, offsetX, offsetY);
    }
}

// The configured awb.mode, or where it is absent the mode of the sensor profile taken at start.
WhiteBalanceMode CUDACamera::whiteBalanceMode() const {
    if (_params.awb.mode) return *_params.awb.mode;
    return _profile.whiteBalanceMode == "curve" ? WhiteBalanceMode::Curve : WhiteBalanceMode::Gray;
}

void CUDACamera::checkSampleTable() const {
    if (_params.numSamples == 0) throw CaptureDeviceException("Metering needs numSamples of at least 1");
    if (_initialSampleDist.size() < _params.numSamples) {
        throw CaptureDeviceException("Metering sample table holds " + std::to_string(_initialSampleDist.size()) +
                                     " of " + std::to_string(_params.numSamples) + " samples");
    }
}

metering::YuvImage CUDACamera::fullImage(const Bucket& bucket) const {
    if (bucket.buffers.size() <= kFullImageBuffer || bucket.buffers[kFullImageBuffer].frame.data == nullptr) {
        throw CaptureDeviceException("3A needs the full-size image in output buffer 0");
    }
    const CUDAFrame& frame = bucket.buffers[kFullImageBuffer].frame;
    return metering::yuvImage(frame.data, bucket.width, bucket.height, frame.cuda_height);
}

// ---- auto exposure ----

void CUDACamera::applyManualExposure() {
    setControl(_profile.exposureControl, _profile.exposureRegister(_controls.ae.manualExposure));
    setControl(_profile.gainControl, _profile.gain.toRegister(_controls.ae.manualGain));
    _aeState.controlNeedsUpdate = true;
    _meteringScratch.exposureCarry = metering::ExposureCarry();
}

// Writes back the last automatic values once after manual mode or an automatic update.
void CUDACamera::restoreExposure() {
    if (!_aeState.controlNeedsUpdate) return;
    setControl(_profile.exposureControl, _aeState.exposure);
    setControl(_profile.gainControl, truncateToRegister(_aeState.gain));
    _aeState.controlNeedsUpdate = false;
}

void CUDACamera::autoExposure(const Bucket& bucket, uint32_t offsetX, uint32_t offsetY) {
    float avgY = sensorLuminance(bucket);
    const float targetY = _controls.ae.targetY + _controls.ae.ev;
    float err = targetY - avgY;

    const bool isTooBright = _params.ae.avgYThreshold < avgY;
    if (isTooBright && _logger.debug()) {
        Poco::LogStream(_logger).debug() << "Luminance auto-exposure: too bright failsafe, " << _params.ae.avgYThreshold
                                         << " < avgY = " << avgY << std::endl;
    }
    const uint32_t* histogram = skinHistogram(bucket);
    if (histogram != nullptr && !isTooBright && _controls.ae.manualMode != "AVGY" &&
        metering::gridSide(_params.ae.numRegions) > 0) {
        avgY = meteredLuminance(bucket, histogram, offsetX, offsetY);
        err = targetY - avgY;
    }

    _aeMeteredY = avgY;
    if (std::fabs(err) < _params.ae.errorY) return;
    updateExposure(err, avgY);
    updateGain(err);
}

// The skin histogram of this frame when the output configuration produces one, else null.
// The frame's luminance on a 0..1 scale: the driver's statistic, divided by its range without
// subtracting the minimum, or the frame's mean luma where the sensor has no statistic.
float CUDACamera::sensorLuminance(const Bucket& bucket) {
    if (!_profile.luminanceStatistic)
        return &bucket == _luminanceInFeedback ? bucket.feedback.luminance : averageLuminance(bucket);
    const float rangeY = controlRange(queryControl(sensor::CID_AVG_LUMINANCE));
    return static_cast<float>(getControl(sensor::CID_AVG_LUMINANCE)) / rangeY;
}

const uint32_t* CUDACamera::skinHistogram(const Bucket& bucket) const {
    bool configured = false;
    for (const OutputBufferDefinition& definition : _controls.outputBuffers) {
        configured = configured || definition.outputType == Frame::SKIN_HISTOGRAM;
    }
    if (!configured || bucket.buffers.size() <= kSkinHistogramBuffer) return nullptr;
    const CUDABuffer& buffer = bucket.buffers[kSkinHistogramBuffer].cudaOut;
    if (buffer.host == nullptr || buffer.size < kHistogramBins * sizeof(uint32_t)) return nullptr;
    return static_cast<const uint32_t*>(buffer.host);
}

// Luminance of the frame on a 0..1 scale from the regions of the sample grid, weighted by
// contrast, centre prior and skin, and blended with the skin luminance when enough skin shows.
float CUDACamera::meteredLuminance(const Bucket& bucket, const uint32_t* histogram, uint32_t offsetX,
                                   uint32_t offsetY) {
    const metering::SkinStats skin =
        metering::skinStatistics(histogram, bucket.width, bucket.height, bucket.cuda_height);
    const float sumSkin =
        metering::sampleRegions(fullImage(bucket), _initialSampleDist, _params.numSamples, offsetX, offsetY,
                                _params.ae.numSamples, _params.ae.numRegions, _meteringScratch);
    metering::contrastWeighting(_meteringScratch, winWeights.data(), sumWinWeights);
    const bool skinVisible = skin.skinRatio > _params.ae.skinRatioThreshold;
    if (skinVisible && sumSkin > 0.0f) {
        for (metering::Region& region : _meteringScratch.regions) {
            region.weight = metering::skinBoostedWeight(region.weight, region.skinPixelCnt, sumSkin);
        }
    }
    const float regionY = metering::weightedLuminance(_meteringScratch.regions);
    publishExpStat();
    if (!skinVisible) return regionY;

    const float meanNorm = metering::skinMeanNorm(skin);
    publishExpMeta(bucket, skin, meanNorm);
    metering::SkinBlendParams blendParams;
    blendParams.skinRatioThreshold = _params.ae.skinRatioThreshold;
    blendParams.skinRatioMixThreshold = _params.ae.skinRatioMixThreshold;
    blendParams.skinSegmentedTargetY = _params.ae.skinSegmentedTargetY + _controls.ae.ev;
    blendParams.skinWeight = _params.skinWeight;
    blendParams.regionWeight = _params.regionWeight;
    const metering::SkinBlend blend = metering::blendSkin(regionY, skin.skinRatio, meanNorm, blendParams);
    if (blend.mixed && _logger.debug()) {
        Poco::LogStream(_logger).debug() << "skinRatio under mix threshold, " << skin.skinRatio
                                         << " skinRatioMixAlpha: " << blend.alpha << std::endl;
    }
    return blend.y;
}

void CUDACamera::publishExpStat() {
    const std::shared_ptr<ruvo::util::Channel> channel = ruvo::util::Channel::attached(metering::expStatChannelName());
    if (!channel || !channel->enabled()) return;
    const auto side = static_cast<int>(metering::gridSide(_params.ae.numRegions));
    channel->send(metering::expStatRecord(side, _index, _meteringScratch.regions));
}

void CUDACamera::publishExpMeta(const Bucket& bucket, const metering::SkinStats& skin, float meanNorm) {
    const std::shared_ptr<ruvo::util::Channel> channel = ruvo::util::Channel::attached(metering::expMetaChannelName());
    if (!channel || !channel->enabled()) return;
    metering::ExpMeta meta;
    meta.cameraName = _params.name;
    meta.cameraIndex = _index;
    meta.skinPixels = skin.skinPixels;
    meta.sumLuminance = skin.sum;
    meta.meanLuminance = meanNorm;
    meta.width = bucket.width;
    meta.cudaHeight = bucket.cuda_height;
    // Output lists shorter than seven entries have no skin image level: read them as level 0.
    if (_controls.outputBuffers.size() > kSkinImageEntry) {
        meta.level = static_cast<int>(_controls.outputBuffers[kSkinImageEntry].outputLevel);
    }
    channel->send(metering::expMetaRecord(meta));
}

void CUDACamera::updateExposure(float err, float avgY) {
    const v4l2_queryctrl range = queryControl(_profile.exposureControl);
    metering::ExposureStep step;
    step.timeMin = static_cast<float>(range.minimum);
    step.timeMax = static_cast<float>(range.maximum);
    step.lowSeconds = _controls.ae.time.low();
    step.highSeconds = _controls.ae.time.high();
    step.exposureP = _params.ae.exposureP;
    step.manualExposure = _controls.ae.manualExposure;
    step.unitMicroseconds = _profile.exposureUnitMicroseconds();
    const auto current = static_cast<float>(getControl(_profile.exposureControl));
    _aeState.controlNeedsUpdate = true;
    // In 100 us units the register is coarse at short exposures (2.5 ms is 25 units, 4% each), and
    // truncating every step to whole units drops each correction under one unit: on the simulator
    // the exposure stalls at 5.5 ms after a 4x step down and the slower gain loop takes 50 frames
    // to make up the rest (lines: 26). The loop carries its unrounded exposure instead, so such
    // corrections add up until the register moves: 22 frames, 7.2 ms. Letting the gain take each
    // frame's remainder was measured too and fails: with truncation, exposure can then only fall
    // and runs down to 1 unit with the gain at its maximum; with rounding, the remainder below a
    // unit is lost while the gain sits at its minimum, and a 4x step up stalls 27% above target.
    // Units of lines keep the whole-unit step.
    const bool coarse = _profile.exposureUnit == sensor::ExposureUnit::kHundredMicroseconds;
    const float next = coarse ? metering::nextExposureCarried(current, err, avgY, step, _meteringScratch.exposureCarry)
                              : metering::nextExposure(current, err, avgY, step);
    _aeState.exposure = truncateToRegister(next);
    setControl(_profile.exposureControl, _aeState.exposure);
}

void CUDACamera::updateGain(float err) {
    _currExpGain = metering::nextGain(_currExpGain, err, _params.ae.gainP, _controls.ae.manualGain);
    // Other gain laws reach their limit inside 0.6..16: the gain is held to the driver's range so
    // that it does not run on past what the register can give (the default curve spans 0..16.3).
    if (_profile.gain.law != sensor::GainLaw::kFourStage) {
        const v4l2_queryctrl range = queryControl(_profile.gainControl);
        const float low = _profile.gain.toGain(range.minimum), high = _profile.gain.toGain(range.maximum);
        _currExpGain = std::clamp(_currExpGain, std::min(low, high), std::max(low, high));
    }
    const int32_t reg = _profile.gain.toRegister(_currExpGain);
    _aeState.gain = static_cast<float>(reg);
    setControl(_profile.gainControl, reg);
}

// ---- auto white balance ----

void CUDACamera::applyManualWhiteBalance() {
    writeChannelGain(sensor::CID_RED_GAIN, truncateToRegister(_controls.awb.manualRedGain * 1024.0f));
    writeChannelGain(sensor::CID_GREEN_GAIN, truncateToRegister(_controls.awb.manualGreenGain * 1024.0f));
    writeChannelGain(sensor::CID_BLUE_GAIN, truncateToRegister(_controls.awb.manualBlueGain * 1024.0f));
    _awbState.controlNeedsUpdate = true;
    _awbCurve.primed = false;
}

// Writes back the last automatic red and blue gains once; green is left as it is.
void CUDACamera::restoreWhiteBalance() {
    if (!_awbState.controlNeedsUpdate) return;
    writeChannelGain(sensor::CID_RED_GAIN, _awbState.redGain);
    writeChannelGain(sensor::CID_BLUE_GAIN, _awbState.blueGain);
    _awbState.controlNeedsUpdate = false;
}

// Gray world over the samples: the mean chroma of the gray samples should sit at the targets.
// Only the channel with the larger error moves (red on a tie); with nothing gray in view a
// random error of at most 0.1 moves one gain so that the loop cannot stay stuck.
void CUDACamera::autoWhiteBalance(const Bucket& bucket, uint32_t offsetX, uint32_t offsetY) {
    const metering::GraySums gray = metering::sampleGray(
        fullImage(bucket), _initialSampleDist, static_cast<int>(_params.numSamples), static_cast<int>(offsetX),
        static_cast<int>(offsetY), _params.awb.numSamples, _params.awb.grayThreshold, _meteringScratch.samples);
    const float P = _params.awb.P;
    const float targetU = _params.awb.targetU;
    const float targetV = _params.awb.targetV;
    float avgU;
    float avgV;
    if (gray.countU == 0) {
        const float perturbationU = noise();
        const float perturbationV = noise();
        if (_logger.debug()) {
            Poco::LogStream(_logger).debug()
                << "AWB stuck, perturbation applied " << perturbationU << ", " << perturbationV << std::endl;
        }
        avgU = targetU + perturbationU;
        avgV = targetV + perturbationV;
    } else {
        avgU = (gray.sumU / static_cast<float>(gray.countU)) / 255.0f;
        avgV = (gray.sumV / static_cast<float>(gray.countV)) / 255.0f;
    }
    const v4l2_queryctrl blue = channelGainRange(sensor::CID_BLUE_GAIN);
    const v4l2_queryctrl red = channelGainRange(sensor::CID_RED_GAIN);
    const float errU = targetU - avgU;
    const float errV = targetV - avgV;
    if (std::fabs(errU) > std::fabs(errV)) {
        _currBlueGain = metering::nextChannelGain(_currBlueGain, static_cast<float>(blue.minimum),
                                                  static_cast<float>(blue.maximum), errU, P);
        _awbState.blueGain = truncateToRegister(_currBlueGain);
        writeChannelGain(sensor::CID_BLUE_GAIN, _awbState.blueGain);
    } else {
        _currRedGain = metering::nextChannelGain(_currRedGain, static_cast<float>(red.minimum),
                                                 static_cast<float>(red.maximum), errV, P);
        _awbState.redGain = truncateToRegister(_currRedGain);
        writeChannelGain(sensor::CID_RED_GAIN, _awbState.redGain);
    }
    _awbState.controlNeedsUpdate = true;
}

// The illuminant searched along the colour-temperature curve; the gains move half of the way to
// the curve's gains at the estimate per frame. Until the sensor holds the gains kept here (first
// frame, or after manual white balance) the frame is only used to write them: the curve's
// reference gains at first, the last automatic ones after that.
void CUDACamera::curveWhiteBalance(const Bucket& bucket, uint32_t offsetX, uint32_t offsetY) {
    constexpr float kRate = 0.5f;
    const metering::ColourTemperatureCurve& curve = _params.awb.curve;
    if (!_awbCurve.primed) {
        if (!_awbCurve.started) _awbCurve.gains = metering::gainsAt(curve, curve.referenceKelvin);
        _awbCurve.started = true;
        _awbCurve.green = readChannelGain(sensor::CID_GREEN_GAIN);
        _awbCurve.primed = true;
        writeCurveGains();
        return;
    }
    metering::gatherSamples(fullImage(bucket), _initialSampleDist, _params.numSamples, offsetX, offsetY,
                            metering::passLength(_params.awb.numSamples), _meteringScratch.samples);
    const metering::ColourShape shape = colourShape();
    const metering::IlluminantEstimate estimate =
        metering::estimateIlluminant(_meteringScratch.samples, metering::passLength(_params.awb.numSamples), shape,
                                     _awbCurve.gains, curve, metering::CurveSearch{}, _curveScratch);
    if (!estimate.found) {
        if (_logger.debug()) {
            Poco::LogStream(_logger).debug()
                << "AWB curve: too little near gray (" << estimate.support << " samples), gains kept" << std::endl;
        }
        return;
    }
    _awbCurve.gains = metering::smoothGains(_awbCurve.gains, metering::gainsAt(curve, estimate.kelvin), kRate);
    writeCurveGains();
}

// Writes the curve state's gains as red and blue registers against its green register, within
// the registers' ranges, and keeps what was written as the state (so that the next estimate
// divides out the gains really in force) and as the automatic gains a lock restores.
void CUDACamera::writeCurveGains() {
    const auto write = [this](uint32_t id, float ratio, float& current, int32_t& kept) {
        const v4l2_queryctrl range = channelGainRange(id);
        const float reg = metering::clampKeepNaN(ratio * static_cast<float>(_awbCurve.green),
                                                 static_cast<float>(std::max<int32_t>(range.minimum, 1)),
                                                 static_cast<float>(range.maximum));
        kept = static_cast<int32_t>(std::lround(reg));
        current = static_cast<float>(kept);
        writeChannelGain(id, kept);
        return static_cast<float>(kept) / static_cast<float>(_awbCurve.green);
    };
    // A green register of 0 gives a black image and no estimate; the ratios then count against unity.
    if (_awbCurve.green <= 0) _awbCurve.green = 1024;
    _awbCurve.gains.red = write(sensor::CID_RED_GAIN, _awbCurve.gains.red, _currRedGain, _awbState.redGain);
    _awbCurve.gains.blue = write(sensor::CID_BLUE_GAIN, _awbCurve.gains.blue, _currBlueGain, _awbState.blueGain);
    _awbState.controlNeedsUpdate = true;
}

}  // namespace capture
}  // namespace ruvo
