// Colour kernels: the fast power and byte conversion against the standard library, the YUV colour
// path of both demosaic modes (border fallback included) against a double-precision reference, the
// full-scale, zero and 10-bit edge cases, the RGB outputs of the Bayer, no-demosaic and RGB-only
// kernels, the per-thread border decision of the CUDA kernels against the host's row spans, and the
// host's hand-written AVX2 row against its portable row loop.
#if defined(RUVO_HOST_BUILD) && defined(__x86_64__)
#include "host/grid/HostGridKernels.h"
#endif
#include "isp/KernelMap.h"
#include "isp/LaunchGeometry.h"
#include "kernels/FastMath.h"
#include "support/GpuPresence.h"
#include "support/kernel_buffers.h"
#include "support/kernel_reference.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

namespace {

using namespace ruvo::test;
using ruvo::capture::BGGR;
using ruvo::capture::BILINEAR_5;
using ruvo::capture::CUDADemosaicMode;
using ruvo::capture::LANCZOS_11;
using ruvo::capture::NO_DEMOSAIC_RGB;
using ruvo::capture::RGB_ONLY;
using ruvo::capture::YUV_ONLY;
namespace k = ruvo::capture::kernels;

constexpr ProcessedSize kSmall{672, 384};
constexpr size_t kPlane = static_cast<size_t>(kSmall.width) * kSmall.height;

TEST(FastMath, PowerIsAccurateAndZeroForZeroAndNegativeValues) {
    // Just below 1 the logarithm must stay accurate relative to its size, or full scale turns 254; the
    // power keeps the relative error its comment states (a luma byte then moves by at most one step).
    EXPECT_NEAR(k::fastLog2(0.99999994f), std::log2(static_cast<double>(0.99999994f)), 1e-11);
    for (float gamma : {0.3f, 0.8f, 1.0f, 2.2f}) {
        EXPECT_EQ(k::fastPow(0.0f, gamma), 0.0f);
        EXPECT_EQ(k::fastPow(-0.25f, gamma), 0.0f);
        EXPECT_EQ(k::fastPow(1.0f, gamma), 1.0f);
        for (float x = 1e-6f; x <= 4.0f; x *= 1.07f) {
            ASSERT_NEAR(k::fastPow(x, gamma) / std::pow(static_cast<double>(x), gamma), 1.0, 1.2e-4 * gamma + 1.03e-4)
                << x << "^" << gamma;
        }
    }
}

TEST(FastMath, FullScaleBytesAreTheExactQuotient) {
    for (int s = 0; s <= 16383; ++s) {
        ASSERT_EQ(k::fullScaleToByte(static_cast<float>(s)), s * 255 / 16383) << s;
        // (G1 + G2) / 2 can end in one half.
        ASSERT_EQ(k::fullScaleToByte(s + 0.5f), (2 * s + 1) * 255 / (2 * 16383)) << s << ".5";
    }
}

// Largest and count of byte differences between outputs and a double-precision expectation.
struct Deviation {
    int largest = 0;
    size_t inexact = 0;
    size_t compared = 0;

    void add(int got, double expected) {
        const int difference = std::abs(got - static_cast<int>(std::floor(expected)));
        largest = std::max(largest, difference);
        inexact += difference != 0;
        ++compared;
    }
};

// A small-size YUV420p image against a per-quad expectation (tx, ty) -> QuadYuv.
template <class QuadFunction>
Deviation compareYuv(const unsigned char* yuv, const QuadFunction& expectedQuad) {
    const unsigned width = kSmall.width, quadsPerRow = width / 2;
    Deviation deviation;
    for (unsigned ty = 0; ty < kSmall.height / 2; ++ty) {
        for (unsigned tx = 0; tx < quadsPerRow; ++tx) {
            const QuadYuv expected = expectedQuad(tx, ty);
            for (unsigned site = 0; site < 4; ++site) {
                deviation.add(yuv[(2 * ty + site / 2) * width + 2 * tx + site % 2], expected.y[site]);
            }
            deviation.add(yuv[kPlane + ty * quadsPerRow + tx], expected.u);
            deviation.add(yuv[kPlane * 5 / 4 + ty * quadsPerRow + tx], expected.v);
        }
    }
    return deviation;
}

class ColourPath : public ::testing::TestWithParam<CUDADemosaicMode> {
protected:
    void SetUp() override { RUVO_REQUIRE_CUDA_DEVICE(); }
};

// The reference takes the border fallback on the quads where the mode has no full neighbourhood,
// so the border lines are checked here too.
TEST_P(ColourPath, MatchesTheDoublePrecisionReferenceWithinOneStep) {
    const CUDADemosaicMode mode = GetParam();
    IspRig rig(YUV_ONLY, kSmall);
    rig.fillRaw(randomSensorFrame(kSmall.width, kSmall.height, 11));
    const RawImage raw{rig.raw(), kSmall.width, kSmall.height};
    std::vector<QuadColours> demosaiced;
    for (unsigned ty = 0; ty < kSmall.height / 2; ++ty) {
        for (unsigned tx = 0; tx < kSmall.width / 2; ++tx) {
            demosaiced.push_back(mode == BILINEAR_5 ? referenceBilinear(raw, tx, ty) : referenceLanczos(raw, tx, ty));
        }
    }
    for (const Gammas& gammas :
         {Gammas{}, Gammas{0.8f, 0.9f, 0.7f, 0.85f, 1.2f}, Gammas{2.2f, 1.6f, 0.45f, 1.0f, 0.9f}}) {
        rig.run(mode, gammas);
        const Deviation deviation = compareYuv(rig.buffer(0), [&](unsigned tx, unsigned ty) {
            return referenceColourPath(demosaiced[static_cast<size_t>(ty) * (kSmall.width / 2) + tx], gammas);
        });
        EXPECT_LE(deviation.largest, 1) << "gammas " << gammas.r << " " << gammas.g << " " << gammas.b;
        // Single-precision rounding flips a truncation now and then, not systematically.
        EXPECT_LT(deviation.inexact, deviation.compared / 100);
    }
}

// Full scale is white and zero black; plain 10-bit samples (not shifted into the 14-bit field)
// with unit exponents reach only 255 * 1023 / 16383 = 15.9. Chroma stays neutral throughout.
TEST_P(ColourPath, FlatFramesAtFullScaleZeroAndTheTenBitCeiling) {
    IspRig rig(YUV_ONLY, kSmall);
    for (const auto& [sample, luma] : {std::pair<uint16_t, int>{16383, 255}, {0, 0}, {1023, 15}}) {
        rig.fillRaw(std::vector<uint16_t>(kPlane, sample));
        rig.run(GetParam());
        const unsigned char* yuv = rig.buffer(0);
        for (size_t i = 0; i < kPlane * 3 / 2; ++i) {
            // At G sites the bilinear weights of R and B sum to just below 1: full scale may give 254.
            const bool greenSite = i < kPlane && (i / kSmall.width + i % kSmall.width) % 2 == 1;
            if (sample == 16383 && greenSite) continue;
            ASSERT_EQ(yuv[i], i < kPlane ? luma : 127) << sample << " at " << i;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(BothModes, ColourPath, ::testing::Values(BILINEAR_5, LANCZOS_11),
                         [](const auto& info) { return info.param == BILINEAR_5 ? "Bilinear" : "Lanczos"; });

// A CUDA thread decides on its own whether its quad is on the border; the host grid decides per row
// span and never asks. Every thread of each configuration's colour kernel, run one by one as a GPU
// runs them, must write exactly the bytes the host grid wrote.
TEST(ColourThreads, OneByOneTheyWriteWhatTheHostGridWrites) {
    RUVO_REQUIRE_CUDA_DEVICE();
    const k::Extent2 threads = k::findLaunchGeometry(kSmall.width, kSmall.height)->shape(1).threads();
    for (const CUDADemosaicMode mode : {BILINEAR_5, LANCZOS_11}) {
        for (int configuration = YUV_ONLY; configuration <= RGB_ONLY; ++configuration) {
            IspRig rig(configuration, kSmall);
            rig.fillRaw(randomSensorFrame(kSmall.width, kSmall.height, 29));
            rig.poison(0x5a);
            rig.run(mode);
            const k::PlannedLaunch colour = k::planIsp(configuration, mode).launches[0];
            std::vector<std::vector<unsigned char>> grid;
            for (const int target : colour.outputs) {
                if (target != k::kNoTarget) grid.push_back(rig.copy(static_cast<size_t>(target)));
            }
            rig.poison(0x5a);
            std::vector<unsigned char*> targets;
            for (size_t b = 0; b < rig.bufferCount(); ++b) targets.push_back(rig.buffer(b));
            const ruvo::capture::cudaKernelParams params{rig.raw(), kSmall.width, kSmall.height, 1, 1, 1, 1, 1};
            k::visitKernel(colour, params, targets.data(), 10.0f, [&](const auto& kernel) {
                for (unsigned ty = 0; ty < threads.y; ++ty) {
                    for (unsigned tx = 0; tx < threads.x; ++tx) kernel(tx, ty);
                }
            });
            // The two paths round the same arithmetic apart from the vectoriser's contractions, so
            // a byte may differ by one step now and then; a border quad taken for an interior one
            // (or the reverse) differs by far more.
            for (size_t slot = 0; slot < grid.size(); ++slot) {
                const std::vector<unsigned char> threadBytes = rig.copy(static_cast<size_t>(colour.outputs[slot]));
                Deviation deviation;
                for (size_t i = 0; i < threadBytes.size(); ++i) deviation.add(threadBytes[i], grid[slot][i]);
                EXPECT_LE(deviation.largest, 1) << "configuration " << configuration << ", mode " << mode;
                EXPECT_LT(deviation.inexact, deviation.compared / 100) << "configuration " << configuration;
            }
        }
    }
}

#if defined(RUVO_HOST_BUILD) && defined(__x86_64__)
// The hand-written AVX2 row replaces the portable row loop on AVX2 CPUs and must write the bytes
// that loop wrote, run as the grid ran it (whole blocks, the last one moved back, so always its
// widest vectorised loop): rows of whole steps, of steps with a remainder of one and of seven (the
// last step moved back), and 1280-wide rows, on random and coloured frames, with exponents within
// (0, 1] and beyond. Every byte of the image is compared, so a write outside the run shows too; a
// frame of 228,000 quads shows a multiply-add fused differently from the portable loop's.
TEST(Avx2ColourRow, WritesTheBytesOfThePortableRowLoop) {
    if (!__builtin_cpu_supports("avx2") || !__builtin_cpu_supports("fma")) GTEST_SKIP() << "no AVX2 and FMA";
    // Without row clones (sanitizer builds) the portable loop is the baseline version, which fuses no
    // multiply-adds: bytes may then be one step apart.
    const auto near = [](unsigned char a, unsigned char b) { return std::abs(a - b) <= (RUVO_X86_ROW_CLONES ? 0 : 1); };
    constexpr unsigned kHeight = 720;  // interior quad rows 1 .. 358
    for (const unsigned quads : {64u, 65u, 71u, 638u}) {
        const unsigned width = 2 * (quads + 2);  // interior quads 1 .. quads
        for (const uint32_t seed : {1u, 2u}) {
            const std::vector<uint16_t> raw =
                seed == 1 ? randomSensorFrame(width, kHeight, 41) : colourFrame(width, kHeight, 614, 409, 307, 300, 43);
            for (const Gammas& gammas :
                 {Gammas{}, Gammas{0.8f, 0.9f, 0.7f, 0.85f, 1.2f}, Gammas{2.2f, 1.6f, 0.45f, 1.0f, 0.9f}}) {
                const ruvo::capture::cudaKernelParams params{raw.data(), width,    kHeight,   gammas.r,
                                                             gammas.g,   gammas.b, gammas.cr, gammas.cb};
                std::vector<unsigned char> portable(width * kHeight * 3 / 2, 0x5a), avx2 = portable;
                const k::Yuv420Fast portableKernel{params, {portable.data()}}, avx2Kernel{params, {avx2.data()}};
                for (unsigned ty = 1; ty < (kHeight - 1) / 2; ++ty) {
                    k::runPortableInterior(portableKernel, ty, 1, quads + 1);
                    k::runAvx2ColourRow(avx2Kernel, ty, 1, quads + 1);
                }
                const auto mismatch = std::mismatch(portable.begin(), portable.end(), avx2.begin(), near);
                ASSERT_TRUE(mismatch.first == portable.end())
                    << quads << " quads, frame " << seed << ", gamma r " << gammas.r << ": byte "
                    << mismatch.first - portable.begin() << " is " << int(*mismatch.second) << ", not "
                    << int(*mismatch.first);
            }
        }
    }
}
#endif

// value / 16383 * 255 truncated, for a raw-scale value.
int fullScaleByte(double value) { return static_cast<int>(std::floor(value * 255.0 / 16383.0)); }

// RGB_ONLY is the bilinear demosaic without exponents (within one step); NO_DEMOSAIC_RGB spreads
// each quad's fallback colours over its four pixels exactly, and its YUV image is the colour path
// of those colours.
TEST(RgbOutputs, RgbOnlyAndNoDemosaicAgainstTheReferenceDemosaic) {
    RUVO_REQUIRE_CUDA_DEVICE();
    const struct {
        int configuration;
        QuadColours (*reference)(const RawImage&, unsigned, unsigned);
        int largest;
    } cases[] = {{RGB_ONLY, referenceBilinear, 1}, {NO_DEMOSAIC_RGB, referenceFallback, 0}};
    const Gammas gammas{0.8f, 0.9f, 0.7f, 0.85f, 1.2f};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.configuration);
        IspRig rig(c.configuration, kSmall);
        rig.fillRaw(randomSensorFrame(kSmall.width, kSmall.height, 17));
        rig.run(BILINEAR_5, gammas);
        const RawImage raw{rig.raw(), kSmall.width, kSmall.height};
        const unsigned char* rgb = rig.buffer(0);
        Deviation deviation;
        for (unsigned ty = 0; ty < kSmall.height / 2; ++ty) {
            for (unsigned tx = 0; tx < kSmall.width / 2; ++tx) {
                const QuadColours quad = c.reference(raw, tx, ty);
                for (unsigned site = 0; site < 4; ++site) {
                    const size_t pixel = (2 * ty + site / 2) * static_cast<size_t>(kSmall.width) + 2 * tx + site % 2;
                    deviation.add(rgb[3 * pixel], fullScaleByte(quad[site].r));
                    deviation.add(rgb[3 * pixel + 1], fullScaleByte(quad[site].g));
                    deviation.add(rgb[3 * pixel + 2], fullScaleByte(quad[site].b));
                }
            }
        }
        EXPECT_LE(deviation.largest, c.largest);
        EXPECT_LT(deviation.inexact, deviation.compared / 1000);
        if (c.configuration == NO_DEMOSAIC_RGB) {
            const Deviation yuv = compareYuv(rig.buffer(1), [&](unsigned tx, unsigned ty) {
                return referenceColourPath(referenceFallback(raw, tx, ty), gammas);
            });
            EXPECT_LE(yuv.largest, 1);
        }
    }
}

TEST(RgbOutputs, BggrWritesTheMosaicInItsOwnChannels) {
    RUVO_REQUIRE_CUDA_DEVICE();
    const std::vector<uint16_t> frame = randomSensorFrame(kSmall.width, kSmall.height, 23);
    IspRig bggr(BGGR, kSmall);
    bggr.fillRaw(frame);
    bggr.run(BILINEAR_5, {0.8f, 0.8f, 0.8f, 0.9f, 0.9f});
    const unsigned char* mosaic = bggr.buffer(1);
    for (unsigned y = 0; y < kSmall.height; ++y) {
        for (unsigned x = 0; x < kSmall.width; ++x) {
            const size_t pixel = static_cast<size_t>(y) * kSmall.width + x;
            const int channel = (y % 2 == 0) ? (x % 2 == 0 ? 2 : 1) : (x % 2 == 0 ? 1 : 0);
            for (int c = 0; c < 3; ++c) {
                const int expected = c == channel ? fullScaleByte(frame[pixel]) : 0;
                ASSERT_EQ(mosaic[3 * pixel + c], expected) << x << "," << y << " channel " << c;
            }
        }
    }
}

}  // namespace
