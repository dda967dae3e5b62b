// The Worker loop with pause, cancel, failure logging and back-off.
#include <ruvo/util/Worker.h>

#include <Poco/Logger.h>
#include <Poco/Thread.h>

#include <pthread.h>

#include <algorithm>
#include <exception>

namespace ruvo {
namespace util {

namespace {
Poco::Logger& logger() { return Poco::Logger::get("Util.Worker"); }
}  // namespace

Worker::Worker(const std::string& name) : _name(name) {}

Worker::~Worker() = default;

void Worker::cancel() {
    {
        std::lock_guard<std::mutex> lock(_mutex);
        _cancelled = true;
    }
    _cond.notify_all();
    onCancel();
}

void Worker::pause() {
    std::unique_lock<std::mutex> lock(_mutex);
    _paused = true;
    _cond.wait(lock, [this] { return !_inWork; });
    lock.unlock();
    onPause();
}

void Worker::unpause() {
    {
        std::lock_guard<std::mutex> lock(_mutex);
        _paused = false;
    }
    _cond.notify_all();
    onUnpause();
}

void Worker::reset() {
    {
        std::lock_guard<std::mutex> lock(_mutex);
        _cancelled = false;
    }
    onReset();
}

bool Worker::isCancelled() const {
    std::lock_guard<std::mutex> lock(_mutex);
    return _cancelled;
}

bool Worker::isPaused() const {
    std::lock_guard<std::mutex> lock(_mutex);
    return _paused;
}

bool Worker::isRunning() const {
    std::lock_guard<std::mutex> lock(_mutex);
    return _running;
}

uint64_t Worker::steps() const {
    std::lock_guard<std::mutex> lock(_mutex);
    return _steps;
}

uint64_t Worker::failedSteps() const {
    std::lock_guard<std::mutex> lock(_mutex);
    return _failedSteps;
}

void Worker::setBackoff(std::chrono::milliseconds initial, std::chrono::milliseconds max) {
    std::lock_guard<std::mutex> lock(_mutex);
    _backoffInitial = initial;
    _backoffMax = max;
}

bool Worker::waitWhilePaused() {
    std::unique_lock<std::mutex> lock(_mutex);
    _cond.wait(lock, [this] { return _cancelled || !_paused; });
    if (_cancelled) return false;
    _inWork = true;
    return true;
}

void Worker::reportFailure(const std::string& what) {
    ++_failures;
    if (what == _lastFailure) return;  // logged already while it keeps repeating
    _lastFailure = what;
    logger().error(_name + ": " + what);
}

void Worker::sleepBackoff() {
    std::unique_lock<std::mutex> lock(_mutex);
    int doublings = std::min(_failures - 1, 16);
    auto delay = std::min(_backoffMax, _backoffInitial * (1 << std::max(doublings, 0)));
    _cond.wait_for(lock, delay, [this] { return _cancelled; });
}

void Worker::run() {
    // The OS thread takes the name of the Poco thread running the task (as top -H shows it).
    const Poco::Thread* thread = Poco::Thread::current();
    const std::string osName = (thread ? thread->getName() : _name).substr(0, 15);
    pthread_setname_np(pthread_self(), osName.c_str());
    {
        std::lock_guard<std::mutex> lock(_mutex);
        _running = true;
    }
    onStart();
    while (waitWhilePaused()) {
        bool failed = true;
        try {
            work();
            failed = false;
        } catch (const std::exception& e) {
            reportFailure(e.what());
        } catch (...) {
            reportFailure("unknown exception");
        }
        {
            std::lock_guard<std::mutex> lock(_mutex);
            _inWork = false;
            ++_steps;
            if (failed) ++_failedSteps;
        }
        _cond.notify_all();
        if (failed) {
            sleepBackoff();
        } else if (_failures > 0) {
            logger().information(_name + ": recovered after " + std::to_string(_failures) + " failed steps");
            _failures = 0;
            _lastFailure.clear();
        }
    }
    try {
        onExit();
    } catch (const std::exception& e) {
        logger().error(_name + ": onExit: " + e.what());
    }
    {
        std::lock_guard<std::mutex> lock(_mutex);
        _running = false;
    }
    _cond.notify_all();
}

}  // namespace util
}  // namespace ruvo
