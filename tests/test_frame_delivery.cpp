// The produce/consume cycle driven step by step without threads: only the newest bucket of a
// camera is delivered, identifiers and frame fields, buffers coming back through the deleters.
#include "CUDADeviceImpl.h"
#include "FramePlanes.h"
#include "sim/SimulatedSensor.h"
#include "support/GpuPresence.h"
#include "support/SimCamera.h"

#include <gtest/gtest.h>

#include <memory>

using namespace ruvo::capture;
using ruvo::test::simCameraConfig;
using ruvo::test::uniqueSimPath;

namespace {

struct Producer : CUDADeviceImpl::ProduceTask {
    using ProduceTask::onExit;
    using ProduceTask::ProduceTask;
    using ProduceTask::work;
};

struct Consumer : CUDADeviceImpl::ConsumeTask {
    using ConsumeTask::ConsumeTask;
    using ConsumeTask::work;
};

using Batch = std::vector<std::shared_ptr<Frame>>;

// Two stepped YUV_2 cameras with their producers and one consumer, no threads; the second one's
// 1632 x 1232 frames are the centred crop of its driver's 1640 x 1232.
struct Rig : ::testing::Test {
    void SetUp() override {
        RUVO_REQUIRE_CUDA_DEVICE();
        for (int i = 0; i < 2; ++i) {
            paths[i] = uniqueSimPath("pipe");
            ruvo::test::Keys keys{{"outputBufferFormats", "1"}};
            if (i == 1) keys.insert(keys.end(), {{"sim.sizes", "1640x1232"}, {"width", "1632"}, {"height", "1232"}});
            cameras[i] = std::make_unique<CUDACamera>(simCameraConfig(paths[i], keys), i);
            cameras[i]->start();
            producers[i] = std::make_unique<Producer>("ProduceTask-" + std::to_string(i), cameras[i].get(), event);
        }
        consumer = std::make_unique<Consumer>(
            "ConsumeTask", std::vector<CUDACamera*>{cameras[0].get(), cameras[1].get()},
            [this](const Batch& batch) { delivered.push_back(batch); }, mutexControls, event,
            std::vector<CUDADeviceImpl::ProduceTask*>{producers[0].get(), producers[1].get()});
    }
    void TearDown() override {
        delivered.clear();
        for (auto& p : producers)
            if (p) p->onExit();
        for (auto& c : cameras)
            if (c) c->stop();
    }
    void capture(int camera) {
        sim::findSensor(paths[camera])->step();
        producers[camera]->work();
    }
    size_t queuedWithDriver(int camera) { return sim::findSensor(paths[camera])->queuedCount(); }

    std::string paths[2];
    std::unique_ptr<CUDACamera> cameras[2];
    std::unique_ptr<Producer> producers[2];
    std::unique_ptr<Consumer> consumer;
    Poco::Mutex mutexControls;
    Poco::Event event{Poco::Event::EVENT_AUTORESET};
    std::vector<Batch> delivered;
};

}  // namespace

// Also: frame fields from the bucket, a frame kept by the client holding its bucket, and the
// producer's exit returning the buckets it holds.
TEST_F(Rig, OnlyTheNewestBucketIsDeliveredAndTheOlderReturnedWhole) {
    capture(0);
    capture(0);
    EXPECT_EQ(queuedWithDriver(0), 2u);
    consumer->work();
    ASSERT_EQ(delivered.size(), 1u);
    const Batch& batch = delivered[0];
    ASSERT_EQ(batch.size(), 2u);  // YUV_2 of camera 0; camera 1 had nothing
    const Frame& full = *batch[0];
    const Frame& half = *batch[1];
    EXPECT_EQ(full.frameId, 0u);
    EXPECT_EQ(half.frameId, 1u);
    EXPECT_EQ(full.cameraId, 0u);
    EXPECT_EQ(half.batchIndex, 1u);
    EXPECT_EQ(half.outputLevelId, Frame::HALF);
    EXPECT_EQ(full.type, "camera");
    EXPECT_EQ(full.source, dlib::rectangle(0, 0, 1280, 720));
    // Sizes per level are checked for every configuration by the camera cycle test.
    EXPECT_EQ(full.planes[1].data, full.planes[0].data + 1280 * 720);
    EXPECT_EQ(half.planes[2].data, half.planes[0].data + 640 * 360 + 640 * 360 / 4);
    EXPECT_EQ(full.timestamp, half.timestamp);
    EXPECT_NE(full.timestamp, TimePoint::min());
    EXPECT_GT(full.feedback.autoExposureGain, 0.0f);
    EXPECT_EQ(queuedWithDriver(0), 3u);  // the older one went straight back
    std::shared_ptr<Frame> kept = batch[1];
    delivered.clear();
    EXPECT_EQ(queuedWithDriver(0), 3u);  // held by the kept frame
    kept.reset();
    EXPECT_EQ(queuedWithDriver(0), 4u);  // back with its last frame
    capture(1);
    consumer->work();
    ASSERT_EQ(delivered.size(), 1u);
    ASSERT_EQ(delivered[0].size(), 2u);
    EXPECT_EQ(delivered[0][0]->cameraId, 1u);  // positions are kept when camera 0 has nothing
    // The crop's place in the driver's image, at each frame's own scale.
    EXPECT_EQ(delivered[0][0]->source, dlib::rectangle(4, 0, 1636, 1232));
    EXPECT_EQ(delivered[0][1]->source, dlib::rectangle(2, 0, 818, 616));
    EXPECT_EQ(delivered[0][0]->frameId, 2u);  // frames counted, not batches
    EXPECT_EQ(delivered[0][0]->batchId, 1u);
    capture(0);
    capture(0);
    EXPECT_EQ(queuedWithDriver(0), 2u);
    producers[0]->onExit();
    EXPECT_EQ(queuedWithDriver(0), 4u) << "the producer's exit returns the buckets it holds";
}

TEST_F(Rig, EmptyWakeUpUsesABatchNumberAndTimeOutDoesNot) {
    event.set();
    consumer->work();
    EXPECT_TRUE(delivered.empty());
    EXPECT_EQ(consumer->batchId, 1u);
    capture(0);
    capture(1);
    consumer->work();
    ASSERT_EQ(delivered.size(), 1u);
    ASSERT_EQ(delivered[0].size(), 4u);
    for (const auto& f : delivered[0]) EXPECT_EQ(f->batchId, 1u);
    EXPECT_EQ(delivered[0][2]->cameraId, 1u);
    EXPECT_EQ(consumer->batchId, 2u);
}

// A 1920 x 1080 image in buffers allocated for 1152 rows: the chroma planes follow the allocated rows.
TEST(FramePlanes, ChromaFollowsTheAllocatedRows) {
    uint8_t* base = reinterpret_cast<uint8_t*>(0x10000);
    Frame f;
    f.format = Frame::YUV420p;
    f.width = 1920;
    f.height = 1080;
    setFramePlanes(f, base, 1920, 1152);
    EXPECT_EQ(f.planes[1].data - base, 1920 * 1152);
    EXPECT_EQ(f.planes[2].data - base, 1920 * 1152 + 1920 * 1152 / 4);
    EXPECT_EQ(f.planes[1].height, 540u);
    EXPECT_EQ(f.planes[2].stride, 960u);
    Frame y8;
    y8.format = Frame::Y8;
    y8.width = 320;
    y8.height = 240;
    setFramePlanes(y8, base, 320, 240);
    EXPECT_EQ(y8.planes[1].data, nullptr);
}
