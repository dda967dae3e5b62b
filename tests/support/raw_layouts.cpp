// Raw frame packing per the V4L2 definitions: 8-bit samples one byte each; 10 to 16 bits one
// little-endian word each; CSI-2 10-bit packing: per four pixels, bits 9..2 of each, then one byte
// of the low two bits, pixel 0 in bits 1..0; CSI-2 12-bit packing: per two pixels, bits 11..4 of
// each, then one byte of the low four bits, pixel 0 in bits 3..0.
#include "raw_layouts.h"

namespace ruvo {
namespace test {

using capture::kernels::BayerOrder;
using capture::kernels::RawLayout;
using capture::kernels::SampleStorage;

namespace {

void packRow(SampleStorage storage, const uint16_t* v, unsigned width, uint8_t* out) {
    switch (storage) {
        case SampleStorage::kBytes:
            for (unsigned x = 0; x < width; ++x) out[x] = static_cast<uint8_t>(v[x]);
            return;
        case SampleStorage::kWords:
            for (unsigned x = 0; x < width; ++x) {
                out[2 * x] = static_cast<uint8_t>(v[x] & 0xff);
                out[2 * x + 1] = static_cast<uint8_t>(v[x] >> 8);
            }
            return;
        case SampleStorage::kCsi2Packed10:
            for (unsigned x = 0; x < width; x += 4, out += 5) {
                out[4] = 0;
                for (unsigned i = 0; i < 4; ++i) {
                    out[i] = static_cast<uint8_t>(v[x + i] >> 2);
                    out[4] = static_cast<uint8_t>(out[4] | ((v[x + i] & 0x3) << (2 * i)));
                }
            }
            return;
        case SampleStorage::kCsi2Packed12:
            for (unsigned x = 0; x < width; x += 2, out += 3) {
                out[0] = static_cast<uint8_t>(v[x] >> 4);
                out[1] = static_cast<uint8_t>(v[x + 1] >> 4);
                out[2] = static_cast<uint8_t>((v[x] & 0xf) | ((v[x + 1] & 0xf) << 4));
            }
            return;
    }
}

// 0 = red, 1 = green, 2 = blue at row parity py and column parity px of a mosaic in `order`.
int channelAt(BayerOrder order, unsigned py, unsigned px) {
    static const char* const kQuads[] = {"BGGR", "GBRG", "GRBG", "RGGB"};
    const char c = kQuads[static_cast<int>(order)][2 * py + px];
    return c == 'R' ? 0 : c == 'G' ? 1 : 2;
}

}  // namespace

std::vector<uint8_t> packFrame(SampleStorage storage, const std::vector<uint16_t>& values, unsigned width,
                               unsigned height, size_t stride, uint8_t padding) {
    std::vector<uint8_t> bytes(stride * height, padding);
    for (unsigned y = 0; y < height; ++y)
        packRow(storage, &values[static_cast<size_t>(y) * width], width, &bytes[y * stride]);
    return bytes;
}

std::vector<uint16_t> mosaicOf(BayerOrder order, const std::vector<uint16_t>& rgb, unsigned width, unsigned height) {
    std::vector<uint16_t> mosaic(static_cast<size_t>(width) * height);
    for (unsigned y = 0; y < height; ++y) {
        for (unsigned x = 0; x < width; ++x) {
            const size_t i = static_cast<size_t>(y) * width + x;
            mosaic[i] = rgb[3 * i + static_cast<size_t>(channelAt(order, y & 1, x & 1))];
        }
    }
    return mosaic;
}

std::string layoutName(const RawLayout& layout) {
    static const char* const kOrders[] = {"BGGR", "GBRG", "GRBG", "RGGB"};
    static const char* const kStorage[] = {"Bytes", "Words", "Csi2Packed", "Csi2Packed"};
    return std::string(kOrders[static_cast<int>(layout.order)]) + kStorage[static_cast<int>(layout.storage)] +
           std::to_string(layout.bits);
}

}  // namespace test
}  // namespace ruvo
