// DeviceIo: the kernel select's bounds, the sim keys a simulated sensor refuses, and the
// simulated sensor as a V4L2 capture driver through DeviceIo: formats, user-pointer and
// memory-mapped buffers, streaming and select, and what the kernel's V4L2 core adds (unknown
// requests, priorities, the input, control events and extended writes); its frame clocks (stepped, free-running, real
// time); and the faults it injects on request (stall, disconnect, a failing QBUF or STREAMON, an interrupted select,
// lost frames and damaged buffers).
#include "support/sim_client.h"

#include <ruvo/capture/CaptureDeviceException.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/select.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <thread>
#include <vector>

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
        selected.second = selected.first == -1 ? errno : 0;
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
    for (const std::string entry : {"sim.clock=fast",
                                    "sim.fps=0",
                                    "sim.samples=msb16",
                                    "sim.level=1.5",
                                    "sim.noise=maybe",
                                    "sim.scene=stripes",
                                    "sim.scene=",
                                    "sim.scene=image.jpg",
                                    "sim.script=10:brightness=2",
                                    "sim.script=x:illuminance=2",
                                    "sim.pedestal=2000",
                                    "sim.dropEvery=-1",
                                    "sim.format=BG11",
                                    "sim.format=default,BG10",
                                    "sim.format=,",
                                    "sim.sizes=1640x",
                                    "sim.sizes=1641x1232",
                                    "sim.sizes=",
                                    "sim.sizes=64x64..32x32/2x2",
                                    "sim.sizes=64x64..128x128",
                                    "sim.sizes=64x64..128x128/3x2",
                                    "sim.exposureControl=absolute"}) {
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
    EXPECT_EQ(c.call(VIDIOC_S_FMT, &f), EBUSY) << "buffers of the old size are still allocated";
    r.count = 0;
    ASSERT_EQ(c.call(VIDIOC_REQBUFS, &r), 0);
    EXPECT_EQ(c.call(VIDIOC_S_FMT, &f), 0);
}

// "sim.sizes": the listed sizes enumerated as discrete sizes in order and S_FMT granting the
// nearest, or one stepwise range (the only entry) granting the request clamped and rounded to its
// steps; each at the row bytes of the format.
TEST(SimV4l2, ConfiguredSizesAreEnumeratedAndGranted) {
    struct Case {
        const char* sizes;
        std::vector<v4l2_frmsizeenum> listed;  // type and size fields only
        uint32_t w, h, grantedW, grantedH;
    };
    v4l2_frmsizeenum one{}, two{}, range{};
    one.type = two.type = V4L2_FRMSIZE_TYPE_DISCRETE;
    one.discrete = {1640, 1232};
    two.discrete = {3280, 2464};
    range.type = V4L2_FRMSIZE_TYPE_STEPWISE;
    range.stepwise = {64, 4096, 4, 48, 3072, 2};
    for (const Case& k : {Case{"1640x1232, 3280x2464", {one, two}, 3000, 2000, 3280, 2464},
                          Case{"1640x1232,3280x2464", {one, two}, 1280, 720, 1640, 1232},
                          Case{"64x48..4096x3072/4x2", {range}, 1641, 1233, 1640, 1234},
                          Case{"64x48..4096x3072/4x2", {range}, 9000, 10, 4096, 48}}) {
        SCOPED_TRACE(std::string(k.sizes) + " " + std::to_string(k.w) + "x" + std::to_string(k.h));
        SimClient c{{"sim.sizes", k.sizes}, {"sim.format", "pBAA"}};
        for (uint32_t i = 0; i <= k.listed.size(); ++i) {
            v4l2_frmsizeenum size{};
            size.index = i;
            size.pixel_format = V4L2_PIX_FMT_SBGGR10P;
            const int result = c.call(VIDIOC_ENUM_FRAMESIZES, &size);
            if (i == k.listed.size()) {
                EXPECT_EQ(result, EINVAL) << "past the last";
                break;
            }
            ASSERT_EQ(result, 0) << i;
            EXPECT_EQ(size.type, k.listed[i].type) << i;
            EXPECT_EQ(std::memcmp(&size.stepwise, &k.listed[i].stepwise, sizeof size.stepwise), 0) << i;
        }
        v4l2_format f = captureFormat(k.w, k.h, V4L2_PIX_FMT_SBGGR10P);
        ASSERT_EQ(c.call(VIDIOC_S_FMT, &f), 0);
        EXPECT_EQ(f.fmt.pix.width, k.grantedW);
        EXPECT_EQ(f.fmt.pix.height, k.grantedH);
        EXPECT_EQ(f.fmt.pix.bytesperline, k.grantedW * 5 / 4);
    }
}

// ENUM_FMT lists the configured formats in order; S_FMT grants each with the row bytes V4L2
// defines for it (CSI-2 packed 10: 5 bytes per 4 samples, 12: 3 per 2) and answers any other
// code with the first.
TEST(SimV4l2, OffersTheConfiguredFormatsWithTheirRowSizes) {
    SimClient c{{"sim.format", "RG10, pRAA,BA81,pgCC,GB16"}};
    struct Case {
        uint32_t fourcc, bytesPerLine;
    };
    const Case cases[] = {{V4L2_PIX_FMT_SRGGB10, 2560},
                          {V4L2_PIX_FMT_SRGGB10P, 1600},
                          {V4L2_PIX_FMT_SBGGR8, 1280},
                          {V4L2_PIX_FMT_SGRBG12P, 1920},
                          {V4L2_PIX_FMT_SGBRG16, 2560}};
    for (uint32_t i = 0; i < std::size(cases); ++i) {
        v4l2_fmtdesc desc{};
        desc.index = i;
        desc.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        ASSERT_EQ(c.call(VIDIOC_ENUM_FMT, &desc), 0) << i;
        EXPECT_EQ(desc.pixelformat, cases[i].fourcc) << i;
        v4l2_format f = captureFormat(1280, 720, cases[i].fourcc);
        ASSERT_EQ(c.call(VIDIOC_S_FMT, &f), 0);
        EXPECT_EQ(f.fmt.pix.pixelformat, cases[i].fourcc);
        EXPECT_EQ(f.fmt.pix.bytesperline, cases[i].bytesPerLine) << i;
        EXPECT_EQ(f.fmt.pix.sizeimage, cases[i].bytesPerLine * 720) << i;
        v4l2_frmsizeenum size{};
        size.pixel_format = cases[i].fourcc;
        EXPECT_EQ(c.call(VIDIOC_ENUM_FRAMESIZES, &size), 0) << i;
    }
    v4l2_fmtdesc past{};
    past.index = std::size(cases);
    past.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    EXPECT_EQ(c.call(VIDIOC_ENUM_FMT, &past), EINVAL);
    v4l2_format other = captureFormat(1280, 720);
    ASSERT_EQ(c.call(VIDIOC_TRY_FMT, &other), 0);
    EXPECT_EQ(other.fmt.pix.pixelformat, uint32_t{V4L2_PIX_FMT_SRGGB10});
    v4l2_frmsizeenum size{};
    size.pixel_format = V4L2_PIX_FMT_SBGGR10;
    EXPECT_EQ(c.call(VIDIOC_ENUM_FRAMESIZES, &size), EINVAL) << "not offered";
}

TEST(SimV4l2, UserPointersAreCheckedWhenQueued) {
    SimClient c;
    c.setFormat(672, 380);
    v4l2_requestbuffers r = userptrRequest(3);
    for (uint32_t memory : {V4L2_MEMORY_DMABUF, V4L2_MEMORY_OVERLAY}) {
        r.memory = memory;
        r.capabilities = 0;
        EXPECT_EQ(c.call(VIDIOC_REQBUFS, &r), EINVAL) << memory;
        EXPECT_EQ(r.capabilities & (V4L2_BUF_CAP_SUPPORTS_USERPTR | V4L2_BUF_CAP_SUPPORTS_MMAP),
                  V4L2_BUF_CAP_SUPPORTS_USERPTR | V4L2_BUF_CAP_SUPPORTS_MMAP)
            << "a refused request still reports what the queue supports";
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
    // Memory that is not mapped in the process cannot be pinned.
    const long page = sysconf(_SC_PAGESIZE);
    void* hole = ::mmap(nullptr, kFrameBytes + page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(hole, MAP_FAILED);
    ASSERT_EQ(::munmap(static_cast<char*>(hole) + page, kFrameBytes), 0);
    v4l2_buffer unmapped = userptrBuffer(0, hole, kFrameBytes);
    EXPECT_EQ(c.call(VIDIOC_QBUF, &unmapped), EFAULT);
    ::munmap(hole, page);
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

// The driver's own buffers: page-aligned offsets, mappings checked against them, the same
// frames a user-pointer queue gets, and memory that outlives the queue while mapped.
TEST(SimV4l2, MemoryMappedBuffersStreamTheFramesUserPointersGet) {
    SimClient user;
    user.start(672, 380);
    SimClient mapped;
    mapped.setFormat(672, 380);
    mapped.requestMapped(2);
    const long page = sysconf(_SC_PAGESIZE);
    v4l2_buffer second = userptrBuffer(1);
    second.memory = V4L2_MEMORY_MMAP;
    ASSERT_EQ(mapped.call(VIDIOC_QUERYBUF, &second), 0);
    EXPECT_EQ(second.m.offset % page, 0u);
    EXPECT_GE(second.length, kFrameBytes);
    EXPECT_EQ(second.length % page, 0u);
    EXPECT_TRUE(second.flags & V4L2_BUF_FLAG_MAPPED);
    for (const auto& [offset, length] : {std::pair<off_t, size_t>{second.m.offset + page, page},
                                         std::pair<off_t, size_t>{second.m.offset, second.length + 1}}) {
        EXPECT_EQ(mapped.io().mmap(mapped.fd(), length, offset), MAP_FAILED) << offset << " " << length;
        EXPECT_EQ(errno, EINVAL);
    }
    EXPECT_EQ(user.io().mmap(user.fd(), page, 0), MAP_FAILED) << "a user-pointer queue has nothing to map";
    mapped.queueAll();
    mapped.streamOn();
    for (int frame = 0; frame < 3; ++frame) {
        const v4l2_buffer u = user.stepAndDequeue();
        const v4l2_buffer m = mapped.stepAndDequeue();
        EXPECT_EQ(m.memory, uint32_t{V4L2_MEMORY_MMAP});
        EXPECT_EQ(m.sequence, u.sequence);
        EXPECT_EQ(m.bytesused, kFrameBytes);
        ASSERT_EQ(std::memcmp(mapped.samples(m.index), user.samples(u.index), kFrameBytes), 0) << frame;
        EXPECT_EQ(user.queue(u.index), 0);
        EXPECT_EQ(mapped.queue(m.index), 0);
    }
    // Freeing the queue orphans the buffers: still mapped, still readable.
    const uint16_t kept = mapped.samples(1)[1000];
    mapped.streamOff();
    v4l2_requestbuffers none = userptrRequest(0);
    none.memory = V4L2_MEMORY_MMAP;
    ASSERT_EQ(mapped.call(VIDIOC_REQBUFS, &none), 0);
    EXPECT_EQ(mapped.samples(1)[1000], kept);
}

// What the kernel's V4L2 core answers for every driver.
TEST(SimV4l2, CoreRequestsAnswerAsTheKernelDoes) {
    SimClient c;
    EXPECT_EQ(c.call(_IOWR('V', 250, int), nullptr), ENOTTY) << "an unknown request before its argument";
    EXPECT_EQ(c.call(VIDIOC_QUERYCAP, nullptr), EFAULT);
    v4l2_capability cap{};
    ASSERT_EQ(c.call(VIDIOC_QUERYCAP, &cap), 0);
    EXPECT_TRUE(cap.device_caps & V4L2_CAP_EXT_PIX_FORMAT);
    EXPECT_EQ(cap.capabilities & ~V4L2_CAP_DEVICE_CAPS, cap.device_caps);
    v4l2_format f{};
    std::memset(&f.fmt, 0xff, sizeof f.fmt);
    f.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    for (unsigned long request : {VIDIOC_G_FMT, VIDIOC_TRY_FMT}) {
        f.fmt.pix.width = 1280;
        f.fmt.pix.height = 720;
        ASSERT_EQ(c.call(request, &f), 0);
        EXPECT_EQ(f.fmt.pix.priv, uint32_t{V4L2_PIX_FMT_PRIV_MAGIC});
        const auto* tail = reinterpret_cast<const unsigned char*>(&f.fmt) + sizeof f.fmt.pix;
        EXPECT_EQ(std::count(tail, tail + sizeof f.fmt - sizeof f.fmt.pix, 0), long(sizeof f.fmt - sizeof f.fmt.pix));
    }
    v4l2_frmsizeenum size{};
    std::memset(size.reserved, 0xff, sizeof size.reserved);
    size.pixel_format = V4L2_PIX_FMT_SBGGR10;
    ASSERT_EQ(c.call(VIDIOC_ENUM_FRAMESIZES, &size), 0);
    EXPECT_EQ(size.reserved[0] | size.reserved[1], 0u);
    v4l2_input input{};
    ASSERT_EQ(c.call(VIDIOC_ENUMINPUT, &input), 0);
    EXPECT_EQ(input.type, uint32_t{V4L2_INPUT_TYPE_CAMERA});
    input.index = 1;
    EXPECT_EQ(c.call(VIDIOC_ENUMINPUT, &input), EINVAL);
    // A descriptor with record priority keeps the others from changing the device.
    const int recorder = c.io().open(c.path(), O_RDWR);
    uint32_t priority = V4L2_PRIORITY_RECORD;
    ASSERT_EQ(c.io().ioctl(recorder, VIDIOC_S_PRIORITY, &priority), 0);
    priority = 0;
    ASSERT_EQ(c.call(VIDIOC_G_PRIORITY, &priority), 0);
    EXPECT_EQ(priority, uint32_t{V4L2_PRIORITY_RECORD});
    f = captureFormat(672, 380);
    EXPECT_EQ(c.call(VIDIOC_S_FMT, &f), EBUSY);
    EXPECT_EQ(c.call(VIDIOC_TRY_FMT, &f), 0) << "trying changes nothing";
    ASSERT_EQ(c.io().close(recorder), 0);
    EXPECT_EQ(c.call(VIDIOC_S_FMT, &f), 0);
}

// Beyond what the conformance tool checks: a written value reaches the other descriptors
// subscribed to the control (not the writer, which asked for no feedback, and only when the value
// changed), a newer event replaces a pending one of the same control, and an extended write with
// one refused control writes none.
TEST(SimV4l2, ControlEventsReachOtherDescriptorsAndExtendedWritesAreAllOrNothing) {
    SimClient c;
    const int other = c.io().open(c.path(), O_RDWR | O_NONBLOCK);
    const auto callOther = [&](unsigned long request, void* argument) {
        return c.io().ioctl(other, request, argument) == 0 ? 0 : errno;
    };
    v4l2_event_subscription subscription{};
    subscription.type = V4L2_EVENT_CTRL;
    subscription.id = sensor::CID_HFLIP;
    ASSERT_EQ(c.call(VIDIOC_SUBSCRIBE_EVENT, &subscription), 0);
    ASSERT_EQ(callOther(VIDIOC_SUBSCRIBE_EVENT, &subscription), 0);
    v4l2_control flip{sensor::CID_HFLIP, 1};
    ASSERT_EQ(c.call(VIDIOC_S_CTRL, &flip), 0);
    ASSERT_EQ(c.call(VIDIOC_S_CTRL, &flip), 0) << "unchanged: no event";
    v4l2_ext_control ext[2] = {};
    ext[0].id = sensor::CID_GAIN;
    ext[0].value = 1 << 20;
    ext[1].id = sensor::CID_HFLIP;
    v4l2_ext_controls controls{};
    controls.count = 2;
    controls.controls = ext;
    ASSERT_EQ(c.call(VIDIOC_S_EXT_CTRLS, &controls), 0);
    EXPECT_EQ(ext[0].value, 2047) << "clamped as S_CTRL clamps";
    v4l2_event event{};
    EXPECT_EQ(c.call(VIDIOC_DQEVENT, &event), ENOENT) << "the writer hears nothing";
    ASSERT_EQ(callOther(VIDIOC_DQEVENT, &event), 0);
    EXPECT_EQ(event.id, sensor::CID_HFLIP);
    EXPECT_EQ(event.u.ctrl.value, 0);
    EXPECT_EQ(event.sequence, 1u) << "the second change replaced the first";
    EXPECT_EQ(event.pending, 0u);
    EXPECT_EQ(callOther(VIDIOC_DQEVENT, &event), ENOENT);
    ext[0].value = 5;
    ext[1].id = sensor::CID_AVG_LUMINANCE;
    EXPECT_EQ(c.call(VIDIOC_TRY_EXT_CTRLS, &controls), EACCES);
    EXPECT_EQ(controls.error_idx, 1u) << "TRY names the refused control";
    EXPECT_EQ(c.call(VIDIOC_S_EXT_CTRLS, &controls), EACCES);
    EXPECT_EQ(controls.error_idx, 2u) << "S names none";
    EXPECT_EQ(c.sensor().control(sensor::CID_GAIN), 2047) << "nothing was written";
    ASSERT_EQ(c.io().close(other), 0);
}

// A requeued buffer forgets its last frame; select takes a timeout with 1000000 us or more.
TEST(SimV4l2, QueueForgetsTheLastFrameAndSelectNormalisesItsTimeout) {
    SimClient c;
    c.start(672, 380);
    c.sensor().step(2);
    const v4l2_buffer first = *c.dequeue();
    timeval longWait{0, 2500000};
    EXPECT_EQ(c.io().select(c.fd(), &longWait), 1);
    const v4l2_buffer second = *c.dequeue();
    EXPECT_EQ(second.sequence, 1u);
    ASSERT_EQ(c.queue(second.index), 0);
    v4l2_buffer queried = userptrBuffer(second.index);
    ASSERT_EQ(c.call(VIDIOC_QUERYBUF, &queried), 0);
    EXPECT_EQ(queried.bytesused, 0u);
    EXPECT_EQ(queried.sequence, 0u);
    EXPECT_EQ(queried.timestamp.tv_sec | queried.timestamp.tv_usec, 0);
    EXPECT_EQ(first.sequence, 0u);
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
    // A waiting select wakes with the descriptor readable; the DQBUF that follows says why.
    EXPECT_EQ(selectWhile(c, [&] { c.sensor().disconnect(); }), std::pair(1, 0));
    v4l2_buffer gone = userptrBuffer(0);
    EXPECT_EQ(c.call(VIDIOC_DQBUF, &gone), ENODEV);
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

// Lost frames leave gaps in the sequence, damaged buffers come back flagged; both as injected,
// and counted by the sensor as a client sees them.
TEST(SimFaults, LostFramesAndDamagedBuffersAreSeenAsInjected) {
    SimClient c({{"sim.dropEvery", "3"}, {"sim.errorEvery", "2"}});
    c.start(672, 380);
    uint32_t gaps = 0, damaged = 0, next = 0;
    for (int frame = 0; frame < 12; ++frame) {
        c.sensor().step();
        const std::optional<v4l2_buffer> b = c.dequeue();
        if (!b) continue;
        gaps += b->sequence - next;
        next = b->sequence + 1;
        damaged += (b->flags & V4L2_BUF_FLAG_ERROR) != 0;
        ASSERT_EQ(c.queue(b->index), 0);
    }
    EXPECT_EQ(gaps + (12 - next), 4u) << "frames 2, 5, 8 and 11 are lost";
    EXPECT_EQ(damaged, 4u) << "every second of the 8 completed buffers";
    EXPECT_EQ(c.sensor().framesDropped(), 4u);
    EXPECT_EQ(c.sensor().errorBuffers(), 4u);
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
