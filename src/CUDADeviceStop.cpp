// The bounded stop: the threads end, capture goes off, and each camera waits for its clients
// only until a shared deadline; what is still held is reported rather than waited for.
#include <ruvo/capture/CUDADevice.h>

#include "CUDADeviceImpl.h"

#include <Poco/Logger.h>

namespace ruvo {
namespace capture {

std::string StopReport::describe() const {
    std::string text;
    for (const HeldCamera& camera : held) {
        if (!text.empty()) text += "; ";
        text += "camera " + std::to_string(camera.cameraId) + " (" + camera.name + "):";
        for (size_t b = 0; b < camera.buckets.size(); ++b) {
            const HeldBucket& bucket = camera.buckets[b];
            text += (b == 0 ? " bucket " : ", bucket ") + std::to_string(bucket.bucket);
            text += bucket.outputs.size() == 1 ? " output" : " outputs";
            for (uint32_t output : bucket.outputs) text += " " + std::to_string(output);
        }
    }
    return text.empty() ? "nothing held" : text;
}

StopReport::HeldCamera CUDADeviceImpl::heldBy(uint32_t position) {
    CUDACamera& camera = *_cameras.at(position);
    StopReport::HeldCamera held{position, camera.getName(), {}};
    for (auto& [bucket, outputs] : camera.heldBuckets()) held.buckets.push_back({bucket, std::move(outputs)});
    return held;
}

StopReport CUDADeviceImpl::lentOut() {
    Poco::Mutex::ScopedLock lock(_mutex);
    StopReport report;
    for (uint32_t c = 0; c < _cameras.size(); ++c) {
        StopReport::HeldCamera held = heldBy(c);
        if (!held.buckets.empty()) report.held.push_back(std::move(held));
    }
    return report;
}

StopReport CUDADeviceImpl::stopFor(std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    Poco::Mutex::ScopedLock lock(_mutex);
    if (_threadsStarted) stopThreads();  // a repeated bounded stop finds them joined
    StopReport report;
    std::string failure;
    for (uint32_t c = 0; c < _cameras.size(); ++c) {
        CUDACamera& camera = *_cameras[c];
        bool stopped = false;
        try {
            stopped = camera.stopBy(deadline);
        } catch (const CaptureDeviceException& e) {
            // As in stop(): a camera that fails to stop is torn down once its clients let go.
            Poco::Logger::get("Capture.CUDADevice").error("Stopping camera " + camera.getName() + ": " + e.what());
            if (failure.empty()) failure = camera.getName() + ": " + e.what();
            stopped = camera.waitForBuffersToBeReturned(deadline);
            if (stopped) camera.abandon(false);
        }
        if (!stopped) report.held.push_back(heldBy(c));
    }
    if (!failure.empty() && report.complete()) throw CaptureDeviceException(failure);
    return report;
}

}  // namespace capture
}  // namespace ruvo
