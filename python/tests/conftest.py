"""Shared pieces of the Python tests: simulated-camera configurations and a child interpreter
with a time limit for the cases that could hang or crash."""

from __future__ import annotations

import itertools
import os
import subprocess
import sys
import textwrap

import pytest

_names = itertools.count()

# Exposure and white balance that never move: every frame of a run shows the same image.
FROZEN_3A = {"ae.errorY": 2, "awb.P": 0}


def sim_keys(*cameras: dict, clock: str = "free", size=(672, 380)) -> dict:
    """A configuration of one simulated camera per dict of extra keys."""
    keys = {}
    for i, extra in enumerate(cameras):
        entry = {"enabled": True, "path": f"sim:py{os.getpid()}-{next(_names)}", "name": f"cam{i}",
                 "sim.clock": clock, "width": size[0], "height": size[1], **extra}
        keys.update({f"devices[{i}].{k}": v for k, v in entry.items()})
    return keys


def run_child(code: str, timeout: float = 60.0) -> subprocess.CompletedProcess:
    """Runs `code` in a fresh interpreter; a hang fails the test instead of stalling the suite."""
    prelude = "import sys; sys.path.insert(0, %r)\nfrom conftest import sim_keys, FROZEN_3A\n" % os.path.dirname(__file__)
    try:
        return subprocess.run([sys.executable, "-c", prelude + textwrap.dedent(code)], capture_output=True,
                              text=True, timeout=timeout)
    except subprocess.TimeoutExpired as e:
        pytest.fail(f"child did not finish within {timeout} s; output so far: {e.stdout!r} {e.stderr!r}")


def pytest_sessionfinish(session, exitstatus):
    # An empty run (nothing collected, everything deselected) must fail, not pass quietly.
    if session.testscollected == 0:
        session.exitstatus = 1
