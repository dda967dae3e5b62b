// The image side of ruvo-capture: colour conversion against the pipeline's forward transform,
// frame copies with padded and pixel-unit strides, the histogram chart, scaling into tiles, the
// contact sheet layout, the bitmap font, and PNG files read back through libpng.
#ifdef RUVO_CAPTURE_TOOL

#include "BitmapFont.h"
#include "ContactSheet.h"
#include "FrameCopy.h"
#include "ImageConvert.h"
#include "PngWriter.h"
#include "ToolError.h"
#include "test_tool_support.h"

#include <gtest/gtest.h>

#include <bitset>

using namespace ruvo::tool;
using ruvo::capture::Frame;

namespace {

// The pipeline's colour conversion at unit chroma gamma, r, g, b in 0..1, rounded to bytes.
void forwardYuv(float r, float g, float b, uint8_t* y, uint8_t* u, uint8_t* v) {
    const float cb = 2.0f * (-0.1687f * r - 0.3313f * g + 0.5f * b);
    const float cr = 2.0f * (0.5f * r - 0.4187f * g - 0.0813f * b);
    *y = clampToByte(255.0f * (0.299f * r + 0.587f * g + 0.114f * b));
    *u = clampToByte(255.0f * (0.5f * cb + 0.5f));
    *v = clampToByte(255.0f * (0.5f * cr + 0.5f));
}

FrameCopy packedCopy(Frame::Format format, uint32_t w, uint32_t h, std::vector<uint8_t> plane0) {
    FrameCopy copy;
    copy.format = format;
    copy.width = w;
    copy.height = h;
    copy.planes[0] = std::move(plane0);
    return copy;
}

TEST(ToolImages, YuvToRgbInvertsThePipelineConversion) {
    int worst = 0;
    for (int r = 0; r <= 255; r += 15) {
        for (int g = 0; g <= 255; g += 15) {
            for (int b = 0; b <= 255; b += 15) {
                uint8_t y, u, v;
                forwardYuv(r / 255.0f, g / 255.0f, b / 255.0f, &y, &u, &v);
                const Rgb back = yuvToRgb(y, u, v);
                worst = std::max({worst, std::abs(back.r - r), std::abs(back.g - g), std::abs(back.b - b)});
            }
        }
    }
    EXPECT_LE(worst, 2) << "only byte rounding separates the round trip";
    const Rgb gray = yuvToRgb(90, 128, 127);  // chroma centred on 127.5
    EXPECT_NEAR(gray.r, 90, 1);
    EXPECT_NEAR(gray.g, 90, 1);
    EXPECT_NEAR(gray.b, 90, 1);
    const Rgb clipped = yuvToRgb(250, 255, 255);
    EXPECT_EQ(clipped.r, 255);
    EXPECT_EQ(clipped.b, 255);
}

TEST(ToolImages, Yuv420ChromaCoversTwoByTwoBlocks) {
    FrameCopy copy = packedCopy(Frame::YUV420p, 4, 4, std::vector<uint8_t>(16, 100));
    copy.planes[1] = {128, 200, 128, 128};  // U per 2 x 2 block, row-major
    copy.planes[2] = {128, 128, 60, 128};   // V
    const Image image = toViewable(copy);
    ASSERT_EQ(image.channels, 3u);
    for (uint32_t y = 0; y < 4; ++y) {
        for (uint32_t x = 0; x < 4; ++x) {
            const size_t block = (y / 2) * 2 + x / 2;
            const Rgb expected = yuvToRgb(100, copy.planes[1][block], copy.planes[2][block]);
            const Rgb got = image.at(x, y);
            EXPECT_EQ(got.r, expected.r) << x << "," << y;
            EXPECT_EQ(got.g, expected.g) << x << "," << y;
            EXPECT_EQ(got.b, expected.b) << x << "," << y;
        }
    }
    EXPECT_GT(image.at(2, 0).b, image.at(0, 0).b) << "more blue where U is high";
}

TEST(ToolImages, GrayAndRgbFormatsKeepTheirSamples) {
    const Image gray = toViewable(packedCopy(Frame::Y8, 3, 1, {0, 128, 255}));
    EXPECT_EQ(gray.channels, 1u);
    EXPECT_EQ(gray.pixels, (std::vector<uint8_t>{0, 128, 255}));
    const Image rgb = toViewable(packedCopy(Frame::RGB24, 2, 1, {1, 2, 3, 4, 5, 6}));
    EXPECT_EQ(rgb.pixels, (std::vector<uint8_t>{1, 2, 3, 4, 5, 6}));
    const Image bgr = toViewable(packedCopy(Frame::BGR24, 2, 1, {1, 2, 3, 4, 5, 6}));
    EXPECT_EQ(bgr.pixels, (std::vector<uint8_t>{3, 2, 1, 6, 5, 4}));
    EXPECT_THROW(toViewable(packedCopy(Frame::YUYV, 2, 1, {0, 0, 0, 0})), ToolError);
    EXPECT_THROW(toViewable(packedCopy(Frame::SBGGR10, 2, 1, {0, 0, 0, 0})), ToolError);
}

TEST(ToolImages, FrameCopiesFollowEachPlanesStride) {
    // Y8, 3 x 2 in rows of 5 bytes: the padding must not reach the copy.
    std::vector<uint8_t> y8 = {1, 2, 3, 99, 99, 4, 5, 6, 99, 99};
    Frame frame;
    frame.format = Frame::Y8;
    frame.width = 3;
    frame.height = 2;
    frame.planes[0] = {y8.data(), 3, 2, 5};
    EXPECT_EQ(copyFrame(frame).planes[0], (std::vector<uint8_t>{1, 2, 3, 4, 5, 6}));
    // RGB24 buffers give their stride in pixels.
    std::vector<uint8_t> rgb = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
    frame.format = Frame::RGB24;
    frame.width = 2;
    frame.planes[0] = {rgb.data(), 2, 2, 2};
    EXPECT_EQ(copyFrame(frame).planes[0], rgb);
    // YUV420p: three planes, chroma at half size.
    std::vector<uint8_t> yuv(4 * 2 + 2 * 2, 7);
    frame.format = Frame::YUV420p;
    frame.width = 4;
    frame.height = 2;
    frame.planes[0] = {yuv.data(), 4, 2, 4};
    frame.planes[1] = {yuv.data() + 8, 2, 1, 2};
    frame.planes[2] = {yuv.data() + 10, 2, 1, 2};
    const FrameCopy copy = copyFrame(frame);
    EXPECT_EQ(copy.planes[0].size(), 8u);
    EXPECT_EQ(copy.planes[1].size(), 2u);
    EXPECT_EQ(copy.planes[2].size(), 2u);
    // The histogram has no image size: 256 counters of 4 bytes.
    std::vector<int32_t> counters(256, 3);
    frame.format = Frame::HISTOGRAM8;
    frame.width = frame.height = 0;
    frame.planes[0] = {reinterpret_cast<uint8_t*>(counters.data()), 0, 0, 0};
    EXPECT_EQ(histogramCounts(copyFrame(frame))[255], 3);
    frame.planes[0].data = nullptr;
    EXPECT_THROW(copyFrame(frame), ToolError);
}

TEST(ToolImages, HistogramBarsRiseWithTheirCounts) {
    EXPECT_EQ(barHeight(0, 1000, 200), 0u);
    EXPECT_EQ(barHeight(-5, 1000, 200), 0u);
    EXPECT_EQ(barHeight(1000, 1000, 200), 200u);
    EXPECT_GE(barHeight(1, 1000000, 200), 1u) << "a single count stays visible";
    uint32_t previous = 0;
    for (int64_t count = 1; count <= 1000; count *= 10) {
        EXPECT_GT(barHeight(count, 1000, 200), previous);
        previous = barHeight(count, 1000, 200);
    }
    Histogram counts{};
    counts[10] = 500;  // a single bin: one full-height bar two pixels wide
    const Image chart = histogramChart(counts);
    auto inkInColumn = [&](uint32_t x) {
        uint32_t ink = 0;
        for (uint32_t y = 0; y < chart.height; ++y) ink += chart.at(x, y).r < 128 ? 1 : 0;
        return ink;
    };
    const uint32_t left = (chart.width - 512) / 2;  // the plot is centred between equal margins
    EXPECT_GE(inkInColumn(left + 20), 200u);
    EXPECT_GE(inkInColumn(left + 21), 200u);
    EXPECT_LE(inkInColumn(left + 22), 1u) << "only the axis below the empty bin";
    EXPECT_LE(inkInColumn(left + 18), 1u);
}

Image solid(uint32_t w, uint32_t h, Rgb colour) {
    Image image(w, h, 3);
    image.fill(colour);
    return image;
}

TEST(ToolImages, FittingAveragesWhenReducingAndRepeatsWhenEnlarging) {
    Image halves(4, 2, 1);
    for (uint32_t y = 0; y < 2; ++y) {
        for (uint32_t x = 0; x < 4; ++x) halves.pixels[halves.offset(x, y)] = x < 2 ? 0 : 200;
    }
    const Image reduced = fitInto(halves, 2, 2);
    ASSERT_EQ(reduced.width, 2u);
    ASSERT_EQ(reduced.height, 1u);
    EXPECT_EQ(reduced.at(0, 0).g, 0);
    EXPECT_EQ(reduced.at(1, 0).g, 200);
    const Image mixed = fitInto(halves, 1, 1);
    EXPECT_EQ(mixed.at(0, 0).r, 100);
    Image dots(2, 1, 3);
    dots.set(1, 0, {10, 20, 30});
    const Image enlarged = fitInto(dots, 7, 5);
    ASSERT_EQ(enlarged.width, 6u) << "a whole factor of 3";
    ASSERT_EQ(enlarged.height, 3u);
    EXPECT_EQ(enlarged.at(2, 2).r, 0);
    EXPECT_EQ(enlarged.at(3, 0).g, 20);
}

TEST(ToolImages, ContactSheetStartsEveryCameraOnANewRow) {
    SheetLayout layout;
    layout.columns = 2;
    layout.tileWidth = 20;
    layout.tileHeight = 10;
    layout.labelLines = 1;
    layout.textScale = 1;
    layout.padding = 4;
    const Rgb red{200, 0, 0}, green{0, 200, 0}, blue{0, 0, 200}, white{255, 255, 255};
    const std::vector<SheetTile> tiles = {{0, solid(20, 10, red), {"A"}},
                                          {0, solid(20, 10, green), {}},
                                          {0, solid(20, 10, blue), {}},
                                          {1, solid(20, 10, white), {}}};
    const Image sheet = makeContactSheet(tiles, layout);
    const uint32_t cellW = 24, cellH = 10 + kLineHeight + 4;
    EXPECT_EQ(sheet.width, 2 * cellW + 4);
    EXPECT_EQ(sheet.height, 3 * cellH + 4) << "camera 0 takes two rows, camera 1 a third";
    auto centre = [&](uint32_t column, uint32_t row) { return sheet.at(4 + column * cellW + 10, 4 + row * cellH + 5); };
    EXPECT_EQ(centre(0, 0).r, 200);
    EXPECT_EQ(centre(1, 0).g, 200);
    EXPECT_EQ(centre(0, 1).b, 200);
    EXPECT_EQ(centre(1, 1).r, centre(1, 1).b) << "nothing beside the third tile";
    EXPECT_EQ(centre(0, 2).g, 255);
    bool labelInk = false;  // the label "A" under the first tile
    for (uint32_t y = 4 + 10; y < 4 + 10 + kLineHeight; ++y) {
        for (uint32_t x = 4; x < 4 + kGlyphWidth; ++x) labelInk |= sheet.at(x, y).g > 200;
    }
    EXPECT_TRUE(labelInk);
    EXPECT_THROW(makeContactSheet({}, layout), ToolError);
}

TEST(ToolImages, TextDrawsTheGlyphBitsAtScale) {
    const auto& a = glyphRows('A');
    EXPECT_EQ(a[0], 0x0E);
    EXPECT_EQ(&glyphRows('\x01'), &glyphRows('?'));
    EXPECT_EQ(&glyphRows('\x7f'), &glyphRows('?'));
    EXPECT_EQ(textWidth("ab", 2), 22u);
    EXPECT_EQ(textWidth(""), 0u);
    Image image(20, 20, 3);
    drawText(image, 1, 1, "H", {255, 255, 255}, 2);
    size_t bits = 0;
    for (uint8_t row : glyphRows('H')) bits += std::bitset<8>(row).count();
    size_t lit = 0;
    for (uint32_t y = 0; y < 20; ++y) {
        for (uint32_t x = 0; x < 20; ++x) lit += image.at(x, y).r == 255 ? 1 : 0;
    }
    EXPECT_EQ(lit, bits * 4) << "every glyph bit is a 2 x 2 block";
    EXPECT_EQ(image.at(1, 1).r, 255) << "top-left bit of H";
    EXPECT_EQ(image.at(3, 1).r, 0);
    drawText(image, 15, 15, "WWW", {255, 0, 0}, 3);  // clipped at the edges, not written beyond
    EXPECT_EQ(image.pixels.size(), 20u * 20 * 3);
}

TEST(ToolImages, PngFilesReadBackThroughLibpng) {
    ruvo::test::ScratchDir scratch;
    Image gray(3, 2, 1);
    gray.pixels = {0, 50, 100, 150, 200, 250};
    writePng(scratch / "gray.png", gray);
    ruvo::test::PngInfo png = ruvo::test::readPng(scratch / "gray.png");
    ASSERT_TRUE(png.ok) << png.error;
    EXPECT_EQ(png.width, 3u);
    EXPECT_EQ(png.channels, 1u);
    EXPECT_EQ(png.pixels, gray.pixels);
    Image rgb(2, 2, 3);
    for (size_t i = 0; i < rgb.pixels.size(); ++i) rgb.pixels[i] = static_cast<uint8_t>(i * 20);
    writePng(scratch / "rgb.png", rgb);
    png = ruvo::test::readPng(scratch / "rgb.png");
    ASSERT_TRUE(png.ok) << png.error;
    EXPECT_EQ(png.channels, 3u);
    EXPECT_EQ(png.pixels, rgb.pixels);
    EXPECT_THROW(writePng(scratch / "no/such/dir.png", rgb), ToolError);
    EXPECT_THROW(writePng(scratch / "empty.png", Image()), ToolError);
}

}  // namespace

#else
#include <gtest/gtest.h>
TEST(ToolImages, NeedsTheTool) { GTEST_SKIP() << "ruvo-capture is not built (RUVO_BUILD_TOOLS=OFF)"; }
#endif
