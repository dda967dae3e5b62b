// Metering samples: reproducible tables from the seeded engine, the table growing per start,
// the uniform draw matching the classic scaling method, and the centre-weighted region prior.
#include "CUDACamera.h"
#include "support/CameraTestAccess.h"
#include "support/GpuPresence.h"
#include "support/SimCamera.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>

using namespace ruvo::capture;
using ruvo::test::simCameraConfig;
using ruvo::test::uniqueSimPath;

TEST(MeteringSamples, SeedZeroCamerasDrawIdenticalTablesThatGrowPerStartAndFitTheSize) {
    RUVO_REQUIRE_CUDA_DEVICE();
    CUDACamera a(simCameraConfig(uniqueSimPath("sa"), {{"numSamples", "500"}}), 0);
    CUDACamera b(simCameraConfig(uniqueSimPath("sb"), {{"numSamples", "500"}}), 1);
    a.start();
    b.start();
    const auto& ta = CUDACameraTestAccess::samples(a);
    ASSERT_EQ(ta.size(), 500u);
    EXPECT_EQ(ta, CUDACameraTestAccess::samples(b));
    const auto first = ta;
    a.stop();
    a.start();
    const auto& grown = CUDACameraTestAccess::samples(a);
    ASSERT_EQ(grown.size(), 1000u);
    EXPECT_TRUE(std::equal(first.begin(), first.end(), grown.begin()));
    EXPECT_FALSE(std::equal(first.begin(), first.end(), grown.begin() + 500));
    // Regression: a restart at a smaller size kept samples outside the new frame.
    Controls c = a.getControls();
    c.width = 672;
    c.height = 380;
    a.setControls(c);
    ASSERT_EQ(grown.size(), 500u) << "redrawn";
    for (const auto& s : grown) {
        EXPECT_LT(s.first, 672);
        EXPECT_LT(s.second, 380);
    }
    a.stop();
    b.stop();
}

// The classic scaling draw, computed independently: x first, then y, from one engine.
TEST(MeteringSamples, DrawsFollowTheScalingMethod) {
    RUVO_REQUIRE_CUDA_DEVICE();
    CUDACamera camera(simCameraConfig(uniqueSimPath("draw"), {{"numSamples", "64"}, {"awb.seed", "7"}}), 0);
    camera.start();
    std::mt19937 engine(7);
    auto draw = [&](uint32_t n) {
        const uint32_t scaling = 4294967295u / n;
        uint32_t d;
        do d = engine();
        while (d >= n * scaling);
        return static_cast<int>(d / scaling);
    };
    for (const auto& s : CUDACameraTestAccess::samples(camera)) {
        EXPECT_EQ(s.first, draw(1280));
        EXPECT_EQ(s.second, draw(720));
    }
    camera.stop();
}

TEST(MeteringSamples, NoiseStaysWithinATenth) {
    CUDACamera camera(simCameraConfig(uniqueSimPath("noise")), 0);
    std::mt19937 engine(0);
    for (int i = 0; i < 1000; ++i) {
        const float v = camera.noise();
        EXPECT_GE(v, -0.1f);
        EXPECT_LE(v, 0.1f);
        EXPECT_FLOAT_EQ(v, static_cast<float>(engine()) * 2.3283064e-10f * 0.2f - 0.1f);
    }
    const dlib::rectangle r(5, 10, 7, 12);
    for (int i = 0; i < 100; ++i) {
        const int row = camera.randRow(r);
        const int col = camera.randCol(r);
        EXPECT_TRUE(row >= 10 && row <= 12);
        EXPECT_TRUE(col >= 5 && col <= 7);
    }
}

TEST(MeteringSamples, RegionPriorPeaksInTheCentre) {
    CUDACamera camera(simCameraConfig(uniqueSimPath("grid")), 0);
    const auto& w = CUDACameraTestAccess::winWeights(camera);
    ASSERT_GE(w.size(), 16u);
    const float centre = w[5], corner = w[0], edge = w[1];
    for (int i : {5, 6, 9, 10}) EXPECT_FLOAT_EQ(w[i], centre);
    for (int i : {0, 3, 12, 15}) EXPECT_FLOAT_EQ(w[i], corner);
    EXPECT_GT(centre, edge);
    EXPECT_GT(edge, corner);
    // sigma = 4/3: centre offset (0.5, 0.5), corner (1.5, 1.5)
    const double s = 4.0 / 3.0;
    EXPECT_NEAR(centre, std::exp(-0.5 / (2 * s * s)) / (s * 2.5066283095076436), 1e-6);
    EXPECT_NEAR(corner, std::exp(-4.5 / (2 * s * s)) / (s * 2.5066283095076436), 1e-6);
    float sum = 0;
    for (int i = 0; i < 16; ++i) sum += w[i];
    EXPECT_FLOAT_EQ(CUDACameraTestAccess::sumWinWeights(camera), sum);
    // A region count that is no square leaves the last slots zero.
    CUDACamera ten(simCameraConfig(uniqueSimPath("grid10"), {{"ae.numRegions", "10"}}), 0);
    const auto& w10 = CUDACameraTestAccess::winWeights(ten);
    ASSERT_GE(w10.size(), 10u);
    EXPECT_GT(w10[4], w10[0]);
    EXPECT_EQ(w10[9], 0.0f);
}
