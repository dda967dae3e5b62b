// The CUDA pipeline against the host pipeline, for every output configuration, both demosaic modes
// and all four sizes. The colour stage is recomputed on the host from the same raw frame (equal
// within one step for values that pass through the approximate powers, identical otherwise; one-step
// differences stay rare and without a common sign, which a rounding or offset fault would have);
// every later kernel is recomputed on the host from the GPU's own inputs and must match byte for
// byte; no kernel writes past what its plan says (the rest of each buffer and its guard keep the
// poison).
#include "CUDACamera.h"
#include "host/grid/HostLaunch.h"
#include "isp/IspPlan.h"
#include "sim/SimulatedSensor.h"
#include "support/GpuPresence.h"
#include "support/SimCamera.h"
#include "support/kernel_buffers.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <future>
#include <numeric>
#include <string>
#include <vector>

namespace {

using namespace ruvo::test;
namespace cap = ruvo::capture;
namespace k = ruvo::capture::kernels;

using Bytes = std::vector<unsigned char>;

// How an output of the colour stage may differ between the builds.
enum class Agreement { kIdentical, kWithinOneStep, kSkinChroma, kSkinLuminance };

Agreement colourAgreement(k::KernelId kernel, int slot) {
    switch (kernel) {
        case k::KernelId::yuv420_rgb_only:
            return Agreement::kIdentical;
        case k::KernelId::yuv420_fast_bggr:
        case k::KernelId::yuv420_no_demosaic_rgb:
            return (kernel == k::KernelId::yuv420_fast_bggr) == (slot == 1) ? Agreement::kIdentical
                                                                            : Agreement::kWithinOneStep;
        case k::KernelId::yuv420_fast_segment_skin:
            return slot == 1 ? Agreement::kSkinChroma : Agreement::kWithinOneStep;
        case k::KernelId::yuv420_fast_skin_histogram:
            return slot == 1 ? Agreement::kSkinLuminance : Agreement::kWithinOneStep;
        default:
            return Agreement::kWithinOneStep;
    }
}

// Bytes that differ by more than one step, by one step up and down (GPU against host), and skin
// decisions (255 or 0 against a value) that differ, between the two builds' outputs.
struct Differences {
    size_t beyondOneStep = 0;
    size_t up = 0;
    size_t down = 0;
    size_t decisions = 0;
};

Differences compare(const Bytes& gpu, const Bytes& host, size_t bytes, Agreement agreement, size_t lumaBytes) {
    Differences d;
    for (size_t i = 0; i < bytes; ++i) {
        const int a = gpu[i], b = host[i];
        if (a == b) continue;
        const bool marker = agreement == Agreement::kSkinChroma && i >= lumaBytes && (a == 255 || b == 255);
        const bool dropped = agreement == Agreement::kSkinLuminance && (a == 0 || b == 0);
        if (marker || dropped) {
            ++d.decisions;
        } else if (agreement == Agreement::kIdentical || std::abs(a - b) > 1) {
            ++d.beyondOneStep;
        } else {
            ++(a > b ? d.up : d.down);
        }
    }
    return d;
}

// Reruns one launch of the plan on the host and compares what it wrote with the GPU's output.
[[maybe_unused]] void expectLaunchMatches(IspRig& rig, const k::PlannedLaunch& launch, const Gammas& gammas,
                                          float threshold, const std::string& what) {
    const ProcessedSize size{rig.width(), rig.height()};
    std::vector<Bytes> host;
    std::vector<unsigned char*> targets;
    for (size_t b = 0; b < rig.bufferCount(); ++b) host.push_back(rig.copy(b));
    for (Bytes& buffer : host) targets.push_back(buffer.data());
    if (launch.kernel == k::KernelId::histogram_even) {
        std::vector<int> counted(256, 0);
        for (size_t i = 0; i < size.width * size.height / 4; ++i) ++counted[rig.buffer(3)[i]];
        EXPECT_TRUE(std::equal(counted.begin(), counted.end(), rig.histogram())) << what;
        return;
    }
    const cap::cudaKernelParams params{rig.raw(), size.width, size.height, gammas.r,
                                       gammas.g,  gammas.b,   gammas.cr,   gammas.cb};
    k::runLaunchOnHost(launch, *k::findLaunchGeometry(size.width, size.height), params, targets.data(), threshold);
    for (int slot = 0; slot < 3; ++slot) {
        const int target = launch.outputs[slot];
        if (target == k::kNoTarget) continue;
        const size_t bytes = k::launchOutputBytes(launch, slot, size.width, size.height);
        const Agreement agreement = launch.step == 1 ? colourAgreement(launch.kernel, slot) : Agreement::kIdentical;
        const Differences d =
            compare(rig.copy(target), host[target], bytes, agreement, static_cast<size_t>(size.width) * size.height);
        EXPECT_EQ(d.beyondOneStep, 0u) << what << " target " << target;
        const size_t steps = d.up + d.down;
        EXPECT_LE(steps * 100, bytes) << what << " target " << target << ": over 1% of the bytes one step apart";
        if (steps >= 100) {
            EXPECT_LE(std::max(d.up, d.down) * 4, steps * 3)
                << what << " target " << target << ": one-step differences mostly of one sign (" << d.up << " up, "
                << d.down << " down)";
        }
        // A decision flips only where a value sits on a gate or threshold to within rounding.
        EXPECT_LE(d.decisions, bytes / 1000) << what << " target " << target;
    }
}

// Every byte that the plan does not write, up to the end of the buffer's guard, still holds the poison.
[[maybe_unused]] void expectUnwrittenBytesKept(const IspRig& rig, const k::IspPlan& plan, unsigned char poison,
                                               const std::string& what) {
    for (size_t b = 0; b < rig.bufferCount(); ++b) {
        const Bytes bytes = rig.copy(b);
        const size_t written = k::planOutputBytes(plan, b, rig.width(), rig.height());
        const auto changed = std::find_if(bytes.begin() + static_cast<std::ptrdiff_t>(written), bytes.end(),
                                          [&](unsigned char v) { return v != poison; });
        EXPECT_EQ(changed, bytes.end()) << what << " buffer " << b << " written at byte " << (changed - bytes.begin())
                                        << " of " << written << " planned";
    }
}

TEST(CudaAgainstHost, EveryConfigurationModeAndSize) {
#ifndef RUVO_CUDA_BUILD
    GTEST_SKIP() << "host build: the pipeline here is the host pipeline itself; this comparison runs in the CUDA "
                    "build on a machine with a GPU";
#else
    RUVO_REQUIRE_CUDA_DEVICE();
    const Gammas gammas{0.8f, 0.9f, 0.7f, 0.9f, 1.1f};
    const float threshold = 10.0f;
    for (const ProcessedSize& size : supportedSizes()) {
        const std::vector<uint16_t> frame = colourFrame(size.width, size.height, 614, 409, 307, 300, 83);
        for (int configuration = 0; configuration < 12; ++configuration) {
            for (cap::CUDADemosaicMode mode : {cap::BILINEAR_5, cap::LANCZOS_11}) {
                IspRig rig(configuration, size);
                rig.fillRaw(frame);
                const unsigned char poison = 0x5A;
                rig.poison(poison);
                rig.run(mode, gammas, threshold);
                const k::IspPlan plan = k::planIsp(configuration, mode);
                const std::string what = sizeName(size) + " configuration " + std::to_string(configuration) + " mode " +
                                         std::to_string(mode);
                expectUnwrittenBytesKept(rig, plan, poison, what);
                for (int i = 0; i < plan.count; ++i) {
                    expectLaunchMatches(rig, plan.launches[i], gammas, threshold,
                                        what + " launch " + std::to_string(i));
                }
            }
        }
    }
#endif
}

// Two buckets in flight on the camera path: while one bucket's kernels run, the client reads the
// outputs of the bucket it holds and the sensor fills a queued bucket's input from the CPU. On a
// device without concurrent managed access a CPU touch of memory those kernels may use is a bus
// error (the host build's strict mode checks the same path deterministically).
TEST(CameraPath, TwoBucketsInFlight) {
#ifndef RUVO_CUDA_BUILD
    GTEST_SKIP() << "host build: tests/test_strict_runtime.cpp runs this path under the strict runtime";
#else
    RUVO_REQUIRE_CUDA_DEVICE();
    const std::string path = ruvo::test::uniqueSimPath("two-buckets");
    cap::CUDACamera camera(
        ruvo::test::simCameraConfig(
            path, {{"width", "2688"}, {"height", "1520"}, {"outputBufferFormats", "7"}, {"demosaicMode", "1"}}),
        0);
    camera.start();
    const auto sensor = cap::sim::findSensor(path);
    sensor->step();
    cap::CUDACamera::Bucket* held = camera.read();
    ASSERT_NE(held, nullptr);
    const auto& frame = held->buffers[0].frame;
    const auto sum = [&] { return std::accumulate(frame.data, frame.data + frame.width * frame.height, uint64_t{0}); };
    const uint64_t heldSum = sum();
    for (int round = 0; round < 20; ++round) {
        sensor->step();
        auto reader = std::async(std::launch::async, [&] { return camera.read(); });
        do {
            EXPECT_EQ(sum(), heldSum);
            sensor->step();  // a queued bucket's input, or a dropped frame when none is queued
        } while (reader.wait_for(std::chrono::milliseconds(0)) != std::future_status::ready);
        cap::CUDACamera::Bucket* processed = reader.get();
        ASSERT_NE(processed, nullptr);
        EXPECT_NE(processed->index, held->index);
        camera.release(processed->index);
    }
    camera.release(held->index);
    camera.stop();
#endif
}

}  // namespace
