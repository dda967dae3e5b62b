// Process-wide registry of named diagnostics channels and delivery to their listeners.
#include <ruvo/util/Channel.h>

#include <vector>

namespace ruvo {
namespace util {

namespace {

struct Registry {
    std::mutex mutex;
    std::map<std::string, std::shared_ptr<Channel>> channels;
};

Registry& registry() {
    static Registry* r = new Registry();  // never destroyed: channels may be used during teardown
    return *r;
}

}  // namespace

Channel::Channel(const std::string& name) : _name(name) {}

std::shared_ptr<Channel> Channel::get(const std::string& name) {
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    auto& slot = r.channels[name];
    if (!slot) slot = std::make_shared<Channel>(name);
    return slot;
}

std::shared_ptr<Channel> Channel::attached(const std::string& name) {
    std::shared_ptr<Channel> channel;
    {
        Registry& r = registry();
        std::lock_guard<std::mutex> lock(r.mutex);
        auto it = r.channels.find(name);
        if (it == r.channels.end()) return nullptr;
        channel = it->second;
    }
    return channel->hasListeners() ? channel : nullptr;
}

bool Channel::enabled() const {
    std::lock_guard<std::mutex> lock(_mutex);
    return _enabled;
}

void Channel::setEnabled(bool enabled) {
    std::lock_guard<std::mutex> lock(_mutex);
    _enabled = enabled;
}

Channel::ListenerId Channel::addListener(TextListener listener) {
    std::lock_guard<std::mutex> lock(_mutex);
    ListenerId id = _nextId++;
    _textListeners[id] = std::make_shared<const TextListener>(std::move(listener));
    return id;
}

Channel::ListenerId Channel::addBlockListener(BlockListener listener) {
    std::lock_guard<std::mutex> lock(_mutex);
    ListenerId id = _nextId++;
    _blockListeners[id] = std::make_shared<const BlockListener>(std::move(listener));
    return id;
}

void Channel::removeListener(ListenerId id) {
    std::lock_guard<std::mutex> lock(_mutex);
    _textListeners.erase(id);
    _blockListeners.erase(id);
}

bool Channel::hasListeners() const {
    std::lock_guard<std::mutex> lock(_mutex);
    return !_textListeners.empty() || !_blockListeners.empty();
}

// Listeners are called without the channel's lock, so they may add or remove listeners.
void Channel::send(const std::string& text) {
    std::vector<std::shared_ptr<const TextListener>> listeners;
    {
        std::lock_guard<std::mutex> lock(_mutex);
        for (const auto& entry : _textListeners) listeners.push_back(entry.second);
    }
    for (const auto& listener : listeners) (*listener)(text);
}

void Channel::send(const uint8_t* data, size_t bytes, uint32_t rows) {
    std::vector<std::shared_ptr<const BlockListener>> listeners;
    {
        std::lock_guard<std::mutex> lock(_mutex);
        for (const auto& entry : _blockListeners) listeners.push_back(entry.second);
    }
    for (const auto& listener : listeners) (*listener)(data, bytes, rows);
}

}  // namespace util
}  // namespace ruvo
