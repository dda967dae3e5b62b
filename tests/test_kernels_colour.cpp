// Colour kernels: the fast-math helpers against the standard library, the YUV colour path of both
// demosaic modes against a double-precision reference, the full-scale and zero edge cases, the
// border rules, and the RGB outputs of the Bayer, no-demosaic and RGB-only kernels.
#include "kernels/FastMath.h"
#include "support/GpuPresence.h"
#include "support/kernel_buffers.h"
#include "support/kernel_reference.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>

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

TEST(FastMath, Log2IsAccurateOverTheWholeNormalRange) {
    EXPECT_EQ(k::fastLog2(1.0f), 0.0f);
    // Just below 1 the logarithm must stay accurate relative to its size, or full scale turns 254.
    EXPECT_NEAR(k::fastLog2(0.99999994f), std::log2(static_cast<double>(0.99999994f)), 1e-11);
    std::mt19937 random(7);
    std::uniform_real_distribution<float> mantissa(1.0f, 2.0f);
    for (int exponent = -126; exponent <= 127; ++exponent) {
        for (int i = 0; i < 16; ++i) {
            const float x = std::ldexp(mantissa(random), exponent);
            ASSERT_NEAR(k::fastLog2(x), std::log2(static_cast<double>(x)), 4e-6 + 4e-8 * std::abs(exponent)) << x;
        }
    }
}

TEST(FastMath, Exp2IsAccurateAndFlushesBelowTheNormalRange) {
    EXPECT_EQ(k::fastExp2(0.0f), 1.0f);
    EXPECT_EQ(k::fastExp2(-130.0f), 0.0f);
    for (float x = -125.0f; x <= 127.0f; x += 0.0371f) {
        const double expected = std::exp2(static_cast<double>(x));
        ASSERT_NEAR(k::fastExp2(x) / expected, 1.0, 3e-6) << x;
    }
}

TEST(FastMath, PowerOfZeroAndNegativeValuesIsZero) {
    for (float gamma : {0.3f, 0.8f, 1.0f, 2.2f}) {
        EXPECT_EQ(k::fastPow(0.0f, gamma), 0.0f);
        EXPECT_EQ(k::fastPow(-0.25f, gamma), 0.0f);
        EXPECT_EQ(k::fastPow(1.0f, gamma), 1.0f);
        for (float x = 1e-6f; x <= 4.0f; x *= 1.07f) {
            ASSERT_NEAR(k::fastPow(x, gamma) / std::pow(static_cast<double>(x), gamma), 1.0, 1e-5) << x << "^" << gamma;
        }
    }
}

TEST(FastMath, Atan2MatchesTheLibraryOnIntegerDifferences) {
    EXPECT_EQ(k::atan2Approx(0.0f, 0.0f), 0.0f);
    EXPECT_EQ(k::atan2Approx(0.0f, 5.0f), 0.0f);
    EXPECT_EQ(k::atan2Approx(0.0f, -5.0f), static_cast<float>(M_PI));
    EXPECT_EQ(k::atan2Approx(5.0f, 0.0f), static_cast<float>(M_PI / 2));
    EXPECT_EQ(k::atan2Approx(-5.0f, 0.0f), -static_cast<float>(M_PI / 2));
    for (int dy = -255; dy <= 255; ++dy) {
        for (int dx = -255; dx <= 255; ++dx) {
            ASSERT_NEAR(k::atan2Approx(static_cast<float>(dy), static_cast<float>(dx)), std::atan2(dy, dx), 4e-7)
                << dy << "," << dx;
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

// Bytes of a YUV420p image of width x height.
struct YuvView {
    const unsigned char* data;
    unsigned width;
    unsigned height;
    unsigned char y(unsigned row, unsigned column) const { return data[static_cast<size_t>(row) * width + column]; }
    unsigned char u(unsigned ty, unsigned tx) const {
        return data[static_cast<size_t>(width) * height + static_cast<size_t>(ty) * (width / 2) + tx];
    }
    unsigned char v(unsigned ty, unsigned tx) const {
        const size_t plane = static_cast<size_t>(width) * height;
        return data[plane + plane / 4 + static_cast<size_t>(ty) * (width / 2) + tx];
    }
};

// Largest and count of byte differences between a YUV image and a per-quad expectation.
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

template <class QuadFunction>
Deviation compareYuv(const YuvView& image, const QuadFunction& expectedQuad) {
    Deviation deviation;
    for (unsigned ty = 0; ty < image.height / 2; ++ty) {
        for (unsigned tx = 0; tx < image.width / 2; ++tx) {
            const QuadYuv expected = expectedQuad(tx, ty);
            deviation.add(image.y(2 * ty, 2 * tx), expected.y[0]);
            deviation.add(image.y(2 * ty, 2 * tx + 1), expected.y[1]);
            deviation.add(image.y(2 * ty + 1, 2 * tx), expected.y[2]);
            deviation.add(image.y(2 * ty + 1, 2 * tx + 1), expected.y[3]);
            deviation.add(image.u(ty, tx), expected.u);
            deviation.add(image.v(ty, tx), expected.v);
        }
    }
    return deviation;
}

QuadColours referenceDemosaic(CUDADemosaicMode mode, const RawImage& raw, unsigned tx, unsigned ty) {
    return mode == BILINEAR_5 ? referenceBilinear(raw, tx, ty) : referenceLanczos(raw, tx, ty);
}

class ColourPath : public ::testing::TestWithParam<CUDADemosaicMode> {
protected:
    void SetUp() override { RUVO_REQUIRE_CUDA_DEVICE(); }
};

TEST_P(ColourPath, MatchesTheDoublePrecisionReferenceWithinOneStep) {
    const CUDADemosaicMode mode = GetParam();
    IspRig rig(YUV_ONLY, kSmall);
    rig.fillRaw(randomSensorFrame(kSmall.width, kSmall.height, 11));
    const RawImage raw{rig.raw(), kSmall.width, kSmall.height};
    const unsigned quadsPerRow = kSmall.width / 2;
    std::vector<QuadColours> demosaiced;
    for (unsigned ty = 0; ty < kSmall.height / 2; ++ty) {
        for (unsigned tx = 0; tx < quadsPerRow; ++tx) demosaiced.push_back(referenceDemosaic(mode, raw, tx, ty));
    }
    for (const Gammas& gammas :
         {Gammas{}, Gammas{0.8f, 0.9f, 0.7f, 0.85f, 1.2f}, Gammas{2.2f, 1.6f, 0.45f, 1.0f, 0.9f}}) {
        rig.run(mode, gammas);
        const Deviation deviation =
            compareYuv({rig.buffer(0), kSmall.width, kSmall.height}, [&](unsigned tx, unsigned ty) {
                return referenceColourPath(demosaiced[static_cast<size_t>(ty) * quadsPerRow + tx], gammas);
            });
        EXPECT_LE(deviation.largest, 1) << "gammas " << gammas.r << " " << gammas.g << " " << gammas.b;
        // Single-precision rounding flips a truncation now and then, not systematically.
        EXPECT_LT(deviation.inexact, deviation.compared / 100);
    }
}

TEST_P(ColourPath, FullScaleIsWhiteAndZeroIsBlackWithNeutralChroma) {
    IspRig rig(YUV_ONLY, kSmall);
    for (const auto& [sample, luma] : {std::pair<uint16_t, int>{16383, 255}, std::pair<uint16_t, int>{0, 0}}) {
        rig.fillRaw(flatFrame(kSmall.width, kSmall.height, sample));
        rig.run(GetParam());
        const YuvView image{rig.buffer(0), kSmall.width, kSmall.height};
        for (unsigned ty = 0; ty < kSmall.height / 2; ++ty) {
            for (unsigned tx = 0; tx < kSmall.width / 2; ++tx) {
                ASSERT_EQ(image.y(2 * ty, 2 * tx), luma) << sample << " at " << tx << "," << ty;
                ASSERT_EQ(image.y(2 * ty + 1, 2 * tx + 1), luma);
                ASSERT_EQ(image.u(ty, tx), 127);
                ASSERT_EQ(image.v(ty, tx), 127);
            }
        }
    }
}

TEST_P(ColourPath, TenBitSamplesWithUnitExponentsReachAtMostFifteen) {
    // Plain 10-bit values, not shifted into the 14-bit field: 255 * 1023 / 16383 = 15.9.
    IspRig rig(YUV_ONLY, kSmall);
    rig.fillRaw(flatFrame(kSmall.width, kSmall.height, 1023));
    rig.run(GetParam());
    const size_t plane = static_cast<size_t>(kSmall.width) * kSmall.height;
    EXPECT_TRUE(std::all_of(rig.buffer(0), rig.buffer(0) + plane, [](unsigned char y) { return y == 15; }));
}

TEST(TenBitCeiling, BilinearNeverExceedsItsBrightestSample) {
    // Bilinear weights are positive, so no interpolated value exceeds 1023 (Lanczos lobes can).
    RUVO_REQUIRE_CUDA_DEVICE();
    IspRig rig(YUV_ONLY, kSmall);
    std::vector<uint16_t> samples = randomSensorFrame(kSmall.width, kSmall.height, 5);
    for (uint16_t& s : samples) s /= 16;
    rig.fillRaw(samples);
    rig.run(BILINEAR_5);
    const unsigned char* luma = rig.buffer(0);
    const unsigned char brightest = *std::max_element(luma, luma + static_cast<size_t>(kSmall.width) * kSmall.height);
    EXPECT_LE(brightest, 15);
    EXPECT_GE(brightest, 12);
}

INSTANTIATE_TEST_SUITE_P(BothModes, ColourPath, ::testing::Values(BILINEAR_5, LANCZOS_11),
                         [](const auto& info) { return info.param == BILINEAR_5 ? "Bilinear" : "Lanczos"; });

// Quads on either side of a border line, as (tx, ty) lists.
struct BorderCase {
    const char* name;
    std::vector<std::pair<unsigned, unsigned>> border;
    std::vector<std::pair<unsigned, unsigned>> interior;
};

std::vector<BorderCase> borderCases(unsigned first, unsigned endX, unsigned endY) {
    std::vector<BorderCase> cases(4);
    cases[0].name = "top";
    cases[1].name = "left";
    cases[2].name = "bottom";
    cases[3].name = "right";
    for (unsigned i = first + 1; i < 60; ++i) {
        cases[0].border.push_back({i, first - 1});
        cases[0].interior.push_back({i, first});
        cases[1].border.push_back({first - 1, i});
        cases[1].interior.push_back({first, i});
        cases[2].border.push_back({i, endY});
        cases[2].interior.push_back({i, endY - 1});
        cases[3].border.push_back({endX, i});
        cases[3].interior.push_back({endX - 1, i});
    }
    return cases;
}

// On each side of the frame, the last quads of the border take the fallback and the first
// interior quads are interpolated (checked where the two differ).
void expectBorderLines(CUDADemosaicMode mode, unsigned first, unsigned endX, unsigned endY) {
    IspRig rig(YUV_ONLY, kSmall);
    rig.fillRaw(randomSensorFrame(kSmall.width, kSmall.height, 3));
    rig.run(mode);
    const RawImage raw{rig.raw(), kSmall.width, kSmall.height};
    const YuvView image{rig.buffer(0), kSmall.width, kSmall.height};
    const Gammas unit;
    for (const BorderCase& c : borderCases(first, endX, endY)) {
        int distinguished = 0;
        for (const auto& [tx, ty] : c.border) {
            const QuadYuv fallback = referenceColourPath(referenceFallback(raw, tx, ty), unit);
            EXPECT_NEAR(image.y(2 * ty, 2 * tx), std::floor(fallback.y[0]), 1)
                << c.name << " border " << tx << "," << ty;
        }
        for (const auto& [tx, ty] : c.interior) {
            const QuadYuv fallback = referenceColourPath(referenceFallback(raw, tx, ty), unit);
            const QuadYuv interpolated = referenceColourPath(referenceDemosaic(mode, raw, tx, ty), unit);
            if (std::abs(fallback.y[0] - interpolated.y[0]) < 3) continue;
            ++distinguished;
            EXPECT_NEAR(image.y(2 * ty, 2 * tx), std::floor(interpolated.y[0]), 1)
                << c.name << " interior " << tx << "," << ty;
        }
        EXPECT_GT(distinguished, 10) << c.name;
    }
}

TEST(BorderRule, BilinearInterpolatesFromTheSecondQuadToTheLastButOne) {
    RUVO_REQUIRE_CUDA_DEVICE();
    expectBorderLines(BILINEAR_5, 1, (kSmall.width - 1) / 2, (kSmall.height - 1) / 2);
}

TEST(BorderRule, LanczosKeepsNineSamplesOfFallbackOnEverySide) {
    RUVO_REQUIRE_CUDA_DEVICE();
    // 2 ty < 9 is border: ty = 4 (rows 8, 9) is the last border quad, ty = 5 (rows 10, 11) interior.
    expectBorderLines(LANCZOS_11, 5, (kSmall.width - 8) / 2, (kSmall.height - 8) / 2);
}

// value / 16383 * 255 truncated, for a raw-scale value.
int fullScaleByte(double value) { return static_cast<int>(std::floor(value * 255.0 / 16383.0)); }

TEST(RgbOutputs, RgbOnlyIsTheBilinearDemosaicWithoutExponents) {
    RUVO_REQUIRE_CUDA_DEVICE();
    IspRig rig(RGB_ONLY, kSmall);
    rig.fillRaw(randomSensorFrame(kSmall.width, kSmall.height, 17));
    rig.run(BILINEAR_5, {0.5f, 0.5f, 0.5f, 0.5f, 0.5f});
    const RawImage raw{rig.raw(), kSmall.width, kSmall.height};
    const unsigned char* rgb = rig.buffer(0);
    Deviation deviation;
    for (unsigned ty = 0; ty < kSmall.height / 2; ++ty) {
        for (unsigned tx = 0; tx < kSmall.width / 2; ++tx) {
            const QuadColours quad = referenceBilinear(raw, tx, ty);
            for (unsigned site = 0; site < 4; ++site) {
                const size_t pixel = (2 * ty + site / 2) * static_cast<size_t>(kSmall.width) + 2 * tx + site % 2;
                deviation.add(rgb[3 * pixel], fullScaleByte(quad[site].r));
                deviation.add(rgb[3 * pixel + 1], fullScaleByte(quad[site].g));
                deviation.add(rgb[3 * pixel + 2], fullScaleByte(quad[site].b));
            }
        }
    }
    EXPECT_LE(deviation.largest, 1);
    EXPECT_LT(deviation.inexact, deviation.compared / 1000);
}

TEST(RgbOutputs, BggrWritesTheColourImageAndTheMosaicInItsOwnChannels) {
    RUVO_REQUIRE_CUDA_DEVICE();
    const std::vector<uint16_t> frame = randomSensorFrame(kSmall.width, kSmall.height, 23);
    IspRig yuvOnly(YUV_ONLY, kSmall);
    yuvOnly.fillRaw(frame);
    yuvOnly.run(BILINEAR_5, {0.8f, 0.8f, 0.8f, 0.9f, 0.9f});
    IspRig bggr(BGGR, kSmall);
    bggr.fillRaw(frame);
    bggr.run(BILINEAR_5, {0.8f, 0.8f, 0.8f, 0.9f, 0.9f});
    const size_t yuvBytes = static_cast<size_t>(kSmall.width) * kSmall.height * 3 / 2;
    EXPECT_TRUE(std::equal(bggr.buffer(0), bggr.buffer(0) + yuvBytes, yuvOnly.buffer(0)));
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

TEST(RgbOutputs, NoDemosaicSpreadsEachQuadOverItsFourPixels) {
    RUVO_REQUIRE_CUDA_DEVICE();
    IspRig rig(NO_DEMOSAIC_RGB, kSmall);
    rig.fillRaw(randomSensorFrame(kSmall.width, kSmall.height, 29));
    const Gammas gammas{0.8f, 0.9f, 0.7f, 0.85f, 1.2f};
    rig.run(BILINEAR_5, gammas);
    const RawImage raw{rig.raw(), kSmall.width, kSmall.height};
    const unsigned char* rgb = rig.buffer(0);
    for (unsigned ty = 0; ty < kSmall.height / 2; ++ty) {
        for (unsigned tx = 0; tx < kSmall.width / 2; ++tx) {
            const QuadColours quad = referenceFallback(raw, tx, ty);
            for (unsigned site = 0; site < 4; ++site) {
                const size_t pixel = (2 * ty + site / 2) * static_cast<size_t>(kSmall.width) + 2 * tx + site % 2;
                ASSERT_EQ(rgb[3 * pixel], fullScaleByte(quad[site].r));
                ASSERT_EQ(rgb[3 * pixel + 1], fullScaleByte(quad[site].g)) << tx << "," << ty << " site " << site;
                ASSERT_EQ(rgb[3 * pixel + 2], fullScaleByte(quad[site].b));
            }
        }
    }
    const Deviation deviation = compareYuv({rig.buffer(1), kSmall.width, kSmall.height}, [&](unsigned tx, unsigned ty) {
        return referenceColourPath(referenceFallback(raw, tx, ty), gammas);
    });
    EXPECT_LE(deviation.largest, 1);
}

}  // namespace
