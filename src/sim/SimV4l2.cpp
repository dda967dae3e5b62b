// The simulated sensor's V4L2 requests: capability, formats, user-pointer and memory-mapped
// buffers, streaming and controls, each with the checks and errno values of a videobuf2 driver
// under the kernel's V4L2 core. Called under the sensor's mutex.
#include "sim/SimulatedSensor.h"

#include "SensorControls.h"
#include "sim/SampleFormats.h"

#include <fcntl.h>
#include <linux/version.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cmath>
#include <cstring>
#include <vector>

namespace ruvo {
namespace capture {
namespace sim {
namespace {

// The most buffers one REQBUFS grants, as the kernel's queue limit.
constexpr uint32_t kMaxBuffers = 32;

void copyName(uint8_t* destination, size_t size, const std::string& text) {
    std::memset(destination, 0, size);
    std::memcpy(destination, text.data(), std::min(size - 1, text.size()));
}

// Whether every page of [address, address + length) is mapped in this process: the kernel pins
// a user buffer's pages at QBUF and fails for memory that is not there.
bool userMemoryMapped(unsigned long address, size_t length) {
    const unsigned long page = static_cast<unsigned long>(sysconf(_SC_PAGESIZE));
    const unsigned long first = address / page * page;
    const size_t span = address + length - first;
    std::vector<unsigned char> resident((span + page - 1) / page);
    return mincore(reinterpret_cast<void*>(first), span, resident.data()) == 0;
}

}  // namespace

int SimulatedSensor::dispatch(std::unique_lock<std::mutex>& lock, int fd, unsigned long request, void* argument) {
    switch (request) {
        case VIDIOC_QUERYCAP:
            return queryCapability(static_cast<v4l2_capability*>(argument));
        case VIDIOC_ENUM_FMT:
            return enumerateFormat(static_cast<v4l2_fmtdesc*>(argument));
        case VIDIOC_ENUM_FRAMESIZES:
            return enumerateFrameSizes(static_cast<v4l2_frmsizeenum*>(argument));
        case VIDIOC_G_FMT:
            return getFormat(static_cast<v4l2_format*>(argument));
        case VIDIOC_S_FMT:
            return setFormat(static_cast<v4l2_format*>(argument), true);
        case VIDIOC_TRY_FMT:
            return setFormat(static_cast<v4l2_format*>(argument), false);
        case VIDIOC_G_PARM:
            return getParameters(static_cast<v4l2_streamparm*>(argument));
        case VIDIOC_REQBUFS:
            return requestBuffers(fd, static_cast<v4l2_requestbuffers*>(argument));
        case VIDIOC_QUERYBUF:
            return queryBuffer(static_cast<v4l2_buffer*>(argument));
        case VIDIOC_QBUF:
            return queueBuffer(fd, static_cast<v4l2_buffer*>(argument));
        case VIDIOC_DQBUF:
            return dequeueBuffer(lock, fd, static_cast<v4l2_buffer*>(argument));
        case VIDIOC_STREAMON:
            return streamOn(fd, static_cast<const int*>(argument));
        case VIDIOC_STREAMOFF:
            return streamOff(lock, fd, static_cast<const int*>(argument));
        case VIDIOC_QUERYCTRL:
            return queryControl(static_cast<v4l2_queryctrl*>(argument));
        case VIDIOC_G_CTRL:
            return getControl(static_cast<v4l2_control*>(argument));
        case VIDIOC_S_CTRL:
            return setControl(fd, static_cast<v4l2_control*>(argument));
        case VIDIOC_QUERY_EXT_CTRL:
            return queryExtControl(static_cast<v4l2_query_ext_ctrl*>(argument));
        case VIDIOC_QUERYMENU:
            return queryMenu(static_cast<const v4l2_querymenu*>(argument));
        case VIDIOC_G_EXT_CTRLS:
        case VIDIOC_S_EXT_CTRLS:
        case VIDIOC_TRY_EXT_CTRLS:
            return extControls(fd, request, static_cast<v4l2_ext_controls*>(argument));
        case VIDIOC_SUBSCRIBE_EVENT:
            return subscribeEvent(fd, static_cast<const v4l2_event_subscription*>(argument));
        case VIDIOC_UNSUBSCRIBE_EVENT:
            return unsubscribeEvent(fd, static_cast<const v4l2_event_subscription*>(argument));
        case VIDIOC_DQEVENT:
            return dequeueEvent(lock, fd, static_cast<v4l2_event*>(argument));
        default:
            return coreRequest(fd, request, argument);
    }
}

int SimulatedSensor::queryCapability(v4l2_capability* cap) const {
    std::memset(cap, 0, sizeof *cap);
    copyName(cap->driver, sizeof cap->driver, "ruvo-sim");
    copyName(cap->card, sizeof cap->card, "Simulated 10-bit Bayer sensor");
    copyName(cap->bus_info, sizeof cap->bus_info, "platform:" + _path);
    cap->version = LINUX_VERSION_CODE;
    cap->device_caps = V4L2_CAP_VIDEO_CAPTURE | V4L2_CAP_STREAMING | V4L2_CAP_EXT_PIX_FORMAT;
    cap->capabilities = cap->device_caps | V4L2_CAP_DEVICE_CAPS;
    return 0;
}

int SimulatedSensor::enumerateFormat(v4l2_fmtdesc* desc) const {
    if (desc->type != V4L2_BUF_TYPE_VIDEO_CAPTURE || desc->index >= _config.formats.size()) return EINVAL;
    const sensor::PixelFormat& offered = _config.formats[desc->index];
    const uint32_t type = desc->type, index = desc->index;
    std::memset(desc, 0, sizeof *desc);
    desc->index = index;
    desc->type = type;
    desc->pixelformat = underFlips(offered.fourcc);
    copyName(desc->description, sizeof desc->description, offered.description);
    return 0;
}

int SimulatedSensor::enumerateFrameSizes(v4l2_frmsizeenum* size) const {
    const uint32_t asked = underFlips(size->pixel_format);
    const bool offered = chooseFormat(_config.formats, asked).fourcc == asked;
    return offered ? _config.sizes.enumerate(size) : EINVAL;
}

int SimulatedSensor::getFormat(v4l2_format* format) const {
    if (format->type != V4L2_BUF_TYPE_VIDEO_CAPTURE) return EINVAL;
    std::memset(&format->fmt, 0, sizeof format->fmt);
    format->fmt.pix = _format;
    format->fmt.pix.priv = V4L2_PIX_FMT_PRIV_MAGIC;
    return 0;
}

int SimulatedSensor::setFormat(v4l2_format* format, bool apply) {
    if (format->type != V4L2_BUF_TYPE_VIDEO_CAPTURE) return EINVAL;
    // The frame size cannot change while buffers of the old size are allocated.
    if (apply && (_streaming || _buffers.count() > 0)) return EBUSY;
    const FrameSize size = _config.sizes.nearest(format->fmt.pix.width, format->fmt.pix.height);
    // An offered format is granted; any other request is answered with the first one.
    const sensor::PixelFormat& granted = chooseFormat(_config.formats, underFlips(format->fmt.pix.pixelformat));
    v4l2_pix_format& pix = format->fmt.pix;
    std::memset(&format->fmt, 0, sizeof format->fmt);
    pix.width = size.width;
    pix.height = size.height;
    pix.pixelformat = underFlips(granted.fourcc);
    pix.field = V4L2_FIELD_NONE;
    pix.bytesperline = static_cast<uint32_t>(granted.rowBytes(size.width));
    pix.sizeimage = pix.bytesperline * size.height;
    pix.colorspace = V4L2_COLORSPACE_RAW;
    if (apply) {
        _format = pix;
        // The horizontal blanking fills the line past the frame's width.
        if (_config.controls == ControlSet::Generic) _controls.set(V4L2_CID_HBLANK, kGenericLineLength - pix.width);
    }
    pix.priv = V4L2_PIX_FMT_PRIV_MAGIC;
    return 0;
}

int SimulatedSensor::getParameters(v4l2_streamparm* parameters) const {
    if (parameters->type != V4L2_BUF_TYPE_VIDEO_CAPTURE) return EINVAL;
    std::memset(&parameters->parm, 0, sizeof parameters->parm);
    // The frame period as a fraction in microseconds.
    parameters->parm.capture.timeperframe.numerator = static_cast<uint32_t>(std::lround(1e6 / _config.fps));
    parameters->parm.capture.timeperframe.denominator = 1000000;
    return 0;
}

int SimulatedSensor::checkOwner(int fd) const { return _owner != -1 && _owner != fd ? EBUSY : 0; }

int SimulatedSensor::requestBuffers(int fd, v4l2_requestbuffers* request) {
    // The queue's abilities are reported whatever the answer.
    request->capabilities = V4L2_BUF_CAP_SUPPORTS_MMAP | V4L2_BUF_CAP_SUPPORTS_ORPHANED_BUFS;
    if (_config.userptr) request->capabilities |= V4L2_BUF_CAP_SUPPORTS_USERPTR;
    const bool supportedMemory =
        request->memory == V4L2_MEMORY_MMAP || (request->memory == V4L2_MEMORY_USERPTR && _config.userptr);
    // No cache hints: the non-coherent flag is cleared, as the kernel does for such queues.
    request->flags = 0;
    std::memset(request->reserved, 0, sizeof request->reserved);
    if (request->type != V4L2_BUF_TYPE_VIDEO_CAPTURE || !supportedMemory) return EINVAL;
    if (const int busy = checkOwner(fd)) return busy;
    if (_streaming) return EBUSY;
    request->count = std::min(request->count, kMaxBuffers);
    // Freed memory-mapped buffers stay alive for as long as the client keeps them mapped.
    _buffers.reset(request->count, _format.sizeimage, request->memory);
    _owner = request->count > 0 ? fd : -1;
    _waitingForBuffers = true;
    return 0;
}

void SimulatedSensor::describeBuffer(size_t index, v4l2_buffer* buffer) const {
    const BufferSlot& slot = _buffers.slot(index);
    std::memset(buffer, 0, sizeof *buffer);
    buffer->index = static_cast<uint32_t>(index);
    buffer->type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    buffer->memory = _buffers.memory();
    if (buffer->memory == V4L2_MEMORY_MMAP)
        buffer->m.offset = slot.offset;
    else
        buffer->m.userptr = slot.userptr;
    buffer->length = slot.length;
    buffer->field = V4L2_FIELD_NONE;
    buffer->flags = V4L2_BUF_FLAG_TIMESTAMP_MONOTONIC | V4L2_BUF_FLAG_TSTAMP_SRC_EOF;
    if (slot.error) buffer->flags |= V4L2_BUF_FLAG_ERROR;
    if (slot.memory && slot.memory.use_count() > 1) buffer->flags |= V4L2_BUF_FLAG_MAPPED;
    if (slot.state == BufferState::Queued || slot.state == BufferState::Filling) buffer->flags |= V4L2_BUF_FLAG_QUEUED;
    if (slot.state == BufferState::Done) buffer->flags |= V4L2_BUF_FLAG_DONE;
    buffer->bytesused = slot.bytesused;
    buffer->sequence = slot.sequence;
    buffer->timestamp = slot.timestamp;
}

int SimulatedSensor::queryBuffer(v4l2_buffer* buffer) const {
    if (buffer->type != V4L2_BUF_TYPE_VIDEO_CAPTURE || buffer->index >= _buffers.count()) return EINVAL;
    describeBuffer(buffer->index, buffer);
    return 0;
}

int SimulatedSensor::queueBuffer(int fd, v4l2_buffer* buffer) {
    if (buffer->type != V4L2_BUF_TYPE_VIDEO_CAPTURE || buffer->memory != _buffers.memory()) return EINVAL;
    if (const int busy = checkOwner(fd)) return busy;
    if (buffer->index >= _buffers.count()) return EINVAL;
    if (buffer->memory == V4L2_MEMORY_USERPTR) {
        if (buffer->m.userptr == 0 || buffer->length < _format.sizeimage) return EINVAL;
        if (!userMemoryMapped(buffer->m.userptr, buffer->length)) return EFAULT;
    }
    if (_buffers.slot(buffer->index).state != BufferState::Dequeued) return EINVAL;
    if (_queueErrno != 0) {
        const int injected = _queueErrno;
        _queueErrno = 0;
        return injected;
    }
    _buffers.queue(buffer->index, buffer->m.userptr, buffer->length);
    _waitingForBuffers = false;
    describeBuffer(buffer->index, buffer);
    _clockCv.notify_all();
    return 0;
}

int SimulatedSensor::dequeueBuffer(std::unique_lock<std::mutex>& lock, int fd, v4l2_buffer* buffer) {
    // The queue's memory type is reported back; the one asked for does not matter.
    if (buffer->type != V4L2_BUF_TYPE_VIDEO_CAPTURE) return EINVAL;
    if (const int busy = checkOwner(fd)) return busy;
    const bool blocking = (_files.at(fd).flags & O_NONBLOCK) == 0;
    if (blocking)
        _frameCv.wait(lock, [&] { return _disconnected || _dequeueErrno != 0 || !_streaming || _buffers.hasFilled(); });
    if (_disconnected) return ENODEV;
    if (_dequeueErrno != 0) return _dequeueErrno;
    if (!_streaming) return EINVAL;
    const int index = _buffers.dequeue();
    if (index < 0) return EAGAIN;
    describeBuffer(static_cast<size_t>(index), buffer);
    return 0;
}

int SimulatedSensor::streamOn(int fd, const int* type) {
    if (*type != V4L2_BUF_TYPE_VIDEO_CAPTURE) return EINVAL;
    if (const int busy = checkOwner(fd)) return busy;
    if (_buffers.count() == 0) return EINVAL;
    if (_streamOnErrno != 0) {
        const int injected = _streamOnErrno;
        _streamOnErrno = 0;
        return injected;
    }
    if (!_streaming) startStreaming();
    return 0;
}

int SimulatedSensor::streamOff(std::unique_lock<std::mutex>& lock, int fd, const int* type) {
    if (*type != V4L2_BUF_TYPE_VIDEO_CAPTURE) return EINVAL;
    if (const int busy = checkOwner(fd)) return busy;
    stopStreaming(lock);
    _waitingForBuffers = true;
    return 0;
}

// The extended query's answer in the older record, as the kernel derives it.
int SimulatedSensor::queryControl(v4l2_queryctrl* query) const {
    v4l2_query_ext_ctrl extended{};
    extended.id = query->id;
    if (const int error = queryExtControl(&extended)) return error;
    std::memset(query, 0, sizeof *query);
    query->id = extended.id;
    query->type = extended.type;
    std::memcpy(query->name, extended.name, sizeof query->name);
    query->minimum = static_cast<int32_t>(extended.minimum);
    query->maximum = static_cast<int32_t>(extended.maximum);
    query->step = static_cast<int32_t>(extended.step);
    query->default_value = static_cast<int32_t>(extended.default_value);
    query->flags = extended.flags;
    return 0;
}

int SimulatedSensor::getControl(v4l2_control* control) const {
    const ControlInfo* info = findControl(control->id);
    if (!info || info->type == V4L2_CTRL_TYPE_INTEGER64) return EINVAL;  // 64-bit values: extended requests only
    if (info->flags & V4L2_CTRL_FLAG_WRITE_ONLY) return EACCES;
    control->value = _controls.value(info->id);
    return 0;
}

int SimulatedSensor::setControl(int fd, v4l2_control* control) {
    const ControlInfo* info = findControl(control->id);
    if (!info || info->type == V4L2_CTRL_TYPE_INTEGER64) return EINVAL;
    if (info->flags & V4L2_CTRL_FLAG_READ_ONLY) return EACCES;
    if (layoutLocked(*info)) return EBUSY;
    writeControl(fd, *info, control->value);
    control->value = _controls.value(info->id);
    return 0;
}

}  // namespace sim
}  // namespace capture
}  // namespace ruvo
