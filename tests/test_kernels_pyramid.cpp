// Pyramid and gradient kernels: every level and gradient plane of every configuration that has
// them, in both demosaic modes and at all four processed sizes, against direct loops over the level
// it was made from (remainders dropped, erosion, clamped offsets, magnitude wrap, orientation
// quantisation).
#include "kernels/GradientKernels.h"
#include "support/GpuPresence.h"
#include "support/kernel_buffers.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <string>

namespace {

using namespace ruvo::test;
namespace cap = ruvo::capture;

// A plane of bytes with its width, read by (row, column).
struct Plane {
    const unsigned char* data;
    size_t width;
    int at(size_t y, size_t x) const { return data[y * width + x]; }
};

// Compares `height` x `width` bytes of `got` with expected(y, x); stops at the first difference.
void expectPlane(const unsigned char* got, size_t width, size_t height,
                 const std::function<int(size_t, size_t)>& expected, const std::string& what) {
    for (size_t y = 0; y < height; ++y) {
        for (size_t x = 0; x < width; ++x) {
            ASSERT_EQ(got[y * width + x], expected(y, x)) << what << " at " << x << "," << y;
        }
    }
}

// Integer mean of the n x n block (r, c) of a plane: the remainder is dropped.
int blockMean(const Plane& p, size_t r, size_t c, size_t n) {
    int sum = 0;
    for (size_t i = 0; i < n; ++i) {
        for (size_t j = 0; j < n; ++j) sum += p.at(n * r + i, n * c + j);
    }
    return sum / static_cast<int>(n * n);
}

// The half-size YUV420p image of a width x height one, by 2 x 2 integer averages.
void expectHalf(const unsigned char* full, const unsigned char* half, size_t width, size_t height,
                const std::string& what) {
    const size_t plane = width * height;
    // Y, U and V: offset in the full image, offset in the half image, width and height in the full image.
    const size_t planes[3][4] = {{0, 0, width, height},
                                 {plane, plane / 4, width / 2, height / 2},
                                 {plane * 5 / 4, plane * 5 / 16, width / 2, height / 2}};
    for (const auto& [in, out, w, h] : planes) {
        expectPlane(
            half + out, w / 2, h / 2,
            [&](size_t r, size_t c) {
                return blockMean({full + in, w}, r, c, 2);
            },
            what + " plane at " + std::to_string(in));
    }
}

// The orientation byte from a double-precision angle, with the short pi divisor.
double orientationValue(int dx, int dy) { return std::max(0.0, std::atan2(dy, dx) * 128.0 / 3.14159f + 127.0); }

// Single precision may land on either side of an integer that the exact angle touches.
double orientationTolerance(double angle) { return std::abs(angle - std::round(angle)) < 1e-4 ? 1.0 : 0.0; }

// Planes a and b from the backward differences of the luma plane: offset differences (gx, gy),
// or magnitude and orientation.
void expectDifferences(bool magnitude, const unsigned char* luma, const unsigned char* a, const unsigned char* b,
                       size_t width, size_t height, const std::string& what) {
    const Plane in{luma, width};
    for (size_t r = 0; r < height; ++r) {
        for (size_t c = 0; c < width; ++c) {
            const int dx = c == 0 ? 0 : in.at(r, c) - in.at(r, c - 1);
            const int dy = r == 0 ? 0 : in.at(r, c) - in.at(r - 1, c);
            const double angle = orientationValue(dx, dy);
            const int expectedA =
                magnitude ? static_cast<int>(2.0 * std::sqrt(dx * dx + dy * dy)) & 0xff : std::clamp(127 + dx, 0, 255);
            ASSERT_EQ(a[r * width + c], expectedA) << what << " first plane at " << c << "," << r;
            if (magnitude) {
                ASSERT_NEAR(b[r * width + c], std::floor(angle), orientationTolerance(angle))
                    << what << " orientation at " << c << "," << r;
            } else {
                ASSERT_EQ(b[r * width + c], std::clamp(127 + dy, 0, 255)) << what << " gy at " << c << "," << r;
            }
        }
    }
}

// Eighth-size skin level: 4 x 4 averages of the half-size skin plane; sixteenth: 2 x 2 averages of
// the eighth, 0 unless all four are skin.
void expectSkinLevels(const IspRig& rig, const ProcessedSize& size) {
    const Plane skin{rig.buffer(3), size.width / 2};
    const Plane eighth{rig.buffer(5), size.width / 8};
    expectPlane(
        rig.buffer(5), size.width / 8, size.height / 8, [&](size_t r, size_t c) { return blockMean(skin, r, c, 4); },
        "eighth");
    int survivors = 0;
    expectPlane(
        rig.buffer(6), size.width / 16, size.height / 16,
        [&](size_t r, size_t c) {
            const bool whole = eighth.at(2 * r, 2 * c) && eighth.at(2 * r, 2 * c + 1) && eighth.at(2 * r + 1, 2 * c) &&
                               eighth.at(2 * r + 1, 2 * c + 1);
            survivors += whole;
            return whole ? blockMean(eighth, r, c, 2) : 0;
        },
        "sixteenth");
    EXPECT_GT(survivors, 0) << "the frame should leave some whole skin blocks";
}

// What one output of a configuration is made of: a half-size colour level of buffer `in`, or the
// two difference planes `out` and `second` of its luma. Buffer `in` is at 1/2^in of the full size.
enum class Kind { kHalf, kGradient, kMagnitude };
struct Check {
    Kind kind;
    int in;
    int out;
    int second;
};

class Levels : public ::testing::TestWithParam<ProcessedSize> {
protected:
    void SetUp() override { RUVO_REQUIRE_CUDA_DEVICE(); }
};

TEST_P(Levels, EveryLevelAndDifferencePlaneOfEveryConfiguration) {
    const Kind H = Kind::kHalf, G = Kind::kGradient, M = Kind::kMagnitude;
    const struct {
        int configuration;
        std::vector<Check> checks;
    } configurations[] = {
        {cap::YUV_2, {{H, 0, 1, 0}}},
        {cap::YUV_2_4, {{H, 0, 1, 0}, {H, 1, 2, 0}}},
        {cap::YUV_GRADIENT, {{G, 0, 1, 2}}},
        {cap::YUV_2_4_GRADIENT, {{H, 0, 1, 0}, {H, 1, 2, 0}, {G, 0, 3, 4}}},
        {cap::YUV_2_4_GRADIENT_2_4, {{H, 0, 1, 0}, {H, 1, 2, 0}, {G, 0, 3, 4}, {G, 1, 5, 6}, {G, 2, 7, 8}}},
        {cap::YUV_2_GRADIENT_VECTOR_2, {{H, 0, 1, 0}, {M, 0, 2, 3}, {M, 1, 4, 5}}},
        {cap::YUV_2_4_SKIN_HISTOGRAM, {{H, 0, 1, 0}, {H, 1, 2, 0}}},
    };
    const ProcessedSize size = GetParam();
    for (const auto& c : configurations) {
        // A noisy frame so that neighbouring levels and differences vary widely; skin-coloured
        // quads for the skin levels.
        const bool skin = c.configuration == cap::YUV_2_4_SKIN_HISTOGRAM;
        IspRig rig(c.configuration, size);
        rig.fillRaw(skin ? colourFrame(size.width, size.height, 614, 409, 307, 260, 67)
                         : randomSensorFrame(size.width, size.height, 61));
        for (cap::CUDADemosaicMode mode : {cap::BILINEAR_5, cap::LANCZOS_11}) {
            rig.run(mode, skin ? Gammas{} : Gammas{0.6f, 0.6f, 0.6f, 0.8f, 0.8f});
            const std::string what =
                "configuration " + std::to_string(c.configuration) + " mode " + std::to_string(mode) + " from buffer ";
            for (const Check& check : c.checks) {
                const size_t w = size.width >> check.in, h = size.height >> check.in;
                const std::string which = what + std::to_string(check.in) + " into " + std::to_string(check.out);
                if (check.kind == Kind::kHalf) {
                    expectHalf(rig.buffer(check.in), rig.buffer(check.out), w, h, which);
                } else {
                    expectDifferences(check.kind == Kind::kMagnitude, rig.buffer(check.in), rig.buffer(check.out),
                                      rig.buffer(check.second), w, h, which);
                }
                if (HasFatalFailure()) return;
            }
            // The Lanczos mode writes no skin plane.
            if (skin && mode == cap::BILINEAR_5) expectSkinLevels(rig, size);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(AllSizes, Levels, ::testing::ValuesIn(supportedSizes()),
                         [](const auto& info) { return sizeName(info.param); });

}  // namespace
