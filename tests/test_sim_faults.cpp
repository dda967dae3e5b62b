// Faults the simulated sensor injects on request: stall, failing dequeue, disconnect, a failing
// QBUF or STREAMON, and an interrupted select, each seen through DeviceIo.
#include "support/sim_client.h"

#include <gtest/gtest.h>

#include <fcntl.h>

namespace ruvo {
namespace capture {
namespace {

using testing::SimClient;

TEST(SimFaults, AStalledSensorExposesNothingUntilTheStallEnds) {
    SimClient c;
    c.start(672, 380);
    c.sensor().stall(std::chrono::hours(1));
    EXPECT_FALSE(c.sensor().step(3));
    EXPECT_EQ(c.sensor().framesProduced() + c.sensor().framesDropped(), 0u);
    EXPECT_EQ(c.sensor().queuedCount(), 2u);
    timeval zero{0, 0};
    EXPECT_EQ(c.io().select(c.fd(), &zero), 0);
    c.sensor().stall(std::chrono::milliseconds(0));
    EXPECT_TRUE(c.sensor().step());
    EXPECT_EQ(c.dequeue()->sequence, 0u) << "a stall is no drop: the sequence goes on";
}

TEST(SimFaults, AFreeRunningSensorResumesWhenTheStallEnds) {
    SimClient c({{"sim.clock", "free"}});
    c.sensor().stall(std::chrono::hours(1));
    c.start(672, 380);
    timeval shortWait{0, 20000};
    EXPECT_EQ(c.io().select(c.fd(), &shortWait), 0);
    c.sensor().stall(std::chrono::milliseconds(0));
    timeval wait{10, 0};
    EXPECT_EQ(c.io().select(c.fd(), &wait), 1);
    EXPECT_TRUE(c.dequeue().has_value());
}

TEST(SimFaults, FailingDequeueReportsTheErrorUntilCleared) {
    SimClient c;
    c.start(672, 380);
    c.sensor().failDequeue(EIO);
    timeval zero{0, 0};
    EXPECT_EQ(c.io().select(c.fd(), &zero), 1) << "an error polls readable";
    v4l2_buffer b{};
    b.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    b.memory = V4L2_MEMORY_USERPTR;
    EXPECT_EQ(c.call(VIDIOC_DQBUF, &b), EIO);
    c.sensor().step();
    EXPECT_EQ(c.call(VIDIOC_DQBUF, &b), EIO) << "also with a frame waiting";
    c.sensor().failDequeue(0);
    ASSERT_TRUE(c.dequeue().has_value());
}

TEST(SimFaults, ADisconnectedDeviceAnswersEveryCallWithNoDevice) {
    SimClient c;
    c.start(672, 380);
    const testing::Selected selected = testing::selectWhile(c, [&] { c.sensor().disconnect(); });
    EXPECT_EQ(selected.result, -1);
    EXPECT_EQ(selected.error, ENODEV) << "a waiting select wakes";
    struct ::stat status {};
    EXPECT_EQ(c.io().stat(c.path(), &status), -1);
    EXPECT_EQ(errno, ENODEV);
    EXPECT_EQ(c.io().open(c.path(), O_RDWR), -1);
    EXPECT_EQ(errno, ENODEV);
    v4l2_control control{sensor::CID_GAIN, 0};
    EXPECT_EQ(c.call(VIDIOC_G_CTRL, &control), ENODEV);
    EXPECT_EQ(c.queue(0), ENODEV);
    EXPECT_FALSE(c.sensor().step());
    EXPECT_EQ(c.io().close(c.fd()), 0) << "the descriptor can still be released";
    EXPECT_EQ(c.sensor().openCount(), 0u);
}

TEST(SimFaults, OneQueueFailure) {
    SimClient c;
    c.setFormat(672, 380);
    c.requestBuffers(2);
    c.sensor().failNextQueue(ENOMEM);
    EXPECT_EQ(c.queue(0), ENOMEM);
    EXPECT_EQ(c.sensor().queuedCount(), 0u) << "the failed buffer stays with the client";
    EXPECT_EQ(c.queue(0), 0);
    EXPECT_EQ(c.queue(1), 0);
    c.sensor().failNextQueue();
    c.streamOn();
    ASSERT_TRUE(c.sensor().step());
    const v4l2_buffer b = *c.dequeue();
    EXPECT_EQ(c.queue(b.index), EIO);
    EXPECT_EQ(c.queue(b.index), 0);
}

TEST(SimFaults, OneStreamOnFailure) {
    SimClient c;
    c.setFormat(672, 380);
    c.requestBuffers(2);
    c.queueAll();
    c.sensor().failNextStreamOn();
    int type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    EXPECT_EQ(c.call(VIDIOC_STREAMON, &type), EIO);
    EXPECT_FALSE(c.sensor().streaming());
    EXPECT_FALSE(c.sensor().step());
    EXPECT_EQ(c.call(VIDIOC_STREAMON, &type), 0);
    EXPECT_TRUE(c.sensor().step(2));
}

TEST(SimFaults, InterruptedSelect) {
    SimClient c;
    c.start(672, 380);
    c.sensor().interruptNextSelect();
    timeval wait{5, 0};
    EXPECT_EQ(c.io().select(c.fd(), &wait), -1);
    EXPECT_EQ(errno, EINTR);
    timeval zero{0, 0};
    EXPECT_EQ(c.io().select(c.fd(), &zero), 0) << "only one select is interrupted";
    // A select that is already waiting is interrupted as well.
    const testing::Selected selected = testing::selectWhile(c, [&] { c.sensor().interruptNextSelect(); });
    EXPECT_EQ(selected.result, -1);
    EXPECT_EQ(selected.error, EINTR);
}

}  // namespace
}  // namespace capture
}  // namespace ruvo
