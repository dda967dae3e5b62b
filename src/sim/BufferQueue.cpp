// State changes of the simulated driver's buffer queue.
#include "sim/BufferQueue.h"

#include <cerrno>

namespace ruvo {
namespace capture {
namespace sim {

void BufferQueue::reset(size_t count, uint32_t length) {
    _slots.assign(count, BufferSlot{});
    for (BufferSlot& slot : _slots) slot.length = length;
    _queued.clear();
    _done.clear();
    ++_generation;
}

int BufferQueue::queue(size_t index, unsigned long userptr, uint32_t length) {
    BufferSlot& slot = _slots.at(index);
    if (slot.state != BufferState::Dequeued) return EINVAL;
    slot.state = BufferState::Queued;
    slot.userptr = userptr;
    slot.length = length;
    _queued.push_back(index);
    return 0;
}

int BufferQueue::startFilling() {
    if (_queued.empty()) return -1;
    const size_t index = _queued.front();
    _queued.pop_front();
    _slots[index].state = BufferState::Filling;
    return static_cast<int>(index);
}

void BufferQueue::finishFilling(size_t index, uint32_t bytesused, uint32_t sequence, const struct timeval& timestamp) {
    BufferSlot& slot = _slots.at(index);
    slot.state = BufferState::Done;
    slot.bytesused = bytesused;
    slot.sequence = sequence;
    slot.timestamp = timestamp;
    _done.push_back(index);
}

int BufferQueue::dequeue() {
    if (_done.empty()) return -1;
    const size_t index = _done.front();
    _done.pop_front();
    _slots[index].state = BufferState::Dequeued;
    return static_cast<int>(index);
}

void BufferQueue::cancel() {
    for (BufferSlot& slot : _slots) slot.state = BufferState::Dequeued;
    _queued.clear();
    _done.clear();
    ++_generation;
}

size_t BufferQueue::withDriver() const {
    size_t n = 0;
    for (const BufferSlot& slot : _slots) n += slot.state != BufferState::Dequeued;
    return n;
}

}  // namespace sim
}  // namespace capture
}  // namespace ruvo
