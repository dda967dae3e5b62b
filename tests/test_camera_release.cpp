// Returning buffers: a bucket goes back to the driver only with its last distinct buffer, also
// when buffers come back concurrently, and stop() waits for buffers that clients still hold;
// the feedback a frame carries; a read with nothing queued.
#include "CUDACamera.h"
#include "SensorControls.h"
#include "sim/SimulatedSensor.h"
#include "support/GpuPresence.h"
#include "support/LogCapture.h"
#include "support/SimCamera.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <thread>
#include <vector>

using namespace ruvo::capture;
using ruvo::test::simCameraConfig;
using ruvo::test::uniqueSimPath;

namespace {

struct StartedCamera {
    explicit StartedCamera(const ruvo::test::Keys& keys = {})
        : path(uniqueSimPath("release")), camera(simCameraConfig(path, keys), 0) {
        camera.start();
        sensor = sim::findSensor(path);
    }
    CUDACamera::Bucket* next() {
        sensor->step();
        return camera.read();
    }
    std::string path;
    CUDACamera camera;
    std::shared_ptr<sim::SimulatedSensor> sensor;
};

}  // namespace

TEST(CameraRelease, DoubleReleaseCountsOnce) {
    RUVO_REQUIRE_CUDA_DEVICE();
    StartedCamera c(ruvo::test::Keys{{"outputBufferFormats", "1"}});  // two outputs
    CUDACamera::Bucket* bucket = c.next();
    ASSERT_NE(bucket, nullptr);
    c.camera.release(bucket->index, 0);
    c.camera.release(bucket->index, 0);
    EXPECT_EQ(bucket->status, CUDACamera::Bucket::USED);
    EXPECT_EQ(c.sensor->queuedCount(), 3u);
    c.camera.release(bucket->index, 1);
    EXPECT_EQ(bucket->status, CUDACamera::Bucket::FREE);
    EXPECT_EQ(c.sensor->queuedCount(), 4u);
    c.camera.stop();
}

// Nine outputs released from nine threads at once, each twice: exactly one requeue per bucket.
TEST(CameraRelease, ConcurrentReleasesRequeueExactlyOnce) {
    RUVO_REQUIRE_CUDA_DEVICE();
    StartedCamera c(ruvo::test::Keys{{"outputBufferFormats", "7"}});
    for (int round = 0; round < 8; ++round) {
        CUDACamera::Bucket* bucket = c.next();
        ASSERT_NE(bucket, nullptr);
        ASSERT_EQ(bucket->buffers.size(), 9u);
        std::atomic<int> ready{0};
        std::vector<std::thread> threads;
        for (unsigned k = 0; k < 9; ++k) {
            threads.emplace_back([&, k] {
                ++ready;
                while (ready.load() < 9) std::this_thread::yield();
                c.camera.release(bucket->index, k);
                c.camera.release(bucket->index, k);
            });
        }
        for (auto& t : threads) t.join();
        EXPECT_EQ(bucket->status, CUDACamera::Bucket::FREE);
        EXPECT_EQ(c.sensor->queuedCount(), 4u) << "round " << round;
    }
    c.camera.stop();
}

TEST(CameraRelease, StopWaitsForTheBufferAClientHolds) {
    RUVO_REQUIRE_CUDA_DEVICE();
    ruvo::test::LogCapture log("Capture.CUDACamera");
    StartedCamera c;
    CUDACamera::Bucket* held = c.next();
    ASSERT_NE(held, nullptr);
    auto stopped = std::async(std::launch::async, [&] { c.camera.stop(); });
    ASSERT_TRUE(log.waitFor("CUDACamera(CUDACamera) waiting for buffers to be returned: 3/4 free"));
    EXPECT_EQ(stopped.wait_for(std::chrono::milliseconds(0)), std::future_status::timeout);
    c.camera.release(held->index, 0);
    stopped.get();
    EXPECT_TRUE(log.contains("CUDACamera(CUDACamera)::waitForBuffersToBeReturned"));
    EXPECT_TRUE(log.contains("CUDACamera(CUDACamera) All buffers returned"));
}

// The sensor's metering rectangle comes back one pixel wider and taller, with weight 1.
TEST(CameraFeedback, MeteringRectangleAndSensorState) {
    RUVO_REQUIRE_CUDA_DEVICE();
    StartedCamera c;
    for (const auto& [id, value] : {std::pair{sensor::CID_METER_ENABLE, 1}, std::pair{sensor::CID_METER_LEFT, 10},
                                    std::pair{sensor::CID_METER_TOP, 20}, std::pair{sensor::CID_METER_WIDTH, 100},
                                    std::pair{sensor::CID_METER_HEIGHT, 50}, std::pair{sensor::CID_RED_GAIN, 2048},
                                    std::pair{sensor::CID_GAIN, 376}, std::pair{sensor::CID_EXPOSURE, 22330}})
        c.camera.setControl(id, value);
    CUDACamera::Bucket* bucket = c.next();  // 3A may move exposure and gain after the feedback is taken
    ASSERT_NE(bucket, nullptr);
    const Feedback& fb = bucket->feedback;
    ASSERT_EQ(fb.autoExposureRegions.size(), 1u);
    EXPECT_EQ(fb.autoExposureRegions[0].rect, dlib::rectangle(10, 20, 110, 70));
    EXPECT_EQ(fb.autoExposureRegions[0].weight, 1.0f);
    EXPECT_EQ(fb.autoWhiteBalanceGains[0], 2.0f);
    EXPECT_EQ(fb.autoWhiteBalanceGains[1], 1.0f);
    EXPECT_EQ(fb.autoExposureGain, 2.0f);
    EXPECT_FLOAT_EQ(fb.luminance, static_cast<float>(c.camera.getControl(sensor::CID_AVG_LUMINANCE)) / 1023.0f);
    EXPECT_FLOAT_EQ(fb.autoExposureTime, 22330 * 0.44782403f / 1e6f);
    c.camera.release(bucket->index, 0);
    c.camera.stop();
}

TEST(CameraRead, NothingQueuedTimesOutWithNull) {
    RUVO_REQUIRE_CUDA_DEVICE();
    StartedCamera c;
    EXPECT_EQ(c.camera.read(), nullptr);  // stepped clock, no step: the 2 s wait runs out
    EXPECT_EQ(c.sensor->queuedCount(), 4u);
    c.camera.stop();
}
