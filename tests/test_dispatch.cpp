// The dispatcher: the launch geometry of every size the size rule takes, which output bytes a run
// writes in every configuration, demosaic mode and size (and which it leaves alone), the colour
// kernel each run starts with, the abort on other sizes, the message for unknown configurations,
// and the histogram's scratch memory.
#include "CUDAKernels.h"
#include "CUDAUtils.h"
#include "isp/LaunchGeometry.h"
#include "support/GpuPresence.h"
#include "support/kernel_buffers.h"

#ifdef RUVO_HOST_BUILD
#include "host/runtime/HostRuntimeControl.h"
#endif

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

namespace {

using namespace ruvo::test;
namespace cap = ruvo::capture;
namespace k = ruvo::capture::kernels;

// The default sensor's four sizes as delivered, the rows they are processed at, and the block and
// grid of steps 1 to 4, as the pipeline has always launched them.
struct TableRow {
    unsigned width, visibleHeight, height;
    k::Extent2 blocks[4], grids[4];
};
const TableRow kTable[] = {
    {672, 380, 384, {{28, 12}, {14, 24}, {14, 24}, {14, 24}}, {{12, 16}, {12, 4}, {6, 2}, {3, 1}}},
    {1280, 720, 720, {{32, 24}, {32, 20}, {32, 15}, {20, 15}}, {{20, 15}, {10, 9}, {5, 6}, {4, 3}}},
    {1920, 1080, 1152, {{32, 12}, {32, 18}, {30, 9}, {30, 9}}, {{30, 48}, {15, 16}, {8, 16}, {4, 8}}},
    {2688, 1520, 1520, {{32, 10}, {32, 10}, {24, 19}, {24, 19}}, {{42, 76}, {21, 38}, {14, 10}, {7, 5}}},
};

bool sameExtent(k::Extent2 a, k::Extent2 b) { return a.x == b.x && a.y == b.y; }

TEST(SizeRule, TheDefaultSensorsSizesKeepTheirPaddingBlocksAndGrids) {
    for (const TableRow& row : kTable) {
        const std::string what = std::to_string(row.width) + "x" + std::to_string(row.visibleHeight);
        EXPECT_TRUE(k::takesFrameSize(row.width, row.visibleHeight)) << what;
        ASSERT_EQ(k::paddedHeight(row.width, row.visibleHeight), row.height) << what;
        const std::optional<k::LaunchGeometry> geometry = k::findLaunchGeometry(row.width, row.height);
        ASSERT_TRUE(geometry) << what;
        for (int step = k::kFirstStep; step <= k::kLastStep; ++step) {
            const k::LaunchShape shape = geometry->shape(step);
            EXPECT_TRUE(sameExtent(shape.block, row.blocks[step - 1]) && sameExtent(shape.grid, row.grids[step - 1]))
                << what << " step " << step;
        }
    }
}

// Every launch of a size the rule takes covers exactly (width >> s) x (height >> s) threads within
// the kernels' launch bounds, for every size up to 4096 x 4096; a size off the 16-pixel grid has no
// geometry, and the padding of one sensor mode does not spread to other sizes.
TEST(SizeRule, EveryTakenSizeIsCoveredExactlyAndNoOtherHasAGeometry) {
    for (unsigned width = 16; width <= 4096; width += 16) {
        for (unsigned height = 16; height <= 4096; height += 16) {
            const std::optional<k::LaunchGeometry> geometry = k::findLaunchGeometry(width, height);
            ASSERT_TRUE(geometry) << width << "x" << height;
            for (int step = k::kFirstStep; step <= k::kLastStep; ++step) {
                const k::LaunchShape shape = geometry->shape(step);
                ASSERT_TRUE(sameExtent(shape.threads(), {width >> step, height >> step}) &&
                            shape.block.x * shape.block.y <= k::kMaxThreadsPerBlock)
                    << width << "x" << height << " step " << step << ": block " << shape.block.x << "x"
                    << shape.block.y;
            }
        }
    }
    for (const ProcessedSize& size : {ProcessedSize{1640, 1232}, ProcessedSize{1280, 728}, ProcessedSize{1920, 1080},
                                      ProcessedSize{672, 380}, ProcessedSize{8, 8}}) {
        EXPECT_FALSE(k::findLaunchGeometry(size.width, size.height)) << sizeName(size);
    }
    EXPECT_FALSE(k::takesFrameSize(1280, 1080));
    EXPECT_FALSE(k::takesFrameSize(672, 382));
}

// Bytes that a run writes into each buffer, from the configuration's documented outputs.
std::vector<size_t> expectedWrites(int configuration, cap::CUDADemosaicMode mode, const ProcessedSize& size,
                                   size_t count) {
    std::vector<size_t> bytes(count);
    for (size_t k = 0; k < count; ++k) bytes[k] = tableBytes(configuration, k, size.width, size.height);
    const size_t pixels = static_cast<size_t>(size.width) * size.height;
    if (configuration == cap::YUV_2_4) bytes[3] = 0;  // listed, never written
    if (configuration == cap::BGGR) {
        bytes[1] = pixels * 3;  // RGB24 in a YUV420p slot
        bytes[2] = 0;
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

// Whether each byte of each buffer (guards included) was written: two runs over different poison
// agree exactly on the bytes the kernels wrote and keep the poison everywhere else. In the Lanczos
// mode the skin plane (buffer 3) of the histogram configuration is read by the eighth- and
// sixteenth-size levels but not written: it holds the same ramp in both runs and must keep it.
void expectWrittenBytes(IspRig& rig, cap::CUDADemosaicMode mode, const std::vector<size_t>& expected,
                        const std::string& what) {
    const bool rampInSkinPlane = rig.configuration() == cap::YUV_2_4_SKIN_HISTOGRAM && mode == cap::LANCZOS_11;
    std::vector<unsigned char> ramp(rampInSkinPlane ? rig.bufferBytes(3) + IspRig::kGuardBytes : 0);
    for (size_t i = 0; i < ramp.size(); ++i) ramp[i] = static_cast<unsigned char>(1 + i % 251);
    std::vector<std::vector<unsigned char>> runs[2];
    for (int run = 0; run < 2; ++run) {
        rig.poison(run == 0 ? 0xA5 : 0x5A);
        if (rampInSkinPlane) std::copy(ramp.begin(), ramp.end(), rig.buffer(3));
        rig.run(mode, {0.8f, 0.9f, 0.7f, 0.9f, 1.1f});
        for (size_t k = 0; k < rig.bufferCount(); ++k) runs[run].push_back(rig.copy(k));
    }
    for (size_t k = 0; k < rig.bufferCount(); ++k) {
        const std::vector<unsigned char>&first = runs[0][k], &second = runs[1][k];
        if (rampInSkinPlane && k == 3) {
            ASSERT_TRUE(first == ramp && second == ramp) << what << " buffer 3 was written";
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

// Also checks that the full-size YUV image of every configuration that has one is the one of
// YUV_ONLY in the same mode: every Lanczos run and every bilinear colour kernel share the colour path.
// The sizes: the default sensor's four and the sensor modes with derived launch shapes, one test
// each, so that a stage may leave out sizes by name.
struct WrittenBytes : ::testing::TestWithParam<ProcessedSize> {};

TEST_P(WrittenBytes, ExactlyTheOutputsOfEveryConfigurationAndMode) {
    RUVO_REQUIRE_CUDA_DEVICE();
    const ProcessedSize size = GetParam();
    const std::vector<uint16_t> frame = randomSensorFrame(size.width, size.height, 71);
    const size_t yuvBytes = static_cast<size_t>(size.width) * size.height * 3 / 2;
    std::vector<unsigned char> yuvOnly[2];
    for (int configuration = 0; configuration < 12; ++configuration) {
        IspRig rig(configuration, size);
        rig.fillRaw(frame);
        for (cap::CUDADemosaicMode mode : {cap::BILINEAR_5, cap::LANCZOS_11}) {
            const std::string what =
                sizeName(size) + " configuration " + std::to_string(configuration) + " mode " + std::to_string(mode);
            expectWrittenBytes(rig, mode, expectedWrites(configuration, mode, size, rig.bufferCount()), what);
            if (HasFatalFailure()) return;
            std::vector<unsigned char> yuv = rig.copy(0);
            yuv.resize(yuvBytes);
            if (configuration == cap::YUV_ONLY) yuvOnly[mode] = yuv;
            const bool rgb = configuration == cap::RGB_ONLY || configuration == cap::NO_DEMOSAIC_RGB;
            if (mode == cap::LANCZOS_11 || !rgb) {
                EXPECT_EQ(yuv, yuvOnly[mode]) << what << " colour image";
            }
        }
    }
}

const auto kSizeName = [](const auto& info) { return sizeName(info.param); };
INSTANTIATE_TEST_SUITE_P(AllSizes, WrittenBytes, ::testing::ValuesIn(supportedSizes()), kSizeName);
INSTANTIATE_TEST_SUITE_P(SensorModes, WrittenBytes, ::testing::ValuesIn(sensorModeSizes()), kSizeName);

TEST(UnsupportedSize, AbortsWithTheSizeAssertion) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    cudaStream_t stream = nullptr;
    unsigned char* targets[1] = {nullptr};
    for (const ProcessedSize& size : {ProcessedSize{672, 380}, ProcessedSize{1920, 1080}, ProcessedSize{1640, 1232}}) {
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

TEST(HistogramScratch, OtherAlgorithmNamesThrowTheTextItselfAndLeaveNoSize) {
    for (const char* name :
         {"DeviceHistogram::HistogramRange", "HistogramEven", "", "DeviceHistogram::HistogramEven "}) {
        unsigned int size = 77;
        unsigned char* storage = nullptr;
        std::string thrown = "nothing thrown";
        try {
            cap::allocateCUBBuffer(size, &storage, name, 336, 192);
        } catch (const std::string& text) {
            thrown = text;
        }
        EXPECT_EQ(thrown, "CUB algorithm specification is invalid") << name;
        EXPECT_EQ(size, 0u);
        EXPECT_EQ(storage, nullptr);
    }
}

#ifdef RUVO_HOST_BUILD

class HostRuntimeFailures : public ::testing::Test {
protected:
    void TearDown() override { ruvo::hostrt::resetFaults(); }

    static std::string deviceErrorOf(const std::function<void()>& body) {
        try {
            body();
        } catch (const cap::CUDADeviceException& e) {
            return e.what();
        }
        return "nothing thrown";
    }
};

TEST_F(HostRuntimeFailures, FailedScratchAllocationNamesTheCall) {
    ruvo::hostrt::failCall("cudaMalloc", cudaErrorMemoryAllocation);
    unsigned int size = 0;
    unsigned char* storage = nullptr;
    const std::string message =
        deviceErrorOf([&] { cap::allocateCUBBuffer(size, &storage, "DeviceHistogram::HistogramEven", 336, 192); });
    EXPECT_EQ(message.rfind("cudaMalloc(temp_storage, temp_size) at src/CUDAKernels.cu:", 0), 0u) << message;
    EXPECT_NE(message.find("cudaErrorMemoryAllocation(2)"), std::string::npos) << message;
    EXPECT_GT(size, 0u);
}

TEST_F(HostRuntimeFailures, HistogramWithTooLittleScratchNamesTheCubCall) {
    IspRig rig(cap::YUV_2_4_SKIN_HISTOGRAM, {672, 384});
    rig.fillRaw(randomSensorFrame(672, 384, 79));
    rig.limitScratch(16);
    const std::string message = deviceErrorOf([&] { rig.run(cap::BILINEAR_5); });
    EXPECT_EQ(message.rfind("cub::DeviceHistogram::HistogramEven( d_temp_storage, temp_storage_bytes, targets[3], "
                            "d_hist, n_levels, 0, 256, (int)(width*height/4), stream, false) at src/CUDAKernels.cu:",
                            0),
              0u)
        << message;
}

#endif

}  // namespace
