// The registry of live simulated sensors by path, and the DeviceIo that forwards to one.
#include "sim/SimDeviceIo.h"

#include "sim/SimulatedSensor.h"

#include <Poco/Util/MapConfiguration.h>

#include <map>
#include <mutex>

namespace ruvo {
namespace capture {
namespace sim {
namespace {

class SimDeviceIo : public DeviceIo {
public:
    explicit SimDeviceIo(std::shared_ptr<SimulatedSensor> sensor) : _sensor(std::move(sensor)) {}

    int stat(const std::string& path, struct ::stat* status) override { return _sensor->stat(path, status); }
    int open(const std::string& path, int flags) override { return _sensor->open(path, flags); }
    int close(int fd) override { return _sensor->close(fd); }
    int ioctl(int fd, unsigned long request, void* argument) override { return _sensor->ioctl(fd, request, argument); }
    int select(int fd, struct ::timeval* timeout) override { return _sensor->select(fd, timeout); }
    void* mmap(int fd, size_t length, off_t offset) override { return _sensor->mmap(fd, length, offset); }
    int munmap(void* address, size_t length) override { return _sensor->munmap(address, length); }

private:
    std::shared_ptr<SimulatedSensor> _sensor;
};

// Sensors are held weakly: a sensor lives as long as an io on it does.
struct Registry {
    std::mutex mutex;
    std::map<std::string, std::weak_ptr<SimulatedSensor>> sensors;
};

Registry& registry() {
    static Registry instance;
    return instance;
}

}  // namespace

std::shared_ptr<SimulatedSensor> findSensor(const std::string& path) {
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    auto it = r.sensors.find(path);
    return it == r.sensors.end() ? nullptr : it->second.lock();
}

std::shared_ptr<DeviceIo> makeSimDeviceIo(const std::string& path,
                                          Poco::AutoPtr<Poco::Util::AbstractConfiguration> cameraConfig) {
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    auto found = r.sensors.find(path);
    std::shared_ptr<SimulatedSensor> sensor = found == r.sensors.end() ? nullptr : found->second.lock();
    if (!sensor) {
        if (!cameraConfig) cameraConfig = new Poco::Util::MapConfiguration;
        sensor = std::make_shared<SimulatedSensor>(path, readSimConfig(*cameraConfig));
        r.sensors[path] = sensor;
    }
    // Forget entries of sensors that have gone, so the map does not grow with every path used.
    for (auto it = r.sensors.begin(); it != r.sensors.end();)
        it = it->second.expired() ? r.sensors.erase(it) : std::next(it);
    return std::make_shared<SimDeviceIo>(std::move(sensor));
}

}  // namespace sim
}  // namespace capture
}  // namespace ruvo
