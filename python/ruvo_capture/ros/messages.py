"""Frames as sensor_msgs: Image encodings, the YUV 4:2:0 conversions, and CameraInfo from a
calibration YAML."""

from __future__ import annotations

import urllib.parse
from typing import Optional

import numpy as np
import yaml
from sensor_msgs.msg import CameraInfo, Image

from .._core import Format, Frame

ENCODINGS = {Format.Y8: "mono8", Format.RGB24: "rgb8", Format.BGR24: "bgr8"}


def yuv420_to_rgb(y: np.ndarray, u: np.ndarray, v: np.ndarray) -> np.ndarray:
    """Full-range BT.601 YUV 4:2:0 planes (chroma centred on 127.5) to packed RGB, each chroma
    sample covering 2 x 2 luma samples; the inverse of the pipeline's colour conversion."""
    h, w = y.shape
    # An odd last row or column takes the last chroma sample.
    rows = np.minimum(np.arange(h) // 2, u.shape[0] - 1)[:, None]
    cols = np.minimum(np.arange(w) // 2, u.shape[1] - 1)[None, :]
    cb = u[rows, cols].astype(np.float32) - 127.5
    cr = v[rows, cols].astype(np.float32) - 127.5
    luma = y.astype(np.float32)
    rgb = np.empty((h, w, 3), np.float32)
    rgb[..., 0] = luma + 1.402 * cr
    rgb[..., 1] = luma - 0.344136 * cb - 0.714136 * cr
    rgb[..., 2] = luma + 1.772 * cb
    return np.clip(np.rint(rgb), 0, 255).astype(np.uint8)


def yuv420_to_nv12(y: np.ndarray, u: np.ndarray, v: np.ndarray) -> bytes:
    """Planar YUV 4:2:0 to NV12: the luma rows, then rows of interleaved U, V pairs. Written into
    one buffer, so that the message's bytes are copied out once."""
    h, w = y.shape
    out = np.empty(h * w + 2 * u.size, np.uint8)
    out[: h * w].reshape(h, w)[:] = y
    uv = out[h * w :].reshape(u.shape[0], u.shape[1], 2)
    uv[..., 0] = u
    uv[..., 1] = v
    return out.tobytes()


def image_message(frame: Frame, yuv_encoding: str) -> Optional[Image]:
    """The Image of `frame` (header left to the caller), or None for a format with no image
    encoding (the histogram, raw Bayer)."""
    msg = Image()
    msg.height, msg.width = frame.height, frame.width
    msg.is_bigendian = 0
    if frame.format == Format.YUV420p:
        y, u, v = frame.planes
        if yuv_encoding == "nv12":
            msg.encoding, msg.step = "nv12", frame.width
            msg.data = yuv420_to_nv12(y, u, v)
        else:
            msg.encoding, msg.step = "rgb8", frame.width * 3
            msg.data = yuv420_to_rgb(y, u, v).tobytes()
        return msg
    encoding = ENCODINGS.get(frame.format)
    if encoding is None:
        return None
    view = frame.array
    msg.encoding = encoding
    msg.step = view.shape[1] * (3 if view.ndim == 3 else 1)
    msg.data = np.ascontiguousarray(view).tobytes()
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
