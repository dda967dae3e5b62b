// The run and info commands.
#include "RunCommand.h"

#include "Configuration.h"
#include "DeviceSession.h"
#include "DiagnosticsLog.h"
#include "FrameCopy.h"
#include "ImageExport.h"
#include "InfoPrinter.h"
#include "Plot.h"
#include "Recorder.h"
#include "StatusReport.h"
#include "StopSignal.h"
#include "ToolError.h"

#include <Poco/File.h>
#include <Poco/Path.h>

#include <chrono>
#include <fstream>
#include <thread>

namespace ruvo {
namespace tool {

namespace {

using Clock = std::chrono::steady_clock;
using Batches = std::vector<std::vector<std::shared_ptr<capture::Frame>>>;

constexpr auto kPollInterval = std::chrono::milliseconds(50);
constexpr double kStatusIntervalS = 0.5;
constexpr double kSilenceLimitS = 10.0;  // a camera that delivers nothing this long ends the run

double secondsBetween(Clock::time_point from, Clock::time_point to) {
    return std::chrono::duration<double>(to - from).count();
}

std::string prepareOutputDirectory(const std::string& directory) {
    try {
        Poco::File(directory).createDirectories();
    } catch (const Poco::Exception& e) {
        throw ToolError("cannot create the output directory \"" + directory + "\": " + e.displayText());
    }
    if (!Poco::File(directory).isDirectory()) throw ToolError("\"" + directory + "\" is not a directory");
    return Poco::Path(directory).absolute().toString();
}

// Prints the status of every camera since the last call; throws when a camera has been silent
// for too long. `lastProgress` holds when each camera last delivered.
void showStatus(Recorder& recorder, const std::vector<CameraEntry>& cameras, StatusPrinter& printer, double intervalS,
                std::vector<Clock::time_point>& lastProgress) {
    const std::vector<CameraStatus> status = recorder.takeStatus();
    const Clock::time_point now = Clock::now();
    std::vector<std::string> lines;
    for (size_t c = 0; c < status.size(); ++c) {
        lines.push_back(statusLine(cameras[c], static_cast<uint32_t>(c), status[c], intervalS));
        if (status[c].windowFrames > 0) lastProgress[c] = now;
    }
    printer.update(lines);
    for (size_t c = 0; c < status.size(); ++c) {
        if (secondsBetween(lastProgress[c], now) > kSilenceLimitS) {
            throw ToolError("camera " + std::to_string(c) + " (" + cameras[c].path + ") delivered no frame for " +
                            std::to_string(static_cast<int>(kSilenceLimitS)) + " s");
        }
    }
}

// Polls until the frame count or time limit is reached or a stop is requested; returns why.
std::string captureLoop(Recorder& recorder, const std::vector<CameraEntry>& cameras, const Options& options,
                        const StopSignal& signal, StatusPrinter& printer) {
    const Clock::time_point start = Clock::now();
    Clock::time_point lastStatus = start;
    std::vector<Clock::time_point> lastProgress(cameras.size(), start);
    for (;;) {
        std::this_thread::sleep_for(kPollInterval);
        const Clock::time_point now = Clock::now();
        std::string reason;
        if (signal.requested())
            reason = "stopped by signal";
        else if (options.seconds > 0.0 && secondsBetween(start, now) >= options.seconds)
            reason = "time limit reached";
        else if (options.seconds <= 0.0 && recorder.reached(options.frames))
            reason = "frame count reached";
        if (!reason.empty() || secondsBetween(lastStatus, now) >= kStatusIntervalS) {
            showStatus(recorder, cameras, printer, secondsBetween(lastStatus, now), lastProgress);
            lastStatus = now;
        }
        if (!reason.empty()) return reason;
    }
}

std::vector<FrameCopy> copyNewest(Batches batches) {
    std::vector<FrameCopy> copies;
    for (const auto& frames : batches) {
        for (const auto& frame : frames) copies.push_back(copyFrame(*frame));
    }
    return copies;  // `batches` goes out of scope here, returning the buffers
}

}  // namespace

int runCommand(const Options& options, std::ostream& out, bool terminal) {
    Poco::AutoPtr<Poco::Util::AbstractConfiguration> config = loadConfiguration(options.configFile, options.sets);
    const std::vector<CameraEntry> cameras = enabledCameras(*config);
    if (cameras.empty()) throw ToolError("the configuration has no enabled camera (devices[i].enabled = true)");
    const std::string directory = prepareOutputDirectory(options.outputDir);
    const std::string csvPath = directory + "/feedback.csv";
    std::ofstream csv(csvPath, std::ios::out | std::ios::trunc);
    if (!csv) throw ToolError("cannot create " + csvPath);
    Recorder recorder(cameras.size(), &csv);
    DiagnosticsLog diagnostics(directory, diagnosticsChannels());
    std::vector<FrameCopy> copies;
    std::string reason;
    {
        DeviceSession session(config);
        session.setReleaseFrames([&recorder] { recorder.finish(); });
        session.device().setCallback(
            [&recorder](const std::vector<std::shared_ptr<capture::Frame>>& batch) { recorder.onBatch(batch); });
        StopSignal signal;
        out << "Capturing from " << cameras.size() << (cameras.size() == 1 ? " camera" : " cameras");
        if (options.seconds > 0.0)
            out << " for " << options.seconds << " s";
        else
            out << ", " << options.frames << " frames each";
        out << "; Ctrl-C stops.\n";
        session.start();
        StatusPrinter printer(out, terminal);
        reason = captureLoop(recorder, cameras, options, signal, printer);
        copies = copyNewest(recorder.finish());
        session.stop();
    }
    csv.close();
    out << "Stopped: " << reason << ".\n" << summaryText(cameras, recorder.totals());
    std::vector<std::string> files = {csvPath};
    files.insert(files.end(), diagnostics.files().begin(), diagnostics.files().end());
    const std::vector<std::string> images = saveImages(directory, copies, cameras);
    files.insert(files.end(), images.begin(), images.end());
    std::string plotError;
    try {
        files.push_back(writePlot(directory, recorder.samples(), cameras).image);
    } catch (const ToolError& e) {
        plotError = e.what();
    }
    out << "Files in " << directory << ":\n";
    for (const std::string& file : files) out << "  " << Poco::Path(file).getFileName() << "\n";
    out.flush();
    if (!plotError.empty()) throw ToolError("no plot: " + plotError);
    return kExitOk;
}

int infoCommand(const Options& options, std::ostream& out) {
    Poco::AutoPtr<Poco::Util::AbstractConfiguration> config = loadConfiguration(options.configFile, options.sets);
    const std::vector<CameraEntry> cameras = enabledCameras(*config);
    out << "Configuration: "
        << (options.configFile.empty() ? "built-in (two simulated cameras on the test chart)" : options.configFile)
        << "\n";
    DeviceSession session(config);
    printInfo(out, session.device(), cameras);
    return kExitOk;
}

}  // namespace tool
}  // namespace ruvo
