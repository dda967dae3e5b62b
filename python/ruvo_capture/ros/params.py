"""The per-camera ROS parameters that map to the library's controls, as data: parameter name,
the Controls field it reads and writes, and the Python type ROS holds it as."""

from __future__ import annotations

from typing import Callable, Dict, NamedTuple

from .._core import Controls, OutputBuffer, output_configurations


class ControlParameter(NamedTuple):
    kind: type
    get: Callable[[Controls], object]
    set: Callable[[Controls, object], None]


def _field(path: str, kind: type) -> ControlParameter:
    *parents, leaf = path.split(".")

    def owner(c: Controls):
        for p in parents:
            c = getattr(c, p)
        return c

    return ControlParameter(kind, lambda c: kind(getattr(owner(c), leaf)),
                            lambda c, v: setattr(owner(c), leaf, kind(v)))


def _set_output_configuration(c: Controls, index: object) -> None:
    # The buffers follow the index; an index outside the table is left for the library to refuse.
    c.output_configuration = int(index)
    row = output_configurations().get(int(index))
    if row is None:
        return
    buffers = []
    for fmt, output_type, level in row[1]:
        b = OutputBuffer()
        b.format, b.output_type, b.level = fmt, output_type, level
        buffers.append(b)
    c.output_buffers = buffers


CONTROL_PARAMETERS: Dict[str, ControlParameter] = {
    "output_configuration": ControlParameter(int, lambda c: int(c.output_configuration), _set_output_configuration),
    "width": _field("width", int),
    "height": _field("height", int),
    "h_flip": _field("h_flip", bool),
    "v_flip": _field("v_flip", bool),
    "ae_lock": _field("ae.lock", bool),
    "ae_manual": _field("ae.manual", bool),
    "exposure": _field("ae.manual_exposure", float),
    "gain": _field("ae.manual_gain", float),
    "ev": _field("ae.ev", float),
    "target_y": _field("ae.target_y", float),
    "awb_lock": _field("awb.lock", bool),
    "awb_manual": _field("awb.manual", bool),
    "wb_red_gain": _field("awb.manual_red_gain", float),
    "wb_green_gain": _field("awb.manual_green_gain", float),
    "wb_blue_gain": _field("awb.manual_blue_gain", float),
    "gamma_red": _field("awb.gamma_red", float),
    "gamma_green": _field("awb.gamma_green", float),
    "gamma_blue": _field("awb.gamma_blue", float),
    "gamma_cr": _field("awb.gamma_cr", float),
    "gamma_cb": _field("awb.gamma_cb", float),
}
