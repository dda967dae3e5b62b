"""One camera's topics: its publishers, CameraInfo template and delivery statistics."""

from __future__ import annotations

import collections
import copy
import time
from typing import Deque, Dict, NamedTuple, Tuple

from diagnostic_msgs.msg import DiagnosticStatus, KeyValue
from sensor_msgs.msg import CameraInfo, Image

from .._core import Frame, OutputLevel, OutputType
from .messages import ImageMessage, image_encoding, load_camera_info


class _Topic(NamedTuple):
    """The image_raw and camera_info publishers of one output, and the messages they reuse."""

    image_pub: object
    info_pub: object
    image: ImageMessage
    info: CameraInfo


class CameraOutputs:
    def __init__(self, node, name: str, frame_id: str, info_url: str, qos, all_outputs: bool) -> None:
        self.node, self.name, self.frame_id, self.qos = node, name, frame_id, qos
        self.all_outputs = all_outputs
        self.info = load_camera_info(info_url) if info_url else CameraInfo()
        self._topics_by_output: Dict[Tuple[int, int], _Topic] = {}
        self.last_frame = 0.0  # time.monotonic() of the last published frame
        self.times: Deque[float] = collections.deque(maxlen=64)
        self.frames = 0
        self.feedback: dict = {}

    def _topics(self, frame: Frame) -> str:
        """The topic prefix of `frame`: the camera's own for its first output, else one per output."""
        if frame.batch_index == 0:
            return self.name
        return f"{self.name}/{OutputType(frame.output_type).name.lower()}_{OutputLevel(frame.level).name.lower()}"

    def _topic(self, frame: Frame) -> _Topic:
        key = (int(frame.output_type), int(frame.level)) if frame.batch_index else (-1, -1)
        topic = self._topics_by_output.get(key)
        if topic is None:
            prefix = self._topics(frame)
            info = copy.deepcopy(self.info)
            level = int(frame.level)
            if level > 0:  # pyramid levels: 2^level sensor pixels per output pixel
                info.binning_x = info.binning_y = 1 << level
            topic = _Topic(self.node.create_publisher(Image, f"{prefix}/image_raw", self.qos),
                           self.node.create_publisher(CameraInfo, f"{prefix}/camera_info", self.qos),
                           ImageMessage(), info)
            self._topics_by_output[key] = topic
        return topic

    def publish(self, frame: Frame, stamp, yuv_encoding: str) -> None:
        if frame.batch_index == 0:
            now = time.monotonic()
            self.last_frame = now
            self.times.append(now)
            self.frames += 1
            self.feedback = frame.feedback
        elif not self.all_outputs:
            return
        encoding = image_encoding(frame, yuv_encoding)
        if encoding is None:
            return
        topic = self._topic(frame)
        msg = topic.image.fill(frame, encoding)
        msg.header.stamp = stamp
        msg.header.frame_id = self.frame_id
        topic.info.header = msg.header
        if not self.info.width:  # uncalibrated: the full-resolution size, which binning divides
            scale = max(topic.info.binning_x, 1)
            topic.info.width, topic.info.height = frame.width * scale, frame.height * scale
        topic.image_pub.publish(msg)
        topic.info_pub.publish(topic.info)

    def rate(self) -> float:
        if len(self.times) < 2:
            return 0.0
        return (len(self.times) - 1) / (self.times[-1] - self.times[0])


def diagnostics_status(camera: CameraOutputs, dropped: int, restarts: int, backoff: float, held: str,
                       timeout: float) -> DiagnosticStatus:
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
        "watchdog_backoff": f"{backoff:.3f}",
        "exposure_time": str(fb.get("exposure_time", "")),
        "gain": str(fb.get("gain", "")),
        "white_balance_gains": " ".join(f"{g:.4f}" for g in fb.get("white_balance_gains", ())),
        "luminance": str(fb.get("luminance", "")),
        "held_buckets": held,
    }
    status.values = [KeyValue(key=k, value=v) for k, v in values.items()]
    return status
