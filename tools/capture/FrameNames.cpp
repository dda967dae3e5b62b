// Name tables of the frame enumerations.
#include "FrameNames.h"

#include <map>

namespace ruvo {
namespace tool {

using capture::Frame;

const char* formatName(Frame::Format format) {
    switch (format) {
        case Frame::INVALID:
            return "INVALID";
        case Frame::Y8:
            return "Y8";
        case Frame::YUYV:
            return "YUYV";
        case Frame::YUV420p:
            return "YUV420p";
        case Frame::BGR24:
            return "BGR24";
        case Frame::RGB24:
            return "RGB24";
        case Frame::SBGGR10:
            return "SBGGR10";
        case Frame::HISTOGRAM8:
            return "HISTOGRAM8";
    }
    return "unknown format";
}

std::string outputTypeKey(Frame::OutputType type) {
    static const std::map<int, std::string> keys = {
        {Frame::COLOR, "color"},
        {Frame::SKIN, "skin"},
        {Frame::SKIN_Y, "skin_y"},
        {Frame::SKIN_HISTOGRAM, "skin_histogram"},
        {Frame::BAYER, "bayer"},
        {Frame::MOTION, "motion"},
        {Frame::GRADIENT_X, "gradient_x"},
        {Frame::GRADIENT_Y, "gradient_y"},
        {Frame::GRADIENT_MAG, "gradient_mag"},
        {Frame::GRADIENT_ORIENTATION, "gradient_orientation"},
    };
    const auto it = keys.find(type);
    return it != keys.end() ? it->second : "type" + std::to_string(static_cast<int>(type));
}

std::string outputTypeDisplayName(Frame::OutputType type) {
    const auto it = capture::OutputTypeNames.find(type);
    return it != capture::OutputTypeNames.end() ? it->second : "type " + std::to_string(static_cast<int>(type));
}

std::string levelName(Frame::OutputLevel level) {
    switch (level) {
        case Frame::NOT_APPLICABLE:
            return "NOT_APPLICABLE";
        case Frame::SUBIMAGE:
            return "SUBIMAGE";
        case Frame::ORIGINAL:
            return "ORIGINAL";
        case Frame::HALF:
            return "HALF";
        case Frame::QUARTER:
            return "QUARTER";
        case Frame::EIGHTH:
            return "EIGHTH";
        case Frame::SIXTEENTH:
            return "SIXTEENTH";
    }
    return "level " + std::to_string(static_cast<int>(level));
}

}  // namespace tool
}  // namespace ruvo
