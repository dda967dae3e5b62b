// Camera lifecycle against the simulated sensor: the failure texts of opening and format
// negotiation, and start-read-release-stop cycles for every output configuration, size and
// memory mode with the bucket memory each one lays out.
#include "CUDACamera.h"
#include "OutputBufferConfig.h"
#include "sim/SimulatedSensor.h"
#include "support/CameraTestAccess.h"
#include "support/GpuPresence.h"
#include "support/SimCamera.h"

#include <ruvo/capture/CaptureDeviceException.h>

#include <linux/videodev2.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#ifdef RUVO_HOST_BUILD
#include "host/runtime/HostRuntimeControl.h"
#endif

using namespace ruvo::capture;
using ruvo::test::simCameraConfig;
using ruvo::test::uniqueSimPath;

namespace {

std::string startError(CUDACamera& camera) {
    try {
        camera.start();
    } catch (const CaptureDeviceException& e) {
        return e.what();
    }
    return "";
}

}  // namespace

TEST(CameraOpen, FailuresNameTheCause) {
    const std::string file = ::testing::TempDir() + "ruvo-not-a-device";
    std::ofstream(file) << "x";
    struct Case {
        std::string path;
        ruvo::test::Keys keys;
        std::string message;
    };
    for (const Case& k : {Case{"/nonexistent/ruvo-video99",
                               {},
                               "Cannot identify \"/nonexistent/ruvo-video99\" (2): No such file or directory"},
                          Case{file, {}, "Not a device: \"" + file + "\""},
                          Case{uniqueSimPath("fmt"), {{"width", "1281"}}, "Unsupported resolution: 1281x720"},
                          // offered by the driver, but off the pipeline's 16-pixel grid
                          Case{uniqueSimPath("fmt"),
                               {{"width", "1640"}, {"height", "1232"}, {"sim.sizes", "1640x1232"}},
                               "Unsupported resolution: 1640x1232"},
                          // the crop of no size the driver offers
                          Case{uniqueSimPath("fmt"),
                               {{"width", "1632"}, {"height", "1232"}, {"sim.sizes", "1280x720,3280x2464"}},
                               "Unsupported resolution: 1632x1232"}}) {
        CUDACamera camera(simCameraConfig(k.path, k.keys), 0);
        EXPECT_EQ(startError(camera), k.message);
    }
    std::remove(file.c_str());
}

struct SizeCase {
    uint32_t width, height, rows;
};

class CameraCycle : public ::testing::TestWithParam<std::tuple<int, SizeCase, std::string>> {};

// Every configuration at every size in both memory modes: one frame in, every output out and
// back, stop frees all.
TEST_P(CameraCycle, StartReadReleaseStop) {
    RUVO_REQUIRE_CUDA_DEVICE();
    const int configuration = std::get<0>(GetParam());
    const SizeCase size = std::get<1>(GetParam());
    const std::string memory = std::get<2>(GetParam());
    const std::string path = uniqueSimPath("cycle");
    CUDACamera camera(simCameraConfig(path, {{"width", std::to_string(size.width)},
                                             {"height", std::to_string(size.height)},
                                             {"outputBufferFormats", std::to_string(configuration)},
                                             {"memory", memory}}),
                      0);
#ifdef RUVO_HOST_BUILD
    const size_t allocationsBefore = ruvo::hostrt::liveAllocations();
    const size_t streamsBefore = ruvo::hostrt::liveStreams();
#endif
    auto sensor = sim::findSensor(path);
    ASSERT_NE(sensor, nullptr);
    EXPECT_EQ(sensor->openCount(), 0u) << "construction touches no device";
    camera.start();
    EXPECT_EQ(sensor->queuedCount(), 4u);
    ASSERT_TRUE(sensor->step());
    CUDACamera::Bucket* bucket = camera.read();
    ASSERT_NE(bucket, nullptr);
    EXPECT_EQ(bucket->status, CUDACamera::Bucket::USED);
    EXPECT_EQ(bucket->cuda_height, size.rows);
    EXPECT_EQ(bucket->cudaIn.size, size.width * size.rows * 2);
    if (memory == "userptr") {
        EXPECT_EQ(bucket->v4l2.size, size.width * size.height * 2);
    } else {
        EXPECT_GE(bucket->v4l2.size, size.width * size.height * 2);
    }
    // A mapped driver buffer is read in place when the padding rows fit in it, else copied from.
    EXPECT_EQ(bucket->v4l2.data == bucket->cudaIn.host, memory == "userptr" || size.rows == size.height);
    const auto& definitions = CUDA_OUTPUT_BUFFER_CONFIG[configuration];
    ASSERT_EQ(bucket->buffers.size(), definitions.size());
    EXPECT_EQ(bucket->releaseCounter.load(), definitions.size());
    for (size_t k = 0; k < definitions.size(); ++k) {
        const auto& frame = bucket->buffers[k].frame;
        const auto level = static_cast<int>(definitions[k].outputLevel);
        if (level >= 0) {
            EXPECT_EQ(frame.width, size.width >> level) << "buffer " << k;
            EXPECT_EQ(frame.height, size.height >> level) << "buffer " << k;
            EXPECT_EQ(frame.cuda_height, size.rows >> level) << "buffer " << k;
        }
        EXPECT_NE(frame.data, nullptr);
    }
    EXPECT_EQ(sensor->queuedCount(), 3u);
    for (unsigned k = 0; k < definitions.size(); ++k) camera.release(bucket->index, k);
    EXPECT_EQ(bucket->status, CUDACamera::Bucket::FREE);
    EXPECT_EQ(sensor->queuedCount(), 4u);
    camera.stop();
    EXPECT_FALSE(sensor->streaming());
#ifdef RUVO_HOST_BUILD
    EXPECT_EQ(ruvo::hostrt::liveAllocations(), allocationsBefore);
    EXPECT_EQ(ruvo::hostrt::liveStreams(), streamsBefore);
#endif
}

INSTANTIATE_TEST_SUITE_P(AllConfigurationsAndSizes, CameraCycle,
                         ::testing::Combine(::testing::Range(0, 12),
                                            ::testing::Values(SizeCase{672, 380, 384}, SizeCase{1280, 720, 720},
                                                              SizeCase{1920, 1080, 1152}, SizeCase{2688, 1520, 1520}),
                                            ::testing::Values("userptr", "mmap")));

// The two memory modes deliver the same processed frames, whether the mapped buffer is read in
// place (1280x720) or copied from (672x380, whose padding rows do not fit in the driver's buffer).
TEST(CameraMemory, MappedAndUserPointerCamerasDeliverTheSameFrames) {
    RUVO_REQUIRE_CUDA_DEVICE();
    for (const SizeCase size : {SizeCase{672, 380, 384}, SizeCase{1280, 720, 720}}) {
        SCOPED_TRACE(size.width);
        std::vector<std::vector<uint8_t>> outputs[2];
        for (int mode = 0; mode < 2; ++mode) {
            const std::string path = uniqueSimPath("same");
            CUDACamera camera(simCameraConfig(path, {{"width", std::to_string(size.width)},
                                                     {"height", std::to_string(size.height)},
                                                     {"outputBufferFormats", "2"},
                                                     {"memory", mode == 0 ? "userptr" : "mmap"}}),
                              0);
            camera.start();
            ASSERT_TRUE(sim::findSensor(path)->step());
            CUDACamera::Bucket* bucket = camera.read();
            ASSERT_NE(bucket, nullptr);
            for (const auto& buffer : bucket->buffers)
                outputs[mode].emplace_back(buffer.frame.data, buffer.frame.data + buffer.frame.size);
            camera.release(bucket->index);
            camera.stop();
        }
        ASSERT_EQ(outputs[0].size(), outputs[1].size());
        for (size_t k = 0; k < outputs[0].size(); ++k) EXPECT_TRUE(outputs[0][k] == outputs[1][k]) << "buffer " << k;
    }
}

#ifdef RUVO_HOST_BUILD
// The byte counts of a 672x380 frame in 384 allocated rows with the histogram row's seven outputs,
// each attached to its bucket's stream. The rows below the frame are processed but never written
// by the driver: with the allocator handing back dirty memory they must still read as black.
TEST(CameraMemory, ByteCountsStreamsAndZeroPaddingRows) {
    const std::string path = uniqueSimPath("bytes");
    CUDACamera camera(simCameraConfig(path, {{"outputBufferFormats", "2"}, {"width", "672"}, {"height", "380"}}), 0);
    ruvo::hostrt::fillNewAllocations(0xa5);
    camera.start();
    ruvo::hostrt::resetFaults();
    for (const CUDACamera::Bucket& bucket : CUDACameraTestAccess::buckets(camera)) {
        ASSERT_EQ(bucket.cuda_height, 384u);
        EXPECT_EQ(ruvo::hostrt::allocationSize(bucket.cudaIn.host), 672u * 384 * 2);
        EXPECT_EQ(ruvo::hostrt::attachedStream(bucket.cudaIn.host), bucket.stream);
        const auto* raw = static_cast<const unsigned char*>(bucket.cudaIn.host);
        const size_t frameBytes = 672 * 380 * 2, paddingBytes = 672 * 4 * 2;
        EXPECT_EQ(std::count(raw + frameBytes, raw + frameBytes + paddingBytes, 0), static_cast<long>(paddingBytes));
        ASSERT_EQ(bucket.buffers.size(), 7u);
        EXPECT_EQ(ruvo::hostrt::allocationSize(bucket.buffers[0].cudaOut.host), 672u * 384 * 3 / 2);
        EXPECT_EQ(ruvo::hostrt::allocationSize(bucket.buffers[4].cudaOut.host), 1024u) << "256 counters";
        EXPECT_EQ(bucket.buffers[4].frame.width + bucket.buffers[4].frame.height, 0u) << "a histogram has no size";
        for (size_t k = 0; k < 7; ++k) {
            EXPECT_EQ(bucket.extraCudaDevicePtrCounts[k], k == 4 ? 1u : 0u) << "buffer " << k;
            EXPECT_EQ(ruvo::hostrt::attachedStream(bucket.buffers[k].cudaOut.host), bucket.stream);
        }
        EXPECT_GT(bucket.extraCudaDevicePtrsLengths[4][0], 0);
    }
    camera.stop();
}

// Buffers are requested with count 0 and no memory is made; the driver then refuses to stream.
TEST(CameraMemory, PoolOfZeroAllocatesNothing) {
    const std::string path = uniqueSimPath("pool0");
    CUDACamera camera(simCameraConfig(path, {{"bufferPoolSize", "0"}}), 0);
    const size_t before = ruvo::hostrt::liveAllocations();
    EXPECT_EQ(startError(camera), "VIDIOC_STREAMON");
    EXPECT_EQ(ruvo::hostrt::liveAllocations(), before);
    EXPECT_TRUE(CUDACameraTestAccess::buckets(camera).empty());
}

// A failing allocation names its call, file and line; the camera can be destroyed afterwards.
TEST(CameraMemory, FailedManagedAllocationReportsTheCall) {
    const std::string path = uniqueSimPath("oom");
    const size_t before = ruvo::hostrt::liveAllocations();
    auto camera = std::make_unique<CUDACamera>(simCameraConfig(path), 0);
    ruvo::hostrt::failCall("cudaMallocManaged", cudaErrorMemoryAllocation, 1, 1);
    try {
        camera->start();
        FAIL() << "start() succeeded";
    } catch (const CUDADeviceException& e) {
        const std::string what = e.what();
        EXPECT_EQ(what.rfind("cudaMallocManaged((void**)&buffer.cudaOut.host, length * bytesPerPx, "
                             "cudaMemAttachGlobal) at src/CUDACamera.cpp:",
                             0),
                  0u)
            << what;
        EXPECT_NE(what.find(": cudaErrorMemoryAllocation(2) out of memory\n"), std::string::npos) << what;
    }
    ruvo::hostrt::resetFaults();
    EXPECT_GT(ruvo::hostrt::liveAllocations(), before);
    camera.reset();  // a camera left half started gives its memory and node back when destroyed
    EXPECT_EQ(ruvo::hostrt::liveAllocations(), before);
    EXPECT_EQ(sim::findSensor(path), nullptr);
}
#endif

namespace {

// Forwards every call to the camera's own device I/O; a successful DQBUF is answered with
// `index` in place of the driver's.
class IndexRewritingIo : public DeviceIo {
public:
    IndexRewritingIo(std::shared_ptr<DeviceIo> inner, uint32_t index) : _inner(std::move(inner)), _index(index) {}
    int stat(const std::string& path, struct ::stat* status) override { return _inner->stat(path, status); }
    int open(const std::string& path, int flags) override { return _inner->open(path, flags); }
    int close(int fd) override { return _inner->close(fd); }
    int select(int fd, struct ::timeval* timeout) override { return _inner->select(fd, timeout); }
    void* mmap(int fd, size_t length, off_t offset) override { return _inner->mmap(fd, length, offset); }
    int munmap(void* address, size_t length) override { return _inner->munmap(address, length); }
    int ioctl(int fd, unsigned long request, void* argument) override {
        const int result = _inner->ioctl(fd, request, argument);
        if (request == VIDIOC_DQBUF && result == 0) static_cast<v4l2_buffer*>(argument)->index = _index;
        return result;
    }

private:
    std::shared_ptr<DeviceIo> _inner;
    uint32_t _index;
};

class CameraReadDeathTest : public ::testing::TestWithParam<uint32_t> {};

// A driver that dequeues a buffer index past the pool (the pool size itself included) stops the
// program instead of letting the camera read past its buckets, whatever the build type.
TEST_P(CameraReadDeathTest, DriverBufferIndexPastThePoolAborts) {
    RUVO_REQUIRE_CUDA_DEVICE();
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const std::string path = uniqueSimPath("badindex");
    CUDACamera camera(simCameraConfig(path, {{"bufferPoolSize", "4"}}), 0);
    camera.start();
    std::shared_ptr<DeviceIo>& io = CUDACameraTestAccess::io(camera);
    io = std::make_shared<IndexRewritingIo>(io, GetParam());
    EXPECT_DEATH(
        {
            sim::findSensor(path)->step();
            camera.read();
        },
        "buf.index < _buckets.size");
    camera.stop();
}

INSTANTIATE_TEST_SUITE_P(Indices, CameraReadDeathTest, ::testing::Values(4u, 0xFFFFFFFFu));

}  // namespace
