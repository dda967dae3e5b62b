// White balance on the chart, the gray test beside the search along the colour-temperature
// curve: for each illuminant, the chroma of the neutral patch after the run (|U - 128| and
// |V - 128| in codes), the frame from which both stayed within 3 codes of neutral, and the red
// and blue gain registers the run ended with. The gray test runs on the simulator's default
// (neutral) sensor and on the bare one; the curve search on the bare one, whose curve is built in.
// Usage: white_balance_report [frames]
#include "support/loop_3a.h"

#include "support/GpuPresence.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

using ruvo::capture::testing::ClosedLoop;
using ruvo::capture::testing::LoopFrame;

constexpr float kNeutralCodes = 3.0f;

struct Setup {
    const char* sensor;  // sim.colourResponse
    const char* mode;    // awb.mode
};

float offU(const LoopFrame& f) { return std::fabs(f.grayU * 255.0f - 128.0f); }
float offV(const LoopFrame& f) { return std::fabs(f.grayV * 255.0f - 128.0f); }

// First frame of the final stretch with both chroma values within kNeutralCodes; -1: never.
int settledFrame(const std::vector<LoopFrame>& frames) {
    int settled = -1;
    for (size_t i = frames.size(); i-- > 0;) {
        if (offU(frames[i]) > kNeutralCodes || offV(frames[i]) > kNeutralCodes) break;
        settled = static_cast<int>(i);
    }
    return settled;
}

void report(const Setup& setup, int kelvin, const char* illuminance, int frames) {
    ClosedLoop loop(std::to_string(ruvo::capture::YUV_ONLY), 672, 380,
                    {{"awb.mode", setup.mode},
                     {"sim.colourResponse", setup.sensor},
                     {"sim.colourTemperature", std::to_string(kelvin)},
                     {"sim.illuminance", illuminance}});
    const std::vector<LoopFrame> run = loop.run(frames);
    const LoopFrame& last = run.back();
    const int settled = settledFrame(run);
    std::printf("%-8s %-6s %6d %5s %8.1f %8.1f %8s %6d %6d\n", setup.sensor, setup.mode, kelvin, illuminance,
                offU(last), offV(last), settled < 0 ? "never" : std::to_string(settled).c_str(), last.redGain,
                last.blueGain);
}

}  // namespace

int main(int argc, char** argv) {
    std::string reason;
    if (!ruvo::test::cudaDeviceAvailable(&reason)) {
        std::printf("white_balance_report: skipped, %s\n", reason.c_str());
        return EXIT_SUCCESS;
    }
    const int frames = argc > 1 ? std::atoi(argv[1]) : 150;
    if (frames < 1) {
        std::fprintf(stderr, "white_balance_report: frames must be at least 1\n");
        return EXIT_FAILURE;
    }
    std::printf("672x380 chart, YUV_ONLY, %d frames from power-on gains; neutral: |U-128|, |V-128| <= %.0f\n", frames,
                kNeutralCodes);
    std::printf("%-8s %-6s %6s %5s %8s %8s %8s %6s %6s\n", "sensor", "mode", "K", "light", "|U-128|", "|V-128|",
                "settled", "red", "blue");
    const Setup setups[] = {{"neutral", "gray"}, {"raw", "gray"}, {"raw", "curve"}};
    for (const Setup& setup : setups) {
        for (const char* illuminance : {"1.0", "0.2"}) {
            for (int kelvin : {2800, 3200, 5000, 7500}) report(setup, kelvin, illuminance, frames);
        }
    }
    return EXIT_SUCCESS;
}
