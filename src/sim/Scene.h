// What the simulated sensor looks at: a scene gives the linear reflectance (red, green, blue,
// 0..1, linear sRGB primaries) that each pixel of a frame sees. Scenes are immutable, so one
// scene can be shared by the sensor's threads.
#pragma once

#include <array>
#include <memory>
#include <string>

namespace ruvo {
namespace capture {
namespace sim {

struct Rgb {
    float r = 0.0f, g = 0.0f, b = 0.0f;
};

class Scene {
public:
    virtual ~Scene() = default;
    // Reflectance seen by pixel (x, y) of an unmirrored width x height frame; x and y are
    // pixel indices, the sample is taken at the pixel's centre.
    virtual Rgb reflectance(int x, int y, int width, int height) const = 0;
};

// A neutral field of one reflectance everywhere.
class FlatScene : public Scene {
public:
    explicit FlatScene(float level);
    Rgb reflectance(int x, int y, int width, int height) const override;

private:
    float _level;
};

// A circular zone plate: neutral, 0.5 + 0.4 cos(pi r^2 / width) with r the distance in pixels
// from the frame centre, so the local frequency grows linearly from 0 at the centre to the
// Nyquist limit (0.5 cycles per pixel) at the left and right edges.
class ZonePlateScene : public Scene {
public:
    Rgb reflectance(int x, int y, int width, int height) const override;
};

// A test chart on a neutral background of reflectance kChartBackground: the 24 colour-checker
// patches in 4 rows of 6, and below them a gray ramp from reflectance 0 (left) to 1 (right).
class ChartScene : public Scene {
public:
    Rgb reflectance(int x, int y, int width, int height) const override;
};

// Any PNG image, stretched over the frame with bilinear interpolation of linear values; libpng
// brings every bit depth and gamma to 8-bit sRGB, which the sRGB curve decodes to reflectance. Throws
// CaptureDeviceException when the file cannot be read.
class PngScene : public Scene {
public:
    explicit PngScene(const std::string& path);
    ~PngScene() override;
    Rgb reflectance(int x, int y, int width, int height) const override;

    int width() const;
    int height() const;

private:
    struct Image;
    std::unique_ptr<const Image> _image;
};

// Builds the scene named by a "sim.scene" value: "chart", "flat" (at `level`), "zoneplate", or
// the path of a file ending in ".png". Throws CaptureDeviceException for anything else.
std::shared_ptr<const Scene> makeScene(const std::string& name, float level);

// --- The chart's geometry and colours, for tests that measure it. ---

constexpr float kChartBackground = 0.18f;

// A rectangle in frame-relative coordinates: 0..1 across the width and down the height.
struct RelativeRect {
    float left = 0.0f, top = 0.0f, right = 0.0f, bottom = 0.0f;
};

// Patch `index` (0..23, row-major from the top left: dark skin, light skin, blue sky, ...,
// white, the neutrals, black). Throws std::out_of_range for another index.
RelativeRect chartPatchRect(int index);
RelativeRect chartRampRect();

// Linear sRGB reflectance of each patch, decoded from its 8-bit sRGB values.
const std::array<Rgb, 24>& colourCheckerLinear();

// The sRGB transfer function's inverse: encoded value 0..1 to linear value 0..1.
float srgbToLinear(float encoded);

}  // namespace sim
}  // namespace capture
}  // namespace ruvo
