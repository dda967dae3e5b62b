// CUDACamera: construction, start and stop, the bucket memory in CUDA managed memory, and the
// read-and-release cycle of one frame (dequeue, pipeline, feedback, 3A, requeue).
#undef NDEBUG  // a driver's out-of-range buffer index and broken bucket invariants abort in every build type

#include "CUDACamera.h"

#include "CUDAUtils.h"
#include "OutputBufferConfig.h"
#include "SensorControls.h"
#include "isp/LaunchGeometry.h"

#include <ruvo/capture/CaptureDeviceException.h>
#include <ruvo/util/Channel.h>

#include <Poco/LogStream.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <string>

namespace ruvo {
namespace capture {

namespace {

std::string errnoText(int error) { return std::strerror(error); }

struct OutputGeometry {
    uint32_t width = 0;
    uint32_t height = 0;  // visible rows
    uint32_t rows = 0;    // allocated rows
    uint32_t length = 0;  // elements
    uint32_t bytesPerPx = 0;
};

// Size of output buffer `definition` for a W x H frame with C allocated rows; bytesPerPx 0 when
// the format has no allocation rule.
OutputGeometry outputGeometry(const OutputBufferDefinition& definition, uint32_t W, uint32_t H, uint32_t C) {
    OutputGeometry g;
    auto level = static_cast<uint8_t>(definition.outputLevel);
    if (level < 32) {
        g.width = W >> level;
        g.height = H >> level;
        g.rows = C / (1u << level);
    }
    uint32_t n = g.width * g.rows;
    switch (definition.format) {
        case Frame::Y8:
            g.length = n;
            g.bytesPerPx = 1;
            break;
        case Frame::YUV420p:
            g.length = n + n / 2;
            g.bytesPerPx = 1;
            break;
        case Frame::RGB24:
            g.length = n;
            g.bytesPerPx = 3;
            break;
        case Frame::HISTOGRAM8:
            g.length = 256;
            g.bytesPerPx = 4;
            break;
        default:
            break;
    }
    return g;
}

}  // namespace

CUDACamera::Bucket::OutputBuffer::OutputBuffer(uint32_t width, uint32_t height, uint32_t length, uint32_t bytesPerPx,
                                               uint32_t cuda_height) {
    cudaOut.length = length;
    cudaOut.size = frame.size = length * bytesPerPx;
    frame.width = frame.stride = width;
    frame.height = height;
    frame.cuda_height = cuda_height;
}

CUDACamera::CUDACamera(Poco::AutoPtr<Poco::Util::AbstractConfiguration> config, int index)
    : _logger(Poco::Logger::get("Capture.CUDACamera")), _params(config), _buckets(_params.bufferPoolSize) {
    _controls.width = _params.width;
    _controls.height = _params.height;
    _controls.hFlip = _params.hFlip;
    _controls.vFlip = _params.vFlip;
    _controls.awb.gammaRed = _params.gamma.R;
    _controls.awb.gammaGreen = _params.gamma.G;
    _controls.awb.gammaBlue = _params.gamma.B;
    _controls.awb.gammaCr = _params.gamma.Cr;
    _controls.awb.gammaCb = _params.gamma.Cb;
    _controls.ae.manualExposure = 1.0f / 30.0f;
    _controls.ae.manualGain = 1.0f;
    _controls.ae.time = ruvo::util::Range<float>(0.000166667f, 1.0f / 30.0f);
    _controls.ae.targetY = _params.ae.targetY;
    _controls.ae.manualMode = "default";
    _controls.outputBuffersConfIndex = _params.outputBufferFormats;
    _controls.outputBuffers = CUDA_OUTPUT_BUFFER_CONFIG.at(_controls.outputBuffersConfIndex);
    _prng.seed(_params.awb.seed);
    _index = index;
    init_window_weights();
    _io = makeDeviceIo(_params.path, config);
}

CUDACamera::~CUDACamera() {
    bool holdsResources = _fd != -1;
    for (const Bucket& bucket : _buckets) holdsResources = holdsResources || bucket.status != Bucket::INVALID;
    if (!holdsResources) return;
    _logger.warning("CUDACamera(" + _params.name + ") destroyed without stop(): releasing its device and memory");
    abandon(false);
}

void CUDACamera::abandon(bool waitForClients) {
    const auto attempt = [this](const char* step, auto&& action) {
        try {
            action();
        } catch (const std::exception& e) {
            _logger.error("CUDACamera(" + _params.name + ") " + step + ": " + e.what());
        }
    };
    if (_isRunning) attempt("stop_capturing", [this] { stop_capturing(); });
    _isRunning = false;
    if (waitForClients) attempt("waitForBuffersToBeReturned", [this] { waitForBuffersToBeReturned(); });
    attempt("deinit_device", [this] { deinit_device(); });
    if (_fd != -1) {
        attempt("close_device", [this] { close_device(); });
        _fd = -1;
    }
}

void CUDACamera::start() {
    open_device();
    init_device();
    init_sample_distribution();
    start_capturing();
}

void CUDACamera::stop() {
    stop_capturing();
    waitForBuffersToBeReturned();
    deinit_device();
    close_device();
}

void CUDACamera::deinit_device() { deinit_mem(); }

void CUDACamera::init_mem() {
    const uint32_t granted = requestBuffers();
    // The processed size: the negotiated crop of the driver's frame.
    const uint32_t W = _crop.width;
    const uint32_t H = _crop.height;
    const uint32_t C = kernels::paddedHeight(W, H);  // rows of the GPU input
    if (_params.bufferPoolSize == 0) return;

    // Buckets beyond the count the driver granted stay without memory and are never queued.
    for (uint32_t i = 0; i < granted; ++i) {
        Bucket& bucket = _buckets[i];
        bucket.status = Bucket::FREE;
        CUDA_CHECK(cudaStreamCreateWithFlags(&_buckets[i].stream, cudaStreamNonBlocking));
        bucket.width = W;
        bucket.height = H;
        bucket.cuda_height = C;
        bucket.cropLeft = _crop.left;
        bucket.cropTop = _crop.top;
        bucket.index = i;
        if (_memoryType == V4L2_MEMORY_MMAP) mapDriverBuffer(bucket, C);
        CUDABuffer& buf = bucket.cudaIn;
        if (!buf.host) {
            buf.size = W * C * 2;
            buf.length = W * C;
            CUDA_CHECK(cudaMallocManaged((void**)&buf.host, buf.size, cudaMemAttachGlobal));
            buf.device = buf.host;
            // The input belongs to the bucket's stream alone. Globally attached, the CPU could not
            // touch it while any stream's kernels run on a device without concurrent managed access,
            // yet the driver (or the simulated sensor, from its own thread) fills a queued bucket's
            // input while other buckets are processed.
            CUDA_CHECK(cudaStreamAttachMemAsync(bucket.stream, buf.device, 0, cudaMemAttachSingle));
            CUDA_CHECK(cudaStreamSynchronize(bucket.stream));
            // The driver is told the visible size; the padding rows lie beyond what it writes. The
            // pipeline reads them (the bottom rows' neighbourhoods, the histogram, the metering), so
            // they are zeroed once here rather than left with whatever the allocator handed back.
            std::memset(static_cast<unsigned char*>(buf.host) + static_cast<size_t>(W) * H * 2, 0,
                        static_cast<size_t>(W) * (C - H) * 2);
        }
        if (!_pixelFormat.isDefaultLayout()) allocateDelivered(bucket);
        allocateOutputs(bucket, W, C, H);
        if (_memoryType == V4L2_MEMORY_USERPTR) attachUserBuffer(bucket);
    }
}

void CUDACamera::allocateOutputs(Bucket& bucket, uint32_t W, uint32_t C, uint32_t H) {
    const std::vector<OutputBufferDefinition>& definitions = _controls.outputBuffers;
    const size_t count = definitions.size();
    bucket.buffers.clear();
    bucket.cudaOutDevicePtrs.clear();
    bucket.extraCudaBuffers.clear();
    bucket.extraCudaBufferLengths.clear();
    bucket.extraCudaDevicePtrs.clear();
    bucket.extraCudaDevicePtrsLengths.clear();
    bucket.extraCudaDevicePtrCounts.clear();
    bucket.extraCudaBuffers.resize(count);
    bucket.extraCudaBufferLengths.resize(count);
    bucket.extraCudaDevicePtrs.resize(count, nullptr);
    bucket.extraCudaDevicePtrsLengths.resize(count, nullptr);
    bucket.extraCudaDevicePtrCounts.resize(count, 0);
    bucket.buffers.reserve(count);

    for (size_t k = 0; k < count; ++k) {
        const OutputGeometry g = outputGeometry(definitions[k], W, H, C);
        if (g.bytesPerPx == 0) {
            throw CaptureDeviceException("Unspecified memory allocation for buffer format " +
                                         std::to_string(static_cast<int>(definitions[k].format)));
        }
        if (definitions[k].format == Frame::HISTOGRAM8) {
            unsigned int tempSize = 0;
            unsigned char* tempStorage = nullptr;
            allocateCUBBuffer(tempSize, &tempStorage, "DeviceHistogram::HistogramEven", W / 2, C / 2);
            if (tempStorage == nullptr || tempSize == 0) {
                throw CaptureDeviceException("extra CUDA device memory could not be alloc'd");
            }
            bucket.extraCudaBuffers[k].push_back(tempStorage);
            bucket.extraCudaBufferLengths[k].push_back(static_cast<int>(tempSize));
        }
        Poco::LogStream(_logger).debug() << "Allocating buffer " << k << ": " << g.width << "x" << g.rows << ", "
                                         << " size " << g.length << " bytes per px " << g.bytesPerPx << std::endl;
        bucket.buffers.emplace_back(g.width, g.height, g.length, g.bytesPerPx, g.rows);
        if (!bucket.extraCudaBuffers[k].empty()) {
            const size_t m = bucket.extraCudaBuffers[k].size();
            bucket.extraCudaDevicePtrs[k] = new unsigned char*[m];
            bucket.extraCudaDevicePtrsLengths[k] = new int[m];
            std::copy(bucket.extraCudaBuffers[k].begin(), bucket.extraCudaBuffers[k].end(),
                      bucket.extraCudaDevicePtrs[k]);
            std::copy(bucket.extraCudaBufferLengths[k].begin(), bucket.extraCudaBufferLengths[k].end(),
                      bucket.extraCudaDevicePtrsLengths[k]);
            bucket.extraCudaDevicePtrCounts[k] = static_cast<uint32_t>(m);
        }
        Bucket::OutputBuffer& buffer = bucket.buffers.back();
        // Never less than the kernels write (the Bayer view of BGGR is 3 bytes per pixel).
        const size_t written = kernelOutputBytes(static_cast<int>(_controls.outputBuffersConfIndex), k, W, C);
        const uint32_t length = g.length;
        const uint32_t bytesPerPx = std::max<uint32_t>(
            g.bytesPerPx, static_cast<uint32_t>((written + length - 1) / std::max<uint32_t>(length, 1)));
        CUDA_CHECK(cudaMallocManaged((void**)&buffer.cudaOut.host, length * bytesPerPx, cudaMemAttachGlobal));
        buffer.cudaOut.device = buffer.cudaOut.host;
        CUDA_CHECK(cudaStreamAttachMemAsync(bucket.stream, buffer.cudaOut.device, 0, cudaMemAttachSingle));
        buffer.frame.data = static_cast<uint8_t*>(buffer.cudaOut.device);
        bucket.cudaOutDevicePtrs.push_back(static_cast<unsigned char*>(buffer.cudaOut.device));
    }
}

void CUDACamera::deinit_mem() {
    for (Bucket& bucket : _buckets) {
        if (bucket.status == Bucket::INVALID) continue;
        releaseDriverBuffer(bucket);
        if (bucket.cudaIn.host) {
            CUDA_CHECK(cudaFree(bucket.cudaIn.host));
            bucket.cudaIn.host = bucket.cudaIn.device = nullptr;
        }
        if (bucket.delivered.host) {
            CUDA_CHECK(cudaFree(bucket.delivered.host));
            bucket.delivered = CUDABuffer{};
        }
        for (Bucket::OutputBuffer& outBuffer : bucket.buffers) {
            if (outBuffer.cudaOut.host) {
                CUDA_CHECK(cudaFree(outBuffer.cudaOut.host));
                outBuffer.cudaOut.host = outBuffer.cudaOut.device = nullptr;
            }
        }
        const size_t extraSize = bucket.extraCudaBuffers.size();
        assert(extraSize == bucket.extraCudaDevicePtrs.size() &&
               bucket.extraCudaDevicePtrs.size() == bucket.extraCudaBufferLengths.size() &&
               bucket.extraCudaBufferLengths.size() == bucket.extraCudaDevicePtrsLengths.size());
        for (size_t ii = 0; ii < extraSize; ++ii) {
            assert(bucket.extraCudaBuffers[ii].size() == bucket.extraCudaBufferLengths[ii].size() &&
                   bucket.extraCudaDevicePtrCounts[ii] == bucket.extraCudaBufferLengths[ii].size());
            for (uint32_t jj = 0; jj < bucket.extraCudaDevicePtrCounts[ii]; ++jj) {
                CUDA_CHECK(cudaFree(bucket.extraCudaDevicePtrs[ii][jj]));
            }
            delete[] bucket.extraCudaDevicePtrs[ii];
            delete[] bucket.extraCudaDevicePtrsLengths[ii];
            bucket.extraCudaDevicePtrs[ii] = nullptr;
            bucket.extraCudaDevicePtrsLengths[ii] = nullptr;
            bucket.extraCudaDevicePtrCounts[ii] = 0;
            bucket.extraCudaBuffers[ii].clear();
            bucket.extraCudaBufferLengths[ii].clear();
        }
        if (bucket.stream) {
            CUDA_CHECK(cudaStreamDestroy(bucket.stream));
            bucket.stream = nullptr;
        }
        bucket.status = Bucket::INVALID;
    }
}

CUDACamera::Bucket* CUDACamera::read() {
    struct timeval timeout = {2, 0};
    int ready = _io->select(_fd, &timeout);
    if (ready == -1) throw CaptureDeviceException("select");
    if (ready == 0) return nullptr;

    v4l2_buffer buf{};
    buf.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    buf.memory = _memoryType;
    if (xioctl(VIDIOC_DQBUF, &buf) == -1) {
        if (errno == EAGAIN) return nullptr;
        throw CaptureDeviceException("VIDIOC_DQBUF: " + errnoText(errno));
    }
    assert(buf.index < _buckets.size() && _buckets[buf.index].status == Bucket::FREE);
    Bucket& bucket = _buckets[buf.index];
    bucket.status = Bucket::USED;
    bucket.timestamp = std::chrono::time_point_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now());
    try {
        if (!acceptFrame(buf, bucket)) {
            // A damaged frame goes straight back to the driver, undelivered.
            release(bucket.index);
            return nullptr;
        }
        copyIn(bucket);
        process(bucket);
    } catch (...) {
        // A frame that fails on its way goes back at once, so that stop() never waits for it; its
        // kernels already enqueued finish first, so that none reads the input while it is refilled.
        // A failure of the wait itself adds nothing to the one being reported.
        (void)cudaStreamSynchronize(bucket.stream);
        try {
            release(bucket.index);
        } catch (const std::exception&) {  // the bucket counts as back even when the driver is gone
        }
        throw;
    }
    return &bucket;
}

// Runs the pipeline on a dequeued bucket, then fills its feedback and evaluates 3A.
void CUDACamera::process(Bucket& bucket) {
    // The output count, configuration and gammas of this frame, read together under the lock.
    size_t n;
    uint32_t configuration;
    Controls::AutoWhiteBalance gammas;
    {
        Poco::FastMutex::ScopedLock lock(_mutexControls);
        n = _controls.outputBuffers.size();
        configuration = _controls.outputBuffersConfIndex;
        gammas.gammaRed = _controls.awb.gammaRed;
        gammas.gammaGreen = _controls.awb.gammaGreen;
        gammas.gammaBlue = _controls.awb.gammaBlue;
        gammas.gammaCr = _controls.awb.gammaCr;
        gammas.gammaCb = _controls.awb.gammaCb;
    }
    bucket.releaseCounter = static_cast<uint32_t>(n);
    bucket.releaseState.assign(n, false);

    cudaISP(bucket.stream, static_cast<int>(configuration), n, _params.demosaicMode,
            static_cast<const unsigned short*>(bucket.cudaIn.device), bucket.cudaOutDevicePtrs.data(),
            bucket.extraCudaDevicePtrs.data(), bucket.extraCudaDevicePtrsLengths.data(), bucket.width,
            bucket.cuda_height, gammas.gammaRed, gammas.gammaGreen, gammas.gammaBlue, gammas.gammaCr, gammas.gammaCb,
            _params.colorModelThreshold);
    CUDA_CHECK(cudaStreamSynchronize(bucket.stream));

    if (configuration == YUV_2_4_SKIN_HISTOGRAM) sendSkinDiagnostics(bucket);

    Poco::FastMutex::ScopedLock lock(_mutexControls);
    _luminanceInFeedback = nullptr;
    fillFeedback(bucket);
    evaluate_3A(bucket);
    _luminanceInFeedback = nullptr;
}

// The SIXTEENTH skin luminance plane goes to "CapDevCUDAExp_<index>" when someone listens.
void CUDACamera::sendSkinDiagnostics(const Bucket& bucket) {
    std::shared_ptr<ruvo::util::Channel> channel =
        ruvo::util::Channel::attached("CapDevCUDAExp_" + std::to_string(_index));
    if (!channel || !channel->enabled() || bucket.buffers.size() < 7) return;
    const Bucket::OutputBuffer& skin = bucket.buffers[6];
    const uint32_t level = Frame::SIXTEENTH;  // the level of buffer 6 in the one configuration that sends
    const uint32_t rows = bucket.cuda_height >> level;
    channel->send(skin.frame.data, static_cast<size_t>(bucket.width >> level) * rows, rows);
}

void CUDACamera::fillFeedback(Bucket& bucket) {
    Feedback& fb = bucket.feedback;
    fb.autoExposureGain = _profile.gain.toGain(getControl(_profile.gainControl));
    fb.autoExposureTime = _profile.exposureSeconds(getControl(_profile.exposureControl));
    const float green = readChannelGain(sensor::CID_GREEN_GAIN) / 1024.0f;
    fb.autoWhiteBalanceGains = {readChannelGain(sensor::CID_RED_GAIN) / 1024.0f, green, green,
                                readChannelGain(sensor::CID_BLUE_GAIN) / 1024.0f};
    fb.autoExposureRegions.clear();
    if (_profile.meteringWindow && getControl(sensor::CID_METER_ENABLE) != 0) {
        const long left = getControl(sensor::CID_METER_LEFT);
        const long top = getControl(sensor::CID_METER_TOP);
        // One pixel wider and taller than the rectangle written to the sensor, as read back.
        const long right = left + getControl(sensor::CID_METER_WIDTH);
        const long bottom = top + getControl(sensor::CID_METER_HEIGHT);
        fb.autoExposureRegions.emplace_back(dlib::rectangle(left, top, right, bottom), 1.0f);
    }
    fb.autoWhiteBalanceRegions.clear();
    if (!_controls.awb.regions.empty()) fb.autoWhiteBalanceRegions.push_back(_controls.awb.regions.front());
    if (!_profile.luminanceStatistic) {
        fb.luminance = averageLuminance(bucket);
        _luminanceInFeedback = &bucket;
        return;
    }
    const v4l2_queryctrl range = queryControl(sensor::CID_AVG_LUMINANCE);
    fb.luminance =
        static_cast<float>(getControl(sensor::CID_AVG_LUMINANCE)) / static_cast<float>(range.maximum - range.minimum);
}

void CUDACamera::release(unsigned bucketIndex) {
    v4l2_buffer buf{};
    buf.index = bucketIndex;
    buf.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    buf.memory = _memoryType;
    Bucket& bucket = _buckets[bucketIndex];
    if (xioctl(VIDIOC_QUERYBUF, &buf) == -1) {
        // No client holds the bucket any more: count it as back so that stop() can finish on a
        // device that went away.
        bucket.status = Bucket::FREE;
        _releaseEvent.set();
        throw CaptureDeviceException("VIDIOC_QUERYBUF");
    }
    bucket.status = Bucket::FREE;
    try {
        queueBuffer(bucket, "VIDIOC_QBUF: ");
    } catch (...) {
        _releaseEvent.set();  // the bucket is back with the camera, if not with the driver
        throw;
    }
    _releaseEvent.set();
}

void CUDACamera::release(unsigned bucketIndex, unsigned buffer) {
    Bucket& bucket = _buckets[bucketIndex];
    Poco::FastMutex::ScopedLock lock(bucket.mutex);
    // A buffer given back again after its bucket went back to the driver changes nothing.
    if (bucket.status != Bucket::USED) return;
    bucket.releaseState[buffer] = true;
    for (bool returned : bucket.releaseState) {
        if (!returned) return;
    }
    release(bucketIndex);
}

void CUDACamera::waitForBuffersToBeReturned() {
    waitForBuffersToBeReturned(std::chrono::steady_clock::time_point::max());
}

bool CUDACamera::waitForBuffersToBeReturned(std::chrono::steady_clock::time_point deadline) {
    const std::string prefix = "CUDACamera(" + _params.name + ")";
    _logger.trace(prefix + "::" + "waitForBuffersToBeReturned");
    for (;;) {
        // Buckets no client holds (a bucket that never got memory counts too). Read under each
        // bucket's lock: a client's return marks its bucket free and queues it under that lock, so a
        // bucket counted here is no longer being handed back when the caller frees its memory.
        size_t free = 0;
        for (Bucket& bucket : _buckets) {
            Poco::FastMutex::ScopedLock lock(bucket.mutex);
            free += bucket.status != Bucket::USED ? 1 : 0;
        }
        if (free == _buckets.size()) {
            _logger.information(prefix + " All buffers returned");
            return true;
        }
        _logger.warning(prefix + " " + "waiting for buffers to be returned: " + std::to_string(free) + "/" +
                        std::to_string(_buckets.size()) + " free");
        if (deadline == std::chrono::steady_clock::time_point::max()) {
            _releaseEvent.wait();
            continue;
        }
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) return false;
        _releaseEvent.tryWait(static_cast<long>(left.count()));
    }
}

bool CUDACamera::stopBy(std::chrono::steady_clock::time_point deadline) {
    if (_fd == -1) return true;
    if (_isRunning) stop_capturing();
    if (!waitForBuffersToBeReturned(deadline)) return false;
    deinit_device();
    close_device();
    return true;
}

std::vector<std::pair<uint32_t, std::vector<uint32_t>>> CUDACamera::heldBuckets() {
    std::vector<std::pair<uint32_t, std::vector<uint32_t>>> held;
    for (Bucket& bucket : _buckets) {
        Poco::FastMutex::ScopedLock lock(bucket.mutex);
        if (bucket.status != Bucket::USED) continue;
        std::vector<uint32_t> outputs;
        for (uint32_t j = 0; j < bucket.releaseState.size(); ++j) {
            if (!bucket.releaseState[j]) outputs.push_back(j);
        }
        held.emplace_back(bucket.index, std::move(outputs));
    }
    return held;
}

}  // namespace capture
}  // namespace ruvo
