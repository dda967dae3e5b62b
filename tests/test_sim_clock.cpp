// The simulated sensor's frame clocks: real time, free-running and stepped, and stopping a stream
// while the clock thread is filling buffers.
#include "support/sim_client.h"

#include <gtest/gtest.h>

#include <thread>

namespace ruvo {
namespace capture {
namespace {

using testing::SimClient;

// Waits in select (bounded generously; a frame normally comes in milliseconds), dequeues the
// frame and queues its buffer again.
v4l2_buffer nextFrame(SimClient& c) {
    timeval wait{10, 0};
    EXPECT_EQ(c.io().select(c.fd(), &wait), 1);
    const std::optional<v4l2_buffer> b = c.dequeue();
    if (!b) throw std::runtime_error("select reported a frame that DQBUF did not give");
    EXPECT_EQ(c.queue(b->index), 0);
    return *b;
}

TEST(SimClock, FreeRunningFillsEachBufferAsSoonAsItIsQueued) {
    SimClient c({{"sim.clock", "free"}});
    c.start(672, 380, 2);
    for (uint32_t i = 0; i < 10; ++i) EXPECT_EQ(nextFrame(c).sequence, i) << "no frame is dropped";
    EXPECT_EQ(c.sensor().framesDropped(), 0u);
}

TEST(SimClock, RealTimeDeliversFramesWithoutBeingStepped) {
    SimClient c({{"sim.clock", "realtime"}, {"sim.fps", "200"}});
    c.start(672, 380, 3);
    v4l2_buffer previous = nextFrame(c);
    for (int i = 0; i < 5; ++i) {
        const v4l2_buffer b = nextFrame(c);
        EXPECT_GT(b.sequence, previous.sequence);
        EXPECT_TRUE(timercmp(&previous.timestamp, &b.timestamp, <));
        previous = b;
    }
    c.streamOff();
    // Sequence numbers count exposed frames, delivered or dropped.
    EXPECT_GE(c.sensor().framesProduced() + c.sensor().framesDropped(), uint64_t{previous.sequence} + 1);
    EXPECT_GE(c.sensor().framesProduced(), 6u);
}

TEST(SimClock, AStepCanWaitForTheClientToQueueItsBuffers) {
    SimClient c;
    c.start(672, 380, 2);
    ASSERT_TRUE(c.sensor().step(2));
    const v4l2_buffer first = *c.dequeue();
    const v4l2_buffer second = *c.dequeue();
    EXPECT_FALSE(c.sensor().waitForQueued(1, std::chrono::milliseconds(0)));
    std::thread client([&] {
        EXPECT_EQ(c.queue(first.index), 0);
        EXPECT_EQ(c.queue(second.index), 0);
    });
    EXPECT_TRUE(c.sensor().waitForQueued(2, std::chrono::seconds(10)));
    client.join();
    EXPECT_TRUE(c.sensor().step(2)) << "no frame dropped";
}

TEST(SimClock, StreamOffStopsAClockThatIsFillingBuffers) {
    for (const char* clock : {"free", "realtime"}) {
        SimClient c({{"sim.clock", clock}, {"sim.fps", "1000"}, {"sim.noise", "true"}});
        c.start(1280, 720, 4);
        for (int i = 0; i < 3; ++i) nextFrame(c);
        c.streamOff();
        EXPECT_EQ(c.sensor().queuedCount(), 0u) << clock;
        const uint64_t produced = c.sensor().framesProduced();
        // Nothing is written after STREAMOFF: the client may free its buffers now.
        for (uint32_t i = 0; i < 4; ++i) std::fill(c.samples(i), c.samples(i) + c.sampleCount(), SimClient::kGuard);
        EXPECT_FALSE(c.sensor().step());
        EXPECT_EQ(c.sensor().framesProduced(), produced) << clock;
        for (uint32_t i = 0; i < 4; ++i) EXPECT_EQ(c.samples(i)[0], SimClient::kGuard) << clock;
    }
}

}  // namespace
}  // namespace capture
}  // namespace ruvo
