// Captures the messages of one Poco logger for the lifetime of the object, so tests can check
// the exact lines the system logs.
#pragma once

#include <Poco/AutoPtr.h>
#include <Poco/Channel.h>
#include <Poco/Logger.h>
#include <Poco/Message.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

namespace ruvo {
namespace test {

class LogCapture {
public:
    explicit LogCapture(const std::string& loggerName, int level = Poco::Message::PRIO_TRACE)
        : _logger(Poco::Logger::get(loggerName)),
          _previousChannel(_logger.getChannel()),
          _previousLevel(_logger.getLevel()) {
        _logger.setChannel(new Sink(*this));
        _logger.setLevel(level);
    }
    ~LogCapture() {
        _logger.setChannel(_previousChannel);
        _logger.setLevel(_previousLevel);
    }

    std::vector<std::string> lines() const {
        std::lock_guard<std::mutex> lock(_mutex);
        return _lines;
    }
    bool contains(const std::string& text) const { return count(text) > 0; }
    size_t count(const std::string& text) const {
        std::lock_guard<std::mutex> lock(_mutex);
        return countLocked(text);
    }
    // Waits until a line containing `text` has been logged; false after `timeout`.
    bool waitFor(const std::string& text, std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
        std::unique_lock<std::mutex> lock(_mutex);
        return _cond.wait_for(lock, timeout, [&] { return countLocked(text) > 0; });
    }

private:
    struct Sink : Poco::Channel {
        explicit Sink(LogCapture& owner) : owner(owner) {}
        void log(const Poco::Message& message) override {
            std::lock_guard<std::mutex> lock(owner._mutex);
            owner._lines.push_back(message.getText());
            owner._cond.notify_all();
        }
        LogCapture& owner;
    };
    size_t countLocked(const std::string& text) const {
        return std::count_if(_lines.begin(), _lines.end(),
                             [&](const std::string& line) { return line.find(text) != std::string::npos; });
    }

    Poco::Logger& _logger;
    Poco::Channel::Ptr _previousChannel;
    int _previousLevel;
    mutable std::mutex _mutex;
    std::condition_variable _cond;
    std::vector<std::string> _lines;
};

}  // namespace test
}  // namespace ruvo
