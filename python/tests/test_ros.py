"""The ROS 2 node in its own process, seen by a subscriber in this one: images and camera info
with matching stamps and the layout of each encoding, parameters that change the controls or
are refused with the old value kept, diagnostics, and SIGINT."""

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
from diagnostic_msgs.msg import DiagnosticArray
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


@pytest.fixture(scope="module")
def node_process(tmp_path_factory):
    tmp = tmp_path_factory.mktemp("ros")
    keys = sim_keys({"outputBufferFormats": 5}, {"outputBufferFormats": 11}, clock="realtime")
    (tmp / "cameras.properties").write_text("".join(f"{k}={'true' if v is True else v}\n" for k, v in keys.items()))
    (tmp / "cam0.yaml").write_text(f"image_width: {W}\nimage_height: {H}\ncamera_name: cam0\n"
                                   f"camera_matrix: {{rows: 3, cols: 3, data: {K}}}\n"
                                   "distortion_model: plumb_bob\ndistortion_coefficients: {rows: 1, cols: 5, data: [0.1, 0, 0, 0, 0]}\n")
    exe = shutil.which("ruvo-capture-ros", path=os.path.dirname(sys.executable))
    proc = subprocess.Popen([exe, "--ros-args", "-p", f"config:={tmp / 'cameras.properties'}",
                             "-p", "publish_all_outputs:=true", "-p", f"cam0.camera_info_url:=file://{tmp / 'cam0.yaml'}",
                             "-p", "cam0.ae_manual:=true", "-p", "cam0.exposure:=0.004", "-p", "diagnostics_period:=0.3"],
                            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    rclpy.init()
    sub = Node("ruvo_capture_test_subscriber")
    yield proc, sub
    sub.destroy_node()
    rclpy.shutdown()
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


def test_node_publishes_takes_parameters_and_ends_on_sigint(node_process):
    proc, sub = node_process
    qos = QoSProfile(depth=2, reliability=ReliabilityPolicy.RELIABLE)
    images, infos = defaultdict(list), defaultdict(list)
    diagnostics = []
    for topic in IMAGES:
        sub.create_subscription(Image, topic, lambda m, t=topic: images[t].append((m, time.time_ns())), qos)
    sub.create_subscription(CameraInfo, "/cam0/camera_info", lambda m: infos["cam0"].append(m), qos)
    sub.create_subscription(DiagnosticArray, "/diagnostics", lambda m: diagnostics.extend(m.status), 10)
    assert spin_until(sub, lambda: all(len(images[t]) >= 5 for t in IMAGES) and len(infos["cam0"]) >= 5, 60), \
        ({t: len(v) for t, v in images.items()}, proc.poll())

    for topic, (encoding, step, length) in IMAGES.items():
        stamps = []
        for msg, received in images[topic]:
            assert (msg.encoding, msg.step, len(msg.data), msg.width, msg.height) == (encoding, step, length, W, H)
            ns = msg.header.stamp.sec * 1_000_000_000 + msg.header.stamp.nanosec
            assert ns <= received
            stamps.append(ns)
        assert stamps == sorted(stamps) and len(set(stamps)) == len(stamps), topic
    image_stamps = {(m.header.stamp.sec, m.header.stamp.nanosec) for m, _ in images["/cam0/image_raw"]}
    info = infos["cam0"][-1]
    assert list(info.k) == K and info.distortion_model == "plumb_bob" and info.header.frame_id == "cam0"
    assert image_stamps & {(i.header.stamp.sec, i.header.stamp.nanosec) for i in infos["cam0"]}

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
