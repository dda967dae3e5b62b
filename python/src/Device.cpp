// The native device: configuration from a file, a dict of keys or the built-in simulation with
// overrides layered on top; start and a bounded stop; the pull queue of batches; controls,
// presets, capabilities and the output configuration table. Every call that can wait (start,
// stop, close, waiting for a batch, changing controls) releases the GIL; the library's threads
// only ever touch the C++ queue.
#include "Bindings.h"
#include "BoundedQueue.h"
#include "Configuration.h"
#include "OutputBufferConfig.h"
#include "PyFrame.h"

#include <ruvo/capture/CUDADevice.h>

#include <Poco/Util/MapConfiguration.h>

#include <nanobind/stl/map.h>
#include <nanobind/stl/optional.h>
#include <nanobind/stl/pair.h>
#include <nanobind/stl/string.h>
#include <nanobind/stl/vector.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <memory>

namespace nb = nanobind;
using namespace ruvo::capture;

namespace ruvo {
namespace python {
namespace {

using Settings = std::vector<std::pair<std::string, std::string>>;

Poco::AutoPtr<Poco::Util::AbstractConfiguration> buildConfiguration(const std::optional<std::string>& file,
                                                                    const std::optional<Settings>& keys,
                                                                    const Settings& overrides) {
    try {
        Poco::AutoPtr<Poco::Util::AbstractConfiguration> base;
        if (keys) {
            Poco::AutoPtr<Poco::Util::MapConfiguration> map(new Poco::Util::MapConfiguration());
            for (const auto& [key, value] : *keys) map->setString(key, value);
            base = map;
        } else {
            base = file ? tool::loadConfigurationFile(*file) : tool::defaultConfiguration();
        }
        return tool::withOverrides(base, overrides);
    } catch (const std::runtime_error& e) {  // the tool's UsageError and ToolError
        throw nb::value_error(e.what());
    }
}

class NativeDevice {
public:
    NativeDevice(const std::optional<std::string>& file, const std::optional<Settings>& keys, const Settings& overrides,
                 size_t queueSize)
        : _queue(queueSize) {
        _queue.close();  // nothing is delivered before start()
        auto config = buildConfiguration(file, keys, overrides);
        try {
            for (const tool::CameraEntry& entry : tool::enabledCameras(*config)) _names.push_back(entry.name);
        } catch (const std::runtime_error& e) {
            throw nb::value_error(e.what());
        }
        nb::gil_scoped_release release;
        _device = std::make_unique<CUDADevice>(config);
        _device->setCallback([this](const Batch& batch) { _queue.push(batch); });
    }

    // Every frame holds this object, so none is left and the stop completes at once. Nothing may
    // leave a destructor: a failure is printed instead.
    ~NativeDevice() {
        if (!_device) return;
        nb::gil_scoped_release release;
        _queue.close();
        try {
            if (_running) _device->stopFor(std::chrono::seconds(5));
            _device.reset();
        } catch (const std::exception& e) {
            std::fprintf(stderr, "ruvo_capture: closing a dropped device: %s\n", e.what());
        }
    }

    void start() {
        CUDADevice& d = device();
        if (_running) throw CaptureDeviceException("the device is already running");
        nb::gil_scoped_release release;
        _queue.reopen();
        d.start();
        _running = true;
    }

    // Returns the held-frames text, empty when the device stopped completely.
    std::string stop(double timeout) {
        CUDADevice& d = device();
        const auto limit = toMilliseconds(timeout);
        nb::gil_scoped_release release;
        _queue.close();
        if (!_running) return "";
        const StopReport report = d.stopFor(limit);
        if (!report.complete()) return report.describe();
        _running = false;
        return "";
    }

    std::string close(double timeout) {
        if (!_device) return "";
        std::string held = stop(timeout);
        if (!held.empty()) return held;
        nb::gil_scoped_release release;
        _device.reset();
        return "";
    }

    // The next batch, None once the device is stopped or closed; TimeoutError when nothing came.
    nb::object nextBatch(nb::handle self, std::optional<double> timeout) {
        std::optional<std::chrono::milliseconds> limit;
        if (timeout) limit = toMilliseconds(*timeout);
        Batch batch;
        BoundedQueue<Batch>::Wait result;
        {
            nb::gil_scoped_release release;
            result = _queue.pop(limit, batch);
        }
        if (result == BoundedQueue<Batch>::Wait::Closed) return nb::none();
        if (result == BoundedQueue<Batch>::Wait::TimedOut) {
            PyErr_SetString(PyExc_TimeoutError, "no batch arrived within the timeout");
            throw nb::python_error();
        }
        nb::list frames;
        for (auto& frame : batch) frames.append(nb::cast(PyFrame{std::move(frame), nb::borrow(self)}));
        return frames;
    }

    const std::vector<std::string>& names() const { return _names; }
    bool running() const { return _running; }
    bool closed() const { return !_device; }
    uint64_t dropped() { return _queue.dropped(); }
    uint64_t delivered() { return _queue.delivered(); }

    CUDADevice& device() {
        if (!_device) throw CaptureDeviceException("the device is closed");
        return *_device;
    }

private:
    BoundedQueue<Batch> _queue;
    std::unique_ptr<CUDADevice> _device;
    std::vector<std::string> _names;  // "name" of each enabled entry, by camera id
    bool _running = false;
};

// `camera` when the device has it; IndexError otherwise (the library only logs a bad id).
uint32_t checked(NativeDevice& d, uint32_t camera) {
    const uint32_t count = d.device().numDevices();
    if (camera >= count) {
        throw nb::index_error(
            ("camera " + std::to_string(camera) + " of a device with " + std::to_string(count) + " cameras").c_str());
    }
    return camera;
}

nb::dict outputConfigurations() {
    nb::dict table;
    for (const auto& [index, description] : CUDADevice::outputConfigDescriptions) {
        nb::list buffers;
        for (const OutputBufferDefinition& d : CUDA_OUTPUT_BUFFER_CONFIG.at(static_cast<size_t>(index))) {
            buffers.append(nb::make_tuple(d.format, d.outputType, d.outputLevel));
        }
        table[nb::int_(index)] = nb::make_tuple(description, buffers);
    }
    return table;
}

}  // namespace

void bindDevice(nb::module_& m) {
    nb::class_<NativeDevice>(m, "NativeDevice", "The library's capture device; use ruvo_capture.Device.")
        .def(nb::init<const std::optional<std::string>&, const std::optional<Settings>&, const Settings&, size_t>(),
             nb::arg("file").none(), nb::arg("keys").none(), nb::arg("overrides"), nb::arg("queue_size"))
        .def("start", &NativeDevice::start)
        .def("stop", &NativeDevice::stop, nb::arg("timeout"))
        .def("close", &NativeDevice::close, nb::arg("timeout"))
        .def(
            "next_batch",
            [](nb::handle self, std::optional<double> timeout) {
                return nb::cast<NativeDevice&>(self).nextBatch(self, timeout);
            },
            nb::arg("timeout").none())
        .def("held", [](NativeDevice& d) { return d.device().lentOut().describe(); })
        .def_prop_ro("camera_names", &NativeDevice::names)
        .def_prop_ro("running", &NativeDevice::running)
        .def_prop_ro("closed", &NativeDevice::closed)
        .def_prop_ro("dropped_batches", &NativeDevice::dropped)
        .def_prop_ro("delivered_batches", &NativeDevice::delivered)
        .def("num_cameras", [](NativeDevice& d) { return d.device().numDevices(); })
        .def("get_controls",
             [](NativeDevice& d, uint32_t camera) { return d.device().getControls(checked(d, camera)); })
        .def(
            "set_controls",
            [](NativeDevice& d, uint32_t camera, const Controls& controls) {
                CUDADevice& device = d.device();
                checked(d, camera);
                nb::gil_scoped_release release;
                device.setControls(camera, controls);
            },
            nb::arg("camera"), nb::arg("controls"))
        .def(
            "set_preset",
            [](NativeDevice& d, uint32_t camera, const std::string& name) {
                CUDADevice& device = d.device();
                checked(d, camera);
                nb::gil_scoped_release release;
                return device.setNamedControls(camera, name);
            },
            nb::arg("camera"), nb::arg("name"))
        .def("capabilities", [](NativeDevice& d, uint32_t camera) {
            std::vector<std::pair<uint32_t, uint32_t>> sizes;
            for (const auto& r : d.device().getCapabilities(checked(d, camera)).resolutions) {
                sizes.emplace_back(r.width, r.height);
            }
            return sizes;
        });
    m.def("output_configurations", &outputConfigurations,
          "Every output configuration: index -> (description, [(format, output type, level), ...]).");
}

}  // namespace python
}  // namespace ruvo
