// Scaling of images into tiles and the layout of the contact sheet.
#include "ContactSheet.h"

#include "BitmapFont.h"
#include "ToolError.h"

#include <algorithm>
#include <cmath>

namespace ruvo {
namespace tool {

namespace {

const Rgb kBackground{32, 32, 32};
const Rgb kLabelColour{235, 235, 235};

// Mean colour of the source box [x0, x1) x [y0, y1).
Rgb boxMean(const Image& image, uint32_t x0, uint32_t x1, uint32_t y0, uint32_t y1) {
    uint64_t r = 0, g = 0, b = 0;
    for (uint32_t y = y0; y < y1; ++y) {
        for (uint32_t x = x0; x < x1; ++x) {
            const Rgb p = image.at(x, y);
            r += p.r;
            g += p.g;
            b += p.b;
        }
    }
    const uint64_t n = static_cast<uint64_t>(x1 - x0) * (y1 - y0);
    return Rgb{static_cast<uint8_t>((r + n / 2) / n), static_cast<uint8_t>((g + n / 2) / n),
               static_cast<uint8_t>((b + n / 2) / n)};
}

// Source interval of output index i when `from` samples map onto `to`; never empty.
void sourceSpan(uint32_t i, uint32_t from, uint32_t to, uint32_t* begin, uint32_t* end) {
    *begin = static_cast<uint32_t>(static_cast<uint64_t>(i) * from / to);
    *end = std::max(*begin + 1, static_cast<uint32_t>(static_cast<uint64_t>(i + 1) * from / to));
}

void blit(Image& sheet, const Image& tile, uint32_t left, uint32_t top) {
    for (uint32_t y = 0; y < tile.height; ++y) {
        for (uint32_t x = 0; x < tile.width; ++x) sheet.set(left + x, top + y, tile.at(x, y));
    }
}

}  // namespace

Image fitInto(const Image& image, uint32_t maxWidth, uint32_t maxHeight) {
    if (image.width == 0 || image.height == 0) return Image(1, 1, 3);
    const double scale =
        std::min(static_cast<double>(maxWidth) / image.width, static_cast<double>(maxHeight) / image.height);
    if (scale >= 1.0) {
        const uint32_t factor = static_cast<uint32_t>(scale);
        Image out(image.width * factor, image.height * factor, 3);
        for (uint32_t y = 0; y < out.height; ++y) {
            for (uint32_t x = 0; x < out.width; ++x) out.set(x, y, image.at(x / factor, y / factor));
        }
        return out;
    }
    const uint32_t w = std::max<uint32_t>(1, static_cast<uint32_t>(std::lround(image.width * scale)));
    const uint32_t h = std::max<uint32_t>(1, static_cast<uint32_t>(std::lround(image.height * scale)));
    Image out(w, h, 3);
    for (uint32_t y = 0; y < h; ++y) {
        uint32_t y0, y1;
        sourceSpan(y, image.height, h, &y0, &y1);
        for (uint32_t x = 0; x < w; ++x) {
            uint32_t x0, x1;
            sourceSpan(x, image.width, w, &x0, &x1);
            out.set(x, y, boxMean(image, x0, x1, y0, y1));
        }
    }
    return out;
}

Image makeContactSheet(const std::vector<SheetTile>& tiles, const SheetLayout& layout) {
    if (tiles.empty()) throw ToolError("no images for the contact sheet");
    // Grid position of every tile: a new row when the row is full or the camera changes.
    std::vector<std::pair<uint32_t, uint32_t>> cells;
    uint32_t row = 0, column = 0;
    for (size_t i = 0; i < tiles.size(); ++i) {
        if (i > 0 && (column == layout.columns || tiles[i].cameraId != tiles[i - 1].cameraId)) {
            ++row;
            column = 0;
        }
        cells.emplace_back(column++, row);
    }
    const uint32_t lineHeight = kLineHeight * layout.textScale;
    const uint32_t cellWidth = layout.tileWidth + layout.padding;
    const uint32_t cellHeight = layout.tileHeight + layout.labelLines * lineHeight + layout.padding;
    Image sheet(layout.columns * cellWidth + layout.padding, (row + 1) * cellHeight + layout.padding, 3);
    sheet.fill(kBackground);
    for (size_t i = 0; i < tiles.size(); ++i) {
        const uint32_t left = layout.padding + cells[i].first * cellWidth;
        const uint32_t top = layout.padding + cells[i].second * cellHeight;
        const Image fitted = fitInto(tiles[i].image, layout.tileWidth, layout.tileHeight);
        blit(sheet, fitted, left + (layout.tileWidth - fitted.width) / 2,
             top + (layout.tileHeight - fitted.height) / 2);
        const size_t lines = std::min<size_t>(tiles[i].label.size(), layout.labelLines);
        for (size_t l = 0; l < lines; ++l) {
            const uint32_t y = top + layout.tileHeight + 2 + static_cast<uint32_t>(l) * lineHeight;
            drawText(sheet, left, y, tiles[i].label[l], kLabelColour, layout.textScale);
        }
    }
    return sheet;
}

}  // namespace tool
}  // namespace ruvo
