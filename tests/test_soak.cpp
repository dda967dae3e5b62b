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

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <future>
#include <mutex>
#include <random>
#include <thread>

#ifdef RUVO_HOST_BUILD
#include "host/HostRuntimeControl.h"
#endif

using namespace ruvo::capture;
using namespace std::chrono_literals;

namespace {

using Clock = std::chrono::steady_clock;

// Frames kept by the client until a random moment, dropped by several threads in any order.
class Holders {
public:
    explicit Holders(int threads) {
        for (int i = 0; i < threads; ++i) _threads.emplace_back([this, i] { run(i); });
    }
    ~Holders() { finish(); }
    void keep(std::shared_ptr<Frame> frame, std::chrono::milliseconds for_) {
        std::lock_guard<std::mutex> lock(_mutex);
        if (_done) return;  // after finish() frames are dropped at once
        _held.push_back({std::move(frame), Clock::now() + for_});
        _cond.notify_one();
    }
    void finish() {
        {
            std::lock_guard<std::mutex> lock(_mutex);
            if (_done) return;
            _done = true;
            _held.clear();
        }
        _cond.notify_all();
        for (auto& t : _threads) t.join();
    }

private:
    struct Held {
        std::shared_ptr<Frame> frame;
        Clock::time_point until;
    };
    void run(int seed) {
        std::mt19937 rng(seed);
        std::unique_lock<std::mutex> lock(_mutex);
        while (!_done) {
            if (_held.empty()) {
                _cond.wait_for(lock, 20ms);
                continue;
            }
            const size_t pick = std::uniform_int_distribution<size_t>(0, _held.size() - 1)(rng);
            if (_held[pick].until > Clock::now()) {
                _cond.wait_for(lock, 2ms);
                continue;
            }
            std::shared_ptr<Frame> frame = std::move(_held[pick].frame);
            _held.erase(_held.begin() + static_cast<std::ptrdiff_t>(pick));
            lock.unlock();
            frame.reset();  // the buffer goes back on this thread
            lock.lock();
        }
    }
    std::mutex _mutex;
    std::condition_variable _cond;
    std::deque<Held> _held;
    bool _done = false;
    std::vector<std::thread> _threads;
};

const ruvo::util::Dimensions kSizes[] = {{672, 380}, {1280, 720}, {1920, 1080}, {2688, 1520}};

// One random change of the controls; returns whether it needs a restart.
bool randomChange(Controls& c, std::mt19937& rng, std::string& preset) {
    std::uniform_int_distribution<int> kind(0, 7);
    std::uniform_real_distribution<float> unit(0.0f, 1.0f);
    preset.clear();
    switch (kind(rng)) {
        case 0: {  // size, mostly small so that the soak keeps its pace on two cores
            const auto& s = kSizes[unit(rng) < 0.8f ? 0 : std::uniform_int_distribution<int>(1, 3)(rng)];
            const bool restart = c.width != s.width || c.height != s.height;
            c.width = s.width;
            c.height = s.height;
            return restart;
        }
        case 1: {
            const uint32_t index = std::uniform_int_distribution<uint32_t>(0, 11)(rng);
            const bool restart = c.outputBuffers != CUDA_OUTPUT_BUFFER_CONFIG[index];
            c.outputBuffersConfIndex = index;
            c.outputBuffers = CUDA_OUTPUT_BUFFER_CONFIG[index];
            return restart;
        }
        case 2: c.hFlip = !c.hFlip; c.vFlip = unit(rng) < 0.5f; return false;
        case 3: c.awb.gammaRed = 0.5f + unit(rng); c.awb.gammaCb = 0.5f + unit(rng); return false;
        case 4: c.ae.manual = !c.ae.manual; c.ae.manualGain = 16 * unit(rng); c.ae.manualExposure = 0.03f * unit(rng); return false;
        case 5: c.awb.manual = !c.awb.manual; c.awb.manualRedGain = 2 * unit(rng); return false;
        case 6: c.ae.lock = !c.ae.lock; c.awb.lock = unit(rng) < 0.5f; return false;
        default: {
            static const char* names[] = {"default", "barcode", "oru", "night"};
            preset = names[std::uniform_int_distribution<int>(0, 3)(rng)];
            return false;
        }
    }
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
    bool first = true;
    std::mt19937 clientRng(1);
    auto holders = std::make_unique<Holders>(3);
    CUDADeviceImpl device(config, [&](const std::vector<std::shared_ptr<Frame>>& batch) {
        for (const auto& f : batch) {  // called on the one delivery thread: no lock needed
            if (!first && f->frameId <= lastFrameId) idsRose = false;
            first = false;
            lastFrameId = f->frameId;
            if (std::uniform_int_distribution<int>(0, 3)(clientRng) == 0) {
                holders->keep(f, std::chrono::milliseconds(std::uniform_int_distribution<int>(0, 60)(clientRng)));
            }
        }
        frames += batch.size();
    });
    device.start();

    std::mt19937 rng(7);
    uint64_t changes = 0, restarts = 0, refusals = 0;
    const auto end = Clock::now() + std::chrono::seconds(seconds);
    while (Clock::now() < end) {
        const uint64_t target = frames + 24 + rng() % 48;  // every few dozen frames
        while (frames < target && Clock::now() < end) std::this_thread::sleep_for(5ms);
        const uint32_t camera = rng() % 2;
        Controls c = device.getControls(camera);
        std::string preset;
        const bool restart = randomChange(c, rng, preset);
        if (!preset.empty()) {
            device.setControls(camera, preset);
        } else {
            try {
                device.setControls(camera, c);
            } catch (const CUDADeviceException&) {
                ++refusals;
            }
        }
        ++changes;
        restarts += restart ? 1 : 0;
    }
    holders->finish();
    const auto stopStart = Clock::now();
    auto stopped = std::async(std::launch::async, [&] { device.stop(); });
    ASSERT_EQ(stopped.wait_for(60s), std::future_status::ready) << "stop() did not return: a buffer was lost";
    stopped.get();
    const double stopMs = std::chrono::duration<double, std::milli>(Clock::now() - stopStart).count();

    EXPECT_TRUE(idsRose.load());
    EXPECT_GT(frames.load(), 0u);
    EXPECT_EQ(refusals, 0u);
    EXPECT_FALSE(device.isRunning());
#ifdef RUVO_HOST_BUILD
    EXPECT_EQ(ruvo::hostrt::liveAllocations(), allocations);
#endif
    std::printf("soak: %d s, %llu frames delivered, %llu control changes, %llu restarts, stop() %.1f ms, 0 buckets lost\n",
                seconds, static_cast<unsigned long long>(frames.load()), static_cast<unsigned long long>(changes),
                static_cast<unsigned long long>(restarts), stopMs);
}
