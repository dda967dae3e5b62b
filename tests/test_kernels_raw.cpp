// Raw sample layouts and Bayer orders: every storage converted to the 14-bit scale exactly (rows
// padded past their samples), 10- and 12-bit frames giving the default layout's output in every
// configuration, and the four Bayer orders giving the same colours (flat fields over the whole
// frame, borders included; a patch chart inside its patches, red staying red).
#include "isp/RawUnpack.h"
#include "support/GpuPresence.h"
#include "support/kernel_buffers.h"
#include "support/raw_layouts.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>

namespace {

using namespace ruvo::test;
namespace cap = ruvo::capture;
namespace k = ruvo::capture::kernels;
using k::BayerOrder;
using k::RawLayout;
using k::SampleStorage;

constexpr ProcessedSize kSmall{672, 384};
constexpr size_t kPixels = static_cast<size_t>(kSmall.width) * kSmall.height;

std::vector<uint16_t> randomValues(unsigned bits, uint32_t seed) {
    std::mt19937 random(seed);
    std::uniform_int_distribution<int> value(0, (1 << bits) - 1);
    std::vector<uint16_t> values(kPixels);
    for (uint16_t& v : values) v = static_cast<uint16_t>(value(random));
    values[0] = static_cast<uint16_t>((1 << bits) - 1);  // full scale at a packed group's first lane
    return values;
}

// Delivers `values` in `layout` (rows padded by 24 bytes) and converts them into the rig's raw frame.
void deliver(IspRig& rig, const RawLayout& layout, const std::vector<uint16_t>& values) {
    const size_t stride = k::packedRowBytes(layout.storage, kSmall.width) + 24;
    const std::vector<uint8_t> bytes = packFrame(layout.storage, values, kSmall.width, kSmall.height, stride);
    uint8_t* managed = nullptr;
    ASSERT_EQ(cudaMallocManaged(reinterpret_cast<void**>(&managed), bytes.size(), cudaMemAttachGlobal), cudaSuccess);
    std::memcpy(managed, bytes.data(), bytes.size());
    cudaStream_t stream = nullptr;
    ASSERT_EQ(cudaStreamCreate(&stream), cudaSuccess);
    cap::unpackRawFrame(stream, layout, managed, stride, rig.raw(), kSmall.width, kSmall.height);
    ASSERT_EQ(cudaStreamSynchronize(stream), cudaSuccess);
    cudaStreamDestroy(stream);
    cudaFree(managed);
}

std::vector<std::vector<unsigned char>> outputsOf(IspRig& rig, cap::CUDADemosaicMode mode) {
    rig.poison(0x5a);
    rig.run(mode, {0.8f, 0.8f, 0.8f, 0.9f, 0.9f});
    std::vector<std::vector<unsigned char>> outputs;
    for (size_t b = 0; b < rig.bufferCount(); ++b) outputs.push_back(rig.copy(b));
    return outputs;
}

class SampleLayouts : public ::testing::TestWithParam<RawLayout> {
protected:
    void SetUp() override {
        std::string reason;
        if (!cudaDeviceAvailable(&reason)) GTEST_SKIP() << reason;
    }
};

TEST_P(SampleLayouts, ConvertToTheFourteenBitScaleAndMatchTheDefaultLayoutEverywhere) {
    const RawLayout layout = GetParam();
    const std::vector<uint16_t> values = randomValues(layout.bits, 7);
    IspRig rig(cap::YUV_ONLY, kSmall);
    deliver(rig, layout, values);
    for (size_t i = 0; i < kPixels; ++i) {
        const int expected = layout.bits <= 14 ? values[i] * (1 << (14 - layout.bits)) : values[i] / 4;
        ASSERT_EQ(rig.raw()[i], expected) << layoutName(layout) << " sample " << i;
    }
    if (layout.bits != 10 && layout.bits != 12) return;
    // The same frame delivered in the default layout (14 significant bits) goes through every
    // configuration and both demosaic modes with identical outputs.
    std::vector<uint16_t> aligned(kPixels);
    std::transform(values.begin(), values.end(), aligned.begin(),
                   [&](uint16_t v) { return static_cast<uint16_t>(v << (14 - layout.bits)); });
    for (int configuration = 0; configuration < 12; ++configuration) {
        IspRig reference(configuration, kSmall);
        IspRig converted(configuration, kSmall);
        reference.fillRaw(aligned);
        deliver(converted, layout, values);
        for (cap::CUDADemosaicMode mode : {cap::BILINEAR_5, cap::LANCZOS_11}) {
            ASSERT_EQ(outputsOf(converted, mode), outputsOf(reference, mode))
                << layoutName(layout) << " configuration " << configuration << " mode " << mode;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Storage, SampleLayouts,
                         ::testing::Values(RawLayout{BayerOrder::kBGGR, SampleStorage::kBytes, 8},
                                           RawLayout{BayerOrder::kBGGR, SampleStorage::kWords, 10},
                                           RawLayout{BayerOrder::kBGGR, SampleStorage::kCsi2Packed10, 10},
                                           RawLayout{BayerOrder::kBGGR, SampleStorage::kWords, 12},
                                           RawLayout{BayerOrder::kBGGR, SampleStorage::kCsi2Packed12, 12},
                                           RawLayout{BayerOrder::kBGGR, SampleStorage::kWords, 16}),
                         [](const auto& info) { return layoutName(info.param); });

// The CUDA build converts one sample per thread (operator()), the host build row by row; the
// per-sample path is run here on the CPU for every storage and order against the row path, then
// the black level and channel gains a sensor without those controls gets, likewise.
TEST(RawUnpackPaths, PerSampleThreadsMatchTheRowConversion) {
    k::RawLevels levels;
    levels.black = 1024.0f;
    levels.scale[0][0] = 0.7f;  // blue
    levels.scale[1][1] = 1.5f;  // red: the brightest samples clip at 16383
    for (const RawLayout storage : {RawLayout{BayerOrder::kBGGR, SampleStorage::kBytes, 8},
                                    RawLayout{BayerOrder::kBGGR, SampleStorage::kWords, 12},
                                    RawLayout{BayerOrder::kBGGR, SampleStorage::kCsi2Packed10, 10},
                                    RawLayout{BayerOrder::kBGGR, SampleStorage::kCsi2Packed12, 12}}) {
        for (BayerOrder order : {BayerOrder::kBGGR, BayerOrder::kGBRG, BayerOrder::kGRBG, BayerOrder::kRGGB}) {
            const RawLayout layout{order, storage.storage, storage.bits};
            const size_t stride = k::packedRowBytes(layout.storage, kSmall.width) + 8;
            const std::vector<uint8_t> bytes =
                packFrame(layout.storage, randomValues(layout.bits, 11), kSmall.width, kSmall.height, stride);
            std::vector<uint16_t> rows(kPixels), threads(kPixels);
            k::visitRawUnpack(layout, bytes.data(), stride, rows.data(), kSmall.width, kSmall.height,
                              [](const auto& unpack) {
                                  for (unsigned ty = 0; ty < unpack.height; ++ty) unpack.row(ty);
                              });
            k::visitRawUnpack(layout, bytes.data(), stride, threads.data(), kSmall.width, kSmall.height,
                              [](const auto& unpack) {
                                  for (unsigned ty = 0; ty < unpack.height; ++ty) {
                                      for (unsigned tx = 0; tx < unpack.width; ++tx) unpack(tx, ty);
                                  }
                              });
            ASSERT_EQ(threads, rows) << layoutName(layout);
            const k::RawLevelPass rowLevels{rows.data(), kSmall.width, kSmall.height, levels};
            const k::RawLevelPass threadLevels{threads.data(), kSmall.width, kSmall.height, levels};
            for (unsigned ty = 0; ty < kSmall.height; ++ty) {
                rowLevels.row(ty);
                for (unsigned tx = 0; tx < kSmall.width; ++tx) threadLevels(tx, ty);
            }
            ASSERT_EQ(threads, rows) << layoutName(layout) << " with levels";
        }
    }
}

// An image of 6 x 4 flat patches (10-bit r, g, b per pixel) and its YUV_ONLY output in `order`.
struct Rgb10 {
    uint16_t r, g, b;
};

std::vector<unsigned char> yuvOf(BayerOrder order, const std::vector<uint16_t>& rgb, cap::CUDADemosaicMode mode) {
    IspRig rig(cap::YUV_ONLY, kSmall);
    deliver(rig, {order, SampleStorage::kWords, 10}, mosaicOf(order, rgb, kSmall.width, kSmall.height));
    return outputsOf(rig, mode)[0];
}

std::vector<uint16_t> flatImage(const Rgb10& c) {
    std::vector<uint16_t> rgb(3 * kPixels);
    for (size_t i = 0; i < kPixels; ++i) {
        rgb[3 * i] = c.r;
        rgb[3 * i + 1] = c.g;
        rgb[3 * i + 2] = c.b;
    }
    return rgb;
}

class BayerOrders : public SampleLayouts {};

TEST_F(BayerOrders, FlatFieldsGiveTheSameYuvInEveryOrderBordersIncluded) {
    for (const Rgb10& colour : {Rgb10{614, 409, 307}, Rgb10{1023, 0, 0}, Rgb10{0, 1023, 1023}, Rgb10{5, 1000, 60}}) {
        const std::vector<uint16_t> rgb = flatImage(colour);
        for (cap::CUDADemosaicMode mode : {cap::BILINEAR_5, cap::LANCZOS_11}) {
            const std::vector<unsigned char> bggr = yuvOf(BayerOrder::kBGGR, rgb, mode);
            for (BayerOrder order : {BayerOrder::kGBRG, BayerOrder::kGRBG, BayerOrder::kRGGB}) {
                ASSERT_EQ(yuvOf(order, rgb, mode), bggr) << colour.r << "," << colour.g << "," << colour.b << " order "
                                                         << static_cast<int>(order) << " mode " << mode;
            }
        }
    }
}

TEST_F(BayerOrders, ChartPatchInteriorsAgreeWithinOneStepAndRedStaysRed) {
    constexpr unsigned kPatchW = 112, kPatchH = 96, kMargin = 8;
    const Rgb10 patches[24] = {{700, 120, 90},  {120, 650, 110},  {90, 140, 720},   {500, 500, 500},  {900, 520, 80},
                               {300, 200, 600}, {80, 600, 620},   {650, 80, 500},   {200, 200, 200},  {800, 800, 800},
                               {40, 40, 40},    {1000, 300, 300}, {300, 1000, 300}, {300, 300, 1000}, {600, 400, 250},
                               {250, 400, 600}, {450, 320, 150},  {150, 320, 450},  {1023, 1023, 0},  {0, 1023, 1023},
                               {1023, 0, 1023}, {512, 256, 128},  {128, 256, 512},  {700, 700, 100}};
    std::vector<uint16_t> rgb(3 * kPixels);
    for (unsigned y = 0; y < kSmall.height; ++y) {
        for (unsigned x = 0; x < kSmall.width; ++x) {
            const Rgb10& c = patches[(y / kPatchH) * 6 + x / kPatchW];
            const size_t i = static_cast<size_t>(y) * kSmall.width + x;
            rgb[3 * i] = c.r;
            rgb[3 * i + 1] = c.g;
            rgb[3 * i + 2] = c.b;
        }
    }
    const size_t chromaPlane = kPixels / 4;
    for (cap::CUDADemosaicMode mode : {cap::BILINEAR_5, cap::LANCZOS_11}) {
        const std::vector<unsigned char> bggr = yuvOf(BayerOrder::kBGGR, rgb, mode);
        for (BayerOrder order : {BayerOrder::kGBRG, BayerOrder::kGRBG, BayerOrder::kRGGB}) {
            const std::vector<unsigned char> yuv = yuvOf(order, rgb, mode);
            int largest = 0;
            for (unsigned y = 0; y < kSmall.height; ++y) {
                for (unsigned x = 0; x < kSmall.width; ++x) {
                    if (y % kPatchH < kMargin || y % kPatchH >= kPatchH - kMargin || x % kPatchW < kMargin ||
                        x % kPatchW >= kPatchW - kMargin) {
                        continue;
                    }
                    const size_t luma = static_cast<size_t>(y) * kSmall.width + x;
                    const size_t chroma = kPixels + (y / 2) * (kSmall.width / 2) + x / 2;
                    for (size_t at : {luma, chroma, chroma + chromaPlane}) {
                        largest = std::max(largest, std::abs(yuv[at] - bggr[at]));
                    }
                }
            }
            EXPECT_LE(largest, 1) << "order " << static_cast<int>(order) << " mode " << mode;
            // The first patch is red: V well above and U below neutral at its centre.
            const size_t centre = kPixels + (kPatchH / 4) * (kSmall.width / 2) + kPatchW / 4;
            EXPECT_GT(yuv[centre + chromaPlane], 128 + 40) << "order " << static_cast<int>(order);
            EXPECT_LT(yuv[centre], 128) << "order " << static_cast<int>(order);
        }
    }
}

}  // namespace
