// Recording of delivered batches.
#include "Recorder.h"

#include <cstdio>

namespace ruvo {
namespace tool {

using capture::Frame;
using capture::TimePoint;

namespace {

double seconds(TimePoint t) { return std::chrono::duration<double>(t.time_since_epoch()).count(); }

}  // namespace

FeedbackSample sampleOf(const Frame& frame, TimePoint deliveredAt) {
    FeedbackSample s;
    s.cameraId = frame.cameraId;
    s.frameId = frame.frameId;
    s.batchId = frame.batchId;
    s.timestampNs = frame.timestamp.time_since_epoch().count();
    s.exposureS = frame.feedback.autoExposureTime;
    s.gain = frame.feedback.autoExposureGain;
    // The white-balance gains are stored red, green, green, blue.
    s.wbRed = frame.feedback.autoWhiteBalanceGains[0];
    s.wbGreen = frame.feedback.autoWhiteBalanceGains[1];
    s.wbBlue = frame.feedback.autoWhiteBalanceGains[3];
    s.luminance = frame.feedback.luminance;
    s.latencyMs = std::chrono::duration<double, std::milli>(deliveredAt - frame.timestamp).count();
    s.sequence = frame.feedback.sequence;
    s.droppedFrames = frame.feedback.droppedFrames;
    s.errorBuffers = frame.feedback.errorBuffers;
    return s;
}

std::string csvHeader() {
    return "camera,frame_id,batch_id,timestamp_ns,exposure_s,gain,wb_r,wb_g,wb_b,luminance,latency_ms,sequence,"
           "dropped,errors";
}

std::string csvRow(const FeedbackSample& s) {
    char row[256];
    std::snprintf(row, sizeof(row), "%u,%u,%u,%lld,%.9g,%.6g,%.6g,%.6g,%.6g,%.6g,%.3f,%u,%llu,%llu", s.cameraId,
                  s.frameId, s.batchId, static_cast<long long>(s.timestampNs), s.exposureS, s.gain, s.wbRed, s.wbGreen,
                  s.wbBlue, s.luminance, s.latencyMs, s.sequence, static_cast<unsigned long long>(s.droppedFrames),
                  static_cast<unsigned long long>(s.errorBuffers));
    return row;
}

Recorder::Recorder(size_t cameras, std::ostream* csv) : _csv(csv), _cameras(cameras) {
    if (_csv != nullptr) *_csv << csvHeader() << '\n';
}

void Recorder::onBatch(const std::vector<std::shared_ptr<Frame>>& batch) {
    const TimePoint now = std::chrono::steady_clock::now();
    std::vector<std::shared_ptr<Frame>> released;  // dropped after the lock, returning their buffers
    std::lock_guard<std::mutex> lock(_mutex);
    if (_finished) return;
    // A batch holds each camera's frames together, in buffer order.
    size_t begin = 0;
    while (begin < batch.size()) {
        const uint32_t cameraId = batch[begin]->cameraId;
        size_t end = begin;
        while (end < batch.size() && batch[end]->cameraId == cameraId) ++end;
        if (cameraId < _cameras.size()) {
            record(_cameras[cameraId], {batch.begin() + begin, batch.begin() + end}, now, released);
        }
        begin = end;
    }
}

void Recorder::record(Camera& camera, std::vector<std::shared_ptr<Frame>> frames, TimePoint now,
                      std::vector<std::shared_ptr<Frame>>& released) {
    const FeedbackSample sample = sampleOf(*frames.front(), now);
    CameraTotals& totals = camera.totals;
    if (totals.delivered == 0) totals.firstDeliveryS = seconds(now);
    totals.lastDeliveryS = seconds(now);
    ++totals.delivered;
    totals.latenciesMs.push_back(sample.latencyMs);
    totals.last = sample;
    totals.hasSample = true;
    ++camera.windowFrames;
    camera.windowLatencySumMs += sample.latencyMs;
    _samples.push_back(sample);
    if (_csv != nullptr) *_csv << csvRow(sample) << '\n';
    released.swap(camera.newest);
    camera.newest = std::move(frames);
}

std::vector<CameraStatus> Recorder::takeStatus() {
    std::lock_guard<std::mutex> lock(_mutex);
    std::vector<CameraStatus> status(_cameras.size());
    for (size_t c = 0; c < _cameras.size(); ++c) {
        Camera& camera = _cameras[c];
        status[c].delivered = camera.totals.delivered;
        status[c].windowFrames = camera.windowFrames;
        status[c].windowLatencyMs = camera.windowFrames > 0 ? camera.windowLatencySumMs / camera.windowFrames : 0.0;
        status[c].hasSample = camera.totals.hasSample;
        status[c].last = camera.totals.last;
        camera.windowFrames = 0;
        camera.windowLatencySumMs = 0.0;
    }
    return status;
}

bool Recorder::reached(uint64_t frames) const {
    std::lock_guard<std::mutex> lock(_mutex);
    for (const Camera& camera : _cameras) {
        if (camera.totals.delivered < frames) return false;
    }
    return true;
}

std::vector<std::vector<std::shared_ptr<Frame>>> Recorder::finish() {
    std::lock_guard<std::mutex> lock(_mutex);
    _finished = true;
    std::vector<std::vector<std::shared_ptr<Frame>>> newest;
    for (Camera& camera : _cameras) newest.push_back(std::move(camera.newest));
    if (_csv != nullptr) _csv->flush();
    return newest;
}

std::vector<CameraTotals> Recorder::totals() const {
    std::lock_guard<std::mutex> lock(_mutex);
    std::vector<CameraTotals> totals;
    for (const Camera& camera : _cameras) totals.push_back(camera.totals);
    return totals;
}

std::vector<FeedbackSample> Recorder::samples() const {
    std::lock_guard<std::mutex> lock(_mutex);
    return _samples;
}

}  // namespace tool
}  // namespace ruvo
