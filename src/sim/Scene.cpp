// The built-in scenes (flat field, zone plate, test chart) and the choice of scene by name.
#include "sim/Scene.h"

#include <ruvo/capture/CaptureDeviceException.h>

#include <algorithm>
#include <cmath>
#include <stdexcept>

namespace ruvo {
namespace capture {
namespace sim {
namespace {

// 8-bit sRGB values of the 24 colour-checker patches, row-major from the top left.
constexpr unsigned char kCheckerSrgb8[24][3] = {
    {115, 82, 68},   {194, 150, 130}, {98, 122, 157},  {87, 108, 67},   {133, 128, 177}, {103, 189, 170},
    {214, 126, 44},  {80, 91, 166},   {193, 90, 99},   {94, 60, 108},   {157, 188, 64},  {224, 163, 46},
    {56, 61, 150},   {70, 148, 73},   {175, 54, 60},   {231, 199, 31},  {187, 86, 149},  {8, 133, 161},
    {243, 243, 242}, {200, 200, 200}, {160, 160, 160}, {122, 122, 121}, {85, 85, 85},    {52, 52, 52}};

constexpr int kChartColumns = 6;
constexpr int kChartRows = 4;
// The patch grid spans these frame-relative bounds; each patch fills its cell less a margin of
// kPatchMargin of the cell on every side, leaving background between patches.
constexpr RelativeRect kGrid{0.08f, 0.08f, 0.92f, 0.68f};
constexpr float kPatchMargin = 0.1f;
constexpr RelativeRect kRamp{0.08f, 0.76f, 0.92f, 0.92f};
constexpr double kPi = 3.14159265358979323846;

Rgb gray(float level) { return Rgb{level, level, level}; }

bool inside(const RelativeRect& r, float u, float v) {
    return u >= r.left && u < r.right && v >= r.top && v < r.bottom;
}

bool endsWith(const std::string& text, const std::string& suffix) {
    return text.size() >= suffix.size() && text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

}  // namespace

float srgbToLinear(float encoded) {
    if (encoded <= 0.04045f) return encoded / 12.92f;
    return std::pow((encoded + 0.055f) / 1.055f, 2.4f);
}

const std::array<Rgb, 24>& colourCheckerLinear() {
    static const std::array<Rgb, 24> table = [] {
        std::array<Rgb, 24> t{};
        for (int i = 0; i < 24; ++i)
            t[i] = Rgb{srgbToLinear(kCheckerSrgb8[i][0] / 255.0f), srgbToLinear(kCheckerSrgb8[i][1] / 255.0f),
                       srgbToLinear(kCheckerSrgb8[i][2] / 255.0f)};
        return t;
    }();
    return table;
}

RelativeRect chartPatchRect(int index) {
    if (index < 0 || index >= kChartColumns * kChartRows)
        throw std::out_of_range("chart patch index " + std::to_string(index) + " outside 0..23");
    const float cellWidth = (kGrid.right - kGrid.left) / kChartColumns;
    const float cellHeight = (kGrid.bottom - kGrid.top) / kChartRows;
    const float left = kGrid.left + cellWidth * static_cast<float>(index % kChartColumns);
    const float top = kGrid.top + cellHeight * static_cast<float>(index / kChartColumns);
    return RelativeRect{left + kPatchMargin * cellWidth, top + kPatchMargin * cellHeight,
                        left + (1.0f - kPatchMargin) * cellWidth, top + (1.0f - kPatchMargin) * cellHeight};
}

RelativeRect chartRampRect() { return kRamp; }

FlatScene::FlatScene(float level) : _level(level) {
    if (!(level >= 0.0f && level <= 1.0f))
        throw CaptureDeviceException("flat scene level " + std::to_string(level) + " outside 0..1");
}

Rgb FlatScene::reflectance(int, int, int, int) const { return gray(_level); }

Rgb ZonePlateScene::reflectance(int x, int y, int width, int height) const {
    const double dx = x + 0.5 - width * 0.5;
    const double dy = y + 0.5 - height * 0.5;
    const double phase = kPi * (dx * dx + dy * dy) / width;
    return gray(static_cast<float>(0.5 + 0.4 * std::cos(phase)));
}

Rgb ChartScene::reflectance(int x, int y, int width, int height) const {
    const float u = (static_cast<float>(x) + 0.5f) / static_cast<float>(width);
    const float v = (static_cast<float>(y) + 0.5f) / static_cast<float>(height);
    if (inside(kRamp, u, v)) return gray((u - kRamp.left) / (kRamp.right - kRamp.left));
    if (!inside(kGrid, u, v)) return gray(kChartBackground);
    const int column = static_cast<int>((u - kGrid.left) / (kGrid.right - kGrid.left) * kChartColumns);
    const int row = static_cast<int>((v - kGrid.top) / (kGrid.bottom - kGrid.top) * kChartRows);
    const int index = std::min(row, kChartRows - 1) * kChartColumns + std::min(column, kChartColumns - 1);
    return inside(chartPatchRect(index), u, v) ? colourCheckerLinear()[index] : gray(kChartBackground);
}

std::shared_ptr<const Scene> makeScene(const std::string& name, float level) {
    if (name == "chart") return std::make_shared<ChartScene>();
    if (name == "flat") return std::make_shared<FlatScene>(level);
    if (name == "zoneplate") return std::make_shared<ZonePlateScene>();
    if (endsWith(name, ".png") || endsWith(name, ".PNG")) return std::make_shared<PngScene>(name);
    throw CaptureDeviceException("sim.scene = \"" + name + "\": expected chart, flat, zoneplate or a .png file");
}

}  // namespace sim
}  // namespace capture
}  // namespace ruvo
