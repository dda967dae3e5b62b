// The simulated sensor's device calls (stat, open, close, ioctl, select) and its control surface.
#include "sim/SimulatedSensor.h"

#include "SensorControls.h"

#include <ruvo/capture/CaptureDeviceException.h>

#include <fcntl.h>
#include <sys/sysmacros.h>

#include <atomic>
#include <cmath>
#include <cstring>

namespace ruvo {
namespace capture {
namespace sim {
namespace {

// Descriptors of simulated devices are numbered far above the kernel's, and never reused, so
// that a descriptor handed to the wrong DeviceIo fails with EBADF instead of hitting a file.
std::atomic<int> nextDescriptor{1 << 20};

constexpr unsigned kVideoMajor = 81;

std::chrono::steady_clock::duration toDuration(const struct ::timeval& t) {
    return std::chrono::seconds(t.tv_sec) + std::chrono::microseconds(t.tv_usec);
}

struct ::timeval toTimeval(std::chrono::steady_clock::duration d) {
    if (d < std::chrono::steady_clock::duration::zero()) d = std::chrono::steady_clock::duration::zero();
    const auto us = std::chrono::duration_cast<std::chrono::microseconds>(d).count();
    return {static_cast<time_t>(us / 1000000), static_cast<suseconds_t>(us % 1000000)};
}

}  // namespace

SimulatedSensor::SimulatedSensor(std::string path, SimConfig config)
    : _path(std::move(path)),
      _config(std::move(config)),
      _controls(_config.fps, _config.controls, _config.pedestal, _config.standard),
      _exposure(_controls.value(_controls.exposureId())),
      _gain(_controls.value(_controls.gainId())),
      _illuminance(_config.illuminance),
      _colourTemperature(_config.colourTemperature),
      _scene(makeScene(_config.scene, _config.level)) {
    _format.width = 1280;
    _format.height = 720;
    v4l2_format f{};
    f.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    f.fmt.pix = _format;
    setFormat(&f, true);
}

SimulatedSensor::~SimulatedSensor() {
    std::unique_lock<std::mutex> lock(_mutex);
    stopStreaming(lock);
}

int SimulatedSensor::fail(int errnoValue) const {
    errno = errnoValue;
    return -1;
}

int SimulatedSensor::stat(const std::string& path, struct ::stat* status) {
    std::lock_guard<std::mutex> lock(_mutex);
    if (_disconnected) return fail(ENODEV);
    if (path != _path) return fail(ENOENT);
    if (!status) return fail(EFAULT);
    std::memset(status, 0, sizeof *status);
    status->st_mode = S_IFCHR | 0660;
    status->st_rdev = makedev(kVideoMajor, 0);
    status->st_nlink = 1;
    return 0;
}

int SimulatedSensor::open(const std::string& path, int flags) {
    std::lock_guard<std::mutex> lock(_mutex);
    if (_disconnected) return fail(ENODEV);
    if (path != _path) return fail(ENOENT);
    if (flags & (O_CREAT | O_DIRECTORY)) return fail(flags & O_CREAT ? EEXIST : ENOTDIR);
    const int fd = nextDescriptor.fetch_add(1);
    _files[fd].flags = flags;
    return fd;
}

int SimulatedSensor::close(int fd) {
    std::unique_lock<std::mutex> lock(_mutex);
    if (_files.erase(fd) == 0) return fail(EBADF);
    _frameCv.notify_all();  // a DQEVENT waiting on this descriptor returns
    // Closing the descriptor that owns the buffers stops streaming and frees them, as the
    // kernel's queue release does; this works on a disconnected device too.
    if (fd == _owner) {
        stopStreaming(lock);
        _buffers.reset(0, 0, V4L2_MEMORY_USERPTR);
        _owner = -1;
    }
    return 0;
}

int SimulatedSensor::ioctl(int fd, unsigned long request, void* argument) {
    std::unique_lock<std::mutex> lock(_mutex);
    if (_files.find(fd) == _files.end()) return fail(EBADF);
    if (_disconnected) return fail(ENODEV);
    if (_interruptIoctls > 0) {
        --_interruptIoctls;
        ++_interruptedIoctls;
        return fail(EINTR);
    }
    // The core answers requests it does not know before it looks at the argument.
    if (!knownRequest(request)) return fail(ENOTTY);
    if (!argument) return fail(EFAULT);
    if (const int busy = checkPriority(fd, request)) return fail(busy);
    const int result = dispatch(lock, fd, request, argument);
    return result == 0 ? 0 : fail(result);
}

bool SimulatedSensor::readable() const {
    // A queue that is not streaming, that has failed, that has had no QBUF since it was set
    // up, or whose device is gone polls as an error, which select reports as readable; the
    // DQBUF that follows says what is wrong.
    return !_streaming || _waitingForBuffers || _disconnected || _dequeueErrno != 0 || _buffers.hasFilled();
}

int SimulatedSensor::select(int fd, struct ::timeval* timeout) {
    std::unique_lock<std::mutex> lock(_mutex);
    if (_files.find(fd) == _files.end()) return fail(EBADF);
    if (timeout && (timeout->tv_sec < 0 || timeout->tv_usec < 0)) return fail(EINVAL);
    const auto start = std::chrono::steady_clock::now();
    const auto deadline = timeout ? start + toDuration(*timeout) : std::chrono::steady_clock::time_point::max();
    const auto wake = [&] { return _interruptSelect || readable(); };
    if (timeout)
        _frameCv.wait_until(lock, deadline, wake);
    else
        _frameCv.wait(lock, wake);
    // Linux leaves the time not slept in the timeout, normalised.
    if (timeout) *timeout = toTimeval(deadline - std::chrono::steady_clock::now());
    if (_interruptSelect) {
        _interruptSelect = false;
        return fail(EINTR);
    }
    return readable() ? 1 : 0;
}

bool SimulatedSensor::step(unsigned frames) {
    bool allCaptured = true;
    for (unsigned i = 0; i < frames; ++i) {
        const Exposure result = exposeFrame();
        if (result == Exposure::None) return false;
        allCaptured = allCaptured && result == Exposure::Captured;
    }
    return allCaptured;
}

bool SimulatedSensor::waitForQueued(size_t count, std::chrono::milliseconds timeout) const {
    std::unique_lock<std::mutex> lock(_mutex);
    return _clockCv.wait_for(lock, timeout, [&] { return _buffers.withDriver() >= count; });
}

void SimulatedSensor::setIlluminance(float illuminance) {
    if (!(illuminance >= 0.0f && std::isfinite(illuminance)))
        throw CaptureDeviceException("illuminance must be a finite value >= 0, not " + std::to_string(illuminance));
    std::lock_guard<std::mutex> lock(_mutex);
    _illuminance = illuminance;
}

void SimulatedSensor::setColourTemperature(float kelvin) {
    if (!(kelvin >= 1000.0f && kelvin <= 40000.0f))
        throw CaptureDeviceException("colour temperature must lie in 1000 .. 40000 K, not " + std::to_string(kelvin));
    std::lock_guard<std::mutex> lock(_mutex);
    _colourTemperature = kelvin;
}

void SimulatedSensor::setScene(std::shared_ptr<const Scene> scene) {
    if (!scene) throw CaptureDeviceException("setScene: no scene");
    std::lock_guard<std::mutex> lock(_mutex);
    _scene = std::move(scene);
    ++_sceneVersion;
}

float SimulatedSensor::illuminance() const {
    std::lock_guard<std::mutex> lock(_mutex);
    return _illuminance;
}

float SimulatedSensor::colourTemperature() const {
    std::lock_guard<std::mutex> lock(_mutex);
    return _colourTemperature;
}

void SimulatedSensor::stall(std::chrono::milliseconds duration) {
    std::lock_guard<std::mutex> lock(_mutex);
    _stallUntil = std::chrono::steady_clock::now() + duration;
    _clockCv.notify_all();
}

void SimulatedSensor::failDequeue(int errnoValue) {
    std::lock_guard<std::mutex> lock(_mutex);
    _dequeueErrno = errnoValue;
    _frameCv.notify_all();
}

void SimulatedSensor::disconnect() {
    std::lock_guard<std::mutex> lock(_mutex);
    _disconnected = true;
    _frameCv.notify_all();
    _clockCv.notify_all();
}

void SimulatedSensor::failNextQueue(int errnoValue) {
    std::lock_guard<std::mutex> lock(_mutex);
    _queueErrno = errnoValue;
}

void SimulatedSensor::failNextStreamOn(int errnoValue) {
    std::lock_guard<std::mutex> lock(_mutex);
    _streamOnErrno = errnoValue;
}

void SimulatedSensor::interruptNextIoctl(unsigned count) {
    std::lock_guard<std::mutex> lock(_mutex);
    _interruptIoctls = count;
}

uint64_t SimulatedSensor::interruptedIoctls() const {
    std::lock_guard<std::mutex> lock(_mutex);
    return _interruptedIoctls;
}

void SimulatedSensor::interruptNextSelect() {
    std::lock_guard<std::mutex> lock(_mutex);
    _interruptSelect = true;
    _frameCv.notify_all();
}

size_t SimulatedSensor::queuedCount() const {
    std::lock_guard<std::mutex> lock(_mutex);
    return _buffers.withDriver();
}

bool SimulatedSensor::streaming() const {
    std::lock_guard<std::mutex> lock(_mutex);
    return _streaming;
}

uint64_t SimulatedSensor::framesProduced() const {
    std::lock_guard<std::mutex> lock(_mutex);
    return _produced;
}

uint64_t SimulatedSensor::framesDropped() const {
    std::lock_guard<std::mutex> lock(_mutex);
    return _dropped;
}

uint64_t SimulatedSensor::errorBuffers() const {
    std::lock_guard<std::mutex> lock(_mutex);
    return _errorBuffers;
}

int32_t SimulatedSensor::control(uint32_t id) const {
    std::lock_guard<std::mutex> lock(_mutex);
    return _controls.value(id);
}

struct v4l2_pix_format SimulatedSensor::format() const {
    std::lock_guard<std::mutex> lock(_mutex);
    return _format;
}

size_t SimulatedSensor::openCount() const {
    std::lock_guard<std::mutex> lock(_mutex);
    return _files.size();
}

uint64_t SimulatedSensor::renderCount() const {
    std::lock_guard<std::mutex> lock(_fillMutex);
    return _renderer.renderCount();
}

}  // namespace sim
}  // namespace capture
}  // namespace ruvo
