"""tvx: a CCD camera on a 7100 controller from Python, with numpy arrays and astropy.

    import tvx

    with tvx.Camera(scene="starfield") as cam:
        frame = cam.expose(1.0, binning=2)
        frame.to_fits("star.fits")

Every call reaches the library on a thread of its own, one call at a time; the interpreter's other
threads run while a call waits for an exposure, and Ctrl-C asks the exposure to stop.
"""

from . import _tvx
from ._errors import Cause, Entry, Error, Record
from .camera import OPERATION_MODES, SCENES, Camera, Chip, GainSetting, data_dir
from .frame import Frame, Frames
from .images import read_image, write_image

__version__ = _tvx.version()

__all__ = [
    "Camera",
    "Cause",
    "Chip",
    "Entry",
    "Error",
    "Frame",
    "Frames",
    "GainSetting",
    "OPERATION_MODES",
    "Record",
    "SCENES",
    "data_dir",
    "memory_totals",
    "read_image",
    "write_image",
]


def memory_totals():
    """The library's memory totals: (bytes in handle blocks, handle blocks, bytes in standard
    blocks, standard blocks). Closing a camera brings them back to where they were."""
    return _tvx.memory_totals()
