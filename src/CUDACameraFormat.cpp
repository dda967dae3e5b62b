// CUDACamera's raw format: the choice among the formats the driver offers (or the configured
// one), the S_FMT that asks for it, and the conversion of each delivered frame into the
// pipeline's input when the format is not the default sensor's own layout.
#include "CUDACamera.h"

#include "CUDAUtils.h"
#include "SensorControls.h"
#include "isp/RawUnpack.h"

#include <ruvo/capture/CaptureDeviceException.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>

namespace ruvo {
namespace capture {

// The driver's formats in its own order; a driver that lists none gives an empty list.
std::vector<uint32_t> CUDACamera::offeredFormats() {
    std::vector<uint32_t> codes;
    for (uint32_t index = 0;; ++index) {
        v4l2_fmtdesc desc{};
        desc.index = index;
        desc.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        if (xioctl(VIDIOC_ENUM_FMT, &desc) == -1) break;  // EINVAL past the last one
        codes.push_back(desc.pixelformat);
    }
    return codes;
}

// "pixelFormat": a named format as configured. Under "auto", SBGGR10 from a driver with the
// private channel-gain controls (the default sensor) is its 14-bit layout; otherwise the first
// offered format the pipeline converts. A driver that lists no formats is asked for the default.
sensor::PixelFormat CUDACamera::chooseRawFormat() {
    const std::vector<uint32_t> offered = _offeredFormats = offeredFormats();
    if (_params.pixelFormat != "auto") return sensor::parsePixelFormat(_params.pixelFormat, "pixelFormat");
    v4l2_queryctrl query{};
    query.id = sensor::CID_RED_GAIN;
    const bool privateControls = xioctl(VIDIOC_QUERYCTRL, &query) == 0;
    const bool offersDefault =
        std::find(offered.begin(), offered.end(), sensor::defaultLayoutFormat().fourcc) != offered.end();
    if (offered.empty() || (offersDefault && privateControls)) return sensor::defaultLayoutFormat();
    std::string names;
    for (uint32_t code : offered) {
        if (const sensor::PixelFormat* format = sensor::findBayerFormat(code)) return *format;
        names += (names.empty() ? "" : ", ") + sensor::fourccText(code);
    }
    throw CaptureDeviceException(_params.path + " offers no Bayer format the pipeline takes (" + names + ")");
}

// The formats the driver offers that the camera takes, and the one in use: as found at the last
// start while running, else asked of the device, opened for the purpose (a device that cannot
// be opened lists none); the sensor profile is settled against the device the same way.
void CUDACamera::describeFormats(Capabilities& capabilities) {
    sensor::PixelFormat chosen = _pixelFormat;
    if (!_isRunning && _fd == -1) {
        try {
            open_device();
        } catch (const CaptureDeviceException&) {
            return;
        }
        try {
            chosen = chooseRawFormat();
        } catch (const CaptureDeviceException&) {
            chosen = sensor::PixelFormat{};  // nothing the camera takes
        }
        try {
            resolveSensorProfile();
        } catch (const CaptureDeviceException&) {  // the profile as at the last start
        }
        close_device();
    }
    for (uint32_t code : _offeredFormats) {
        if (code == sensor::defaultLayoutFormat().fourcc || sensor::findBayerFormat(code))
            capabilities.pixelFormats.push_back(sensor::fourccText(code));
    }
    if (chosen.fourcc != 0)
        capabilities.pixelFormat = chosen.isDefaultLayout() ? "default" : sensor::fourccText(chosen.fourcc);
}

// Sets the chosen format at the configured size; the driver's answer comes back.
v4l2_format CUDACamera::negotiateFormat() {
    const sensor::PixelFormat wanted = chooseRawFormat();
    v4l2_format format{};
    format.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    format.fmt.pix.width = _controls.width;  // a size set through the controls applies at the next start
    format.fmt.pix.height = _controls.height;
    format.fmt.pix.pixelformat = wanted.fourcc;
    format.fmt.pix.field = V4L2_FIELD_NONE;
    if (xioctl(VIDIOC_S_FMT, &format) == -1)
        throw CaptureDeviceException(std::string("VIDIOC_S_FMT ") + std::strerror(errno));
    const sensor::PixelFormat* answered = sensor::findBayerFormat(format.fmt.pix.pixelformat);
    // Flips that change the Bayer order make the driver answer the same samples in another order.
    if (format.fmt.pix.pixelformat != wanted.fourcc && _profile.flipsModifyLayout && answered &&
        answered->layout.storage == wanted.layout.storage && answered->layout.bits == wanted.layout.bits) {
        _pixelFormat = *answered;
        return format;
    }
    if (format.fmt.pix.pixelformat != wanted.fourcc) {
        if (wanted.isDefaultLayout())
            throw CaptureDeviceException(
                _params.path + " does not support SBGGR10 format. Support for more formats need to be added!");
        throw CaptureDeviceException(_params.path + " does not support " + sensor::fourccText(wanted.fourcc) +
                                     " format");
    }
    _pixelFormat = wanted;
    return format;
}

// The managed memory a converted frame is delivered to (user pointers) or copied to (memory
// mapping), so that the conversion reads it on the device as well; it belongs to the bucket's
// stream, as the raw input does.
void CUDACamera::allocateDelivered(Bucket& bucket) {
    CUDABuffer& delivered = bucket.delivered;
    delivered.size = std::max(_sizeImage, _bytesPerLine * bucket.height);
    CUDA_CHECK(cudaMallocManaged(&delivered.host, delivered.size, cudaMemAttachGlobal));
    delivered.device = delivered.host;
    CUDA_CHECK(cudaStreamAttachMemAsync(bucket.stream, delivered.device, 0, cudaMemAttachSingle));
    CUDA_CHECK(cudaStreamSynchronize(bucket.stream));
}

// Brings a dequeued frame into the raw input: rows copied for the default layout (unless the
// driver wrote them there), or converted on the bucket's stream from the delivered format; then
// the levels the sensor could not apply.
void CUDACamera::copyIn(Bucket& bucket) const {
    const auto* source = static_cast<const unsigned char*>(bucket.v4l2.data);
    if (_pixelFormat.isDefaultLayout()) {
        if (bucket.v4l2.data == bucket.cudaIn.host) return applyLevels(bucket);  // written in place
        auto* destination = static_cast<unsigned char*>(bucket.cudaIn.host);
        const size_t row = static_cast<size_t>(bucket.width) * 2;
        for (uint32_t y = 0; y < bucket.height; ++y)
            std::memcpy(destination + y * row, source + static_cast<size_t>(y) * bucket.v4l2.stride, row);
    } else {
        if (bucket.v4l2.data != bucket.delivered.host)
            std::memcpy(bucket.delivered.host, source, static_cast<size_t>(bucket.v4l2.stride) * bucket.height);
        unpackRawFrame(bucket.stream, _pixelFormat.layout, bucket.delivered.device, bucket.v4l2.stride,
                       static_cast<uint16_t*>(bucket.cudaIn.device), bucket.width, bucket.height);
    }
    applyLevels(bucket);
}

// Black level and channel gains on the raw input, for a sensor that lacks those controls.
void CUDACamera::applyLevels(Bucket& bucket) const {
    kernels::RawLevels levels;
    if (rawLevels(levels))
        applyRawLevels(bucket.stream, levels, static_cast<uint16_t*>(bucket.cudaIn.device), bucket.width,
                       bucket.height);
}

}  // namespace capture
}  // namespace ruvo
