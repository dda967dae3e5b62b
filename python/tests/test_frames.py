"""Frames as NumPy views: no copy, the shapes of every format, views that keep their bytes
while capture goes on, and the bytes laid out as the capture tool lays them out."""

from __future__ import annotations

import hashlib
import os
import re
import subprocess
from pathlib import Path

import numpy as np
import pytest
from PIL import Image

import ruvo_capture as rc
from conftest import FROZEN_3A, sim_keys

POOL = 4


def digest(a: np.ndarray) -> str:
    return hashlib.sha256(np.ascontiguousarray(a)).hexdigest()


def test_views_are_zero_copy_keep_their_bytes_and_hand_the_buffer_back():
    # Camera 0: colour pyramid, skin luma (Y8) and the histogram; camera 1: RGB.
    keys = sim_keys({"outputBufferFormats": 2}, {"outputBufferFormats": 11})
    with rc.Device(keys, queue_size=1) as device:
        device.start()
        batches = device.batches(timeout=20)
        batch = []
        while {f.camera_id for f in batch} != {0, 1}:  # a batch holds the cameras that captured
            batch += next(batches)
        batches.close()
        by_kind = {}
        for f in batch:
            by_kind.setdefault((f.camera_id, f.format), f)  # the first: full size
        shapes = {}
        for frame in batch:
            for i, view in enumerate(frame.planes):
                assert view.__array_interface__["data"][0] == frame.plane_address(i)
                assert not view.flags.writeable
            shapes.setdefault(frame.format, [v.shape for v in frame.planes])
        yuv = by_kind[(0, rc.Format.YUV420p)]
        assert shapes[rc.Format.YUV420p] == [(380, 672), (190, 336), (190, 336)]
        assert shapes[rc.Format.Y8][0] == (190, 336)
        assert shapes[rc.Format.HISTOGRAM8] == [(256,)]
        assert by_kind[(0, rc.Format.HISTOGRAM8)].array.dtype == np.int32
        assert shapes[rc.Format.RGB24] == [(380, 672, 3)]
        assert yuv.array.strides == (yuv.stride, 1)

        kept = yuv.plane(1)
        before = digest(kept)
        copies = yuv.copy()
        assert all(c.flags.c_contiguous and c.ctypes.data != yuv.plane_address(i) for i, c in enumerate(copies))
        del batch, by_kind, yuv, frame, view, f
        seen = 0
        for later in device.batches(timeout=20):  # more batches than the pool has buckets
            seen += 1
            del later
            if seen == 3 * POOL:
                break
        assert digest(kept) == before
        assert np.array_equal(copies[1], kept)
        assert "camera 0" in device.held()
        del kept
        next(device.batches(timeout=20))
        device.stop(timeout=5)  # nothing held: completes


def test_bytes_of_each_output_and_packed_image_equal_the_tool_png(tmp_path: Path):
    tool = os.environ.get("RUVO_CAPTURE_TOOL")
    assert tool and os.access(tool, os.X_OK), "RUVO_CAPTURE_TOOL must name the built ruvo-capture"
    # 3A never writes the sensor, so every frame of either run shows the same image.
    outputs = ({"outputBufferFormats": 2, **FROZEN_3A}, {"outputBufferFormats": 11, "sim.scene": "zoneplate", **FROZEN_3A})
    keys = sim_keys(*outputs)
    config = tmp_path / "cameras.properties"
    config.write_text("".join(f"{k}={'true' if v is True else v}\n" for k, v in keys.items()))
    result = subprocess.run([tool, "run", "--config", str(config), "--frames", "3", "--output", str(tmp_path)],
                            capture_output=True, text=True, timeout=120)
    assert result.returncode == 0, result.stderr
    pngs = {}
    for png in tmp_path.rglob("cam*-buf*.png"):
        cam, buf = map(int, re.match(r"cam(\d+)-buf(\d+)-", png.name).groups())
        pngs[(cam, buf)] = np.asarray(Image.open(png))
    with rc.Device(keys) as device:
        device.start()
        batches = device.batches(timeout=20)
        batch = []
        while {f.camera_id for f in batch} != {0, 1}:
            batch += next(batches)
        compared = set()
        for frame in batch:
            if frame.format == rc.Format.HISTOGRAM8:
                continue  # written as a chart, not as its counts
            expected = pngs[(frame.camera_id, frame.batch_index)]
            planes = [np.ascontiguousarray(p) for p in frame.planes]
            actual = _yuv_to_rgb(*planes) if frame.format == rc.Format.YUV420p else planes[0]
            assert np.array_equal(actual, expected), frame
            for encoding, image in _packed_images(frame, planes, expected).items():
                step, size = frame.image_layout(encoding)
                packed = bytearray(size + 1)  # one byte more: nothing is written past the image
                frame.pack_into(packed, encoding)
                assert packed[:size] == image.tobytes() and packed[size] == 0, (frame, encoding)
                assert step * frame.height == (size if encoding != "nv12" else frame.width * frame.height)
            compared.add((frame.camera_id, frame.batch_index))
        assert compared == set(pngs) - {(0, 4)}  # every output but the histogram
        histogram, yuv = (next(f for f in batch if f.format == kind) for kind in (rc.Format.HISTOGRAM8, rc.Format.YUV420p))
        with pytest.raises(ValueError, match='HISTOGRAM8 frame has no "mono8"'):
            histogram.image_layout("mono8")
        with pytest.raises(ValueError, match="cannot take"):
            yuv.pack_into(bytearray(yuv.image_layout("nv12")[1] - 1), "nv12")
        del batch, frame, planes, histogram, yuv
        batches.close()


def _packed_images(frame, planes, png) -> dict:
    # What the transports' encodings hold: rgb8 and mono8 as the tool's PNG; nv12 as the luma rows
    # and then the U, V pairs.
    if frame.format != rc.Format.YUV420p:
        return {"mono8" if png.ndim == 2 else "rgb8": png}
    uv = np.stack(planes[1:], axis=-1)
    return {"rgb8": png, "nv12": np.concatenate([planes[0].ravel(), uv.ravel()])}


def _yuv_to_rgb(y, u, v) -> np.ndarray:
    # The tool's conversion (full-range BT.601, chroma centred on 127.5, halves rounded away from
    # zero), written independently; an odd last row or column uses the last chroma sample.
    rows = np.minimum(np.arange(y.shape[0]) // 2, u.shape[0] - 1)[:, None]
    cols = np.minimum(np.arange(y.shape[1]) // 2, u.shape[1] - 1)[None, :]
    cb = u[rows, cols].astype(np.float32) - np.float32(127.5)
    cr = v[rows, cols].astype(np.float32) - np.float32(127.5)
    luma = y.astype(np.float32)
    rgb = np.stack([luma + np.float32(1.402) * cr,
                    luma - np.float32(0.344136) * cb - np.float32(0.714136) * cr,
                    luma + np.float32(1.772) * cb], axis=-1)
    rgb = np.clip(rgb, 0, 255)
    rounded = np.where(rgb - np.floor(rgb) >= 0.5, np.ceil(rgb), np.floor(rgb))
    return rounded.astype(np.uint8)
