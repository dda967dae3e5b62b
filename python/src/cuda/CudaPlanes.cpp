// The CUDA build's planes for GPU consumers. A frame's planes live in CUDA managed memory, so
// besides the NumPy views (host access) each plane is offered to GPU array libraries without a
// copy: Frame.cuda_planes gives one CudaPlane per plane, exposing __cuda_array_interface__
// (version 3) and DLPack (__dlpack__, __dlpack_device__ as kDLCUDAManaged). A CudaPlane holds
// its Python frame, so the buffer stays out of the camera's pool while any consumer's array
// made from it is alive.
//
// Stream semantics: a frame is delivered only after its bucket's stream has completed every
// kernel that writes it, and the library does not write the buffer again until the frame is
// released. The interface's "stream" is therefore None (nothing to wait for), and __dlpack__
// accepts any consumer stream without synchronising. The consumer, in turn, must have finished
// its own work on the plane (synchronised its stream) before it drops the last reference.
#include "Bindings.h"
#include "FrameLayout.h"
#include "PyFrame.h"

#include <cuda_runtime.h>

#include <nanobind/ndarray.h>
#include <nanobind/stl/pair.h>

#include <string>

namespace nb = nanobind;

namespace ruvo {
namespace python {
namespace {

// DLPack device types a plane can be exported as: the memory is managed, so it is equally a
// device pointer (kDLCUDA) and, once the producing stream has completed, a host one (kDLCPU).
constexpr int kDLCPU = 1;
constexpr int kDLCUDA = 2;
constexpr int kDLCUDAManaged = 13;

class CudaPlane {
public:
    CudaPlane(nb::object frame, size_t index) : _frame(std::move(frame)) {
        const capture::Frame& f = *nb::cast<const PyFrame&>(_frame).frame;
        const capture::Plane& plane = planeAt(f, index);
        _data = plane.data;
        _shape = planeShape(f, plane);
        cudaPointerAttributes attributes{};
        const cudaError_t status = cudaPointerGetAttributes(&attributes, _data);
        if (status != cudaSuccess) {
            cudaGetLastError();  // clear the sticky error of the failed query
            throw nb::value_error(
                ("plane " + std::to_string(index) + " is not CUDA memory: " + cudaGetErrorString(status)).c_str());
        }
        _device = attributes.device;
    }

    size_t itemSize() const { return _shape.counts ? sizeof(int32_t) : 1; }

    nb::tuple shape() const {
        nb::list dims;
        for (size_t i = 0; i < _shape.ndim; ++i) dims.append(_shape.shape[i]);
        return nb::tuple(dims);
    }

    // Byte strides, as the array interface gives them.
    nb::tuple byteStrides() const {
        nb::list strides;
        for (size_t i = 0; i < _shape.ndim; ++i) strides.append(_shape.strides[i] * static_cast<int64_t>(itemSize()));
        return nb::tuple(strides);
    }

    nb::dict arrayInterface() const {
        nb::dict d;
        d["shape"] = shape();
        d["typestr"] = _shape.counts ? "<i4" : "|u1";
        d["data"] = nb::make_tuple(reinterpret_cast<uintptr_t>(_data), true);  // read-only
        d["strides"] = byteStrides();
        d["version"] = 3;
        d["stream"] = nb::none();  // complete at delivery: nothing to wait for
        return d;
    }

    // An ndarray of the plane as `deviceType`, owned by the frame, exported by nanobind's own
    // DLPack implementation (versioned capsules, read-only flag, copy=True refused).
    nb::object dlpack(nb::kwargs kwargs) const {
        int deviceType = kDLCUDAManaged;
        if (kwargs.contains("dl_device") && !kwargs["dl_device"].is_none()) {
            const auto requested = nb::cast<std::pair<int, int>>(kwargs["dl_device"]);
            const bool exportable = requested.first == kDLCUDAManaged || requested.first == kDLCUDA ||
                                    (requested.first == kDLCPU && requested.second == 0);
            if (!exportable || (requested.first != kDLCPU && requested.second != _device)) {
                PyErr_SetString(PyExc_BufferError,
                                ("a plane in managed memory of CUDA device " + std::to_string(_device) +
                                 " cannot be exported to device (" + std::to_string(requested.first) + ", " +
                                 std::to_string(requested.second) + ")")
                                    .c_str());
                throw nb::python_error();
            }
            deviceType = requested.first;
            kwargs["dl_device"] = nb::none();
        }
        const nb::dlpack::dtype dtype = _shape.counts ? nb::dtype<int32_t>() : nb::dtype<uint8_t>();
        nb::ndarray<nb::ro> array(_data, _shape.ndim, _shape.shape, _frame, _shape.strides, dtype, deviceType,
                                  deviceType == kDLCPU ? 0 : _device);
        nb::object exported = nb::cast(array);
        // A nanobind release that casts an ndarray without a framework to the DLPack capsule itself
        // has already exported it (unversioned, without the read-only flag).
        if (PyCapsule_CheckExact(exported.ptr())) return exported;
        return exported.attr("__dlpack__")(**kwargs);
    }

    nb::tuple dlpackDevice() const { return nb::make_tuple(kDLCUDAManaged, _device); }
    const nb::object& frame() const { return _frame; }

private:
    nb::object _frame;
    const uint8_t* _data = nullptr;
    PlaneShape _shape;
    int _device = 0;
};

}  // namespace

void bindCudaPlanes(nb::module_& m) {
    nb::class_<CudaPlane>(m, "CudaPlane",
                          "One plane of a frame for GPU array libraries, without a copy: "
                          "__cuda_array_interface__ (version 3, stream None: the plane is complete when the frame "
                          "is delivered) and DLPack as CUDA managed memory (also exported as kDLCUDA or kDLCPU when "
                          "the consumer asks for that device). Read-only. It keeps its frame alive; synchronise "
                          "your stream before dropping the last array made from it.")
        .def_prop_ro("__cuda_array_interface__", &CudaPlane::arrayInterface)
        .def("__dlpack__", &CudaPlane::dlpack)
        .def("__dlpack_device__", &CudaPlane::dlpackDevice)
        .def_prop_ro("shape", &CudaPlane::shape)
        .def_prop_ro("strides", &CudaPlane::byteStrides, "Byte strides.")
        .def_prop_ro("frame", &CudaPlane::frame, "The frame this plane belongs to.");

    nb::object frameType = m.attr("Frame");
    nb::object property = nb::module_::import_("builtins").attr("property");
    frameType.attr("cuda_planes") =
        property(nb::cpp_function(
                     [](nb::object self) {
                         const size_t count = planeCount(*nb::cast<const PyFrame&>(self).frame);
                         nb::list planes;
                         for (size_t i = 0; i < count; ++i) planes.append(nb::cast(CudaPlane(self, i)));
                         return nb::tuple(planes);
                     },
                     nb::is_method()),
                 nb::none(), nb::none(),
                 "The planes for GPU array libraries (CudaPlane: __cuda_array_interface__ and DLPack), one per plane "
                 "as in `planes`. The CUDA build only.");
}

}  // namespace python
}  // namespace ruvo
