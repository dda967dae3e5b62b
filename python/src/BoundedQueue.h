// The hand-over from a library thread to Python: a small bounded queue. The library thread never
// waits and never runs Python code: when the consumer is slow the oldest item is dropped (for a
// batch, returning its buffers) to make room for the newest.
#pragma once

#include <ruvo/capture/Frame.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

namespace ruvo {
namespace python {

using Batch = std::vector<std::shared_ptr<capture::Frame>>;

template <typename Item>
class BoundedQueue {
public:
    explicit BoundedQueue(size_t capacity) : _capacity(capacity == 0 ? 1 : capacity) {}

    // Called on the library's thread. A closed queue takes nothing.
    void push(const Item& item) {
        Item dropped;  // released after the lock, so frame deleters never run under it
        {
            std::lock_guard<std::mutex> lock(_mutex);
            if (_closed) return;
            if (_items.size() == _capacity) {
                dropped = std::move(_items.front());
                _items.pop_front();
                ++_dropped;
            }
            _items.push_back(item);
            ++_delivered;
        }
        _ready.notify_one();
    }

    enum class Wait { Ready, TimedOut, Closed };

    // Waits for the next item up to `timeout` (forever when none is given); Closed once close()
    // was called.
    Wait pop(std::optional<std::chrono::milliseconds> timeout, Item& out) {
        std::unique_lock<std::mutex> lock(_mutex);
        const auto ready = [this] { return _closed || !_items.empty(); };
        if (!timeout) {
            _ready.wait(lock, ready);
        } else if (!_ready.wait_for(lock, *timeout, ready)) {
            return Wait::TimedOut;
        }
        if (_closed) return Wait::Closed;
        out = std::move(_items.front());
        _items.pop_front();
        return Wait::Ready;
    }

    // Wakes every waiter and drops every queued item; later pushes are dropped too.
    void close() {
        std::deque<Item> queued;
        {
            std::lock_guard<std::mutex> lock(_mutex);
            _closed = true;
            queued.swap(_items);
        }
        _ready.notify_all();
    }

    // Accepts items again.
    void reopen() {
        std::lock_guard<std::mutex> lock(_mutex);
        _closed = false;
    }

    uint64_t dropped() {
        std::lock_guard<std::mutex> lock(_mutex);
        return _dropped;
    }
    uint64_t delivered() {
        std::lock_guard<std::mutex> lock(_mutex);
        return _delivered;
    }

private:
    const size_t _capacity;
    std::mutex _mutex;
    std::condition_variable _ready;
    std::deque<Item> _items;
    bool _closed = false;
    uint64_t _dropped = 0;
    uint64_t _delivered = 0;
};

}  // namespace python
}  // namespace ruvo
