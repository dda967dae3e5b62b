// One labelled overview image of every output of a run: each image scaled into a tile of a grid,
// each camera starting a new row, and under each tile the lines of its label.
#pragma once

#include "Image.h"

#include <cstdint>
#include <string>
#include <vector>

namespace ruvo {
namespace tool {

struct SheetTile {
    uint32_t cameraId = 0;
    Image image;                     // gray or RGB
    std::vector<std::string> label;  // drawn one line each under the image
};

struct SheetLayout {
    uint32_t columns = 4;
    uint32_t tileWidth = 432;  // largest image width in a tile
    uint32_t tileHeight = 243;
    uint32_t labelLines = 3;
    uint32_t textScale = 2;
    uint32_t padding = 8;
};

// `image` scaled to fit within maxWidth x maxHeight keeping its aspect ratio, as RGB: reduced by
// averaging the source pixels each output pixel covers, enlarged by a whole factor (nearest).
Image fitInto(const Image& image, uint32_t maxWidth, uint32_t maxHeight);

// The contact sheet of `tiles` in order. Throws ToolError when there is no tile.
Image makeContactSheet(const std::vector<SheetTile>& tiles, const SheetLayout& layout = SheetLayout());

}  // namespace tool
}  // namespace ruvo
