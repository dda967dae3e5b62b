// The bookkeeping side of ruvo-capture: the command line, configuration layering and camera
// entries, error texts traced to their key, the recorder's rows and buffer hand-back, statistics,
// status texts, the plot's data and script, and the diagnostics files.
#ifdef RUVO_CAPTURE_TOOL

#include "Configuration.h"
#include "DiagnosticsLog.h"
#include "ImageExport.h"
#include "Options.h"
#include "Plot.h"
#include "Recorder.h"
#include "Stats.h"
#include "StatusReport.h"
#include "ToolError.h"
#include "test_tool_support.h"

#include <ruvo/util/Channel.h>

#include <Poco/Util/PropertyFileConfiguration.h>

#include <gtest/gtest.h>

#include <sstream>

using namespace ruvo::tool;
using ruvo::capture::Frame;

namespace {

Options parse(std::vector<const char*> args) {
    args.insert(args.begin(), "ruvo-capture");
    return parseOptions(static_cast<int>(args.size()), args.data());
}

Poco::AutoPtr<Poco::Util::AbstractConfiguration> properties(const std::string& text) {
    std::istringstream in(text);
    return new Poco::Util::PropertyFileConfiguration(in);
}

TEST(ToolParts, OptionsTakeEveryFormOfValue) {
    const Options defaults = parse({"run"});
    EXPECT_EQ(defaults.command, Options::Command::Run);
    EXPECT_EQ(defaults.frames, 300u);
    EXPECT_EQ(defaults.seconds, 0.0);
    EXPECT_EQ(defaults.outputDir, "ruvo-capture-out");
    EXPECT_EQ(defaults.configFile, "");
    const Options o =
        parse({"run", "--set", "a=1", "b.c=x=y", "--set=d=", "--frames=12", "--output", "o", "--config", "c.json"});
    ASSERT_EQ(o.sets.size(), 3u);
    EXPECT_EQ(o.sets[0], std::make_pair(std::string("a"), std::string("1")));
    EXPECT_EQ(o.sets[1], std::make_pair(std::string("b.c"), std::string("x=y"))) << "split at the first '='";
    EXPECT_EQ(o.sets[2], std::make_pair(std::string("d"), std::string("")));
    EXPECT_EQ(o.frames, 12u);
    EXPECT_EQ(o.outputDir, "o");
    EXPECT_EQ(o.configFile, "c.json");
    EXPECT_DOUBLE_EQ(parse({"run", "--seconds", "2.5"}).seconds, 2.5);
    EXPECT_EQ(parse({"info", "--frames", "3", "--help"}).command, Options::Command::Help) << "help wins";
    EXPECT_THROW(parse({"run", "--seconds", "nan"}), UsageError);
    EXPECT_THROW(parse({"run", "--frames", "99999999999999999999999"}), UsageError);
    EXPECT_THROW(parse({"run", "--config="}), UsageError);
}

TEST(ToolParts, OverridesLayerOverTheFileAndExpandOverEveryEntry) {
    const auto base =
        properties("devices[0].path=sim:a\ndevices[0].width=1280\ndevices[1].path=sim:b\ndevices[3].path=sim:gap\n");
    const auto layered =
        withOverrides(base, {{"devices[*].width", "672"}, {"devices[1].width", "1920"}, {"extra", "1"}});
    EXPECT_EQ(layered->getString("devices[0].width"), "672") << "the override hides the file's value";
    EXPECT_EQ(layered->getString("devices[1].width"), "1920") << "a later setting wins";
    EXPECT_FALSE(layered->has("devices[3].width")) << "the list ends at the first gap";
    EXPECT_EQ(layered->getString("devices[0].path"), "sim:a");
    EXPECT_EQ(layered->getString("extra"), "1");
    EXPECT_THROW(withOverrides(properties("x=1\n"), {{"devices[*].width", "672"}}), ToolError);
}

TEST(ToolParts, EnabledCamerasAreTheDenseListsEnabledEntries) {
    const auto config = properties(
        "devices[0].enabled=true\ndevices[0].path=sim:a\n"
        "devices[1].enabled=false\n"
        "devices[2].enabled=true\ndevices[2].path=sim:c\ndevices[2].name=third\n"
        "devices[4].enabled=true\ndevices[4].path=sim:after-gap\n");
    const std::vector<CameraEntry> cameras = enabledCameras(*config);
    ASSERT_EQ(cameras.size(), 2u);
    EXPECT_EQ(cameras[0].entry, 0u);
    EXPECT_EQ(cameras[0].name, "CUDACamera");
    EXPECT_EQ(cameras[1].entry, 2u);
    EXPECT_EQ(cameras[1].name, "third");
    EXPECT_EQ(cameras[1].path, "sim:c");
    EXPECT_THROW(enabledCameras(*properties("devices[0].enabled=true\n")), ToolError);
    EXPECT_THROW(enabledCameras(*properties("devices[0].enabled=true\ndevices[0].path=\n")), ToolError);
    EXPECT_TRUE(enabledCameras(*properties("devices[0].path=sim:off\n")).empty()) << "enabled defaults to false";
}

TEST(ToolParts, TheBuiltInConfigurationStartsDarkOnTwoChartCameras) {
    const auto config = defaultConfiguration();
    const std::vector<CameraEntry> cameras = enabledCameras(*config);
    ASSERT_EQ(cameras.size(), 2u);
    EXPECT_NE(cameras[0].path, cameras[1].path) << "each camera its own simulated sensor";
    EXPECT_EQ(config->getInt("devices[0].outputBufferFormats"), 2);
    EXPECT_EQ(config->getInt("devices[1].outputBufferFormats"), 7);
    for (const char* entry : {"devices[0]", "devices[1]"}) {
        const std::string key = entry;
        EXPECT_EQ(config->getString(key + ".sim.scene"), "chart");
        EXPECT_EQ(config->getString(key + ".sim.clock"), "realtime");
        EXPECT_DOUBLE_EQ(config->getDouble(key + ".sim.fps"), 30.0);
        EXPECT_LT(config->getDouble(key + ".sim.illuminance"), 0.5) << "below the target at the start";
    }
}

TEST(ToolParts, ParseFailuresNameTheKeyThatHoldsTheValue) {
    const auto config = properties("devices[0].path=sim:a\ndevices[1].path=sim:b\ndevices[1].ae.gainP=fast\n");
    try {
        config->getDouble("devices[1].ae.gainP");
        FAIL() << "no syntax error";
    } catch (const Poco::SyntaxException& e) {
        EXPECT_EQ(describeConfigurationError(e, *config),
                  "devices[1].ae.gainP = \"fast\": Not a valid floating-point number");
    }
    const Poco::NotFoundException notFound("path");
    EXPECT_EQ(describeConfigurationError(notFound, *config), notFound.displayText());
    const Poco::SyntaxException elsewhere("Not a valid unsigned integer", "zzz");
    EXPECT_EQ(describeConfigurationError(elsewhere, *config), elsewhere.displayText());
}

TEST(ToolParts, PercentilesAreNearestRank) {
    std::vector<double> values;
    for (int i = 100; i >= 1; --i) values.push_back(i);
    EXPECT_EQ(percentile(values, 50), 50);
    EXPECT_EQ(percentile(values, 99), 99);
    EXPECT_EQ(percentile(values, 100), 100);
    EXPECT_EQ(percentile(values, 0), 1);
    EXPECT_EQ(percentile({7.5}, 99), 7.5);
    EXPECT_EQ(percentile({}, 50), 0);
    EXPECT_EQ(percentile({3, 1, 2}, 50), 2);
}

// A delivered frame whose buffer is "returned" by counting in `released`.
std::shared_ptr<Frame> frame(uint32_t camera, uint32_t frameId, uint32_t batch, int* released, float exposure = 0.02f) {
    auto* f = new Frame();
    f->cameraId = camera;
    f->frameId = frameId;
    f->batchId = batch;
    f->batchIndex = frameId % 2;
    f->timestamp = ruvo::capture::TimePoint(std::chrono::nanoseconds(1000000000LL * (batch + 1)));
    f->feedback.autoExposureTime = exposure;
    f->feedback.autoExposureGain = 2.0f;
    f->feedback.autoWhiteBalanceGains = {1.5f, 1.0f, 1.0f, 0.75f};
    f->feedback.luminance = 0.25f;
    return std::shared_ptr<Frame>(f, [released](Frame* p) {
        ++*released;
        delete p;
    });
}

TEST(ToolParts, SamplesTakeTheFirstFrameAndTheRedGreenBlueGains) {
    int released = 0;
    const auto f = frame(1, 7, 3, &released);
    const FeedbackSample s = sampleOf(*f, f->timestamp + std::chrono::milliseconds(5));
    EXPECT_DOUBLE_EQ(s.latencyMs, 5.0);
    EXPECT_DOUBLE_EQ(s.wbRed, 1.5);
    EXPECT_DOUBLE_EQ(s.wbGreen, 1.0);
    EXPECT_DOUBLE_EQ(s.wbBlue, 0.75) << "gains are stored red, green, green, blue";
    EXPECT_EQ(csvRow(s), "1,7,3,4000000000,0.0199999996,2,1.5,1,0.75,0.25,5.000");
}

TEST(ToolParts, RecorderKeepsTheNewestBatchAndHandsTheRestBack) {
    int released = 0;
    std::ostringstream csv;
    Recorder recorder(2, &csv);
    recorder.onBatch({frame(0, 0, 0, &released), frame(0, 1, 0, &released), frame(1, 2, 0, &released)});
    EXPECT_EQ(released, 0) << "the batch is held";
    EXPECT_FALSE(recorder.reached(2));
    recorder.onBatch({frame(0, 3, 1, &released), frame(0, 4, 1, &released)});
    EXPECT_EQ(released, 2) << "camera 0's older batch went back; camera 1's stays";
    EXPECT_FALSE(recorder.reached(2));
    recorder.onBatch({frame(1, 5, 2, &released)});
    EXPECT_TRUE(recorder.reached(2));
    const std::vector<std::string> rows = ruvo::test::splitLines(csv.str());
    ASSERT_EQ(rows.size(), 5u) << "header and one row per camera per batch";
    EXPECT_EQ(rows[0], csvHeader());
    EXPECT_EQ(rows[2].rfind("1,2,0,", 0), 0u);
    const std::vector<CameraStatus> status = recorder.takeStatus();
    EXPECT_EQ(status[0].delivered, 2u);
    EXPECT_EQ(status[0].windowFrames, 2u);
    EXPECT_EQ(recorder.takeStatus()[0].windowFrames, 0u) << "the window restarts";
    auto newest = recorder.finish();
    ASSERT_EQ(newest.size(), 2u);
    EXPECT_EQ(newest[0].size(), 2u);
    EXPECT_EQ(newest[0][0]->frameId, 3u);
    EXPECT_EQ(newest[1][0]->frameId, 5u);
    newest.clear();
    EXPECT_EQ(released, 6);
    recorder.onBatch({frame(0, 6, 3, &released)});
    EXPECT_EQ(released, 7) << "after finish nothing is kept: the frame went back with the caller's batch";
    EXPECT_EQ(recorder.totals()[0].delivered, 2u);
    EXPECT_EQ(recorder.samples().size(), 4u);
}

TEST(ToolParts, StatusAndSummaryTexts) {
    const CameraEntry camera{0, "left", "sim:left"};
    CameraStatus status;
    EXPECT_EQ(statusLine(camera, 0, status, 0.5), "camera 0 left: waiting for frames");
    status.hasSample = true;
    status.delivered = 42;
    status.windowFrames = 15;
    status.windowLatencyMs = 3.25;
    status.last.exposureS = 0.0125;
    status.last.gain = 1.5;
    status.last.luminance = 0.3;
    status.last.wbRed = 1.1;
    status.last.wbGreen = 1.0;
    status.last.wbBlue = 0.9;
    EXPECT_EQ(statusLine(camera, 0, status, 0.5),
              "camera 0 left:  30.0 fps, latency   3.2 ms, exposure 12.50 ms, gain 1.50, luminance 0.300, wb "
              "1.100/1.000/0.900, 42 frames");
    CameraTotals totals;
    totals.delivered = 11;
    totals.firstDeliveryS = 10.0;
    totals.lastDeliveryS = 11.0;
    totals.latenciesMs = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 50};
    totals.hasSample = true;
    totals.last = status.last;
    const std::string summary = summaryText({camera}, {totals});
    EXPECT_NE(summary.find("camera 0 left (sim:left): 11 frames, mean 10.0 fps, latency median 6.00 ms, p99 50.00 ms"),
              std::string::npos)
        << summary;
    EXPECT_NE(summary.find("final exposure 12.50 ms, gain 1.50"), std::string::npos);
    std::ostringstream terminal, plain;
    StatusPrinter onTerminal(terminal, true), onPipe(plain, false);
    for (int i = 0; i < 2; ++i) {
        onTerminal.update({"a", "b"});
        onPipe.update({"a", "b"});
    }
    EXPECT_EQ(terminal.str(), "\ra\x1b[K\n\rb\x1b[K\n\x1b[2A\ra\x1b[K\n\rb\x1b[K\n");
    EXPECT_EQ(plain.str(), "a\nb\na\nb\n");
}

TEST(ToolParts, PlotDataHasOneBlockPerCameraWithSamples) {
    std::vector<FeedbackSample> samples(3);
    samples[0].cameraId = 2;
    samples[0].timestampNs = 3000000000;
    samples[0].exposureS = 0.01;
    samples[1].cameraId = 0;
    samples[1].timestampNs = 2000000000;
    samples[2].cameraId = 2;
    samples[2].timestampNs = 2500000000;
    std::vector<uint32_t> blocks;
    const std::string data = plotData(samples, 3, &blocks);
    EXPECT_EQ(blocks, (std::vector<uint32_t>{0, 2})) << "camera 1 delivered nothing";
    const std::vector<std::string> lines = ruvo::test::splitLines(data);
    ASSERT_EQ(lines.size(), 7u);
    EXPECT_EQ(lines[1].rfind("0.000000 ", 0), 0u) << "time from the earliest capture";
    EXPECT_EQ(lines[2], "");
    EXPECT_EQ(lines[3], "");
    EXPECT_EQ(lines[5].rfind("1.000000 10.000000 ", 0), 0u) << "seconds and milliseconds";
    EXPECT_EQ(gnuplotQuoted("it's"), "'it''s'");
    const std::string script = plotScript("/d/x.dat", "/d/x.png", {"camera 0 left", "camera 2 c"});
    EXPECT_NE(script.find("set output '/d/x.png'"), std::string::npos);
    EXPECT_NE(script.find("'/d/x.dat' index 1 using 1:4"), std::string::npos) << "luminance of the second block";
    EXPECT_NE(script.find("using 1:7 with lines lw 2 lc rgb 'blue' dt 2 title 'camera 2 c blue'"), std::string::npos);
    EXPECT_EQ(script.find("index 2"), std::string::npos);
}

TEST(ToolParts, ImageNamesAndLabelsSayCameraBufferTypeLevelAndSize) {
    FrameCopy copy;
    copy.cameraId = 1;
    copy.batchIndex = 5;
    copy.format = Frame::Y8;
    copy.outputType = Frame::GRADIENT_X;
    copy.outputLevel = Frame::HALF;
    copy.width = 336;
    copy.height = 190;
    EXPECT_EQ(imageFileName(copy), "cam1-buf5-gradient_x-half.png");
    EXPECT_EQ(tileLabel(copy, {1, "right", "sim:right"}),
              (std::vector<std::string>{"camera 1 right, buffer 5", "Gradient X", "HALF, 336x190"}));
    copy.format = Frame::HISTOGRAM8;
    copy.outputType = Frame::SKIN_HISTOGRAM;
    copy.outputLevel = Frame::NOT_APPLICABLE;
    EXPECT_EQ(tileLabel(copy, {1, "right", "sim:right"})[2], "NOT_APPLICABLE, 256 bins");
}

TEST(ToolParts, DiagnosticsAreWrittenOneRecordPerLineWhileAttached) {
    ruvo::test::ScratchDir scratch;
    const std::string name = "ToolTestChannel";
    {
        DiagnosticsLog log(scratch.path(), {name});
        std::shared_ptr<ruvo::util::Channel> channel = ruvo::util::Channel::attached(name);
        ASSERT_NE(channel, nullptr) << "the log listens";
        channel->send("{ \"a\": 1 }");
        channel->send("{ \"b\":\n2 }");
        EXPECT_EQ(log.records(0), 2u);
        EXPECT_EQ(log.files(), std::vector<std::string>{scratch / (name + ".jsonl")});
    }
    EXPECT_EQ(ruvo::util::Channel::attached(name), nullptr) << "detached at the end";
    EXPECT_EQ(ruvo::test::readText(scratch / (name + ".jsonl")), "{ \"a\": 1 }\n{ \"b\": 2 }\n");
    EXPECT_THROW(DiagnosticsLog(scratch / "missing-dir", {name}), ToolError);
    EXPECT_EQ(ruvo::util::Channel::attached(name), nullptr) << "a failed log attaches nothing";
}

}  // namespace

#else
#include <gtest/gtest.h>
TEST(ToolParts, NeedsTheTool) { GTEST_SKIP() << "ruvo-capture is not built (RUVO_BUILD_TOOLS=OFF)"; }
#endif
