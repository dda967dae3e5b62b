// Delivery benchmark: two free-running simulated cameras through the whole device (reader
// threads, pipeline, 3A, delivery thread). Prints delivered batches per second, the latency from
// a frame's capture timestamp to the callback (median and 99th percentile), and the heap
// allocations per delivered frame on each thread, counted by a replaced global operator new.
//
//   delivery_report [seconds=5] [width=1280] [height=720] [outputBufferFormats=0]
#include <ruvo/capture/CUDADevice.h>

#pragma GCC diagnostic ignored "-Wmismatched-new-delete"

#include <Poco/Util/MapConfiguration.h>

#include <pthread.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <string>
#include <thread>
#include <vector>

namespace {

// Per-thread allocation counters in a fixed table, so that counting never allocates.
struct ThreadCount {
    std::atomic<pthread_t> thread{};
    std::atomic<uint64_t> count{0};
    std::atomic<bool> used{false};
};
std::array<ThreadCount, 64> gCounts;
std::atomic<bool> gCounting{false};
thread_local ThreadCount* tlsCount = nullptr;

void countAllocation() {
    if (!gCounting.load(std::memory_order_relaxed)) return;
    if (tlsCount == nullptr) {
        for (ThreadCount& slot : gCounts) {
            bool expected = false;
            if (slot.used.compare_exchange_strong(expected, true)) {
                slot.thread = pthread_self();
                tlsCount = &slot;
                break;
            }
        }
        if (tlsCount == nullptr) return;
    }
    tlsCount->count.fetch_add(1, std::memory_order_relaxed);
}

}  // namespace

// Counting wrappers around the default allocation: every new of this program is paired with a
// delete of this program, both forwarding to malloc and free.
void* operator new(size_t size) {
    countAllocation();
    if (void* p = std::malloc(size ? size : 1)) return p;
    throw std::bad_alloc();
}
void operator delete(void* p) noexcept { std::free(p); }  // NOLINT: pairs with the new above
void operator delete(void* p, size_t) noexcept { std::free(p); }

int main(int argc, char** argv) {
    const int seconds = argc > 1 ? std::atoi(argv[1]) : 5;
    const std::string width = argc > 2 ? argv[2] : "1280";
    const std::string height = argc > 3 ? argv[3] : "720";
    const std::string configuration = argc > 4 ? argv[4] : "0";
    Poco::AutoPtr<Poco::Util::MapConfiguration> config(new Poco::Util::MapConfiguration());
    for (int i = 0; i < 2; ++i) {
        const std::string p = "devices[" + std::to_string(i) + "].";
        config->setString(p + "enabled", "true");
        config->setString(p + "path", "sim:bench-delivery-" + std::to_string(i));
        config->setString(p + "sim.clock", "free");
        config->setString(p + "width", width);
        config->setString(p + "height", height);
        config->setString(p + "outputBufferFormats", configuration);
    }
    ruvo::capture::CUDADevice device(config);

    std::mutex mutex;
    std::vector<double> latenciesUs;
    latenciesUs.reserve(1 << 20);
    std::atomic<uint64_t> batches{0}, frames{0};
    device.setCallback([&](const std::vector<std::shared_ptr<ruvo::capture::Frame>>& batch) {
        const auto now = std::chrono::steady_clock::now();
        ++batches;
        frames += batch.size();
        std::lock_guard<std::mutex> lock(mutex);
        for (const auto& f : batch) {
            if (f->batchIndex == 0)
                latenciesUs.push_back(std::chrono::duration<double, std::micro>(now - f->timestamp).count());
        }
    });
    device.start();
    std::this_thread::sleep_for(std::chrono::milliseconds(500));  // warm up: first frames, 3A settling
    {
        std::lock_guard<std::mutex> lock(mutex);
        latenciesUs.clear();
    }
    const uint64_t batches0 = batches, frames0 = frames;
    gCounting = true;
    const auto t0 = std::chrono::steady_clock::now();
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    const auto t1 = std::chrono::steady_clock::now();
    gCounting = false;
    const uint64_t deliveredBatches = batches - batches0, deliveredFrames = frames - frames0;
    std::array<std::array<char, 32>, 64> names{};
    for (size_t i = 0; i < gCounts.size(); ++i) {
        if (gCounts[i].used) pthread_getname_np(gCounts[i].thread.load(), names[i].data(), names[i].size());
    }
    device.stop();

    const double elapsed = std::chrono::duration<double>(t1 - t0).count();
    std::vector<double> lat;
    {
        std::lock_guard<std::mutex> lock(mutex);
        lat = latenciesUs;
    }
    std::sort(lat.begin(), lat.end());
    auto pct = [&](double q) { return lat.empty() ? 0.0 : lat[static_cast<size_t>(q * (lat.size() - 1))]; };
    std::printf("cameras 2, %sx%s, configuration %s, %d s\n", width.c_str(), height.c_str(), configuration.c_str(),
                seconds);
    std::printf("delivered batches/s %.1f, frames/s %.1f\n", deliveredBatches / elapsed, deliveredFrames / elapsed);
    std::printf("capture-to-callback latency: median %.0f us, p99 %.0f us (%zu samples)\n", pct(0.5), pct(0.99),
                lat.size());
    std::printf("heap allocations per delivered frame, by thread:\n");
    for (size_t i = 0; i < gCounts.size(); ++i) {
        if (!gCounts[i].used) continue;
        std::printf("  %-16s %8.2f\n", names[i].data(),
                    deliveredFrames ? double(gCounts[i].count) / deliveredFrames : 0.0);
    }
    return 0;
}
