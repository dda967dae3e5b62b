"""ruvo-capture-ros: every camera of a capture device on ROS 2 topics.

Per camera `<name>/image_raw` and `<name>/camera_info` (identical headers); with
publish_all_outputs, every other output on `<name>/<output>_<level>/image_raw` and its
camera_info (binning set for pyramid levels). Per-camera parameters `<name>.<control>` change
the library's controls; a refused change is reported and the old value kept. `/diagnostics`
carries frame rate, drops, exposure, gain, white-balance gains, luminance and held buckets; a
watchdog restarts a device whose camera stopped delivering, with back-off.
"""

from __future__ import annotations

import re
import signal
import sys
import threading
import time
from typing import Dict, List, Optional, Tuple

import rclpy
from builtin_interfaces.msg import Time
from diagnostic_msgs.msg import DiagnosticArray
from rcl_interfaces.msg import SetParametersResult
from rclpy.executors import SingleThreadedExecutor
from rclpy.node import Node
from rclpy.parameter import Parameter
from rclpy.qos import HistoryPolicy, QoSProfile, ReliabilityPolicy
from rclpy.signals import SignalHandlerOptions

from .. import CaptureError, Device, HeldFramesError
from .camera import CameraOutputs, diagnostics_status
from .params import CONTROL_PARAMETERS

# Parameters read once at start; the others may change while running.
_START_ONLY = ("config", "overrides", "queue_size", "qos_depth", "qos_reliable", "publish_all_outputs")
_CHOICES = {"stamp_source": ("capture", "receive"), "yuv_encoding": ("nv12", "rgb8")}


def topic_names(names: List[str]) -> List[str]:
    """A valid, unique ROS name per camera: its configured name, or cam<i> where names repeat."""
    cleaned = [re.sub(r"[^A-Za-z0-9_]", "_", n) or f"cam{i}" for i, n in enumerate(names)]
    cleaned = [n if not n[0].isdigit() else f"cam_{n}" for n in cleaned]
    return [n if cleaned.count(n) == 1 else f"cam{i}" for i, n in enumerate(cleaned)]


def ros_time(ns: int) -> Time:
    return Time(sec=ns // 1_000_000_000, nanosec=ns % 1_000_000_000)


class CaptureNode(Node):
    def __init__(self) -> None:
        super().__init__("ruvo_capture")
        p = self._declare_node_parameters()
        overrides = [o for o in (p["overrides"] or []) if o]
        self.device = Device(p["config"] or None, overrides, queue_size=p["queue_size"])
        qos = QoSProfile(depth=p["qos_depth"], history=HistoryPolicy.KEEP_LAST,
                         reliability=ReliabilityPolicy.RELIABLE if p["qos_reliable"] else ReliabilityPolicy.BEST_EFFORT)
        self.cameras: List[CameraOutputs] = []
        for cam_id, name in enumerate(topic_names(self.device.camera_names)):
            frame_id = self.declare_parameter(f"{name}.frame_id", name).value
            url = self.declare_parameter(f"{name}.camera_info_url", "").value
            self.cameras.append(CameraOutputs(self, name, frame_id, url, qos, p["publish_all_outputs"]))
            self._declare_controls(cam_id, name)
        self.add_on_set_parameters_callback(self._on_set_parameters)
        self._stopping = threading.Event()
        self._restart_backoff = 0.0
        self._next_restart = 0.0
        self.restarts = 0
        self.device.start()
        self._started = time.monotonic()
        self._thread = threading.Thread(target=self._capture_loop, name="ruvo-capture-publish", daemon=True)
        self._thread.start()
        self._diagnostics = self.create_publisher(DiagnosticArray, "/diagnostics", 10)
        self.create_timer(float(p["diagnostics_period"]), self._publish_diagnostics)
        self.create_timer(0.25, self._watchdog)

    # -- parameters -----------------------------------------------------------------------------
    def _declare_node_parameters(self) -> Dict[str, object]:
        defaults = {"config": "", "queue_size": 2, "qos_depth": 2, "qos_reliable": True,
                    "publish_all_outputs": False, "stamp_source": "capture", "yuv_encoding": "nv12",
                    "watchdog_timeout": 2.0, "watchdog_max_backoff": 30.0, "diagnostics_period": 1.0}
        values = {k: self.declare_parameter(k, v).value for k, v in defaults.items()}
        values["overrides"] = self.declare_parameter("overrides", Parameter.Type.STRING_ARRAY).value
        for key, allowed in _CHOICES.items():
            if values[key] not in allowed:
                raise ValueError(f'{key} "{values[key]}": use one of {", ".join(allowed)}')
        return values

    def _declare_controls(self, cam_id: int, name: str) -> None:
        """Declares the control parameters from the camera's controls; launch-time values that
        differ are applied before the first frame."""
        controls = self.device.get_controls(cam_id)
        changed = False
        for key, parameter in CONTROL_PARAMETERS.items():
            current = parameter.get(controls)
            value = self.declare_parameter(f"{name}.{key}", current).value
            if value != current:
                parameter.set(controls, value)
                changed = True
        if changed:
            self.device.set_controls(cam_id, controls)
        preset = self.declare_parameter(f"{name}.preset", "").value
        if preset:
            self.device.set_preset(cam_id, preset)

    def _on_set_parameters(self, params: List[Parameter]) -> SetParametersResult:
        by_camera: Dict[int, List[Tuple[str, object]]] = {}
        for param in params:
            if param.name in _START_ONLY:
                return SetParametersResult(successful=False, reason=f"{param.name} is read at start only")
            if param.name in _CHOICES and param.value not in _CHOICES[param.name]:
                return SetParametersResult(successful=False,
                                           reason=f"{param.name}: use one of {', '.join(_CHOICES[param.name])}")
            cam_name, _, key = param.name.partition(".")
            if key in CONTROL_PARAMETERS or key == "preset":
                cam_id = next((i for i, c in enumerate(self.cameras) if c.name == cam_name), None)
                if cam_id is not None:
                    by_camera.setdefault(cam_id, []).append((key, param.value))
        try:
            for cam_id, changes in by_camera.items():
                self._apply(cam_id, changes)
        except (CaptureError, ValueError, TypeError) as e:
            return SetParametersResult(successful=False, reason=str(e))
        return SetParametersResult(successful=True)

    def _apply(self, cam_id: int, changes: List[Tuple[str, object]]) -> None:
        controls = self.device.get_controls(cam_id)
        for key, value in changes:
            if key == "preset":
                if value:
                    self.device.set_preset(cam_id, value)
                    controls = self.device.get_controls(cam_id)
                continue
            CONTROL_PARAMETERS[key].set(controls, value)
        self.device.set_controls(cam_id, controls)

    # -- frames ---------------------------------------------------------------------------------
    def _capture_loop(self) -> None:
        while not self._stopping.is_set():
            try:
                batch = self.device.next_batch(timeout=0.5)
            except TimeoutError:
                continue
            except CaptureError as e:  # closed underneath us at shutdown
                if not self._stopping.is_set():
                    self.get_logger().error(f"capture: {e}")
                return
            if batch is None:  # stopped by the watchdog: wait for the restart
                time.sleep(0.05)
                continue
            self._publish(batch)
            del batch  # hand the buffers back before waiting for the next batch

    def _publish(self, batch) -> None:
        receive_ns = self.get_clock().now().nanoseconds
        offset = time.time_ns() - time.monotonic_ns()
        capture_stamp = self.get_parameter("stamp_source").value == "capture"
        yuv = self.get_parameter("yuv_encoding").value
        for frame in batch:
            stamp = ros_time(frame.timestamp_ns + offset if capture_stamp else receive_ns)
            self.cameras[frame.camera_id].publish(frame, stamp, yuv)

    # -- health ---------------------------------------------------------------------------------
    def _publish_diagnostics(self) -> None:
        msg = DiagnosticArray()
        msg.header.stamp = self.get_clock().now().to_msg()
        held = self.device.held() if self.device.running else "device stopped"
        msg.status = [diagnostics_status(c, self.device.dropped_batches, self.restarts, self._restart_backoff, held,
                                         self.get_parameter("watchdog_timeout").value) for c in self.cameras]
        self._diagnostics.publish(msg)

    def _watchdog(self) -> None:
        limit = float(self.get_parameter("watchdog_timeout").value)
        now = time.monotonic()
        silent = [c.name for c in self.cameras if now - max(c.last_frame, self._started) > limit]
        if not silent:
            # The back-off ends once every camera delivered since the last (re)start, not merely
            # because the timeout has not yet passed again since it.
            if all(c.last_frame >= self._started for c in self.cameras):
                self._restart_backoff = 0.0
            return
        if now < self._next_restart:
            return
        self._restart_backoff = min(max(2 * self._restart_backoff, limit), self.get_parameter("watchdog_max_backoff").value)
        self._next_restart = now + self._restart_backoff
        self.get_logger().warning(f"no frames from {', '.join(silent)} for {limit} s: restarting the device")
        try:
            self.device.stop(timeout=1.0)
            self.device.start()
            self.restarts += 1
            self._started = time.monotonic()
        except (CaptureError, HeldFramesError) as e:
            self.get_logger().error(f"restart failed, next try in {self._restart_backoff:.1f} s: {e}")

    def shutdown(self) -> None:
        self._stopping.set()
        try:
            self.device.stop(timeout=2.0)
        except (CaptureError, HeldFramesError) as e:
            self.get_logger().error(f"stop: {e}")
        self._thread.join(timeout=2.0)
        try:
            self.device.close(timeout=2.0)
        except (CaptureError, HeldFramesError) as e:
            self.get_logger().error(f"close: {e}")


def main(argv: Optional[List[str]] = None) -> int:
    rclpy.init(args=argv if argv is not None else sys.argv, signal_handler_options=SignalHandlerOptions.NO)
    stop = threading.Event()
    for sig in (signal.SIGINT, signal.SIGTERM):
        signal.signal(sig, lambda *_: stop.set())
    node = None
    try:
        node = CaptureNode()
        executor = SingleThreadedExecutor()
        executor.add_node(node)
        while not stop.is_set() and rclpy.ok():
            executor.spin_once(timeout_sec=0.1)
    except (CaptureError, ValueError) as e:
        print(f"ruvo-capture-ros: {e}", file=sys.stderr)
        return 1
    finally:
        if node is not None:
            node.shutdown()
            node.destroy_node()
        if rclpy.ok():
            rclpy.shutdown()
    return 0


if __name__ == "__main__":
    sys.exit(main())
