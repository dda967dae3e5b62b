// A task that runs on its own thread: run() calls work() again and again until cancel(), then
// onExit() once, on the same thread. pause() stops further work() calls and waits for the one
// in progress to return; an exception leaving work() is logged (once while it repeats) and the
// loop goes on after a short back-off, so the thread never dies silently.
#pragma once

#include <Poco/Runnable.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>

namespace ruvo {
namespace util {

class Worker : public Poco::Runnable {
public:
    explicit Worker(const std::string& name);
    ~Worker() override;

    void run() override;

    // Ends the loop after the current work() call; wakes a paused loop.
    void cancel();
    // Stops calling work(); returns once no work() call is in progress on the task's thread.
    void pause();
    void unpause();
    // Clears a cancellation so that the task can be run again.
    void reset();

    bool isCancelled() const;
    bool isPaused() const;
    bool isRunning() const;  // inside run()
    const std::string& name() const { return _name; }
    // work() calls made, and how many of them threw, since the task was built.
    uint64_t steps() const;
    uint64_t failedSteps() const;

    // Back-off after work() threw: starts at `initial`, doubles per repeated failure up to `max`.
    void setBackoff(std::chrono::milliseconds initial, std::chrono::milliseconds max);

protected:
    virtual void onCancel() {}
    virtual void onReset() {}
    virtual void onPause() {}
    virtual void onUnpause() {}
    virtual void onStart() {}
    virtual void onExit() {}
    virtual void work() = 0;

private:
    bool waitWhilePaused();  // false when cancelled
    void reportFailure(const std::string& what);
    void sleepBackoff();

    const std::string _name;
    mutable std::mutex _mutex;
    std::condition_variable _cond;
    bool _cancelled = false;
    bool _paused = false;
    bool _inWork = false;
    bool _running = false;
    std::string _lastFailure;
    int _failures = 0;  // consecutive failed steps
    uint64_t _steps = 0;
    uint64_t _failedSteps = 0;
    std::chrono::milliseconds _backoffInitial{50};
    std::chrono::milliseconds _backoffMax{1000};
};

}  // namespace util
}  // namespace ruvo
