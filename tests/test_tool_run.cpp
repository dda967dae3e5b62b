// ruvo-capture from the outside. A run on its built-in configuration (two simulated cameras, made
// free-running and small for speed): the exit, the summary, every promised file read back (PNG
// through libpng, CSV rows and columns, JSON lines through the POCO parser, the plot), and auto
// exposure visibly converging in the recorded feedback. Then its commands: info on every
// configuration file format and on the built-in configuration, a run from a file without gnuplot,
// a run stopped with Ctrl-C, and every mistake a user can make ending in one error line with the
// right exit status.
#ifdef RUVO_CAPTURE_TOOL

#include "support/GpuPresence.h"
#include "support/tool_run.h"

#include <ruvo/capture/CUDADevice.h>

#include <Poco/JSON/Object.h>
#include <Poco/JSON/Parser.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <map>
#include <memory>
#include <set>
#include <tuple>

using namespace ruvo::test;

namespace {

constexpr int kFrames = 200;

using Row = std::map<std::string, double>;

class ToolRun : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        if (!cudaDeviceAvailable(&skipReason)) return;
        scratch = std::make_unique<ScratchDir>();
        outDir = *scratch / "out";
        result = runTool({"run", "--set", "devices[*].sim.clock=free", "devices[*].width=672", "devices[*].height=380",
                          "--frames", std::to_string(kFrames), "--output", outDir},
                         *scratch);
    }
    static void TearDownTestSuite() { scratch.reset(); }
    void SetUp() override {
        if (!skipReason.empty()) GTEST_SKIP() << skipReason;
        ASSERT_EQ(result.status, 0) << result.err;
    }

    // The rows of feedback.csv after its header, every field read as a number under its column's name.
    static std::vector<Row> csvRows() {
        std::vector<Row> rows;
        const std::vector<std::string> lines = splitLines(readText(outDir + "/feedback.csv"));
        const std::vector<std::string> names = splitLines(lines.at(0), ',');
        for (size_t i = 1; i < lines.size(); ++i) {
            const std::vector<std::string> fields = splitLines(lines[i], ',');
            rows.emplace_back();
            for (size_t k = 0; k < fields.size(); ++k) rows.back()[names.at(k)] = std::stod(fields[k]);
        }
        return rows;
    }

    static inline std::string skipReason;
    static inline std::unique_ptr<ScratchDir> scratch;
    static inline std::string outDir;
    static inline ToolResult result;
};

TEST_F(ToolRun, EndsCleanlyWithASummaryAndTheOutputDirectory) {
    EXPECT_EQ(result.err, "");
    EXPECT_NE(result.out.find("Stopped: frame count reached."), std::string::npos) << result.out;
    EXPECT_NE(result.out.find("camera 1 right (sim:right): "), std::string::npos) << result.out;
    EXPECT_NE(result.out.find("Files in " + outDir + ":"), std::string::npos) << result.out;
    // stdout is not a terminal here: status lines are plain lines, never rewritten in place.
    EXPECT_EQ(result.out.find('\r'), std::string::npos);
    EXPECT_NE(result.out.find("fps, latency"), std::string::npos);
}

TEST_F(ToolRun, WritesEveryOutputBufferOfTheLastBatchAndTheChartsAsViewablePngs) {
    const struct {
        std::string name;
        uint32_t width, height, channels;
    } expected[] = {
        {"cam0-buf0-color-original", 672, 380, 3},      {"cam0-buf1-color-half", 336, 190, 3},
        {"cam0-buf2-color-quarter", 168, 95, 3},        {"cam0-buf3-skin_y-half", 336, 190, 1},
        {"cam0-buf5-skin_y-eighth", 84, 47, 1},         {"cam0-buf6-skin_y-sixteenth", 42, 23, 1},
        {"cam1-buf0-color-original", 672, 380, 3},      {"cam1-buf1-color-half", 336, 190, 3},
        {"cam1-buf2-color-quarter", 168, 95, 3},        {"cam1-buf3-gradient_x-original", 672, 380, 1},
        {"cam1-buf4-gradient_y-original", 672, 380, 1}, {"cam1-buf5-gradient_x-half", 336, 190, 1},
        {"cam1-buf6-gradient_y-half", 336, 190, 1},     {"cam1-buf7-gradient_x-quarter", 168, 95, 1},
        {"cam1-buf8-gradient_y-quarter", 168, 95, 1},
    };
    for (const auto& e : expected) {
        const PngInfo png = readPng(outDir + "/" + e.name + ".png");
        ASSERT_TRUE(png.ok) << e.name << ": " << png.error;
        EXPECT_EQ(png.width, e.width) << e.name;
        EXPECT_EQ(png.height, e.height) << e.name;
        EXPECT_EQ(png.channels, e.channels) << e.name;
        EXPECT_NE(result.out.find("  " + e.name + ".png\n"), std::string::npos) << e.name << " not listed";
    }
    // The histogram chart (two pixels per bin), the contact sheet (16 tiles, each camera starting a
    // row: more than four rows of four) and the plot, which gnuplot drew from the script and data.
    const std::tuple<std::string, uint32_t, uint32_t> charts[] = {{"cam0-buf4-skin_histogram-not_applicable", 512, 1},
                                                                  {"contact-sheet", 4 * 336 + 1, 4 * 190 + 1},
                                                                  {"convergence", 640, 1}};
    for (const auto& [name, minWidth, minHeight] : charts) {
        const PngInfo png = readPng(outDir + "/" + name + ".png");
        ASSERT_TRUE(png.ok) << name << ": " << png.error;
        EXPECT_GE(png.width, minWidth) << name;
        EXPECT_GE(png.height, minHeight) << name;
    }
    // The lit chart is neither black nor blown out once exposure has settled.
    const PngInfo colour = readPng(outDir + "/cam1-buf0-color-original.png");
    double sum = 0;
    for (uint8_t v : colour.pixels) sum += v;
    EXPECT_GT(sum / colour.pixels.size(), 40.0);
    EXPECT_LT(sum / colour.pixels.size(), 200.0);
}

TEST_F(ToolRun, CsvHasOneRowPerCameraPerBatch) {
    const std::vector<std::string> lines = splitLines(readText(outDir + "/feedback.csv"));
    ASSERT_GT(lines.size(), 1u);
    EXPECT_EQ(lines[0],
              "camera,frame_id,batch_id,timestamp_ns,exposure_s,gain,wb_r,wb_g,wb_b,luminance,latency_ms,sequence,"
              "dropped,errors");
    for (const std::string& line : lines) ASSERT_EQ(std::count(line.begin(), line.end(), ','), 13) << line;
    std::set<std::pair<double, double>> cameraBatches;
    std::map<double, Row> previous;
    std::map<double, int> count;
    for (Row& row : csvRows()) {
        const double camera = row["camera"];
        ASSERT_TRUE(camera == 0 || camera == 1) << camera;
        EXPECT_TRUE(cameraBatches.insert({camera, row["batch_id"]}).second)
            << "camera " << camera << " twice in batch " << row["batch_id"];
        if (previous.count(camera)) {
            for (const char* c : {"frame_id", "batch_id", "timestamp_ns", "sequence"})
                EXPECT_GT(row[c], previous[camera][c]) << c;
        }
        EXPECT_GE(row["latency_ms"], 0.0);
        // A free-running sensor fills a buffer only when one is queued: nothing is lost or damaged.
        EXPECT_EQ(row["dropped"] + row["errors"], 0.0);
        previous[camera] = row;
        ++count[camera];
    }
    EXPECT_GE(count[0], kFrames);
    EXPECT_GE(count[1], kFrames);
}

TEST_F(ToolRun, AutoExposureMovesExposureAndLuminanceTowardTheTarget) {
    const double targetY = 0.3;  // the cameras' default exposure target
    std::map<double, std::vector<Row>> byCamera;
    for (Row& row : csvRows()) byCamera[row["camera"]].push_back(row);
    for (double camera : {0, 1}) {
        std::vector<Row>& rows = byCamera[camera];
        ASSERT_GE(rows.size(), 40u);
        Row& first = rows.front();
        Row& last = rows.back();
        EXPECT_NEAR(first["exposure_s"], 0.010, 0.001) << "the sensor starts at 10 ms";
        EXPECT_GT(last["exposure_s"], first["exposure_s"] * 1.3) << "camera " << camera;
        EXPECT_GT(last["luminance"], first["luminance"] + 0.03) << "camera " << camera;
        EXPECT_LT(std::abs(last["luminance"] - targetY), std::abs(first["luminance"] - targetY)) << "camera " << camera;
    }
    // Camera 1 meters the whole frame and settles on the target itself.
    for (size_t i = byCamera[1].size() - 20; i < byCamera[1].size(); ++i)
        EXPECT_NEAR(byCamera[1][i]["luminance"], targetY, 0.02);
}

// Region metering, and with it both records, needs the skin histogram: camera 0 only. The
// chart's skin patches are enough skin for the Meta record.
TEST_F(ToolRun, DiagnosticsRecordsAreOneJsonObjectPerLine) {
    auto records = [](const std::string& channel) {
        std::vector<Poco::JSON::Object::Ptr> parsed;
        for (const std::string& line : splitLines(readText(outDir + "/" + channel + ".jsonl")))
            parsed.push_back(Poco::JSON::Parser().parse(line).extract<Poco::JSON::Object::Ptr>());
        return parsed;
    };
    const std::vector<Poco::JSON::Object::Ptr> stat = records("CapDevCUDAExpStat");
    ASSERT_GE(stat.size(), static_cast<size_t>(kFrames)) << "one record per metered frame";
    for (const Poco::JSON::Object::Ptr& record : stat) {
        const int side = record->getValue<int>("width");
        EXPECT_EQ(record->getValue<int>("height"), side);
        EXPECT_EQ(record->getArray("data")->size(), static_cast<size_t>(side * side));
        EXPECT_EQ(record->getValue<std::string>("cameraIndex"), "0");
    }
    const std::vector<Poco::JSON::Object::Ptr> meta = records("CapDevCUDAExpMeta");
    ASSERT_FALSE(meta.empty());
    EXPECT_EQ(meta.back()->getValue<std::string>("cameraName"), "left");
}

// ---- commands ----

const std::string kData = RUVO_TOOL_TEST_DATA;

class ToolCommands : public ::testing::Test {
protected:
    ToolResult run(const std::vector<std::string>& args, const std::string& environment = "") {
        return runTool(args, scratch, environment);
    }
    // Runs the tool and expects `status` with one error line, containing `fragment`, alone on stderr.
    void expectOneErrorLine(const std::vector<std::string>& args, int status, const std::string& fragment,
                            const std::string& environment = "") {
        const std::string what = toolCommand(args);
        const ToolResult r = run(args, environment);
        EXPECT_EQ(r.status, status) << what << "\n" << r.err;
        const std::vector<std::string> lines = splitLines(r.err);
        ASSERT_EQ(lines.size(), 1u) << what << ":\n" << r.err;
        EXPECT_EQ(lines[0].rfind("ruvo-capture: error: ", 0), 0u) << what << ": " << lines[0];
        EXPECT_NE(lines[0].find(fragment), std::string::npos) << what << ": " << lines[0];
    }
    ScratchDir scratch;
};

TEST_F(ToolCommands, EveryFileFormatDescribesTheSameCameras) {
    RUVO_REQUIRE_CUDA_DEVICE();
    // The info text after its first line, which names the configuration file.
    auto body = [this](const std::string& format) {
        const ToolResult r = run({"info", "--config", kData + "/two-cameras." + format});
        EXPECT_EQ(r.status, 0) << format << ": " << r.err;
        return r.out.substr(r.out.find('\n') + 1);
    };
    const std::string reference = body("properties");
    EXPECT_NE(reference.find("Cameras: 2\n"), std::string::npos) << reference;
    // The disabled entry 1 is skipped; the second camera keeps its entry number 2.
    EXPECT_NE(reference.find("camera 0 (devices[0]): name \"alpha\", path \"sim:alpha\""), std::string::npos);
    EXPECT_NE(reference.find("camera 1 (devices[2]): name \"gamma\", path \"sim:gamma\""), std::string::npos);
    EXPECT_NE(reference.find("size 672 x 380, hFlip false, vFlip true"), std::string::npos) << reference;
    EXPECT_NE(reference.find("output configuration 11: only basic with 24-bit RGB"), std::string::npos);
    for (const char* format : {"ini", "xml", "json"}) EXPECT_EQ(body(format), reference) << format;
}

TEST_F(ToolCommands, InfoListsCapabilitiesControlsAndEveryOutputConfiguration) {
    RUVO_REQUIRE_CUDA_DEVICE();
    const ToolResult r = run(
        {"info", "--set", "devices[0].ae.targetY=0.25", "devices[1].vFlip=false", "devices[1].sim.controls=generic"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, "");
    for (const char* text : {
             "camera 0 (devices[0]): name \"left\", path \"sim:left\"",
             "camera 1 (devices[1]): name \"right\", path \"sim:right\"",
             "capabilities: 672x380 1280x720 1920x1080 2688x1520", "pixel formats: BG10 (in use: default)",
             "sensor profile: default\n",
             "sensor profile: generic (done in the pipeline: channel gains, black level, luminance statistic)",
             "frame sizes: 672x380 (takes it) 1280x720 (takes it) 1920x1080 (takes it) 2688x1520 (takes it)",
             "target Y 0.250",  // --set reaches the camera
             "hFlip true, vFlip false", "mode \"default\"", "exposure time range 0.167 .. 33.333 ms",
             "buffer 4: HISTOGRAM8  8bit skin masked luminance histogram  NOT_APPLICABLE",
             "buffer 2: RGB24       Raw Bayer",  // row 9 lists the Bayer view third
         }) {
        EXPECT_NE(r.out.find(text), std::string::npos) << text << "\n" << r.out;
    }
    for (const auto& row : ruvo::capture::CUDADevice::outputConfigDescriptions) {
        const std::string line = (row.first < 10 ? "   " : "  ") + std::to_string(row.first) + "  " + row.second + "\n";
        EXPECT_NE(r.out.find(line), std::string::npos) << line;
    }
}

// No gnuplot on PATH: one error line, after the other files were written as they are.
TEST_F(ToolCommands, RunFromAFileWithoutGnuplotWritesTheOtherFiles) {
    RUVO_REQUIRE_CUDA_DEVICE();
    const std::string out = scratch / "json-run";
    expectOneErrorLine({"run", "--config", kData + "/two-cameras.json", "--set", "devices[*].sim.clock=free",
                        "--frames", "20", "--output", out},
                       1, "gnuplot not found", "PATH=" + scratch.path());
    const PngInfo rgb = readPng(out + "/cam1-buf0-color-original.png");  // RGB_ONLY at 672 x 380
    ASSERT_TRUE(rgb.ok) << rgb.error;
    EXPECT_EQ(rgb.width, 672u);
    EXPECT_EQ(rgb.height, 380u);
    EXPECT_EQ(rgb.channels, 3u);
    EXPECT_TRUE(readPng(out + "/contact-sheet.png").ok);
    EXPECT_FALSE(Poco::File(out + "/convergence.png").exists());
    // No skin histogram configured: the diagnostics files exist and stay empty.
    EXPECT_TRUE(Poco::File(out + "/CapDevCUDAExpStat.jsonl").exists());
    EXPECT_EQ(readText(out + "/CapDevCUDAExpStat.jsonl"), "");
}

TEST_F(ToolCommands, CtrlCStopsTheRunAndStillWritesTheFiles) {
    RUVO_REQUIRE_CUDA_DEVICE();
    const std::string out = scratch / "interrupted";
    // Real-time clock and a frame count it will not reach: only the signal ends this run. The
    // shell prints its process id, which the tool keeps by replacing the shell.
    const std::string command = "echo $$; exec " +
                                toolCommand({"run", "--set", "devices[*].width=672", "devices[*].height=380",
                                             "--frames", "1000000", "--output", out}) +
                                " 2>" + shellQuoted(scratch / "stderr");
    FILE* pipe = popen(command.c_str(), "r");
    ASSERT_NE(pipe, nullptr);
    char line[512];
    ASSERT_NE(fgets(line, sizeof line, pipe), nullptr);
    const pid_t pid = std::stoi(line);
    // A status line with a frame rate shows that the cameras are delivering.
    std::string seen;
    while (seen.find("fps, latency") == std::string::npos && fgets(line, sizeof line, pipe) != nullptr) seen += line;
    EXPECT_NE(seen.find("fps, latency"), std::string::npos) << seen << readText(scratch / "stderr");
    kill(pid, SIGINT);
    while (fgets(line, sizeof line, pipe) != nullptr) seen += line;
    const int status = pclose(pipe);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status << readText(scratch / "stderr");
    EXPECT_NE(seen.find("Stopped: stopped by signal."), std::string::npos) << seen;
    EXPECT_TRUE(readPng(out + "/contact-sheet.png").ok);
    EXPECT_GT(splitLines(readText(out + "/feedback.csv")).size(), 1u);
}

TEST_F(ToolCommands, NoCudaDeviceIsOneErrorLine) {
    if (cudaDeviceAvailable()) GTEST_SKIP() << "this machine has a CUDA device";
    expectOneErrorLine({"info"}, 1, "cannot build the cameras: cudaGetDeviceCount");
}

TEST_F(ToolCommands, BadCameraKeysAndASilentCameraEndInOneErrorLine) {
    RUVO_REQUIRE_CUDA_DEVICE();
    // A stepped clock that nobody steps: camera 1 stays silent while camera 0 runs.
    expectOneErrorLine({"run", "--set", "devices[1].sim.clock=stepped", "devices[*].width=672", "devices[*].height=380",
                        "--frames", "1000000", "--output", scratch / "silent"},
                       1, "camera 1 (sim:right) delivered no frame for 10 s");
    const std::pair<std::string, std::string> cases[] = {
        {"devices[0].width=abc", "devices[0].width = \"abc\": Not a valid unsigned integer"},
        {"devices[1].ae.targetY=high", "devices[1].ae.targetY = \"high\""},
        {"devices[0].outputBufferFormats=12",
         "Unsupported CUDA output configuration"},  // each refusal: the params test
        {"devices[0].path=/dev/video99", "/dev/video99"},
        {"devices[0].sim.clock=fast", "sim.clock"},
        {"devices[1].enabled=maybe", "devices[1].enabled = \"maybe\""},
    };
    for (const auto& [setting, fragment] : cases)
        expectOneErrorLine({"run", "--set", setting, "--frames", "5", "--output", scratch / "out"}, 1, fragment);
}

TEST_F(ToolCommands, ConfigurationFileAndCommandLineMistakesEndInOneErrorLine) {
    const std::string directory = scratch / "folder.properties";
    Poco::File(directory).createDirectories();
    const std::string broken = scratch / "broken.json";
    std::ofstream(broken) << "{ \"devices\": [ { \"enabled\": tru";
    const struct {
        std::string file;
        int status;
        std::string fragment;
    } files[] = {
        {scratch / "missing.properties", 1, "does not exist"},
        {directory, 1, "is not a regular file"},
        {broken, 1, "is not valid .json"},
        {kData + "/two-cameras.yaml", 2, "unknown extension .yaml"},
        {scratch / "noextension", 2, "no extension"},
    };
    for (const auto& f : files) {
        expectOneErrorLine({"run", "--config", f.file, "--output", scratch / "out"}, f.status, f.fragment);
        expectOneErrorLine({"info", "--config", f.file}, f.status, f.fragment);
    }
    const std::pair<std::vector<std::string>, std::string> usage[] = {
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
    for (const auto& [args, fragment] : usage) expectOneErrorLine(args, 2, fragment);
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
TEST(ToolRun, NeedsTheTool) { GTEST_SKIP() << "ruvo-capture is not built (RUVO_BUILD_TOOLS=OFF)"; }
#endif
