// A subscription to one named diagnostics channel: the library's reader threads append each JSON
// record to a bounded queue, Python takes them with the GIL released.
#include "Bindings.h"
#include "BoundedQueue.h"
#include "DiagnosticsLog.h"

#include <ruvo/util/Channel.h>

#include <nanobind/stl/optional.h>
#include <nanobind/stl/string.h>
#include <nanobind/stl/vector.h>

#include <cmath>
#include <memory>

namespace nb = nanobind;

namespace ruvo {
namespace python {
namespace {

class Subscription {
public:
    Subscription(const std::string& name, size_t capacity)
        : _channel(util::Channel::get(name)), _queue(std::make_shared<BoundedQueue<std::string>>(capacity)) {
        // The listener holds the queue, not this object: a delivery racing close() finds it alive.
        std::weak_ptr<BoundedQueue<std::string>> queue = _queue;
        _id = _channel->addListener([queue](const std::string& text) {
            if (auto q = queue.lock()) q->push(text);
        });
    }
    ~Subscription() { close(); }

    void close() {
        if (_id == 0) return;
        _channel->removeListener(_id);
        _id = 0;
        _queue->close();
    }

    // The next record text; None once closed; TimeoutError when none came in time.
    nb::object next(std::optional<double> timeout) {
        std::optional<std::chrono::milliseconds> limit;
        if (timeout) limit = toMilliseconds(*timeout);
        std::string text;
        BoundedQueue<std::string>::Wait result;
        {
            nb::gil_scoped_release release;
            result = _queue->pop(limit, text);
        }
        if (result == BoundedQueue<std::string>::Wait::Closed) return nb::none();
        if (result == BoundedQueue<std::string>::Wait::TimedOut) {
            PyErr_SetString(PyExc_TimeoutError, "no diagnostics record arrived within the timeout");
            throw nb::python_error();
        }
        return nb::str(text.c_str(), text.size());
    }

    uint64_t dropped() { return _queue->dropped(); }

private:
    std::shared_ptr<util::Channel> _channel;
    std::shared_ptr<BoundedQueue<std::string>> _queue;
    util::Channel::ListenerId _id = 0;
};

}  // namespace

void bindDiagnostics(nb::module_& m) {
    nb::class_<Subscription>(m, "DiagnosticsSubscription", "Raw JSON records of one diagnostics channel.")
        .def(nb::init<const std::string&, size_t>(), nb::arg("channel"), nb::arg("capacity") = 64)
        .def("next", &Subscription::next, nb::arg("timeout").none() = nb::none())
        .def("close", &Subscription::close)
        .def_prop_ro("dropped", &Subscription::dropped);
    m.def("diagnostics_channels", &tool::diagnosticsChannels, "Names of the metering diagnostics channels.");
}

}  // namespace python
}  // namespace ruvo
