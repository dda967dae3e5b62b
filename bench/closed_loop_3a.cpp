// Convergence of auto exposure and white balance against the simulated sensor on the chart:
// after the illuminance steps 4x up and 4x down, and after the colour temperature steps from
// 6500 K to 3000 K, how many frames the metered luminance and the neutral patch's chroma take to
// settle within 5% of their targets, how far they overshoot and how often they leave the band again.
// Usage: closed_loop_3a [width height [frames per phase]]; --csv FILE writes every frame.
#include "support/loop_3a.h"

#include "support/GpuPresence.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

namespace {

using ruvo::capture::testing::ClosedLoop;
using ruvo::capture::testing::LoopFrame;
using ruvo::capture::testing::Settling;
using ruvo::capture::testing::settling;

constexpr float kBand = 0.05f;

struct Phase {
    std::string name;
    std::vector<LoopFrame> frames;
};

std::vector<float> pick(const std::vector<LoopFrame>& frames, float LoopFrame::*field) {
    std::vector<float> out;
    for (const LoopFrame& f : frames) out.push_back(f.*field);
    return out;
}

// One row: the quantity's target and last value, the frame from which it stayed in the band
// (frame by frame, and as a mean over 16 frames, as the closed-loop test judges region metering), its overshoot and how
// often it left the band.
void report(const char* configuration, const std::string& phase, const char* quantity, const std::vector<float>& values,
            float target) {
    const Settling s = settling(values, target, kBand);
    const Settling smooth = settling(ruvo::capture::testing::movingAverage(values, 16), target, kBand);
    auto frames = [](const Settling& x) { return x.frames < 0 ? std::string("never") : std::to_string(x.frames); };
    std::printf("%-24s %-18s %-9s %7.4f %7.4f %8s %8s %9.1f%% %9d\n", configuration, phase.c_str(), quantity, target,
                values.empty() ? 0.0f : values.back(), frames(s).c_str(), frames(smooth).c_str(), 100.0f * s.overshoot,
                s.exits);
}

std::vector<Phase> runScenario(const char* index, const char* configuration, uint32_t width, uint32_t height,
                               int frames) {
    ClosedLoop loop(index, width, height);
    std::vector<Phase> phases;
    phases.push_back({"start", loop.run(frames)});
    loop.sensor().setIlluminance(4.0f);
    phases.push_back({"illuminance x4", loop.run(frames)});
    loop.sensor().setIlluminance(1.0f);
    phases.push_back({"illuminance /4", loop.run(frames)});
    loop.sensor().setColourTemperature(3000.0f);
    phases.push_back({"6500 K -> 3000 K", loop.run(2 * frames)});
    const auto& p = loop.params();
    for (const Phase& phase : phases) {
        const bool colour = phase.name.find('K') != std::string::npos;
        if (!colour)
            report(configuration, phase.name, "luminance", pick(phase.frames, &LoopFrame::meteredY), p.ae.targetY);
        if (colour || phase.name == "start") {
            report(configuration, phase.name, "gray U", pick(phase.frames, &LoopFrame::grayU), p.awb.targetU);
            report(configuration, phase.name, "gray V", pick(phase.frames, &LoopFrame::grayV), p.awb.targetV);
        }
    }
    return phases;
}

void writeCsv(const std::string& path, const char* configuration, const std::vector<Phase>& phases, bool header) {
    std::ofstream out(path, header ? std::ios::trunc : std::ios::app);
    if (header) out << "configuration,phase,frame,meteredY,grayU,grayV,exposure,gain,red,blue\n";
    for (const Phase& phase : phases) {
        for (size_t i = 0; i < phase.frames.size(); ++i) {
            const LoopFrame& f = phase.frames[i];
            out << configuration << ',' << phase.name << ',' << i << ',' << f.meteredY << ',' << f.grayU << ','
                << f.grayV << ',' << f.exposure << ',' << f.gain << ',' << f.redGain << ',' << f.blueGain << '\n';
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    std::string reason;
    if (!ruvo::test::cudaDeviceAvailable(&reason)) {
        std::printf("closed_loop_3a: skipped, %s\n", reason.c_str());
        return EXIT_SUCCESS;
    }
    std::vector<std::string> args;
    std::string csv;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--csv") == 0 && i + 1 < argc) {
            csv = argv[++i];
        } else {
            args.emplace_back(argv[i]);
        }
    }
    const uint32_t width = args.size() > 1 ? static_cast<uint32_t>(std::stoul(args[0])) : 1280;
    const uint32_t height = args.size() > 1 ? static_cast<uint32_t>(std::stoul(args[1])) : 720;
    const int frames = args.size() > 2 ? std::stoi(args[2]) : 150;
    std::printf("%ux%u, %d frames per phase (colour phase twice as long), band %.0f%%\n", width, height, frames,
                100 * kBand);
    std::printf("%-24s %-18s %-9s %7s %7s %8s %8s %10s %9s\n", "configuration", "phase", "quantity", "target", "last",
                "settled", "mean16", "overshoot", "exits");
    const std::pair<const char*, const char*> configurations[] = {{"0", "YUV_ONLY"}, {"2", "YUV_2_4_SKIN_HISTOGRAM"}};
    bool first = true;
    for (const auto& [index, name] : configurations) {
        const std::vector<Phase> phases = runScenario(index, name, width, height, frames);
        if (!csv.empty()) writeCsv(csv, name, phases, first);
        first = false;
    }
    return EXIT_SUCCESS;
}
