// Minimal client: builds a capture device from a configuration file (or one simulated camera),
// prints one line per delivered batch for a few seconds, then stops.
#include <ruvo/capture/CUDADevice.h>

#include <Poco/Util/MapConfiguration.h>
#include <Poco/Util/PropertyFileConfiguration.h>

#include <atomic>
#include <chrono>
#include <iostream>
#include <thread>

int main(int argc, char** argv) {
    Poco::AutoPtr<Poco::Util::AbstractConfiguration> config;
    if (argc > 1 && argv[1][0] != '\0') {
        config = new Poco::Util::PropertyFileConfiguration(argv[1]);
    } else {
        auto* map = new Poco::Util::MapConfiguration();
        map->setString("devices[0].enabled", "true");
        map->setString("devices[0].path", "sim:example");
        map->setString("devices[0].sim.clock", "free");
        config = map;
    }
    const int seconds = argc > 2 ? std::atoi(argv[2]) : 2;
    try {
        ruvo::capture::CUDADevice device(config);
        std::atomic<int> batches{0};
        device.setCallback([&](const std::vector<std::shared_ptr<ruvo::capture::Frame>>& batch) {
            if (batches++ % 10 != 0) return;
            for (const auto& frame : batch) {
                std::cout << "batch " << frame->batchId << " camera " << frame->cameraId << " frame " << frame->frameId
                          << " " << ruvo::capture::OutputTypeNames.at(frame->outputTypeId) << " " << frame->width << "x"
                          << frame->height << " gain " << frame->feedback.autoExposureGain << "\n";
            }
        });
        device.start();
        std::this_thread::sleep_for(std::chrono::seconds(seconds));
        device.stop();
        std::cout << batches.load() << " batches from " << device.numDevices() << " camera(s)" << std::endl;
        return batches.load() > 0 ? 0 : 1;
    } catch (const std::exception& e) {
        std::cerr << "minimal_client: " << e.what() << std::endl;
        return 1;
    }
}
