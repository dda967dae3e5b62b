// Controls as Python objects with the fields of the library's record; regions as
// ((left, top, right, bottom), weight) with right and bottom inclusive.
#include "Bindings.h"

#include <ruvo/capture/Frame.h>

#include <nanobind/stl/string.h>
#include <nanobind/stl/tuple.h>
#include <nanobind/stl/vector.h>

#include <tuple>

namespace nb = nanobind;
using namespace ruvo::capture;
using ruvo::util::WeightedRegion;

namespace ruvo {
namespace python {
namespace {

using RegionTuple = std::tuple<std::tuple<long, long, long, long>, float>;

std::vector<RegionTuple> toTuples(const std::vector<WeightedRegion>& regions) {
    std::vector<RegionTuple> out;
    for (const auto& r : regions)
        out.emplace_back(std::make_tuple(r.rect.left(), r.rect.top(), r.rect.right(), r.rect.bottom()), r.weight);
    return out;
}

std::vector<WeightedRegion> fromTuples(const std::vector<RegionTuple>& tuples) {
    std::vector<WeightedRegion> out;
    for (const auto& [rect, weight] : tuples) {
        const auto& [left, top, right, bottom] = rect;
        out.emplace_back(dlib::rectangle(left, top, right, bottom), weight);
    }
    return out;
}

// A read-write property for a vector of regions held in member `field` of `T`.
template <typename T>
void regions(nb::class_<T>& cls, const char* name, std::vector<WeightedRegion> T::*field) {
    cls.def_prop_rw(
        name, [field](const T& t) { return toTuples(t.*field); },
        [field](T& t, const std::vector<RegionTuple>& v) { t.*field = fromTuples(v); });
}

}  // namespace

void bindControls(nb::module_& m) {
    nb::class_<OutputBufferDefinition>(m, "OutputBuffer", "One output buffer of an output configuration.")
        .def(nb::init<>())
        .def_rw("format", &OutputBufferDefinition::format)
        .def_rw("output_type", &OutputBufferDefinition::outputType)
        .def_rw("level", &OutputBufferDefinition::outputLevel)
        .def("__eq__", [](const OutputBufferDefinition& a, const OutputBufferDefinition& b) { return a == b; });

    nb::class_<Controls::AutoWhiteBalance> awb(m, "WhiteBalance", "White-balance controls; gains are linear factors.");
    awb.def(nb::init<>())
        .def_rw("lock", &Controls::AutoWhiteBalance::lock)
        .def_rw("manual", &Controls::AutoWhiteBalance::manual)
        .def_rw("gamma_red", &Controls::AutoWhiteBalance::gammaRed)
        .def_rw("gamma_green", &Controls::AutoWhiteBalance::gammaGreen)
        .def_rw("gamma_blue", &Controls::AutoWhiteBalance::gammaBlue)
        .def_rw("gamma_cr", &Controls::AutoWhiteBalance::gammaCr)
        .def_rw("gamma_cb", &Controls::AutoWhiteBalance::gammaCb)
        .def_rw("manual_red_gain", &Controls::AutoWhiteBalance::manualRedGain)
        .def_rw("manual_green_gain", &Controls::AutoWhiteBalance::manualGreenGain)
        .def_rw("manual_blue_gain", &Controls::AutoWhiteBalance::manualBlueGain);
    regions(awb, "regions", &Controls::AutoWhiteBalance::regions);

    nb::class_<Controls::AutoExposure> ae(m, "Exposure", "Exposure controls; times in seconds, gain a linear factor.");
    ae.def(nb::init<>())
        .def_rw("lock", &Controls::AutoExposure::lock)
        .def_rw("manual", &Controls::AutoExposure::manual)
        .def_rw("manual_exposure", &Controls::AutoExposure::manualExposure)
        .def_rw("manual_gain", &Controls::AutoExposure::manualGain)
        .def_rw("ev", &Controls::AutoExposure::ev)
        .def_rw("target_y", &Controls::AutoExposure::targetY)
        .def_rw("manual_mode", &Controls::AutoExposure::manualMode)
        .def_prop_rw(
            "time", [](const Controls::AutoExposure& a) { return std::make_tuple(a.time.low(), a.time.high()); },
            [](Controls::AutoExposure& a, std::tuple<float, float> t) {
                a.time = util::Range<float>(std::get<0>(t), std::get<1>(t));
            },
            "Permitted exposure time (low, high), seconds.");
    regions(ae, "regions", &Controls::AutoExposure::regions);

    nb::class_<Controls>(m, "Controls",
                         "Runtime controls of one camera: get them with Device.get_controls, change fields, give "
                         "them back with Device.set_controls.")
        .def(nb::init<>())
        .def_rw("width", &Controls::width)
        .def_rw("height", &Controls::height)
        .def_rw("h_flip", &Controls::hFlip)
        .def_rw("v_flip", &Controls::vFlip)
        .def_rw("awb", &Controls::awb)
        .def_rw("ae", &Controls::ae)
        .def_rw("output_configuration", &Controls::outputBuffersConfIndex)
        .def_rw("output_buffers", &Controls::outputBuffers);
}

}  // namespace python
}  // namespace ruvo
