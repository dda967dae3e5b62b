// Throughput of the image pipeline: one cudaISP run (and its stream synchronisation) for every
// output configuration, both demosaic modes and the four processed sizes, on one thread and on all
// threads (host build; the CUDA build runs on the GPU whatever the thread count). Names read
// pipeline/<configuration>/<mode>/<size>/threads:<n>; filter with --benchmark_filter. GB/s counts the
// bytes the plan moves (raw frame read, every output written, every intermediate read again); the
// CUDA build adds the device's peak memory bandwidth to the context (device_peak_GB/s). The
// delivered sample layouts are timed with their conversion included, YUV_ONLY bilinear:
// layout/<layout>/<size>/threads:<n>; levels/... adds the black level and channel gains applied
// in the pipeline for a sensor without those controls.
#include "isp/IspPlan.h"
#include "isp/RawUnpack.h"
#include "support/GpuPresence.h"
#include "support/kernel_buffers.h"
#include "support/raw_layouts.h"

#include <benchmark/benchmark.h>
#include <omp.h>

#include <cstring>
#include <memory>
#include <string>

namespace {

using namespace ruvo::test;
namespace cap = ruvo::capture;

const char* const kConfigurationNames[] = {"YUV_ONLY",
                                           "YUV_2",
                                           "YUV_2_4_SKIN_HISTOGRAM",
                                           "YUV_2_4",
                                           "YUV_SKIN",
                                           "YUV_GRADIENT",
                                           "YUV_2_4_GRADIENT",
                                           "YUV_2_4_GRADIENT_2_4",
                                           "YUV_2_GRADIENT_VECTOR_2",
                                           "BGGR",
                                           "NO_DEMOSAIC_RGB",
                                           "RGB_ONLY"};

namespace k = ruvo::capture::kernels;

double bytesPerRun(int configuration, cap::CUDADemosaicMode mode, ProcessedSize size) {
    const k::IspPlan plan = k::planIsp(configuration, mode);
    double bytes = 2.0 * size.width * size.height;
    for (int i = 0; i < plan.count; ++i) {
        const k::PlannedLaunch& launch = plan.launches[i];
        for (int slot = 0; slot < 3; ++slot) {
            if (launch.outputs[slot] != k::kNoTarget) {
                bytes += static_cast<double>(k::launchOutputBytes(launch, slot, size.width, size.height));
            }
        }
        if (launch.input != k::kNoTarget) {
            bytes += static_cast<double>(k::planOutputBytes(plan, launch.input, size.width, size.height));
        }
    }
    return bytes;
}

void runPipeline(benchmark::State& state, int configuration, cap::CUDADemosaicMode mode, ProcessedSize size,
                 int threads) {
    std::string reason;
    if (!cudaDeviceAvailable(&reason)) {
        state.SkipWithError(reason.c_str());
        return;
    }
    omp_set_num_threads(threads);
    IspRig rig(configuration, size);
    rig.fillRaw(colourFrame(size.width, size.height, 614, 409, 307, 300, 1));
    const Gammas gammas{0.8f, 0.8f, 0.8f, 0.9f, 0.9f};
    rig.run(mode, gammas);  // first touch of every buffer outside the timing
    for (auto _ : state) rig.run(mode, gammas);
    state.counters["frames/s"] =
        benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
    state.counters["Mpixel/s"] = benchmark::Counter(
        static_cast<double>(state.iterations()) * size.width * size.height / 1e6, benchmark::Counter::kIsRate);
    state.counters["GB/s"] =
        benchmark::Counter(static_cast<double>(state.iterations()) * bytesPerRun(configuration, mode, size) / 1e9,
                           benchmark::Counter::kIsRate);
}

// Peak memory bandwidth of device 0 from its memory clock and bus width (double data rate).
void addDevicePeak() {
#ifdef RUVO_CUDA_BUILD
    int clockKHz = 0, busBits = 0;
    if (cudaDeviceGetAttribute(&clockKHz, cudaDevAttrMemoryClockRate, 0) != cudaSuccess ||
        cudaDeviceGetAttribute(&busBits, cudaDevAttrGlobalMemoryBusWidth, 0) != cudaSuccess) {
        (void)cudaGetLastError();
        return;
    }
    benchmark::AddCustomContext("device_peak_GB/s", std::to_string(2.0 * clockKHz * 1e3 * busBits / 8 / 1e9));
#endif
}

namespace k = ruvo::capture::kernels;

// YUV_ONLY bilinear from a frame delivered in `layout`, its conversion to the pipeline's samples
// included (none for the pipeline's own layout); with `levels`, also the black level and channel
// gains a sensor without those controls gets in the pipeline.
void runLayout(benchmark::State& state, k::RawLayout layout, ProcessedSize size, int threads, bool levels) {
    std::string reason;
    if (!cudaDeviceAvailable(&reason)) {
        state.SkipWithError(reason.c_str());
        return;
    }
    omp_set_num_threads(threads);
    IspRig rig(cap::YUV_ONLY, size);
    std::vector<uint16_t> values = colourFrame(size.width, size.height, 614, 409, 307, 300, 1);
    for (uint16_t& v : values) v = static_cast<uint16_t>(v >> (14 - layout.bits));
    const size_t stride = k::packedRowBytes(layout.storage, size.width);
    const std::vector<uint8_t> bytes = packFrame(layout.storage, values, size.width, size.height, stride);
    void* delivered = nullptr;
    if (cudaMallocManaged(&delivered, bytes.size(), cudaMemAttachGlobal) != cudaSuccess) {
        state.SkipWithError("cudaMallocManaged failed");
        return;
    }
    std::memcpy(delivered, bytes.data(), bytes.size());
    if (layout.isPipelineLayout()) rig.fillRaw(values);
    cudaStream_t stream = nullptr;
    cudaStreamCreate(&stream);
    k::RawLevels rawLevels;
    rawLevels.black = 1024.0f;
    rawLevels.scale[0][0] = 0.7f;
    rawLevels.scale[1][1] = 1.5f;
    const auto frame = [&] {
        if (!layout.isPipelineLayout())
            cap::unpackRawFrame(stream, layout, delivered, stride, rig.raw(), size.width, size.height);
        if (levels) cap::applyRawLevels(stream, rawLevels, rig.raw(), size.width, size.height);
        cudaStreamSynchronize(stream);
        rig.run(cap::BILINEAR_5, {0.8f, 0.8f, 0.8f, 0.9f, 0.9f});
    };
    frame();
    for (auto _ : state) frame();
    cudaStreamDestroy(stream);
    cudaFree(delivered);
}

void registerLayouts() {
    const k::RawLayout layouts[] = {k::kPipelineLayout,
                                    {k::BayerOrder::kBGGR, k::SampleStorage::kWords, 10},
                                    {k::BayerOrder::kBGGR, k::SampleStorage::kCsi2Packed10, 10},
                                    {k::BayerOrder::kBGGR, k::SampleStorage::kCsi2Packed12, 12},
                                    {k::BayerOrder::kRGGB, k::SampleStorage::kCsi2Packed10, 10}};
    const int allThreads = omp_get_num_procs();
    for (const k::RawLayout& layout : layouts) {
        for (bool levels : {false, true}) {
            for (int threads : {1, allThreads}) {
                const ProcessedSize size{1280, 720};
                const std::string name = std::string(levels ? "levels/" : "layout/") + layoutName(layout) + "/" +
                                         sizeName(size) + "/threads:" + std::to_string(threads);
                benchmark::RegisterBenchmark(name.c_str(), runLayout, layout, size, threads, levels)
                    ->Unit(benchmark::kMillisecond)
                    ->UseRealTime();
                if (allThreads == 1) break;
            }
        }
    }
}

void registerAll() {
    const int allThreads = omp_get_num_procs();
    for (int configuration = 0; configuration < 12; ++configuration) {
        for (cap::CUDADemosaicMode mode : {cap::BILINEAR_5, cap::LANCZOS_11}) {
            for (const ProcessedSize& size : supportedSizes()) {
                for (int threads : {1, allThreads}) {
                    const std::string name = std::string("pipeline/") + kConfigurationNames[configuration] + "/" +
                                             (mode == cap::BILINEAR_5 ? "BILINEAR_5" : "LANCZOS_11") + "/" +
                                             sizeName(size) + "/threads:" + std::to_string(threads);
                    benchmark::RegisterBenchmark(name.c_str(), runPipeline, configuration, mode, size, threads)
                        ->Unit(benchmark::kMillisecond)
                        ->UseRealTime();
                    if (allThreads == 1) break;
                }
            }
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    registerAll();
    registerLayouts();
    addDevicePeak();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
