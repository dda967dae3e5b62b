// Skin kernels: the chroma box and the colour-model gate at their bounds, the cluster model at its
// means and with its deliberately asymmetric matrix, the segmented copy of the colour image, and
// the skin-luminance plane with its histogram against a direct count.
#include "kernels/SkinKernels.h"
#include "support/GpuPresence.h"
#include "support/kernel_buffers.h"
#include "support/kernel_reference.h"

#include <gtest/gtest.h>

#include <cmath>
#include <numeric>

namespace {

using namespace ruvo::test;
using ruvo::capture::BILINEAR_5;
using ruvo::capture::YUV_2_4_SKIN_HISTOGRAM;
using ruvo::capture::YUV_SKIN;
namespace k = ruvo::capture::kernels;

constexpr ProcessedSize kSmall{672, 384};

TEST(SkinDecision, ChromaBoxBoundsAreInclusive) {
    EXPECT_TRUE(k::isSegmentSkin(122.0f, 135.0f));
    EXPECT_TRUE(k::isSegmentSkin(65.0f, 195.0f));
    EXPECT_FALSE(k::isSegmentSkin(123.0f, 135.0f));
    EXPECT_FALSE(k::isSegmentSkin(122.01f, 150.0f));
    EXPECT_FALSE(k::isSegmentSkin(64.99f, 150.0f));
    EXPECT_FALSE(k::isSegmentSkin(100.0f, 134.99f));
    EXPECT_FALSE(k::isSegmentSkin(100.0f, 195.01f));
    EXPECT_FALSE(k::isSegmentSkin(127.0f, 127.0f));  // grey
}

TEST(SkinDecision, ColourModelGateIsWiderInU) {
    EXPECT_TRUE(k::passesSkinGate(59.0f, 135.0f));
    EXPECT_TRUE(k::passesSkinGate(129.0f, 195.0f));
    EXPECT_TRUE(k::passesSkinGate(125.0f, 150.0f));  // outside the chroma box, inside the gate
    EXPECT_FALSE(k::passesSkinGate(58.99f, 150.0f));
    EXPECT_FALSE(k::passesSkinGate(129.01f, 150.0f));
    EXPECT_FALSE(k::passesSkinGate(100.0f, 134.99f));
    EXPECT_FALSE(k::passesSkinGate(100.0f, 195.01f));
    EXPECT_FALSE(k::passesSkinGate(127.0f, 127.0f));  // grey
}

k::YuvQuad uniformQuad(float y, float u, float v) { return {{y, y, y, y}, u, v}; }

TEST(SkinDecision, AQuadOnAClusterMeanKeepsItsLuminanceForAnyPositiveThreshold) {
    const k::SkinCluster second = k::skinCluster2();
    const k::SkinCluster third = k::skinCluster3();
    EXPECT_EQ(k::skinScore(second.mean.y, second.mean.u, second.mean.v), 0.0f);
    EXPECT_EQ(k::skinLuminance(uniformQuad(second.mean.y, second.mean.u, second.mean.v), 1e-6f), 114);
    EXPECT_EQ(k::skinLuminance(uniformQuad(third.mean.y, third.mean.u, third.mean.v), 1e-6f), 170);
    // Not strictly below a threshold of 0.
    EXPECT_EQ(k::skinLuminance(uniformQuad(second.mean.y, second.mean.u, second.mean.v), 0.0f), 0);
    // The first cluster's mean chroma (123, 132) lies below the gate's V bound.
    const k::SkinCluster first = k::skinCluster1();
    EXPECT_EQ(k::skinLuminance(uniformQuad(first.mean.y, first.mean.u, first.mean.v), 1e6f), 0);
}

TEST(SkinDecision, TheLuminanceIsTheTruncatedMeanOfTheFourLumaValues) {
    const k::SkinCluster second = k::skinCluster2();
    const k::YuvQuad quad{{110.0f, 111.0f, 118.0f, 118.9f}, second.mean.u, second.mean.v};
    EXPECT_EQ(k::skinLuminance(quad, 10.0f), 114);  // 457.9 / 4 = 114.475
}

TEST(SkinDecision, SecondClusterUsesItsAsymmetricWeightsAsListed) {
    const k::SkinCluster c = k::skinCluster2();
    // d = (1, 1, 0): row 1 . d = 0.00077086 - 0.0010396, row 2 . d = -0.00010396 + 0.034774.
    const double expected = (0.00077086 - 0.0010396) + (-0.00010396 + 0.034774);
    EXPECT_NEAR(k::clusterDistance(c, c.mean.y + 1.0f, c.mean.u + 1.0f, c.mean.v), expected, 1e-7);
    EXPECT_NEAR(k::skinScore(50.0f, 110.0f, 150.0f), referenceSkinScore(50.0, 110.0, 150.0), 1e-3);
}

// A frame of skin-coloured quads with enough noise that some leave the chroma box.
std::vector<uint16_t> skinFrame(const ProcessedSize& size, uint32_t seed) {
    return colourFrame(size.width, size.height, 614, 409, 307, 260, seed);
}

// Reference U, V and mean luma of quad (tx, ty) with unit exponents.
QuadYuv referenceQuad(const RawImage& raw, unsigned tx, unsigned ty) {
    return referenceColourPath(referenceBilinear(raw, tx, ty), Gammas{});
}

// Whether x is within `margin` of a bound.
bool near(double x, std::initializer_list<double> bounds, double margin) {
    for (double bound : bounds) {
        if (std::abs(x - bound) < margin) return true;
    }
    return false;
}

TEST(SegmentSkin, CopiesLumaAndMarksTheChromaOfNonSkinQuads) {
    RUVO_REQUIRE_CUDA_DEVICE();
    IspRig rig(YUV_SKIN, kSmall);
    rig.fillRaw(skinFrame(kSmall, 41));
    rig.run(BILINEAR_5);
    const RawImage raw{rig.raw(), kSmall.width, kSmall.height};
    const size_t plane = static_cast<size_t>(kSmall.width) * kSmall.height;
    const unsigned char* yuv = rig.buffer(0);
    const unsigned char* skin = rig.buffer(1);
    EXPECT_TRUE(std::equal(yuv, yuv + plane, skin));
    int skinQuads = 0, otherQuads = 0;
    for (unsigned ty = 0; ty < kSmall.height / 2; ++ty) {
        for (unsigned tx = 0; tx < kSmall.width / 2; ++tx) {
            const QuadYuv expected = referenceQuad(raw, tx, ty);
            if (near(expected.u, {65, 122}, 0.05) || near(expected.v, {135, 195}, 0.05)) continue;
            const size_t u = plane + static_cast<size_t>(ty) * (kSmall.width / 2) + tx, v = u + plane / 4;
            if (expected.u >= 65 && expected.u <= 122 && expected.v >= 135 && expected.v <= 195) {
                ++skinQuads;
                ASSERT_EQ(skin[u], yuv[u]) << tx << "," << ty;
                ASSERT_EQ(skin[v], yuv[v]) << tx << "," << ty;
            } else {
                ++otherQuads;
                ASSERT_EQ(skin[u], 255) << tx << "," << ty;
                ASSERT_EQ(skin[v], 255) << tx << "," << ty;
            }
        }
    }
    EXPECT_GT(skinQuads, 1000);
    EXPECT_GT(otherQuads, 1000);
}

TEST(SkinHistogram, SkinPlaneFollowsTheGateAndTheClusterModel) {
    RUVO_REQUIRE_CUDA_DEVICE();
    IspRig rig(YUV_2_4_SKIN_HISTOGRAM, kSmall);
    rig.fillRaw(skinFrame(kSmall, 43));
    const float threshold = 10.0f;
    rig.run(BILINEAR_5, Gammas{}, threshold);
    const RawImage raw{rig.raw(), kSmall.width, kSmall.height};
    const unsigned char* skinY = rig.buffer(3);
    int kept = 0, dropped = 0;
    for (unsigned ty = 0; ty < kSmall.height / 2; ++ty) {
        for (unsigned tx = 0; tx < kSmall.width / 2; ++tx) {
            const QuadYuv q = referenceQuad(raw, tx, ty);
            const double ym = (q.y[0] + q.y[1] + q.y[2] + q.y[3]) / 4.0;
            if (near(q.u, {59, 129}, 0.05) || near(q.v, {135, 195}, 0.05)) continue;
            const bool gate = q.u >= 59 && q.u <= 129 && q.v >= 135 && q.v <= 195;
            const double score = gate ? referenceSkinScore(ym, q.u, q.v) : INFINITY;
            if (gate && std::abs(score - threshold) < 0.05) continue;
            const int got = skinY[static_cast<size_t>(ty) * (kSmall.width / 2) + tx];
            if (score < threshold) {
                ++kept;
                ASSERT_NEAR(got, std::floor(ym), 1) << tx << "," << ty;
            } else {
                ++dropped;
                ASSERT_EQ(got, 0) << tx << "," << ty;
            }
        }
    }
    EXPECT_GT(kept, 500);
    EXPECT_GT(dropped, 500);
}

TEST(SkinHistogram, CountsEverySampleOfTheSkinPlaneAtEverySize) {
    RUVO_REQUIRE_CUDA_DEVICE();
    for (const ProcessedSize& size : supportedSizes()) {
        IspRig rig(YUV_2_4_SKIN_HISTOGRAM, size);
        rig.fillRaw(skinFrame(size, 47));
        rig.run(BILINEAR_5);
        const size_t samples = static_cast<size_t>(size.width) * size.height / 4;
        std::vector<int> counted(256, 0);
        for (size_t i = 0; i < samples; ++i) ++counted[rig.buffer(3)[i]];
        const std::vector<int> histogram(rig.histogram(), rig.histogram() + 256);
        EXPECT_EQ(histogram, counted) << sizeName(size);
        EXPECT_EQ(std::accumulate(histogram.begin(), histogram.end(), size_t{0}), samples) << sizeName(size);
        EXPECT_LT(static_cast<size_t>(histogram[0]), samples) << sizeName(size);
    }
}

TEST(SkinHistogram, NoThresholdAtOrBelowZeroLetsAQuadThrough) {
    RUVO_REQUIRE_CUDA_DEVICE();
    IspRig rig(YUV_2_4_SKIN_HISTOGRAM, kSmall);
    rig.fillRaw(skinFrame(kSmall, 53));
    for (float threshold : {0.0f, -1.0f}) {
        rig.poison(0x77);
        rig.run(BILINEAR_5, Gammas{}, threshold);
        const size_t samples = static_cast<size_t>(kSmall.width) * kSmall.height / 4;
        EXPECT_EQ(static_cast<size_t>(rig.histogram()[0]), samples);
        EXPECT_TRUE(std::all_of(rig.buffer(3), rig.buffer(3) + samples, [](unsigned char b) { return b == 0; }));
    }
}

}  // namespace
