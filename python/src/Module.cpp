// The native module ruvo_capture._core: library exceptions become Python exceptions with the
// library's message, then each part registers its classes.
#include "Bindings.h"

#include <ruvo/capture/CaptureDeviceException.h>

#include <Poco/Exception.h>

namespace nb = nanobind;

NB_MODULE(_core, m) {
    m.doc() = "Native part of ruvo_capture: devices, frames and controls.";
    // Frames kept in module globals at interpreter exit are not an error worth a report.
    nb::set_leak_warnings(false);
    static nb::exception<ruvo::capture::CaptureDeviceException> captureError(m, "CaptureError", PyExc_RuntimeError);
    nb::register_exception_translator([](const std::exception_ptr& p, void*) {
        try {
            std::rethrow_exception(p);
        } catch (const Poco::Exception& e) {
            // A configuration value that does not parse or a key that is missing is bad input.
            const bool badInput = dynamic_cast<const Poco::SyntaxException*>(&e) != nullptr ||
                                  dynamic_cast<const Poco::InvalidArgumentException*>(&e) != nullptr ||
                                  dynamic_cast<const Poco::NotFoundException*>(&e) != nullptr;
            PyErr_SetString(badInput ? PyExc_ValueError : PyExc_RuntimeError, e.displayText().c_str());
        }
    });
    ruvo::python::bindControls(m);
    ruvo::python::bindFrames(m);
#ifdef RUVO_CUDA_BUILD
    ruvo::python::bindCudaPlanes(m);
    m.attr("CUDA_BUILD") = true;
#else
    m.attr("CUDA_BUILD") = false;  // planes are NumPy views only
#endif
    ruvo::python::bindDevice(m);
    ruvo::python::bindDiagnostics(m);
}
