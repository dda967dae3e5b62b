// The device front end to end with simulated cameras: the device list, delivery in batches with
// every buffer lent out coming back, control routing and its refusals;
// and faults from the sensor and the CUDA runtime (a stalled camera, a failing dequeue, a
// disconnect, failures while starting, an interrupted frame wait), after which the healthy
// camera keeps delivering, a failure is logged once, nothing spins and everything is freed.
#include "CUDADeviceImpl.h"
#include "sim/SimulatedSensor.h"
#include "support/CameraTestAccess.h"
#include "support/GpuPresence.h"
#include "support/LogCapture.h"
#include "support/SimCamera.h"

#include <ruvo/capture/CUDADevice.h>
#include <ruvo/capture/CaptureDeviceException.h>

#include <Poco/Util/PropertyFileConfiguration.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <functional>
#include <future>
#include <map>
#include <mutex>
#include <sstream>
#include <thread>

#ifdef RUVO_HOST_BUILD
#include "host/runtime/HostRuntimeControl.h"
#endif

using namespace ruvo::capture;
using namespace std::chrono_literals;
using ruvo::test::uniqueSimPath;

namespace {

Poco::AutoPtr<Poco::Util::AbstractConfiguration> properties(const std::string& text) {
    std::istringstream in(text);
    return new Poco::Util::PropertyFileConfiguration(in);
}

// The properties of camera entry `i`: enabled, at `path`, with a stepped clock unless `keys` say otherwise.
std::string entry(int i, const std::string& path, std::map<std::string, std::string> keys = {}) {
    keys.insert({{"enabled", "true"}, {"path", path}, {"sim.clock", "stepped"}});
    std::string text;
    for (const auto& [key, value] : keys) text += "devices[" + std::to_string(i) + "]." + key + "=" + value + "\n";
    return text;
}

// What the device delivered on its delivery thread: batches, frames per camera, and the frames
// themselves while `keep` is set.
struct Client {
    std::mutex mutex;
    std::condition_variable cond;
    size_t batches = 0;
    uint64_t frames[2] = {0, 0};
    std::vector<std::shared_ptr<Frame>> kept;
    std::atomic<bool> keep{false};

    OnNewDataCallback callback() {
        return [this](const std::vector<std::shared_ptr<Frame>>& batch) {
            std::lock_guard<std::mutex> lock(mutex);
            ++batches;
            for (const auto& f : batch) ++frames[f->cameraId];
            if (keep) kept.insert(kept.end(), batch.begin(), batch.end());
            cond.notify_all();
        };
    }
    bool waitFor(const std::function<bool()>& condition, std::chrono::seconds timeout = 10s) {
        std::unique_lock<std::mutex> lock(mutex);
        return cond.wait_for(lock, timeout, condition);
    }
    // Waits until camera `c` delivered `n` more frames than now.
    bool waitForFrames(int c, uint64_t n, std::chrono::seconds timeout = 10s) {
        const uint64_t target = delivered(c) + n;
        return waitFor([&] { return frames[c] >= target; }, timeout);
    }
    uint64_t delivered(int c) {
        std::lock_guard<std::mutex> lock(mutex);
        return frames[c];
    }
};

struct Device : ::testing::Test {
    void SetUp() override { RUVO_REQUIRE_CUDA_DEVICE(); }
    Client client;
};

// Two free-running small cameras named cam0 and cam1.
struct TwoCameras : ::testing::Test {
    void SetUp() override {
        RUVO_REQUIRE_CUDA_DEVICE();
        std::string text;
        for (int i = 0; i < 2; ++i) {
            text += entry(
                i, paths[i],
                {{"sim.clock", "free"}, {"width", "672"}, {"height", "380"}, {"name", "cam" + std::to_string(i)}});
        }
        impl = std::make_unique<CUDADeviceImpl>(properties(text), client.callback());
    }
    void TearDown() override {
        if (impl && impl->isRunning()) {  // a failed assertion must not leave threads behind
            try {
                impl->stop();
            } catch (const std::exception&) {
            }
        }
    }
    std::string startError() {
        try {
            impl->start();
        } catch (const std::exception& e) {
            return e.what();
        }
        return "";
    }
    std::shared_ptr<sim::SimulatedSensor> sensor(int c) { return sim::findSensor(paths[c]); }

    std::string paths[2] = {uniqueSimPath("fault"), uniqueSimPath("fault")};
    Client client;
    std::unique_ptr<CUDADeviceImpl> impl;
};

}  // namespace

// A disabled entry keeps its number but takes no position; a gap ends the list. (The tool's info
// test reads the same list from properties, INI, XML and JSON files.)
TEST_F(Device, TheCameraListFromProperties) {
    const std::string path = uniqueSimPath("dev");
    CUDADeviceImpl impl(properties(entry(0, uniqueSimPath("off"), {{"enabled", "false"}}) + entry(1, path) +
                                   entry(3, uniqueSimPath("gap"))),
                        nullptr);
    ASSERT_EQ(impl.numDevices(), 1u);
    EXPECT_EQ(impl.produceThreadName(0), "ProduceThread-1");
    EXPECT_EQ(CUDACameraTestAccess::index(impl.camera(0)), 1);
    EXPECT_EQ(impl.camera(0).getParams().path, path);
    EXPECT_EQ(CUDADevice(properties(entry(0, uniqueSimPath("x"), {{"enabled", "false"}}))).numDevices(), 0u);
    EXPECT_EQ(CUDADevice(properties("cuda.unused=1\n")).numDevices(), 0u);
}

// Every buffer lent out comes back. While a client holds a frame, stop() waits for it and returns
// once another thread drops it; a bounded stop instead ends capture at once, names the camera,
// bucket and output held and keeps the held bytes readable: then either a second stop completes
// once the frame is dropped, or the device is destroyed first and dropping the frame afterwards
// must not reach the freed camera (the address sanitizer stage turns that into a failure). The
// cameras open again after a stop, and frame ids run on.
TEST_F(Device, EveryBufferLentOutComesBackAndFramesMayOutliveTheirDevice) {
    for (const std::string mode : {"stop waits", "bounded stop, frame dropped", "bounded stop, device destroyed"}) {
        SCOPED_TRACE(mode);
        const std::string path = uniqueSimPath("held");
        auto device = std::make_unique<CUDADevice>(properties(entry(0, path, {{"name", "keeper"}})));
        Client client;
        device->setCallback(client.callback());
        device->start();
        EXPECT_TRUE(device->isRunning());
        auto sensor = sim::findSensor(path);
        for (size_t n = 1; n <= 3; ++n) {
            sensor->step();
            ASSERT_TRUE(client.waitFor([&] { return client.batches == n; }));
        }
        client.keep = true;  // no batch is under way
        sensor->step();
        ASSERT_TRUE(client.waitFor([&] { return client.kept.size() == 1; }));
        std::shared_ptr<Frame> held = std::move(client.kept[0]);
        client.kept.clear();
        const uint32_t firstId = held->frameId;
        const std::vector<uint8_t> before(held->planes[0].data, held->planes[0].data + held->planes[0].stride);
        if (mode == "stop waits") {
            ruvo::test::LogCapture log("Capture.CUDACamera");
            auto stopped = std::async(std::launch::async, [&] { device->stop(); });
            ASSERT_TRUE(log.waitFor("waiting for buffers to be returned: 3/4 free"));
            EXPECT_EQ(stopped.wait_for(0ms), std::future_status::timeout);
            std::thread([held = std::move(held)]() mutable { held.reset(); }).join();
            stopped.get();
        } else {
            const StopReport report = device->stopFor(100ms);
            ASSERT_FALSE(report.complete());
            ASSERT_EQ(report.held.size(), 1u);
            ASSERT_EQ(report.held[0].buckets.size(), 1u);
            EXPECT_EQ(report.held[0].buckets[0].outputs, std::vector<uint32_t>{0});
            EXPECT_EQ(report.describe(),
                      "camera 0 (keeper): bucket " + std::to_string(report.held[0].buckets[0].bucket) + " output 0");
            EXPECT_TRUE(std::equal(before.begin(), before.end(), held->planes[0].data));
        }
        EXPECT_FALSE(device->isRunning());
        EXPECT_FALSE(sensor->streaming());
        if (mode == "bounded stop, device destroyed") {
            device.reset();
            held.reset();
            continue;
        }
        if (held) {
            held.reset();
            EXPECT_TRUE(device->stopFor(0ms).complete());
            EXPECT_TRUE(device->stopFor(0ms).complete()) << "a stopped device stops again at once";
        }
        device->start();
        sensor->step();
        ASSERT_TRUE(client.waitFor([&] { return client.kept.size() == 1; }));
        EXPECT_GT(client.kept[0]->frameId, firstId);
        client.kept.clear();
        device->stop();
    }
}

TEST_F(Device, ControlRoutingAndRefusals) {
    CUDADevice device(properties(entry(0, uniqueSimPath("route"))));
    device.start();
    ruvo::test::LogCapture log("Capture.CUDADevice");
    const Controls before = device.getControls(0);
    Controls c = before;
    c.vFlip = !c.vFlip;
    device.setControls(1, c);
    EXPECT_TRUE(log.contains("Invalid cameraId (1) requested for setControls."));
    EXPECT_EQ(device.getControls(0).vFlip, before.vFlip);
    EXPECT_FALSE(device.setNamedControls(1, "barcode"));
    EXPECT_EQ(log.count("Invalid cameraId (1) requested for setControls."), 2u);
    EXPECT_THROW(device.getControls(1), std::out_of_range);
    EXPECT_THROW(device.getCapabilities(1), std::out_of_range);
    EXPECT_TRUE(device.setNamedControls(0, "barcode"));
    EXPECT_EQ(device.getControls(0).ae.manualMode, "AVGY");
    // A refused change throws the camera's message, restores the controls and unpauses the readers.
    c.width = 1281;
    try {
        device.setControls(0, c);
        FAIL() << "accepted 1281 wide";
    } catch (const CUDADeviceException& e) {
        EXPECT_STREQ(e.what(), "Unsupported resolution");
    }
    EXPECT_EQ(device.getControls(0).width, 1280u);
    c.width = 1280;
    device.setControls(0, c);
    EXPECT_EQ(device.getControls(0).vFlip, c.vFlip);
    device.stop();
}

#ifdef RUVO_HOST_BUILD
TEST(DeviceCuda, NoDeviceIsRefused) {
    ruvo::hostrt::setDeviceCount(0);
    try {
        CUDADevice device(properties(""));
        FAIL();
    } catch (const CaptureDeviceException& e) {
        EXPECT_STREQ(e.what(), "No CUDA devices");
    }
    ruvo::hostrt::resetFaults();
    ruvo::hostrt::failCall("cudaSetDevice", cudaErrorInvalidDevice);
    try {
        CUDADevice device(properties(""));
        FAIL();
    } catch (const CUDADeviceException& e) {
        EXPECT_EQ(std::string(e.what()).rfind("cudaSetDevice(devID) at src/CUDADevice.cpp:", 0), 0u) << e.what();
    }
    ruvo::hostrt::resetFaults();
    EXPECT_THROW(CUDADevice device(nullptr), Poco::NullPointerException);
}
#endif

// Regression: a camera that fails to construct ends the device's construction with its message;
// the cameras already made are destroyed with it (the address sanitizer stage checks for leaks).
TEST_F(Device, AFailingCameraEndsConstructionCleanly) {
    const std::string path = uniqueSimPath("first");
    try {
        CUDADevice device(properties(entry(0, path) + entry(1, uniqueSimPath("bad"), {{"outputBufferFormats", "12"}})));
        FAIL() << "constructed";
    } catch (const CaptureDeviceException& e) {
        EXPECT_STREQ(e.what(), "Unsupported CUDA output configuration");
    }
    EXPECT_EQ(sim::findSensor(path), nullptr);
}

TEST_F(TwoCameras, StalledCameraDoesNotHoldBackTheOtherAndResumes) {
    impl->start();
    ASSERT_TRUE(client.waitForFrames(0, 3));
    // Stalled until ended below, so that a slow machine cannot end the stall early; the other camera
    // is checked to go on past the stalled reader's 2 s wait.
    const auto stalledSince = std::chrono::steady_clock::now();
    sensor(0)->stall(std::chrono::hours(1));
    const uint64_t stalledAt = client.delivered(0);
    std::this_thread::sleep_until(stalledSince + 2500ms);
    ASSERT_TRUE(client.waitForFrames(1, 20));
    EXPECT_LE(client.delivered(0), stalledAt + 4);  // at most what was already in flight
    sensor(0)->stall(0ms);
    ASSERT_TRUE(client.waitForFrames(0, 5, 15s));  // resumes once frames come again
    impl->stop();
}

// A failing dequeue is logged once, without spinning while it lasts, and the other camera keeps
// delivering; then an interrupted frame wait is a failed step too. Reading resumes after each.
TEST_F(TwoCameras, FailedReadsAreLoggedOnceWithoutSpinningAndRecover) {
    ruvo::test::LogCapture log("Util.Worker");
    impl->start();
    ASSERT_TRUE(client.waitForFrames(0, 2));
    sensor(0)->failDequeue(EIO);
    ASSERT_TRUE(log.waitFor("VIDIOC_DQBUF: Input/output error"));
    const uint64_t failedBefore = impl->produceTask(0).failedSteps();
    ASSERT_TRUE(client.waitForFrames(1, 30));  // the other camera keeps delivering meanwhile
    std::this_thread::sleep_for(1500ms);       // a window in which a spinning reader would fail thousands of times
    EXPECT_LT(impl->produceTask(0).failedSteps() - failedBefore, 12u);
    EXPECT_EQ(log.count("VIDIOC_DQBUF: Input/output error"), 1u);
    sensor(0)->failDequeue(0);
    ASSERT_TRUE(client.waitForFrames(0, 3));
    sensor(0)->interruptNextSelect();
    ASSERT_TRUE(log.waitFor(": select"));
    ASSERT_TRUE(client.waitForFrames(0, 3));
    impl->stop();
}

TEST_F(TwoCameras, DisconnectEndsInACompletedStop) {
    ruvo::test::LogCapture log("Util.Worker");
#ifdef RUVO_HOST_BUILD
    const size_t allocations = ruvo::hostrt::liveAllocations();
#endif
    impl->start();
    ASSERT_TRUE(client.waitForFrames(0, 2));
    sensor(0)->disconnect();
    // As on the kernel, the vanished node polls readable and the dequeue says why.
    ASSERT_TRUE(log.waitFor("ProduceTask-0: VIDIOC_DQBUF: No such device"));
    ASSERT_TRUE(client.waitForFrames(1, 10));
    try {
        impl->stop();
        FAIL() << "stop() reported nothing for the disconnected camera";
    } catch (const CaptureDeviceException& e) {
        EXPECT_NE(std::string(e.what()).find("cam0"), std::string::npos) << e.what();
    }
    EXPECT_EQ(log.count("ProduceTask-0: VIDIOC_DQBUF: No such device"), 1u);
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
    EXPECT_EQ(startError(), "Start Capturing: VIDIOC_QBUF: Input/output error");
    impl.reset();
    EXPECT_EQ(sim::findSensor(paths[0]), nullptr);
#ifdef RUVO_HOST_BUILD
    EXPECT_EQ(ruvo::hostrt::liveAllocations(), allocations);
#endif
}
