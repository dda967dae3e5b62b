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

// Both boxes are inclusive; the colour-model gate is wider in U (59 to 129 against 65 to 122).
TEST(SkinDecision, ChromaBoxAndGateBounds) {
    const struct {
        float u, v;
        bool segment, gate;
    } cases[] = {
        {122.0f, 135.0f, true, true},    {65.0f, 195.0f, true, true},     {123.0f, 135.0f, false, true},
        {122.01f, 150.0f, false, true},  {64.99f, 150.0f, false, true},   {59.0f, 135.0f, false, true},
        {129.0f, 195.0f, false, true},   {58.99f, 150.0f, false, false},  {129.01f, 150.0f, false, false},
        {100.0f, 134.99f, false, false}, {100.0f, 195.01f, false, false}, {127.0f, 127.0f, false, false},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(k::isSegmentSkin(c.u, c.v), c.segment) << c.u << "," << c.v;
        EXPECT_EQ(k::passesSkinGate(c.u, c.v), c.gate) << c.u << "," << c.v;
    }
}

k::YuvQuad uniformQuad(const k::SkinCluster& c) {
    return {{c.mean.y, c.mean.y, c.mean.y, c.mean.y}, c.mean.u, c.mean.v};
}

TEST(SkinDecision, ClusterMeansAndTheAsymmetricMatrix) {
    const k::SkinCluster first = k::skinCluster1(), second = k::skinCluster2(), third = k::skinCluster3();
    // On a mean the score is 0: kept for any positive threshold, not for 0 or below.
    EXPECT_EQ(k::skinScore(second.mean.y, second.mean.u, second.mean.v), 0.0f);
    EXPECT_EQ(k::skinLuminance(uniformQuad(second), 1e-6f), 114);
    EXPECT_EQ(k::skinLuminance(uniformQuad(third), 1e-6f), 170);
    EXPECT_EQ(k::skinLuminance(uniformQuad(second), 0.0f), 0);
    EXPECT_EQ(k::skinLuminance(uniformQuad(second), -1.0f), 0);
    // The first cluster's mean chroma (123, 132) lies below the gate's V bound.
    EXPECT_EQ(k::skinLuminance(uniformQuad(first), 1e6f), 0);
    // The luminance is the truncated mean of the four luma values: 457.9 / 4 = 114.475.
    EXPECT_EQ(k::skinLuminance({{110.0f, 111.0f, 118.0f, 118.9f}, second.mean.u, second.mean.v}, 10.0f), 114);

    // d = (1, 1, 0): row 1 . d = 0.00077086 - 0.0010396, row 2 . d = -0.00010396 + 0.034774.
    const double expected = (0.00077086 - 0.0010396) + (-0.00010396 + 0.034774);
    EXPECT_NEAR(k::clusterDistance(second, second.mean.y + 1.0f, second.mean.u + 1.0f, second.mean.v), expected, 1e-7);
    EXPECT_NEAR(k::skinScore(50.0f, 110.0f, 150.0f), referenceSkinScore(50.0, 110.0, 150.0), 1e-3);
}

// A frame of skin-coloured quads with enough noise that some leave the chroma box.
std::vector<uint16_t> skinFrame(const ProcessedSize& size, uint32_t seed) {
    return colourFrame(size.width, size.height, 614, 409, 307, 260, seed);
}

// Whether x is within 0.05 of a bound, where rounding may decide either way.
bool nearBound(double x, std::initializer_list<double> bounds) {
    for (double bound : bounds) {
        if (std::abs(x - bound) < 0.05) return true;
    }
    return false;
}

// Quads whose reference U and V (unit exponents) are clear of both boxes' bounds.
template <class QuadCheck>
void forEachClearQuad(const IspRig& rig, const QuadCheck& check) {
    const RawImage raw{rig.raw(), kSmall.width, kSmall.height};
    for (unsigned ty = 0; ty < kSmall.height / 2; ++ty) {
        for (unsigned tx = 0; tx < kSmall.width / 2; ++tx) {
            const QuadYuv q = referenceColourPath(referenceBilinear(raw, tx, ty), Gammas{});
            if (nearBound(q.u, {59, 65, 122, 129}) || nearBound(q.v, {135, 195})) continue;
            check(tx, ty, q);
            if (testing::Test::HasFatalFailure()) return;
        }
    }
}

TEST(SegmentSkin, CopiesLumaAndMarksTheChromaOfNonSkinQuads) {
    RUVO_REQUIRE_CUDA_DEVICE();
    IspRig rig(YUV_SKIN, kSmall);
    rig.fillRaw(skinFrame(kSmall, 41));
    rig.run(BILINEAR_5);
    const size_t plane = static_cast<size_t>(kSmall.width) * kSmall.height;
    const unsigned char* yuv = rig.buffer(0);
    const unsigned char* skin = rig.buffer(1);
    EXPECT_TRUE(std::equal(yuv, yuv + plane, skin));
    int skinQuads = 0, otherQuads = 0;
    forEachClearQuad(rig, [&](unsigned tx, unsigned ty, const QuadYuv& expected) {
        const size_t u = plane + static_cast<size_t>(ty) * (kSmall.width / 2) + tx, v = u + plane / 4;
        const bool isSkin = expected.u >= 65 && expected.u <= 122 && expected.v >= 135 && expected.v <= 195;
        (isSkin ? skinQuads : otherQuads)++;
        ASSERT_EQ(skin[u], isSkin ? yuv[u] : 255) << tx << "," << ty;
        ASSERT_EQ(skin[v], isSkin ? yuv[v] : 255) << tx << "," << ty;
    });
    EXPECT_GT(skinQuads, 1000);
    EXPECT_GT(otherQuads, 1000);
}

TEST(SkinHistogram, SkinPlaneFollowsTheGateAndTheClusterModel) {
    RUVO_REQUIRE_CUDA_DEVICE();
    IspRig rig(YUV_2_4_SKIN_HISTOGRAM, kSmall);
    rig.fillRaw(skinFrame(kSmall, 43));
    const float threshold = 10.0f;
    rig.run(BILINEAR_5, Gammas{}, threshold);
    const unsigned char* skinY = rig.buffer(3);
    int kept = 0, dropped = 0;
    forEachClearQuad(rig, [&](unsigned tx, unsigned ty, const QuadYuv& q) {
        const double ym = (q.y[0] + q.y[1] + q.y[2] + q.y[3]) / 4.0;
        const bool gate = q.u >= 59 && q.u <= 129 && q.v >= 135 && q.v <= 195;
        const double score = gate ? referenceSkinScore(ym, q.u, q.v) : INFINITY;
        if (gate && std::abs(score - threshold) < 0.05) return;
        const int got = skinY[static_cast<size_t>(ty) * (kSmall.width / 2) + tx];
        if (score < threshold) {
            ++kept;
            ASSERT_NEAR(got, std::floor(ym), 1) << tx << "," << ty;
        } else {
            ++dropped;
            ASSERT_EQ(got, 0) << tx << "," << ty;
        }
    });
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

}  // namespace
