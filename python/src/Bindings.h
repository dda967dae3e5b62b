// The pieces of the Python module, each registered by its own file.
#pragma once

#include <nanobind/nanobind.h>

namespace ruvo {
namespace python {

void bindControls(nanobind::module_& m);
void bindFrames(nanobind::module_& m);
void bindDevice(nanobind::module_& m);
void bindDiagnostics(nanobind::module_& m);

}  // namespace python
}  // namespace ruvo
