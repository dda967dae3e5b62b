// The Lanczos tap map, read back through the kernels' own weighted sums by feeding them unit
// impulses: every tap carries the windowed-sinc weight of its distance, each pattern's weights sum
// to its normaliser, a quad reads exactly 140 samples, and a flat frame stays flat.
#include "kernels/LanczosTaps.h"
#include "support/GpuPresence.h"
#include "support/kernel_buffers.h"
#include "support/kernel_reference.h"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <set>
#include <utility>

namespace {

namespace k = ruvo::capture::kernels;
using ruvo::test::lanczosWeight;

// 1 at one offset (relative to the sampler's own position), 0 elsewhere.
struct Impulse {
    int y;
    int x;
    float operator()(int dy, int dx) const { return dy == y && dx == x ? 1.0f : 0.0f; }
};

struct Constant {
    float value;
    float operator()(int, int) const { return value; }
};

using PatternSum = std::function<float(const Impulse&)>;

struct Pattern {
    const char* name;
    PatternSum sum;
    std::function<bool(int, int)> takes;  // parity of the offsets of the pattern's colour
    float normaliser;
    int taps;
};

std::vector<Pattern> patterns() {
    auto odd = [](int v) { return v % 2 != 0; };
    return {
        {"diagonal", [](const Impulse& s) { return k::lanczosDiagonalSum(s); },
         [=](int dy, int dx) { return odd(dy) && odd(dx); }, k::kLanczosDiagonalNorm, 32},
        {"column", [](const Impulse& s) { return k::lanczosColumnSum(s); },
         [=](int dy, int dx) { return odd(dy) && !odd(dx); }, k::kLanczosLineNorm, 30},
        {"row", [](const Impulse& s) { return k::lanczosRowSum(s); },
         [=](int dy, int dx) { return !odd(dy) && odd(dx); }, k::kLanczosLineNorm, 30},
        {"cross", [](const Impulse& s) { return k::lanczosCrossSum(s); }, [=](int dy, int dx) { return odd(dy + dx); },
         k::kLanczosCrossNorm, 60},
    };
}

TEST(LanczosTaps, EveryTapCarriesTheWindowedSincWeightOfItsDistance) {
    for (const Pattern& pattern : patterns()) {
        int taps = 0;
        for (int dy = -7; dy <= 7; ++dy) {
            for (int dx = -7; dx <= 7; ++dx) {
                const bool inWindow = std::abs(dy) <= 5 && std::abs(dx) <= 5;
                const double expected = inWindow && pattern.takes(dy, dx) ? lanczosWeight(dy, dx) : 0.0;
                const float weight = pattern.sum(Impulse{dy, dx});
                EXPECT_NEAR(weight, expected, 6e-8) << pattern.name << " at " << dy << "," << dx;
                taps += weight != 0.0f;
            }
        }
        EXPECT_EQ(taps, pattern.taps) << pattern.name;
    }
}

TEST(LanczosTaps, EachPatternSumsToItsNormaliser) {
    for (const Pattern& pattern : patterns()) {
        double total = 0.0;
        for (int dy = -5; dy <= 5; ++dy) {
            for (int dx = -5; dx <= 5; ++dx) total += pattern.sum(Impulse{dy, dx});
        }
        EXPECT_NEAR(total, pattern.normaliser, 2e-6) << pattern.name;
    }
}

// A sampler positioned on one site of a quad, reading a frame that is 1 only at `hot` (relative to
// the quad's B sample).
struct QuadImpulse {
    int siteY;
    int siteX;
    std::pair<int, int> hot;
    float operator()(int dy, int dx) const { return siteY + dy == hot.first && siteX + dx == hot.second ? 1.0f : 0.0f; }
};

TEST(LanczosTaps, AQuadReads140SamplesInATwelveSquareWithoutCorners) {
    std::set<std::pair<int, int>> footprint;
    for (int y = -8; y <= 9; ++y) {
        for (int x = -8; x <= 9; ++x) {
            const std::pair<int, int> hot{y, x};
            const k::QuadRgb q = k::lanczosQuadAt(QuadImpulse{0, 0, hot}, QuadImpulse{0, 1, hot},
                                                  QuadImpulse{1, 0, hot}, QuadImpulse{1, 1, hot});
            bool read = false;
            for (int site = 0; site < 4; ++site) read = read || q.r[site] != 0 || q.g[site] != 0 || q.b[site] != 0;
            if (read) footprint.insert(hot);
        }
    }
    EXPECT_EQ(footprint.size(), 140u);
    for (const auto& [y, x] : footprint) {
        EXPECT_TRUE(y >= -5 && y <= 6 && x >= -5 && x <= 6) << y << "," << x;
    }
    for (const auto& corner : {std::pair{-5, -5}, std::pair{-5, 6}, std::pair{6, -5}, std::pair{6, 6}}) {
        EXPECT_EQ(footprint.count(corner), 0u);
    }
}

TEST(LanczosTaps, AFlatNeighbourhoodInterpolatesToItself) {
    const Constant flat{9000.0f};
    const k::QuadRgb q = k::lanczosQuadAt(flat, flat, flat, flat);
    for (int site = 0; site < 4; ++site) {
        EXPECT_NEAR(q.r[site], 9000.0f, 0.02f);
        EXPECT_NEAR(q.g[site], 9000.0f, 0.02f);
        EXPECT_NEAR(q.b[site], 9000.0f, 0.02f);
    }
}

TEST(LanczosTaps, AFlatFrameGivesOneColourEverywhere) {
    RUVO_REQUIRE_CUDA_DEVICE();
    const ruvo::test::ProcessedSize size{672, 384};
    ruvo::test::IspRig rig(ruvo::capture::YUV_ONLY, size);
    rig.fillRaw(ruvo::test::colourFrame(size.width, size.height, 700, 500, 300, 0, 1));
    rig.run(ruvo::capture::LANCZOS_11, {0.8f, 0.8f, 0.8f, 1.0f, 1.0f});
    const unsigned char* yuv = rig.buffer(0);
    const size_t plane = static_cast<size_t>(size.width) * size.height;
    for (size_t i = 0; i < plane; ++i) ASSERT_EQ(yuv[i], yuv[0]) << "pixel " << i;
    for (size_t i = plane; i < plane * 5 / 4; ++i) ASSERT_EQ(yuv[i], yuv[plane]) << "U " << i - plane;
    for (size_t i = plane * 5 / 4; i < plane * 3 / 2; ++i) ASSERT_EQ(yuv[i], yuv[plane * 5 / 4]) << "V " << i;
}

}  // namespace
