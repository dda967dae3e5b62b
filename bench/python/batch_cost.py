#!/usr/bin/env python3
"""Per-batch cost of the Python iterator and of the ROS 2 publish path, two simulated cameras.

    python bench/python/batch_cost.py [--seconds 20] [--size 1280x720] [--fps 30] [--ros] [--ros-only] [--qos-depth 2]
                                      [--node-param name:=value ...]

Iterator: the consumer thread's CPU time per frame (time.thread_time), the whole process's CPU
time per frame (the library's reader threads included), and the latency from capture to the
moment the frame is in Python. --ros additionally starts ruvo-capture-ros in a child process and
subscribes here: the node process's CPU time per published image, the frames the node took in
and the batches its queue dropped (from its /diagnostics), and the latency from capture (the
header stamp) to the subscriber callback. Medians and 99th percentiles over the run.
"""

from __future__ import annotations

import argparse
import os
import shutil
import signal
import struct
import subprocess
import sys
import tempfile
import time

import numpy as np

import ruvo_capture as rc


def keys(width: int, height: int, fps: float) -> dict:
    out = {}
    for i in range(2):
        entry = {"enabled": "true", "path": f"sim:bench{i}", "name": f"cam{i}", "sim.clock": "realtime",
                 "sim.fps": fps, "width": width, "height": height}
        out.update({f"devices[{i}].{k}": v for k, v in entry.items()})
    return out


def summary(name: str, values_ms) -> str:
    a = np.asarray(values_ms, dtype=float)
    return f"{name}: median {np.median(a):.3f} ms, p99 {np.percentile(a, 99):.3f} ms (n={a.size})"


def process_cpu(pid: int) -> float:
    with open(f"/proc/{pid}/stat") as f:
        fields = f.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def consume(batch, latency_ms) -> int:
    """What a consumer does at least: note each frame's age and take its view."""
    now = time.monotonic_ns()
    for frame in batch:
        latency_ms.append((now - frame.timestamp_ns) / 1e6)
        frame.array
    return len(batch)


def bench_iterator(config: dict, seconds: float) -> None:
    thread_ms, latency_ms = [], []
    frames = 0
    with rc.Device(config) as device:
        device.start()
        batches = device.batches(timeout=5)
        next(batches)  # warm-up
        cpu0, end = time.process_time(), time.monotonic() + seconds
        while time.monotonic() < end:
            t0 = time.thread_time()
            frames += consume(next(batches), latency_ms)
            thread_ms.append((time.thread_time() - t0) * 1e3)
        cpu = time.process_time() - cpu0
        batches.close()
        dropped = device.dropped_batches
    print(f"iterator: {frames} frames in {seconds:.0f} s, {dropped} batches dropped by the queue")
    print(summary("  consumer thread CPU per batch", thread_ms))
    print(f"  process CPU per frame (library threads included): {cpu / frames * 1e3:.3f} ms")
    print(summary("  latency capture -> Python", latency_ms))


def node_counts(diagnostics) -> tuple:
    """(frames the node took in, batches its queue dropped) from its last /diagnostics."""
    frames = dropped = 0
    for status in diagnostics[-1].status if diagnostics else ():
        values = {kv.key: kv.value for kv in status.values}
        frames += int(values["frames"])
        dropped = int(values["dropped_batches"])
    return frames, dropped


def bench_ros(config: dict, seconds: float, node_params, depth: int) -> None:
    import rclpy
    from diagnostic_msgs.msg import DiagnosticArray
    from rclpy.executors import SingleThreadedExecutor
    from rclpy.node import Node
    from rclpy.qos import QoSProfile, ReliabilityPolicy
    from sensor_msgs.msg import Image

    with tempfile.TemporaryDirectory() as tmp:
        props = os.path.join(tmp, "bench.properties")
        with open(props, "w") as f:
            f.writelines(f"{k}={v}\n" for k, v in config.items())
        exe = shutil.which("ruvo-capture-ros", path=os.path.dirname(sys.executable)) or "ruvo-capture-ros"
        params = [arg for p in ["yuv_encoding:=nv12", f"qos_depth:={depth}", *node_params] for arg in ("-p", p)]
        node = subprocess.Popen([exe, "--ros-args", "-p", f"config:={props}", *params])
        rclpy.init(args=[])  # this script's own arguments are not ROS arguments
        sub = Node("ruvo_capture_bench")
        executor = SingleThreadedExecutor()
        executor.add_node(sub)
        latency_ms, counting, diagnostics = [], [False], []

        def on_image(serialized: bytes) -> None:
            # Taken serialized, so that the subscriber's own decoding of 1.4 MB images does not
            # limit what is measured: the header stamp follows the 4-byte CDR encapsulation.
            if counting[0]:
                sec, nanosec = struct.unpack_from("<iI", serialized, 4)
                latency_ms.append((time.time_ns() - (sec * 1_000_000_000 + nanosec)) / 1e6)

        qos = QoSProfile(depth=depth, reliability=ReliabilityPolicy.RELIABLE)
        for cam in ("cam0", "cam1"):
            sub.create_subscription(Image, f"/{cam}/image_raw", on_image, qos, raw=True)
        sub.create_subscription(DiagnosticArray, "/diagnostics", diagnostics.append, 10)
        warm = time.monotonic() + 5
        while time.monotonic() < warm:
            executor.spin_once(timeout_sec=0.1)
        counting[0] = True
        start = node_counts(diagnostics)
        cpu0, end = process_cpu(node.pid), time.monotonic() + seconds
        while time.monotonic() < end:
            executor.spin_once(timeout_sec=0.1)
        cpu = process_cpu(node.pid) - cpu0
        counting[0] = False
        stop = node_counts(diagnostics)
        node.send_signal(signal.SIGINT)
        node.wait(timeout=10)
        sub.destroy_node()
        rclpy.shutdown()
    n = len(latency_ms)
    print(f"ros: {n} images received in {seconds:.0f} s; the node took in {stop[0] - start[0]} frames "
          f"(diagnostics, once a second) and its queue dropped {stop[1] - start[1]} batches")
    published = stop[0] - start[0]
    if published:
        print(f"  node process CPU per published image (library threads included): {cpu / published * 1e3:.3f} ms")
    if n:
        print(summary("  latency capture -> subscriber callback", latency_ms))


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--seconds", type=float, default=20)
    parser.add_argument("--size", default="1280x720")
    parser.add_argument("--fps", type=float, default=30)
    parser.add_argument("--ros", action="store_true")
    parser.add_argument("--ros-only", action="store_true", help="skip the iterator")
    parser.add_argument("--qos-depth", type=int, default=2, help="history depth of the node and the subscriber")
    parser.add_argument("--node-param", action="append", default=[], metavar="NAME:=VALUE",
                        help="a parameter of the node (repeatable), e.g. yuv_encoding:=rgb8")
    args = parser.parse_args()
    width, height = map(int, args.size.split("x"))
    config = keys(width, height, args.fps)
    if not args.ros_only:
        bench_iterator(config, args.seconds)
    if args.ros:
        bench_ros(config, args.seconds, args.node_param, args.qos_depth)


if __name__ == "__main__":
    main()
