"""Controls from Python: a refused change raises the library's message and leaves the previous
controls in force; presets change the exposure fields they own and nothing else; the metering
diagnostics channels arrive as parsed records."""

from __future__ import annotations

import math

import pytest

import ruvo_capture as rc
from conftest import sim_keys


def snapshot(c: rc.Controls) -> tuple:
    return (c.width, c.height, c.h_flip, c.v_flip, c.output_configuration, len(c.output_buffers),
            c.ae.target_y, c.ae.manual_mode, c.ae.manual_exposure, c.ae.time,
            c.awb.gamma_red, c.awb.manual_red_gain, c.awb.regions, c.ae.regions)


@pytest.fixture(scope="module")
def device():
    with rc.Device(sim_keys({"ae.targetY": 0.35})) as d:
        d.start()
        yield d


REFUSALS = {
    "size": (lambda c: setattr(c, "width", 1000), "Unsupported resolution"),
    "buffers": (lambda c: setattr(c, "output_buffers", []), "Unsupported output buffer configuration"),
    "gamma": (lambda c: setattr(c.awb, "gamma_red", math.nan), "not a finite number"),
    "exposure range": (lambda c: setattr(c.ae, "time", (0.01, math.inf)), "not a finite number"),
}


@pytest.mark.parametrize("change, message", REFUSALS.values(), ids=REFUSALS.keys())
def test_refused_controls_leave_the_old_ones(device, change, message):
    controls = device.get_controls(0)
    controls.h_flip = not controls.h_flip  # an acceptable change riding along with the refused one
    controls.ae.regions = [((10, 20, 110, 120), 0.5)]
    before = snapshot(device.get_controls(0))
    change(controls)
    with pytest.raises(rc.CaptureError, match=message):
        device.set_controls(0, controls)
    assert snapshot(device.get_controls(0)) == before
    with pytest.raises(IndexError):
        device.set_controls(1, controls)


def test_presets_change_their_fields(device):
    base = device.get_controls(0)
    base.v_flip = not base.v_flip
    device.set_controls(0, base)
    expected = {"barcode": (pytest.approx(0.2), "AVGY"), "oru": (pytest.approx(0.2), "oru"),
                "default": (pytest.approx(0.35), "default")}
    for name, (target, mode) in expected.items():  # in this order: "oru" keeps barcode's target
        device.set_preset(0, name)
        c = device.get_controls(0)
        assert (c.ae.target_y, c.ae.manual_mode) == (target, mode), name
        assert (c.v_flip, c.width) == (base.v_flip, base.width), name
    with pytest.raises(ValueError, match="unknown preset"):
        device.set_preset(0, "moonlight")


def test_diagnostics_channels_yield_parsed_records():
    with rc.Device(sim_keys({"outputBufferFormats": 2, "name": "meter"})) as device:
        device.start()
        for channel in rc._core.diagnostics_channels():
            records = rc.diagnostics_records(channel, timeout=20)
            record = next(records)
            records.close()
            assert int(record["cameraIndex"]) == 0, channel
            assert record.get("cameraName", "meter") == "meter", channel
        device.stop()
