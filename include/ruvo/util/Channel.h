// Named diagnostics channels. A producer looks a channel up by name with attached() and sends
// only when it is non-null and enabled(), so that nothing is built while nobody listens.
// Listeners register callbacks for texts (JSON records) and for raw byte blocks (images).
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>

namespace ruvo {
namespace util {

class Channel {
public:
    using TextListener = std::function<void(const std::string& text)>;
    using BlockListener = std::function<void(const uint8_t* data, size_t bytes, uint32_t rows)>;
    using ListenerId = uint64_t;

    // The channel registered under `name` if it has at least one listener, otherwise null.
    static std::shared_ptr<Channel> attached(const std::string& name);
    // The channel registered under `name`, created (enabled, without listeners) when missing.
    static std::shared_ptr<Channel> get(const std::string& name);

    const std::string& name() const { return _name; }
    bool enabled() const;
    void setEnabled(bool enabled);

    ListenerId addListener(TextListener listener);
    ListenerId addBlockListener(BlockListener listener);
    void removeListener(ListenerId id);
    bool hasListeners() const;

    // Hands the text (or the block of `bytes` bytes in `rows` rows) to every listener.
    void send(const std::string& text);
    void send(const uint8_t* data, size_t bytes, uint32_t rows);

    explicit Channel(const std::string& name);

private:
    const std::string _name;
    mutable std::mutex _mutex;
    bool _enabled = true;
    ListenerId _nextId = 1;
    std::map<ListenerId, std::shared_ptr<const TextListener>> _textListeners;
    std::map<ListenerId, std::shared_ptr<const BlockListener>> _blockListeners;
};

}  // namespace util
}  // namespace ruvo
