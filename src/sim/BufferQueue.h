// The simulated driver's user-pointer buffer queue: which buffers the client has queued, which
// one the sensor is filling, which are filled and waiting to be dequeued. Not thread-safe: the
// sensor guards it with its mutex.
#pragma once

#include <sys/time.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <vector>

namespace ruvo {
namespace capture {
namespace sim {

enum class BufferState {
    Dequeued,  // with the client
    Queued,    // with the driver, waiting for a frame
    Filling,   // the sensor is writing a frame into it
    Done       // filled, waiting for the client's DQBUF
};

struct BufferSlot {
    BufferState state = BufferState::Dequeued;
    unsigned long userptr = 0;  // the client's memory, as last queued
    uint32_t length = 0;        // bytes at userptr, as last queued
    uint32_t bytesused = 0;
    uint32_t sequence = 0;
    struct timeval timestamp = {0, 0};
};

class BufferQueue {
public:
    // Frees every buffer and makes `count` new ones, all dequeued, each `length` bytes long
    // until queued. Increments the generation.
    void reset(size_t count, uint32_t length);
    size_t count() const { return _slots.size(); }
    const BufferSlot& slot(size_t index) const { return _slots.at(index); }

    // Hands buffer `index` to the driver. Returns 0, or EINVAL when it is already with the driver.
    int queue(size_t index, unsigned long userptr, uint32_t length);
    // The oldest queued buffer, now Filling, or -1 when none is queued.
    int startFilling();
    // A buffer that was filling is filled and waits for DQBUF.
    void finishFilling(size_t index, uint32_t bytesused, uint32_t sequence, const struct timeval& timestamp);
    // The oldest filled buffer, now dequeued, or -1 when none is filled.
    int dequeue();
    // Returns every buffer to the client and forgets filled frames (STREAMOFF). Increments the
    // generation, so that a frame being filled across the cancel is not delivered.
    void cancel();

    bool hasFilled() const { return !_done.empty(); }
    bool hasQueued() const { return !_queued.empty(); }
    // Buffers with the driver: queued, filling or filled.
    size_t withDriver() const;
    uint64_t generation() const { return _generation; }

private:
    std::vector<BufferSlot> _slots;
    std::deque<size_t> _queued;  // in QBUF order
    std::deque<size_t> _done;    // in fill order
    uint64_t _generation = 0;
};

}  // namespace sim
}  // namespace capture
}  // namespace ruvo
