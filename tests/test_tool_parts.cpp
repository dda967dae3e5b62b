// The parts of ruvo-capture. Bookkeeping: the command line, configuration layering and camera
// entries, error texts traced to their key, the recorder's rows and buffer hand-back, the status
// figures, the plot's data, and the diagnostics files. Images: colour conversion against the
// pipeline's forward transform, frame copies with padded and pixel-unit strides, the histogram
// chart, scaling into tiles, the contact sheet layout with its labels, and PNG files read back
// through libpng.
#ifdef RUVO_CAPTURE_TOOL

#include "BitmapFont.h"
#include "Configuration.h"
#include "ContactSheet.h"
#include "DiagnosticsLog.h"
#include "FrameCopy.h"
#include "ImageConvert.h"
#include "ImageExport.h"
#include "Options.h"
#include "Plot.h"
#include "PngWriter.h"
#include "Recorder.h"
#include "Stats.h"
#include "StatusReport.h"
#include "ToolError.h"
#include "support/tool_run.h"

#include <ruvo/util/Channel.h>

#include <Poco/Util/PropertyFileConfiguration.h>

#include <gtest/gtest.h>

#include <algorithm>
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
    const Options o =
        parse({"run", "--set", "a=1", "b.c=x=y", "--set=d=", "--frames=12", "--output", "o", "--config", "c.json"});
    // Split at the first '='. (The run tests give --output and --config as separate values.)
    EXPECT_EQ(o.sets, (std::vector<std::pair<std::string, std::string>>{{"a", "1"}, {"b.c", "x=y"}, {"d", ""}}));
    EXPECT_EQ(o.frames, 12u);
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
    // The info tests check entry numbers, names and paths from a file.
    EXPECT_EQ(cameras.size(), 2u);
    EXPECT_THROW(enabledCameras(*properties("devices[0].enabled=true\n")), ToolError);
    EXPECT_THROW(enabledCameras(*properties("devices[0].enabled=true\ndevices[0].path=\n")), ToolError);
    EXPECT_TRUE(enabledCameras(*properties("devices[0].path=sim:off\n")).empty()) << "enabled defaults to false";
}

// The run tests check the text for values that a key holds; other errors keep their own text.
TEST(ToolParts, ErrorsThatNoKeyHoldsKeepTheirText) {
    const auto config = properties("devices[0].path=sim:a\ndevices[1].path=sim:b\ndevices[1].ae.gainP=fast\n");
    const Poco::NotFoundException notFound("path");
    EXPECT_EQ(describeConfigurationError(notFound, *config), notFound.displayText());
    const Poco::SyntaxException elsewhere("Not a valid unsigned integer", "zzz");
    EXPECT_EQ(describeConfigurationError(elsewhere, *config), elsewhere.displayText());
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
    f->feedback.sequence = 9;
    f->feedback.droppedFrames = 2;
    f->feedback.errorBuffers = 1;
    const FeedbackSample s = sampleOf(*f, f->timestamp + std::chrono::milliseconds(5));
    // Gains are stored red, green, green, blue; latency 5 ms; then the driver's sequence and counts.
    EXPECT_EQ(csvRow(s), "1,7,3,4000000000,0.0199999996,2,1.5,1,0.75,0.25,5.000,9,2,1");
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

// The rates are computed: 15 frames in 0.5 s; 10 intervals in 1 s; the median and p99 of 11 latencies.
TEST(ToolParts, StatusAndSummaryFigures) {
    const CameraEntry camera{0, "left", "sim:left"};
    CameraStatus status;
    EXPECT_EQ(statusLine(camera, 0, status, 0.5), "camera 0 left: waiting for frames");
    status.hasSample = true;
    status.windowFrames = 15;
    status.last.exposureS = 0.0125;
    const std::string line = statusLine(camera, 0, status, 0.5);
    EXPECT_NE(line.find(" 30.0 fps"), std::string::npos) << line;
    EXPECT_NE(line.find("exposure 12.50 ms"), std::string::npos) << line;
    CameraTotals totals;
    totals.delivered = 11;
    totals.firstDeliveryS = 10.0;
    totals.lastDeliveryS = 11.0;
    totals.latenciesMs = {50, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1};  // nearest rank of unsorted values
    totals.hasSample = true;
    const std::string summary = summaryText({camera}, {totals});
    EXPECT_NE(summary.find("mean 10.0 fps, latency median 6.00 ms, p99 50.00 ms"), std::string::npos) << summary;
    EXPECT_EQ(percentile({}, 50), 0) << "no latencies yet";
    // A terminal gets the lines rewritten in place; a pipe gets plain lines.
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
    EXPECT_NE(script.find("index 1 "), std::string::npos) << "a plot per block";
    EXPECT_EQ(script.find("index 2"), std::string::npos);
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

// ---- images ----

// The pipeline's colour conversion at unit chroma gamma, r, g, b in 0..1, rounded to bytes.
void forwardYuv(float r, float g, float b, uint8_t* y, uint8_t* u, uint8_t* v) {
    const float cb = 2.0f * (-0.1687f * r - 0.3313f * g + 0.5f * b);
    const float cr = 2.0f * (0.5f * r - 0.4187f * g - 0.0813f * b);
    *y = clampToByte(255.0f * (0.299f * r + 0.587f * g + 0.114f * b));
    *u = clampToByte(255.0f * (0.5f * cb + 0.5f));
    *v = clampToByte(255.0f * (0.5f * cr + 0.5f));
}

FrameCopy packedCopy(Frame::Format format, uint32_t w, uint32_t h, std::vector<uint8_t> plane0) {
    FrameCopy copy;
    copy.format = format;
    copy.width = w;
    copy.height = h;
    copy.planes[0] = std::move(plane0);
    return copy;
}

Image solid(uint32_t w, uint32_t h, Rgb colour) {
    Image image(w, h, 3);
    image.fill(colour);
    return image;
}

TEST(ToolParts, YuvToRgbInvertsThePipelineConversion) {
    int worst = 0;
    for (int r = 0; r <= 255; r += 15) {
        for (int g = 0; g <= 255; g += 15) {
            for (int b = 0; b <= 255; b += 15) {
                uint8_t y, u, v;
                forwardYuv(r / 255.0f, g / 255.0f, b / 255.0f, &y, &u, &v);
                const Rgb back = yuvToRgb(y, u, v);
                worst = std::max({worst, std::abs(back.r - r), std::abs(back.g - g), std::abs(back.b - b)});
            }
        }
    }
    EXPECT_LE(worst, 2) << "only byte rounding separates the round trip";
    const Rgb gray = yuvToRgb(90, 128, 127);  // chroma centred on 127.5
    EXPECT_NEAR(gray.r, 90, 1);
    EXPECT_NEAR(gray.g, 90, 1);
    EXPECT_NEAR(gray.b, 90, 1);
    const Rgb clipped = yuvToRgb(250, 255, 255);
    EXPECT_EQ(clipped.r, 255);
    EXPECT_EQ(clipped.b, 255);
}

// The tool's YUV image (row pairs in blocks, float rounding, per-CPU clones) has yuvToRgb's bytes
// for all 2^24 (Y, U, V) in both chroma rows (V rising, then falling), chroma covering 2 x 2 luma
// samples; the odd last row and column take the last chroma samples.
TEST(ToolParts, YuvImageHasThePixelBytesForEveryYuvAndChromaBlock) {
    constexpr uint32_t kWidth = 513, kHeight = 5, kChroma = 256;
    FrameCopy copy = packedCopy(Frame::YUV420p, kWidth, kHeight, std::vector<uint8_t>(kWidth * kHeight));
    copy.planes[2].resize(2 * kChroma);
    for (uint32_t c = 0; c < 2 * kChroma; ++c) copy.planes[2][c] = static_cast<uint8_t>(c < kChroma ? c : ~c);
    for (uint32_t u = 0; u < 256; ++u) {
        copy.planes[1].assign(2 * kChroma, static_cast<uint8_t>(u));
        for (uint32_t k = 0; k < 64; ++k) {  // every luma value beside every V sample
            for (uint32_t i = 0; i < kWidth * kHeight; ++i) {
                copy.planes[0][i] =
                    static_cast<uint8_t>(4 * k + 2 * (i / kWidth % 2) + i % kWidth % 2 + i % kWidth / 2);
            }
            const Image image = toViewable(copy);
            for (uint32_t i = 0; i < kWidth * kHeight; ++i) {
                const size_t c = std::min(i / kWidth / 2, 1u) * kChroma + std::min(i % kWidth / 2, kChroma - 1);
                const Rgb want = yuvToRgb(copy.planes[0][i], copy.planes[1][c], copy.planes[2][c]);
                const uint8_t* got = &image.pixels[3 * i];
                ASSERT_TRUE(got[0] == want.r && got[1] == want.g && got[2] == want.b)
                    << "Y " << +copy.planes[0][i] << " U " << u << " V " << +copy.planes[2][c] << " at " << i;
            }
        }
    }
}

// Gray and RGB samples pass to the PNG unchanged (BGR reordered), read back through libpng.
TEST(ToolParts, GrayAndRgbFormatsReachThePngUnchanged) {
    ruvo::test::ScratchDir scratch;
    const struct {
        Frame::Format format;
        uint32_t width, channels;
        std::vector<uint8_t> in, out;
    } cases[] = {
        {Frame::Y8, 3, 1, {0, 50, 100, 150, 200, 250}, {0, 50, 100, 150, 200, 250}},
        {Frame::RGB24, 1, 3, {1, 2, 3, 4, 5, 6}, {1, 2, 3, 4, 5, 6}},
        {Frame::BGR24, 1, 3, {1, 2, 3, 4, 5, 6}, {3, 2, 1, 6, 5, 4}},
    };
    for (const auto& c : cases) {
        const std::string path = scratch / (std::to_string(c.format) + ".png");
        writePng(path, toViewable(packedCopy(c.format, c.width, 2, c.in)));
        const ruvo::test::PngInfo png = ruvo::test::readPng(path);
        ASSERT_TRUE(png.ok) << png.error;
        EXPECT_EQ(png.width, c.width);
        EXPECT_EQ(png.height, 2u);
        EXPECT_EQ(png.channels, c.channels);
        EXPECT_EQ(png.pixels, c.out) << c.format;
    }
    EXPECT_THROW(toViewable(packedCopy(Frame::YUYV, 2, 1, {0, 0, 0, 0})), ToolError);
    EXPECT_THROW(toViewable(packedCopy(Frame::SBGGR10, 2, 1, {0, 0, 0, 0})), ToolError);
    EXPECT_THROW(writePng(scratch / "no/such/dir.png", solid(1, 1, {})), ToolError);
    EXPECT_THROW(writePng(scratch / "empty.png", Image()), ToolError);
}

TEST(ToolParts, FrameCopiesFollowEachPlanesStride) {
    // Y8, 3 x 2 in rows of 5 bytes: the padding must not reach the copy.
    std::vector<uint8_t> y8 = {1, 2, 3, 99, 99, 4, 5, 6, 99, 99};
    Frame frame;
    frame.format = Frame::Y8;
    frame.width = 3;
    frame.height = 2;
    frame.planes[0] = {y8.data(), 3, 2, 5};
    EXPECT_EQ(copyFrame(frame).planes[0], (std::vector<uint8_t>{1, 2, 3, 4, 5, 6}));
    // RGB24 buffers give their stride in pixels.
    std::vector<uint8_t> rgb = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
    frame.format = Frame::RGB24;
    frame.width = 2;
    frame.planes[0] = {rgb.data(), 2, 2, 2};
    EXPECT_EQ(copyFrame(frame).planes[0], rgb);
    // YUV420p frames are copied into every colour PNG of the run test.
    // The histogram has no image size: 256 counters of 4 bytes.
    std::vector<int32_t> counters(256, 3);
    frame.format = Frame::HISTOGRAM8;
    frame.width = frame.height = 0;
    frame.planes[0] = {reinterpret_cast<uint8_t*>(counters.data()), 0, 0, 0};
    EXPECT_EQ(histogramCounts(copyFrame(frame))[255], 3);
    frame.planes[0].data = nullptr;
    EXPECT_THROW(copyFrame(frame), ToolError);
}

TEST(ToolParts, HistogramBarsRiseWithTheirCounts) {
    EXPECT_EQ(barHeight(0, 1000, 200), 0u);
    EXPECT_EQ(barHeight(1000, 1000, 200), 200u);
    EXPECT_GE(barHeight(1, 1000000, 200), 1u) << "a single count among a million stays visible";
    EXPECT_GT(barHeight(10, 1000, 200), barHeight(1, 1000, 200));
    Histogram counts{};
    counts[10] = 500;  // a single bin: one full-height bar two pixels wide
    const Image chart = histogramChart(counts);
    auto inkInColumn = [&](uint32_t x) {
        uint32_t ink = 0;
        for (uint32_t y = 0; y < chart.height; ++y) ink += chart.at(x, y).r < 128 ? 1 : 0;
        return ink;
    };
    const uint32_t left = (chart.width - 512) / 2;  // the plot is centred between equal margins
    EXPECT_GE(inkInColumn(left + 20), 200u);
    EXPECT_GE(inkInColumn(left + 21), 200u);
    EXPECT_LE(inkInColumn(left + 22), 1u) << "only the axis below the empty bin";
    EXPECT_LE(inkInColumn(left + 18), 1u);
}

// A 4 x 2 image, left half 0 and right half 200.
TEST(ToolParts, FittingAveragesWhenReducingAndRepeatsWhenEnlarging) {
    Image halves(4, 2, 1);
    for (uint32_t i = 0; i < 8; ++i) halves.pixels[i] = i % 4 < 2 ? 0 : 200;
    const Image reduced = fitInto(halves, 2, 2);
    ASSERT_EQ(reduced.width, 2u);
    ASSERT_EQ(reduced.height, 1u) << "the aspect is kept";
    EXPECT_EQ(reduced.at(0, 0).g, 0);
    EXPECT_EQ(reduced.at(1, 0).g, 200);
    EXPECT_EQ(fitInto(halves, 1, 1).at(0, 0).r, 100);
    Image dots(2, 1, 3);
    dots.set(1, 0, {10, 20, 30});
    const Image enlarged = fitInto(dots, 7, 5);
    ASSERT_EQ(enlarged.width, 6u) << "a whole factor of 3";
    ASSERT_EQ(enlarged.height, 3u);
    EXPECT_EQ(enlarged.at(2, 2).r, 0);
    EXPECT_EQ(enlarged.at(3, 0).g, 20);
}

TEST(ToolParts, ContactSheetStartsEveryCameraOnANewRow) {
    SheetLayout layout;
    layout.columns = 2;
    layout.tileWidth = 20;
    layout.tileHeight = 10;
    layout.labelLines = 1;
    layout.textScale = 1;
    layout.padding = 4;
    const Rgb red{200, 0, 0}, green{0, 200, 0}, blue{0, 0, 200}, white{255, 255, 255};
    const std::vector<SheetTile> tiles = {{0, solid(20, 10, red), {"A"}},
                                          {0, solid(20, 10, green), {}},
                                          {0, solid(20, 10, blue), {}},
                                          {1, solid(20, 10, white), {}}};
    const Image sheet = makeContactSheet(tiles, layout);
    const uint32_t cellW = 24, cellH = 10 + kLineHeight + 4;
    EXPECT_EQ(sheet.width, 2 * cellW + 4);
    EXPECT_EQ(sheet.height, 3 * cellH + 4) << "camera 0 takes two rows, camera 1 a third";
    auto centre = [&](uint32_t column, uint32_t row) { return sheet.at(4 + column * cellW + 10, 4 + row * cellH + 5); };
    EXPECT_EQ(centre(0, 0).r, 200);
    EXPECT_EQ(centre(1, 0).g, 200);
    EXPECT_EQ(centre(0, 1).b, 200);
    EXPECT_EQ(centre(1, 1).r, centre(1, 1).b) << "nothing beside the third tile";
    EXPECT_EQ(centre(0, 2).g, 255);
    bool labelInk = false;  // the label "A" under the first tile
    for (uint32_t y = 4 + 10; y < 4 + 10 + kLineHeight; ++y) {
        for (uint32_t x = 4; x < 4 + kGlyphWidth; ++x) labelInk |= sheet.at(x, y).g > 200;
    }
    EXPECT_TRUE(labelInk);
    EXPECT_THROW(makeContactSheet({}, layout), ToolError);
    // Characters without a glyph in a label (a camera's name may have any) draw as '?'.
    EXPECT_EQ(&glyphRows('\x01'), &glyphRows('?'));
    EXPECT_EQ(&glyphRows('\x7f'), &glyphRows('?'));
    EXPECT_EQ(&glyphRows(static_cast<char>(0xc3)), &glyphRows('?'));
}

}  // namespace

#else
#include <gtest/gtest.h>
TEST(ToolParts, NeedsTheTool) { GTEST_SKIP() << "ruvo-capture is not built (RUVO_BUILD_TOOLS=OFF)"; }
#endif
