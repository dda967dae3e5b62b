// The Lanczos tap map, read back through the kernels' own weighted sums by feeding them unit
// impulses: every tap carries the windowed-sinc weight of its distance; and a flat neighbourhood
// stays flat.
#include "kernels/LanczosTaps.h"
#include "support/kernel_reference.h"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>

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

TEST(LanczosTaps, EveryTapCarriesTheWindowedSincWeightOfItsDistance) {
    auto odd = [](int v) { return v % 2 != 0; };
    const struct {
        const char* name;
        std::function<float(const Impulse&)> sum;
        std::function<bool(int, int)> takes;  // parity of the offsets of the pattern's colour
        int taps;
    } patterns[] = {
        {"diagonal", [](const Impulse& s) { return k::lanczosDiagonalSum(s); },
         [=](int dy, int dx) { return odd(dy) && odd(dx); }, 32},
        {"column", [](const Impulse& s) { return k::lanczosColumnSum(s); },
         [=](int dy, int dx) { return odd(dy) && !odd(dx); }, 30},
        {"row", [](const Impulse& s) { return k::lanczosRowSum(s); },
         [=](int dy, int dx) { return !odd(dy) && odd(dx); }, 30},
        {"cross", [](const Impulse& s) { return k::lanczosCrossSum(s); }, [=](int dy, int dx) { return odd(dy + dx); },
         60},
    };
    for (const auto& pattern : patterns) {
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

// Each pattern's weights must sum to its normaliser: a flat neighbourhood interpolates to itself,
// closely. (Whole frames in this mode, borders included, are checked against an independent
// reference by the colour path tests, flat coloured fields by the Bayer order tests.)
TEST(LanczosTaps, FlatStaysFlat) {
    const Constant flat{9000.0f};
    const k::QuadRgb q = k::lanczosQuadAt(flat, flat, flat, flat);
    for (int site = 0; site < 4; ++site) {
        EXPECT_NEAR(q.r[site], 9000.0f, 0.02f);
        EXPECT_NEAR(q.g[site], 9000.0f, 0.02f);
        EXPECT_NEAR(q.b[site], 9000.0f, 0.02f);
    }
}

}  // namespace
