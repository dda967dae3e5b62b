// A small V4L2 client for tests of the simulated sensor: it drives a "sim:" device only through
// the public DeviceIo calls, as a camera does, and owns the user-pointer buffers it queues or
// the mappings of the driver's buffers.
#pragma once

#include "SensorControls.h"
#include "io/DeviceIo.h"
#include "sim/SimulatedSensor.h"

#include <Poco/AutoPtr.h>
#include <Poco/Util/MapConfiguration.h>

#include <linux/videodev2.h>

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace ruvo {
namespace capture {
namespace testing {

using SimKeys = std::map<std::string, std::string>;

// A camera entry holding `keys` (e.g. {"sim.clock", "stepped"}).
Poco::AutoPtr<Poco::Util::MapConfiguration> cameraEntry(const SimKeys& keys);

// A "sim:" path not used before in this process, so that tests never share a sensor.
std::string uniqueSimPath(const std::string& stem);

// The V4L2 records of a capture queue with user-pointer memory.
v4l2_format captureFormat(uint32_t width, uint32_t height, uint32_t pixelFormat = V4L2_PIX_FMT_SBGGR10);
v4l2_requestbuffers userptrRequest(uint32_t count);
v4l2_buffer userptrBuffer(uint32_t index, const void* memory = nullptr, uint32_t length = 0);

class SimClient {
public:
    // Makes the io for a fresh "sim:" path (stepped clock unless `keys` says otherwise) and
    // opens it non-blocking.
    explicit SimClient(SimKeys keys, const std::string& stem = "client");
    SimClient() : SimClient(SimKeys{}) {}
    SimClient(std::initializer_list<SimKeys::value_type> keys) : SimClient(SimKeys(keys)) {}
    ~SimClient();
    SimClient(const SimClient&) = delete;
    SimClient& operator=(const SimClient&) = delete;

    DeviceIo& io() { return *_io; }
    int fd() const { return _fd; }
    const std::string& path() const { return _path; }
    sim::SimulatedSensor& sensor() { return *_sensor; }

    // The request's result: 0, or the errno it failed with.
    int call(unsigned long request, void* argument);

    // The format the driver answered; throws when S_FMT fails.
    v4l2_pix_format setFormat(uint32_t width, uint32_t height);
    // REQBUFS for `count` user-pointer buffers, each given memory of sizeimage bytes plus a
    // guard of `guardSamples` samples filled with kGuard. Throws on failure.
    void requestBuffers(uint32_t count, size_t guardSamples = 0);
    // REQBUFS for `count` memory-mapped buffers, each mapped through the io. Throws on failure.
    void requestMapped(uint32_t count);
    int queue(uint32_t index);  // 0 or errno
    void queueAll();
    void streamOn() { stream(VIDIOC_STREAMON); }
    void streamOff() { stream(VIDIOC_STREAMOFF); }
    // The next filled buffer, or nothing when DQBUF answers EAGAIN; throws on other failures.
    std::optional<v4l2_buffer> dequeue();
    // Steps the sensor once and dequeues the frame it filled; throws when there is none.
    v4l2_buffer stepAndDequeue();
    // Format, buffers, queue all, stream on.
    void start(uint32_t width, uint32_t height, uint32_t count = 2);

    int32_t get(uint32_t id);
    int32_t set(uint32_t id, int32_t value);  // returns the value the driver stored

    uint16_t* samples(uint32_t index) {
        return _mapped.empty() ? _memory.at(index).data() : static_cast<uint16_t*>(_mapped.at(index).first);
    }
    size_t sampleCount() const { return _format.width * _format.height; }

    static constexpr uint16_t kGuard = 0xA5A5;

private:
    void stream(unsigned long request);

    std::string _path;
    std::shared_ptr<DeviceIo> _io;
    std::shared_ptr<sim::SimulatedSensor> _sensor;
    int _fd = -1;
    v4l2_pix_format _format{};
    std::vector<std::vector<uint16_t>> _memory;
    std::vector<std::pair<void*, size_t>> _mapped;  // address and length of each mapped buffer
};

// Mean 10-bit value (stored sample >> shift) of the sites of one Bayer channel (0 red, 1 green,
// 2 blue; BGGR layout) inside [x0, x1) x [y0, y1) of a width-wide frame, by a direct loop.
double channelMean(const uint16_t* frame, int width, int channel, int x0, int y0, int x1, int y1, int shift = 4);

}  // namespace testing
}  // namespace capture
}  // namespace ruvo
