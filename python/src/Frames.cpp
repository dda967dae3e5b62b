// Frames and their zero-copy views. Every view is a read-only NumPy array over the frame's own
// plane memory whose owner is the Python frame object, so a view keeps the frame (and its output
// buffer) alive and lends nothing the library could reuse underneath it.
#include "Bindings.h"
#include "FrameLayout.h"
#include "ImagePacking.h"
#include "PyFrame.h"

#include <nanobind/ndarray.h>
#include <nanobind/stl/array.h>
#include <nanobind/stl/string.h>
#include <nanobind/stl/vector.h>

#include <cstring>
#include <stdexcept>

namespace nb = nanobind;
using ruvo::capture::Frame;

namespace ruvo {
namespace python {
namespace {

using ByteView = nb::ndarray<nb::numpy, const uint8_t>;
using CountView = nb::ndarray<nb::numpy, const int32_t>;
using ByteBuffer = nb::ndarray<uint8_t, nb::ndim<1>, nb::c_contig, nb::device::cpu>;

// The view of plane `index` owned by `owner`, the Python frame.
nb::object planeView(const Frame& frame, size_t index, nb::handle owner) {
    const capture::Plane& plane = planeAt(frame, index);
    const PlaneShape s = planeShape(frame, plane);
    if (s.counts) return nb::cast(CountView(plane.data, s.ndim, s.shape, owner, s.strides));
    return nb::cast(ByteView(plane.data, s.ndim, s.shape, owner, s.strides));
}

// An owned, packed copy of plane `index`, rows copied one by one (the stride is dropped).
nb::object planeCopy(const Frame& frame, size_t index) {
    const capture::Plane& plane = planeAt(frame, index);
    const bool histogram = frame.format == Frame::HISTOGRAM8;
    const size_t rowBytes = histogram ? kHistogramBins * sizeof(int32_t) : plane.width * channels(frame.format);
    const size_t rows = histogram ? 1 : plane.height;
    auto* bytes = new uint8_t[rowBytes * rows];
    const size_t pitch = histogram ? rowBytes : static_cast<size_t>(rowPitch(frame, plane));
    for (size_t y = 0; y < rows; ++y) std::memcpy(bytes + y * rowBytes, plane.data + y * pitch, rowBytes);
    nb::capsule free(bytes, [](void* p) noexcept { delete[] static_cast<uint8_t*>(p); });
    if (histogram) return nb::cast(nb::ndarray<nb::numpy, int32_t>(bytes, {kHistogramBins}, free));
    if (channels(frame.format) == 3) {
        return nb::cast(nb::ndarray<nb::numpy, uint8_t>(bytes, {plane.height, plane.width, 3}, free));
    }
    return nb::cast(nb::ndarray<nb::numpy, uint8_t>(bytes, {plane.height, plane.width}, free));
}

// Packs the frame's image into `out` with the GIL released: the frame and the buffer are held by
// the caller's references for the whole call.
void packInto(const Frame& frame, ByteBuffer out, const std::string& encoding) {
    const PackedLayout layout = packedLayout(frame, encoding);
    if (out.size() < layout.bytes) {
        throw nb::value_error(("a buffer of " + std::to_string(out.size()) + " bytes cannot take the " +
                               std::to_string(layout.bytes) + " bytes of the \"" + encoding + "\" image")
                                  .c_str());
    }
    nb::gil_scoped_release release;
    packImage(frame, encoding, out.data());
}

nb::tuple rect(const dlib::rectangle& r) { return nb::make_tuple(r.left(), r.top(), r.right(), r.bottom()); }

nb::dict feedback(const capture::Feedback& f) {
    nb::dict d;
    d["exposure_time"] = f.autoExposureTime;
    d["gain"] = f.autoExposureGain;
    d["white_balance_gains"] = f.autoWhiteBalanceGains;
    d["luminance"] = f.luminance;
    nb::list ae, awb;
    for (const auto& r : f.autoExposureRegions) ae.append(nb::make_tuple(rect(r.rect), r.weight));
    for (const auto& r : f.autoWhiteBalanceRegions) awb.append(nb::make_tuple(rect(r.rect), r.weight));
    d["exposure_regions"] = ae;
    d["white_balance_regions"] = awb;
    return d;
}

const Frame& get(const PyFrame& f) { return *f.frame; }

}  // namespace

const capture::Plane& planeAt(const Frame& frame, size_t index) {
    if (index >= planeCount(frame)) {
        throw nb::index_error(
            ("plane " + std::to_string(index) + " of a frame with " + std::to_string(planeCount(frame)) + " planes")
                .c_str());
    }
    return frame.planes[index];
}

void bindFrames(nb::module_& m) {
    nb::enum_<Frame::Format>(m, "Format", nb::is_arithmetic(), "Pixel format of an output buffer.")
        .value("INVALID", Frame::INVALID)
        .value("Y8", Frame::Y8)
        .value("YUYV", Frame::YUYV)
        .value("YUV420p", Frame::YUV420p)
        .value("BGR24", Frame::BGR24)
        .value("RGB24", Frame::RGB24)
        .value("SBGGR10", Frame::SBGGR10)
        .value("HISTOGRAM8", Frame::HISTOGRAM8);
    nb::enum_<Frame::OutputType>(m, "OutputType", nb::is_arithmetic(), "What an output buffer shows.")
        .value("COLOR", Frame::COLOR)
        .value("SKIN", Frame::SKIN)
        .value("SKIN_Y", Frame::SKIN_Y)
        .value("SKIN_HISTOGRAM", Frame::SKIN_HISTOGRAM)
        .value("BAYER", Frame::BAYER)
        .value("MOTION", Frame::MOTION)
        .value("GRADIENT_X", Frame::GRADIENT_X)
        .value("GRADIENT_Y", Frame::GRADIENT_Y)
        .value("GRADIENT_MAG", Frame::GRADIENT_MAG)
        .value("GRADIENT_ORIENTATION", Frame::GRADIENT_ORIENTATION);
    nb::enum_<Frame::OutputLevel>(m, "OutputLevel", nb::is_arithmetic(), "Pyramid level of an output buffer.")
        .value("NOT_APPLICABLE", Frame::NOT_APPLICABLE)
        .value("SUBIMAGE", Frame::SUBIMAGE)
        .value("ORIGINAL", Frame::ORIGINAL)
        .value("HALF", Frame::HALF)
        .value("QUARTER", Frame::QUARTER)
        .value("EIGHTH", Frame::EIGHTH)
        .value("SIXTEENTH", Frame::SIXTEENTH);

    nb::class_<PyFrame>(m, "Frame",
                        "One processed output buffer of one camera. Its planes are views of the library's "
                        "memory: the buffer goes back to the camera only when the frame and every view of it "
                        "are gone, so copy() whatever is kept beyond the next few batches.")
        .def_prop_ro("camera_id", [](const PyFrame& f) { return get(f).cameraId; })
        .def_prop_ro("frame_id", [](const PyFrame& f) { return get(f).frameId; })
        .def_prop_ro("batch_id", [](const PyFrame& f) { return get(f).batchId; })
        .def_prop_ro("batch_index", [](const PyFrame& f) { return get(f).batchIndex; })
        .def_prop_ro("output_type", [](const PyFrame& f) { return get(f).outputTypeId; })
        .def_prop_ro("level", [](const PyFrame& f) { return get(f).outputLevelId; })
        .def_prop_ro("format", [](const PyFrame& f) { return get(f).format; })
        .def_prop_ro("width", [](const PyFrame& f) { return get(f).width; })
        .def_prop_ro("height", [](const PyFrame& f) { return get(f).height; })
        .def_prop_ro(
            "stride", [](const PyFrame& f) { return rowPitch(get(f), get(f).planes[0]); }, "Bytes per row of plane 0.")
        .def_prop_ro(
            "timestamp_ns", [](const PyFrame& f) { return get(f).timestamp.time_since_epoch().count(); },
            "Capture time on the steady clock (time.monotonic_ns), nanoseconds.")
        .def_prop_ro(
            "feedback", [](const PyFrame& f) { return feedback(get(f).feedback); },
            "Exposure time (s), gain, white-balance gains (R, G, G, B), luminance and metering regions.")
        .def_prop_ro("plane_count", [](const PyFrame& f) { return planeCount(get(f)); })
        .def(
            "plane_address",
            [](const PyFrame& f, size_t i) { return reinterpret_cast<uintptr_t>(planeAt(get(f), i).data); },
            "Address of the first byte of plane `i` in the library's memory.")
        .def(
            "plane", [](nb::handle self, size_t i) { return planeView(get(nb::cast<const PyFrame&>(self)), i, self); },
            "Read-only zero-copy view of plane `i`: (H, W) bytes, (H, W, 3) for RGB24/BGR24, (256,) int32 for "
            "the histogram. The view keeps the frame alive.")
        .def_prop_ro(
            "planes",
            [](nb::handle self) {
                const Frame& frame = get(nb::cast<const PyFrame&>(self));
                nb::list views;
                for (size_t i = 0; i < planeCount(frame); ++i) views.append(planeView(frame, i, self));
                return nb::tuple(views);
            },
            "Views of every plane: (Y, U, V) for YUV420p, one view otherwise.")
        .def_prop_ro(
            "array", [](nb::handle self) { return planeView(get(nb::cast<const PyFrame&>(self)), 0, self); },
            "The view of plane 0 (the luma plane of YUV420p).")
        .def(
            "copy",
            [](const PyFrame& f) {
                nb::list copies;
                for (size_t i = 0; i < planeCount(get(f)); ++i) copies.append(planeCopy(get(f), i));
                return nb::tuple(copies);
            },
            "Owned, packed copies of every plane, independent of the library's buffers.")
        .def(
            "image_layout",
            [](const PyFrame& f, const std::string& encoding) {
                const PackedLayout layout = packedLayout(get(f), encoding);
                return nb::make_tuple(layout.step, layout.bytes);
            },
            nb::arg("encoding"),
            "(row bytes, total bytes) of the frame's image packed as `encoding`: \"mono8\" (Y8), \"rgb8\" (RGB24, "
            "or YUV420p converted as the capture tool converts it), \"bgr8\" (BGR24) or \"nv12\" (YUV420p). "
            "ValueError when the frame has no such image.")
        .def(
            "pack_into",
            [](const PyFrame& f, ByteBuffer out, const std::string& encoding) { packInto(get(f), out, encoding); },
            nb::arg("out"), nb::arg("encoding"),
            "Writes the image packed as `encoding` (see image_layout) into the start of `out`, a writable byte "
            "buffer such as a bytearray, with the GIL released.")
        .def("__repr__", [](const PyFrame& f) {
            const Frame& frame = get(f);
            return "<Frame camera " + std::to_string(frame.cameraId) + " buffer " + std::to_string(frame.batchIndex) +
                   " " + std::to_string(frame.width) + "x" + std::to_string(frame.height) + " id " +
                   std::to_string(frame.frameId) + ">";
        });
}

}  // namespace python
}  // namespace ruvo
