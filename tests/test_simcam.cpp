// Unmodified V4L2 programs against a simulated camera through the preload library: v4l2-ctl
// streams by memory mapping, and the frames it writes equal the simulator's own rendering of the
// same frames, made in process by a twin sensor; the kernel's conformance tool finds every
// request, controls and control events, buffers and streaming (user pointers and memory mapping,
// with select and with epoll) included, as a real driver answers them.
#include "support/sim_client.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace ruvo::capture {
namespace {

constexpr const char* kV4l2Ctl = "/usr/bin/v4l2-ctl";
constexpr const char* kCompliance = "/usr/bin/v4l2-compliance";

// Runs `command` through the shell; its exit status and what it printed.
[[maybe_unused]] std::pair<int, std::string> run(const std::string& command) {
    std::string output;
    FILE* pipe = popen((command + " 2>&1").c_str(), "r");
    if (!pipe) return {-1, "popen failed"};
    char chunk[512];
    while (size_t n = std::fread(chunk, 1, sizeof chunk, pipe)) output.append(chunk, n);
    return {pclose(pipe), output};
}

TEST(SimCam, V4l2CtlCapturesTheFramesTheSimulatorRenders) {
#ifndef RUVO_SIMCAM_LIBRARY
    GTEST_SKIP() << "the preload library is not built in sanitizer builds";
#else
    if (access(kV4l2Ctl, X_OK) != 0) GTEST_SKIP() << "v4l2-ctl is absent: install v4l-utils (scripts/install-deps.sh)";
    const std::string dir = ::testing::TempDir();
    const std::string config = dir + "ruvo-simcam-ctl.properties";
    const std::string node = "/dev/ruvo-simcam-test0";
    const std::string frames = dir + "ruvo-simcam-ctl.raw";
    std::ofstream(config) << "node.0.path = " << node << "\nnode.0.sim.clock = free\n"
                          << "node.0.sim.noise = true\nnode.0.sim.seed = 7\n";
    const auto [status, output] =
        run("RUVO_SIMCAM_CONFIG=" + config + " LD_PRELOAD=" + RUVO_SIMCAM_LIBRARY + " " + kV4l2Ctl + " -d " + node +
            " --set-fmt-video=width=672,height=380 --stream-mmap --stream-count=30 --stream-to=" + frames);
    ASSERT_EQ(status, 0) << output;
    std::ifstream file(frames, std::ios::binary);
    const std::vector<char> captured((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    const size_t frameBytes = 672 * 380 * 2;
    ASSERT_EQ(captured.size(), 30 * frameBytes) << output;
    // Noise makes every frame different, so a frame out of place or repeated does not match.
    testing::SimClient twin({{"sim.noise", "true"}, {"sim.seed", "7"}});
    twin.start(672, 380);
    for (size_t i = 0; i < 30; ++i) {
        const v4l2_buffer b = twin.stepAndDequeue();
        ASSERT_EQ(std::memcmp(captured.data() + i * frameBytes, twin.samples(b.index), frameBytes), 0) << "frame " << i;
        ASSERT_EQ(twin.queue(b.index), 0);
    }
    std::remove(frames.c_str());
    std::remove(config.c_str());
#endif
}

// The conformance tool's failing tests, by section ("Buffer ioctls (Input 0)": "VIDIOC_REQBUFS...").
[[maybe_unused]] std::set<std::string> failingTests(const std::string& output) {
    std::set<std::string> failing;
    std::istringstream lines(output);
    std::string line, section;
    while (std::getline(lines, line)) {
        if (!line.empty() && line[0] != '\t' && line.back() == ':') section = line;
        const size_t test = line.find("\ttest ");
        if (test == std::string::npos || line.find(": FAIL") == std::string::npos) continue;
        failing.insert(section + " " + line.substr(test + 6));
    }
    return failing;
}

// v4l2-compliance's options and the sensor's control set.
class SimCamCompliance : public ::testing::TestWithParam<std::pair<std::string, std::string>> {};

// Without and with streaming (-s: memory mapping and user pointers, each without polling, with
// select and with epoll), with the default and the generic control set (64-bit pixel rate,
// three control classes, flips that change the format), and the generic set with absolute
// exposure (a fourth class) and a linear gain. Control events are found by select's
// exceptfds through the preload library.
TEST_P(SimCamCompliance, EveryTestPasses) {
#ifndef RUVO_SIMCAM_LIBRARY
    GTEST_SKIP() << "the preload library is not built in sanitizer builds";
#else
    if (access(kCompliance, X_OK) != 0)
        GTEST_SKIP() << "v4l2-compliance is absent: install v4l-utils (scripts/install-deps.sh)";
    // One file per process: ctest runs the cases side by side.
    const std::string config =
        ::testing::TempDir() + "ruvo-simcam-compliance-" + std::to_string(getpid()) + ".properties";
    const std::string node = "/dev/ruvo-simcam-compliance0";
    std::ofstream file(config);
    file << "node.0.path = " << node << "\nnode.0.sim.clock = free\n";
    std::istringstream keys(GetParam().second);
    for (std::string key; keys >> key;) file << "node.0.sim." << key << "\n";
    file.close();
    const auto [status, output] = run("RUVO_SIMCAM_CONFIG=" + config + " LD_PRELOAD=" + RUVO_SIMCAM_LIBRARY + " " +
                                      kCompliance + " -d " + node + " " + GetParam().first);
    EXPECT_EQ(status, 0) << output;
    EXPECT_EQ(failingTests(output), std::set<std::string>{}) << output;
    const size_t total = output.find("Total for ruvo-sim device " + node);
    ASSERT_NE(total, std::string::npos) << output;
    EXPECT_NE(output.find(", Failed: 0,", total), std::string::npos) << output;
    std::remove(config.c_str());
#endif
}

INSTANTIATE_TEST_SUITE_P(WithoutAndWithStreaming, SimCamCompliance,
                         ::testing::Values(std::pair{"", "controls=default"}, std::pair{"-s 20", "controls=default"},
                                           std::pair{"", "controls=generic"}, std::pair{"-s 20", "controls=generic"},
                                           std::pair{"",
                                                     "controls=generic exposureControl=absolute gainControl=gain"}));

}  // namespace
}  // namespace ruvo::capture
