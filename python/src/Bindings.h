// The pieces of the Python module, each registered by its own file.
#pragma once

#include <ruvo/capture/Frame.h>

#include <nanobind/nanobind.h>

#include <chrono>
#include <cmath>
#include <cstdint>

namespace ruvo {
namespace python {

// A timeout given in seconds from Python, rounded up to whole milliseconds.
inline std::chrono::milliseconds toMilliseconds(double seconds) {
    if (!(seconds >= 0.0) || !std::isfinite(seconds))
        throw nanobind::value_error("timeout must be a finite number >= 0");
    return std::chrono::milliseconds(static_cast<int64_t>(std::ceil(seconds * 1000.0)));
}

// Plane `index` of `frame`; IndexError past its last plane.
const capture::Plane& planeAt(const capture::Frame& frame, size_t index);

void bindControls(nanobind::module_& m);
void bindFrames(nanobind::module_& m);
void bindDevice(nanobind::module_& m);
void bindDiagnostics(nanobind::module_& m);
// The CUDA build only: Frame.cuda_planes, views for GPU consumers (added after bindFrames).
void bindCudaPlanes(nanobind::module_& m);

}  // namespace python
}  // namespace ruvo
