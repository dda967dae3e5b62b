// CUDACamera's driver buffers: the REQBUFS that picks user pointers or memory mapping, the
// mapping of driver buffers and their registration with the CUDA runtime, the camera's own
// buffer for padded rows, queueing a bucket, and the driver's per-frame account (flags,
// bytesused, sequence, timestamp) that decides whether a dequeued frame is delivered.
#include "CUDACamera.h"

#include "CUDAUtils.h"

#include <ruvo/capture/CaptureDeviceException.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

namespace ruvo {
namespace capture {

namespace {

std::string errnoText(int error) { return std::strerror(error); }

const char* memoryName(uint32_t memory) {
    return memory == V4L2_MEMORY_MMAP ? "memory mapped I/O" : "user pointer I/O";
}

}  // namespace

// Asks for the pool's buffers; under "auto", a driver that refuses user pointers is asked for
// memory-mapped ones. Returns how many buckets get a driver buffer: the count granted, at most
// the pool's.
uint32_t CUDACamera::requestBuffers() {
    const auto request = [this](uint32_t memory, v4l2_requestbuffers& r) {
        r = v4l2_requestbuffers{};
        r.count = _params.bufferPoolSize;
        r.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        r.memory = memory;
        return xioctl(VIDIOC_REQBUFS, &r) == 0 ? 0 : errno;
    };
    v4l2_requestbuffers r;
    uint32_t memory = _params.memory == CaptureMemory::Mmap ? V4L2_MEMORY_MMAP : V4L2_MEMORY_USERPTR;
    int error = request(memory, r);
    // A driver that fills in its abilities says whether memory mapping is worth asking for.
    const bool mmapOffered = r.capabilities == 0 || (r.capabilities & V4L2_BUF_CAP_SUPPORTS_MMAP) != 0;
    if (error == EINVAL && _params.memory == CaptureMemory::Auto && mmapOffered) {
        memory = V4L2_MEMORY_MMAP;
        error = request(memory, r);
    }
    if (error == EINVAL) throw CaptureDeviceException(_params.path + " does not support " + memoryName(memory));
    if (error != 0) throw CaptureDeviceException("VIDIOC_REQBUFS " + errnoText(error));
    if (_params.bufferPoolSize > 0 && r.count == 0)
        throw CaptureDeviceException(_params.path + " granted no buffers for " + memoryName(memory));
    _memoryType = memory;
    return std::min(r.count, _params.bufferPoolSize);
}

// Maps the driver's buffer for `bucket`. When its rows are unpadded, the padding rows up to
// `cudaHeight` fit in it and the CUDA runtime accepts it, the pipeline reads it in place;
// otherwise the bucket's raw input stays to be allocated and each frame is copied into it.
void CUDACamera::mapDriverBuffer(Bucket& bucket, uint32_t cudaHeight) {
    v4l2_buffer buf{};
    buf.index = bucket.index;
    buf.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    buf.memory = V4L2_MEMORY_MMAP;
    if (xioctl(VIDIOC_QUERYBUF, &buf) == -1) throw CaptureDeviceException("VIDIOC_QUERYBUF " + errnoText(errno));
    void* data = _io->mmap(_fd, buf.length, static_cast<off_t>(buf.m.offset));
    if (data == MAP_FAILED) throw CaptureDeviceException("mmap " + errnoText(errno));
    V4L2Buffer& v4l2 = bucket.v4l2;
    v4l2.data = data;
    v4l2.size = buf.length;
    v4l2.stride = _bytesPerLine;
    v4l2.length = bucket.width * bucket.height;
    v4l2.mapped = true;
    const size_t inputBytes = static_cast<size_t>(bucket.width) * cudaHeight * 2;
    const bool cropped = bucket.cropLeft != 0 || bucket.cropTop != 0;
    if (!_pixelFormat.isDefaultLayout() || cropped || _bytesPerLine != bucket.width * 2 || buf.length < inputBytes)
        return;
    if (cudaHostRegister(data, buf.length, cudaHostRegisterMapped) != cudaSuccess) {
        cudaGetLastError();  // refused registration is not a fault: the frames are copied instead
        return;
    }
    v4l2.registered = true;
    void* device = nullptr;
    CUDA_CHECK(cudaHostGetDevicePointer(&device, data, 0));
    bucket.cudaIn.host = data;
    bucket.cudaIn.device = device;
    bucket.cudaIn.size = static_cast<uint32_t>(inputBytes);
    bucket.cudaIn.length = bucket.width * cudaHeight;
    // The driver writes the visible rows only; the padding rows below are zeroed once.
    const size_t visible = static_cast<size_t>(_bytesPerLine) * bucket.height;
    std::memset(static_cast<unsigned char*>(data) + visible, 0, inputBytes - visible);
}

// User pointers: the driver writes into the raw input itself when its rows are unpadded and
// its image fits there, else into a buffer of the driver's image size that is copied from.
void CUDACamera::attachUserBuffer(Bucket& bucket) {
    V4L2Buffer& v4l2 = bucket.v4l2;
    v4l2.stride = _bytesPerLine;
    v4l2.length = bucket.width * bucket.height;
    v4l2.size = std::max(_sizeImage, _bytesPerLine * bucket.height);
    if (!_pixelFormat.isDefaultLayout()) {  // delivered where the conversion reads it
        v4l2.data = bucket.delivered.host;
        return;
    }
    const bool cropped = bucket.cropLeft != 0 || bucket.cropTop != 0;
    if (!cropped && _bytesPerLine == bucket.width * 2 && v4l2.size <= bucket.cudaIn.size) {
        v4l2.data = bucket.cudaIn.host;
        return;
    }
    const size_t alignment = 4096;
    v4l2.data = std::aligned_alloc(alignment, (v4l2.size + alignment - 1) / alignment * alignment);
    if (!v4l2.data) throw CaptureDeviceException("cannot allocate " + std::to_string(v4l2.size) + " bytes");
    v4l2.staging = true;
}

void CUDACamera::releaseDriverBuffer(Bucket& bucket) {
    V4L2Buffer& v4l2 = bucket.v4l2;
    if (v4l2.registered) {
        CUDA_CHECK(cudaHostUnregister(v4l2.data));
        bucket.cudaIn.host = bucket.cudaIn.device = nullptr;  // not the runtime's to free
    }
    if (v4l2.mapped && _io->munmap(v4l2.data, v4l2.size) == -1)
        _logger.error("CUDACamera(" + _params.name + ") munmap: " + errnoText(errno));
    if (v4l2.staging) std::free(v4l2.data);
    v4l2 = V4L2Buffer{};
}

void CUDACamera::queueBuffer(Bucket& bucket, const char* context) {
    v4l2_buffer buf{};
    buf.index = bucket.index;
    buf.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    buf.memory = _memoryType;
    if (_memoryType == V4L2_MEMORY_USERPTR) {
        buf.m.userptr = reinterpret_cast<unsigned long>(bucket.v4l2.data);
        buf.length = bucket.v4l2.size;
    }
    if (xioctl(VIDIOC_QBUF, &buf) == -1) throw CaptureDeviceException(std::string(context) + errnoText(errno));
}

// Counts what the driver reports for a dequeued buffer; false when the frame must not be
// delivered (flagged as damaged, or shorter than the image).
bool CUDACamera::acceptFrame(const v4l2_buffer& buf, Bucket& bucket) {
    if (_nextSequence >= 0 && buf.sequence > _nextSequence) _droppedFrames += buf.sequence - _nextSequence;
    if (_nextSequence < 0) _droppedFrames += buf.sequence;  // frames lost before the first one
    _nextSequence = static_cast<int64_t>(buf.sequence) + 1;
    const bool damaged = (buf.flags & V4L2_BUF_FLAG_ERROR) != 0 ||
                         buf.bytesused < static_cast<uint64_t>(_bytesPerLine) * (bucket.cropTop + bucket.height - 1) +
                                             _pixelFormat.rowBytes(bucket.cropLeft + bucket.width);
    if (damaged) {
        ++_errorBuffers;
        return false;
    }
    Feedback& fb = bucket.feedback;
    fb.sequence = buf.sequence;
    // A monotonic driver timestamp is on the steady clock's epoch (CLOCK_MONOTONIC).
    fb.captureTimestamp = bucket.timestamp;
    if ((buf.flags & V4L2_BUF_FLAG_TIMESTAMP_MASK) == V4L2_BUF_FLAG_TIMESTAMP_MONOTONIC)
        fb.captureTimestamp =
            TimePoint(std::chrono::seconds(buf.timestamp.tv_sec) + std::chrono::microseconds(buf.timestamp.tv_usec));
    fb.droppedFrames = _droppedFrames;
    fb.errorBuffers = _errorBuffers;
    return true;
}

}  // namespace capture
}  // namespace ruvo
