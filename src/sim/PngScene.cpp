// A scene from a PNG file: libpng decodes it to 8-bit sRGB, the sRGB curve gives linear values,
// and frames sample it bilinearly.
#include "sim/Scene.h"

#include <ruvo/capture/CaptureDeviceException.h>

#include <png.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

namespace ruvo {
namespace capture {
namespace sim {

struct PngScene::Image {
    int width = 0;
    int height = 0;
    std::vector<uint8_t> rgb;  // sRGB-encoded, three samples per pixel, row-major
    float linear[256];         // linear value of each encoded value
};

namespace {

// Bilinear weights of a destination pixel centre mapped into a source axis of `size` samples:
// the two source indices and the weight of the second.
struct Tap {
    int first = 0, second = 0;
    float weight = 0.0f;
};

Tap tapAt(int index, int destinationSize, int size) {
    const float position =
        (static_cast<float>(index) + 0.5f) * static_cast<float>(size) / static_cast<float>(destinationSize) - 0.5f;
    const float clamped = std::clamp(position, 0.0f, static_cast<float>(size - 1));
    Tap tap;
    tap.first = static_cast<int>(clamped);
    tap.second = std::min(tap.first + 1, size - 1);
    tap.weight = clamped - static_cast<float>(tap.first);
    return tap;
}

float lerp(float a, float b, float t) { return a + (b - a) * t; }

}  // namespace

PngScene::PngScene(const std::string& path) {
    png_image png;
    std::memset(&png, 0, sizeof png);
    png.version = PNG_IMAGE_VERSION;
    auto failure = [&](const char* what) {
        const std::string message = std::string("sim.scene: cannot read PNG \"") + path + "\": " + what;
        png_image_free(&png);
        return CaptureDeviceException(message);
    };
    if (!png_image_begin_read_from_file(&png, path.c_str())) throw failure(png.message);
    // 8-bit RGB output makes libpng convert any bit depth, palette or gamma to sRGB encoding.
    png.format = PNG_FORMAT_RGB;
    if (png.width == 0 || png.height == 0) throw failure("empty image");
    auto image = std::make_unique<Image>();
    image->width = static_cast<int>(png.width);
    image->height = static_cast<int>(png.height);
    image->rgb.resize(PNG_IMAGE_SIZE(png));
    for (int v = 0; v < 256; ++v) image->linear[v] = srgbToLinear(static_cast<float>(v) / 255.0f);
    if (!png_image_finish_read(&png, nullptr, image->rgb.data(), 0, nullptr)) throw failure(png.message);
    png_image_free(&png);
    _image = std::move(image);
}

PngScene::~PngScene() = default;

int PngScene::width() const { return _image->width; }

int PngScene::height() const { return _image->height; }

Rgb PngScene::reflectance(int x, int y, int width, int height) const {
    const Tap tx = tapAt(x, width, _image->width);
    const Tap ty = tapAt(y, height, _image->height);
    const auto at = [&](int column, int row, int channel) {
        return _image->linear[_image->rgb[(static_cast<size_t>(row) * _image->width + column) * 3 + channel]];
    };
    float out[3];
    for (int c = 0; c < 3; ++c) {
        const float top = lerp(at(tx.first, ty.first, c), at(tx.second, ty.first, c), tx.weight);
        const float bottom = lerp(at(tx.first, ty.second, c), at(tx.second, ty.second, c), tx.weight);
        out[c] = lerp(top, bottom, ty.weight);
    }
    return Rgb{out[0], out[1], out[2]};
}

}  // namespace sim
}  // namespace capture
}  // namespace ruvo
