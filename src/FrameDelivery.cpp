// The reader tasks that queue each camera's processed buckets, and the delivery task that
// turns the newest bucket of every camera into one batch of zero-copy frames.
#include "CUDADeviceImpl.h"
#include "FramePlanes.h"

#include <Poco/Logger.h>

namespace ruvo {
namespace capture {

CUDADeviceImpl::ProduceTask::ProduceTask(const std::string& name, CUDACamera* camera, Poco::Event& event)
    : Worker(name), _camera(camera), _event(event) {}

void CUDADeviceImpl::ProduceTask::onStart() { selectCudaDevice(name()); }

void CUDADeviceImpl::ProduceTask::work() {
    CUDACamera::Bucket* bucket = _camera->read();
    if (bucket == nullptr) return;
    Poco::Mutex::ScopedLock lock(_mutex);
    _queue.push(bucket);
    _event.set();
}

// Buckets read but never delivered go back to the camera when the reader ends.
void CUDADeviceImpl::ProduceTask::onExit() {
    Poco::Mutex::ScopedLock lock(_mutex);
    while (!_queue.empty()) {
        _camera->release(_queue.front()->index);
        _queue.pop();
    }
}

CUDACamera::Bucket* CUDADeviceImpl::ProduceTask::takeNewest() {
    Poco::Mutex::ScopedLock lock(_mutex);
    CUDACamera::Bucket* newest = nullptr;
    while (!_queue.empty()) {
        if (newest != nullptr) _camera->release(newest->index);  // dropped to keep latency low
        newest = _queue.front();
        _queue.pop();
    }
    return newest;
}

size_t CUDADeviceImpl::ProduceTask::queued() {
    Poco::Mutex::ScopedLock lock(_mutex);
    return _queue.size();
}

// Runs inside shared_ptr's destructor on whatever thread drops the last reference, where an
// exception would end the process: a failed return (the device gone) is logged instead. A frame
// that outlives its camera only frees its record.
void CUDADeviceImpl::ConsumeTask::Deleter::operator()(Frame* frame) const {
    if (frame == nullptr) return;
    std::shared_lock<std::shared_mutex> lock(_path->mutex);
    if (CUDACamera* camera = _path->camera) {
        try {
            camera->release(_bucket, frame->batchIndex);
        } catch (const std::exception& e) {
            Poco::Logger::get("Capture.CUDADevice")
                .error("Returning a frame to camera " + camera->getName() + ": " + e.what());
        }
    }
    delete frame;
}

CUDADeviceImpl::ConsumeTask::ConsumeTask(const std::string& name, std::vector<CUDACamera*> cameras,
                                         OnNewDataCallback onNewData, Poco::Mutex& mutexControls, Poco::Event& event,
                                         std::vector<ProduceTask*> produceTasks)
    : Worker(name),
      _cameras(std::move(cameras)),
      _onNewData(std::move(onNewData)),
      _mutexControls(mutexControls),
      _event(event),
      _produceTasks(std::move(produceTasks)) {
    for (CUDACamera* camera : _cameras) {
        _returnPaths.push_back(std::make_shared<ReturnPath>());
        _returnPaths.back()->camera = camera;
    }
}

void CUDADeviceImpl::ConsumeTask::detachCameras() {
    for (const auto& path : _returnPaths) {
        std::unique_lock<std::shared_mutex> lock(path->mutex);
        path->camera = nullptr;
    }
}

namespace {

// Clears the batch on every way out of a delivery cycle, returning the frames nobody kept.
struct BatchDrop {
    std::vector<std::shared_ptr<Frame>>& batch;
    ~BatchDrop() { batch.clear(); }
};

}  // namespace

void CUDADeviceImpl::ConsumeTask::work() {
    if (!_event.tryWait(2000)) return;
    BatchDrop drop{_batch};
    if (_cameras.empty()) {
        ++batchId;
        return;
    }
    for (uint32_t c = 0; c < _cameras.size(); ++c) {
        CUDACamera::Bucket* bucket = _produceTasks[c]->takeNewest();
        if (bucket != nullptr) appendFrames(c, bucket);
    }
    ++batchId;
    if (!_batch.empty()) _onNewData(_batch);
}

void CUDADeviceImpl::ConsumeTask::appendFrames(uint32_t c, CUDACamera::Bucket* bucket) {
    CUDACamera* camera = _cameras[c];
    camera->copyControls(_controlsCopy);
    for (uint32_t j = 0; j < bucket->buffers.size(); ++j) {
        std::shared_ptr<Frame> frame(new Frame(), Deleter(_returnPaths[c], bucket->index));
        frame->frameId = frameId++;
        frame->cameraId = c;
        frame->batchId = batchId;
        frame->batchIndex = j;
        const OutputBufferDefinition& definition = _controlsCopy.outputBuffers.at(j);
        frame->format = definition.format;
        frame->outputTypeId = definition.outputType;
        frame->outputLevelId = definition.outputLevel;
        frame->timestamp = bucket->timestamp;
        const CUDACamera::CUDAFrame& geometry = bucket->buffers[j].frame;
        frame->width = geometry.width;
        frame->height = geometry.height;
        setFramePlanes(*frame, geometry.data, geometry.stride, geometry.cuda_height);
        frame->feedback = bucket->feedback;
        // The frame's part of the driver's image, at the frame's own scale: (0, 0, width, height)
        // unless the driver's size was cropped.
        const auto level = static_cast<uint32_t>(definition.outputLevel);
        const long left = level < 32 ? bucket->cropLeft >> level : 0, top = level < 32 ? bucket->cropTop >> level : 0;
        frame->source = dlib::rectangle(left, top, left + frame->width, top + frame->height);
        frame->type = "camera";
        _batch.push_back(std::move(frame));
    }
}

}  // namespace capture
}  // namespace ruvo
