"""The capture device for Python: configuration, start and bounded stop, the batch iterator, the
callback loop built on it, and controls."""

from __future__ import annotations

import atexit
import os
import warnings
import weakref
from typing import Callable, Dict, Iterable, Iterator, List, Mapping, Optional, Tuple, Union

from . import _core
from ._core import Controls, Frame

__all__ = ["Device", "HeldFramesError"]

Batch = List[Frame]
Overrides = Union[Mapping[str, object], Iterable[str], None]


class HeldFramesError(RuntimeError):
    """stop() or close() ran out of time while frames (or views of them) were still held.

    The message names each camera, bucket and output buffer still held. Capture is off; drop the
    frames and call stop()/close() again.
    """


def _settings(values: Overrides) -> List[Tuple[str, str]]:
    """Key/value pairs from a mapping or from "key=value" texts (as the capture tool's --set)."""
    if values is None:
        return []
    if isinstance(values, Mapping):
        return [(str(k), _text(v)) for k, v in values.items()]
    pairs = []
    for item in values:
        key, sep, value = str(item).partition("=")
        if not sep or not key:
            raise ValueError(f'an override needs key=value, not "{item}"')
        pairs.append((key, value))
    return pairs


def _text(value: object) -> str:
    if isinstance(value, bool):
        return "true" if value else "false"
    return str(value)


_open_devices: "weakref.WeakSet[Device]" = weakref.WeakSet()


@atexit.register
def _close_open_devices() -> None:
    # An interpreter that exits without close() still stops capture; frames kept in globals only
    # leave their buckets held, which no longer matters.
    for device in list(_open_devices):
        try:
            device.close(timeout=1.0)
        except HeldFramesError:
            pass


class Device:
    """The capture device: every enabled camera of a configuration.

    `config` is a configuration file path (.properties, .ini, .xml, .json), a dict of keys
    ("devices[0].path": "sim:cam0", ...), or None for the built-in two simulated cameras.
    `overrides` are layered on top, as a dict or "key=value" texts; "devices[*].key" sets the key
    of every camera entry. Batches wait in a queue of `queue_size`; when the consumer falls behind,
    the oldest batch is dropped (and its buffers returned).
    """

    def __init__(self, config: Union[str, os.PathLike, Mapping[str, object], None] = None,
                 overrides: Overrides = None, queue_size: int = 2) -> None:
        if queue_size < 1:
            raise ValueError("queue_size must be at least 1")
        file = keys = None
        if isinstance(config, Mapping):
            keys = _settings(config)
        elif config is not None:
            file = os.fspath(config)
        self._native = _core.NativeDevice(file, keys, _settings(overrides), queue_size)
        _open_devices.add(self)

    # -- lifecycle ------------------------------------------------------------------------------
    def start(self) -> None:
        """Starts every camera; batches arrive in batches() from now on."""
        self._native.start()

    def stop(self, timeout: float = 5.0) -> None:
        """Stops capture, waiting at most `timeout` seconds for held frames to come back.

        Raises HeldFramesError naming what is still held; a waiting batches() iterator ends.
        """
        held = self._native.stop(timeout)
        if held:
            raise HeldFramesError(f"frames still held after {timeout} s: {held}")

    def close(self, timeout: float = 5.0) -> None:
        """Stops like stop() and frees the device; later calls do nothing."""
        if self._native.closed:
            return
        held = self._native.close(timeout)
        if held:
            raise HeldFramesError(f"cannot close, frames still held after {timeout} s: {held}")
        _open_devices.discard(self)

    @property
    def running(self) -> bool:
        return self._native.running

    @property
    def closed(self) -> bool:
        return self._native.closed

    @property
    def dropped_batches(self) -> int:
        """Batches dropped because the consumer was slower than the cameras."""
        return self._native.dropped_batches

    def __enter__(self) -> "Device":
        return self

    def __exit__(self, *exc) -> None:
        # Leaving the block stops capture. Frames still referenced (a loop variable, a traceback)
        # keep the native device alive; it is freed with the last of them, so only a warning.
        try:
            self.close(timeout=1.0)
        except HeldFramesError as e:
            warnings.warn(f"{e}; the device is freed when they are dropped", ResourceWarning, stacklevel=2)

    # -- frames ---------------------------------------------------------------------------------
    def batches(self, timeout: Optional[float] = None) -> Iterator[Batch]:
        """Yields each batch (a list of frames of every camera that captured) as it arrives.

        Raises TimeoutError when no batch arrives within `timeout` seconds; ends when the device
        is stopped or closed. The GIL is released while waiting.
        """
        while True:
            batch = self._native.next_batch(timeout)
            if batch is None:
                return
            yield batch

    def next_batch(self, timeout: Optional[float] = None) -> Optional[Batch]:
        """The next batch; None once the device is stopped or closed; TimeoutError when none
        arrived within `timeout` seconds."""
        return self._native.next_batch(timeout)

    def held(self) -> str:
        """The buckets clients hold now, per camera (while running, also those being processed)."""
        return self._native.held()

    def run(self, callback: Callable[[Batch], object], max_batches: Optional[int] = None,
            timeout: Optional[float] = None) -> int:
        """Calls `callback(batch)` on this thread for every batch until it returns False, the
        device stops, or `max_batches` were handled; returns the number handled.

        An exception raised by the callback propagates to the caller of run().
        """
        handled = 0
        for batch in self.batches(timeout):
            handled += 1
            if callback(batch) is False or (max_batches is not None and handled >= max_batches):
                break
        return handled

    # -- controls -------------------------------------------------------------------------------
    @property
    def num_cameras(self) -> int:
        return self._native.num_cameras()

    @property
    def camera_names(self) -> List[str]:
        """The "name" key of each camera, by camera id."""
        return list(self._native.camera_names)

    def get_controls(self, camera: int) -> Controls:
        return self._native.get_controls(camera)

    def set_controls(self, camera: int, controls: Controls) -> None:
        """Applies `controls`; a refused change raises CaptureError with the library's message and
        leaves the previous controls in force."""
        self._native.set_controls(camera, controls)

    def set_preset(self, camera: int, name: str) -> None:
        """Applies a named preset ("default", "barcode", "oru"); ValueError for an unknown name."""
        if not self._native.set_preset(camera, name):
            raise ValueError(f'unknown preset "{name}"')

    def capabilities(self, camera: int) -> List[Tuple[int, int]]:
        """The (width, height) sizes the camera delivers."""
        return self._native.capabilities(camera)

    @staticmethod
    def output_configurations() -> Dict[int, tuple]:
        return _core.output_configurations()
