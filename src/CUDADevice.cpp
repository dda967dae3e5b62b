// CUDADevice and the construction, start, stop and control routing of CUDADeviceImpl.
#include <ruvo/capture/CUDADevice.h>

#include "CUDADeviceImpl.h"
#include "CUDAUtils.h"

#include <Poco/Exception.h>
#include <Poco/Logger.h>

#include <memory>

namespace ruvo {
namespace capture {

const std::map<int, std::string> CUDADevice::outputConfigDescriptions = {
    {YUV_ONLY, "Only color"},
    {YUV_2, "Color and half-size"},
    {YUV_2_4_SKIN_HISTOGRAM, "Color, half, quarter, skin-segmented histogram"},
    {YUV_2_4, "Color, half, quarter"},
    {YUV_SKIN, "Skin segmentation debug buffer"},
    {YUV_GRADIENT, "Gradient X/Y"},
    {YUV_2_4_GRADIENT, "Color, half, quarter, Gradient X/Y"},
    {YUV_2_4_GRADIENT_2_4, "Color half quarter, Grad X/Y half quarter"},
    {YUV_2_GRADIENT_VECTOR_2, "Color half, Polar Gradient"},
    {BGGR, "Raw Bayer BGGR, 'false' color"},
    {NO_DEMOSAIC_RGB, "Color obtained without demosaic and with 24-bit RGB bitmap"},
    {RGB_ONLY, "only basic with 24-bit RGB"},
};

CUDADevice::CUDADevice(Poco::AutoPtr<Poco::Util::AbstractConfiguration> config)
    : CaptureDevice(config), _logger(Poco::Logger::get("Capture.CUDADevice")), _impl(nullptr) {
    OnNewDataCallback callback = [this](const std::vector<std::shared_ptr<Frame>>& frames) { onNewData(frames); };
    _impl = new CUDADeviceImpl(config, callback);
}

CUDADevice::~CUDADevice() { delete _impl; }

void CUDADevice::start() { _impl->start(); }
void CUDADevice::stop() { _impl->stop(); }
StopReport CUDADevice::stopFor(std::chrono::milliseconds timeout) { return _impl->stopFor(timeout); }
StopReport CUDADevice::lentOut() { return _impl->lentOut(); }
bool CUDADevice::isRunning() { return _impl->isRunning(); }
uint32_t CUDADevice::numDevices() { return _impl->numDevices(); }
Controls CUDADevice::getControls(uint32_t cameraId) { return _impl->getControls(cameraId); }
Capabilities CUDADevice::getCapabilities(uint32_t cameraId) { return _impl->getCapabilities(cameraId); }

void CUDADevice::setControls(uint32_t cameraId, const Controls& controls) {
    if (cameraId >= numDevices()) {
        _logger.error("Invalid cameraId (" + std::to_string(cameraId) + ") requested for setControls.");
        return;
    }
    _impl->setControls(cameraId, controls);
}

bool CUDADevice::setNamedControls(uint32_t cameraId, const std::string& name) {
    if (cameraId >= numDevices()) {
        _logger.error("Invalid cameraId (" + std::to_string(cameraId) + ") requested for setControls.");
        return false;
    }
    return _impl->setControls(cameraId, name);
}

namespace {

// An entry exists when its key has a value (an XML element) or any key below it (properties,
// INI and map configurations hold only the leaves).
bool entryPresent(const Poco::Util::AbstractConfiguration& config, const std::string& key) {
    if (config.has(key)) return true;
    Poco::Util::AbstractConfiguration::Keys below;
    config.keys(key, below);
    return !below.empty();
}

}  // namespace

CUDADeviceImpl::CUDADeviceImpl(Poco::AutoPtr<Poco::Util::AbstractConfiguration> config, OnNewDataCallback onNewData) {
    if (config.isNull()) throw Poco::NullPointerException();
    init_cuda(config->createView("cuda"));
    try {
        addCameras(*config);
        _consumeTask = new ConsumeTask("ConsumeTask", _cameras, onNewData, _mutexControls, _event, _produceTasks);
        _consumeThread = new Poco::Thread("ConsumeThread");
    } catch (...) {
        release();  // a camera that fails to construct leaves nothing behind
        throw;
    }
}

// Walks "devices[0]", "devices[1]", ... up to the first missing entry; every enabled entry
// becomes a camera with its reader task and thread.
void CUDADeviceImpl::addCameras(Poco::Util::AbstractConfiguration& config) {
    for (unsigned i = 0;; ++i) {
        const std::string key = "devices[" + std::to_string(i) + "]";
        if (!entryPresent(config, key)) break;
        Poco::AutoPtr<Poco::Util::AbstractConfiguration> view = config.createView(key);
        if (!view->getBool("enabled", false)) continue;
        auto camera = std::make_unique<CUDACamera>(view, static_cast<int>(i));
        auto task = std::make_unique<ProduceTask>("ProduceTask-" + std::to_string(i), camera.get(), _event);
        auto thread = std::make_unique<Poco::Thread>("ProduceThread-" + std::to_string(i));
        _cameras.push_back(camera.release());
        _produceTasks.push_back(task.release());
        _produceThreads.push_back(thread.release());
    }
}

void CUDADeviceImpl::release() {
    if (_consumeTask != nullptr) _consumeTask->detachCameras();  // frames still held find no camera
    for (size_t i = 0; i < _cameras.size(); ++i) {
        delete _cameras[i];
        delete _produceTasks[i];
        delete _produceThreads[i];
    }
    _cameras.clear();
    _produceTasks.clear();
    _produceThreads.clear();
    delete _consumeTask;
    delete _consumeThread;
    _consumeTask = nullptr;
    _consumeThread = nullptr;
}

CUDADeviceImpl::~CUDADeviceImpl() {
    release();
    deinit_cuda();
}

void CUDADeviceImpl::init_cuda(Poco::AutoPtr<Poco::Util::AbstractConfiguration> view) {
    (void)view;  // kCudaDevice is always used
    int devCount = 0;
    CUDA_CHECK(cudaGetDeviceCount(&devCount));
    if (devCount == 0) throw CaptureDeviceException("No CUDA devices");
    const int devID = kCudaDevice;
    cudaDeviceProp deviceProp;
    CUDA_CHECK(cudaGetDeviceProperties(&deviceProp, devID));
    // Blocking synchronisation: reader threads sleep, not spin, while their streams run. The flags
    // are set before cudaSetDevice, which creates the device's context; afterwards they may not apply.
    CUDA_CHECK(cudaSetDeviceFlags(cudaDeviceMapHost | cudaDeviceScheduleBlockingSync));
    CUDA_CHECK(cudaSetDevice(devID));
    unsigned int flags = 0;
    CUDA_CHECK(cudaGetDeviceFlags(&flags));
    Poco::Logger& logger = Poco::Logger::get("Capture.CUDADevice");
    logger.information("CUDA device " + std::to_string(devID) + ": " + deviceProp.name + ", compute " +
                       std::to_string(deviceProp.major) + "." + std::to_string(deviceProp.minor) + ", managedMemory " +
                       std::to_string(deviceProp.managedMemory) + ", concurrentManagedAccess " +
                       std::to_string(deviceProp.concurrentManagedAccess));
    if ((flags & cudaDeviceScheduleBlockingSync) == 0) {
        logger.warning("CUDA device flags " + std::to_string(flags) +
                       " lack blocking synchronisation: reader threads spin while they wait");
    }
}

void CUDADeviceImpl::deinit_cuda() { (void)cudaDeviceReset(); }

// The CUDA runtime keeps the current device per thread. Every thread that makes the library's
// CUDA calls (the one that starts the cameras or changes their controls, which allocates their
// buckets, and each reader) names the library's device itself instead of relying on the default
// of a thread that never chose one, so its calls (CUB's per-device queries among them) go to the
// device the library initialised even where other CUDA libraries in the process choose devices
// and contexts of their own. A failure is logged and cleared from the thread's last error; the
// calls that follow report it by name.
void CUDADeviceImpl::selectCudaDevice(const std::string& thread) {
    const cudaError_t status = cudaSetDevice(kCudaDevice);
    if (status == cudaSuccess) return;
    (void)cudaGetLastError();
    Poco::Logger::get("Capture.CUDADevice")
        .error(thread + ": cudaSetDevice(" + std::to_string(kCudaDevice) + "): " + cudaGetErrorString(status));
}

void CUDADeviceImpl::start() {
    Poco::Mutex::ScopedLock lock(_mutex);
    selectCudaDevice("start");
    for (CUDACamera* camera : _cameras) camera->start();
    for (size_t i = 0; i < _produceThreads.size(); ++i) {
        _produceTasks[i]->reset();
        _produceThreads[i]->start(*_produceTasks[i]);
    }
    _consumeTask->reset();
    _consumeThread->start(*_consumeTask);
    _threadsStarted = true;
}

void CUDADeviceImpl::stopThreads() {
    for (ProduceTask* task : _produceTasks) task->cancel();
    for (Poco::Thread* thread : _produceThreads) thread->join();
    _consumeTask->cancel();
    _event.set();  // wake the consumer now rather than at the end of its 2 s wait
    _consumeThread->join();
    _threadsStarted = false;
}

void CUDADeviceImpl::stop() {
    Poco::Mutex::ScopedLock lock(_mutex);
    stopThreads();
    // Every camera is stopped even when one fails (a device that went away); the failed one is
    // torn down as far as it goes and the first failure is reported once all are done.
    std::string failure;
    for (CUDACamera* camera : _cameras) {
        try {
            camera->stop();
        } catch (const CaptureDeviceException& e) {
            Poco::Logger::get("Capture.CUDADevice").error("Stopping camera " + camera->getName() + ": " + e.what());
            if (failure.empty()) failure = camera->getName() + ": " + e.what();
            camera->abandon(true);
        }
    }
    if (!failure.empty()) throw CaptureDeviceException(failure);
}

bool CUDADeviceImpl::isRunning() {
    Poco::Mutex::ScopedLock lock(_mutex);
    return _consumeThread->isRunning();
}

// Pauses every reader, applies `change` to the camera, and on a refusal puts the previous
// controls back and reports the camera's message as CUDADeviceException.
template <typename Change>
auto CUDADeviceImpl::changeControls(uint32_t cameraId, Change change) -> decltype(change(std::declval<CUDACamera&>())) {
    for (ProduceTask* task : _produceTasks) task->pause();
    selectCudaDevice("controls");  // a new output configuration or size reallocates on this thread
    CUDACamera& camera = *_cameras.at(cameraId);
    const Controls saved = camera.getControls();
    std::string refusal;
    bool refused = false;
    decltype(change(camera)) result{};
    try {
        result = change(camera);
    } catch (const CaptureDeviceException& e) {
        refused = true;
        refusal = e.what();
        camera.setControls(saved);
    }
    for (ProduceTask* task : _produceTasks) task->unpause();
    if (refused) throw CUDADeviceException(refusal);
    return result;
}

void CUDADeviceImpl::setControls(uint32_t cameraId, const Controls& controls) {
    changeControls(cameraId, [&](CUDACamera& camera) {
        camera.setControls(controls);
        return true;
    });
}

bool CUDADeviceImpl::setControls(uint32_t cameraId, const std::string& preset) {
    return changeControls(cameraId, [&](CUDACamera& camera) { return camera.setControls(preset); });
}

}  // namespace capture
}  // namespace ruvo
