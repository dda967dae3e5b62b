// The records that cross the boundary between the capture device and its client: delivered
// images (Frame, Plane, Feedback), the runtime control record (Controls), the description of
// an output buffer, the enumerations that classify an output image, and the callback type.
#pragma once

#include <ruvo/util/Range.h>
#include <ruvo/util/WeightedRegion.h>

#include <dlib/geometry/rectangle.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace ruvo {
namespace capture {

// Capture time: steady clock, nanoseconds in a signed 64-bit count.
using TimePoint = std::chrono::time_point<std::chrono::steady_clock, std::chrono::nanoseconds>;

// One image plane inside a buffer that the Frame does not own.
struct Plane {
    uint8_t* data = nullptr;  // first byte; points into a camera's managed output buffer
    uint32_t width = 0;       // samples
    uint32_t height = 0;      // rows
    uint32_t stride = 0;      // bytes from one row to the next
};

// Result of auto exposure and auto white balance for one captured image.
struct Feedback {
    float autoExposureGain = 0.0f;  // analogue gain factor in force
    float autoExposureTime = 0.0f;  // exposure time in seconds
    std::vector<ruvo::util::WeightedRegion> autoExposureRegions;
    std::array<float, 4> autoWhiteBalanceGains{};  // red, green, green, blue as factors (register / 1024)
    std::vector<ruvo::util::WeightedRegion> autoWhiteBalanceRegions;
    float luminance = 0.0f;  // sensor statistic divided by its range
    // The driver's account of the frame and of the stream since the camera started.
    uint32_t sequence = 0;                          // the driver's frame number, 0 at stream start
    TimePoint captureTimestamp = TimePoint::min();  // the driver's capture time where it gives a
                                                    // monotonic one, else the dequeue time
    uint64_t droppedFrames = 0;                     // frames the driver dropped: gaps in the sequence
    uint64_t errorBuffers = 0;                      // buffers the driver flagged as damaged, given back undelivered
};

struct Frame {
    enum Format { INVALID = 0, Y8 = 1, YUYV = 2, YUV420p = 3, BGR24 = 4, RGB24 = 5, SBGGR10 = 6, HISTOGRAM8 = 7 };

    enum OutputType {
        COLOR = 0,
        SKIN = 1,
        SKIN_Y = 2,
        SKIN_HISTOGRAM = 3,
        BAYER = 4,
        MOTION = 5,
        GRADIENT_X = 6,
        GRADIENT_Y = 7,
        GRADIENT_MAG = 8,
        GRADIENT_ORIENTATION = 9
    };

    enum OutputLevel {
        NOT_APPLICABLE = -2,
        SUBIMAGE = -1,
        ORIGINAL = 0,
        HALF = 1,
        QUARTER = 2,
        EIGHTH = 3,
        SIXTEENTH = 4
    };

    std::array<Plane, 4> planes{};  // 0 always; 1 (U) and 2 (V) for YUV420p; 3 unused
    uint32_t frameId = 0;           // running number over all frames of all cameras
    uint32_t cameraId = 0;          // position of the camera among the enabled cameras
    uint32_t batchId = 0;           // delivery cycle that sent the frame
    uint32_t batchIndex = 0;        // output buffer index in the bucket; read-only for clients
    OutputLevel outputLevelId = ORIGINAL;
    OutputType outputTypeId = COLOR;
    Format format = INVALID;
    TimePoint timestamp = TimePoint::min();
    uint32_t width = 0;
    uint32_t height = 0;
    Feedback feedback;
    std::string type;        // "camera" for frames of the capture pipeline
    dlib::rectangle source;  // sensor region shown; default empty (0, 0, -1, -1)
};

// One output buffer of an output configuration.
struct OutputBufferDefinition {
    Frame::Format format;
    Frame::OutputType outputType;
    Frame::OutputLevel outputLevel;

    bool operator==(const OutputBufferDefinition& other) const {
        return format == other.format && outputType == other.outputType && outputLevel == other.outputLevel;
    }
    bool operator!=(const OutputBufferDefinition& other) const { return !(*this == other); }
};

// Runtime controls of one camera.
struct Controls {
    struct AutoWhiteBalance {
        bool lock = false;
        bool manual = false;
        float gammaRed = 0.0f;
        float gammaGreen = 0.0f;
        float gammaBlue = 0.0f;
        float gammaCr = 0.0f;
        float gammaCb = 0.0f;
        float manualRedGain = 0.0f;  // linear factors; 1.0 is register 1024
        float manualGreenGain = 0.0f;
        float manualBlueGain = 0.0f;
        std::vector<ruvo::util::WeightedRegion> regions;
    };

    struct AutoExposure {
        bool lock = false;
        bool manual = false;
        float manualExposure = 0.0f;    // seconds
        float manualGain = 0.0f;        // linear factor
        float ev = 0.0f;                // added to the luminance targets
        float targetY = 0.0f;           // 0..1
        std::string manualMode;         // "default", "AVGY" (sensor statistic only), "oru"
        ruvo::util::Range<float> time;  // permitted exposure time, seconds
        std::vector<ruvo::util::WeightedRegion> regions;
    };

    uint32_t width = 0;
    uint32_t height = 0;
    bool hFlip = false;
    bool vFlip = false;
    AutoWhiteBalance awb;
    AutoExposure ae;
    uint32_t outputBuffersConfIndex = 0;
    std::vector<OutputBufferDefinition> outputBuffers;
};

// Display names of the output types. Each including source file has its own copy.
static const std::map<int, std::string> OutputTypeNames = {
    {Frame::COLOR, "Color YUV420p"},
    {Frame::SKIN, "Skin segmentation"},
    {Frame::SKIN_Y, "Chrominance masked skin luminance"},
    {Frame::SKIN_HISTOGRAM, "8bit skin masked luminance histogram"},
    {Frame::BAYER, "Raw Bayer"},
    {Frame::MOTION, "Motion"},
    {Frame::GRADIENT_X, "Gradient X"},
    {Frame::GRADIENT_Y, "Gradient Y"},
    {Frame::GRADIENT_MAG, "Gradient magnitude"},
    {Frame::GRADIENT_ORIENTATION, "Gradient theta"},
};

// One call carries one batch: every frame of every camera that captured since the last batch.
using OnNewDataCallback = std::function<void(const std::vector<std::shared_ptr<Frame>>&)>;

}  // namespace capture
}  // namespace ruvo
