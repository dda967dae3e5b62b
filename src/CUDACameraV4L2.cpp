// CUDACamera's V4L2 steps: open, format negotiation, queueing the buckets and streaming, the
// metering rectangle and flips, and the control accessors. Every request goes through
// xioctl and the camera's DeviceIo.
#include "CUDACamera.h"

#include "SensorControls.h"

#include <ruvo/capture/CaptureDeviceException.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <cerrno>
#include <cstring>
#include <string>

namespace ruvo {
namespace capture {

namespace {

std::string errnoText(int error) { return std::strerror(error); }

}  // namespace

int CUDACamera::xioctl(unsigned long request, void* argument) {
    int result;
    do {
        result = _io->ioctl(_fd, request, argument);
    } while (result == -1 && errno == EINTR);
    return result;
}

void CUDACamera::open_device() {
    struct ::stat status {};
    if (_io->stat(_params.path, &status) == -1) {
        const int error = errno;
        throw CaptureDeviceException("Cannot identify \"" + _params.path + "\" (" + std::to_string(error) +
                                     "): " + errnoText(error));
    }
    if (!S_ISCHR(status.st_mode)) throw CaptureDeviceException("Not a device: \"" + _params.path + "\"");
    _fd = _io->open(_params.path, O_RDWR | O_NONBLOCK);
    if (_fd == -1) {
        const int error = errno;
        throw CaptureDeviceException("Cannot open \"" + _params.path + "\" (" + std::to_string(error) +
                                     "): " + errnoText(error));
    }
}

void CUDACamera::init_device() {
    v4l2_capability capability{};
    if (xioctl(VIDIOC_QUERYCAP, &capability) == -1) {
        if (errno == EINVAL) throw CaptureDeviceException(_params.path + " is not a V4L2 device");
        throw CaptureDeviceException("VIDIOC_QUERYCAP");
    }
    // The node's own abilities; `capabilities` covers every node of the physical device.
    const uint32_t caps =
        (capability.capabilities & V4L2_CAP_DEVICE_CAPS) ? capability.device_caps : capability.capabilities;
    if (!(caps & V4L2_CAP_VIDEO_CAPTURE)) {
        throw CaptureDeviceException(_params.path + " is not a video capture device");
    }
    if (!(caps & V4L2_CAP_STREAMING)) {
        throw CaptureDeviceException(_params.path + " does not support streaming i/o");
    }
    resolveSensorProfile();
    // Flips that change the Bayer order are set first: the format negotiated after them says the order.
    if (_profile.flipsBeforeStreaming) applyFlips();
    const v4l2_format format = negotiateFormat();
    // The driver's size, or the one it answered, must give the configured size as it is or as its
    // centred crop; a size the pipeline does not take is refused whatever the driver says.
    if (!kernels::takesFrameSize(_controls.width, _controls.height) || _crop.width != _controls.width ||
        _crop.height != _controls.height) {
        throw CaptureDeviceException("Unsupported resolution: " + std::to_string(_controls.width) + "x" +
                                     std::to_string(_controls.height));
    }
    resolveLineTime(format.fmt.pix.width);
    // Rows may be padded; the image may need more than its rows.
    _bytesPerLine = format.fmt.pix.bytesperline;
    _sizeImage = format.fmt.pix.sizeimage;
    if (_bytesPerLine < _pixelFormat.rowBytes(format.fmt.pix.width) ||
        _sizeImage < static_cast<uint64_t>(_bytesPerLine) * format.fmt.pix.height) {
        throw CaptureDeviceException(_params.path + " reports " + std::to_string(_bytesPerLine) +
                                     " bytes per line and " + std::to_string(_sizeImage) +
                                     " bytes per image, too few for the frame");
    }
    init_mem();
}

void CUDACamera::start_capturing() {
    for (Bucket& bucket : _buckets) {
        if (bucket.status != Bucket::INVALID) queueBuffer(bucket, "Start Capturing: VIDIOC_QBUF: ");
    }
    _nextSequence = -1;
    _droppedFrames = 0;
    _errorBuffers = 0;
    v4l2_buf_type type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    if (xioctl(VIDIOC_STREAMON, &type) == -1) throw CaptureDeviceException("VIDIOC_STREAMON");
    _isRunning = true;

    resetSensorControls();
    if (!_profile.flipsBeforeStreaming) applyFlips();
    if (!_controls.ae.regions.empty()) programMeteringRectangle(_controls.ae.regions);

    _currExpGain = _profile.gain.toGain(getControl(_profile.gainControl));
    _currBlueGain = static_cast<float>(readChannelGain(sensor::CID_BLUE_GAIN));
    _currRedGain = static_cast<float>(readChannelGain(sensor::CID_RED_GAIN));
}

void CUDACamera::stop_capturing() {
    v4l2_buf_type type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    if (xioctl(VIDIOC_STREAMOFF, &type) == -1) throw CaptureDeviceException("VIDIOC_STREAMOFF");
    _isRunning = false;
}

void CUDACamera::close_device() {
    if (_io->close(_fd) == -1) throw CaptureDeviceException("Failed to close device");
    _fd = -1;
}

// The metering rectangle from the first region; an empty rectangle meters with width and
// height 0, the rectangle being switched on all the same.
// A sensor without the metering window gets nothing; the first region asked for is logged once.
void CUDACamera::programMeteringRectangle(const std::vector<ruvo::util::WeightedRegion>& regions) {
    if (!_profile.meteringWindow) {
        if (!regions.empty() && !_meteringWindowLogged) {
            _logger.information(_params.name +
                                ": the sensor has no metering window; metering regions are not written to it");
            _meteringWindowLogged = true;
        }
        return;
    }
    if (regions.empty()) {
        setControl(sensor::CID_METER_ENABLE, 0);
        for (uint32_t id :
             {sensor::CID_METER_LEFT, sensor::CID_METER_TOP, sensor::CID_METER_WIDTH, sensor::CID_METER_HEIGHT}) {
            setControl(id, 0);
        }
        return;
    }
    const dlib::rectangle& rect = regions.front().rect;
    setControl(sensor::CID_METER_ENABLE, 1);
    // The sensor meters its own image: a cropped frame's region lies that much further in.
    setControl(sensor::CID_METER_LEFT, static_cast<int32_t>(rect.left() + _crop.left));
    setControl(sensor::CID_METER_TOP, static_cast<int32_t>(rect.top() + _crop.top));
    const bool empty = rect.top() > rect.bottom() || rect.right() < rect.left();
    setControl(sensor::CID_METER_WIDTH, empty ? 0 : static_cast<int32_t>(rect.right() - rect.left() + 1));
    setControl(sensor::CID_METER_HEIGHT, empty ? 0 : static_cast<int32_t>(rect.bottom() - rect.top() + 1));
}

void CUDACamera::applyFlips() {
    setControl(sensor::CID_VFLIP, _controls.vFlip);
    setControl(sensor::CID_HFLIP, _controls.hFlip);
}

v4l2_queryctrl CUDACamera::queryControl(uint32_t id) {
    v4l2_queryctrl query{};
    query.id = id;
    if (xioctl(VIDIOC_QUERYCTRL, &query) == -1) throw CaptureDeviceException("VIDIOC_QUERYCTRL");
    return query;
}

int32_t CUDACamera::getControl(uint32_t id) {
    v4l2_control control{};
    control.id = id;
    if (xioctl(VIDIOC_G_CTRL, &control) == -1) throw CaptureDeviceException("VIDIOC_G_CTRL " + errnoText(errno));
    return control.value;
}

void CUDACamera::setControl(uint32_t id, int32_t value) {
    v4l2_control control{};
    control.id = id;
    control.value = value;
    if (xioctl(VIDIOC_S_CTRL, &control) == -1) throw CaptureDeviceException("VIDIOC_S_CTRL " + errnoText(errno));
}

}  // namespace capture
}  // namespace ruvo
