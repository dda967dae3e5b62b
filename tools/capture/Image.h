// A small owned 8-bit image (gray or RGB, rows packed without padding) that the tool converts
// delivered frames into and writes as PNG, plus the pixel accessors the drawing code uses.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace ruvo {
namespace tool {

struct Rgb {
    uint8_t r = 0;
    uint8_t g = 0;
    uint8_t b = 0;
};

struct Image {
    uint32_t width = 0;
    uint32_t height = 0;
    uint32_t channels = 3;  // 1: gray, 3: RGB
    std::vector<uint8_t> pixels;

    Image() = default;
    Image(uint32_t w, uint32_t h, uint32_t c, uint8_t fill = 0)
        : width(w), height(h), channels(c), pixels(static_cast<size_t>(w) * h * c, fill) {}

    size_t offset(uint32_t x, uint32_t y) const { return (static_cast<size_t>(y) * width + x) * channels; }

    // The pixel at (x, y) as RGB; gray is repeated in the three channels.
    Rgb at(uint32_t x, uint32_t y) const {
        const uint8_t* p = &pixels[offset(x, y)];
        return channels == 1 ? Rgb{p[0], p[0], p[0]} : Rgb{p[0], p[1], p[2]};
    }

    // Writes an RGB pixel of an RGB image.
    void set(uint32_t x, uint32_t y, Rgb c) {
        uint8_t* p = &pixels[offset(x, y)];
        p[0] = c.r;
        p[1] = c.g;
        p[2] = c.b;
    }

    // Sets every pixel of an RGB image.
    void fill(Rgb c) {
        for (size_t i = 0; i + 2 < pixels.size(); i += 3) {
            pixels[i] = c.r;
            pixels[i + 1] = c.g;
            pixels[i + 2] = c.b;
        }
    }
};

}  // namespace tool
}  // namespace ruvo
