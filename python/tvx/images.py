"""Image files: the library's native format, and the older formats it reads."""

import os

import numpy as np

from . import _tvx

_MAX_SIDE = 65535  # the native header's width and height are 16-bit
_RASTER_BYTES = 65464  # one raster must fit one of the library's pixel blocks


def read_image(path) -> np.ndarray:
    """Reads an image file: the native format, olvane 1 or olvane 2 (v3, v4), in either byte
    order, told apart by the file's start and size rather than its name.

    Pixels of 1, 2 or 4 bytes keep their size and sign (``uint16`` for 16-bit unsigned data);
    3-byte pixels widen to 4.
    """
    path = os.fspath(path)
    if not os.path.isfile(path):
        raise FileNotFoundError(f"no image file {path!r}")
    return _tvx.read_image(path)


def write_image(path, array, depth=None) -> None:
    """Writes a two-dimensional integer array in the native format.

    ``depth`` is the pixels' depth in bits (default: the array's element size): 12-bit data in a
    ``uint16`` array is written with ``depth=12``. Every value must fit the depth, and the depth
    must need the array's element size: the reader tells a file's pixel size from its length, and
    knows pixels of 1, 2 and 4 bytes only.
    """
    path = os.fspath(path)
    if not isinstance(array, np.ndarray):
        raise TypeError(f"write_image takes a numpy array, not {type(array).__name__}")
    if array.dtype.kind not in "ui" or array.dtype.itemsize not in (1, 2, 4):
        raise TypeError(f"pixels must be 8-, 16- or 32-bit integers, not {array.dtype}")
    if array.ndim != 2:
        raise ValueError(f"an image is two-dimensional, not of shape {array.shape}")
    height, width = array.shape
    bits = 8 * array.dtype.itemsize
    if depth is None:
        depth = bits
    if isinstance(depth, bool) or not isinstance(depth, (int, np.integer)):
        raise TypeError("depth must be a whole number of bits")
    if not bits - 7 <= depth <= bits:
        raise ValueError(f"a depth of {depth} bits does not suit {array.dtype} pixels")
    if not (1 <= width <= _MAX_SIDE and 1 <= height <= _MAX_SIDE):
        raise ValueError(f"an image file holds 1 to {_MAX_SIDE} pixels a side, not {array.shape}")
    if width * ((depth + 7) // 8) > _RASTER_BYTES:
        raise ValueError(f"a row of {width} pixels is longer than {_RASTER_BYTES} bytes")
    _tvx.write_image(path, np.ascontiguousarray(array), int(depth))
