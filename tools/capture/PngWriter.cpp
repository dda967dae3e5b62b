// PNG output through libpng's simplified write interface (no setjmp error handling needed).
#include "PngWriter.h"

#include "ToolError.h"

#include <png.h>

#include <cstring>

namespace ruvo {
namespace tool {

void writePng(const std::string& path, const Image& image) {
    if (image.width == 0 || image.height == 0) throw ToolError("cannot write an empty image to " + path);
    if (image.channels != 1 && image.channels != 3)
        throw ToolError("cannot write a " + std::to_string(image.channels) + "-channel image");
    png_image png;
    std::memset(&png, 0, sizeof(png));
    png.version = PNG_IMAGE_VERSION;
    png.width = image.width;
    png.height = image.height;
    png.format = image.channels == 1 ? PNG_FORMAT_GRAY : PNG_FORMAT_RGB;
    png.flags = PNG_IMAGE_FLAG_FAST;
    const png_int_32 stride = static_cast<png_int_32>(image.width * image.channels);
    if (png_image_write_to_file(&png, path.c_str(), 0, image.pixels.data(), stride, nullptr) == 0) {
        const std::string reason = png.message;
        png_image_free(&png);
        throw ToolError("cannot write " + path + ": " + reason);
    }
}

}  // namespace tool
}  // namespace ruvo
