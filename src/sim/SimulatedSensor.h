// The simulated sensor: an in-process V4L2 capture driver for one 10-bit Bayer sensor, serving
// the DeviceIo calls of a "sim:" camera path, with a control surface through which tests and the
// capture tool drive its frame clock, its scene and its faults.
#pragma once

#include "sim/BufferQueue.h"
#include "sim/ControlTable.h"
#include "sim/FrameRenderer.h"
#include "sim/Scene.h"
#include "sim/SimConfig.h"

#include <linux/videodev2.h>
#include <sys/stat.h>
#include <sys/time.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace ruvo {
namespace capture {
namespace sim {

class SimulatedSensor {
public:
    // A sensor answering to `path` (normally "sim:..."). Starts no thread and opens nothing.
    // Throws CaptureDeviceException when the configured scene cannot be made.
    SimulatedSensor(std::string path, SimConfig config);
    ~SimulatedSensor();
    SimulatedSensor(const SimulatedSensor&) = delete;
    SimulatedSensor& operator=(const SimulatedSensor&) = delete;

    const std::string& path() const { return _path; }
    const SimConfig& config() const { return _config; }

    // --- The device calls, with the kernel's return values and errno. ---
    int stat(const std::string& path, struct ::stat* status);
    int open(const std::string& path, int flags);
    int close(int fd);
    int ioctl(int fd, unsigned long request, void* argument);
    int select(int fd, struct ::timeval* timeout);
    // Maps the memory-mapped buffer whose m.offset is `offset`: the driver's own memory, which
    // stays alive while mapped. MAP_FAILED with errno EINVAL when no buffer starts there, the
    // length runs past it, or the queue is not memory-mapped.
    void* mmap(int fd, size_t length, off_t offset);
    int munmap(void* address, size_t length);
    // Takes the O_NONBLOCK of `flags` as the descriptor's, as fcntl(F_SETFL) changes it.
    void setStatusFlags(int fd, int flags);
    // Whether `fd` has events to dequeue (VIDIOC_DQEVENT), which poll reports as POLLPRI.
    bool eventPending(int fd) const;

    // --- Frame clock. ---
    // Exposes `frames` frames now, on the caller's thread: each fills the oldest queued buffer,
    // or is dropped (counted in the sequence) when none is queued. Works with every clock mode.
    // Returns true when the sensor was streaming and every frame filled a buffer; false when it
    // is not streaming, stalled or disconnected (nothing exposed), or a frame was dropped or
    // completed with the error flag.
    bool step(unsigned frames = 1);

    // Waits until at least `count` buffers are with the driver (see queuedCount), so that a
    // test can step once the client has queued its buffers. False when `timeout` passed first.
    bool waitForQueued(size_t count, std::chrono::milliseconds timeout) const;

    // --- Scene, from the next exposed frame on. ---
    void setIlluminance(float illuminance);   // multiples of the nominal illuminance, >= 0
    void setColourTemperature(float kelvin);  // 1000 .. 40000
    void setScene(std::shared_ptr<const Scene> scene);
    float illuminance() const;
    float colourTemperature() const;

    // --- Faults. ---
    // No frame is exposed for `duration` from now (every clock mode; step() exposes nothing).
    void stall(std::chrono::milliseconds duration);
    // Every DQBUF fails with `errnoValue` and select reports the descriptor readable, until
    // called again with 0.
    void failDequeue(int errnoValue);
    // From now on every call but close fails with ENODEV; waiting calls wake and fail.
    void disconnect();
    // The next QBUF, or STREAMON, fails with `errnoValue` and changes nothing.
    void failNextQueue(int errnoValue = EIO);
    void failNextStreamOn(int errnoValue = EIO);
    // The select in progress, or else the next one, returns -1 with EINTR.
    void interruptNextSelect();
    // The next `count` ioctl calls return -1 with EINTR without doing anything, as a request
    // interrupted by a signal does.
    void interruptNextIoctl(unsigned count = 1);
    uint64_t interruptedIoctls() const;

    // --- Observers. ---
    // Buffers with the driver: queued, being filled, or filled and not yet dequeued.
    size_t queuedCount() const;
    bool streaming() const;
    uint64_t framesProduced() const;     // frames written into buffers
    uint64_t framesDropped() const;      // frames exposed with no buffer queued, or lost (sim.dropEvery)
    uint64_t errorBuffers() const;       // buffers completed with V4L2_BUF_FLAG_ERROR (sim.errorEvery)
    int32_t control(uint32_t id) const;  // throws std::out_of_range for an id that is no control
    struct v4l2_pix_format format() const;
    size_t openCount() const;
    uint64_t renderCount() const;  // noiseless frames rendered; copies are not counted

private:
    struct OpenFile {
        int flags = 0;
        uint32_t priority = V4L2_PRIORITY_DEFAULT;
        std::map<uint32_t, uint32_t> controlEvents;  // subscribed control id -> V4L2_EVENT_SUB_FL_*
        std::deque<struct v4l2_event> events;        // queued, oldest first
        uint32_t eventSequence = 0;                  // of the next event queued
    };
    struct Mapping {
        MappedMemory memory;
        unsigned count = 0;  // mmap calls not yet undone
    };
    enum class Exposure { Captured, Dropped, None };

    // Device calls (SimulatedSensor.cpp) and V4L2 requests (SimV4l2.cpp), under _mutex.
    int fail(int errnoValue) const;
    int dispatch(std::unique_lock<std::mutex>& lock, int fd, unsigned long request, void* argument);
    int queryCapability(struct v4l2_capability* cap) const;
    int enumerateFormat(struct v4l2_fmtdesc* desc) const;
    int enumerateFrameSizes(struct v4l2_frmsizeenum* size) const;
    int getFormat(struct v4l2_format* format) const;
    int setFormat(struct v4l2_format* format, bool apply);
    int getParameters(struct v4l2_streamparm* parameters) const;
    int requestBuffers(int fd, struct v4l2_requestbuffers* request);
    int queryBuffer(struct v4l2_buffer* buffer) const;
    int queueBuffer(int fd, struct v4l2_buffer* buffer);
    int dequeueBuffer(std::unique_lock<std::mutex>& lock, int fd, struct v4l2_buffer* buffer);
    int streamOn(int fd, const int* type);
    int streamOff(std::unique_lock<std::mutex>& lock, int fd, const int* type);
    int queryControl(struct v4l2_queryctrl* query) const;
    int getControl(struct v4l2_control* control) const;
    int setControl(int fd, struct v4l2_control* control);
    int checkOwner(int fd) const;
    // Extended controls and control events (SimV4l2Controls.cpp).
    const ControlInfo* findControl(uint32_t id) const;
    const ControlInfo* lookUpControl(uint32_t id) const;
    int queryExtControl(struct v4l2_query_ext_ctrl* query) const;
    int queryMenu(const struct v4l2_querymenu* menu) const;
    int extControls(int fd, unsigned long request, struct v4l2_ext_controls* controls);
    int checkExtControls(unsigned long request, struct v4l2_ext_controls& controls) const;
    void writeControl(int fd, const ControlInfo& info, int32_t value);
    bool layoutLocked(const ControlInfo& info) const;
    void flipDeliveredOrder(uint32_t id);
    static uint32_t flippedFourcc(uint32_t fourcc, bool columns, bool rows);
    uint32_t underFlips(uint32_t fourcc) const;
    kernels::RawLayout deliveredLayout() const;
    void queueControlEvent(OpenFile& file, const ControlInfo& info, uint32_t changes);
    int subscribeEvent(int fd, const struct v4l2_event_subscription* subscription);
    int unsubscribeEvent(int fd, const struct v4l2_event_subscription* subscription);
    int dequeueEvent(std::unique_lock<std::mutex>& lock, int fd, struct v4l2_event* event);
    // The kernel's V4L2 core (SimV4l2Core.cpp).
    static bool knownRequest(unsigned long request);
    int checkPriority(int fd, unsigned long request) const;
    uint32_t highestPriority() const;
    int coreRequest(int fd, unsigned long request, void* argument);
    void describeBuffer(size_t index, struct v4l2_buffer* buffer) const;
    bool readable() const;

    // Streaming and frame production (SimClock.cpp).
    void startStreaming();
    void stopStreaming(std::unique_lock<std::mutex>& lock);
    Exposure exposeFrame();
    FrameSettings frameSettings(uint64_t frame);
    MeterRect meterRect() const;
    bool stalled(std::chrono::steady_clock::time_point now) const;
    void runRealtimeClock(uint64_t epoch);
    void runFreeClock(uint64_t epoch);

    const std::string _path;
    const SimConfig _config;

    mutable std::mutex _mutex;                 // guards everything below but the renderer
    std::condition_variable _frameCv;          // a frame was filled, streaming stopped, a fault was armed
    mutable std::condition_variable _clockCv;  // a buffer was queued, the clock must stop, a stall changed
    std::map<int, OpenFile> _files;
    int _owner = -1;  // the descriptor that requested the buffers; -1 when none did
    struct v4l2_pix_format _format = {};
    ControlTable _controls;
    DelayedValue _exposure;
    DelayedValue _gain;
    BufferQueue _buffers;
    std::map<const void*, Mapping> _mappings;
    bool _streaming = false;
    bool _waitingForBuffers = true;  // no QBUF since the buffers were requested or streaming stopped
    bool _filling = false;
    uint32_t _sequence = 0;   // of the next frame in this stream
    uint64_t _nextFrame = 0;  // exposed frames over the sensor's life: the next frame's number
    uint64_t _produced = 0;
    uint64_t _dropped = 0;
    uint64_t _errorBuffers = 0;
    size_t _nextScriptEvent = 0;
    float _illuminance;
    float _colourTemperature;
    std::shared_ptr<const Scene> _scene;
    uint64_t _sceneVersion = 1;

    std::chrono::steady_clock::time_point _stallUntil;
    int _dequeueErrno = 0;
    int _queueErrno = 0;
    int _streamOnErrno = 0;
    bool _interruptSelect = false;
    unsigned _interruptIoctls = 0;
    uint64_t _interruptedIoctls = 0;
    bool _disconnected = false;

    std::thread _clock;
    uint64_t _clockEpoch = 0;  // a clock thread runs while this equals the value it started with

    mutable std::mutex _fillMutex;  // serialises frame production; taken before _mutex
    FrameRenderer _renderer;
};

// The sensor registered under `path` by makeDeviceIo, or null when none is alive.
std::shared_ptr<SimulatedSensor> findSensor(const std::string& path);

}  // namespace sim
}  // namespace capture
}  // namespace ruvo
