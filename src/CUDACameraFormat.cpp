// CUDACamera's raw format: the choice among the formats the driver offers (or the configured
// one), the S_FMT that asks for it, and the conversion of each delivered frame into the
// pipeline's input when the format is not the default sensor's own layout.
#include "CUDACamera.h"

#include "CUDAUtils.h"
#include "SensorControls.h"
#include "isp/LaunchGeometry.h"
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

namespace {

using ruvo::util::Dimensions;

// The largest size of a stepwise range whose sides are multiples of 16, or 0 x 0.
Dimensions largestTakenInRange(const v4l2_frmsize_stepwise& range) {
    const auto side = [](uint32_t low, uint32_t high, uint32_t step) -> uint32_t {
        if (step == 0) step = 1;
        for (uint32_t value = low + (high - low) / step * step; value >= low && value > 0; value -= step) {
            if (value % kernels::kSizeUnit == 0) return value;
            if (value < step) break;
        }
        return 0;
    };
    const uint32_t width = side(range.min_width, range.max_width, range.step_width);
    const uint32_t height = side(range.min_height, range.max_height, range.step_height);
    return width && height ? Dimensions(width, height) : Dimensions();
}

OfferedFrameSize offeredSize(const v4l2_frmsizeenum& entry) {
    OfferedFrameSize size;
    if (entry.type == V4L2_FRMSIZE_TYPE_DISCRETE) {
        size.min = size.max = Dimensions(entry.discrete.width, entry.discrete.height);
        const kernels::FrameCrop crop = kernels::cropToTakenSize(entry.discrete.width, entry.discrete.height);
        size.processed = Dimensions(crop.width, crop.height);
        return size;
    }
    const v4l2_frmsize_stepwise& range = entry.stepwise;
    size.min = Dimensions(range.min_width, range.min_height);
    size.max = Dimensions(range.max_width, range.max_height);
    size.step =
        entry.type == V4L2_FRMSIZE_TYPE_CONTINUOUS ? Dimensions(1, 1) : Dimensions(range.step_width, range.step_height);
    size.processed = largestTakenInRange(range);
    return size;
}

// The driver size to ask for a processed size: the size itself when the driver lists it (or
// lists no discrete sizes), else the first listed size whose centred crop it is.
Dimensions sensorSizeFor(const std::vector<OfferedFrameSize>& offered, Dimensions processed) {
    for (const OfferedFrameSize& size : offered) {
        if (size.step == Dimensions() && size.max == processed) return processed;
    }
    for (const OfferedFrameSize& size : offered) {
        if (size.step == Dimensions() && size.processed == processed) return size.max;
    }
    return processed;
}

}  // namespace

// Whether the driver gives frames of the processed size: a listed size or its crop, or a size of
// a listed range; true when the driver lists no sizes (only a start can tell).
bool CUDACamera::driverGives(uint32_t width, uint32_t height) const {
    const Dimensions processed(width, height);
    const auto inRange = [](uint32_t value, uint32_t low, uint32_t high, uint32_t step) {
        return value >= low && value <= high && (step == 0 || (value - low) % step == 0);
    };
    for (const OfferedFrameSize& size : _offeredSizes) {
        if (size.step == Dimensions() ? size.max == processed || size.processed == processed
                                      : inRange(width, size.min.width, size.max.width, size.step.width) &&
                                            inRange(height, size.min.height, size.max.height, size.step.height))
            return true;
    }
    return _offeredSizes.empty();
}

// The frame sizes the driver lists for `fourcc`, in its order; a range is its only entry.
std::vector<OfferedFrameSize> CUDACamera::offeredSizes(uint32_t fourcc) {
    std::vector<OfferedFrameSize> sizes;
    for (uint32_t index = 0;; ++index) {
        v4l2_frmsizeenum entry{};
        entry.index = index;
        entry.pixel_format = fourcc;
        if (xioctl(VIDIOC_ENUM_FRAMESIZES, &entry) == -1) break;  // EINVAL past the last one
        sizes.push_back(offeredSize(entry));
        if (entry.type != V4L2_FRMSIZE_TYPE_DISCRETE) break;
    }
    return sizes;
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
            _offeredSizes = offeredSizes(chosen.fourcc);
        } catch (const CaptureDeviceException&) {
            chosen = sensor::PixelFormat{};  // nothing the camera takes
            _offeredSizes.clear();
        }
        try {
            resolveSensorProfile();
        } catch (const CaptureDeviceException&) {  // the profile as at the last start
        }
        close_device();
    }
    capabilities.frameSizes = _offeredSizes;
    for (uint32_t code : _offeredFormats) {
        if (code == sensor::defaultLayoutFormat().fourcc || sensor::findBayerFormat(code))
            capabilities.pixelFormats.push_back(sensor::fourccText(code));
    }
    if (chosen.fourcc != 0)
        capabilities.pixelFormat = chosen.isDefaultLayout() ? "default" : sensor::fourccText(chosen.fourcc);
}

// Sets the chosen format at the driver size that gives the configured size (itself, or a larger
// one it is the centred crop of); the driver's answer comes back, and the crop that it needs.
v4l2_format CUDACamera::negotiateFormat() {
    const sensor::PixelFormat wanted = chooseRawFormat();
    _offeredSizes = offeredSizes(wanted.fourcc);
    // A size set through the controls applies at the next start.
    const Dimensions asked = sensorSizeFor(_offeredSizes, Dimensions(_controls.width, _controls.height));
    v4l2_format format{};
    format.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    format.fmt.pix.width = asked.width;
    format.fmt.pix.height = asked.height;
    format.fmt.pix.pixelformat = wanted.fourcc;
    format.fmt.pix.field = V4L2_FIELD_NONE;
    if (xioctl(VIDIOC_S_FMT, &format) == -1)
        throw CaptureDeviceException(std::string("VIDIOC_S_FMT ") + std::strerror(errno));
    _crop = kernels::cropToTakenSize(format.fmt.pix.width, format.fmt.pix.height);
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
// driver wrote them there), or converted on the bucket's stream from the delivered format, a
// cropped frame from its crop's first sample; then the levels the sensor could not apply.
void CUDACamera::copyIn(Bucket& bucket) const {
    const size_t cropOffset = static_cast<size_t>(_crop.top) * bucket.v4l2.stride + _pixelFormat.rowBytes(_crop.left);
    const auto* source = static_cast<const unsigned char*>(bucket.v4l2.data) + cropOffset;
    if (_pixelFormat.isDefaultLayout()) {
        if (bucket.v4l2.data == bucket.cudaIn.host) return applyLevels(bucket);  // written in place, never cropped
        auto* destination = static_cast<unsigned char*>(bucket.cudaIn.host);
        const size_t row = static_cast<size_t>(bucket.width) * 2;
        for (uint32_t y = 0; y < bucket.height; ++y)
            std::memcpy(destination + y * row, source + static_cast<size_t>(y) * bucket.v4l2.stride, row);
    } else {
        if (bucket.v4l2.data != bucket.delivered.host)
            std::memcpy(bucket.delivered.host, bucket.v4l2.data,
                        static_cast<size_t>(bucket.v4l2.stride) * (_crop.top + bucket.height));
        unpackRawFrame(bucket.stream, _pixelFormat.layout,
                       static_cast<const unsigned char*>(bucket.delivered.device) + cropOffset, bucket.v4l2.stride,
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
