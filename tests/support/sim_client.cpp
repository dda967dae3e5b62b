// The test client of the simulated sensor: V4L2 steps through DeviceIo, with errors as exceptions.
#include "support/sim_client.h"

#include <fcntl.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace ruvo {
namespace capture {
namespace testing {
namespace {

[[noreturn]] void failed(const std::string& what, int error) {
    throw std::runtime_error(what + " failed: " + std::strerror(error));
}

}  // namespace

Poco::AutoPtr<Poco::Util::MapConfiguration> cameraEntry(const SimKeys& keys) {
    Poco::AutoPtr<Poco::Util::MapConfiguration> config(new Poco::Util::MapConfiguration);
    for (const auto& [key, value] : keys) config->setString(key, value);
    return config;
}

std::string uniqueSimPath(const std::string& stem) {
    static std::atomic<int> counter{0};
    return "sim:" + stem + "-" + std::to_string(counter.fetch_add(1));
}

v4l2_format captureFormat(uint32_t width, uint32_t height, uint32_t pixelFormat) {
    v4l2_format format{};
    format.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    format.fmt.pix.width = width;
    format.fmt.pix.height = height;
    format.fmt.pix.pixelformat = pixelFormat;
    format.fmt.pix.field = V4L2_FIELD_NONE;
    return format;
}

v4l2_requestbuffers userptrRequest(uint32_t count) {
    v4l2_requestbuffers request{};
    request.count = count;
    request.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    request.memory = V4L2_MEMORY_USERPTR;
    return request;
}

v4l2_buffer userptrBuffer(uint32_t index, const void* memory, uint32_t length) {
    v4l2_buffer buffer{};
    buffer.index = index;
    buffer.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    buffer.memory = V4L2_MEMORY_USERPTR;
    buffer.m.userptr = reinterpret_cast<unsigned long>(memory);
    buffer.length = length;
    return buffer;
}

SimClient::SimClient(SimKeys keys, const std::string& stem) : _path(uniqueSimPath(stem)) {
    keys.emplace("sim.clock", "stepped");
    _io = makeDeviceIo(_path, cameraEntry(keys));
    _sensor = sim::findSensor(_path);
    if (!_sensor) throw std::runtime_error("no sensor registered under " + _path);
    _fd = _io->open(_path, O_RDWR | O_NONBLOCK);
    if (_fd < 0) failed("open " + _path, errno);
}

SimClient::~SimClient() {
    for (const auto& [address, length] : _mapped) _io->munmap(address, length);
    if (_fd >= 0) _io->close(_fd);
}

int SimClient::call(unsigned long request, void* argument) {
    return _io->ioctl(_fd, request, argument) == 0 ? 0 : errno;
}

v4l2_pix_format SimClient::setFormat(uint32_t width, uint32_t height) {
    v4l2_format format = captureFormat(width, height);
    if (const int error = call(VIDIOC_S_FMT, &format)) failed("VIDIOC_S_FMT", error);
    _format = format.fmt.pix;
    return _format;
}

void SimClient::requestBuffers(uint32_t count, size_t guardSamples) {
    v4l2_requestbuffers request = userptrRequest(count);
    if (const int error = call(VIDIOC_REQBUFS, &request)) failed("VIDIOC_REQBUFS", error);
    _memory.assign(request.count, std::vector<uint16_t>(_format.sizeimage / 2 + guardSamples, kGuard));
}

void SimClient::requestMapped(uint32_t count) {
    v4l2_requestbuffers request = userptrRequest(count);
    request.memory = V4L2_MEMORY_MMAP;
    if (const int error = call(VIDIOC_REQBUFS, &request)) failed("VIDIOC_REQBUFS", error);
    for (uint32_t i = 0; i < request.count; ++i) {
        v4l2_buffer buffer = userptrBuffer(i);
        buffer.memory = V4L2_MEMORY_MMAP;
        if (const int error = call(VIDIOC_QUERYBUF, &buffer)) failed("VIDIOC_QUERYBUF", error);
        void* address = _io->mmap(_fd, buffer.length, buffer.m.offset);
        if (address == MAP_FAILED) failed("mmap", errno);
        _mapped.emplace_back(address, buffer.length);
    }
}

int SimClient::queue(uint32_t index) {
    v4l2_buffer buffer = userptrBuffer(index, _memory.empty() ? nullptr : _memory.at(index).data(), _format.sizeimage);
    if (!_mapped.empty()) buffer.memory = V4L2_MEMORY_MMAP;
    return call(VIDIOC_QBUF, &buffer);
}

void SimClient::queueAll() {
    for (uint32_t i = 0; i < std::max(_memory.size(), _mapped.size()); ++i)
        if (const int error = queue(i)) failed("VIDIOC_QBUF", error);
}

void SimClient::stream(unsigned long request) {
    int type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    if (const int error = call(request, &type))
        failed(request == VIDIOC_STREAMON ? "VIDIOC_STREAMON" : "VIDIOC_STREAMOFF", error);
}

std::optional<v4l2_buffer> SimClient::dequeue() {
    v4l2_buffer buffer = userptrBuffer(0);
    const int error = call(VIDIOC_DQBUF, &buffer);
    if (error == EAGAIN) return std::nullopt;
    if (error) failed("VIDIOC_DQBUF", error);
    return buffer;
}

v4l2_buffer SimClient::stepAndDequeue() {
    _sensor->step();
    std::optional<v4l2_buffer> buffer = dequeue();
    if (!buffer) throw std::runtime_error("no frame after a step");
    return *buffer;
}

void SimClient::start(uint32_t width, uint32_t height, uint32_t count) {
    setFormat(width, height);
    requestBuffers(count);
    queueAll();
    streamOn();
}

int32_t SimClient::get(uint32_t id) {
    v4l2_control control{id, 0};
    if (const int error = call(VIDIOC_G_CTRL, &control)) failed("VIDIOC_G_CTRL", error);
    return control.value;
}

int32_t SimClient::set(uint32_t id, int32_t value) {
    v4l2_control control{id, value};
    if (const int error = call(VIDIOC_S_CTRL, &control)) failed("VIDIOC_S_CTRL", error);
    return control.value;
}

double channelMean(const uint16_t* frame, int width, int channel, int x0, int y0, int x1, int y1, int shift) {
    double sum = 0.0;
    long count = 0;
    for (int y = y0; y < y1; ++y)
        for (int x = x0; x < x1; ++x) {
            // BGGR: blue at (even, even), red at (odd, odd), green elsewhere.
            const int site = (y % 2 == 0) ? (x % 2 == 0 ? 2 : 1) : (x % 2 == 0 ? 1 : 0);
            if (site != channel) continue;
            sum += frame[static_cast<size_t>(y) * width + x] >> shift;
            ++count;
        }
    return count ? sum / count : 0.0;
}

}  // namespace testing
}  // namespace capture
}  // namespace ruvo
