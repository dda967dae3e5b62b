// Per-buffer PNG files and the contact sheet.
#include "ImageExport.h"

#include "ContactSheet.h"
#include "FrameNames.h"
#include "ImageConvert.h"
#include "PngWriter.h"

#include <Poco/String.h>

namespace ruvo {
namespace tool {

std::string imageFileName(const FrameCopy& copy) {
    return "cam" + std::to_string(copy.cameraId) + "-buf" + std::to_string(copy.batchIndex) + "-" +
           outputTypeKey(copy.outputType) + "-" + Poco::toLower(levelName(copy.outputLevel)) + ".png";
}

std::vector<std::string> tileLabel(const FrameCopy& copy, const CameraEntry& camera) {
    std::string size = copy.format == capture::Frame::HISTOGRAM8
                           ? std::to_string(kHistogramBins) + " bins"
                           : std::to_string(copy.width) + "x" + std::to_string(copy.height);
    return {
        "camera " + std::to_string(copy.cameraId) + " " + camera.name + ", buffer " + std::to_string(copy.batchIndex),
        outputTypeDisplayName(copy.outputType), levelName(copy.outputLevel) + ", " + size};
}

std::vector<std::string> saveImages(const std::string& directory, const std::vector<FrameCopy>& copies,
                                    const std::vector<CameraEntry>& cameras) {
    std::vector<std::string> written;
    std::vector<SheetTile> tiles;
    for (const FrameCopy& copy : copies) {
        Image image = toViewable(copy);
        const std::string path = directory + "/" + imageFileName(copy);
        writePng(path, image);
        written.push_back(path);
        const CameraEntry& camera = cameras.at(copy.cameraId);
        tiles.push_back({copy.cameraId, std::move(image), tileLabel(copy, camera)});
    }
    if (tiles.empty()) return written;
    const std::string sheet = directory + "/contact-sheet.png";
    writePng(sheet, makeContactSheet(tiles));
    written.push_back(sheet);
    return written;
}

}  // namespace tool
}  // namespace ruvo
