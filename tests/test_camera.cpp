// A camera against the simulated sensor: runtime controls (validation order and messages, which
// changes restart the device and what survives a restart, the metering rectangle, presets,
// interrupted calls); returning buffers (a bucket goes back to the driver only with its last
// distinct buffer, also concurrently, and stop() waits for buffers clients hold); the feedback a
// frame carries; and the metering sample table and region prior.
#include "CUDACamera.h"
#include "OutputBufferConfig.h"
#include "SensorControls.h"
#include "sim/Scene.h"
#include "sim/SimulatedSensor.h"
#include "support/CameraTestAccess.h"
#include "support/GpuPresence.h"
#include "support/LogCapture.h"
#include "support/SimCamera.h"

#include <ruvo/capture/CaptureDeviceException.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <functional>
#include <future>
#include <random>
#include <thread>
#include <vector>

using namespace ruvo::capture;
using ruvo::test::simCameraConfig;
using ruvo::test::uniqueSimPath;

namespace {

// Where two outputs first differ; "equal" when they do not.
std::string difference(const std::vector<uint8_t>& a, const std::vector<uint8_t>& b) {
    if (a.size() != b.size()) return "sizes " + std::to_string(a.size()) + " and " + std::to_string(b.size());
    const auto at = std::mismatch(a.begin(), a.end(), b.begin());
    if (at.first == a.end()) return "equal";
    return "byte " + std::to_string(at.first - a.begin()) + ": " + std::to_string(*at.first) + " vs " +
           std::to_string(*at.second);
}

std::string refusal(CUDACamera& camera, const Controls& controls) {
    try {
        camera.setControls(controls);
    } catch (const CaptureDeviceException& e) {
        return e.what();
    }
    return "";
}

// A camera on its own simulated sensor with a stepped clock.
struct Camera : ::testing::Test {
    void SetUp() override { RUVO_REQUIRE_CUDA_DEVICE(); }
    // Replaces the camera by one configured with `keys`.
    void configure(const ruvo::test::Keys& keys) {
        path = uniqueSimPath("camera");
        camera = std::make_unique<CUDACamera>(simCameraConfig(path, keys), 0);
    }
    std::shared_ptr<sim::SimulatedSensor> sensor() { return sim::findSensor(path); }
    // The message start() fails with; empty when the camera starts.
    std::string startFailure() {
        try {
            camera->start();
        } catch (const CaptureDeviceException& e) {
            return e.what();
        }
        return "";
    }
    // The first output of frame `frame` (from 1) of a camera configured with `keys` and, once
    // started, `edit`, bytes as delivered.
    std::vector<uint8_t> outputOfFrame(const ruvo::test::Keys& keys, int frame = 1,
                                       const std::function<void(Controls&)>& edit = nullptr) {
        configure(keys);
        camera->start();
        if (edit) {
            Controls c = camera->getControls();
            edit(c);
            camera->setControls(c);
        }
        std::vector<uint8_t> copy;
        for (int i = 0; i < frame; ++i) {
            CUDACamera::Bucket* bucket = next();
            if (!bucket) break;
            const CUDACamera::CUDAFrame& out = bucket->buffers.at(0).frame;
            if (i + 1 == frame) copy.assign(out.data, out.data + out.size);
            camera->release(bucket->index);
        }
        camera->stop();
        return copy;
    }
    std::vector<uint8_t> firstOutput(const ruvo::test::Keys& keys) { return outputOfFrame(keys); }
    // Steps the sensor once and reads the frame.
    CUDACamera::Bucket* next() {
        sensor()->step();
        return camera->read();
    }
    std::string path = uniqueSimPath("camera");
    std::unique_ptr<CUDACamera> camera = std::make_unique<CUDACamera>(simCameraConfig(path), 0);
};

}  // namespace

TEST_F(Camera, ValidationRefusesAndChangesNothing) {
    const Controls before = camera->getControls();
    Controls c = before;
    c.height = 721;
    c.outputBuffersConfIndex = 12;  // checked later than the size
    EXPECT_EQ(refusal(*camera, c), "Unsupported resolution");
    c.height = 720;
    c.outputBuffers.pop_back();
    EXPECT_EQ(refusal(*camera, c), "Unsupported output buffer configuration");
    c.outputBuffers = CUDA_OUTPUT_BUFFER_CONFIG[1];
    EXPECT_EQ(refusal(*camera, c), "Output buffer configuration index out of range");
    c = before;
    c.awb.gammaRed = std::nanf("");
    EXPECT_EQ(refusal(*camera, c), "Unsupported control value: not a finite number");
    c = before;
    c.ae.manualGain = INFINITY;
    EXPECT_EQ(refusal(*camera, c), "Unsupported control value: not a finite number");
    // The kernels of index 3 would write a third buffer that the list of row 1 does not have.
    c = before;
    c.outputBuffers = CUDA_OUTPUT_BUFFER_CONFIG[1];
    c.outputBuffersConfIndex = 3;
    EXPECT_EQ(refusal(*camera, c), "Output buffer configuration index 3 does not match the output buffer list");
    const Controls after = camera->getControls();
    EXPECT_EQ(after.height, before.height);
    EXPECT_EQ(after.outputBuffers, before.outputBuffers);
    EXPECT_EQ(after.outputBuffersConfIndex, before.outputBuffersConfIndex);
    EXPECT_FLOAT_EQ(after.ae.manualGain, before.ae.manualGain);
}

// Flips apply to the running sensor; a size change restarts it and keeps the sensor's values.
// Interrupted control calls are repeated, never reported.
TEST_F(Camera, FlipsApplyLiveAndASizeChangeRestartsKeepingSensorValues) {
    camera->start();
    sensor()->interruptNextIoctl(3);
    const uint32_t ids[] = {sensor::CID_RED_GAIN, sensor::CID_GREEN_GAIN, sensor::CID_BLUE_GAIN, sensor::CID_EXPOSURE,
                            sensor::CID_GAIN};
    const int32_t values[] = {1500, 900, 700, 4321, 600};
    for (int i = 0; i < 5; ++i) camera->setControl(ids[i], values[i]);
    EXPECT_EQ(sensor()->interruptedIoctls(), 3u);
    Controls c = camera->getControls();
    c.hFlip = false;
    c.vFlip = false;
    camera->setControls(c);
    EXPECT_EQ(camera->getControl(sensor::CID_HFLIP), 0);
    EXPECT_EQ(camera->getControl(sensor::CID_VFLIP), 0);
    EXPECT_EQ(camera->getControl(sensor::CID_EXPOSURE), 4321) << "a restart at start would have reset it";
    c.width = 672;
    c.height = 380;
    camera->setControls(c);
    auto s = sensor();
    EXPECT_TRUE(s->streaming());
    EXPECT_EQ(s->format().width, 672u);
    sensor()->interruptNextIoctl(2);
    for (int i = 0; i < 5; ++i) EXPECT_EQ(camera->getControl(ids[i]), values[i]) << std::hex << ids[i];
    EXPECT_EQ(sensor()->interruptedIoctls(), 5u);
    s->step();
    CUDACamera::Bucket* bucket = camera->read();
    ASSERT_NE(bucket, nullptr);
    EXPECT_EQ(bucket->cuda_height, 384u);
    camera->release(bucket->index, 0);
    camera->stop();
}

TEST_F(Camera, Presets) {
    ruvo::test::LogCapture log("Capture.CUDACamera");
    EXPECT_TRUE(camera->setControls(std::string("barcode")));
    EXPECT_FLOAT_EQ(camera->getControls().ae.targetY, 0.2f);
    EXPECT_EQ(camera->getControls().ae.manualMode, "AVGY");
    EXPECT_TRUE(log.contains("controls set to barcode"));
    EXPECT_TRUE(camera->setControls(std::string("oru")));
    EXPECT_EQ(camera->getControls().ae.manualMode, "oru");
    EXPECT_FLOAT_EQ(camera->getControls().ae.targetY, 0.2f);
    EXPECT_TRUE(camera->setControls(std::string("default")));
    EXPECT_FLOAT_EQ(camera->getControls().ae.targetY, 0.3f);
    EXPECT_EQ(camera->getControls().ae.manualMode, "default");
    EXPECT_FALSE(camera->setControls(std::string("night")));
    EXPECT_TRUE(log.contains("controls attempting to set to night but it is not implemented!"));
    EXPECT_EQ(camera->getControls().ae.manualMode, "default");
}

// Changes made while stopped apply at start, which resets the sensor to its defaults and then
// applies flips and the exposure region.
TEST_F(Camera, ChangesWhileStoppedApplyAtStartAfterASensorReset) {
    Controls c = camera->getControls();
    c.hFlip = false;
    c.ae.regions = {ruvo::util::WeightedRegion(dlib::rectangle(0, 0, 9, 9), 1.0f)};
    c.outputBuffersConfIndex = 2;
    c.outputBuffers = CUDA_OUTPUT_BUFFER_CONFIG[2];
    camera->setControls(c);
    camera->start();
    for (uint32_t id : {sensor::CID_EXPOSURE, sensor::CID_GAIN, sensor::CID_RED_GAIN, sensor::CID_BLUE_GAIN}) {
        EXPECT_EQ(camera->getControl(id), camera->queryControl(id).default_value) << std::hex << id;
    }
    EXPECT_EQ(camera->getControl(sensor::CID_HFLIP), 0);
    EXPECT_EQ(camera->getControl(sensor::CID_VFLIP), 1);
    EXPECT_EQ(camera->getControl(sensor::CID_METER_WIDTH), 10);
    sensor()->step();
    CUDACamera::Bucket* bucket = camera->read();
    ASSERT_NE(bucket, nullptr);
    EXPECT_EQ(bucket->buffers.size(), 7u);
    for (unsigned k = 0; k < 7; ++k) camera->release(bucket->index, k);
    camera->stop();
}

TEST_F(Camera, DoubleReleaseCountsOnce) {
    configure({{"outputBufferFormats", "1"}});  // two outputs
    camera->start();
    CUDACamera::Bucket* bucket = next();
    ASSERT_NE(bucket, nullptr);
    camera->release(bucket->index, 0);
    camera->release(bucket->index, 0);
    EXPECT_EQ(bucket->status, CUDACamera::Bucket::USED);
    EXPECT_EQ(sensor()->queuedCount(), 3u);
    camera->release(bucket->index, 1);
    EXPECT_EQ(bucket->status, CUDACamera::Bucket::FREE);
    EXPECT_EQ(sensor()->queuedCount(), 4u);
    camera->stop();
}

// Nine outputs released from nine threads at once, each twice: exactly one requeue per bucket.
TEST_F(Camera, ConcurrentReleasesRequeueExactlyOnce) {
    configure({{"outputBufferFormats", "7"}});
    camera->start();
    for (int round = 0; round < 8; ++round) {
        CUDACamera::Bucket* bucket = next();
        ASSERT_NE(bucket, nullptr);
        ASSERT_EQ(bucket->buffers.size(), 9u);
        std::atomic<int> ready{0};
        std::vector<std::thread> threads;
        for (unsigned k = 0; k < 9; ++k) {
            threads.emplace_back([&, k] {
                ++ready;
                while (ready.load() < 9) std::this_thread::yield();
                camera->release(bucket->index, k);
                camera->release(bucket->index, k);
            });
        }
        for (auto& t : threads) t.join();
        EXPECT_EQ(bucket->status, CUDACamera::Bucket::FREE);
        EXPECT_EQ(sensor()->queuedCount(), 4u) << "round " << round;
    }
    camera->stop();
}

TEST_F(Camera, StopWaitsForTheBufferAClientHolds) {
    ruvo::test::LogCapture log("Capture.CUDACamera");
    camera->start();
    CUDACamera::Bucket* held = next();
    ASSERT_NE(held, nullptr);
    auto stopped = std::async(std::launch::async, [&] { camera->stop(); });
    ASSERT_TRUE(log.waitFor("CUDACamera(CUDACamera) waiting for buffers to be returned: 3/4 free"));
    EXPECT_EQ(stopped.wait_for(std::chrono::milliseconds(0)), std::future_status::timeout);
    camera->release(held->index, 0);
    stopped.get();
    EXPECT_TRUE(log.contains("CUDACamera(CUDACamera)::waitForBuffersToBeReturned"));
    EXPECT_TRUE(log.contains("CUDACamera(CUDACamera) All buffers returned"));
}

// The exposure region becomes the sensor's metering rectangle; the feedback of a frame carries
// it back one pixel wider and taller with weight 1, and the sensor's gains, exposure and
// luminance statistic.
TEST_F(Camera, MeteringRectangleAndFeedback) {
    camera->start();
    const auto meter = [&] {
        std::vector<int32_t> values;
        for (uint32_t id : {sensor::CID_METER_ENABLE, sensor::CID_METER_LEFT, sensor::CID_METER_TOP,
                            sensor::CID_METER_WIDTH, sensor::CID_METER_HEIGHT})
            values.push_back(camera->getControl(id));
        return values;
    };
    Controls c = camera->getControls();
    c.ae.regions = {ruvo::util::WeightedRegion(dlib::rectangle(10, 20, 109, 69), 0.5f)};
    camera->setControls(c);
    EXPECT_EQ(meter(), (std::vector<int32_t>{1, 10, 20, 100, 50}));
    for (const auto& [id, value] : {std::pair{sensor::CID_RED_GAIN, 2048}, std::pair{sensor::CID_GAIN, 376},
                                    std::pair{sensor::CID_EXPOSURE, 22330}})
        camera->setControl(id, value);
    CUDACamera::Bucket* bucket = next();  // 3A may move exposure and gain after the feedback is taken
    ASSERT_NE(bucket, nullptr);
    const Feedback& fb = bucket->feedback;
    ASSERT_EQ(fb.autoExposureRegions.size(), 1u);
    EXPECT_EQ(fb.autoExposureRegions[0].rect, dlib::rectangle(10, 20, 110, 70));
    EXPECT_EQ(fb.autoExposureRegions[0].weight, 1.0f);
    EXPECT_EQ(fb.autoWhiteBalanceGains[0], 2.0f);
    EXPECT_EQ(fb.autoWhiteBalanceGains[1], 1.0f);
    EXPECT_EQ(fb.autoExposureGain, 2.0f);
    EXPECT_FLOAT_EQ(fb.luminance, static_cast<float>(camera->getControl(sensor::CID_AVG_LUMINANCE)) / 1023.0f);
    EXPECT_FLOAT_EQ(fb.autoExposureTime, 22330 * 0.44782403f / 1e6f);
    camera->release(bucket->index, 0);
    c.ae.regions = {ruvo::util::WeightedRegion(dlib::rectangle(50, 20, 10, 69), 1.0f)};  // right < left
    camera->setControls(c);
    EXPECT_EQ(meter(), (std::vector<int32_t>{1, 50, 20, 0, 0}));
    c.ae.regions.clear();
    camera->setControls(c);
    EXPECT_EQ(meter(), (std::vector<int32_t>{0, 0, 0, 0, 0}));
    camera->stop();
}

// The driver's account: lost frames (gaps in the sequence) and damaged buffers (requeued, never
// delivered) are counted as the sensor injected them; each frame carries the driver's sequence
// and capture time, taken before it was dequeued. In both memory modes.
TEST_F(Camera, DriverDropsAndDamagedBuffersAreCountedNotDelivered) {
    for (const std::string memory : {"userptr", "mmap"}) {
        SCOPED_TRACE(memory);
        // Of frames 0..12, 2, 5, 8 and 11 are lost and 1, 4, 7 and 10 damaged.
        configure({{"sim.dropEvery", "3"}, {"sim.errorEvery", "2"}, {"memory", memory}});
        camera->start();
        std::vector<uint32_t> sequences;
        Feedback last;
        for (int round = 0; round < 5; ++round) {
            sensor()->step(round < 4 ? 3 : 1);
            for (int filled = round < 4 ? 2 : 1; filled > 0; --filled) {
                CUDACamera::Bucket* bucket = camera->read();
                if (!bucket) continue;
                EXPECT_LE(bucket->feedback.captureTimestamp, bucket->timestamp);
                EXPECT_GT(bucket->feedback.captureTimestamp, last.captureTimestamp);
                last = bucket->feedback;
                sequences.push_back(last.sequence);
                camera->release(bucket->index);
            }
        }
        EXPECT_EQ(sequences, (std::vector<uint32_t>{0, 3, 6, 9, 12}));
        EXPECT_EQ(last.droppedFrames, sensor()->framesDropped());
        EXPECT_EQ(last.errorBuffers, sensor()->errorBuffers());
        EXPECT_EQ(last.droppedFrames, 4u);
        EXPECT_EQ(last.errorBuffers, 4u);
        EXPECT_EQ(sensor()->queuedCount(), 4u) << "damaged buffers went back to the driver";
        camera->stop();
    }
}

// A driver without user pointers: "auto" streams by memory mapping, "userptr" is refused.
TEST_F(Camera, AutoMemoryMapsWhenTheDriverOffersNoUserPointers) {
    configure({{"sim.userptr", "false"}});
    camera->start();
    CUDACamera::Bucket* bucket = next();
    ASSERT_NE(bucket, nullptr);
    EXPECT_TRUE(bucket->v4l2.mapped);
    camera->release(bucket->index);
    camera->stop();
    configure({{"sim.userptr", "false"}, {"memory", "userptr"}});
    EXPECT_EQ(startFailure(), path + " does not support user pointer I/O");
}

// The same noiseless chart delivered 10-bit LSB-aligned (v), CSI-2 packed 10-bit (v), packed
// 12-bit (v x 4) or in 16-bit words (v x 64) gives the YUV of the default layout (v x 16), by user
// pointers and by memory mapping; a format the driver lacks is refused by name.
TEST_F(Camera, EveryDeliveredLayoutGivesTheDefaultLayoutsOutput) {
    const std::vector<uint8_t> reference = firstOutput({{"sim.scene", "chart"}});
    ASSERT_FALSE(reference.empty());
    // BG10 from a driver with the private controls is the default layout unless named.
    const ruvo::test::Keys cases[] = {
        {{"sim.format", "BG10"}, {"pixelFormat", "BG10"}},  {{"sim.format", "pBAA"}},
        {{"sim.format", "pBAA"}, {"sim.userptr", "false"}}, {{"sim.format", "BG12,pBCC"}, {"pixelFormat", "pBCC"}},
        {{"sim.format", "BG12"}, {"sim.userptr", "false"}}, {{"sim.format", "BYR2"}}};
    for (ruvo::test::Keys keys : cases) {
        SCOPED_TRACE(keys.front().second + (keys.size() > 1 ? " " + keys.back().second : ""));
        keys.emplace_back("sim.scene", "chart");
        EXPECT_EQ(difference(firstOutput(keys), reference), "equal");
    }
    configure({{"sim.format", "pBAA"}, {"pixelFormat", "RG12"}});
    EXPECT_EQ(startFailure(), path + " does not support RG12 format");
    // Before a start, the capabilities ask the driver: "auto" takes the first format it offers.
    configure({{"sim.format", "RG16,BA81,pRCC"}});
    const Capabilities offered = camera->getCapabilities();
    EXPECT_EQ(offered.pixelFormats, (std::vector<std::string>{"RG16", "BA81", "pRCC"}));
    EXPECT_EQ(offered.pixelFormat, "RG16");
}

// A driver that lists 1640 x 1232 (and 1280 x 720) gives 1632 x 1232 frames on request: the
// centred crop, 4 columns in, of what it delivers, as a plain client reads it, whether the camera
// reads it by user pointer, by mapping or converted from packed samples. The capabilities list
// each driver size with what the camera takes of it, a stepwise range with its largest such size.
TEST_F(Camera, ADriverSizeOffThePipelinesGridIsCroppedCentred) {
    ruvo::capture::testing::SimClient client({{"sim.sizes", "1640x1232"}, {"sim.scene", "zoneplate"}});
    client.start(1640, 1232);
    const uint16_t* delivered = client.samples(client.stepAndDequeue().index);
    const ruvo::test::Keys cases[] = {{}, {{"sim.userptr", "false"}}, {{"sim.format", "pBAA"}}};
    for (ruvo::test::Keys keys : cases) {
        SCOPED_TRACE(keys.empty() ? "user pointer" : keys.front().second);
        keys.insert(keys.end(), {{"sim.sizes", "1640x1232,1280x720"},
                                 {"sim.scene", "zoneplate"},
                                 {"hFlip", "false"},
                                 {"vFlip", "false"},
                                 {"width", "1632"},
                                 {"height", "1232"}});
        configure(keys);
        camera->start();
        CUDACamera::Bucket* bucket = next();
        ASSERT_NE(bucket, nullptr);
        EXPECT_EQ(bucket->width, 1632u);
        EXPECT_EQ(bucket->cuda_height, 1232u);
        EXPECT_EQ(bucket->cropLeft, 4u);
        EXPECT_EQ(bucket->cropTop, 0u);
        const auto* input = static_cast<const uint16_t*>(bucket->cudaIn.host);
        size_t mismatches = 0;
        for (size_t y = 0; y < 1232; ++y)
            mismatches += !std::equal(input + y * 1632, input + (y + 1) * 1632, delivered + y * 1640 + 4);
        EXPECT_EQ(mismatches, 0u) << "rows unlike the driver's crop";
        camera->release(bucket->index);
        // A size the pipeline takes but this driver cannot give is refused without a restart.
        Controls other = camera->getControls();
        other.width = 640;
        other.height = 480;
        EXPECT_EQ(refusal(*camera, other), "Unsupported resolution");
        EXPECT_TRUE(sensor()->streaming());
        camera->stop();
    }
    const std::vector<OfferedFrameSize> listed = camera->getCapabilities().frameSizes;
    ASSERT_EQ(listed.size(), 2u);
    EXPECT_TRUE(listed[0].max == ruvo::util::Dimensions(1640, 1232) &&
                listed[0].processed == ruvo::util::Dimensions(1632, 1232));
    EXPECT_TRUE(listed[1].processed == listed[1].max && listed[1].step == ruvo::util::Dimensions());
    configure({{"sim.sizes", "64x48..4100x3074/4x2"}});
    const std::vector<OfferedFrameSize> range = camera->getCapabilities().frameSizes;
    ASSERT_EQ(range.size(), 1u);
    EXPECT_TRUE(range[0].step == ruvo::util::Dimensions(4, 2) &&
                range[0].processed == ruvo::util::Dimensions(4096, 3072));
}

// A flat field under a warm illuminant (red above blue) gives the same YUV whichever of the four
// orders the sensor delivers, and stays warm: V above neutral, U below.
TEST_F(Camera, AFlatColouredFieldLooksTheSameInEveryBayerOrder) {
    const auto flat = [&](const std::string& format) {
        return firstOutput({{"sim.format", format},
                            {"sim.scene", "flat"},
                            {"sim.level", "0.4"},
                            {"sim.colourTemperature", "3000"},
                            {"pixelFormat", format}});
    };
    const std::vector<uint8_t> reference = flat("BG10");
    ASSERT_GE(reference.size(), 1280u * 720 * 3 / 2);
    // YUV 4:2:0 planes, a sample from the middle of each chroma plane.
    const size_t luma = 1280 * 720;
    const uint8_t u = reference[luma + luma / 8], v = reference[luma + luma / 4 + luma / 8];
    EXPECT_LT(u, 118);
    EXPECT_GT(v, 138);
    for (const char* format : {"GB10", "BA10", "RG10", "pRAA"})
        EXPECT_EQ(difference(flat(format), reference), "equal") << format;
}

// Mean Y, U and V over the middle half of each chart patch of a 1280x720 YUV 4:2:0 frame.
std::vector<std::array<double, 3>> patchMeans(const std::vector<uint8_t>& yuv) {
    constexpr int kWidth = 1280, kHeight = 720;
    std::vector<std::array<double, 3>> means(24);
    if (yuv.size() < size_t{kWidth} * kHeight * 3 / 2) return means;
    const uint8_t* planes[3] = {yuv.data(), yuv.data() + kWidth * kHeight, yuv.data() + kWidth * kHeight * 5 / 4};
    for (int p = 0; p < 24; ++p) {
        const sim::RelativeRect r = sim::chartPatchRect(p);
        for (int c = 0; c < 3; ++c) {
            const int w = c == 0 ? kWidth : kWidth / 2, h = c == 0 ? kHeight : kHeight / 2;
            const int x0 = static_cast<int>((r.left * 3 + r.right) / 4 * w),
                      x1 = static_cast<int>((r.left + r.right * 3) / 4 * w);
            const int y0 = static_cast<int>((r.top * 3 + r.bottom) / 4 * h),
                      y1 = static_cast<int>((r.top + r.bottom * 3) / 4 * h);
            double sum = 0;
            for (int y = y0; y < y1; ++y)
                for (int x = x0; x < x1; ++x) sum += planes[c][y * w + x];
            means[p][c] = sum / ((x1 - x0) * (y1 - y0));
        }
    }
    return means;
}

void expectPatchesNear(const std::vector<std::array<double, 3>>& means,
                       const std::vector<std::array<double, 3>>& reference, double tolerance, const std::string& what) {
    for (int p = 0; p < 24; ++p)
        for (int c = 0; c < 3; ++c)
            EXPECT_NEAR(means[p][c], reference[p][c], tolerance) << what << " patch " << p << " plane " << c;
}

// On the chart, unmirrored so that the patches sit where the chart's geometry puts them, every
// patch's interior has the same mean Y, U and V within 1 in all four orders (the orders differ by
// a one-pixel shift of the sampling grid), and the red patch stays red.
TEST_F(Camera, ChartPatchesAgreeAcrossBayerOrders) {
    constexpr int kRedPatch = 14;
    const auto means = [&](const std::string& format) {
        return patchMeans(firstOutput({{"sim.format", format},
                                       {"sim.scene", "chart"},
                                       {"pixelFormat", format},
                                       {"hFlip", "false"},
                                       {"vFlip", "false"}}));
    };
    const auto reference = means("BG10");
    EXPECT_GT(reference[kRedPatch][2], 150.0) << "V of the red patch";
    EXPECT_LT(reference[kRedPatch][1], 128.0) << "U of the red patch";
    for (const char* format : {"GB10", "BA10", "RG10"}) expectPatchesNear(means(format), reference, 1.0, format);
}

// A sensor without channel-gain controls gets white balance as multipliers on its raw samples,
// and its black level subtracted before demosaic: a generic sensor with a pedestal of 64 codes and
// manual gains gives the chart the default sensor gives with no pedestal and the same gains in its
// registers, and the gains do act (the gray patch turns red). Its missing metering window is logged.
TEST_F(Camera, PipelineWhiteBalanceAndBlackLevelGiveWhatTheSensorsOwnGive) {
    constexpr int kGrayPatch = 20;
    const auto manual = [](Controls& c) {
        c.ae.manual = c.awb.manual = true;
        c.ae.manualExposure = 0.01f;
        c.ae.manualGain = 1.0f;
        c.awb.manualRedGain = 1.5f;
        c.awb.manualGreenGain = 1.0f;
        c.awb.manualBlueGain = 0.7f;
        c.ae.regions = {ruvo::util::WeightedRegion(dlib::rectangle(100, 100, 299, 199), 1.0f)};
    };
    const ruvo::test::Keys unmirroredChart = {{"sim.scene", "chart"}, {"hFlip", "false"}, {"vFlip", "false"}};
    ruvo::test::Keys defaultSensor = unmirroredChart, genericSensor = unmirroredChart;
    defaultSensor.emplace_back("sim.pedestal", "0");
    genericSensor.insert(genericSensor.end(),
                         {{"sim.controls", "generic"}, {"sim.colourResponse", "neutral"}, {"sim.pedestal", "64"}});
    const auto reference = patchMeans(outputOfFrame(defaultSensor, 3, manual));
    ruvo::test::LogCapture log("Capture.CUDACamera");
    const auto pipeline = patchMeans(outputOfFrame(genericSensor, 3, manual));
    EXPECT_EQ(log.count("the sensor has no metering window; metering regions are not written to it"), 1u);
    EXPECT_EQ(camera->emulatedControls(),
              (std::vector<std::string>{"channel gains", "black level", "luminance statistic"}));
    EXPECT_GT(pipeline[kGrayPatch][2], 140.0) << "V of the gray patch";
    EXPECT_LT(pipeline[kGrayPatch][1], 118.0) << "U of the gray patch";
    expectPatchesNear(pipeline, reference, 1.0, "generic");
}

// Without the luminance statistic the frame's luminance is the processed image's linear luma:
// with the three exponents far apart, it matches 0.299 R + 0.587 G + 0.114 B of the raw samples
// the pipeline read (black level off), quad by quad, within 2% on the chart (0.6% off), where
// each luma byte taken back through the green exponent alone is over 10% off (11.6%).
TEST_F(Camera, LuminanceWithoutTheStatisticIsTheRawSamplesLinearLuma) {
    configure({{"sim.controls", "generic"},
               {"sim.scene", "chart"},
               {"pixelFormat", "BG10"},
               {"hFlip", "false"},
               {"vFlip", "false"},
               {"gamma.R", "0.5"},
               {"gamma.G", "0.8"},
               {"gamma.B", "1.25"}});
    camera->start();
    CUDACamera::Bucket* bucket = next();
    ASSERT_NE(bucket, nullptr);
    const auto* raw = static_cast<const uint16_t*>(bucket->cudaIn.host);
    const uint8_t* luma = bucket->buffers.at(0).frame.data;
    const size_t w = bucket->width, quads = w * bucket->height / 4;
    double rawLuma = 0.0, greenOnly = 0.0;
    for (size_t y = 0; y < bucket->height; y += 2) {
        for (size_t x = 0, at = y * w; x < w; x += 2, at += 2) {  // B G / G R
            rawLuma +=
                (0.299 * raw[at + w + 1] + 0.2935 * (raw[at + 1] + raw[at + w]) + 0.114 * raw[at]) / 16383 / quads;
            if (x % 4 == 0 && y % 4 == 0) greenOnly += std::pow(luma[at] / 255.0, 1 / 0.8) / (quads / 4);
        }
    }
    EXPECT_NEAR(bucket->feedback.luminance, rawLuma, 0.02 * rawLuma);
    EXPECT_GT(std::fabs(greenOnly - rawLuma), 0.1 * rawLuma) << "green only " << greenOnly;
    camera->release(bucket->index);
}

// Flips that change the Bayer order (the generic sensor's) are set before streaming and the order
// the driver then reports is taken: a flat field under warm light, green-dominant through the
// generic sensor's bare response, gives the same YUV with any flip on or off.
// They cannot be written while streaming, so a change restarts the camera.
TEST_F(Camera, FlipsThatChangeTheBayerOrderKeepTheColours) {
    const auto flat = [&](const char* hFlip, const char* vFlip) {
        // BG10 is asked for: the driver answers the order the flips make of it.
        return ruvo::test::Keys{
            {"sim.controls", "generic"}, {"sim.scene", "flat"}, {"sim.level", "0.4"}, {"sim.colourTemperature", "3000"},
            {"pixelFormat", "BG10"},     {"hFlip", hFlip},      {"vFlip", vFlip}};
    };
    const std::vector<uint8_t> reference = firstOutput(flat("false", "false"));
    ASSERT_GE(reference.size(), 1280u * 720 * 3 / 2);
    const size_t luma = 1280 * 720;
    EXPECT_LT(reference[luma + luma / 8], 118) << "U";
    EXPECT_LT(reference[luma + luma / 4 + luma / 8], 118) << "V";
    for (const auto& [h, v] : {std::pair{"true", "false"}, std::pair{"false", "true"}, std::pair{"true", "true"}})
        EXPECT_EQ(difference(firstOutput(flat(h, v)), reference), "equal") << "hFlip " << h << " vFlip " << v;

    configure(flat("true", "false"));
    camera->start();
    EXPECT_EQ(camera->getCapabilities().pixelFormat, "GB10");
    EXPECT_THROW(camera->setControl(V4L2_CID_HFLIP, 0), CaptureDeviceException);
    Controls c = camera->getControls();
    c.hFlip = false;
    c.vFlip = true;
    camera->setControls(c);
    EXPECT_EQ(camera->getCapabilities().pixelFormat, "BA10");
    CUDACamera::Bucket* bucket = next();
    ASSERT_NE(bucket, nullptr);
    const CUDACamera::CUDAFrame& out = bucket->buffers.at(0).frame;
    EXPECT_EQ(difference(std::vector<uint8_t>(out.data, out.data + out.size), reference), "equal");
    camera->release(bucket->index);
    camera->stop();
}

TEST(MeteringSamples, SeedZeroCamerasDrawIdenticalTablesThatGrowPerStartAndFitTheSize) {
    RUVO_REQUIRE_CUDA_DEVICE();
    CUDACamera a(simCameraConfig(uniqueSimPath("sa"), {{"numSamples", "500"}}), 0);
    CUDACamera b(simCameraConfig(uniqueSimPath("sb"), {{"numSamples", "500"}}), 1);
    a.start();
    b.start();
    const auto& ta = CUDACameraTestAccess::samples(a);
    ASSERT_EQ(ta.size(), 500u);
    EXPECT_EQ(ta, CUDACameraTestAccess::samples(b));
    const auto first = ta;
    a.stop();
    a.start();
    const auto& grown = CUDACameraTestAccess::samples(a);
    ASSERT_EQ(grown.size(), 1000u);
    EXPECT_TRUE(std::equal(first.begin(), first.end(), grown.begin()));
    EXPECT_FALSE(std::equal(first.begin(), first.end(), grown.begin() + 500));
    // Regression: a restart at a smaller size kept samples outside the new frame.
    Controls c = a.getControls();
    c.width = 672;
    c.height = 380;
    a.setControls(c);
    ASSERT_EQ(grown.size(), 500u) << "redrawn";
    for (const auto& s : grown) {
        EXPECT_LT(s.first, 672);
        EXPECT_LT(s.second, 380);
    }
    a.stop();
    b.stop();
}

// The classic scaling draw, computed independently: x first, then y, from one engine.
TEST(MeteringSamples, DrawsFollowTheScalingMethod) {
    RUVO_REQUIRE_CUDA_DEVICE();
    CUDACamera camera(simCameraConfig(uniqueSimPath("draw"), {{"numSamples", "64"}, {"awb.seed", "7"}}), 0);
    camera.start();
    std::mt19937 engine(7);
    auto draw = [&](uint32_t n) {
        const uint32_t scaling = 4294967295u / n;
        uint32_t d;
        do d = engine();
        while (d >= n * scaling);
        return static_cast<int>(d / scaling);
    };
    for (const auto& s : CUDACameraTestAccess::samples(camera)) {
        EXPECT_EQ(s.first, draw(1280));
        EXPECT_EQ(s.second, draw(720));
    }
    camera.stop();
}

TEST(MeteringSamples, NoiseStaysWithinATenth) {
    CUDACamera camera(simCameraConfig(uniqueSimPath("noise")), 0);
    std::mt19937 engine(0);
    for (int i = 0; i < 1000; ++i) {
        const float v = camera.noise();
        EXPECT_GE(v, -0.1f);
        EXPECT_LE(v, 0.1f);
        EXPECT_FLOAT_EQ(v, static_cast<float>(engine()) * 2.3283064e-10f * 0.2f - 0.1f);
    }
    const dlib::rectangle r(5, 10, 7, 12);
    for (int i = 0; i < 100; ++i) {
        const int row = camera.randRow(r);
        const int col = camera.randCol(r);
        EXPECT_TRUE(row >= 10 && row <= 12);
        EXPECT_TRUE(col >= 5 && col <= 7);
    }
}

TEST(MeteringSamples, RegionPriorPeaksInTheCentre) {
    CUDACamera camera(simCameraConfig(uniqueSimPath("grid")), 0);
    const auto& w = CUDACameraTestAccess::winWeights(camera);
    ASSERT_GE(w.size(), 16u);
    const float centre = w[5], corner = w[0], edge = w[1];
    for (int i : {5, 6, 9, 10}) EXPECT_FLOAT_EQ(w[i], centre);
    for (int i : {0, 3, 12, 15}) EXPECT_FLOAT_EQ(w[i], corner);
    EXPECT_GT(centre, edge);
    EXPECT_GT(edge, corner);
    // sigma = 4/3: centre offset (0.5, 0.5), corner (1.5, 1.5)
    const double s = 4.0 / 3.0;
    EXPECT_NEAR(centre, std::exp(-0.5 / (2 * s * s)) / (s * 2.5066283095076436), 1e-6);
    EXPECT_NEAR(corner, std::exp(-4.5 / (2 * s * s)) / (s * 2.5066283095076436), 1e-6);
    float sum = 0;
    for (int i = 0; i < 16; ++i) sum += w[i];
    EXPECT_FLOAT_EQ(CUDACameraTestAccess::sumWinWeights(camera), sum);
    // A region count that is no square leaves the last slots zero.
    CUDACamera ten(simCameraConfig(uniqueSimPath("grid10"), {{"ae.numRegions", "10"}}), 0);
    const auto& w10 = CUDACameraTestAccess::winWeights(ten);
    ASSERT_GE(w10.size(), 10u);
    EXPECT_GT(w10[4], w10[0]);
    EXPECT_EQ(w10[9], 0.0f);
}
