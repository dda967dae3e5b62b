// The simulated driver's buffer queue, user-pointer or memory-mapped: which buffers the client has queued, which
// one the sensor is filling, which are filled and waiting to be dequeued. Not thread-safe: the
// sensor guards it with its mutex.
#pragma once

#include <sys/time.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
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

// Driver-owned memory of one memory-mapped buffer: page-aligned, shared with every mapping of
// it so that it outlives a REQBUFS that frees the queue while the client still has it mapped.
using MappedMemory = std::shared_ptr<uint8_t>;

struct BufferSlot {
    BufferState state = BufferState::Dequeued;
    unsigned long userptr = 0;  // the client's memory, as last queued (user-pointer queues)
    MappedMemory memory;        // the driver's memory (memory-mapped queues)
    uint32_t length = 0;        // bytes of the buffer
    uint32_t offset = 0;        // the buffer's m.offset cookie (memory-mapped queues)
    uint32_t bytesused = 0;
    uint32_t sequence = 0;
    bool error = false;  // completed with V4L2_BUF_FLAG_ERROR
    struct timeval timestamp = {0, 0};
};

class BufferQueue {
public:
    // Frees every buffer and makes `count` new ones of memory type `memory` (a v4l2_memory),
    // all dequeued, each `length` bytes long until queued. Memory-mapped buffers get
    // page-aligned driver memory of `length` rounded up to whole pages, at offsets one buffer
    // length apart. Increments the generation.
    void reset(size_t count, uint32_t length, uint32_t memory);
    uint32_t memory() const { return _memory; }
    size_t count() const { return _slots.size(); }
    const BufferSlot& slot(size_t index) const { return _slots.at(index); }

    // Hands buffer `index` to the driver, forgetting the last frame's bytesused, sequence,
    // timestamp and error. Returns 0, or EINVAL when it is already with the driver. `userptr`
    // and `length` are those of a user-pointer queue and ignored by a memory-mapped one.
    int queue(size_t index, unsigned long userptr, uint32_t length);
    // Where the sensor writes the frame for buffer `index`.
    uint8_t* destination(size_t index) const;
    // The driver memory of the memory-mapped buffer at `offset`, or null when none starts there.
    MappedMemory mappedAt(uint32_t offset) const;
    // The oldest queued buffer, now Filling, or -1 when none is queued.
    int startFilling();
    // A buffer that was filling is filled and waits for DQBUF.
    // `error`: the frame was lost in transfer, and the buffer completes flagged as such.
    void finishFilling(size_t index, uint32_t bytesused, uint32_t sequence, const struct timeval& timestamp,
                       bool error = false);
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
    uint32_t _memory = 0;
};

}  // namespace sim
}  // namespace capture
}  // namespace ruvo
