// The simulated sensor as a V4L2 capture driver: capability, formats, user-pointer buffers,
// streaming and select, all through DeviceIo, with the stepped clock.
#include "support/sim_client.h"

#include <gtest/gtest.h>

#include <fcntl.h>

#include <thread>

namespace ruvo {
namespace capture {
namespace {

using testing::SimClient;

v4l2_buffer userptrBuffer(uint32_t index) {
    v4l2_buffer b{};
    b.index = index;
    b.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    b.memory = V4L2_MEMORY_USERPTR;
    return b;
}

v4l2_format captureFormat(uint32_t width, uint32_t height, uint32_t pixelFormat = V4L2_PIX_FMT_SBGGR10) {
    v4l2_format f{};
    f.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    f.fmt.pix.width = width;
    f.fmt.pix.height = height;
    f.fmt.pix.pixelformat = pixelFormat;
    return f;
}

v4l2_requestbuffers userptrRequest(uint32_t count) {
    v4l2_requestbuffers r{};
    r.count = count;
    r.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    r.memory = V4L2_MEMORY_USERPTR;
    return r;
}

int streamCall(SimClient& c, unsigned long request) {
    int type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    return c.call(request, &type);
}

TEST(SimV4l2, CapabilityIsStreamingVideoCapture) {
    SimClient c;
    v4l2_capability cap{};
    ASSERT_EQ(c.call(VIDIOC_QUERYCAP, &cap), 0);
    EXPECT_EQ(cap.device_caps, uint32_t{V4L2_CAP_VIDEO_CAPTURE | V4L2_CAP_STREAMING});
    EXPECT_TRUE(cap.capabilities & V4L2_CAP_VIDEO_CAPTURE);
    EXPECT_TRUE(cap.capabilities & V4L2_CAP_STREAMING);
    EXPECT_EQ(c.call(0xDEADBEEF, &cap), ENOTTY);
    EXPECT_EQ(c.io().ioctl(c.fd() + 1, VIDIOC_QUERYCAP, &cap), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST(SimV4l2, SetFormatRoundsToTheNearestSupportedSize) {
    SimClient c;
    struct Case {
        uint32_t w, h, expectW, expectH;
    };
    for (const Case& k : {Case{1281, 720, 1280, 720}, Case{640, 360, 672, 380}, Case{0, 0, 672, 380},
                          Case{1900, 1000, 1920, 1080}, Case{5000, 5000, 2688, 1520}, Case{2688, 1520, 2688, 1520}}) {
        const v4l2_pix_format f = c.setFormat(k.w, k.h);
        EXPECT_EQ(f.width, k.expectW) << k.w << "x" << k.h;
        EXPECT_EQ(f.height, k.expectH) << k.w << "x" << k.h;
        EXPECT_EQ(f.pixelformat, uint32_t{V4L2_PIX_FMT_SBGGR10});
        EXPECT_EQ(f.bytesperline, 2 * f.width);
        EXPECT_EQ(f.sizeimage, 2 * f.width * f.height);
        EXPECT_EQ(f.field, uint32_t{V4L2_FIELD_NONE});
    }
    v4l2_format g{};
    g.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    ASSERT_EQ(c.call(VIDIOC_G_FMT, &g), 0);
    EXPECT_EQ(g.fmt.pix.width, 2688u);
}

TEST(SimV4l2, OtherPixelFormatsAreAnsweredWithBayer10AndTryDoesNotApply) {
    SimClient c;
    c.setFormat(1280, 720);
    v4l2_format f = captureFormat(1920, 1080, V4L2_PIX_FMT_YUYV);
    ASSERT_EQ(c.call(VIDIOC_TRY_FMT, &f), 0);
    EXPECT_EQ(f.fmt.pix.pixelformat, uint32_t{V4L2_PIX_FMT_SBGGR10});
    EXPECT_EQ(c.sensor().format().width, 1280u);
    ASSERT_EQ(c.call(VIDIOC_S_FMT, &f), 0);
    EXPECT_EQ(f.fmt.pix.pixelformat, uint32_t{V4L2_PIX_FMT_SBGGR10});
    EXPECT_EQ(c.sensor().format().width, 1920u);
    f.type = V4L2_BUF_TYPE_VIDEO_OUTPUT;
    EXPECT_EQ(c.call(VIDIOC_S_FMT, &f), EINVAL);
}

TEST(SimV4l2, FormatAndBuffersAreBusyWhileStreaming) {
    SimClient c;
    c.start(672, 380);
    v4l2_format f = captureFormat(1280, 720);
    EXPECT_EQ(c.call(VIDIOC_S_FMT, &f), EBUSY);
    v4l2_requestbuffers r = userptrRequest(2);
    EXPECT_EQ(c.call(VIDIOC_REQBUFS, &r), EBUSY);
    c.streamOff();
    EXPECT_EQ(c.call(VIDIOC_S_FMT, &f), 0);
}

TEST(SimV4l2, RequestBuffersTakesUserPointersOnly) {
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
    v4l2_buffer b = userptrBuffer(2);
    ASSERT_EQ(c.call(VIDIOC_QUERYBUF, &b), 0);
    EXPECT_EQ(b.length, 672u * 380u * 2u);
    r.count = 0;
    ASSERT_EQ(c.call(VIDIOC_REQBUFS, &r), 0);
    b = userptrBuffer(0);
    EXPECT_EQ(c.call(VIDIOC_QUERYBUF, &b), EINVAL);
    EXPECT_EQ(streamCall(c, VIDIOC_STREAMON), EINVAL);
}

TEST(SimV4l2, AnotherDescriptorCannotTouchTheOwnersQueue) {
    SimClient c;
    c.start(672, 380);
    const int other = c.io().open(c.path(), O_RDWR | O_NONBLOCK);
    ASSERT_GE(other, 0);
    v4l2_requestbuffers r = userptrRequest(0);
    EXPECT_EQ(c.io().ioctl(other, VIDIOC_REQBUFS, &r), -1);
    EXPECT_EQ(errno, EBUSY);
    v4l2_control control{sensor::CID_GAIN, 200};
    EXPECT_EQ(c.io().ioctl(other, VIDIOC_S_CTRL, &control), 0);
    EXPECT_EQ(c.get(sensor::CID_GAIN), 200);
    EXPECT_EQ(c.io().close(other), 0);
    EXPECT_TRUE(c.sensor().streaming());
    // Closing the owner stops the stream and frees its buffers.
    EXPECT_EQ(c.io().close(c.fd()), 0);
    EXPECT_FALSE(c.sensor().streaming());
    EXPECT_EQ(c.sensor().queuedCount(), 0u);
    EXPECT_EQ(c.io().close(c.fd()), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST(SimV4l2, QueueChecksIndexTypeMemoryPointerAndLength) {
    SimClient c;
    c.setFormat(672, 380);
    c.requestBuffers(2);
    std::vector<uint16_t> memory(672 * 380);
    const auto valid = [&] {
        v4l2_buffer b = userptrBuffer(0);
        b.m.userptr = reinterpret_cast<unsigned long>(memory.data());
        b.length = 672 * 380 * 2;
        return b;
    };
    v4l2_buffer b = valid();
    b.index = 2;
    EXPECT_EQ(c.call(VIDIOC_QBUF, &b), EINVAL) << "index";
    b = valid();
    b.type = V4L2_BUF_TYPE_VIDEO_OUTPUT;
    EXPECT_EQ(c.call(VIDIOC_QBUF, &b), EINVAL) << "type";
    b = valid();
    b.memory = V4L2_MEMORY_MMAP;
    EXPECT_EQ(c.call(VIDIOC_QBUF, &b), EINVAL) << "memory";
    b = valid();
    b.m.userptr = 0;
    EXPECT_EQ(c.call(VIDIOC_QBUF, &b), EINVAL) << "pointer";
    b = valid();
    b.length -= 1;
    EXPECT_EQ(c.call(VIDIOC_QBUF, &b), EINVAL) << "length";
    EXPECT_EQ(c.sensor().queuedCount(), 0u);
    b = valid();
    ASSERT_EQ(c.call(VIDIOC_QBUF, &b), 0);
    EXPECT_TRUE(b.flags & V4L2_BUF_FLAG_QUEUED);
    b = valid();
    EXPECT_EQ(c.call(VIDIOC_QBUF, &b), EINVAL) << "queued twice";
    // QUERYBUF gives back what was queued, so the record can be queued again later.
    v4l2_buffer q = userptrBuffer(0);
    ASSERT_EQ(c.call(VIDIOC_QUERYBUF, &q), 0);
    EXPECT_EQ(q.m.userptr, reinterpret_cast<unsigned long>(memory.data()));
    EXPECT_EQ(q.length, 672u * 380u * 2u);
    EXPECT_TRUE(q.flags & V4L2_BUF_FLAG_QUEUED);
}

TEST(SimV4l2, DequeueGivesFramesInOrderWithSequenceAndMonotonicTimestamps) {
    SimClient c;
    c.start(672, 380, 3);
    EXPECT_FALSE(c.dequeue().has_value()) << "EAGAIN before any frame";
    ASSERT_TRUE(c.sensor().step(3));
    timeval previous{0, 0};
    for (uint32_t i = 0; i < 3; ++i) {
        const std::optional<v4l2_buffer> b = c.dequeue();
        ASSERT_TRUE(b.has_value());
        EXPECT_EQ(b->index, i);
        EXPECT_EQ(b->sequence, i);
        EXPECT_EQ(b->bytesused, 672u * 380u * 2u);
        EXPECT_TRUE(b->flags & V4L2_BUF_FLAG_TIMESTAMP_MONOTONIC);
        EXPECT_FALSE(b->flags & (V4L2_BUF_FLAG_QUEUED | V4L2_BUF_FLAG_DONE));
        EXPECT_TRUE(timercmp(&previous, &b->timestamp, <=));
        timespec now;
        clock_gettime(CLOCK_MONOTONIC, &now);
        EXPECT_LE(b->timestamp.tv_sec, now.tv_sec);
        previous = b->timestamp;
    }
    EXPECT_FALSE(c.dequeue().has_value());
}

TEST(SimV4l2, FramesWithoutAQueuedBufferAreDroppedAndCountedInTheSequence) {
    SimClient c;
    c.start(672, 380, 1);
    EXPECT_TRUE(c.sensor().step());
    EXPECT_FALSE(c.sensor().step(2)) << "nothing queued: two frames dropped";
    EXPECT_EQ(c.sensor().framesDropped(), 2u);
    EXPECT_EQ(c.dequeue()->sequence, 0u);
    ASSERT_EQ(c.queue(0), 0);
    EXPECT_EQ(c.stepAndDequeue().sequence, 3u);
    EXPECT_EQ(c.sensor().framesProduced(), 2u);
}

TEST(SimV4l2, TheSensorWritesExactlyTheQueuedUserMemory) {
    SimClient c;
    c.setFormat(672, 380);
    c.requestBuffers(2, 64);
    c.queueAll();
    c.streamOn();
    const v4l2_buffer b = c.stepAndDequeue();
    const uint16_t* memory = c.samples(b.index);
    EXPECT_EQ(b.m.userptr, reinterpret_cast<unsigned long>(memory));
    size_t poisoned = 0;
    for (size_t i = 0; i < c.sampleCount(); ++i) poisoned += memory[i] == SimClient::kGuard;
    EXPECT_EQ(poisoned, 0u) << "every sample of the frame is written";
    for (size_t i = c.sampleCount(); i < c.sampleCount() + 64; ++i) ASSERT_EQ(memory[i], SimClient::kGuard) << i;
    const uint16_t* untouched = c.samples(1 - b.index);
    EXPECT_EQ(untouched[0], SimClient::kGuard) << "the other buffer is still queued and empty";
}

TEST(SimV4l2, StreamOffReturnsEveryBufferAndDiscardsFilledFrames) {
    SimClient c;
    c.start(672, 380, 3);
    ASSERT_TRUE(c.sensor().step(2));
    EXPECT_EQ(c.sensor().queuedCount(), 3u);
    c.streamOff();
    EXPECT_EQ(c.sensor().queuedCount(), 0u);
    for (uint32_t i = 0; i < 3; ++i) {
        v4l2_buffer q = userptrBuffer(i);
        ASSERT_EQ(c.call(VIDIOC_QUERYBUF, &q), 0);
        EXPECT_EQ(q.flags & (V4L2_BUF_FLAG_QUEUED | V4L2_BUF_FLAG_DONE), 0u) << i;
    }
    v4l2_buffer b = userptrBuffer(0);
    EXPECT_EQ(c.call(VIDIOC_DQBUF, &b), EINVAL) << "not streaming";
    EXPECT_FALSE(c.sensor().step());
    // The same buffers can be queued again and a new stream numbers frames from 0.
    c.queueAll();
    c.streamOn();
    EXPECT_FALSE(c.dequeue().has_value());
    EXPECT_EQ(c.stepAndDequeue().sequence, 0u);
}

TEST(SimV4l2, SelectReportsFilledBuffersAndTimesOut) {
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
    c.streamOff();
    EXPECT_EQ(c.io().select(c.fd(), &zero), 1) << "a stopped queue polls as an error";
}

TEST(SimV4l2, SelectAndBlockingDequeueWakeWhenAFrameArrives) {
    SimClient c;
    c.start(672, 380);
    EXPECT_EQ(testing::selectWhile(c, [&] { c.sensor().step(); }).result, 1);
    ASSERT_TRUE(c.dequeue().has_value());

    const int blockingFd = c.io().open(c.path(), O_RDWR);
    ASSERT_GE(blockingFd, 0);
    v4l2_buffer b = userptrBuffer(0);
    c.streamOff();
    c.io().close(c.fd());
    // The blocking descriptor takes over the queue and waits in DQBUF for the next frame.
    v4l2_requestbuffers r = userptrRequest(1);
    ASSERT_EQ(c.io().ioctl(blockingFd, VIDIOC_REQBUFS, &r), 0);
    std::vector<uint16_t> memory(672 * 380);
    b.m.userptr = reinterpret_cast<unsigned long>(memory.data());
    b.length = 672 * 380 * 2;
    ASSERT_EQ(c.io().ioctl(blockingFd, VIDIOC_QBUF, &b), 0);
    int type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    ASSERT_EQ(c.io().ioctl(blockingFd, VIDIOC_STREAMON, &type), 0);
    int dequeued = -1;
    v4l2_buffer out = userptrBuffer(0);
    std::thread reader([&] { dequeued = c.io().ioctl(blockingFd, VIDIOC_DQBUF, &out); });
    c.sensor().step();
    reader.join();
    EXPECT_EQ(dequeued, 0);
    EXPECT_EQ(out.m.userptr, reinterpret_cast<unsigned long>(memory.data()));
    c.io().close(blockingFd);
}

}  // namespace
}  // namespace capture
}  // namespace ruvo
