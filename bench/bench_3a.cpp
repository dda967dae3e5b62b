// Cost of one auto exposure and white balance evaluation (evaluate_3A) on the delivery path, at
// the largest frame size: region metering with the skin histogram, with the image's metered
// bytes in cache (as the pipeline leaves them) and evicted first, and the driver statistic alone.
// The budget is 0.2 ms per frame.
#include "support/rig_3a.h"

#include "support/GpuPresence.h"

#include <benchmark/benchmark.h>

#include <string>
#include <vector>

namespace ruvo {
namespace capture {
namespace {

using testing::CameraRig;
using testing::CraftedFrame;

constexpr uint32_t kWidth = 2688;
constexpr uint32_t kHeight = 1520;

// Texture whose contrast differs from region to region, skin above its threshold (the skin boost
// and blend run), and a target the loop never reaches, so that every call writes the sensor.
void prepare(CameraRig& rig, CraftedFrame& frame) {
    frame.fill(90, 120, 136);
    frame.fillLuma([](uint32_t x, uint32_t y) {
        const uint32_t span = 10 + 20 * (x * 4 / kWidth) + 5 * (y * 4 / kHeight);
        return static_cast<uint8_t>(60 + (x * 31 + y * 17) % span);
    });
    frame.setSkin(frame.width() * frame.height() / 4 / 50, 170);
    rig.exposeForStatistic();
    rig.change([](Controls& c) { c.ae.targetY = 0.9f; });
}

void evaluate3A(benchmark::State& state, const char* configuration, bool evictCaches) {
    std::string reason;
    if (!ruvo::test::cudaDeviceAvailable(&reason)) {
        state.SkipWithError(reason.c_str());
        return;
    }
    CameraRig rig({{"outputBufferFormats", configuration},
                   {"width", std::to_string(kWidth)},
                   {"height", std::to_string(kHeight)},
                   {"bufferPoolSize", "1"}});
    CraftedFrame frame(kWidth, kHeight, 7);
    prepare(rig, frame);
    std::vector<uint8_t> evictor(evictCaches ? 64u << 20 : 0);
    uint8_t round = 0;
    for (auto _ : state) {
        if (evictCaches) {
            state.PauseTiming();
            std::fill(evictor.begin(), evictor.end(), ++round);
            benchmark::ClobberMemory();
            state.ResumeTiming();
        }
        rig.evaluate(frame.bucket);
    }
    state.counters["exposure"] = rig.reg(sensor::CID_EXPOSURE);
}

void BM_Evaluate3A_RegionMetering(benchmark::State& state) { evaluate3A(state, "2", false); }
void BM_Evaluate3A_RegionMeteringColdCache(benchmark::State& state) { evaluate3A(state, "2", true); }
void BM_Evaluate3A_DriverStatistic(benchmark::State& state) { evaluate3A(state, "0", false); }

// The frame's luminance where the sensor has no statistic: the mean linear luma of every fourth
// pixel of every fourth row, the three channels with unequal exponents (tables built once).
void BM_LinearLuma(benchmark::State& state) {
    CraftedFrame frame(kWidth, kHeight, 7);
    frame.fill(90, 120, 136);
    frame.fillLuma([](uint32_t x, uint32_t y) { return static_cast<uint8_t>(20 + (x * 31 + y * 17) % 200); });
    const metering::YuvImage image = metering::yuvImage(frame.bucket.buffers[0].frame.data, kWidth, kHeight, kHeight);
    const metering::ColourShape shape{0.5f, 0.8f, 1.25f, 0.7f, 0.9f};
    metering::LinearLuma linearLuma;
    for (auto _ : state) benchmark::DoNotOptimize(linearLuma.mean(image, shape));
}

BENCHMARK(BM_LinearLuma)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Evaluate3A_RegionMetering)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Evaluate3A_RegionMeteringColdCache)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Evaluate3A_DriverStatistic)->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace capture
}  // namespace ruvo

BENCHMARK_MAIN();
