// The capture device that applications create: it brings up CUDA, builds one camera per
// enabled "devices[i]" entry of its configuration, runs a reader thread per camera and one
// delivery thread, and hands batches of processed frames to the registered callback.
#pragma once

#include <ruvo/capture/CaptureDevice.h>

#include <Poco/Logger.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace ruvo {
namespace capture {

class CUDADeviceImpl;

// What a bounded stop left behind: each camera whose clients still hold frames, with the buckets
// they hold and, per bucket, the output buffers not yet given back.
struct StopReport {
    struct HeldBucket {
        uint32_t bucket = 0;
        std::vector<uint32_t> outputs;  // batchIndex of every frame of the bucket still held
    };
    struct HeldCamera {
        uint32_t cameraId = 0;  // position among the enabled cameras
        std::string name;
        std::vector<HeldBucket> buckets;
    };
    std::vector<HeldCamera> held;

    // True when nothing is held: the device is stopped and its cameras closed.
    bool complete() const { return held.empty(); }
    // One line naming every held camera, bucket and output, e.g.
    // "camera 0 (cam0): bucket 2 outputs 0 1; bucket 3 output 1".
    std::string describe() const;
};

class CUDADevice : public CaptureDevice {
public:
    // Display text of each output configuration, by CUDAOutputConfiguration value.
    static const std::map<int, std::string> outputConfigDescriptions;

    explicit CUDADevice(Poco::AutoPtr<Poco::Util::AbstractConfiguration> config);
    ~CUDADevice() override;
    CUDADevice(const CUDADevice&) = delete;
    CUDADevice& operator=(const CUDADevice&) = delete;

    // Starts every camera, then the reader threads, then the delivery thread.
    void start() override;
    // Stops the threads, then every camera; returns once clients have given back every frame.
    void stop() override;
    // Stops like stop() but waits at most `timeout` for clients to give back their frames. On an
    // incomplete report the threads are stopped and capture is off while the held buckets keep
    // their memory; a later stopFor() or stop() finishes once they are back (before any start()).
    // Calling it on a stopped device returns a complete report.
    StopReport stopFor(std::chrono::milliseconds timeout);
    // The buckets lent out now, per camera: held by clients, and while running also those being
    // read or queued for delivery.
    StopReport lentOut();
    bool isRunning() override;
    // Replaces camera `cameraId`'s controls; a refused change leaves the previous controls in
    // place and throws CUDADeviceException with the camera's message.
    void setControls(uint32_t cameraId, const Controls& controls) override;
    // Applies a named preset ("default", "barcode", "oru"); false for an unknown name.
    bool setNamedControls(uint32_t cameraId, const std::string& name) override;
    Controls getControls(uint32_t cameraId) override;
    uint32_t numDevices() override;
    Capabilities getCapabilities(uint32_t cameraId) override;

private:
    Poco::Logger& _logger;
    CUDADeviceImpl* _impl;
};

}  // namespace capture
}  // namespace ruvo
