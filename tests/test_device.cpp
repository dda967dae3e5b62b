// The device front end to end with simulated cameras: the device list from properties and XML
// configurations, start and stop with reader and delivery threads, control routing and its
// refusals, and clients holding frames across stop().
#include "CUDADeviceImpl.h"
#include "sim/SimulatedSensor.h"
#include "support/CameraTestAccess.h"
#include "support/GpuPresence.h"
#include "support/LogCapture.h"
#include "support/SimCamera.h"

#include <ruvo/capture/CUDADevice.h>

#include <Poco/Util/PropertyFileConfiguration.h>
#include <Poco/Util/XMLConfiguration.h>

#include <gtest/gtest.h>

#include <condition_variable>
#include <future>
#include <mutex>
#include <sstream>

using namespace ruvo::capture;
using ruvo::test::uniqueSimPath;

namespace {

Poco::AutoPtr<Poco::Util::AbstractConfiguration> properties(const std::string& text) {
    std::istringstream in(text);
    return new Poco::Util::PropertyFileConfiguration(in);
}

Poco::AutoPtr<Poco::Util::AbstractConfiguration> xml(const std::string& text) {
    std::istringstream in(text);
    return new Poco::Util::XMLConfiguration(in);
}

std::string simEntry(int i, bool enabled, const std::string& path, const std::string& extra = "") {
    const std::string p = "devices[" + std::to_string(i) + "].";
    return p + "enabled=" + (enabled ? "true" : "false") + "\n" + p + "path=" + path + "\n" + p +
           "sim.clock=stepped\n" + extra;
}

// Collects batches delivered on the consumer thread.
struct Client {
    std::mutex mutex;
    std::condition_variable cond;
    std::vector<std::vector<std::shared_ptr<Frame>>> batches;
    bool keep = false;

    OnNewDataCallback callback() {
        return [this](const std::vector<std::shared_ptr<Frame>>& batch) {
            std::lock_guard<std::mutex> lock(mutex);
            batches.push_back(keep ? batch : std::vector<std::shared_ptr<Frame>>{});
            if (!keep) batches.back().resize(batch.size());  // count only
            cond.notify_all();
        };
    }
    bool waitForBatches(size_t n) {
        std::unique_lock<std::mutex> lock(mutex);
        return cond.wait_for(lock, std::chrono::seconds(10), [&] { return batches.size() >= n; });
    }
};

struct Device : ::testing::Test {
    void SetUp() override { RUVO_REQUIRE_CUDA_DEVICE(); }
};

}  // namespace

TEST_F(Device, DisabledEntryKeepsNumbersButNotPositions) {
    const std::string path = uniqueSimPath("dev");
    CUDADeviceImpl impl(properties(simEntry(0, false, uniqueSimPath("off")) + simEntry(1, true, path)), nullptr);
    ASSERT_EQ(impl.numDevices(), 1u);
    EXPECT_EQ(impl.produceThreadName(0), "ProduceThread-1");
    EXPECT_EQ(CUDACameraTestAccess::index(impl.camera(0)), 1);
    EXPECT_EQ(impl.camera(0).getParams().path, path);
}

TEST_F(Device, AGapEndsTheList) {
    CUDADeviceImpl impl(properties(simEntry(0, true, uniqueSimPath("a")) + simEntry(2, true, uniqueSimPath("c"))),
                        nullptr);
    EXPECT_EQ(impl.numDevices(), 1u);
}

TEST_F(Device, NoEnabledEntryMeansNoCamerasAndNoError) {
    CUDADevice device(properties(simEntry(0, false, uniqueSimPath("x"))));
    EXPECT_EQ(device.numDevices(), 0u);
    CUDADevice empty(properties("cuda.unused=1\n"));
    EXPECT_EQ(empty.numDevices(), 0u);
}

TEST_F(Device, XmlEntriesAreWalkedToo) {
    const std::string a = uniqueSimPath("xa"), b = uniqueSimPath("xb");
    CUDADeviceImpl impl(xml("<config><devices><enabled>true</enabled><path>" + a +
                            "</path></devices><devices><enabled>true</enabled><path>" + b +
                            "</path><width>672</width><height>380</height></devices></config>"),
                        nullptr);
    ASSERT_EQ(impl.numDevices(), 2u);
    EXPECT_EQ(impl.camera(1).getParams().width, 672u);
}

TEST_F(Device, DeliversBatchesAndReturnsEveryBuffer) {
    const std::string path = uniqueSimPath("run");
    CUDADevice device(properties(simEntry(0, true, path)));
    Client client;
    device.setCallback(client.callback());
    EXPECT_FALSE(device.isRunning());
    device.start();
    EXPECT_TRUE(device.isRunning());
    auto sensor = sim::findSensor(path);
    for (size_t n = 1; n <= 5; ++n) {
        sensor->step();
        ASSERT_TRUE(client.waitForBatches(n));
    }
    device.stop();
    EXPECT_FALSE(device.isRunning());
    EXPECT_FALSE(sensor->streaming());
}

TEST_F(Device, FrameIdsRunOnAcrossStopAndStart) {
    const std::string path = uniqueSimPath("ids");
    CUDADevice device(properties(simEntry(0, true, path)));
    Client client;
    client.keep = true;
    device.setCallback(client.callback());
    device.start();
    sim::findSensor(path)->step();
    ASSERT_TRUE(client.waitForBatches(1));
    const uint32_t first = client.batches[0][0]->frameId;
    client.batches.clear();  // give the frames back before stopping
    device.stop();
    device.start();
    sim::findSensor(path)->step();
    ASSERT_TRUE(client.waitForBatches(1));
    EXPECT_GT(client.batches[0][0]->frameId, first);
    client.batches.clear();
    device.stop();
}

TEST_F(Device, StopWaitsForFramesHeldOnAnotherThread) {
    const std::string path = uniqueSimPath("hold");
    CUDADevice device(properties(simEntry(0, true, path)));
    Client client;
    client.keep = true;
    device.setCallback(client.callback());
    device.start();
    sim::findSensor(path)->step();
    ASSERT_TRUE(client.waitForBatches(1));
    std::shared_ptr<Frame> held = client.batches[0][0];
    client.batches.clear();
    ruvo::test::LogCapture log("Capture.CUDACamera");
    auto stopped = std::async(std::launch::async, [&] { device.stop(); });
    ASSERT_TRUE(log.waitFor("waiting for buffers to be returned: 3/4 free"));
    EXPECT_EQ(stopped.wait_for(std::chrono::milliseconds(0)), std::future_status::timeout);
    std::thread([held = std::move(held)]() mutable { held.reset(); }).join();
    stopped.get();
}

TEST_F(Device, ControlRouting) {
    const std::string path = uniqueSimPath("route");
    CUDADevice device(properties(simEntry(0, true, path)));
    ruvo::test::LogCapture log("Capture.CUDADevice");
    Controls c = device.getControls(0);
    c.hFlip = !c.hFlip;
    device.setControls(1, c);
    EXPECT_TRUE(log.contains("Invalid cameraId (1) requested for setControls."));
    EXPECT_EQ(device.getControls(0).hFlip, !c.hFlip);
    EXPECT_FALSE(device.setNamedControls(1, "barcode"));
    EXPECT_EQ(log.count("Invalid cameraId (1) requested for setControls."), 2u);
    EXPECT_THROW(device.getControls(1), std::out_of_range);
    EXPECT_THROW(device.getCapabilities(1), std::out_of_range);
    EXPECT_FALSE(device.setNamedControls(0, "night"));
    EXPECT_TRUE(device.setNamedControls(0, "barcode"));
    EXPECT_EQ(device.getControls(0).ae.manualMode, "AVGY");
}

TEST_F(Device, RefusedChangeRestoresAndThrowsTheCamerasMessage) {
    const std::string path = uniqueSimPath("refuse");
    CUDADevice device(properties(simEntry(0, true, path)));
    device.start();
    const Controls before = device.getControls(0);
    Controls c = before;
    c.width = 1281;
    try {
        device.setControls(0, c);
        FAIL() << "accepted 1281 wide";
    } catch (const CUDADeviceException& e) {
        EXPECT_STREQ(e.what(), "Unsupported resolution");
    }
    EXPECT_EQ(device.getControls(0).width, 1280u);
    // The readers were unpaused: frames still flow.
    c = before;
    c.vFlip = !c.vFlip;
    device.setControls(0, c);
    EXPECT_EQ(device.getControls(0).vFlip, c.vFlip);
    device.stop();
}

TEST_F(Device, DescriptionsOfTheOutputConfigurations) {
    ASSERT_EQ(CUDADevice::outputConfigDescriptions.size(), 12u);
    EXPECT_EQ(CUDADevice::outputConfigDescriptions.at(7), "Color half quarter, Grad X/Y half quarter");
    EXPECT_EQ(CUDADevice::outputConfigDescriptions.at(11), "only basic with 24-bit RGB");
}

#ifdef RUVO_HOST_BUILD
#include "host/HostRuntimeControl.h"
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

// A camera that fails to construct ends the device's construction with its message; the
// cameras already made are destroyed with it (the address sanitizer stage checks for leaks).
TEST_F(Device, AFailingCameraEndsConstructionCleanly) {
    const std::string path = uniqueSimPath("first");
    try {
        CUDADevice device(properties(simEntry(0, true, path) + simEntry(1, true, uniqueSimPath("bad"),
                                                                          "devices[1].outputBufferFormats=12\n")));
        FAIL() << "constructed";
    } catch (const CaptureDeviceException& e) {
        EXPECT_STREQ(e.what(), "Unsupported CUDA output configuration");
    }
    EXPECT_EQ(sim::findSensor(path), nullptr);
}
