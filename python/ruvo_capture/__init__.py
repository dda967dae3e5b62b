"""Camera capture for robots: processed frames of every camera as zero-copy NumPy views.

    import ruvo_capture
    with ruvo_capture.Device() as device:          # the built-in two simulated cameras
        device.start()
        for batch in device.batches(timeout=2.0):
            for frame in batch:
                print(frame.camera_id, frame.array.mean())
            break

Frames are views of the library's capture buffers; a camera has a small pool of them (four by
default), so copy() what you keep.
"""

from ._core import (
    CaptureError,
    Controls,
    Exposure,
    Format,
    Frame,
    OutputBuffer,
    OutputLevel,
    OutputType,
    WhiteBalance,
    output_configurations,
)
from ._device import Device, HeldFramesError
from ._diagnostics import diagnostics_records

__all__ = [
    "CaptureError",
    "Controls",
    "Device",
    "Exposure",
    "Format",
    "Frame",
    "HeldFramesError",
    "OutputBuffer",
    "OutputLevel",
    "OutputType",
    "WhiteBalance",
    "diagnostics_records",
    "output_configurations",
]
