// The plot of auto exposure and white balance over a run: a data file with one block per camera,
// a gnuplot script that draws exposure, gain, luminance and white-balance gains against time into
// a PNG, and the gnuplot process that runs it.
#pragma once

#include "Configuration.h"
#include "Recorder.h"

#include <string>
#include <vector>

namespace ruvo {
namespace tool {

// Data file text: per camera with samples a "# camera" comment line and rows
// "time_s exposure_ms gain luminance wb_r wb_g wb_b" (time from the earliest capture), the
// blocks separated by two blank lines so that gnuplot's "index k" selects the k-th block.
// `blockCameras` receives the camera of every block in order.
std::string plotData(const std::vector<FeedbackSample>& samples, size_t cameras, std::vector<uint32_t>* blockCameras);

// The gnuplot script drawing the four panels from `dataPath` into `imagePath`.
std::string plotScript(const std::string& dataPath, const std::string& imagePath,
                       const std::vector<std::string>& blockLabels);

// Text as a gnuplot single-quoted string ('' stands for a quote).
std::string gnuplotQuoted(const std::string& text);

// Runs `gnuplot scriptPath` found on PATH, its messages going to `logPath`. Throws ToolError when
// gnuplot cannot be found or run, or fails (with its first message).
void runGnuplot(const std::string& scriptPath, const std::string& logPath);

struct PlotOutput {
    std::string data;
    std::string script;
    std::string image;
    std::string log;
};

// Writes "<dir>/convergence.dat", ".gp", runs gnuplot into "<dir>/convergence.png". Throws
// ToolError when there is nothing to plot or a step fails.
PlotOutput writePlot(const std::string& directory, const std::vector<FeedbackSample>& samples,
                     const std::vector<CameraEntry>& cameras);

}  // namespace tool
}  // namespace ruvo
