// Faults from the sensor and the CUDA runtime through the whole device: a stalled camera, a
// failing dequeue, a disconnect, failures while starting, and interrupted control calls. The
// device keeps the healthy cameras delivering, logs a failure once, never spins, and always
// stops and frees what it allocated.
#include "CUDADeviceImpl.h"
#include "SensorControls.h"
#include "sim/SimulatedSensor.h"
#include "support/GpuPresence.h"
#include "support/LogCapture.h"
#include "support/SimCamera.h"

#include <ruvo/capture/CaptureDeviceException.h>

#include <Poco/Util/MapConfiguration.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#ifdef RUVO_HOST_BUILD
#include "host/HostRuntimeControl.h"
#endif

using namespace ruvo::capture;
using ruvo::test::uniqueSimPath;
using namespace std::chrono_literals;

namespace {

// Two free-running small cameras; counts delivered frames per camera.
struct TwoCameras : ::testing::Test {
    void SetUp() override {
        RUVO_REQUIRE_CUDA_DEVICE();
        Poco::AutoPtr<Poco::Util::MapConfiguration> config(new Poco::Util::MapConfiguration());
        for (int i = 0; i < 2; ++i) {
            const std::string p = "devices[" + std::to_string(i) + "].";
            paths[i] = uniqueSimPath("fault");
            config->setString(p + "enabled", "true");
            config->setString(p + "path", paths[i]);
            config->setString(p + "sim.clock", "free");
            config->setString(p + "width", "672");
            config->setString(p + "height", "380");
            config->setString(p + "name", "cam" + std::to_string(i));
        }
        impl = std::make_unique<CUDADeviceImpl>(config, [this](const std::vector<std::shared_ptr<Frame>>& batch) {
            std::lock_guard<std::mutex> lock(mutex);
            for (const auto& f : batch) ++frames[f->cameraId];
            cond.notify_all();
        });
    }
    void TearDown() override {
        if (impl && impl->isRunning()) {  // a failed assertion must not leave threads behind
            try {
                impl->stop();
            } catch (const std::exception&) {
            }
        }
    }
    // Waits until camera `c` delivered `n` more frames than now.
    bool waitForFrames(int c, uint64_t n, std::chrono::milliseconds timeout = 10s) {
        std::unique_lock<std::mutex> lock(mutex);
        const uint64_t target = frames[c] + n;
        return cond.wait_for(lock, timeout, [&] { return frames[c] >= target; });
    }
    uint64_t delivered(int c) {
        std::lock_guard<std::mutex> lock(mutex);
        return frames[c];
    }
    std::shared_ptr<sim::SimulatedSensor> sensor(int c) { return sim::findSensor(paths[c]); }

    std::string paths[2];
    std::unique_ptr<CUDADeviceImpl> impl;
    std::mutex mutex;
    std::condition_variable cond;
    uint64_t frames[2] = {0, 0};
};

}  // namespace

TEST_F(TwoCameras, StalledCameraDoesNotHoldBackTheOtherAndResumes) {
    impl->start();
    ASSERT_TRUE(waitForFrames(0, 3));
    sensor(0)->stall(2500ms);  // past the reader's 2 s wait
    const uint64_t stalledAt = delivered(0);
    ASSERT_TRUE(waitForFrames(1, 20));
    EXPECT_LE(delivered(0), stalledAt + 4);  // at most what was already in flight
    ASSERT_TRUE(waitForFrames(0, 5, 15s));    // resumes once frames come again
    impl->stop();
}

TEST_F(TwoCameras, DequeueFailureIsLoggedOnceWithoutSpinningAndRecovers) {
    ruvo::test::LogCapture log("Util.Worker");
    impl->start();
    ASSERT_TRUE(waitForFrames(0, 2));
    sensor(0)->failDequeue(EIO);
    ASSERT_TRUE(log.waitFor("VIDIOC_DQBUF: Input/output error"));
    const uint64_t failedBefore = impl->produceTask(0).failedSteps();
    ASSERT_TRUE(waitForFrames(1, 30));  // the other camera keeps delivering meanwhile
    std::this_thread::sleep_for(1500ms);  // a window in which a spinning reader would fail thousands of times
    EXPECT_LT(impl->produceTask(0).failedSteps() - failedBefore, 12u);
    EXPECT_EQ(log.count("VIDIOC_DQBUF: Input/output error"), 1u);
    sensor(0)->failDequeue(0);
    ASSERT_TRUE(waitForFrames(0, 3));
    impl->stop();
}

TEST_F(TwoCameras, DisconnectEndsInACompletedStop) {
    ruvo::test::LogCapture log("Util.Worker");
#ifdef RUVO_HOST_BUILD
    const size_t allocations = ruvo::hostrt::liveAllocations();
#endif
    impl->start();
    ASSERT_TRUE(waitForFrames(0, 2));
    sensor(0)->disconnect();
    ASSERT_TRUE(log.waitFor("ProduceTask-0: select"));  // the frame wait fails first on a vanished node
    ASSERT_TRUE(waitForFrames(1, 10));
    try {
        impl->stop();
        FAIL() << "stop() reported nothing for the disconnected camera";
    } catch (const CaptureDeviceException& e) {
        EXPECT_NE(std::string(e.what()).find("cam0"), std::string::npos) << e.what();
    }
    EXPECT_EQ(log.count("ProduceTask-0: select"), 1u);
    EXPECT_EQ(sensor(0)->openCount(), 0u);
    EXPECT_FALSE(sensor(1)->streaming());
    impl.reset();
#ifdef RUVO_HOST_BUILD
    EXPECT_EQ(ruvo::hostrt::liveAllocations(), allocations);
#endif
}

TEST_F(TwoCameras, QueueFailureAtStartReachesTheCallerAndNothingLeaks) {
#ifdef RUVO_HOST_BUILD
    const size_t allocations = ruvo::hostrt::liveAllocations();
#endif
    sensor(1)->failNextQueue(EIO);
    try {
        impl->start();
        FAIL();
    } catch (const CaptureDeviceException& e) {
        EXPECT_STREQ(e.what(), "Start Capturing: VIDIOC_QBUF: Input/output error");
    }
    impl.reset();
    EXPECT_EQ(sim::findSensor(paths[0]), nullptr);
#ifdef RUVO_HOST_BUILD
    EXPECT_EQ(ruvo::hostrt::liveAllocations(), allocations);
#endif
}

TEST_F(TwoCameras, StreamOnFailureAtStart) {
    sensor(0)->failNextStreamOn(EIO);
    try {
        impl->start();
        FAIL();
    } catch (const CaptureDeviceException& e) {
        EXPECT_STREQ(e.what(), "VIDIOC_STREAMON");
    }
    impl.reset();
}

#ifdef RUVO_HOST_BUILD
TEST_F(TwoCameras, ManagedAllocationFailureAtStart) {
    const size_t allocations = ruvo::hostrt::liveAllocations();
    ruvo::hostrt::failCall("cudaMallocManaged", cudaErrorMemoryAllocation, 1, 5);
    try {
        impl->start();
        FAIL();
    } catch (const CUDADeviceException& e) {
        EXPECT_NE(std::string(e.what()).find("cudaMallocManaged("), std::string::npos);
        EXPECT_NE(std::string(e.what()).find("at src/CUDACamera.cpp:"), std::string::npos);
    }
    ruvo::hostrt::resetFaults();
    impl.reset();
    EXPECT_EQ(ruvo::hostrt::liveAllocations(), allocations);
}
#endif

// An interrupted control call is repeated, never reported.
TEST_F(TwoCameras, InterruptedControlCallsAreRepeated) {
    impl->start();
    CUDACamera& camera = impl->camera(0);
    sensor(0)->interruptNextIoctl(3);
    camera.setControl(sensor::CID_RED_GAIN, 1500);
    sensor(0)->interruptNextIoctl(2);
    EXPECT_EQ(camera.getControl(sensor::CID_RED_GAIN), 1500);
    ASSERT_TRUE(waitForFrames(0, 2));
    impl->stop();
}

// An interrupted frame wait is a failed step: logged, then reading goes on.
TEST_F(TwoCameras, InterruptedFrameWaitIsLoggedAndReadingGoesOn) {
    ruvo::test::LogCapture log("Util.Worker");
    impl->start();
    ASSERT_TRUE(waitForFrames(0, 2));
    sensor(0)->interruptNextSelect();
    ASSERT_TRUE(log.waitFor(": select"));
    ASSERT_TRUE(waitForFrames(0, 3));
    impl->stop();
}
