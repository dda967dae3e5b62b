// DeviceIo: the choice between kernel and simulated sensor by path, the registry of simulated
// sensors, the sim keys they refuse, and the kernel select's bounds.
#include "io/DeviceIo.h"
#include "sim/SimulatedSensor.h"
#include "support/sim_client.h"

#include <ruvo/capture/CaptureDeviceException.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/select.h>
#include <unistd.h>

namespace ruvo::capture {
namespace {

TEST(SystemDeviceIo, SelectWaitsForReadabilityWithinItsBounds) {
    DeviceIo& io = *systemDeviceIo();
    int pipeFds[2];
    ASSERT_EQ(::pipe(pipeFds), 0);
    timeval zero{0, 0};
    EXPECT_EQ(io.select(pipeFds[0], &zero), 0);
    ASSERT_EQ(::write(pipeFds[1], "x", 1), 1);
    timeval wait{5, 0};
    EXPECT_EQ(io.select(pipeFds[0], &wait), 1);
    ::close(pipeFds[0]);
    ::close(pipeFds[1]);
    EXPECT_EQ(io.select(FD_SETSIZE, &zero), -1);
    EXPECT_EQ(errno, EINVAL) << "beyond what select can watch";
    EXPECT_EQ(io.select(-1, &zero), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST(MakeDeviceIo, ChoosesTheSimulatorForSimPathsAndStartsNothing) {
    EXPECT_EQ(makeDeviceIo("/dev/video0", nullptr), systemDeviceIo());
    EXPECT_EQ(makeDeviceIo("simulated", nullptr), systemDeviceIo()) << "only the sim: prefix counts";
    const std::string path = testing::uniqueSimPath("choose");
    std::shared_ptr<DeviceIo> io = makeDeviceIo(path, testing::cameraEntry({{"sim.clock", "realtime"}}));
    ASSERT_NE(io, systemDeviceIo());
    struct ::stat status {};
    ASSERT_EQ(io->stat(path, &status), 0);
    EXPECT_TRUE(S_ISCHR(status.st_mode));
    EXPECT_EQ(io->stat(path + "x", &status), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(io->open("/dev/null", O_RDWR), -1) << "a sim io serves its own path only";
    std::shared_ptr<sim::SimulatedSensor> sensor = sim::findSensor(path);
    ASSERT_NE(sensor, nullptr);
    EXPECT_EQ(sensor->openCount(), 0u);
    EXPECT_FALSE(sensor->streaming());
    EXPECT_EQ(sensor->framesProduced() + sensor->framesDropped(), 0u);
}

TEST(MakeDeviceIo, OnePathOneSensorWhileAnIoLives) {
    const std::string path = testing::uniqueSimPath("shared");
    std::shared_ptr<DeviceIo> first = makeDeviceIo(path, testing::cameraEntry({{"sim.fps", "60"}}));
    // The second configuration is ignored: the live sensor keeps its own.
    std::shared_ptr<DeviceIo> second = makeDeviceIo(path, testing::cameraEntry({{"sim.fps", "10"}}));
    const int a = first->open(path, O_RDWR | O_NONBLOCK);
    const int b = second->open(path, O_RDWR | O_NONBLOCK);
    v4l2_control set{sensor::CID_GAIN, 300};
    ASSERT_EQ(first->ioctl(a, VIDIOC_S_CTRL, &set), 0);
    v4l2_control get{sensor::CID_GAIN, 0};
    ASSERT_EQ(second->ioctl(b, VIDIOC_G_CTRL, &get), 0);
    EXPECT_EQ(get.value, 300);
    EXPECT_FLOAT_EQ(sim::findSensor(path)->config().fps, 60.0f);
    first->close(a);
    second->close(b);
    first.reset();
    EXPECT_NE(sim::findSensor(path), nullptr);
    second.reset();
    EXPECT_EQ(sim::findSensor(path), nullptr) << "the registry holds sensors weakly";
    std::shared_ptr<DeviceIo> fresh = makeDeviceIo(path, testing::cameraEntry({{"sim.fps", "10"}}));
    EXPECT_FLOAT_EQ(sim::findSensor(path)->config().fps, 10.0f);
}

TEST(MakeDeviceIo, RejectsSimKeysItCannotUse) {
    for (const std::string entry : {"sim.clock=fast", "sim.fps=0", "sim.samples=msb16", "sim.level=1.5",
                                    "sim.noise=maybe", "sim.scene=stripes", "sim.scene=", "sim.scene=image.jpg",
                                    "sim.script=10:brightness=2", "sim.script=x:illuminance=2", "sim.pedestal=2000"}) {
        const size_t equals = entry.find('=');
        const std::string path = testing::uniqueSimPath("bad");
        EXPECT_THROW(makeDeviceIo(path, testing::cameraEntry({{entry.substr(0, equals), entry.substr(equals + 1)}})),
                     CaptureDeviceException)
            << entry;
        EXPECT_EQ(sim::findSensor(path), nullptr);
    }
}

}  // namespace
}  // namespace ruvo::capture
