// Soak: two free-running simulated cameras under random control changes (sizes, output
// configurations, flips, gammas, manual and automatic modes, locks, presets) while a client keeps
// random frames for random times on other threads and drops them in any order. Afterwards every
// bucket is back, frame ids rose strictly, and stop() returned. RUVO_SOAK_SECONDS sets the length
// (default 10); the figures are printed for the record.
#include "CUDADeviceImpl.h"
#include "OutputBufferConfig.h"
#include "support/GpuPresence.h"
#include "support/SimCamera.h"

#include <ruvo/capture/CaptureDeviceException.h>

#include <Poco/Util/MapConfiguration.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <future>
#include <random>
#include <thread>
#include <vector>

#ifdef RUVO_HOST_BUILD
#include "host/runtime/HostRuntimeControl.h"
#endif

using namespace ruvo::capture;
using namespace std::chrono_literals;

namespace {

using Clock = std::chrono::steady_clock;

// One random change of camera `camera`'s controls, sizes mostly small so that the soak keeps its
// pace on two cores. Every change is valid: none may be refused.
void randomChange(CUDADeviceImpl& device, uint32_t camera, std::mt19937& rng) {
    static const ruvo::util::Dimensions sizes[] = {{672, 380}, {1280, 720}, {1920, 1080}, {2688, 1520}};
    static const char* presets[] = {"default", "barcode", "oru", "night"};
    std::uniform_real_distribution<float> unit(0.0f, 1.0f);
    Controls c = device.getControls(camera);
    switch (rng() % 6) {
        case 0: {
            const auto& size = sizes[unit(rng) < 0.8f ? 0 : 1 + rng() % 3];
            c.width = size.width;
            c.height = size.height;
            break;
        }
        case 1:
            c.outputBuffersConfIndex = rng() % 12;
            c.outputBuffers = CUDA_OUTPUT_BUFFER_CONFIG[c.outputBuffersConfIndex];
            break;
        case 2:
            c.hFlip = !c.hFlip;
            c.vFlip = unit(rng) < 0.5f;
            c.awb.gammaRed = 0.5f + unit(rng);
            c.awb.gammaCb = 0.5f + unit(rng);
            break;
        case 3:
            c.ae.manual = !c.ae.manual;
            c.ae.lock = unit(rng) < 0.5f;
            c.ae.manualGain = 16 * unit(rng);
            c.ae.manualExposure = 0.03f * unit(rng);
            break;
        case 4:
            c.awb.manual = !c.awb.manual;
            c.awb.lock = unit(rng) < 0.5f;
            c.awb.manualRedGain = 2 * unit(rng);
            break;
        default:
            device.setControls(camera, std::string(presets[rng() % 4]));
            return;
    }
    EXPECT_NO_THROW(device.setControls(camera, c));
}

}  // namespace

TEST(Soak, RandomControlsAndClientsLoseNoBuffer) {
    RUVO_REQUIRE_CUDA_DEVICE();
    const char* env = std::getenv("RUVO_SOAK_SECONDS");
    const int seconds = env ? std::atoi(env) : 10;
#ifdef RUVO_HOST_BUILD
    const size_t allocations = ruvo::hostrt::liveAllocations();
#endif
    Poco::AutoPtr<Poco::Util::MapConfiguration> config(new Poco::Util::MapConfiguration());
    for (int i = 0; i < 2; ++i) {
        const std::string p = "devices[" + std::to_string(i) + "].";
        config->setString(p + "enabled", "true");
        config->setString(p + "path", ruvo::test::uniqueSimPath("soak"));
        config->setString(p + "sim.clock", "free");
        config->setString(p + "sim.noise", "true");
        config->setString(p + "width", "672");
        config->setString(p + "height", "380");
    }
    std::atomic<uint64_t> frames{0};
    std::atomic<bool> idsRose{true};
    uint32_t lastFrameId = 0;
    std::mt19937 clientRng(1);
    // A thread per kept frame drops it after a random time: frames go back in any order, from
    // other threads. Touched only on the delivery thread until stop() has returned.
    std::vector<std::future<void>> holders;
    CUDADeviceImpl device(config, [&](const std::vector<std::shared_ptr<Frame>>& batch) {
        for (const auto& f : batch) {  // called on the one delivery thread: no lock needed
            if (frames > 0 && f->frameId <= lastFrameId) idsRose = false;
            lastFrameId = f->frameId;
            ++frames;
            if (clientRng() % 4 != 0) continue;
            const auto hold = std::chrono::milliseconds(clientRng() % 20);
            holders.push_back(std::async(std::launch::async, [frame = f, hold]() mutable {
                std::this_thread::sleep_for(hold);
                frame.reset();  // here, not when the future is destroyed
            }));
        }
        // Finished holders are joined as they go, so that few threads are ever left to join.
        const auto done = [](const std::future<void>& h) { return h.wait_for(0s) == std::future_status::ready; };
        holders.erase(std::remove_if(holders.begin(), holders.end(), done), holders.end());
    });
    device.start();
    std::mt19937 rng(7);
    uint64_t changes = 0;
    const auto end = Clock::now() + std::chrono::seconds(seconds);
    for (; Clock::now() < end; ++changes) {
        const uint64_t target = frames + 24 + rng() % 48;  // every few dozen frames
        while (frames < target && Clock::now() < end) std::this_thread::sleep_for(5ms);
        randomChange(device, rng() % 2, rng);
    }
    auto stopped = std::async(std::launch::async, [&] { device.stop(); });
    ASSERT_EQ(stopped.wait_for(60s), std::future_status::ready) << "stop() did not return: a buffer was lost";
    stopped.get();
    holders.clear();
    EXPECT_TRUE(idsRose.load());
    EXPECT_GT(frames.load(), 0u);
    EXPECT_FALSE(device.isRunning());
#ifdef RUVO_HOST_BUILD
    EXPECT_EQ(ruvo::hostrt::liveAllocations(), allocations);
#endif
    std::printf("soak: %d s, %llu frames delivered, %llu control changes, 0 buckets lost\n", seconds,
                static_cast<unsigned long long>(frames.load()), static_cast<unsigned long long>(changes));
}
