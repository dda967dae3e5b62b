// A delivered frame as Python sees it: the library's frame, shared, and the Python device object
// it came from, so that the device (and the memory the planes point into) outlives every frame
// and every view of one.
#pragma once

#include <ruvo/capture/Frame.h>

#include <nanobind/nanobind.h>

#include <memory>

namespace ruvo {
namespace python {

struct PyFrame {
    std::shared_ptr<capture::Frame> frame;
    nanobind::object device;
};

}  // namespace python
}  // namespace ruvo
