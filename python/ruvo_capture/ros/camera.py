"""One camera's topics: its publishers, CameraInfo template and delivery statistics."""

from __future__ import annotations

import collections
import copy
import time
from typing import Deque, Dict, Tuple

from diagnostic_msgs.msg import DiagnosticStatus, KeyValue
from sensor_msgs.msg import CameraInfo, Image

from .._core import Frame, OutputLevel, OutputType
from .messages import image_message, load_camera_info


class CameraOutputs:
    def __init__(self, node, name: str, frame_id: str, info_url: str, qos, all_outputs: bool) -> None:
        self.node, self.name, self.frame_id, self.qos = node, name, frame_id, qos
        self.all_outputs = all_outputs
        self.info = load_camera_info(info_url) if info_url else CameraInfo()
        self._publishers: Dict[Tuple[int, int], tuple] = {}
        self.last_frame = 0.0  # time.monotonic() of the last published frame
        self.times: Deque[float] = collections.deque(maxlen=64)
        self.frames = 0
        self.feedback: dict = {}

    def _topics(self, frame: Frame) -> str:
        """The topic prefix of `frame`: the camera's own for its first output, else one per output."""
        if frame.batch_index == 0:
            return self.name
        return f"{self.name}/{OutputType(frame.output_type).name.lower()}_{OutputLevel(frame.level).name.lower()}"

    def _pair(self, frame: Frame):
        key = (int(frame.output_type), int(frame.level)) if frame.batch_index else (-1, -1)
        if key not in self._publishers:
            prefix = self._topics(frame)
            self._publishers[key] = (self.node.create_publisher(Image, f"{prefix}/image_raw", self.qos),
                                     self.node.create_publisher(CameraInfo, f"{prefix}/camera_info", self.qos))
        return self._publishers[key]

    def publish(self, frame: Frame, stamp, yuv_encoding: str) -> None:
        if frame.batch_index == 0:
            now = time.monotonic()
            self.last_frame = now
            self.times.append(now)
            self.frames += 1
            self.feedback = frame.feedback
        elif not self.all_outputs:
            return
        msg = image_message(frame, yuv_encoding)
        if msg is None:
            return
        image_pub, info_pub = self._pair(frame)
        msg.header.stamp = stamp
        msg.header.frame_id = self.frame_id
        info = copy.copy(self.info)
        info.header = msg.header
        if not info.width:
            info.width, info.height = frame.width, frame.height
        level = int(frame.level)
        if level > 0:  # pyramid levels: 2^level sensor pixels per output pixel
            info.binning_x = info.binning_y = 1 << level
        image_pub.publish(msg)
        info_pub.publish(info)

    def rate(self) -> float:
        if len(self.times) < 2:
            return 0.0
        return (len(self.times) - 1) / (self.times[-1] - self.times[0])


def diagnostics_status(camera: CameraOutputs, dropped: int, restarts: int, held: str, timeout: float) -> DiagnosticStatus:
    silent = time.monotonic() - camera.last_frame > timeout
    status = DiagnosticStatus(name=f"ruvo_capture: {camera.name}", hardware_id=camera.frame_id)
    status.level = DiagnosticStatus.ERROR if silent else DiagnosticStatus.OK
    status.message = "no frames" if silent else "capturing"
    fb = camera.feedback or {}
    values = {
        "frame_rate": f"{camera.rate():.2f}",
        "frames": str(camera.frames),
        "dropped_batches": str(dropped),
        "watchdog_restarts": str(restarts),
        "exposure_time": str(fb.get("exposure_time", "")),
        "gain": str(fb.get("gain", "")),
        "white_balance_gains": " ".join(f"{g:.4f}" for g in fb.get("white_balance_gains", ())),
        "luminance": str(fb.get("luminance", "")),
        "held_buckets": held,
    }
    status.values = [KeyValue(key=k, value=v) for k, v in values.items()]
    return status
