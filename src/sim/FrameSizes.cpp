// Parsing, nearest-size choice and enumeration of the simulated sensor's frame sizes.
#include "sim/FrameSizes.h"

#include <ruvo/capture/CaptureDeviceException.h>

#include <Poco/NumberParser.h>
#include <Poco/String.h>
#include <Poco/StringTokenizer.h>

#include <algorithm>
#include <cmath>
#include <cstring>

namespace ruvo {
namespace capture {
namespace sim {
namespace {

// Sizes up to the largest frame a V4L2 buffer of 32-bit length holds at two bytes per sample.
constexpr uint32_t kMaxSide = 16384;

[[noreturn]] void invalid(const std::string& key, const std::string& text, const std::string& why) {
    throw CaptureDeviceException(key + " = \"" + text + "\": " + why);
}

FrameSize parseSize(const std::string& key, const std::string& text, const std::string& part) {
    const auto x = part.find('x');
    unsigned width = 0, height = 0;
    if (x == std::string::npos || !Poco::NumberParser::tryParseUnsigned(Poco::trim(part.substr(0, x)), width) ||
        !Poco::NumberParser::tryParseUnsigned(Poco::trim(part.substr(x + 1)), height))
        invalid(key, text, "\"" + part + "\" is not WIDTHxHEIGHT");
    if (width == 0 || height == 0 || width > kMaxSide || height > kMaxSide)
        invalid(key, text, "\"" + part + "\" is outside 1x1 .. 16384x16384");
    // A Bayer frame holds whole 2 x 2 quads.
    if ((width % 2 != 0 || height % 2 != 0)) invalid(key, text, "\"" + part + "\" has an odd side");
    return {width, height};
}

uint32_t roundToStep(uint32_t value, uint32_t low, uint32_t high, uint32_t step) {
    const uint32_t clamped = std::min(std::max(value, low), high);
    const uint32_t steps = (clamped - low + step / 2) / step;
    return std::min(low + steps * step, low + (high - low) / step * step);
}

}  // namespace

FrameSize FrameSizes::nearest(uint32_t width, uint32_t height) const {
    if (stepwise)
        return {roundToStep(width, min.width, max.width, step.width),
                roundToStep(height, min.height, max.height, step.height)};
    FrameSize best = discrete.front();
    double bestDistance = INFINITY;
    for (const FrameSize& size : discrete) {
        const double dx = static_cast<double>(width) - size.width;
        const double dy = static_cast<double>(height) - size.height;
        if (dx * dx + dy * dy < bestDistance) {
            bestDistance = dx * dx + dy * dy;
            best = size;
        }
    }
    return best;
}

int FrameSizes::enumerate(v4l2_frmsizeenum* size) const {
    if (size->index >= (stepwise ? 1u : discrete.size())) return EINVAL;
    std::memset(size->reserved, 0, sizeof size->reserved);
    if (!stepwise) {
        size->type = V4L2_FRMSIZE_TYPE_DISCRETE;
        size->discrete.width = discrete[size->index].width;
        size->discrete.height = discrete[size->index].height;
        return 0;
    }
    size->type = V4L2_FRMSIZE_TYPE_STEPWISE;
    size->stepwise = {min.width, max.width, step.width, min.height, max.height, step.height};
    return 0;
}

FrameSizes parseFrameSizes(const std::string& key, const std::string& text) {
    FrameSizes sizes;
    const auto dots = text.find("..");
    if (dots == std::string::npos) {
        sizes.discrete.clear();
        const int options = Poco::StringTokenizer::TOK_TRIM | Poco::StringTokenizer::TOK_IGNORE_EMPTY;
        for (const std::string& part : Poco::StringTokenizer(text, ",", options))
            sizes.discrete.push_back(parseSize(key, text, part));
        if (sizes.discrete.empty()) invalid(key, text, "no size");
        return sizes;
    }
    const auto slash = text.find('/', dots);
    if (slash == std::string::npos) invalid(key, text, "a range is MINxMIN..MAXxMAX/STEPxSTEP");
    sizes.stepwise = true;
    sizes.min = parseSize(key, text, text.substr(0, dots));
    sizes.max = parseSize(key, text, text.substr(dots + 2, slash - dots - 2));
    sizes.step = parseSize(key, text, text.substr(slash + 1));  // every size whole Bayer quads
    if (sizes.max.width < sizes.min.width || sizes.max.height < sizes.min.height)
        invalid(key, text, "the largest size is below the smallest");
    return sizes;
}

}  // namespace sim
}  // namespace capture
}  // namespace ruvo
