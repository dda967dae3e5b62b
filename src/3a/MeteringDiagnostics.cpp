// Text of the metering diagnostics records; numbers printed as "%d", "%u" and "%f".
#include "3a/MeteringDiagnostics.h"

#include <cstdio>

namespace ruvo {
namespace capture {
namespace metering {

namespace {

std::string formatInt(int value) {
    char text[16];
    std::snprintf(text, sizeof text, "%d", value);
    return text;
}

std::string formatUnsigned(uint32_t value) {
    char text[16];
    std::snprintf(text, sizeof text, "%u", value);
    return text;
}

std::string formatFloat(float value) {
    char text[64];  // "%f" of the largest float needs 46 characters
    std::snprintf(text, sizeof text, "%f", static_cast<double>(value));
    return text;
}

}  // namespace

const std::string& expStatChannelName() {
    static const std::string name = "CapDevCUDAExpStat";
    return name;
}

const std::string& expMetaChannelName() {
    static const std::string name = "CapDevCUDAExpMeta";
    return name;
}

std::string expStatRecord(int side, int cameraIndex, const std::vector<Region>& regions) {
    std::string text = "{ \"width\": " + formatInt(side);
    text += ", \"height\": " + formatInt(side);
    text += ", \"cameraIndex\": \"" + formatInt(cameraIndex);
    text += "\"";
    text += ", \"data\": [";
    for (size_t i = 0; i < regions.size(); ++i) {
        if (i != 0) text += ",";
        text += formatFloat(regions[i].weight);
    }
    text += "]}";
    return text;
}

std::string expMetaRecord(const ExpMeta& meta) {
    // A shift by a negative level would be undefined; such levels are not pyramid levels.
    const int level = meta.level < 0 || meta.level > 31 ? 0 : meta.level;
    std::string text = "{ ";
    text += "\"type\": \"Metering Metadata\", ";
    text += "\"cameraName\": \"" + meta.cameraName;
    text += "\", ";
    text += "\"cameraIndex\": \"" + formatInt(meta.cameraIndex);
    text += "\", ";
    text += "\"numPixelsCount\": " + formatUnsigned(meta.skinPixels);
    text += ", ";
    text += "\"sumPixelsLuminance\": " + formatInt(meta.sumLuminance);
    text += ", ";
    text += "\"meanLuminance\": " + formatFloat(meta.meanLuminance);
    text += ", ";
    text += "\"bufferDims\": { ";
    text += "\"width\":" + formatUnsigned(meta.width >> level);
    text += ", ";
    text += "\"height\":" + formatUnsigned(meta.cudaHeight >> level);
    text += "} }";
    return text;
}

}  // namespace metering
}  // namespace capture
}  // namespace ruvo
