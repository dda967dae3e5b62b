// Printing of cameras, controls, capabilities and output configurations.
#include "InfoPrinter.h"

#include "FrameNames.h"
#include "OutputBufferConfig.h"

#include <iomanip>

namespace ruvo {
namespace tool {

using capture::Controls;
using capture::OutputBufferDefinition;

namespace {

const char* yesNo(bool value) { return value ? "true" : "false"; }

void printRegions(std::ostream& out, const std::vector<util::WeightedRegion>& regions) {
    out << regions.size() << (regions.size() == 1 ? " region" : " regions");
    for (const util::WeightedRegion& r : regions) {
        out << "\n          [" << r.rect.left() << ", " << r.rect.top() << ", " << r.rect.right() << ", "
            << r.rect.bottom() << "] weight " << r.weight;
    }
    out << "\n";
}

void printBuffers(std::ostream& out, const std::vector<OutputBufferDefinition>& buffers, const char* indent) {
    for (size_t k = 0; k < buffers.size(); ++k) {
        out << indent << "buffer " << k << ": " << std::left << std::setw(12) << formatName(buffers[k].format)
            << std::setw(38) << outputTypeDisplayName(buffers[k].outputType) << levelName(buffers[k].outputLevel)
            << std::right << "\n";
    }
}

std::string configurationDescription(uint32_t index) {
    const auto it = capture::CUDADevice::outputConfigDescriptions.find(static_cast<int>(index));
    return it != capture::CUDADevice::outputConfigDescriptions.end() ? it->second : "unknown configuration";
}

}  // namespace

void printControls(std::ostream& out, const Controls& c) {
    out << std::fixed << std::setprecision(3);
    out << "      size " << c.width << " x " << c.height << ", hFlip " << yesNo(c.hFlip) << ", vFlip " << yesNo(c.vFlip)
        << "\n";
    out << "      awb: lock " << yesNo(c.awb.lock) << ", manual " << yesNo(c.awb.manual) << "\n"
        << "        gamma red " << c.awb.gammaRed << ", green " << c.awb.gammaGreen << ", blue " << c.awb.gammaBlue
        << ", Cr " << c.awb.gammaCr << ", Cb " << c.awb.gammaCb << "\n"
        << "        manual gains red " << c.awb.manualRedGain << ", green " << c.awb.manualGreenGain << ", blue "
        << c.awb.manualBlueGain << "\n        ";
    printRegions(out, c.awb.regions);
    out << "      ae: lock " << yesNo(c.ae.lock) << ", manual " << yesNo(c.ae.manual) << ", mode \"" << c.ae.manualMode
        << "\"\n"
        << "        manual exposure " << c.ae.manualExposure * 1000.0f << " ms, manual gain " << c.ae.manualGain
        << ", ev " << c.ae.ev << ", target Y " << c.ae.targetY << "\n"
        << "        exposure time range " << c.ae.time.low() * 1000.0f << " .. " << c.ae.time.high() * 1000.0f
        << " ms\n        ";
    printRegions(out, c.ae.regions);
    out << "      output configuration " << c.outputBuffersConfIndex << ": "
        << configurationDescription(c.outputBuffersConfIndex) << "\n";
    printBuffers(out, c.outputBuffers, "        ");
    out << std::defaultfloat << std::setprecision(6);
}

// "sensor profile: generic (done in the pipeline: channel gains, black level)".
void printSensor(std::ostream& out, const capture::Capabilities& capabilities) {
    out << "\n    sensor profile: " << capabilities.sensorProfile;
    std::string emulated;
    for (const std::string& control : capabilities.emulatedControls)
        emulated += (emulated.empty() ? "" : ", ") + control;
    if (!emulated.empty()) out << " (done in the pipeline: " << emulated << ")";
}

void printOutputConfigurations(std::ostream& out) {
    out << "Output configurations:\n";
    for (size_t i = 0; i < capture::CUDA_OUTPUT_BUFFER_CONFIG.size(); ++i) {
        out << "  " << std::setw(2) << i << "  " << configurationDescription(static_cast<uint32_t>(i)) << "\n";
        printBuffers(out, capture::CUDA_OUTPUT_BUFFER_CONFIG[i], "        ");
    }
}

// The driver's sizes for the format in use and what the camera makes of each: "1640x1232 (takes
// 1632x1232)", "1280x720 (takes it)", "64x64..4096x3072/2x2 (takes up to 4096x3072)", or "(not taken)".
void printFrameSizes(std::ostream& out, const std::vector<capture::OfferedFrameSize>& sizes) {
    out << "    frame sizes:";
    if (sizes.empty()) out << " none listed";
    for (const capture::OfferedFrameSize& size : sizes) {
        const bool range = size.step != util::Dimensions();
        out << " ";
        if (range) out << size.min.width << "x" << size.min.height << "..";
        out << size.max.width << "x" << size.max.height;
        if (range) out << "/" << size.step.width << "x" << size.step.height;
        if (size.processed == util::Dimensions())
            out << " (not taken)";
        else if (!range && size.processed == size.max)
            out << " (takes it)";
        else
            out << " (takes " << (range ? "up to " : "") << size.processed.width << "x" << size.processed.height << ")";
    }
    out << "\n";
}

void printInfo(std::ostream& out, capture::CUDADevice& device, const std::vector<CameraEntry>& cameras) {
    const uint32_t count = device.numDevices();
    out << "Cameras: " << count << "\n";
    for (uint32_t i = 0; i < count && i < cameras.size(); ++i) {
        out << "  camera " << i << " (devices[" << cameras[i].entry << "]): name \"" << cameras[i].name << "\", path \""
            << cameras[i].path << "\"\n";
        const capture::Capabilities capabilities = device.getCapabilities(i);
        out << "    capabilities:";
        for (const util::Dimensions& d : capabilities.resolutions) out << " " << d.width << "x" << d.height;
        out << "\n    pixel formats:";
        for (const std::string& format : capabilities.pixelFormats) out << " " << format;
        if (!capabilities.pixelFormat.empty()) out << " (in use: " << capabilities.pixelFormat << ")";
        printSensor(out, capabilities);
        out << "\n";
        printFrameSizes(out, capabilities.frameSizes);
        out << "    controls:\n";
        printControls(out, device.getControls(i));
    }
    out << "\n";
    printOutputConfigurations(out);
}

}  // namespace tool
}  // namespace ruvo
