// ruvo-capture's commands from the outside: info on every configuration file format and on the
// built-in configuration, a run from a file, a run stopped with Ctrl-C, a run without gnuplot, and
// every mistake a user can make ending in one error line with the right exit status.
#ifdef RUVO_CAPTURE_TOOL

#include "support/GpuPresence.h"
#include "test_tool_support.h"

#include <ruvo/capture/CUDADevice.h>

#include <gtest/gtest.h>

#include <csignal>

using namespace ruvo::test;

namespace {

const std::string kTool = RUVO_CAPTURE_TOOL;
const std::string kData = RUVO_TOOL_TEST_DATA;

// The error line the tool must end with, alone on stderr.
void expectOneErrorLine(const ToolResult& r, int status, const std::string& fragment, const std::string& what) {
    EXPECT_EQ(r.status, status) << what << "\n" << r.err;
    const std::vector<std::string> lines = splitLines(r.err);
    ASSERT_EQ(lines.size(), 1u) << what << ":\n" << r.err;
    EXPECT_EQ(lines[0].rfind("ruvo-capture: error: ", 0), 0u) << what << ": " << lines[0];
    EXPECT_NE(lines[0].find(fragment), std::string::npos) << what << ": " << lines[0];
}

class ToolCommands : public ::testing::Test {
protected:
    ToolResult run(const std::vector<std::string>& args, const std::vector<std::string>& env = {}) {
        return runProgram(kTool, args, scratch, env);
    }
    ScratchDir scratch;
};

// The info text after its first line, which names the configuration file.
std::string infoBody(const std::string& out) { return out.substr(out.find('\n') + 1); }

TEST_F(ToolCommands, EveryFileFormatDescribesTheSameCameras) {
    RUVO_REQUIRE_CUDA_DEVICE();
    const ToolResult reference = run({"info", "--config", kData + "/two-cameras.properties"});
    ASSERT_EQ(reference.status, 0) << reference.err;
    const std::string body = infoBody(reference.out);
    EXPECT_NE(body.find("Cameras: 2\n"), std::string::npos) << body;
    // The disabled entry 1 is skipped; the second camera keeps its entry number 2.
    EXPECT_NE(body.find("camera 0 (devices[0]): name \"alpha\", path \"sim:alpha\""), std::string::npos) << body;
    EXPECT_NE(body.find("camera 1 (devices[2]): name \"gamma\", path \"sim:gamma\""), std::string::npos) << body;
    EXPECT_NE(body.find("size 672 x 380, hFlip false, vFlip true"), std::string::npos) << body;
    EXPECT_NE(body.find("output configuration 11: only basic with 24-bit RGB"), std::string::npos) << body;
    for (const char* format : {"ini", "xml", "json"}) {
        const ToolResult r = run({"info", "--config", kData + "/two-cameras." + std::string(format)});
        ASSERT_EQ(r.status, 0) << format << ": " << r.err;
        EXPECT_EQ(infoBody(r.out), body) << format;
    }
}

TEST_F(ToolCommands, InfoListsCapabilitiesControlsAndEveryOutputConfiguration) {
    RUVO_REQUIRE_CUDA_DEVICE();
    const ToolResult r = run({"info", "--set", "devices[0].ae.targetY=0.25", "devices[1].vFlip=false"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, "");
    EXPECT_NE(r.out.find("camera 0 (devices[0]): name \"left\", path \"sim:left\""), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("camera 1 (devices[1]): name \"right\", path \"sim:right\""), std::string::npos);
    EXPECT_NE(r.out.find("capabilities: 672x380 1280x720 1920x1080 2688x1520"), std::string::npos);
    EXPECT_NE(r.out.find("target Y 0.250"), std::string::npos) << "--set reaches the camera";
    EXPECT_NE(r.out.find("hFlip true, vFlip false"), std::string::npos);
    EXPECT_NE(r.out.find("mode \"default\""), std::string::npos);
    EXPECT_NE(r.out.find("exposure time range 0.167 .. 33.333 ms"), std::string::npos);
    for (const auto& row : ruvo::capture::CUDADevice::outputConfigDescriptions) {
        const std::string line = (row.first < 10 ? "   " : "  ") + std::to_string(row.first) + "  " + row.second + "\n";
        EXPECT_NE(r.out.find(line), std::string::npos) << line;
    }
    EXPECT_NE(r.out.find("buffer 4: HISTOGRAM8  8bit skin masked luminance histogram  NOT_APPLICABLE"),
              std::string::npos);
    EXPECT_NE(r.out.find("buffer 2: RGB24       Raw Bayer"), std::string::npos) << "row 9 lists the Bayer view third";
}

TEST_F(ToolCommands, RunFromAFileWritesRgbOutputsAsTheyAre) {
    RUVO_REQUIRE_CUDA_DEVICE();
    const std::string out = scratch / "json-run";
    const ToolResult r = run({"run", "--config", kData + "/two-cameras.json", "--set", "devices[*].sim.clock=free",
                              "--frames", "20", "--output", out});
    ASSERT_EQ(r.status, 0) << r.err;
    const PngInfo rgb = readPng(out + "/cam1-buf0-color-original.png");  // RGB_ONLY at 672 x 380
    ASSERT_TRUE(rgb.ok) << rgb.error;
    EXPECT_EQ(rgb.width, 672u);
    EXPECT_EQ(rgb.height, 380u);
    EXPECT_EQ(rgb.channels, 3u);
    EXPECT_TRUE(readPng(out + "/cam0-buf1-color-half.png").ok);
    EXPECT_TRUE(readPng(out + "/contact-sheet.png").ok);
    // No skin histogram configured: the diagnostics files exist and stay empty.
    EXPECT_EQ(readText(out + "/CapDevCUDAExpStat.jsonl"), "");
}

TEST_F(ToolCommands, CtrlCStopsTheRunAndStillWritesTheFiles) {
    RUVO_REQUIRE_CUDA_DEVICE();
    const std::string out = scratch / "interrupted";
    int pipeFds[2];
    ASSERT_EQ(pipe(pipeFds), 0);
    // Real-time clock and a frame count it will not reach: only the signal ends this run.
    const pid_t pid = spawnProgram(
        kTool,
        {"run", "--set", "devices[*].width=672", "devices[*].height=380", "--frames", "1000000", "--output", out}, {},
        pipeFds[1], scratch / "stderr", pipeFds[0]);
    close(pipeFds[1]);
    ASSERT_GT(pid, 0);
    std::string seen;
    char buffer[512];
    ssize_t n = 0;
    // A status line with a frame rate shows that the cameras are delivering.
    const std::string delivering = "fps, latency";
    while (seen.find(delivering) == std::string::npos && (n = read(pipeFds[0], buffer, sizeof(buffer))) > 0) {
        seen.append(buffer, static_cast<size_t>(n));
    }
    ASSERT_NE(seen.find(delivering), std::string::npos) << seen << readText(scratch / "stderr");
    kill(pid, SIGINT);
    while ((n = read(pipeFds[0], buffer, sizeof(buffer))) > 0) seen.append(buffer, static_cast<size_t>(n));
    close(pipeFds[0]);
    EXPECT_EQ(waitForExit(pid), 0) << readText(scratch / "stderr");
    EXPECT_NE(seen.find("Stopped: stopped by signal."), std::string::npos) << seen;
    EXPECT_TRUE(readPng(out + "/contact-sheet.png").ok);
    EXPECT_GT(splitLines(readText(out + "/feedback.csv")).size(), 1u);
}

TEST_F(ToolCommands, MissingGnuplotIsOneErrorLineAfterTheOtherFiles) {
    RUVO_REQUIRE_CUDA_DEVICE();
    const std::string out = scratch / "no-gnuplot";
    const ToolResult r = run({"run", "--set", "devices[*].sim.clock=free", "devices[*].width=672",
                              "devices[*].height=380", "--frames", "10", "--output", out},
                             {"PATH=" + scratch.path()});
    expectOneErrorLine(r, 1, "gnuplot not found", "no gnuplot on PATH");
    EXPECT_TRUE(readPng(out + "/contact-sheet.png").ok);
    EXPECT_TRUE(readPng(out + "/cam0-buf0-color-original.png").ok);
    EXPECT_FALSE(Poco::File(out + "/convergence.png").exists());
}

TEST_F(ToolCommands, ACameraThatNeverDeliversEndsTheRunWithAnError) {
    RUVO_REQUIRE_CUDA_DEVICE();
    // A stepped clock that nobody steps: camera 1 stays silent while camera 0 runs.
    const ToolResult r = run({"run", "--set", "devices[1].sim.clock=stepped", "devices[*].width=672",
                              "devices[*].height=380", "--frames", "1000000", "--output", scratch / "silent"});
    expectOneErrorLine(r, 1, "camera 1 (sim:right) delivered no frame for 10 s", "silent camera");
}

TEST_F(ToolCommands, NoCudaDeviceIsOneErrorLine) {
    if (cudaDeviceAvailable()) GTEST_SKIP() << "this machine has a CUDA device";
    expectOneErrorLine(run({"info"}), 1, "cannot build the cameras: cudaGetDeviceCount", "info without a GPU");
}

TEST_F(ToolCommands, ConfigurationFileMistakesEndInOneErrorLine) {
    const std::string directory = scratch / "folder.properties";
    Poco::File(directory).createDirectories();
    const std::string broken = scratch / "broken.json";
    std::ofstream(broken) << "{ \"devices\": [ { \"enabled\": tru";
    struct Case {
        std::string file;
        int status;
        std::string fragment;
    } cases[] = {
        {scratch / "missing.properties", 1, "does not exist"},
        {directory, 1, "is not a regular file"},
        {broken, 1, "is not valid .json"},
        {kData + "/two-cameras.yaml", 2, "unknown extension .yaml"},
        {scratch / "noextension", 2, "no extension"},
    };
    for (const Case& c : cases) {
        expectOneErrorLine(run({"run", "--config", c.file, "--output", scratch / "out"}), c.status, c.fragment, c.file);
        expectOneErrorLine(run({"info", "--config", c.file}), c.status, c.fragment, "info " + c.file);
    }
}

TEST_F(ToolCommands, BadCameraKeysEndInOneErrorLine) {
    RUVO_REQUIRE_CUDA_DEVICE();
    struct Case {
        std::string setting;
        std::string fragment;
    } cases[] = {
        {"devices[0].width=abc", "devices[0].width = \"abc\": Not a valid unsigned integer"},
        {"devices[1].ae.targetY=high", "devices[1].ae.targetY = \"high\""},
        {"devices[0].outputBufferFormats=12", "Unsupported CUDA output configuration"},
        {"devices[1].demosaicMode=-1", "Unsupported CUDA demosaic configuration"},
        {"devices[0].path=/dev/video99", "/dev/video99"},
        {"devices[1].width=1281", "Unsupported resolution"},
        {"devices[0].sim.clock=fast", "sim.clock"},
        {"devices[1].enabled=maybe", "devices[1].enabled = \"maybe\""},
    };
    for (const Case& c : cases) {
        const ToolResult r = run({"run", "--set", c.setting, "--frames", "5", "--output", scratch / "out"});
        expectOneErrorLine(r, 1, c.fragment, c.setting);
    }
}

TEST_F(ToolCommands, CommandLineMistakesAreUsageErrors) {
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
        {{}, "no command given"},
        {{"record"}, "unknown command \"record\""},
        {{"run", "--fast"}, "unknown option --fast"},
        {{"run", "--frames"}, "--frames needs a value"},
        {{"run", "--frames", "0"}, "--frames needs a positive whole number"},
        {{"run", "--frames", "12x"}, "--frames needs a positive whole number"},
        {{"run", "--seconds", "-1"}, "--seconds needs a positive number"},
        {{"run", "--frames", "5", "--seconds", "2"}, "cannot be used together"},
        {{"run", "--set", "width"}, "--set needs key=value"},
        {{"run", "--set", "=3"}, "needs a key"},
        {{"info", "--output", "x"}, "apply to the run command only"},
        {{"run", "--log", "loud"}, "unknown log level \"loud\""},
        {{"run", "info"}, "unexpected argument \"info\""},
    };
    for (const auto& c : cases) {
        std::string what;
        for (const std::string& a : c.first) what += a + " ";
        expectOneErrorLine(run(c.first), 2, c.second, what);
    }
}

TEST_F(ToolCommands, HelpPrintsTheUsage) {
    for (const std::vector<std::string>& args : {std::vector<std::string>{"--help"}, {"run", "-h"}, {"help"}}) {
        const ToolResult r = run(args);
        EXPECT_EQ(r.status, 0);
        EXPECT_EQ(r.err, "");
        EXPECT_EQ(r.out.rfind("Usage:\n  ruvo-capture run ", 0), 0u) << r.out;
        EXPECT_NE(r.out.find("--seconds S"), std::string::npos);
    }
}

}  // namespace

#else
#include <gtest/gtest.h>
TEST(ToolCommands, NeedsTheTool) { GTEST_SKIP() << "ruvo-capture is not built (RUVO_BUILD_TOOLS=OFF)"; }
#endif
