// A built-in 5 x 7 pixel font for printable ASCII, so that the contact sheet can label its tiles
// without a font library.
#pragma once

#include "Image.h"

#include <array>
#include <cstdint>
#include <string>

namespace ruvo {
namespace tool {

constexpr uint32_t kGlyphWidth = 5;
constexpr uint32_t kGlyphHeight = 7;
constexpr uint32_t kGlyphAdvance = kGlyphWidth + 1;  // one column of spacing
constexpr uint32_t kLineHeight = kGlyphHeight + 3;

// Seven rows of a glyph, top first; bit 4 is the leftmost column. Characters outside 32..126
// give the glyph of '?'.
const std::array<uint8_t, kGlyphHeight>& glyphRows(char c);

// Width in pixels of `text` at `scale` (no trailing spacing column).
uint32_t textWidth(const std::string& text, uint32_t scale = 1);

// Draws `text` on an RGB image with its top-left corner at (x, y); pixels outside are clipped.
void drawText(Image& image, uint32_t x, uint32_t y, const std::string& text, Rgb colour, uint32_t scale = 1);

}  // namespace tool
}  // namespace ruvo
