import os

import pytest

import tvx


@pytest.fixture
def camera():
    """Opens cameras on the virtual clock (exposures and cooling take no real time) and closes
    them after the test; the library drives one at a time."""
    opened = []

    def open_camera(**options):
        options.setdefault("virtual_clock", True)
        cam = tvx.Camera(**options)
        opened.append(cam)
        return cam

    yield open_camera
    for cam in opened:
        cam.close()


@pytest.fixture
def build_dir():
    """The CMake build tree the package came from, for tvxcam and cmake --install."""
    path = os.environ.get("TVX_BUILD_DIR")
    if not path:
        pytest.skip("TVX_BUILD_DIR is not set: run the suite through ctest")
    return path
