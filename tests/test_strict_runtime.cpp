// The host runtime's strict mode, which behaves as a device without concurrent managed access,
// and the camera and device under it: kernels run at synchronisation; the CPU may not touch
// managed memory while kernels that may use it are pending; launch-time failures surface only
// through cudaGetLastError; device flags must come before the context. A camera must keep its
// buckets' inputs usable by the driver while other buckets are processed, report a failed launch
// by the kernel's name without delivering the frame, and wait for a failed frame's kernels before
// giving its bucket back.
#include "CUDACamera.h"
#include "sim/SimulatedSensor.h"
#include "support/LogCapture.h"
#include "support/SimCamera.h"

#include <ruvo/capture/CUDADevice.h>
#include <ruvo/capture/CaptureDeviceException.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#ifndef RUVO_CUDA_BUILD
#include "host/runtime/HostDeviceWork.h"
#include "host/runtime/HostRuntimeControl.h"

#include <Poco/Util/PropertyFileConfiguration.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <future>
#include <numeric>
#include <sstream>
#include <thread>
#include <utility>

namespace {

using namespace ruvo::capture;
namespace hostrt = ruvo::hostrt;
using ruvo::test::simCameraConfig;
using ruvo::test::uniqueSimPath;

// Strict mode for the test's lifetime; whatever the test made is gone before it is switched off.
struct Strict : ::testing::Test {
    Strict() { hostrt::setStrictMode(true); }
    ~Strict() override {
        hostrt::release();
        if (camera) camera->abandon(false);
        camera.reset();
        hostrt::resetFaults();
        hostrt::setStrictMode(false);
    }
    void startCamera(const ruvo::test::Keys& keys = {}) {
        camera = std::make_unique<CUDACamera>(simCameraConfig(path, keys), 0);
        camera->start();
    }
    CUDACamera::Bucket* next() {
        sim::findSensor(path)->step();
        return camera->read();
    }
    std::string path = uniqueSimPath("strict");
    std::unique_ptr<CUDACamera> camera;
};

// Which managed memory the CPU may touch while a kernel is pending on stream `busy`.
TEST_F(Strict, CpuAccessWhileAKernelIsPendingFollowsTheAttachment) {
    cudaStream_t busy = nullptr, idle = nullptr;
    ASSERT_EQ(cudaStreamCreateWithFlags(&busy, cudaStreamNonBlocking), cudaSuccess);
    ASSERT_EQ(cudaStreamCreateWithFlags(&idle, cudaStreamNonBlocking), cudaSuccess);
    struct Case {
        const char* what;
        unsigned flags;
        cudaStream_t stream;
        bool faults;
    };
    for (const Case& c : {Case{"global", cudaMemAttachGlobal, nullptr, true},
                          Case{"the busy stream's", cudaMemAttachSingle, busy, true},
                          Case{"another stream's", cudaMemAttachSingle, idle, false},
                          Case{"the host's", cudaMemAttachHost, nullptr, false}}) {
        SCOPED_TRACE(c.what);
        int* memory = nullptr;
        ASSERT_EQ(cudaMallocManaged(reinterpret_cast<void**>(&memory), 3 * sizeof(int), cudaMemAttachGlobal),
                  cudaSuccess);
        memory[2] = 5;
        ASSERT_EQ(cudaStreamAttachMemAsync(c.stream ? c.stream : busy, memory, 0, c.flags), cudaSuccess);
        int* seen = hostrt::deviceView(memory);
        ASSERT_EQ(hostrt::launch("probe", busy, [seen] { seen[0] = seen[2] + 1; }), cudaSuccess);
        EXPECT_EQ(hostrt::pendingLaunches(), 1u);
        const volatile int* cpu = memory;
        (void)cpu[1];  // the CPU touches the memory while the kernel is pending
        EXPECT_THAT(hostrt::accessViolations(), ::testing::SizeIs(c.faults ? 1u : 0u));
        ASSERT_EQ(cudaStreamSynchronize(busy), cudaSuccess);
        EXPECT_EQ(hostrt::pendingLaunches(), 0u);
        EXPECT_EQ(memory[0], 6);  // the kernel ran at synchronisation, through its own view
        EXPECT_EQ(hostrt::accessViolations().size(), c.faults ? 1u : 0u);
        ASSERT_EQ(cudaFree(memory), cudaSuccess);
        hostrt::setStrictMode(true);  // clears the record for the next case
    }
    EXPECT_EQ(cudaStreamDestroy(busy), cudaSuccess);
    EXPECT_EQ(cudaStreamDestroy(idle), cudaSuccess);
}

// One bucket's kernels are pending while the sensor fills the next queued bucket from the CPU and
// the client reads the outputs of a bucket it holds: neither may touch memory the kernels own. So
// for the default layout, for a delivered format the camera converts on the bucket's stream, and
// for a sensor whose black level and channel gains the camera applies there (the generic one).
struct StrictFormats : Strict, ::testing::WithParamInterface<std::pair<const char*, const char*>> {};

TEST_P(StrictFormats, DriverFillsAndClientReadsOtherBucketsWhileKernelsRun) {
    hostrt::fillNewAllocations(0xEE);
    startCamera({{GetParam().first, GetParam().second}});
    CUDACamera::Bucket* held = next();
    ASSERT_NE(held, nullptr);
    const auto& plane = held->buffers[0];
    const size_t bytes = plane.cudaOut.size;
    const auto sum = [&] { return std::accumulate(plane.frame.data, plane.frame.data + bytes, uint64_t{0}); };
    const uint64_t heldSum = sum();

    hostrt::hold();
    sim::findSensor(path)->step();
    auto reader = std::async(std::launch::async, [this] { return camera->read(); });
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (hostrt::pendingLaunches() == 0 && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    ASSERT_GT(hostrt::pendingLaunches(), 0u);
    sim::findSensor(path)->step();  // the sensor writes a queued bucket's input from this thread
    EXPECT_EQ(sum(), heldSum);      // the client reads the bucket it holds
    hostrt::release();
    CUDACamera::Bucket* processed = reader.get();
    ASSERT_NE(processed, nullptr);
    EXPECT_NE(processed->index, held->index);
    EXPECT_THAT(hostrt::accessViolations(), ::testing::IsEmpty());
    // The deferred kernels wrote the frame: the poison is left only where the picture has its value.
    const auto& y = processed->buffers[0].frame;
    EXPECT_LT(std::count(y.data, y.data + y.width * y.height, 0xEE) * 100, y.width * y.height);
    camera->release(held->index);
    camera->release(processed->index);
    camera->stop();
}

INSTANTIATE_TEST_SUITE_P(Delivered, StrictFormats,
                         ::testing::Values(std::pair{"sim.format", "default"}, std::pair{"sim.format", "pRAA"},
                                           std::pair{"sim.controls", "generic"}));

// Each kernel of the richest plan fails at launch in turn: the frame is refused with the kernel's
// name (the first one's message also gives its shape, the configuration and the size; never
// delivered), its bucket goes back only after its already enqueued kernels finished, and the
// camera carries on with every bucket, the failed one included.
TEST_F(Strict, FailedLaunchIsReportedByNameAndTheBucketComesBackSafely) {
    startCamera({{"outputBufferFormats", "2"}});
    for (const char* kernel : {"yuv420_fast_skin_histogram", "DeviceHistogramSweepKernel", "step_down_Y_twice",
                               "step_down_erode_Y", "step_down_YUV"}) {
        SCOPED_TRACE(kernel);
        hostrt::failCall(kernel, cudaErrorLaunchOutOfResources);
        std::string message;
        try {
            next();
        } catch (const CUDADeviceException& e) {
            message = e.what();
        }
        const bool named =
            message.find(kernel) != std::string::npos || message.find("cub::DeviceHistogram::HistogramEven(") == 0;
        EXPECT_TRUE(named) << message;
        EXPECT_NE(message.find("cudaErrorLaunchOutOfResources(701) too many resources requested for launch"),
                  std::string::npos)
            << message;
        if (kernel == std::string("yuv420_fast_skin_histogram")) {
            EXPECT_EQ(message.rfind("yuv420_fast_skin_histogram<<<(20, 15), (32, 24)>>> of output configuration 2 at "
                                    "1280x720 at src/CUDAKernels.cu:",
                                    0),
                      0u)
                << message;
        }
        EXPECT_EQ(hostrt::pendingLaunches(), 0u);
        for (int frame = 0; frame < 4; ++frame) {
            CUDACamera::Bucket* bucket = next();
            ASSERT_NE(bucket, nullptr);
            camera->release(bucket->index);
        }
    }
    EXPECT_THAT(hostrt::accessViolations(), ::testing::IsEmpty());
    camera->stop();
}

// Device start-up on a device without concurrent managed access: the flags take effect (they come
// before the context) and the managed-memory properties are logged.
TEST_F(Strict, DeviceSetsItsFlagsBeforeTheContextAndLogsManagedMemory) {
    ruvo::test::LogCapture log("Capture.CUDADevice");
    std::istringstream text("cuda.unused=1\n");
    Poco::AutoPtr<Poco::Util::PropertyFileConfiguration> config(new Poco::Util::PropertyFileConfiguration(text));
    {
        CUDADevice device(config);
        unsigned int flags = 0;
        ASSERT_EQ(cudaGetDeviceFlags(&flags), cudaSuccess);
        EXPECT_EQ(flags, unsigned{cudaDeviceMapHost | cudaDeviceScheduleBlockingSync});
    }
    EXPECT_THAT(log.lines(), ::testing::Contains(::testing::HasSubstr("managedMemory 1, concurrentManagedAccess 0")));
}

}  // namespace

#endif  // the CUDA build has the device itself, not this model of one
