"""The CUDA build hands each plane to GPU array libraries without a copy, through
__cuda_array_interface__ and DLPack; the host build keeps NumPy views only. The GPU cases run
where the CUDA build, a device and CuPy or PyTorch are present, and skip elsewhere."""

from __future__ import annotations

import gc
import importlib

import numpy as np
import pytest

import ruvo_capture as rc
from ruvo_capture import _core
from conftest import sim_keys

POOL = 4
KDL_CUDA, KDL_CUDA_MANAGED = 2, 13


def _gpu_library(name: str):
    try:
        lib = importlib.import_module(name)
        available = lib.cuda.runtime.getDeviceCount() > 0 if name == "cupy" else lib.cuda.is_available()
    except Exception:  # not installed, or no driver: nothing to hand planes to
        available = False
    if not (_core.CUDA_BUILD and available):
        pytest.skip(f"needs the CUDA build, a GPU and {name}")
    return lib


# consumer name -> (library, import of a plane, the array's data address, the array on the host)
CONSUMERS = {
    "cupy-cai": ("cupy", lambda cp, p: cp.asarray(p), lambda a: a.data.ptr, lambda a: a.get()),
    "cupy-dlpack": ("cupy", lambda cp, p: cp.from_dlpack(p), lambda a: a.data.ptr, lambda a: a.get()),
    "torch-cai": ("torch", lambda t, p: t.as_tensor(p, device="cuda"), lambda a: a.data_ptr(), lambda a: a.cpu().numpy()),
    "torch-dlpack-cuda": ("torch", lambda t, p: t.from_dlpack(_AsCuda(p)), lambda a: a.data_ptr(),
                          lambda a: a.cpu().numpy()),
}


class _AsCuda:
    """A consumer that asks for the plane as plain device memory (dl_device), as libraries that
    do not take managed memory can."""

    def __init__(self, plane) -> None:
        self.plane = plane

    def __dlpack_device__(self):
        return (KDL_CUDA, self.plane.__dlpack_device__()[1])

    def __dlpack__(self, **kwargs):
        return self.plane.__dlpack__(**{**kwargs, "dl_device": self.__dlpack_device__()})


def test_host_build_planes_are_numpy_only():
    if _core.CUDA_BUILD:
        pytest.skip("the CUDA build")
    assert not hasattr(rc.Frame, "cuda_planes") and not hasattr(_core, "CudaPlane")


@pytest.mark.parametrize("consumer", CONSUMERS)
def test_gpu_arrays_share_the_plane_memory_and_keep_it(consumer):
    name, take, address, to_host = CONSUMERS[consumer]
    lib = _gpu_library(name)
    # Camera 0: colour pyramid, skin luma (Y8) and the histogram (int32); camera 1: RGB.
    keys = sim_keys({"outputBufferFormats": 2}, {"outputBufferFormats": 11})
    with rc.Device(keys, queue_size=1) as device:
        device.start()
        batches = device.batches(timeout=20)
        batch = []
        while {f.camera_id for f in batch} != {0, 1}:
            batch += next(batches)
        kept = []
        for frame in batch:
            for i, (plane, view) in enumerate(zip(frame.cuda_planes, frame.planes)):
                interface = plane.__cuda_array_interface__
                assert (interface["version"], interface["stream"], interface["data"]) == (
                    3, None, (frame.plane_address(i), True))
                assert plane.__dlpack_device__()[0] == KDL_CUDA_MANAGED
                array = take(lib, plane)
                assert address(array) == frame.plane_address(i), (frame, i)
                assert np.array_equal(to_host(array), view), (frame, i)
                kept.append((array, view.copy()))
        with pytest.raises(BufferError):
            frame.cuda_planes[0].__dlpack__(dl_device=(KDL_CUDA, 99))
        del batch, frame, plane, view, array
        for seen, later in enumerate(batches):  # more batches than the pool has buckets
            del later
            if seen == 3 * POOL:
                break
        assert all(np.array_equal(to_host(a), before) for a, before in kept)
        assert "camera" in device.held()
        (lib.cuda.synchronize if name == "torch" else lib.cuda.runtime.deviceSynchronize)()
        del kept
        batches.close()
        gc.collect()  # a reference cycle inside the GPU library's array objects holds its plane until collected
        device.stop(timeout=5)  # every buffer came back once the GPU arrays were dropped
