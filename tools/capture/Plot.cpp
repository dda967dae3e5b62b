// Data, script and the gnuplot subprocess of the convergence plot.
#include "Plot.h"

#include "ToolError.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <limits>
#include <sstream>

extern char** environ;

namespace ruvo {
namespace tool {

namespace {

void writeText(const std::string& path, const std::string& text) {
    std::ofstream out(path, std::ios::out | std::ios::trunc);
    out << text;
    if (!out.flush()) throw ToolError("cannot write " + path);
}

std::string firstLine(const std::string& path) {
    std::ifstream in(path);
    std::string line;
    while (std::getline(in, line)) {
        if (line.find_first_not_of(" \t\r^") != std::string::npos) return line;
    }
    return "no message";
}

// One panel: the column of every block, with the block's label and `suffix`.
std::string panel(const std::string& data, const std::vector<std::string>& labels, int column,
                  const std::string& suffix, const std::string& style) {
    std::string plot = "plot ";
    for (size_t b = 0; b < labels.size(); ++b) {
        if (b > 0) plot += ", \\\n     ";
        plot += data + " index " + std::to_string(b) + " using 1:" + std::to_string(column) + " with lines " + style +
                " title " + gnuplotQuoted(labels[b] + suffix);
    }
    return plot + "\n";
}

}  // namespace

std::string plotData(const std::vector<FeedbackSample>& samples, size_t cameras, std::vector<uint32_t>* blockCameras) {
    int64_t t0 = std::numeric_limits<int64_t>::max();
    for (const FeedbackSample& s : samples) t0 = std::min(t0, s.timestampNs);
    std::ostringstream out;
    blockCameras->clear();
    for (uint32_t c = 0; c < cameras; ++c) {
        bool started = false;
        for (const FeedbackSample& s : samples) {
            if (s.cameraId != c) continue;
            if (!started) {
                out << (blockCameras->empty() ? "" : "\n\n") << "# camera " << c
                    << ": time_s exposure_ms gain luminance wb_r wb_g wb_b\n";
                blockCameras->push_back(c);
                started = true;
            }
            char row[200];
            std::snprintf(row, sizeof(row), "%.6f %.6f %.6f %.6f %.6f %.6f %.6f\n", (s.timestampNs - t0) * 1e-9,
                          s.exposureS * 1000.0, s.gain, s.luminance, s.wbRed, s.wbGreen, s.wbBlue);
            out << row;
        }
    }
    return out.str();
}

std::string gnuplotQuoted(const std::string& text) {
    std::string quoted = "'";
    for (char c : text) quoted += c == '\'' ? std::string("''") : std::string(1, c);
    return quoted + "'";
}

std::string plotScript(const std::string& dataPath, const std::string& imagePath,
                       const std::vector<std::string>& blockLabels) {
    const std::string data = gnuplotQuoted(dataPath);
    std::string script;
    script += "set terminal pngcairo size 1280,1280\n";
    script += "set output " + gnuplotQuoted(imagePath) + "\n";
    script += "set multiplot layout 4,1 title 'Auto exposure and white balance over time'\n";
    script += "set grid\nset key outside right\nset xlabel 'time (s)'\n";
    script += "set ylabel 'exposure (ms)'\n" + panel(data, blockLabels, 2, "", "lw 2");
    script += "set ylabel 'analogue gain'\n" + panel(data, blockLabels, 3, "", "lw 2");
    script += "set ylabel 'luminance'\n" + panel(data, blockLabels, 4, "", "lw 2");
    script += "set ylabel 'white-balance gain'\n";
    std::string wb = "plot ";
    const char* const names[] = {"red", "green", "blue"};
    for (size_t b = 0; b < blockLabels.size(); ++b) {
        for (int k = 0; k < 3; ++k) {
            if (b + k > 0) wb += ", \\\n     ";
            wb += data + " index " + std::to_string(b) + " using 1:" + std::to_string(5 + k) +
                  " with lines lw 2 lc rgb '" + names[k] + "' dt " + std::to_string(b + 1) + " title " +
                  gnuplotQuoted(blockLabels[b] + " " + names[k]);
        }
    }
    script += wb + "\nunset multiplot\n";
    return script;
}

void runGnuplot(const std::string& scriptPath, const std::string& logPath) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, logPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
    std::string program = "gnuplot";
    std::vector<char*> argv = {&program[0], const_cast<char*>(scriptPath.c_str()), nullptr};
    pid_t pid = 0;
    const int spawned = posix_spawnp(&pid, program.c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (spawned == ENOENT)
        throw ToolError("gnuplot not found on PATH; install the gnuplot-nox package to get the plot");
    if (spawned != 0) throw ToolError(std::string("cannot run gnuplot: ") + std::strerror(spawned));
    int status = 0;
    while (waitpid(pid, &status, 0) == -1) {
        if (errno != EINTR) throw ToolError(std::string("waiting for gnuplot: ") + std::strerror(errno));
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        throw ToolError("gnuplot failed (" + firstLine(logPath) + "); see " + logPath);
    }
}

PlotOutput writePlot(const std::string& directory, const std::vector<FeedbackSample>& samples,
                     const std::vector<CameraEntry>& cameras) {
    PlotOutput files{directory + "/convergence.dat", directory + "/convergence.gp", directory + "/convergence.png",
                     directory + "/convergence.log"};
    std::vector<uint32_t> blockCameras;
    writeText(files.data, plotData(samples, cameras.size(), &blockCameras));
    if (blockCameras.empty()) throw ToolError("no feedback to plot");
    std::vector<std::string> labels;
    for (uint32_t c : blockCameras) labels.push_back("camera " + std::to_string(c) + " " + cameras[c].name);
    writeText(files.script, plotScript(files.data, files.image, labels));
    runGnuplot(files.script, files.log);
    return files;
}

}  // namespace tool
}  // namespace ruvo
