"""What must neither hang nor crash, each case in its own interpreter with a time limit."""

from __future__ import annotations

import pytest

from conftest import run_child

CASES = {
    "close while another thread waits in the iterator": (
        """
        import threading, time, ruvo_capture as rc
        d = rc.Device(sim_keys({}, clock="stepped"))   # a clock nobody steps: no batch ever comes
        d.start()
        got = []
        t = threading.Thread(target=lambda: got.append(list(d.batches())))
        t.start()
        time.sleep(0.5)
        d.close(timeout=5)
        t.join(10)
        print("waiter ended" if not t.is_alive() and got == [[]] else "waiter still waiting")
        """, ["waiter ended"]),
    "close while a view is alive raises and names what is held": (
        """
        import ruvo_capture as rc
        d = rc.Device(sim_keys({}))
        d.start()
        view = next(d.batches(timeout=20))[0].array
        try:
            d.close(timeout=0.2)
            print("close did not raise")
        except rc.HeldFramesError as e:
            print("refused:", e)
        total = int(view.sum())                        # the held bytes are still there
        del view
        d.close(timeout=5)
        print("closed" if d.closed else "still open")
        """, ["refused: cannot close, frames still held after 0.2 s: camera 0 (cam0): bucket", "\nclosed"]),
    "exit without close while frames are kept": (
        """
        import threading, ruvo_capture as rc
        d = rc.Device(sim_keys({}, {}))
        d.start()
        kept = next(d.batches(timeout=20))
        threading.Thread(target=lambda: list(d.batches()), daemon=True).start()
        print("leaving")
        """, ["leaving"]),
    "an exception raised in a callback reaches the caller": (
        """
        import ruvo_capture as rc
        d = rc.Device(sim_keys({}))
        d.start()
        def callback(batch):
            raise KeyError("from the callback")
        try:
            d.run(callback, timeout=20)
        except KeyError as e:
            print("caught", e)
        d.close()
        """, ["caught 'from the callback'"]),
}


@pytest.mark.parametrize("code, expected", CASES.values(), ids=CASES.keys())
def test_no_hang_no_crash(code, expected):
    result = run_child(code, timeout=60)
    assert result.returncode == 0, result.stderr
    for fragment in expected:
        assert fragment in result.stdout, result.stdout + result.stderr
