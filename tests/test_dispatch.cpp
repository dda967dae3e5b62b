// The dispatcher: the launch geometry of the four sizes, the kernel sequence of every output
// configuration in both demosaic modes, which output bytes a run writes (and which it leaves
// alone), the abort on other sizes, the message for unknown configurations, the byte counts the
// camera allocates, and the histogram's scratch memory.
#include "CUDAKernels.h"
#include "CUDAUtils.h"
#include "kernels/IspPlan.h"
#include "kernels/LaunchGeometry.h"
#include "support/GpuPresence.h"
#include "support/kernel_buffers.h"

#ifdef RUVO_HOST_BUILD
#include "HostRuntimeControl.h"
#endif

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace {

using namespace ruvo::test;
namespace cap = ruvo::capture;
namespace k = ruvo::capture::kernels;

TEST(LaunchGeometry, BlocksAndGridsOfTheFourSizes) {
    struct Row {
        unsigned width, height;
        k::Extent2 block[4], grid[4];
    };
    const Row table[] = {
        {672, 384, {{28, 12}, {14, 24}, {14, 24}, {14, 24}}, {{12, 16}, {12, 4}, {6, 2}, {3, 1}}},
        {1280, 720, {{32, 24}, {32, 20}, {32, 15}, {20, 15}}, {{20, 15}, {10, 9}, {5, 6}, {4, 3}}},
        {1920, 1152, {{32, 12}, {32, 18}, {30, 9}, {30, 9}}, {{30, 48}, {15, 16}, {8, 16}, {4, 8}}},
        {2688, 1520, {{32, 10}, {32, 10}, {24, 19}, {24, 19}}, {{42, 76}, {21, 38}, {14, 10}, {7, 5}}},
    };
    for (const Row& row : table) {
        const k::LaunchGeometry* geometry = k::findLaunchGeometry(row.width, row.height);
        ASSERT_NE(geometry, nullptr) << row.width << "x" << row.height;
        for (int step = 1; step <= 4; ++step) {
            const k::LaunchShape shape = geometry->shape(step);
            EXPECT_EQ(shape.block.x, row.block[step - 1].x) << row.width << " step " << step;
            EXPECT_EQ(shape.block.y, row.block[step - 1].y) << row.width << " step " << step;
            EXPECT_EQ(shape.grid.x, row.grid[step - 1].x) << row.width << " step " << step;
            EXPECT_EQ(shape.grid.y, row.grid[step - 1].y) << row.width << " step " << step;
            // Exactly one thread per 2^step x 2^step pixels: no thread outside the image.
            EXPECT_EQ(shape.threads().x, row.width >> step);
            EXPECT_EQ(shape.threads().y, row.height >> step);
        }
    }
    EXPECT_EQ(k::findLaunchGeometry(672, 380), nullptr);
    EXPECT_EQ(k::findLaunchGeometry(1920, 1080), nullptr);
}

const char* kernelName(k::KernelId id) {
    switch (id) {
        case k::KernelId::yuv420_fast:
            return "yuv420_fast";
        case k::KernelId::yuv420_lanczos:
            return "yuv420_lanczos";
        case k::KernelId::yuv420_fast_bggr:
            return "yuv420_fast_bggr";
        case k::KernelId::yuv420_rgb_only:
            return "yuv420_rgb_only";
        case k::KernelId::yuv420_no_demosaic_rgb:
            return "yuv420_no_demosaic_rgb";
        case k::KernelId::yuv420_fast_segment_skin:
            return "yuv420_fast_segment_skin";
        case k::KernelId::yuv420_fast_skin_histogram:
            return "yuv420_fast_skin_histogram";
        case k::KernelId::histogram_even:
            return "HistogramEven";
        case k::KernelId::step_down_YUV:
            return "step_down_YUV";
        case k::KernelId::step_down_Y_twice:
            return "step_down_Y_twice";
        case k::KernelId::step_down_erode_Y:
            return "step_down_erode_Y";
        case k::KernelId::gradient:
            return "gradient";
        case k::KernelId::gradient_magnitude:
            return "gradient_magnitude";
        case k::KernelId::step_down_YUV_and_gradient:
            return "step_down_YUV_and_gradient";
        case k::KernelId::step_down_YUV_and_gradient_magnitude:
            return "step_down_YUV_and_gradient_magnitude";
    }
    return "?";
}

// "name(input at 1/2^shift, outputs) s<step>", the raw frame as "raw".
std::vector<std::string> describe(const k::IspPlan& plan) {
    std::vector<std::string> lines;
    for (int i = 0; i < plan.count; ++i) {
        const k::PlannedLaunch& l = plan.launches[i];
        std::string line = std::string(kernelName(l.kernel)) + "(";
        line += l.input == k::kNoTarget ? std::string("raw")
                                        : std::to_string(l.input) + "/" + std::to_string(1 << l.inputShift);
        for (int out : l.outputs) {
            if (out != k::kNoTarget) line += "," + std::to_string(out);
        }
        lines.push_back(line + ") s" + std::to_string(l.step));
    }
    if (plan.unimplemented) lines.push_back("unimplemented");
    return lines;
}

using Lines = std::vector<std::string>;

const std::map<int, Lines>& pyramidStages() {
    static const std::map<int, Lines> stages = {
        {cap::YUV_ONLY, {}},
        {cap::YUV_2, {"step_down_YUV(0/1,1) s2"}},
        {cap::YUV_2_4_SKIN_HISTOGRAM,
         {"step_down_Y_twice(3/2,5) s3", "step_down_erode_Y(5/8,6) s4", "step_down_YUV(0/1,1) s2",
          "step_down_YUV(1/2,2) s3"}},
        {cap::YUV_2_4, {"step_down_YUV(0/1,1) s2", "step_down_YUV(1/2,2) s3"}},
        {cap::YUV_SKIN, {}},
        {cap::YUV_GRADIENT, {"gradient(0/1,1,2) s2"}},
        {cap::YUV_2_4_GRADIENT, {"step_down_YUV_and_gradient(0/1,1,3,4) s2", "step_down_YUV(1/2,2) s3"}},
        {cap::YUV_2_4_GRADIENT_2_4,
         {"step_down_YUV_and_gradient(0/1,1,3,4) s2", "step_down_YUV_and_gradient(1/2,2,5,6) s3",
          "gradient(2/4,7,8) s4"}},
        {cap::YUV_2_GRADIENT_VECTOR_2,
         {"step_down_YUV_and_gradient_magnitude(0/1,1,2,3) s2", "gradient_magnitude(1/2,4,5) s3"}},
        {cap::BGGR, {}},
        {cap::NO_DEMOSAIC_RGB, {}},
        {cap::RGB_ONLY, {}},
    };
    return stages;
}

Lines concat(Lines head, const Lines& tail) {
    head.insert(head.end(), tail.begin(), tail.end());
    return head;
}

TEST(KernelSequence, BilinearColourStageThenThePyramidStage) {
    const std::map<int, Lines> colour = {
        {cap::RGB_ONLY, {"yuv420_rgb_only(raw,0) s1"}},
        {cap::NO_DEMOSAIC_RGB, {"yuv420_no_demosaic_rgb(raw,0,1) s1"}},
        {cap::YUV_SKIN, {"yuv420_fast_segment_skin(raw,0,1) s1"}},
        {cap::BGGR, {"yuv420_fast_bggr(raw,0,1) s1"}},
        {cap::YUV_2_4_SKIN_HISTOGRAM, {"yuv420_fast_skin_histogram(raw,0,3) s1", "HistogramEven(3/2,4) s0"}},
    };
    for (const auto& [configuration, stage] : pyramidStages()) {
        const auto found = colour.find(configuration);
        const Lines first = found == colour.end() ? Lines{"yuv420_fast(raw,0) s1"} : found->second;
        EXPECT_EQ(describe(k::planIsp(configuration, cap::BILINEAR_5)), concat(first, stage)) << configuration;
    }
}

TEST(KernelSequence, LanczosAlwaysStartsWithItsColourKernel) {
    for (const auto& [configuration, stage] : pyramidStages()) {
        EXPECT_EQ(describe(k::planIsp(configuration, cap::LANCZOS_11)), concat({"yuv420_lanczos(raw,0) s1"}, stage))
            << configuration;
    }
}

TEST(KernelSequence, ConfigurationsOutsideTheEnumerationRunOnlyTheColourKernel) {
    for (int configuration : {12, -1, 1000}) {
        EXPECT_EQ(describe(k::planIsp(configuration, cap::BILINEAR_5)),
                  (Lines{"yuv420_fast(raw,0) s1", "unimplemented"}));
        EXPECT_EQ(describe(k::planIsp(configuration, cap::LANCZOS_11)),
                  (Lines{"yuv420_lanczos(raw,0) s1", "unimplemented"}));
    }
}

TEST(OutputBytes, AsTheTableExceptTheBayerViewAndTheUnwrittenBuffers) {
    for (const ProcessedSize& size : supportedSizes()) {
        const size_t pixels = static_cast<size_t>(size.width) * size.height;
        for (int configuration = 0; configuration < 12; ++configuration) {
            for (size_t buffer = 0; buffer < 9; ++buffer) {
                size_t expected = tableBytes(configuration, buffer, size.width, size.height);
                if (configuration == cap::BGGR && buffer == 1) expected = pixels * 3;  // RGB24 in a YUV420p slot
                if (configuration == cap::BGGR && buffer == 2) expected = 0;
                if (configuration == cap::YUV_2_4 && buffer == 3) expected = 0;
                EXPECT_EQ(cap::kernelOutputBytes(configuration, buffer, size.width, size.height), expected)
                    << sizeName(size) << " configuration " << configuration << " buffer " << buffer;
            }
        }
    }
}

// Bytes that a run writes into each buffer, from the configuration's documented outputs.
std::vector<size_t> expectedWrites(int configuration, cap::CUDADemosaicMode mode, const ProcessedSize& size,
                                   size_t count) {
    std::vector<size_t> bytes(count);
    for (size_t k = 0; k < count; ++k) bytes[k] = tableBytes(configuration, k, size.width, size.height);
    const size_t pixels = static_cast<size_t>(size.width) * size.height;
    switch (configuration) {
        case cap::YUV_2_4:
            bytes[3] = 0;  // listed, never written
            break;
        case cap::BGGR:
            bytes[1] = pixels * 3;
            bytes[2] = 0;
            break;
        default:
            break;
    }
    if (mode == cap::LANCZOS_11) {
        switch (configuration) {
            case cap::YUV_SKIN:
            case cap::BGGR:
            case cap::NO_DEMOSAIC_RGB:
            case cap::RGB_ONLY:
                bytes.assign(bytes.size(), 0);
                bytes[0] = pixels * 3 / 2;  // YUV whatever the configuration
                break;
            case cap::YUV_2_4_SKIN_HISTOGRAM:
                bytes[3] = bytes[4] = 0;  // neither skin kernel nor histogram
                break;
            default:
                break;
        }
    }
    return bytes;
}

// A buffer that a configuration lists but leaves unwritten, while later kernels read it: in the
// Lanczos mode the skin plane (target 3) feeds the eighth- and sixteenth-size skin levels.
int readButUnwritten(int configuration, cap::CUDADemosaicMode mode) {
    return configuration == cap::YUV_2_4_SKIN_HISTOGRAM && mode == cap::LANCZOS_11 ? 3 : -1;
}

void fillRamp(unsigned char* bytes, size_t count) {
    for (size_t i = 0; i < count; ++i) bytes[i] = static_cast<unsigned char>(1 + i % 251);
}

// Whether each byte of each buffer (guards included) was written: two runs over different poison
// agree exactly on the bytes the kernels wrote and keep the poison everywhere else. A buffer that
// is read but not written holds the same ramp in both runs, and must still hold it afterwards.
void expectWrittenBytes(IspRig& rig, int configuration, cap::CUDADemosaicMode mode, const std::vector<size_t>& expected,
                        const std::string& what) {
    const int preset = readButUnwritten(configuration, mode);
    std::vector<std::vector<unsigned char>> runs[2];
    for (int run = 0; run < 2; ++run) {
        rig.poison(run == 0 ? 0xA5 : 0x5A);
        if (preset >= 0) fillRamp(rig.buffer(preset), rig.bufferBytes(preset));
        rig.run(mode, {0.8f, 0.9f, 0.7f, 0.9f, 1.1f});
        for (size_t k = 0; k < rig.bufferCount(); ++k) runs[run].push_back(rig.copy(k));
    }
    for (size_t k = 0; k < rig.bufferCount(); ++k) {
        const std::vector<unsigned char>&first = runs[0][k], &second = runs[1][k];
        if (static_cast<int>(k) == preset) {
            std::vector<unsigned char> ramp(rig.bufferBytes(k));
            fillRamp(ramp.data(), ramp.size());
            ASSERT_TRUE(std::equal(ramp.begin(), ramp.end(), first.begin()))
                << what << " buffer " << k << " was written";
            ASSERT_TRUE(std::equal(ramp.begin(), ramp.end(), second.begin()))
                << what << " buffer " << k << " was written";
            continue;
        }
        // The first byte whose state is not the expected one (written before expected[k], poison after).
        size_t i = 0;
        while (i < second.size() && (i < expected[k] ? first[i] == second[i] : first[i] == 0xA5 && second[i] == 0x5A)) {
            ++i;
        }
        ASSERT_EQ(i, second.size()) << what << " buffer " << k << ": byte " << i << " of " << rig.bufferBytes(k)
                                    << " (+" << IspRig::kGuardBytes << " guard) is "
                                    << (first[i] == second[i] ? "written" : "unwritten") << ", expected " << expected[k]
                                    << " bytes written";
    }
}

TEST(WrittenBytes, ExactlyTheOutputsOfEveryConfigurationModeAndSize) {
    RUVO_REQUIRE_CUDA_DEVICE();
    for (const ProcessedSize& size : supportedSizes()) {
        const std::vector<uint16_t> frame = randomSensorFrame(size.width, size.height, 71);
        for (int configuration = 0; configuration < 12; ++configuration) {
            IspRig rig(configuration, size);
            rig.fillRaw(frame);
            for (cap::CUDADemosaicMode mode : {cap::BILINEAR_5, cap::LANCZOS_11}) {
                const std::vector<size_t> expected = expectedWrites(configuration, mode, size, rig.bufferCount());
                expectWrittenBytes(rig, configuration, mode, expected,
                                   sizeName(size) + " configuration " + std::to_string(configuration) + " mode " +
                                       std::to_string(mode));
                if (HasFatalFailure()) return;
            }
        }
    }
}

TEST(UnsupportedSize, AbortsWithTheSizeAssertion) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    cudaStream_t stream = nullptr;
    unsigned char* targets[1] = {nullptr};
    for (const ProcessedSize& size : {ProcessedSize{672, 380}, ProcessedSize{1920, 1080}, ProcessedSize{640, 480}}) {
        EXPECT_DEATH(cap::cudaISP(stream, cap::YUV_ONLY, 1, cap::BILINEAR_5, nullptr, targets, nullptr, nullptr,
                                  size.width, size.height, 1, 1, 1, 1, 1, 10),
                     "false && \\(width \\|\\| height\\)")
            << sizeName(size);
    }
}

TEST(UnknownConfiguration, ColourStageRunsThenTheMessageIsPrinted) {
    RUVO_REQUIRE_CUDA_DEVICE();
    const ProcessedSize size{672, 384};
    const std::vector<uint16_t> frame = randomSensorFrame(size.width, size.height, 73);
    for (cap::CUDADemosaicMode mode : {cap::BILINEAR_5, cap::LANCZOS_11}) {
        IspRig known(cap::YUV_ONLY, size);
        known.fillRaw(frame);
        known.run(mode);
        for (int configuration : {12, -1}) {
            IspRig unknown(configuration, size);
            unknown.fillRaw(frame);
            unknown.poison(0);
            testing::internal::CaptureStderr();
            unknown.run(mode);
            EXPECT_EQ(testing::internal::GetCapturedStderr(),
                      "Unimplemented CUDA kernel output format configuration!\n");
            const size_t bytes = static_cast<size_t>(size.width) * size.height * 3 / 2;
            EXPECT_TRUE(std::equal(unknown.buffer(0), unknown.buffer(0) + bytes, known.buffer(0)))
                << "configuration " << configuration << " mode " << mode;
        }
    }
}

std::string thrownString(const std::function<void()>& body) {
    try {
        body();
    } catch (const std::string& text) {
        return text;
    }
    return "nothing thrown";
}

TEST(HistogramScratch, OtherAlgorithmNamesThrowTheTextItselfAndLeaveNoSize) {
    for (const char* name :
         {"DeviceHistogram::HistogramRange", "HistogramEven", "", "DeviceHistogram::HistogramEven "}) {
        unsigned int size = 77;
        unsigned char* storage = nullptr;
        EXPECT_EQ(thrownString([&] { cap::allocateCUBBuffer(size, &storage, name, 336, 192); }),
                  "CUB algorithm specification is invalid")
            << name;
        EXPECT_EQ(size, 0u);
        EXPECT_EQ(storage, nullptr);
    }
}

TEST(HistogramScratch, EvenBinHistogramGetsDeviceMemory) {
    RUVO_REQUIRE_CUDA_DEVICE();
    unsigned int size = 0;
    unsigned char* storage = nullptr;
    cap::allocateCUBBuffer(size, &storage, "DeviceHistogram::HistogramEven", 1344, 760);
    EXPECT_GT(size, 0u);
    EXPECT_NE(storage, nullptr);
#ifdef RUVO_HOST_BUILD
    EXPECT_EQ(ruvo::hostrt::allocationSize(storage), size);
#endif
    EXPECT_EQ(cudaFree(storage), cudaSuccess);
}

#ifdef RUVO_HOST_BUILD

class HostRuntimeFailures : public ::testing::Test {
protected:
    void TearDown() override { ruvo::hostrt::resetFaults(); }
};

std::string deviceErrorOf(const std::function<void()>& body) {
    try {
        body();
    } catch (const cap::CUDADeviceException& e) {
        return e.what();
    }
    return "nothing thrown";
}

TEST_F(HostRuntimeFailures, FailedScratchAllocationNamesTheCall) {
    ruvo::hostrt::failCall("cudaMalloc", cudaErrorMemoryAllocation);
    unsigned int size = 0;
    unsigned char* storage = nullptr;
    const std::string message =
        deviceErrorOf([&] { cap::allocateCUBBuffer(size, &storage, "DeviceHistogram::HistogramEven", 336, 192); });
    EXPECT_EQ(message.rfind("cudaMalloc(temp_storage, temp_size) at src/HostKernels.cpp:", 0), 0u) << message;
    EXPECT_NE(message.find("cudaErrorMemoryAllocation(2)"), std::string::npos) << message;
    EXPECT_GT(size, 0u);
}

TEST_F(HostRuntimeFailures, HistogramWithTooLittleScratchNamesTheCubCall) {
    const ProcessedSize size{672, 384};
    IspRig rig(cap::YUV_2_4_SKIN_HISTOGRAM, size);
    rig.fillRaw(randomSensorFrame(size.width, size.height, 79));
    unsigned char* scratch[1] = {nullptr};
    int length[1] = {16};
    std::vector<unsigned char**> extra(7, nullptr);
    std::vector<int*> lengths(7, nullptr);
    unsigned char* histogramScratch = nullptr;
    ASSERT_EQ(cudaMalloc(&histogramScratch, 16), cudaSuccess);
    scratch[0] = histogramScratch;
    extra[4] = scratch;
    lengths[4] = length;
    std::vector<unsigned char*> targets;
    for (size_t k = 0; k < rig.bufferCount(); ++k) targets.push_back(rig.buffer(k));
    cudaStream_t stream = nullptr;
    const std::string message = deviceErrorOf([&] {
        cap::cudaISP(stream, cap::YUV_2_4_SKIN_HISTOGRAM, targets.size(), cap::BILINEAR_5, rig.raw(), targets.data(),
                     extra.data(), lengths.data(), size.width, size.height, 1, 1, 1, 1, 1, 10);
    });
    EXPECT_EQ(message.rfind("cub::DeviceHistogram::HistogramEven( d_temp_storage, temp_storage_bytes, targets[3], "
                            "d_hist, n_levels, 0, 256, (int)(width*height/4), stream, false) at src/HostKernels.cpp:",
                            0),
              0u)
        << message;
    EXPECT_EQ(cudaFree(histogramScratch), cudaSuccess);
}

#endif

}  // namespace
