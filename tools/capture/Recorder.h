// The frame callback of a run: it counts what every camera delivers, measures the delay from
// capture to delivery, writes one CSV row of 3A feedback per camera per batch, and holds the
// newest batch of every camera so that its images can be saved when the run ends.
#pragma once

#include <ruvo/capture/Frame.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <ostream>
#include <string>
#include <vector>

namespace ruvo {
namespace tool {

// The 3A state of one camera's capture as delivered in one batch.
struct FeedbackSample {
    uint32_t cameraId = 0;
    uint32_t frameId = 0;  // of the capture's first output buffer
    uint32_t batchId = 0;
    int64_t timestampNs = 0;  // capture time, steady clock
    double exposureS = 0.0;
    double gain = 0.0;  // analogue gain factor
    double wbRed = 0.0;
    double wbGreen = 0.0;
    double wbBlue = 0.0;
    double luminance = 0.0;      // 0..1
    double latencyMs = 0.0;      // capture to delivery
    uint32_t sequence = 0;       // the driver's frame number
    uint64_t droppedFrames = 0;  // frames the driver dropped since the camera started
    uint64_t errorBuffers = 0;   // damaged buffers the camera did not deliver since it started
};

// The sample of a capture whose first delivered frame is `frame`, delivered at `deliveredAt`.
FeedbackSample sampleOf(const capture::Frame& frame, capture::TimePoint deliveredAt);

// The CSV header line and the row of a sample (no line ends).
std::string csvHeader();
std::string csvRow(const FeedbackSample& sample);

// What the live status line shows of one camera.
struct CameraStatus {
    uint64_t delivered = 0;        // captures delivered since the start
    uint64_t windowFrames = 0;     // since the previous status
    double windowLatencyMs = 0.0;  // mean over the window; 0 when empty
    bool hasSample = false;
    FeedbackSample last;
};

// The whole run of one camera, for the summary.
struct CameraTotals {
    uint64_t delivered = 0;
    std::vector<double> latenciesMs;
    double firstDeliveryS = 0.0;  // steady clock, seconds
    double lastDeliveryS = 0.0;
    bool hasSample = false;
    FeedbackSample last;
};

class Recorder {
public:
    // `cameras` cameras; CSV rows go to `csv` (header first) when it is not null.
    Recorder(size_t cameras, std::ostream* csv);

    // The frame callback. After finish() batches are let go at once.
    void onBatch(const std::vector<std::shared_ptr<capture::Frame>>& batch);

    // Every camera's status since the previous call.
    std::vector<CameraStatus> takeStatus();
    // Whether every camera has delivered at least `frames` captures.
    bool reached(uint64_t frames) const;

    // Stops recording and hands over the newest batch of every camera (empty for a camera that
    // delivered nothing). The caller must drop them before the device is stopped.
    std::vector<std::vector<std::shared_ptr<capture::Frame>>> finish();

    std::vector<CameraTotals> totals() const;
    std::vector<FeedbackSample> samples() const;

private:
    struct Camera {
        CameraTotals totals;
        uint64_t windowFrames = 0;
        double windowLatencySumMs = 0.0;
        std::vector<std::shared_ptr<capture::Frame>> newest;
    };

    void record(Camera& camera, std::vector<std::shared_ptr<capture::Frame>> frames, capture::TimePoint now,
                std::vector<std::shared_ptr<capture::Frame>>& released);

    mutable std::mutex _mutex;
    std::ostream* _csv;
    bool _finished = false;
    std::vector<Camera> _cameras;
    std::vector<FeedbackSample> _samples;
};

}  // namespace tool
}  // namespace ruvo
