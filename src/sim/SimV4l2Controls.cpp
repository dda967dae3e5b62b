// What the kernel's control framework gives every driver, for the simulated sensor: extended
// control queries, the extended get/try/set requests with their error_idx rules, and control
// events. Called under the sensor's mutex, except setStatusFlags and eventPending, which take it.
#include "sim/SimulatedSensor.h"

#include "SensorControls.h"

#include <fcntl.h>

#include <algorithm>
#include <cstring>
#include <ctime>

namespace ruvo {
namespace capture {
namespace sim {
namespace {

// The most controls one extended request may name, as the kernel's ioctl layer allows.
constexpr uint32_t kMaxExtControls = 1024;

bool isWrite(unsigned long request) { return request == VIDIOC_S_EXT_CTRLS || request == VIDIOC_TRY_EXT_CTRLS; }

}  // namespace

// The control `id` names. Old-style private ids, V4L2_CID_PRIVATE_BASE + n, name the n-th
// driver-private integer control of the user class, for programs of the simple control requests.
const ControlInfo* SimulatedSensor::findControl(uint32_t id) const {
    if (id < V4L2_CID_PRIVATE_BASE) return _controls.find(id);
    uint32_t n = id - V4L2_CID_PRIVATE_BASE;
    for (const ControlInfo* info = _controls.next(V4L2_CTRL_CLASS_USER); info; info = _controls.next(info->id)) {
        if (V4L2_CTRL_ID2WHICH(info->id) != V4L2_CTRL_CLASS_USER) break;
        if (!V4L2_CTRL_DRIVER_PRIV(info->id) || info->type == V4L2_CTRL_TYPE_CTRL_CLASS) continue;
        if (n-- == 0) return info;
    }
    return nullptr;
}

// findControl, or with V4L2_CTRL_FLAG_NEXT_CTRL the control with the next id above. The sensor
// has no compound controls, so V4L2_CTRL_FLAG_NEXT_COMPOUND alone finds nothing.
const ControlInfo* SimulatedSensor::lookUpControl(uint32_t id) const {
    if (id & V4L2_CTRL_FLAG_NEXT_CTRL) return _controls.next(id & V4L2_CTRL_ID_MASK);
    if (id & V4L2_CTRL_FLAG_NEXT_COMPOUND) return nullptr;
    return findControl(id);
}

// A control that changes the Bayer order cannot change while streaming.
bool SimulatedSensor::layoutLocked(const ControlInfo& info) const {
    return _streaming && (info.flags & V4L2_CTRL_FLAG_MODIFY_LAYOUT) != 0;
}

// A flip that changes the layout mirrors the colour pattern along its axis: the delivered order
// swaps its columns (horizontal) or rows (vertical), in the same sample format.
void SimulatedSensor::flipDeliveredOrder(uint32_t id) {
    _format.pixelformat = flippedFourcc(_format.pixelformat, id == V4L2_CID_HFLIP, id == V4L2_CID_VFLIP);
}

// `fourcc` with its order mirrored; a format with no fourcc for the mirrored order stays as it is.
uint32_t SimulatedSensor::flippedFourcc(uint32_t fourcc, bool columns, bool rows) {
    const sensor::PixelFormat* format = sensor::findBayerFormat(fourcc);
    if (!format || (!columns && !rows)) return fourcc;
    const unsigned dx = kernels::bayerColumnOffset(format->layout.order) ^ (columns ? 1u : 0u);
    const unsigned dy = kernels::bayerRowOffset(format->layout.order) ^ (rows ? 1u : 0u);
    const kernels::BayerOrder order = dy ? (dx ? kernels::BayerOrder::kRGGB : kernels::BayerOrder::kGRBG)
                                         : (dx ? kernels::BayerOrder::kGBRG : kernels::BayerOrder::kBGGR);
    for (const sensor::PixelFormat& other : sensor::bayerFormats()) {
        if (other.layout.order == order && other.layout.storage == format->layout.storage &&
            other.layout.bits == format->layout.bits)
            return other.fourcc;
    }
    return fourcc;
}

// The delivered fourcc of an offered one under the flips set now, and back (mirroring twice is
// no change).
uint32_t SimulatedSensor::underFlips(uint32_t fourcc) const {
    if (_config.controls != ControlSet::Generic) return fourcc;
    return flippedFourcc(fourcc, _controls.value(V4L2_CID_HFLIP) != 0, _controls.value(V4L2_CID_VFLIP) != 0);
}

int SimulatedSensor::queryExtControl(v4l2_query_ext_ctrl* query) const {
    const ControlInfo* info = lookUpControl(query->id);
    if (!info) return EINVAL;
    const uint32_t asked = query->id;
    std::memset(query, 0, sizeof *query);
    // An old-style private id is answered with, as the kernel does.
    query->id = asked >= V4L2_CID_PRIVATE_BASE && !(asked & V4L2_CTRL_FLAG_NEXT_CTRL) ? asked : info->id;
    query->type = info->type;
    std::strncpy(query->name, info->name, sizeof query->name - 1);
    query->minimum = info->minimum;
    query->maximum = info->maximum;
    query->step = static_cast<uint64_t>(info->step);
    query->default_value = info->defaultValue;
    query->flags = info->flags | (layoutLocked(*info) ? V4L2_CTRL_FLAG_GRABBED : 0);
    query->elem_size = info->type == V4L2_CTRL_TYPE_INTEGER64 ? sizeof(int64_t) : sizeof(int32_t);
    query->elems = 1;
    return 0;
}

// No control is a menu, so every id is refused, as the framework refuses non-menu controls.
int SimulatedSensor::queryMenu(const v4l2_querymenu* /*menu*/) const { return EINVAL; }

// The checks made before any value is read or written. Failing G and S report error_idx = count
// (the application cannot tell which control failed validation); TRY reports the failing index.
int SimulatedSensor::checkExtControls(unsigned long request, v4l2_ext_controls& controls) const {
    const uint32_t which = controls.which;
    if (which == V4L2_CTRL_WHICH_REQUEST_VAL) return EINVAL;  // no media requests here
    if (which == V4L2_CTRL_WHICH_DEF_VAL && isWrite(request)) return EINVAL;
    const bool classFilter = which != V4L2_CTRL_WHICH_CUR_VAL && which != V4L2_CTRL_WHICH_DEF_VAL;
    if (controls.count == 0) return classFilter && !_controls.find(which | 1) ? EINVAL : 0;
    for (uint32_t i = 0; i < controls.count; ++i) {
        const v4l2_ext_control& control = controls.controls[i];
        const ControlInfo* info = _controls.find(control.id);
        const bool wrongClass = classFilter && V4L2_CTRL_ID2WHICH(control.id) != which;
        int error = !info || wrongClass ? EINVAL : 0;
        if (!error && request == VIDIOC_G_EXT_CTRLS && (info->flags & V4L2_CTRL_FLAG_WRITE_ONLY)) error = EACCES;
        if (!error && isWrite(request) && (info->flags & V4L2_CTRL_FLAG_READ_ONLY)) error = EACCES;
        if (!error && request == VIDIOC_S_EXT_CTRLS && layoutLocked(*info)) error = EBUSY;
        if (error) {
            if (request == VIDIOC_TRY_EXT_CTRLS) controls.error_idx = i;
            return error;
        }
    }
    return 0;
}

// G_EXT_CTRLS, TRY_EXT_CTRLS and S_EXT_CTRLS. Either every control is read or written, or none
// is: all are checked first. Written values are clamped as S_CTRL clamps them and returned.
int SimulatedSensor::extControls(int fd, unsigned long request, v4l2_ext_controls* controls) {
    controls->error_idx = controls->count;
    std::memset(controls->reserved, 0, sizeof controls->reserved);
    if (controls->count > kMaxExtControls) return EINVAL;
    if (controls->count > 0 && !controls->controls) return EFAULT;
    for (uint32_t i = 0; i < controls->count; ++i) controls->controls[i].reserved2[0] = 0;
    if (const int error = checkExtControls(request, *controls)) return error;
    for (uint32_t i = 0; i < controls->count; ++i) {
        v4l2_ext_control& control = controls->controls[i];
        const ControlInfo& info = *_controls.find(control.id);
        if (request == VIDIOC_G_EXT_CTRLS) {
            const int32_t value =
                controls->which == V4L2_CTRL_WHICH_DEF_VAL ? info.defaultValue : _controls.value(info.id);
            if (info.type == V4L2_CTRL_TYPE_INTEGER64)
                control.value64 = value;
            else
                control.value = value;
        } else if (request == VIDIOC_TRY_EXT_CTRLS) {
            control.value = _controls.clamp(info.id, control.value);
        } else {
            writeControl(fd, info, control.value);
            control.value = _controls.value(info.id);
        }
    }
    return 0;
}

// Stores a written value and tells the other descriptors subscribed to the control (and the
// writer, when it asked for feedback) when the value changed. Exposure and gain are latched by
// the sensor a number of frames after the write; while it is not streaming, the next frame sees
// them.
void SimulatedSensor::writeControl(int fd, const ControlInfo& info, int32_t value) {
    const int32_t old = _controls.value(info.id);
    const int32_t stored = _controls.set(info.id, value);
    DelayedValue* delayed = info.id == _controls.exposureId() ? &_exposure
                            : info.id == _controls.gainId()   ? &_gain
                                                              : nullptr;
    if (delayed) {
        const uint32_t delay = info.id == _controls.exposureId() ? _config.exposureDelay : _config.gainDelay;
        if (_streaming)
            delayed->schedule(stored, _nextFrame, delay);
        else
            delayed->reset(stored);
    }
    if (stored == old) return;
    if (info.flags & V4L2_CTRL_FLAG_MODIFY_LAYOUT) flipDeliveredOrder(info.id);
    for (auto& [otherFd, file] : _files) {
        auto subscription = file.controlEvents.find(info.id);
        if (subscription == file.controlEvents.end()) continue;
        if (otherFd == fd && !(subscription->second & V4L2_EVENT_SUB_FL_ALLOW_FEEDBACK)) continue;
        queueControlEvent(file, info, V4L2_EVENT_CTRL_CH_VALUE);
    }
}

// A control event holds one slot per subscription: a newer event for the same control replaces
// a pending one, keeping the changes of both, and goes to the back of the queue.
void SimulatedSensor::queueControlEvent(OpenFile& file, const ControlInfo& info, uint32_t changes) {
    auto pending = std::find_if(file.events.begin(), file.events.end(), [&](const v4l2_event& event) {
        return event.type == V4L2_EVENT_CTRL && event.id == info.id;
    });
    if (pending != file.events.end()) {
        changes |= pending->u.ctrl.changes;
        file.events.erase(pending);
    }
    v4l2_event event{};
    event.type = V4L2_EVENT_CTRL;
    event.id = info.id;
    event.u.ctrl.changes = changes;
    event.u.ctrl.type = info.type;
    event.u.ctrl.value64 = _controls.value(info.id);
    event.u.ctrl.flags = info.flags;
    event.u.ctrl.minimum = info.minimum;
    event.u.ctrl.maximum = info.maximum;
    event.u.ctrl.step = info.step;
    event.u.ctrl.default_value = info.defaultValue;
    event.sequence = file.eventSequence++;
    clock_gettime(CLOCK_MONOTONIC, &event.timestamp);
    file.events.push_back(event);
    _frameCv.notify_all();
}

int SimulatedSensor::subscribeEvent(int fd, const v4l2_event_subscription* subscription) {
    if (subscription->type != V4L2_EVENT_CTRL) return EINVAL;
    const ControlInfo* info = _controls.find(subscription->id);
    if (!info) return EINVAL;
    OpenFile& file = _files.at(fd);
    // Subscribing again changes nothing and sends no second initial event.
    if (!file.controlEvents.emplace(info->id, subscription->flags).second) return 0;
    // The initial event carries the current value, except of a control that cannot be read.
    if ((subscription->flags & V4L2_EVENT_SUB_FL_SEND_INITIAL) && info->type != V4L2_CTRL_TYPE_CTRL_CLASS) {
        const bool readableValue = !(info->flags & V4L2_CTRL_FLAG_WRITE_ONLY);
        queueControlEvent(file, *info, V4L2_EVENT_CTRL_CH_FLAGS | (readableValue ? V4L2_EVENT_CTRL_CH_VALUE : 0));
    }
    return 0;
}

int SimulatedSensor::unsubscribeEvent(int fd, const v4l2_event_subscription* subscription) {
    OpenFile& file = _files.at(fd);
    const bool all = subscription->type == V4L2_EVENT_ALL;
    if (all)
        file.controlEvents.clear();
    else if (subscription->type == V4L2_EVENT_CTRL)
        file.controlEvents.erase(subscription->id);
    // Events of a subscription that has ended are not delivered.
    file.events.erase(std::remove_if(file.events.begin(), file.events.end(),
                                     [&](const v4l2_event& event) {
                                         return all ||
                                                (event.type == subscription->type && event.id == subscription->id);
                                     }),
                      file.events.end());
    return 0;
}

int SimulatedSensor::dequeueEvent(std::unique_lock<std::mutex>& lock, int fd, v4l2_event* event) {
    const auto ready = [&] {
        auto it = _files.find(fd);
        return it == _files.end() || _disconnected || !it->second.events.empty();
    };
    if ((_files.at(fd).flags & O_NONBLOCK) == 0) _frameCv.wait(lock, ready);
    auto it = _files.find(fd);
    if (it == _files.end()) return EBADF;
    if (_disconnected) return ENODEV;
    if (it->second.events.empty()) return ENOENT;
    *event = it->second.events.front();
    it->second.events.pop_front();
    event->pending = static_cast<uint32_t>(it->second.events.size());
    return 0;
}

void SimulatedSensor::setStatusFlags(int fd, int flags) {
    std::lock_guard<std::mutex> lock(_mutex);
    auto it = _files.find(fd);
    if (it != _files.end()) it->second.flags = (it->second.flags & ~O_NONBLOCK) | (flags & O_NONBLOCK);
}

bool SimulatedSensor::eventPending(int fd) const {
    std::lock_guard<std::mutex> lock(_mutex);
    auto it = _files.find(fd);
    return it != _files.end() && !it->second.events.empty();
}

}  // namespace sim
}  // namespace capture
}  // namespace ruvo
