"""Frames as sensor_msgs: Image messages in each encoding, and CameraInfo from a calibration YAML."""

from __future__ import annotations

import urllib.parse
from typing import Optional

import yaml
from sensor_msgs.msg import CameraInfo, Image

from .._core import Format, Frame

ENCODINGS = {Format.Y8: "mono8", Format.RGB24: "rgb8", Format.BGR24: "bgr8"}


def image_encoding(frame: Frame, yuv_encoding: str) -> Optional[str]:
    """The Image encoding `frame` is published in, or None for a format with none (the
    histogram, raw Bayer)."""
    return yuv_encoding if frame.format == Format.YUV420p else ENCODINGS.get(frame.format)


class ImageMessage:
    """One topic's Image, refilled for every frame. The native module packs the frame's rows
    (YUV 4:2:0 as nv12, or converted to rgb8) with the GIL released straight into the message's
    own data array, which is kept from frame to frame: assigning a buffer to Image.data would copy
    it once more. publish() copies the message into the middleware before it returns, so the
    message is free again by the next frame."""

    def __init__(self) -> None:
        self.msg = Image(is_bigendian=0)

    def fill(self, frame: Frame, encoding: str) -> Image:
        """The Image of `frame` in `encoding` (header left to the caller)."""
        step, size = frame.image_layout(encoding)
        msg = self.msg
        if len(msg.data) != size:
            msg.data = bytes(size)  # stored as an array of bytes, written in place from now on
        frame.pack_into(msg.data, encoding)
        msg.height, msg.width, msg.encoding, msg.step = frame.height, frame.width, encoding, step
        return msg


def load_camera_info(url: str) -> CameraInfo:
    """CameraInfo from a file:// calibration YAML (image_width, image_height, camera_matrix,
    distortion_model, distortion_coefficients, rectification_matrix, projection_matrix)."""
    parsed = urllib.parse.urlparse(url)
    if parsed.scheme != "file":
        raise ValueError(f'camera_info_url "{url}": only file:// URLs are read')
    with open(urllib.parse.unquote(parsed.path), encoding="utf-8") as f:
        calib = yaml.safe_load(f)
    info = CameraInfo()
    info.width = int(calib["image_width"])
    info.height = int(calib["image_height"])
    info.distortion_model = calib.get("distortion_model", "plumb_bob")
    info.d = [float(x) for x in calib.get("distortion_coefficients", {}).get("data", [])]
    for field, key, size in (("k", "camera_matrix", 9), ("r", "rectification_matrix", 9), ("p", "projection_matrix", 12)):
        data = calib.get(key, {}).get("data")
        if data is not None:
            if len(data) != size:
                raise ValueError(f"{url}: {key} needs {size} values, has {len(data)}")
            setattr(info, field, [float(x) for x in data])
    return info
