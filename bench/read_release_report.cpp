// Read-release loop of one camera against the free-running simulated sensor: frames per second
// and time per read() (dequeue, pipeline, feedback, 3A) for an output configuration, size and
// memory mode (user pointers into managed memory, or the driver's buffers mapped and read in
// place); the difference between a row pair is what memory mapping costs per frame.
//
//   read_release_report [frames=200] then rows for YUV_ONLY and the heaviest configurations
#include "CUDACamera.h"

#include <Poco/Util/MapConfiguration.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>

using namespace ruvo::capture;

namespace {

void run(int configuration, uint32_t width, uint32_t height, const char* memory, int frames) {
    Poco::AutoPtr<Poco::Util::MapConfiguration> config(new Poco::Util::MapConfiguration());
    const std::string path =
        "sim:bench-read-" + std::to_string(configuration) + "-" + std::to_string(width) + "-" + memory;
    config->setString("path", path);
    config->setString("sim.clock", "free");
    config->setString("width", std::to_string(width));
    config->setString("height", std::to_string(height));
    config->setString("outputBufferFormats", std::to_string(configuration));
    config->setString("memory", memory);
    CUDACamera camera(config, 0);
    camera.start();
    double readSeconds = 0;
    int delivered = 0;
    const auto t0 = std::chrono::steady_clock::now();
    while (delivered < frames) {
        const auto r0 = std::chrono::steady_clock::now();
        CUDACamera::Bucket* bucket = camera.read();
        readSeconds += std::chrono::duration<double>(std::chrono::steady_clock::now() - r0).count();
        if (bucket == nullptr) continue;
        for (unsigned k = 0; k < bucket->buffers.size(); ++k) camera.release(bucket->index, k);
        ++delivered;
    }
    const double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    camera.stop();
    std::printf("%-28s %4ux%-4u %-7s %8.1f frames/s %8.3f ms per read()\n",
                configuration == 0   ? "YUV_ONLY"
                : configuration == 2 ? "YUV_2_4_SKIN_HISTOGRAM"
                                     : "YUV_2_4_GRADIENT_2_4",
                width, height, memory, delivered / elapsed, 1000.0 * readSeconds / delivered);
}

}  // namespace

int main(int argc, char** argv) {
    const int frames = argc > 1 ? std::atoi(argv[1]) : 200;
    for (auto size : {std::make_pair(1280u, 720u), std::make_pair(2688u, 1520u)}) {
        for (int configuration : {0, 2, 7})
            for (const char* memory : {"userptr", "mmap"}) run(configuration, size.first, size.second, memory, frames);
    }
    return 0;
}
