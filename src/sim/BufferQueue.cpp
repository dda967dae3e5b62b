// State changes of the simulated driver's buffer queue.
#include "sim/BufferQueue.h"

#include <linux/videodev2.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <new>

namespace ruvo {
namespace capture {
namespace sim {

namespace {

MappedMemory allocatePages(size_t bytes) {
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    void* memory = std::aligned_alloc(page, bytes);
    if (!memory) throw std::bad_alloc();
    return MappedMemory(static_cast<uint8_t*>(memory), [](uint8_t* p) { std::free(p); });
}

}  // namespace

void BufferQueue::reset(size_t count, uint32_t length, uint32_t memory) {
    _slots.assign(count, BufferSlot{});
    _memory = memory;
    const uint32_t page = static_cast<uint32_t>(sysconf(_SC_PAGESIZE));
    const uint32_t mappedLength = (length + page - 1) / page * page;
    for (size_t i = 0; i < count; ++i) {
        BufferSlot& slot = _slots[i];
        slot.length = length;
        if (memory != V4L2_MEMORY_MMAP) continue;
        slot.length = mappedLength;
        slot.offset = static_cast<uint32_t>(i) * mappedLength;
        slot.memory = allocatePages(mappedLength);
    }
    _queued.clear();
    _done.clear();
    ++_generation;
}

int BufferQueue::queue(size_t index, unsigned long userptr, uint32_t length) {
    BufferSlot& slot = _slots.at(index);
    if (slot.state != BufferState::Dequeued) return EINVAL;
    slot.state = BufferState::Queued;
    if (_memory == V4L2_MEMORY_USERPTR) {
        slot.userptr = userptr;
        slot.length = length;
    }
    slot.bytesused = 0;
    slot.sequence = 0;
    slot.error = false;
    slot.timestamp = {0, 0};
    _queued.push_back(index);
    return 0;
}

uint8_t* BufferQueue::destination(size_t index) const {
    const BufferSlot& slot = _slots.at(index);
    return slot.memory ? slot.memory.get() : reinterpret_cast<uint8_t*>(slot.userptr);
}

MappedMemory BufferQueue::mappedAt(uint32_t offset) const {
    for (const BufferSlot& slot : _slots)
        if (slot.memory && slot.offset == offset) return slot.memory;
    return nullptr;
}

int BufferQueue::startFilling() {
    if (_queued.empty()) return -1;
    const size_t index = _queued.front();
    _queued.pop_front();
    _slots[index].state = BufferState::Filling;
    return static_cast<int>(index);
}

void BufferQueue::finishFilling(size_t index, uint32_t bytesused, uint32_t sequence, const struct timeval& timestamp,
                                bool error) {
    BufferSlot& slot = _slots.at(index);
    slot.error = error;
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
