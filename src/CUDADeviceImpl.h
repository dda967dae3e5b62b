// The working part of CUDADevice: CUDA start-up, the cameras built from the configuration's
// device list, their reader tasks (ProduceTask) and the one delivery task (ConsumeTask).
#pragma once

#include "CUDACamera.h"

#include <ruvo/capture/CUDADevice.h>
#include <ruvo/capture/Frame.h>
#include <ruvo/util/Worker.h>

#include <Poco/Event.h>
#include <Poco/Mutex.h>
#include <Poco/Thread.h>

#include <chrono>
#include <deque>
#include <memory>
#include <queue>
#include <shared_mutex>
#include <string>
#include <vector>

namespace ruvo {
namespace capture {

class CUDADeviceImpl {
public:
    // The CUDA device every camera runs on, and making it the calling thread's current device.
    static constexpr int kCudaDevice = 0;
    static void selectCudaDevice(const std::string& thread);

    // Reads its camera over and over and queues every bucket it gets.
    class ProduceTask : public ruvo::util::Worker {
    public:
        ProduceTask(const std::string& name, CUDACamera* camera, Poco::Event& event);
        // Takes every queued bucket, returns all but the newest whole to the camera, and gives
        // the newest (null when the queue was empty).
        CUDACamera::Bucket* takeNewest();
        size_t queued();

    protected:
        void onStart() override;
        void work() override;
        void onExit() override;

    private:
        CUDACamera* _camera;
        std::queue<CUDACamera::Bucket*, std::deque<CUDACamera::Bucket*>> _queue;
        Poco::Mutex _mutex;
        Poco::Event& _event;
    };

    // Delivers the newest bucket of every camera as one batch of frames.
    class ConsumeTask : public ruvo::util::Worker {
    public:
        // The way back from a frame to its camera. Frames share it, so a frame dropped after its
        // device is gone finds the camera pointer cleared instead of freed memory.
        struct ReturnPath {
            std::shared_mutex mutex;  // shared by returning frames, exclusive to detach
            CUDACamera* camera = nullptr;
        };

        // Returns a frame's output buffer to its camera when the last owner lets go.
        struct Deleter {
            Deleter(std::shared_ptr<ReturnPath> path, unsigned bucket) : _path(std::move(path)), _bucket(bucket) {}
            void operator()(Frame* frame) const;
            std::shared_ptr<ReturnPath> _path;
            unsigned _bucket;
        };

        ConsumeTask(const std::string& name, std::vector<CUDACamera*> cameras, OnNewDataCallback onNewData,
                    Poco::Mutex& mutexControls, Poco::Event& event, std::vector<ProduceTask*> produceTasks);

        // Cuts every frame's way back to its camera; called before the cameras are destroyed.
        void detachCameras();

        uint32_t frameId = 0;
        uint32_t batchId = 0;

    protected:
        void work() override;

    private:
        void appendFrames(uint32_t cameraPosition, CUDACamera::Bucket* bucket);

        std::vector<CUDACamera*> _cameras;
        std::vector<std::shared_ptr<ReturnPath>> _returnPaths;  // one per camera
        OnNewDataCallback _onNewData;
        Poco::Mutex& _mutexControls;
        Poco::Event& _event;
        std::vector<ProduceTask*> _produceTasks;
        std::vector<std::shared_ptr<Frame>> _batch;  // reused: keeps its capacity between cycles
        Controls _controlsCopy;                      // reused: assignment keeps its capacity
    };

    CUDADeviceImpl(Poco::AutoPtr<Poco::Util::AbstractConfiguration> config, OnNewDataCallback onNewData);
    virtual ~CUDADeviceImpl();
    CUDADeviceImpl(const CUDADeviceImpl&) = delete;
    CUDADeviceImpl& operator=(const CUDADeviceImpl&) = delete;

    void start();
    void stop();
    StopReport stopFor(std::chrono::milliseconds timeout);
    StopReport lentOut();
    bool isRunning();
    uint32_t numDevices() const { return static_cast<uint32_t>(_cameras.size()); }
    Controls getControls(uint32_t cameraId) { return _cameras.at(cameraId)->getControls(); }
    Capabilities getCapabilities(uint32_t cameraId) { return _cameras.at(cameraId)->getCapabilities(); }
    void setControls(uint32_t cameraId, const Controls& controls);
    bool setControls(uint32_t cameraId, const std::string& preset);

    // For tests and tools: the camera at `position` and the thread names.
    CUDACamera& camera(uint32_t position) { return *_cameras.at(position); }
    ProduceTask& produceTask(uint32_t position) { return *_produceTasks.at(position); }
    std::string produceThreadName(uint32_t position) const { return _produceThreads.at(position)->getName(); }

private:
    void init_cuda(Poco::AutoPtr<Poco::Util::AbstractConfiguration> view);
    void addCameras(Poco::Util::AbstractConfiguration& config);
    void stopThreads();
    StopReport::HeldCamera heldBy(uint32_t position);
    void release();  // deletes cameras, tasks and threads
    void deinit_cuda();
    template <typename Change>
    auto changeControls(uint32_t cameraId, Change change) -> decltype(change(std::declval<CUDACamera&>()));

    std::vector<CUDACamera*> _cameras;
    std::vector<ProduceTask*> _produceTasks;
    std::vector<Poco::Thread*> _produceThreads;
    ConsumeTask* _consumeTask = nullptr;
    Poco::Thread* _consumeThread = nullptr;
    bool _threadsStarted = false;  // between start() and the joining of its threads
    Poco::Mutex _mutexControls;
    Poco::Event _event{Poco::Event::EVENT_AUTORESET};
    Poco::Mutex _mutex;
};

}  // namespace capture
}  // namespace ruvo
