// Named diagnostics channels: a channel counts as attached only while someone listens, delivery of
// texts and byte blocks to the right listeners, and removal.
#include <ruvo/util/Channel.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace {

using ruvo::util::Channel;

// The registry is process-wide: every test uses names of its own and removes the listeners it
// added, which refer to its local variables.
struct Listening {
    std::shared_ptr<Channel> channel;
    std::vector<Channel::ListenerId> ids;
    ~Listening() {
        for (auto id : ids) channel->removeListener(id);
    }
};

TEST(ChannelRegistry, AttachedOnlyWhileSomeoneListens) {
    EXPECT_EQ(Channel::attached("test.registry.unknown"), nullptr);

    auto channel = Channel::get("test.registry.quiet");
    ASSERT_NE(channel, nullptr);
    EXPECT_EQ(channel->name(), "test.registry.quiet");
    EXPECT_EQ(Channel::get("test.registry.quiet"), channel);
    EXPECT_EQ(Channel::attached("test.registry.quiet"), nullptr);

    // Either kind of listener keeps the channel attached until the last one is removed.
    for (const auto id : {channel->addListener([](const std::string&) {}),
                          channel->addBlockListener([](const uint8_t*, size_t, uint32_t) {})}) {
        EXPECT_EQ(Channel::attached("test.registry.quiet"), channel);
        channel->removeListener(id);
    }
    EXPECT_EQ(Channel::attached("test.registry.quiet"), nullptr);
}

TEST(ChannelDelivery, TextsAndBlocksReachTheirOwnListeners) {
    auto channel = Channel::get("test.delivery");
    std::vector<std::string> first, second;
    std::vector<std::vector<uint8_t>> blocks;
    std::vector<uint32_t> rows;
    Listening listening{channel, {}};
    const auto a = channel->addListener([&](const std::string& t) { first.push_back(t); });
    listening.ids.push_back(channel->addListener([&](const std::string& t) { second.push_back(t); }));
    listening.ids.push_back(channel->addBlockListener([&](const uint8_t* data, size_t bytes, uint32_t r) {
        blocks.emplace_back(data, data + bytes);
        rows.push_back(r);
    }));

    channel->send(std::string("{\"luminance\":0.3}"));
    const std::vector<uint8_t> image = {1, 2, 3, 4, 5, 6};
    channel->send(image.data(), image.size(), 2);
    EXPECT_EQ(first, std::vector<std::string>{"{\"luminance\":0.3}"});
    EXPECT_EQ(second, first);
    EXPECT_EQ(blocks, std::vector<std::vector<uint8_t>>{image});
    EXPECT_EQ(rows, std::vector<uint32_t>{2});

    channel->removeListener(a);
    channel->removeListener(9999);  // unknown: nothing happens
    channel->send(std::string("next"));
    EXPECT_EQ(first.size(), 1u);
    EXPECT_EQ(second.back(), "next");
}

TEST(ChannelDelivery, ListenerMayRemoveItselfWhileBeingCalled) {
    auto channel = Channel::get("test.self.removal");
    int calls = 0;
    Channel::ListenerId id = 0;
    id = channel->addListener([&](const std::string&) {
        ++calls;
        channel->removeListener(id);
    });
    channel->send(std::string("once"));
    channel->send(std::string("twice"));
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(Channel::attached("test.self.removal"), nullptr);
}

}  // namespace
