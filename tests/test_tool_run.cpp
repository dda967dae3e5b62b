// ruvo-capture run end to end on its built-in configuration (two simulated cameras, made
// free-running and small for speed): the exit, the summary, every promised file read back
// (PNG through libpng, CSV rows and columns, JSON lines through the POCO parser, the plot), and
// auto exposure visibly converging in the recorded feedback.
#ifdef RUVO_CAPTURE_TOOL

#include "support/GpuPresence.h"
#include "test_tool_support.h"

#include <Poco/JSON/Object.h>
#include <Poco/JSON/Parser.h>

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <set>

using namespace ruvo::test;

namespace {

constexpr int kFrames = 200;

struct CsvRow {
    uint32_t camera = 0, frameId = 0, batchId = 0;
    int64_t timestampNs = 0;
    double exposureS = 0, gain = 0, wbR = 0, wbG = 0, wbB = 0, luminance = 0, latencyMs = 0;
};

class ToolRun : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        if (!cudaDeviceAvailable(&skipReason)) return;
        scratch = std::make_unique<ScratchDir>();
        outDir = *scratch / "out";
        result = runProgram(RUVO_CAPTURE_TOOL,
                            {"run", "--set", "devices[*].sim.clock=free", "devices[*].width=672",
                             "devices[*].height=380", "--frames", std::to_string(kFrames), "--output", outDir},
                            *scratch);
    }
    static void TearDownTestSuite() { scratch.reset(); }
    void SetUp() override {
        if (!skipReason.empty()) GTEST_SKIP() << skipReason;
        ASSERT_EQ(result.status, 0) << result.err;
    }

    static std::vector<CsvRow> csvRows() {
        std::vector<CsvRow> rows;
        const std::vector<std::string> lines = splitLines(readText(outDir + "/feedback.csv"));
        for (size_t i = 1; i < lines.size(); ++i) {
            const std::vector<std::string> f = splitFields(lines[i], ',');
            if (f.size() != 11) continue;  // the column test reports these
            rows.push_back({static_cast<uint32_t>(std::stoul(f[0])), static_cast<uint32_t>(std::stoul(f[1])),
                            static_cast<uint32_t>(std::stoul(f[2])), std::stoll(f[3]), std::stod(f[4]), std::stod(f[5]),
                            std::stod(f[6]), std::stod(f[7]), std::stod(f[8]), std::stod(f[9]), std::stod(f[10])});
        }
        return rows;
    }

    static std::string skipReason;
    static std::unique_ptr<ScratchDir> scratch;
    static std::string outDir;
    static ToolResult result;
};

std::string ToolRun::skipReason;
std::unique_ptr<ScratchDir> ToolRun::scratch;
std::string ToolRun::outDir;
ToolResult ToolRun::result;

TEST_F(ToolRun, EndsCleanlyWithASummaryAndTheOutputDirectory) {
    EXPECT_EQ(result.err, "");
    EXPECT_NE(result.out.find("Stopped: frame count reached."), std::string::npos) << result.out;
    EXPECT_NE(result.out.find("camera 0 left (sim:left): "), std::string::npos) << result.out;
    EXPECT_NE(result.out.find("camera 1 right (sim:right): "), std::string::npos) << result.out;
    EXPECT_NE(result.out.find("latency median "), std::string::npos);
    EXPECT_NE(result.out.find("Files in " + outDir + ":"), std::string::npos) << result.out;
    // stdout is not a terminal here: status lines are plain lines, never rewritten in place.
    EXPECT_EQ(result.out.find('\r'), std::string::npos);
    EXPECT_EQ(result.out.find("\x1b["), std::string::npos);
    EXPECT_NE(result.out.find("fps, latency"), std::string::npos);
}

TEST_F(ToolRun, WritesEveryOutputBufferOfTheLastBatchAsAViewablePng) {
    struct Expected {
        std::string name;
        uint32_t width, height, channels;
    };
    const std::vector<Expected> expected = {
        {"cam0-buf0-color-original", 672, 380, 3},      {"cam0-buf1-color-half", 336, 190, 3},
        {"cam0-buf2-color-quarter", 168, 95, 3},        {"cam0-buf3-skin_y-half", 336, 190, 1},
        {"cam0-buf5-skin_y-eighth", 84, 47, 1},         {"cam0-buf6-skin_y-sixteenth", 42, 23, 1},
        {"cam1-buf0-color-original", 672, 380, 3},      {"cam1-buf1-color-half", 336, 190, 3},
        {"cam1-buf2-color-quarter", 168, 95, 3},        {"cam1-buf3-gradient_x-original", 672, 380, 1},
        {"cam1-buf4-gradient_y-original", 672, 380, 1}, {"cam1-buf5-gradient_x-half", 336, 190, 1},
        {"cam1-buf6-gradient_y-half", 336, 190, 1},     {"cam1-buf7-gradient_x-quarter", 168, 95, 1},
        {"cam1-buf8-gradient_y-quarter", 168, 95, 1},
    };
    for (const Expected& e : expected) {
        const PngInfo png = readPng(outDir + "/" + e.name + ".png");
        ASSERT_TRUE(png.ok) << e.name << ": " << png.error;
        EXPECT_EQ(png.width, e.width) << e.name;
        EXPECT_EQ(png.height, e.height) << e.name;
        EXPECT_EQ(png.channels, e.channels) << e.name;
        EXPECT_NE(result.out.find("  " + e.name + ".png\n"), std::string::npos) << e.name << " not listed";
    }
    // The lit chart is neither black nor blown out once exposure has settled.
    const PngInfo colour = readPng(outDir + "/cam1-buf0-color-original.png");
    double sum = 0;
    for (uint8_t v : colour.pixels) sum += v;
    const double mean = sum / colour.pixels.size();
    EXPECT_GT(mean, 40.0);
    EXPECT_LT(mean, 200.0);
}

TEST_F(ToolRun, DrawsTheHistogramTheContactSheetAndThePlot) {
    const PngInfo histogram = readPng(outDir + "/cam0-buf4-skin_histogram-not_applicable.png");
    ASSERT_TRUE(histogram.ok) << histogram.error;
    EXPECT_GE(histogram.width, 512u) << "two pixels per bin";
    const PngInfo sheet = readPng(outDir + "/contact-sheet.png");
    ASSERT_TRUE(sheet.ok) << sheet.error;
    // 16 tiles, each camera starting a row: at least four rows of four and more than 2 rows high.
    EXPECT_GT(sheet.width, 4u * 336);
    EXPECT_GT(sheet.height, 4u * 190);
    const PngInfo plot = readPng(outDir + "/convergence.png");
    ASSERT_TRUE(plot.ok) << plot.error;
    EXPECT_GE(plot.width, 640u);
    EXPECT_NE(readText(outDir + "/convergence.gp").find("convergence.dat"), std::string::npos);
}

TEST_F(ToolRun, CsvHasOneRowPerCameraPerBatch) {
    const std::vector<std::string> lines = splitLines(readText(outDir + "/feedback.csv"));
    ASSERT_GT(lines.size(), 1u);
    EXPECT_EQ(lines[0], "camera,frame_id,batch_id,timestamp_ns,exposure_s,gain,wb_r,wb_g,wb_b,luminance,latency_ms");
    for (size_t i = 1; i < lines.size(); ++i) ASSERT_EQ(splitFields(lines[i], ',').size(), 11u) << lines[i];
    const std::vector<CsvRow> rows = csvRows();
    std::set<std::pair<uint32_t, uint32_t>> cameraBatches;
    std::map<uint32_t, CsvRow> previous;
    std::map<uint32_t, int> count;
    for (const CsvRow& row : rows) {
        ASSERT_LT(row.camera, 2u);
        EXPECT_TRUE(cameraBatches.insert({row.camera, row.batchId}).second)
            << "camera " << row.camera << " twice in batch " << row.batchId;
        if (previous.count(row.camera)) {
            EXPECT_GT(row.frameId, previous[row.camera].frameId);
            EXPECT_GT(row.batchId, previous[row.camera].batchId);
            EXPECT_GT(row.timestampNs, previous[row.camera].timestampNs);
        }
        EXPECT_GE(row.latencyMs, 0.0);
        previous[row.camera] = row;
        ++count[row.camera];
    }
    EXPECT_GE(count[0], kFrames);
    EXPECT_GE(count[1], kFrames);
}

TEST_F(ToolRun, AutoExposureMovesExposureAndLuminanceTowardTheTarget) {
    const double targetY = 0.3;  // the cameras' default exposure target
    for (uint32_t camera : {0u, 1u}) {
        std::vector<CsvRow> rows;
        for (const CsvRow& row : csvRows()) {
            if (row.camera == camera) rows.push_back(row);
        }
        ASSERT_GE(rows.size(), 40u);
        const CsvRow& first = rows.front();
        const CsvRow& last = rows.back();
        EXPECT_NEAR(first.exposureS, 0.010, 0.001) << "the sensor starts at 10 ms";
        EXPECT_GT(last.exposureS, first.exposureS * 1.3) << "camera " << camera;
        EXPECT_GT(last.luminance, first.luminance + 0.03) << "camera " << camera;
        EXPECT_LT(std::abs(last.luminance - targetY), std::abs(first.luminance - targetY)) << "camera " << camera;
    }
    // Camera 1 meters the whole frame and settles on the target itself.
    std::vector<double> tail;
    for (const CsvRow& row : csvRows()) {
        if (row.camera == 1) tail.push_back(row.luminance);
    }
    tail.erase(tail.begin(), tail.end() - 20);
    for (double y : tail) EXPECT_NEAR(y, targetY, 0.02);
}

TEST_F(ToolRun, DiagnosticsRecordsAreOneJsonObjectPerLine) {
    Poco::JSON::Parser parser;
    const std::vector<std::string> stat = splitLines(readText(outDir + "/CapDevCUDAExpStat.jsonl"));
    ASSERT_GE(stat.size(), static_cast<size_t>(kFrames)) << "one record per metered frame";
    std::set<std::string> cameras;
    for (const std::string& line : stat) {
        Poco::JSON::Object::Ptr record = parser.parse(line).extract<Poco::JSON::Object::Ptr>();
        const int side = record->getValue<int>("width");
        EXPECT_EQ(record->getValue<int>("height"), side);
        EXPECT_EQ(record->getArray("data")->size(), static_cast<size_t>(side * side));
        cameras.insert(record->getValue<std::string>("cameraIndex"));
        parser.reset();
    }
    // Region metering, and with it both records, needs the skin histogram: camera 0 only. The
    // chart's skin patches are enough skin for the Meta record.
    EXPECT_EQ(cameras, (std::set<std::string>{"0"}));
    const std::vector<std::string> meta = splitLines(readText(outDir + "/CapDevCUDAExpMeta.jsonl"));
    EXPECT_FALSE(meta.empty());
    for (const std::string& line : meta) {
        Poco::JSON::Object::Ptr record = parser.parse(line).extract<Poco::JSON::Object::Ptr>();
        EXPECT_EQ(record->getValue<std::string>("type"), "Metering Metadata");
        EXPECT_EQ(record->getValue<std::string>("cameraName"), "left");
        EXPECT_EQ(record->getValue<std::string>("cameraIndex"), "0");
        parser.reset();
    }
}

}  // namespace

#else
#include <gtest/gtest.h>
TEST(ToolRun, NeedsTheTool) { GTEST_SKIP() << "ruvo-capture is not built (RUVO_BUILD_TOOLS=OFF)"; }
#endif
