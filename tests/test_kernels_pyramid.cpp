// Pyramid and gradient kernels: every level and gradient plane of the pipeline against direct loops
// over the level it was made from, at all four processed sizes, plus the arithmetic edge cases
// (remainder dropped, erosion, clamped offsets, magnitude wrap, orientation quantisation).
#include "kernels/GradientKernels.h"
#include "kernels/PyramidKernels.h"
#include "support/GpuPresence.h"
#include "support/kernel_buffers.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>

namespace {

using namespace ruvo::test;
using ruvo::capture::BILINEAR_5;
namespace k = ruvo::capture::kernels;
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

// The half-size YUV420p image of a width x height one, by 2 x 2 integer averages.
void expectHalf(const unsigned char* full, const unsigned char* half, size_t width, size_t height,
                const std::string& what) {
    const size_t plane = width * height;
    const Plane y{full, width}, u{full + plane, width / 2}, v{full + plane + plane / 4, width / 2};
    auto quarterSum = [](const Plane& p, size_t row, size_t column) {
        return (p.at(2 * row, 2 * column) + p.at(2 * row, 2 * column + 1) + p.at(2 * row + 1, 2 * column) +
                p.at(2 * row + 1, 2 * column + 1)) /
               4;
    };
    expectPlane(
        half, width / 2, height / 2, [&](size_t r, size_t c) { return quarterSum(y, r, c); }, what + " Y");
    expectPlane(
        half + plane / 4, width / 4, height / 4, [&](size_t r, size_t c) { return quarterSum(u, r, c); }, what + " U");
    expectPlane(
        half + plane * 5 / 16, width / 4, height / 4, [&](size_t r, size_t c) { return quarterSum(v, r, c); },
        what + " V");
}

// Offset backward differences of the luma plane.
void expectGradients(const unsigned char* luma, const unsigned char* gx, const unsigned char* gy, size_t width,
                     size_t height, const std::string& what) {
    const Plane in{luma, width};
    auto offset = [](int difference) { return std::clamp(127 + difference, 0, 255); };
    expectPlane(
        gx, width, height, [&](size_t r, size_t c) { return offset(c == 0 ? 0 : in.at(r, c) - in.at(r, c - 1)); },
        what + " gx");
    expectPlane(
        gy, width, height, [&](size_t r, size_t c) { return offset(r == 0 ? 0 : in.at(r, c) - in.at(r - 1, c)); },
        what + " gy");
}

// The orientation byte from a double-precision angle.
double orientationValue(int dx, int dy) { return std::atan2(dy, dx) * 128.0 / 3.14159f + 127.0; }

void expectMagnitudes(const unsigned char* luma, const unsigned char* magnitude, const unsigned char* orientation,
                      size_t width, size_t height, const std::string& what) {
    const Plane in{luma, width};
    for (size_t r = 0; r < height; ++r) {
        for (size_t c = 0; c < width; ++c) {
            const int dx = c == 0 ? 0 : in.at(r, c) - in.at(r, c - 1);
            const int dy = r == 0 ? 0 : in.at(r, c) - in.at(r - 1, c);
            const int expectedMagnitude = static_cast<int>(2.0 * std::sqrt(dx * dx + dy * dy)) & 0xff;
            ASSERT_EQ(magnitude[r * width + c], expectedMagnitude) << what << " magnitude at " << c << "," << r;
            // Single precision may land on either side of an integer that the exact angle touches.
            const double angle = std::max(0.0, orientationValue(dx, dy));
            const double tolerance = std::abs(angle - std::round(angle)) < 1e-4 ? 1.0 : 0.0;
            ASSERT_NEAR(orientation[r * width + c], std::floor(angle), tolerance)
                << what << " orientation at " << c << "," << r;
        }
    }
}

class Levels : public ::testing::TestWithParam<ProcessedSize> {
protected:
    void SetUp() override { RUVO_REQUIRE_CUDA_DEVICE(); }

    // A noisy colour frame so that neighbouring levels and differences vary widely.
    void run(IspRig& rig) {
        rig.fillRaw(randomSensorFrame(rig.width(), rig.height(), 61));
        rig.run(BILINEAR_5, {0.6f, 0.6f, 0.6f, 0.8f, 0.8f});
    }
};

TEST_P(Levels, HalfAndQuarterColourLevelsAreIntegerAverages) {
    const ProcessedSize size = GetParam();
    IspRig rig(cap::YUV_2_4, size);
    run(rig);
    expectHalf(rig.buffer(0), rig.buffer(1), size.width, size.height, "half");
    expectHalf(rig.buffer(1), rig.buffer(2), size.width / 2, size.height / 2, "quarter");
}

TEST_P(Levels, GradientsOfEveryLevelAreOffsetBackwardDifferences) {
    const ProcessedSize size = GetParam();
    IspRig rig(cap::YUV_2_4_GRADIENT_2_4, size);
    run(rig);
    expectHalf(rig.buffer(0), rig.buffer(1), size.width, size.height, "half");
    expectHalf(rig.buffer(1), rig.buffer(2), size.width / 2, size.height / 2, "quarter");
    expectGradients(rig.buffer(0), rig.buffer(3), rig.buffer(4), size.width, size.height, "full");
    expectGradients(rig.buffer(1), rig.buffer(5), rig.buffer(6), size.width / 2, size.height / 2, "half");
    expectGradients(rig.buffer(2), rig.buffer(7), rig.buffer(8), size.width / 4, size.height / 4, "quarter");

    IspRig single(cap::YUV_GRADIENT, size);
    run(single);
    expectGradients(single.buffer(0), single.buffer(1), single.buffer(2), size.width, size.height, "gradient");
}

TEST_P(Levels, MagnitudeAndOrientationOfFullAndHalfLevels) {
    const ProcessedSize size = GetParam();
    IspRig rig(cap::YUV_2_GRADIENT_VECTOR_2, size);
    run(rig);
    expectHalf(rig.buffer(0), rig.buffer(1), size.width, size.height, "half");
    expectMagnitudes(rig.buffer(0), rig.buffer(2), rig.buffer(3), size.width, size.height, "full");
    expectMagnitudes(rig.buffer(1), rig.buffer(4), rig.buffer(5), size.width / 2, size.height / 2, "half");
}

TEST_P(Levels, SkinLevelsReduceByFourThenErode) {
    const ProcessedSize size = GetParam();
    IspRig rig(cap::YUV_2_4_SKIN_HISTOGRAM, size);
    rig.fillRaw(colourFrame(size.width, size.height, 614, 409, 307, 260, 67));
    rig.run(BILINEAR_5);
    const Plane skin{rig.buffer(3), size.width / 2};
    const Plane eighth{rig.buffer(5), size.width / 8};
    expectPlane(
        rig.buffer(5), size.width / 8, size.height / 8,
        [&](size_t r, size_t c) {
            int sum = 0;
            for (size_t i = 0; i < 4; ++i) {
                for (size_t j = 0; j < 4; ++j) sum += skin.at(4 * r + i, 4 * c + j);
            }
            return sum / 16;
        },
        "eighth");
    int survivors = 0;
    expectPlane(
        rig.buffer(6), size.width / 16, size.height / 16,
        [&](size_t r, size_t c) {
            const int a = eighth.at(2 * r, 2 * c), b = eighth.at(2 * r, 2 * c + 1), d = eighth.at(2 * r + 1, 2 * c),
                      e = eighth.at(2 * r + 1, 2 * c + 1);
            const bool eroded = a == 0 || b == 0 || d == 0 || e == 0;
            survivors += !eroded;
            return eroded ? 0 : (a + b + d + e) / 4;
        },
        "sixteenth");
    EXPECT_GT(survivors, 0) << "the frame should leave some whole skin blocks";
    expectHalf(rig.buffer(0), rig.buffer(1), size.width, size.height, "half");
    expectHalf(rig.buffer(1), rig.buffer(2), size.width / 2, size.height / 2, "quarter");
}

INSTANTIATE_TEST_SUITE_P(AllSizes, Levels, ::testing::ValuesIn(supportedSizes()),
                         [](const auto& info) { return sizeName(info.param); });

TEST(PyramidArithmetic, AveragesDropTheRemainderAndErosionNeedsAWholeBlock) {
    // An 8 x 8 YUV420p image whose first 2 x 2 luma block is 1, 1, 1, 2.
    std::vector<unsigned char> image(8 * 8 * 3 / 2, 9), half(4 * 4 * 3 / 2, 0);
    image[0] = 1, image[1] = 1, image[8] = 1, image[9] = 2;
    k::StepDownYuv{image.data(), 8, 8, half.data()}(0, 0);
    EXPECT_EQ(half[0], 1);  // 5 / 4
    EXPECT_EQ(half[1], 9);

    EXPECT_EQ(k::erodedAverage(255, 255, 255, 0), 0);
    EXPECT_EQ(k::erodedAverage(1, 2, 3, 4), 2);  // 10 / 4 = 2.5
    EXPECT_EQ(k::erodedAverage(255, 255, 255, 255), 255);
}

TEST(GradientArithmetic, OffsetDifferencesClampAtTheByteRange) {
    EXPECT_EQ(k::offsetDifferenceByte(0), 127);
    EXPECT_EQ(k::offsetDifferenceByte(255), 255);  // an edge from 0 to 255
    EXPECT_EQ(k::offsetDifferenceByte(-255), 0);   // an edge from 255 to 0
    EXPECT_EQ(k::offsetDifferenceByte(128), 255);
    EXPECT_EQ(k::offsetDifferenceByte(-127), 0);
}

TEST(GradientArithmetic, ConstantImagesAndVerticalEdges) {
    const size_t w = 16, h = 8;
    std::vector<unsigned char> luma(w * h * 3 / 2, 200), gx(w * h), gy(w * h);
    const k::Gradient constant{{luma.data(), static_cast<int>(w), static_cast<int>(h), gx.data(), gy.data()}};
    for (unsigned ty = 0; ty < h / 4; ++ty) {
        for (unsigned tx = 0; tx < w / 4; ++tx) constant(tx, ty);
    }
    EXPECT_TRUE(std::all_of(gx.begin(), gx.end(), [](unsigned char g) { return g == 127; }));
    EXPECT_TRUE(std::all_of(gy.begin(), gy.end(), [](unsigned char g) { return g == 127; }));

    for (size_t y = 0; y < h; ++y) {
        for (size_t x = 0; x < w; ++x) luma[y * w + x] = (x >= 5 && x < 10) ? 255 : 0;
    }
    for (unsigned ty = 0; ty < h / 4; ++ty) {
        for (unsigned tx = 0; tx < w / 4; ++tx) constant(tx, ty);
    }
    EXPECT_EQ(gx[3 * w + 5], 255);  // rising edge, across a block boundary of the thread grid
    EXPECT_EQ(gx[3 * w + 10], 0);   // falling edge
    EXPECT_EQ(gx[3 * w + 7], 127);
    EXPECT_EQ(gy[3 * w + 5], 127);
}

TEST(GradientArithmetic, MagnitudeWrapsAboveTheByteRange) {
    EXPECT_EQ(k::magnitudeByte(255, 255), 209);  // 2 sqrt(130050) = 721.2, 721 - 512
    EXPECT_EQ(k::magnitudeByte(3, 4), 10);
    EXPECT_EQ(k::magnitudeByte(0, 0), 0);
    EXPECT_EQ(k::magnitudeByte(128, 0), 0);  // 256 wraps to 0
    EXPECT_EQ(k::magnitudeByte(-127, 0), 254);
}

TEST(GradientArithmetic, OrientationQuantisesTheAngleWithTheShortPiDivisor) {
    EXPECT_EQ(k::orientationByte(0, 0), 127);
    EXPECT_EQ(k::orientationByte(5, 0), 127);
    EXPECT_EQ(k::orientationByte(0, 5), 191);    // pi/2: 64.00005 + 127
    EXPECT_EQ(k::orientationByte(0, -5), 62);    // -pi/2: 127 - 64.00005
    EXPECT_EQ(k::orientationByte(-5, 0), 255);   // pi: 128.0001 + 127
    EXPECT_EQ(k::orientationByte(-100, -1), 0);  // just above -pi: -0.6, clamped to 0
    EXPECT_EQ(k::orientationByte(-5, -1), 7);    // -2.944 rad: 7.04
    // Exact angles such as 0, pi/4 and pi/2 sit next to an integer; there single precision may
    // land on either side. Everywhere else the byte is the exact one.
    int flipped = 0;
    for (int dy = -255; dy <= 255; ++dy) {
        for (int dx = -255; dx <= 255; ++dx) {
            const double expected = std::max(0.0, orientationValue(dx, dy));
            const int got = k::orientationByte(dx, dy);
            const bool nearInteger = std::abs(expected - std::round(expected)) < 1e-4;
            ASSERT_NEAR(got, std::floor(expected), nearInteger ? 1 : 0) << dx << "," << dy;
            flipped += got != static_cast<int>(std::floor(expected));
        }
    }
    EXPECT_LT(flipped, 50);
}

}  // namespace
