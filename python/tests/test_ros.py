"""The ROS 2 node in its own process, seen by a subscriber in this one: images and camera info
with matching stamps and the layout of each encoding, binning on pyramid level topics,
parameters that change the controls or are refused with the old value kept, diagnostics, the
watchdog's restarts of a camera that stopped delivering, and SIGINT."""

from __future__ import annotations

import os
import shutil
import signal
import subprocess
import sys
import time
from collections import defaultdict

import pytest
import rclpy  # the test command installs the ROS 2 extra: pip install .[ros]
from diagnostic_msgs.msg import DiagnosticArray, DiagnosticStatus
from rcl_interfaces.msg import Parameter, ParameterType, ParameterValue
from rcl_interfaces.srv import GetParameters, SetParameters
from rclpy.node import Node
from rclpy.qos import QoSProfile, ReliabilityPolicy
from sensor_msgs.msg import CameraInfo, Image

from conftest import sim_keys

W, H = 672, 380
K = [400.0, 0.0, 336.0, 0.0, 400.0, 190.0, 0.0, 0.0, 1.0]
# topic -> (encoding, step, data length)
IMAGES = {
    "/cam0/image_raw": ("nv12", W, W * H * 3 // 2),
    "/cam0/gradient_x_original/image_raw": ("mono8", W, W * H),
    "/cam1/image_raw": ("rgb8", 3 * W, 3 * W * H),
}


# pyramid level topic of cam0 -> binning
LEVELS = {"/cam0/color_half": 2, "/cam0/color_quarter": 4}


def start_node(tmp, keys: dict, *params: str) -> subprocess.Popen:
    (tmp / "cameras.properties").write_text("".join(f"{k}={'true' if v is True else v}\n" for k, v in keys.items()))
    exe = shutil.which("ruvo-capture-ros", path=os.path.dirname(sys.executable))
    args = [arg for p in (f"config:={tmp / 'cameras.properties'}", "publish_all_outputs:=true", *params) for arg in ("-p", p)]
    return subprocess.Popen([exe, "--ros-args", *args], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)


@pytest.fixture(scope="module")
def subscriber():
    rclpy.init()
    sub = Node("ruvo_capture_test_subscriber")
    yield sub
    sub.destroy_node()
    rclpy.shutdown()


@pytest.fixture
def node_process(tmp_path, subscriber):
    processes = []
    yield lambda keys, *params: processes.append(start_node(tmp_path, keys, *params)) or processes[-1]
    for proc in processes:
        if proc.poll() is None:
            proc.kill()
            proc.wait()


def spin_until(node, done, timeout=30.0):
    end = time.monotonic() + timeout
    while time.monotonic() < end and not done():
        rclpy.spin_once(node, timeout_sec=0.1)
    return done()


def call(node, srv_type, name, request):
    client = node.create_client(srv_type, name)
    assert client.wait_for_service(timeout_sec=20), name
    future = client.call_async(request)
    assert spin_until(node, future.done, 20)
    node.destroy_client(client)
    return future.result()


def set_param(node, name, value):
    kind = ParameterType.PARAMETER_BOOL if isinstance(value, bool) else (
        ParameterType.PARAMETER_INTEGER if isinstance(value, int) else ParameterType.PARAMETER_DOUBLE)
    v = ParameterValue(type=kind, bool_value=value if kind == ParameterType.PARAMETER_BOOL else False,
                       integer_value=value if kind == ParameterType.PARAMETER_INTEGER else 0,
                       double_value=float(value) if kind == ParameterType.PARAMETER_DOUBLE else 0.0)
    return call(node, SetParameters, "/ruvo_capture/set_parameters",
                SetParameters.Request(parameters=[Parameter(name=name, value=v)])).results[0]


def exposure_seen(diagnostics, camera="cam0"):
    for status in reversed(diagnostics):
        if status.name.endswith(camera):
            return float({kv.key: kv.value for kv in status.values}["exposure_time"])
    return None


def test_node_publishes_takes_parameters_and_ends_on_sigint(node_process, subscriber, tmp_path):
    (tmp_path / "cam0.yaml").write_text(f"image_width: {W}\nimage_height: {H}\ncamera_name: cam0\n"
                                        f"camera_matrix: {{rows: 3, cols: 3, data: {K}}}\n"
                                        "distortion_model: plumb_bob\n"
                                        "distortion_coefficients: {rows: 1, cols: 5, data: [0.1, 0, 0, 0, 0]}\n")
    # cam0: colour at full, half and quarter size and the gradients (Y8); cam1: RGB.
    keys = sim_keys({"outputBufferFormats": 6}, {"outputBufferFormats": 11}, clock="realtime")
    proc = node_process(keys, f"cam0.camera_info_url:=file://{tmp_path / 'cam0.yaml'}", "cam0.ae_manual:=true",
                        "cam0.exposure:=0.004", "diagnostics_period:=0.3")
    sub = subscriber
    qos = QoSProfile(depth=2, reliability=ReliabilityPolicy.RELIABLE)
    images, infos = defaultdict(list), defaultdict(list)
    diagnostics = []
    for topic in IMAGES:
        sub.create_subscription(Image, topic, lambda m, t=topic: images[t].append((m, time.time_ns())), qos)
    for prefix in ("/cam0", *LEVELS):
        sub.create_subscription(CameraInfo, f"{prefix}/camera_info", infos[prefix].append, qos)
    for prefix in LEVELS:
        sub.create_subscription(Image, f"{prefix}/image_raw", lambda m, t=prefix: images[t].append((m, 0)), qos)
    sub.create_subscription(DiagnosticArray, "/diagnostics", lambda m: diagnostics.extend(m.status), 10)
    assert spin_until(sub, lambda: all(len(images[t]) >= 5 for t in (*IMAGES, *LEVELS)) and
                      all(infos[p] for p in ("/cam0", *LEVELS)), 60), ({t: len(v) for t, v in images.items()}, proc.poll())

    for topic, (encoding, step, length) in IMAGES.items():
        stamps = []
        for msg, received in images[topic]:
            assert (msg.encoding, msg.step, len(msg.data), msg.width, msg.height) == (encoding, step, length, W, H)
            ns = msg.header.stamp.sec * 1_000_000_000 + msg.header.stamp.nanosec
            assert ns <= received
            stamps.append(ns)
        assert stamps == sorted(stamps) and len(set(stamps)) == len(stamps), topic
    image_stamps = {(m.header.stamp.sec, m.header.stamp.nanosec) for m, _ in images["/cam0/image_raw"]}
    info = infos["/cam0"][-1]
    assert list(info.k) == K and info.distortion_model == "plumb_bob" and info.header.frame_id == "cam0"
    assert image_stamps & {(i.header.stamp.sec, i.header.stamp.nanosec) for i in infos["/cam0"]}
    # A level's image is the calibrated image binned: its size times the binning is the calibration's.
    for prefix, binning in LEVELS.items():
        level_info, level_image = infos[prefix][-1], images[prefix][-1][0]
        assert (level_info.binning_x, level_info.binning_y, list(level_info.k)) == (binning, binning, K), prefix
        assert (level_image.width * binning, level_image.height * binning) == (level_info.width, level_info.height) == (W, H)

    # Launch-time exposure applied before the first frame; a runtime change reaches the feedback.
    assert spin_until(sub, lambda: exposure_seen(diagnostics) is not None, 10)
    assert exposure_seen(diagnostics) == pytest.approx(0.004, rel=0.1)
    assert set_param(sub, "cam0.exposure", 0.012).successful
    diagnostics.clear()
    assert spin_until(sub, lambda: (exposure_seen(diagnostics) or 0) == pytest.approx(0.012, rel=0.1), 10)

    refused = set_param(sub, "cam0.width", 1000)
    assert not refused.successful and "Unsupported resolution" in refused.reason
    kept = call(sub, GetParameters, "/ruvo_capture/get_parameters", GetParameters.Request(names=["cam0.width"]))
    assert kept.values[0].integer_value == W

    start = time.monotonic()
    proc.send_signal(signal.SIGINT)
    try:
        proc.wait(timeout=5)
    except subprocess.TimeoutExpired:
        pytest.fail("the node did not end within 5 s of SIGINT")
    output = proc.stdout.read()
    assert proc.returncode == 0, output
    assert time.monotonic() - start < 5


def test_watchdog_reports_a_silent_camera_and_restarts_with_backoff(node_process, subscriber):
    # cam1's stepped clock never exposes a frame (nobody steps it); cam0 delivers. Uncalibrated,
    # cam0's half-size level carries the full size with its binning.
    keys = sim_keys({"outputBufferFormats": 1}, {"sim.clock": "stepped"}, clock="realtime")
    proc = node_process(keys, "watchdog_timeout:=0.3", "watchdog_max_backoff:=1.2", "diagnostics_period:=0.1")
    statuses, half = [], []
    subscriber.create_subscription(DiagnosticArray, "/diagnostics", lambda m: statuses.extend(m.status), 10)
    subscriber.create_subscription(CameraInfo, "/cam0/color_half/camera_info", half.append, 2)

    def of(camera):
        return [(s.level, s.message, {kv.key: kv.value for kv in s.values}) for s in statuses if s.name.endswith(camera)]

    assert spin_until(subscriber, lambda: any(int(v["watchdog_restarts"]) >= 4 for _, _, v in of("cam1")) and half, 60), \
        (of("cam1")[-1:], proc.poll())
    backoff = {}  # restarts so far -> back-off before the next one
    for level, message, values in of("cam1"):
        backoff.setdefault(int(values["watchdog_restarts"]), float(values["watchdog_backoff"]))
    assert [backoff[n] for n in range(1, 5)] == [0.3, 0.6, 1.2, 1.2]  # doubled up to the maximum
    level, message, _ = of("cam1")[-1]
    assert (level, message) == (DiagnosticStatus.ERROR, "no frames")
    # The working camera delivers again after the restarts.
    def delivering_after_restarts():
        after = [(level, int(v["frames"])) for level, _, v in of("cam0") if int(v["watchdog_restarts"]) >= 4]
        return len(after) > 1 and after[-1][1] > after[0][1] and after[-1][0] == DiagnosticStatus.OK

    assert spin_until(subscriber, delivering_after_restarts, 10), of("cam0")[-1]
    assert (half[-1].binning_x, half[-1].width, half[-1].height) == (2, W, H)
