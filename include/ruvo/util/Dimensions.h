// Width and height of an image in pixels.
#pragma once

#include <cstdint>

namespace ruvo {
namespace util {

struct Dimensions {
    uint32_t width = 0;
    uint32_t height = 0;

    Dimensions() = default;
    Dimensions(uint32_t w, uint32_t h) : width(w), height(h) {}

    bool operator==(const Dimensions& other) const { return width == other.width && height == other.height; }
    bool operator!=(const Dimensions& other) const { return !(*this == other); }
};

}  // namespace util
}  // namespace ruvo
