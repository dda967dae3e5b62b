// DeviceIo: the kernel select's bounds, the sim keys a simulated sensor refuses, and the
// simulated sensor as a V4L2 capture driver through DeviceIo: formats, user-pointer buffers,
// streaming and select; its frame clocks (stepped, free-running, real time); and the faults it
// injects on request (stall, disconnect, a failing QBUF or STREAMON, an interrupted select).
#include "support/sim_client.h"

#include <ruvo/capture/CaptureDeviceException.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/select.h>
#include <unistd.h>

#include <functional>
#include <thread>

namespace ruvo::capture {
namespace {

using testing::captureFormat;
using testing::SimClient;
using testing::userptrBuffer;
using testing::userptrRequest;

constexpr uint32_t kFrameBytes = 672 * 380 * 2;

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

// What a select without time limit, made on another thread while `action` runs on this one,
// returned, and its errno.
std::pair<int, int> selectWhile(SimClient& c, const std::function<void()>& action) {
    std::pair<int, int> selected;
    std::thread waiter([&] {
        selected.first = c.io().select(c.fd(), nullptr);
        selected.second = errno;
    });
    action();
    waiter.join();
    return selected;
}

TEST(SystemDeviceIo, SelectWaitsForReadabilityWithinItsBounds) {
    DeviceIo& io = *systemDeviceIo();
    int pipeFds[2];
    ASSERT_EQ(::pipe(pipeFds), 0);
    timeval zero{0, 0};
    EXPECT_EQ(io.select(pipeFds[0], &zero), 0);
    ASSERT_EQ(::write(pipeFds[1], "x", 1), 1);
    timeval wait{5, 0};
    EXPECT_EQ(io.select(pipeFds[0], &wait), 1);
    ::close(pipeFds[0]);
    ::close(pipeFds[1]);
    EXPECT_EQ(io.select(FD_SETSIZE, &zero), -1);
    EXPECT_EQ(errno, EINVAL) << "beyond what select can watch";
    EXPECT_EQ(io.select(-1, &zero), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST(MakeDeviceIo, RejectsSimKeysItCannotUse) {
    for (const std::string entry : {"sim.clock=fast", "sim.fps=0", "sim.samples=msb16", "sim.level=1.5",
                                    "sim.noise=maybe", "sim.scene=stripes", "sim.scene=", "sim.scene=image.jpg",
                                    "sim.script=10:brightness=2", "sim.script=x:illuminance=2", "sim.pedestal=2000"}) {
        const size_t equals = entry.find('=');
        const std::string path = testing::uniqueSimPath("bad");
        EXPECT_THROW(makeDeviceIo(path, testing::cameraEntry({{entry.substr(0, equals), entry.substr(equals + 1)}})),
                     CaptureDeviceException)
            << entry;
        EXPECT_EQ(sim::findSensor(path), nullptr);
    }
}

TEST(SimV4l2, SetFormatRoundsToTheNearestSupportedSizeAndIsBusyWhileStreaming) {
    SimClient c;
    struct Case {
        uint32_t w, h, expectW, expectH;
    };
    for (const Case& k : {Case{1281, 720, 1280, 720}, Case{640, 360, 672, 380}, Case{0, 0, 672, 380},
                          Case{1900, 1000, 1920, 1080}, Case{5000, 5000, 2688, 1520}, Case{2688, 1520, 2688, 1520}}) {
        SCOPED_TRACE(std::to_string(k.w) + "x" + std::to_string(k.h));
        const v4l2_pix_format f = c.setFormat(k.w, k.h);
        EXPECT_EQ(f.width, k.expectW);
        EXPECT_EQ(f.height, k.expectH);
        EXPECT_EQ(f.pixelformat, uint32_t{V4L2_PIX_FMT_SBGGR10});
        EXPECT_EQ(f.bytesperline, 2 * f.width);
        EXPECT_EQ(f.sizeimage, 2 * f.width * f.height);
        EXPECT_EQ(f.field, uint32_t{V4L2_FIELD_NONE});
    }
    v4l2_format output = captureFormat(1920, 1080);
    output.type = V4L2_BUF_TYPE_VIDEO_OUTPUT;
    EXPECT_EQ(c.call(VIDIOC_S_FMT, &output), EINVAL);
    // While streaming, format and queue are the owner's and busy.
    c.start(672, 380);
    v4l2_format f = captureFormat(1280, 720);
    EXPECT_EQ(c.call(VIDIOC_S_FMT, &f), EBUSY);
    v4l2_requestbuffers r = userptrRequest(2);
    EXPECT_EQ(c.call(VIDIOC_REQBUFS, &r), EBUSY);
    const int other = c.io().open(c.path(), O_RDWR | O_NONBLOCK);
    ASSERT_GE(other, 0);
    r.count = 0;
    EXPECT_EQ(c.io().ioctl(other, VIDIOC_REQBUFS, &r), -1);
    EXPECT_EQ(errno, EBUSY) << "another descriptor cannot touch the owner's queue";
    EXPECT_EQ(c.io().close(other), 0);
    EXPECT_TRUE(c.sensor().streaming());
    c.streamOff();
    EXPECT_EQ(c.call(VIDIOC_S_FMT, &f), 0);
}

TEST(SimV4l2, BuffersAreUserPointersCheckedWhenQueued) {
    SimClient c;
    c.setFormat(672, 380);
    v4l2_requestbuffers r = userptrRequest(3);
    for (uint32_t memory : {V4L2_MEMORY_MMAP, V4L2_MEMORY_DMABUF, V4L2_MEMORY_OVERLAY}) {
        r.memory = memory;
        EXPECT_EQ(c.call(VIDIOC_REQBUFS, &r), EINVAL) << memory;
    }
    r.memory = V4L2_MEMORY_USERPTR;
    ASSERT_EQ(c.call(VIDIOC_REQBUFS, &r), 0);
    EXPECT_EQ(r.count, 3u);
    std::vector<uint16_t> memory(kFrameBytes / 2);
    const std::pair<const char*, std::function<void(v4l2_buffer&)>> spoilt[] = {
        {"index", [](v4l2_buffer& b) { b.index = 3; }},
        {"type", [](v4l2_buffer& b) { b.type = V4L2_BUF_TYPE_VIDEO_OUTPUT; }},
        {"memory", [](v4l2_buffer& b) { b.memory = V4L2_MEMORY_MMAP; }},
        {"pointer", [](v4l2_buffer& b) { b.m.userptr = 0; }},
        {"length", [](v4l2_buffer& b) { b.length -= 1; }},
    };
    for (const auto& [what, spoil] : spoilt) {
        v4l2_buffer b = userptrBuffer(0, memory.data(), kFrameBytes);
        spoil(b);
        EXPECT_EQ(c.call(VIDIOC_QBUF, &b), EINVAL) << what;
    }
    EXPECT_EQ(c.sensor().queuedCount(), 0u);
    v4l2_buffer b = userptrBuffer(0, memory.data(), kFrameBytes);
    ASSERT_EQ(c.call(VIDIOC_QBUF, &b), 0);
    EXPECT_TRUE(b.flags & V4L2_BUF_FLAG_QUEUED);
    b = userptrBuffer(0, memory.data(), kFrameBytes);
    EXPECT_EQ(c.call(VIDIOC_QBUF, &b), EINVAL) << "queued twice";
    // Count 0 frees the buffers: nothing to query or stream.
    r.count = 0;
    ASSERT_EQ(c.call(VIDIOC_REQBUFS, &r), 0);
    v4l2_buffer q = userptrBuffer(0);
    EXPECT_EQ(c.call(VIDIOC_QUERYBUF, &q), EINVAL);
    int type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    EXPECT_EQ(c.call(VIDIOC_STREAMON, &type), EINVAL);
}

// A stream's life: frames in order with sequence and monotonic timestamps, written exactly into
// the queued user memory; drops counted in the sequence; STREAMOFF returning every buffer.
TEST(SimV4l2, DequeueGivesFramesInOrderDropsCountAndStreamOffReturnsEveryBuffer) {
    SimClient c;
    c.setFormat(672, 380);
    c.requestBuffers(3, 64);
    c.queueAll();
    c.streamOn();
    EXPECT_FALSE(c.dequeue().has_value()) << "EAGAIN before any frame";
    ASSERT_TRUE(c.sensor().step(3));
    timeval previous{0, 0};
    for (uint32_t i = 0; i < 3; ++i) {
        const std::optional<v4l2_buffer> b = c.dequeue();
        ASSERT_TRUE(b.has_value());
        EXPECT_EQ(b->index, i);
        EXPECT_EQ(b->m.userptr, reinterpret_cast<unsigned long>(c.samples(i)));
        EXPECT_EQ(b->sequence, i);
        EXPECT_EQ(b->bytesused, kFrameBytes);
        EXPECT_TRUE(b->flags & V4L2_BUF_FLAG_TIMESTAMP_MONOTONIC);
        EXPECT_FALSE(b->flags & (V4L2_BUF_FLAG_QUEUED | V4L2_BUF_FLAG_DONE));
        EXPECT_TRUE(timercmp(&previous, &b->timestamp, <=));
        timespec now;
        clock_gettime(CLOCK_MONOTONIC, &now);
        EXPECT_LE(b->timestamp.tv_sec, now.tv_sec);
        previous = b->timestamp;
    }
    const uint16_t* memory = c.samples(0);
    size_t poisoned = 0;
    for (size_t i = 0; i < c.sampleCount(); ++i) poisoned += memory[i] == SimClient::kGuard;
    EXPECT_EQ(poisoned, 0u) << "every sample of the frame is written";
    for (size_t i = c.sampleCount(); i < c.sampleCount() + 64; ++i) ASSERT_EQ(memory[i], SimClient::kGuard) << i;
    EXPECT_FALSE(c.dequeue().has_value());
    EXPECT_FALSE(c.sensor().step(2)) << "nothing queued: two frames dropped";
    EXPECT_EQ(c.sensor().framesDropped(), 2u);
    ASSERT_EQ(c.queue(0), 0);
    EXPECT_EQ(c.stepAndDequeue().sequence, 5u);
    EXPECT_EQ(c.sensor().framesProduced(), 4u);
    c.queueAll();
    ASSERT_TRUE(c.sensor().step());
    c.streamOff();
    EXPECT_EQ(c.sensor().queuedCount(), 0u) << "filled frames are discarded";
    v4l2_buffer b = userptrBuffer(0);
    EXPECT_EQ(c.call(VIDIOC_DQBUF, &b), EINVAL) << "not streaming";
    EXPECT_FALSE(c.sensor().step());
    // The same buffers can be queued again and a new stream numbers frames from 0.
    c.queueAll();
    c.streamOn();
    EXPECT_FALSE(c.dequeue().has_value());
    EXPECT_EQ(c.stepAndDequeue().sequence, 0u);
}

TEST(SimV4l2, SelectReportsFilledBuffersTimesOutAndWakes) {
    SimClient c;
    c.start(672, 380);
    timeval zero{0, 0};
    EXPECT_EQ(c.io().select(c.fd(), &zero), 0);
    timeval shortWait{0, 1000};
    EXPECT_EQ(c.io().select(c.fd(), &shortWait), 0);
    EXPECT_EQ(shortWait.tv_sec, 0);
    EXPECT_EQ(shortWait.tv_usec, 0) << "the time left is written back";
    c.sensor().step();
    timeval wait{1, 0};
    EXPECT_EQ(c.io().select(c.fd(), &wait), 1);
    timeval bad{0, -1};
    EXPECT_EQ(c.io().select(c.fd(), &bad), -1);
    EXPECT_EQ(errno, EINVAL);
    ASSERT_TRUE(c.dequeue().has_value());
    EXPECT_EQ(selectWhile(c, [&] { c.sensor().step(); }).first, 1) << "a waiting select wakes";
    c.streamOff();
    EXPECT_EQ(c.io().select(c.fd(), &zero), 1) << "a stopped queue polls as an error";
    // Closing the owner stops its stream and frees its buffers.
    c.streamOn();
    EXPECT_EQ(c.io().close(c.fd()), 0);
    EXPECT_FALSE(c.sensor().streaming());
    EXPECT_EQ(c.io().close(c.fd()), -1);
    EXPECT_EQ(errno, EBADF);
}

// Free-running fills each buffer as soon as it is queued; real time delivers unstepped at its
// rate. Both stop writing at STREAMOFF, so the client may free its buffers then.
TEST(SimClock, FreeAndRealTimeDeliverUnsteppedUntilStreamOff) {
    for (const std::string clock : {"free", "realtime"}) {
        SCOPED_TRACE(clock);
        SimClient c({{"sim.clock", clock}, {"sim.fps", "1000"}, {"sim.noise", "true"}});
        c.start(1280, 720, 4);
        v4l2_buffer previous = nextFrame(c);
        for (int i = 0; i < 5; ++i) {
            const v4l2_buffer b = nextFrame(c);
            EXPECT_GT(b.sequence, previous.sequence);
            EXPECT_TRUE(timercmp(&previous.timestamp, &b.timestamp, <));
            previous = b;
        }
        if (clock == "free") {
            EXPECT_EQ(previous.sequence, 5u) << "no frame is dropped";
            EXPECT_EQ(c.sensor().framesDropped(), 0u);
        }
        c.streamOff();
        EXPECT_EQ(c.sensor().queuedCount(), 0u);
        const uint64_t produced = c.sensor().framesProduced();
        for (uint32_t i = 0; i < 4; ++i) std::fill(c.samples(i), c.samples(i) + c.sampleCount(), SimClient::kGuard);
        EXPECT_FALSE(c.sensor().step());
        EXPECT_EQ(c.sensor().framesProduced(), produced);
        for (uint32_t i = 0; i < 4; ++i) EXPECT_EQ(c.samples(i)[0], SimClient::kGuard);
    }
}

// A stall exposes nothing, on a stepped or a free-running clock, and is no drop: the sequence
// goes on. Regression: a free-running clock woke only when the stall's time ran out.
TEST(SimFaults, AStalledSensorExposesNothingUntilTheStallIsLifted) {
    SimClient c;
    c.start(672, 380);
    c.sensor().stall(std::chrono::hours(1));
    EXPECT_FALSE(c.sensor().step(3));
    EXPECT_EQ(c.sensor().framesProduced() + c.sensor().framesDropped(), 0u);
    EXPECT_EQ(c.sensor().queuedCount(), 2u);
    c.sensor().stall(std::chrono::milliseconds(0));
    EXPECT_TRUE(c.sensor().step());
    EXPECT_EQ(c.dequeue()->sequence, 0u);
    SimClient free({{"sim.clock", "free"}});
    free.sensor().stall(std::chrono::hours(1));
    free.start(672, 380);
    timeval shortWait{0, 20000};
    EXPECT_EQ(free.io().select(free.fd(), &shortWait), 0);
    free.sensor().stall(std::chrono::milliseconds(0));
    timeval wait{10, 0};
    EXPECT_EQ(free.io().select(free.fd(), &wait), 1);
    EXPECT_EQ(free.dequeue()->sequence, 0u);
}

TEST(SimFaults, ADisconnectedDeviceAnswersEveryCallWithNoDevice) {
    SimClient c;
    c.start(672, 380);
    EXPECT_EQ(selectWhile(c, [&] { c.sensor().disconnect(); }), std::pair(-1, ENODEV)) << "a waiting select wakes";
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

TEST(SimFaults, OneQueueOrStreamOnFailure) {
    SimClient c;
    c.setFormat(672, 380);
    c.requestBuffers(2);
    c.sensor().failNextQueue(ENOMEM);
    EXPECT_EQ(c.queue(0), ENOMEM);
    EXPECT_EQ(c.sensor().queuedCount(), 0u) << "the failed buffer stays with the client";
    c.queueAll();
    c.sensor().failNextStreamOn();
    int type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    EXPECT_EQ(c.call(VIDIOC_STREAMON, &type), EIO);
    EXPECT_FALSE(c.sensor().streaming());
    EXPECT_FALSE(c.sensor().step());
    c.streamOn();
    c.sensor().failNextQueue();
    ASSERT_TRUE(c.sensor().step());
    const v4l2_buffer b = *c.dequeue();
    EXPECT_EQ(c.queue(b.index), EIO);
    EXPECT_EQ(c.queue(b.index), 0);
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
    EXPECT_EQ(selectWhile(c, [&] { c.sensor().interruptNextSelect(); }), std::pair(-1, EINTR))
        << "a select already waiting is interrupted as well";
}

}  // namespace
}  // namespace ruvo::capture
