"""The camera: a session on one controller, kept for as long as the program holds it."""

import atexit
import numbers
import os
import weakref
from pathlib import Path
from typing import List, NamedTuple, Optional, Tuple

from . import _tvx
from ._errors import Error
from .frame import Frame, Frames

# The simulator's scenes, as the hardware definition names them.
SCENES = ("starfield", "coordinates", "flat", "dark")
OPERATION_MODES = tuple(_tvx.mode_name(m) for m in range(4))

_HARDWARE_FILE = "7100hw.def"
_INT32_MAX = 2**31 - 1


def data_dir() -> Optional[str]:
    """The simulated camera's files: $TVX_DATA_DIR, else the package's own copy, else those of
    the library's installation or source tree. None when there are none."""
    env = os.environ.get("TVX_DATA_DIR")
    if env:
        return env
    own = Path(__file__).resolve().parent / "data" / "sim"
    if (own / _HARDWARE_FILE).is_file():
        return str(own)
    return _tvx.shipped_data_dir() or None


class Chip(NamedTuple):
    type: str
    mode: str
    serial_no: str
    product: str
    width: int
    height: int
    active_area: Tuple[int, int, int, int]  # x, y, width, height


class GainSetting(NamedTuple):
    pixel_rate: int
    sensitivity: int
    electrons_per_level: float
    ms_per_pixel: float
    description: str


# ---- Arguments, checked before anything reaches the library -----------------------------------


def _whole(value, what, low=None, high=None) -> int:
    if isinstance(value, bool) or not isinstance(value, numbers.Integral):
        raise TypeError(f"{what} must be a whole number, not {type(value).__name__}")
    value = int(value)
    if low is not None and value < low:
        raise ValueError(f"{what} must be at least {low}, not {value}")
    if high is not None and value > high:
        raise ValueError(f"{what} must be at most {high}, not {value}")
    return value


def _seconds(value, what) -> float:
    if isinstance(value, bool) or not isinstance(value, numbers.Real):
        raise TypeError(f"{what} must be a number of seconds, not {type(value).__name__}")
    value = float(value)
    if not 0 <= value <= _INT32_MAX / 1000:
        raise ValueError(f"{what} must lie between 0 and {_INT32_MAX // 1000} s, not {value}")
    return value


def _pair(value, what) -> Tuple[int, int]:
    if isinstance(value, (tuple, list)):
        if len(value) != 2:
            raise ValueError(f"{what} must be one number or (x, y), not {value!r}")
        return _whole(value[0], what, 1), _whole(value[1], what, 1)
    n = _whole(value, what, 1)
    return n, n


def _regions(regions) -> List[Tuple[int, int, int, int]]:
    if isinstance(regions, (str, bytes)) or not hasattr(regions, "__iter__"):
        raise TypeError("regions must be a list of (x, y, width, height)")
    out = []
    for r in regions:
        if not isinstance(r, (tuple, list)) or len(r) != 4:
            raise ValueError(f"a region is (x, y, width, height), not {r!r}")
        x, y = (_whole(v, "a region's corner", 0, _INT32_MAX) for v in r[:2])
        w, h = (_whole(v, "a region's size", 1, _INT32_MAX) for v in r[2:])
        out.append((x, y, w, h))
    if not out:
        raise ValueError("regions must name at least one region; leave it out for the whole chip")
    return out


def _mode(value) -> int:
    if isinstance(value, str):
        if value not in OPERATION_MODES:
            raise ValueError(f"operation mode must be one of {', '.join(OPERATION_MODES)}")
        return OPERATION_MODES.index(value)
    return _whole(value, "operation mode", 0, len(OPERATION_MODES) - 1)


def _file(path, what, data) -> str:
    """A definition file as given, or by its bare name among the simulated camera's files."""
    path = os.fspath(path)
    if not os.path.isfile(path) and data and os.path.dirname(path) == "":
        shipped = os.path.join(data, path)
        if os.path.isfile(shipped):
            return shipped
    if not os.path.isfile(path):
        raise FileNotFoundError(f"no {what} definition file {path!r}")
    return path


# Cameras still open when the interpreter ends are closed first, while the library's thread can
# still be reached.
_open_cameras = weakref.WeakSet()


@atexit.register
def _close_all():
    for cam in list(_open_cameras):
        cam.close()


class Camera:
    """A camera on a 7100 controller: the shipped simulated one unless ``hw`` and ``ccd`` say
    otherwise.

    ``ccd`` is the chip's definition file (a path, or the name of one of the simulated camera's
    files such as "sim_large.def"); ``hw`` the hardware definition (default: the "7100hw.def"
    beside the chip's file, else the simulated camera's). For the simulator only: ``scene``
    (starfield, coordinates, flat or dark), ``seed``, ``realtime`` (read out at the pixel rate)
    and ``virtual_clock`` (time passes only while the library waits, so exposures and cooling
    take no real time).

    Use it in a ``with`` block, or call close(): the camera keeps its server, cooler and settings
    until then.
    """

    def __init__(
        self,
        *,
        ccd=None,
        hw=None,
        scene: Optional[str] = None,
        seed: Optional[int] = None,
        realtime: bool = False,
        virtual_clock: bool = False,
    ):
        data = data_dir()
        ccd = _file(ccd, "CCD", data) if ccd is not None else ""
        hw = _file(hw, "hardware", data) if hw is not None else ""
        if scene is not None and scene not in SCENES:
            raise ValueError(f"scene must be one of {', '.join(SCENES)}, not {scene!r}")
        if seed is not None:
            seed = _whole(seed, "seed", 0, _INT32_MAX)
        self._camera = _tvx.Camera()
        _open_cameras.add(self)
        self._camera.open(
            hw=hw,
            ccd=ccd,
            data_dir=data or "",
            scene=scene or "",
            seed=seed,
            realtime=bool(realtime),
            virtual_clock=bool(virtual_clock),
        )
        self._chip = None

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()

    def close(self) -> None:
        """Ends the session: the camera, then its server. Repeating it does nothing."""
        self._camera.close()
        _open_cameras.discard(self)

    @property
    def closed(self) -> bool:
        return self._camera.closed

    def __repr__(self):
        if self.closed:
            return "<tvx.Camera (closed)>"
        c = self.chip
        return f"<tvx.Camera {c.type} {c.serial_no}, {c.width} x {c.height}, {self._camera.ccd_file}>"

    # ---- What it is ------------------------------------------------------------------------------

    @property
    def chip(self) -> Chip:
        if self._chip is None:
            f = self._camera.chip
            self._chip = Chip(
                f.type, f.mode, f.serial_no, f.product, f.xsize, f.ysize, f.active_area
            )
        return self._chip

    @property
    def hardware_file(self) -> str:
        return self._camera.hardware_file

    @property
    def ccd_file(self) -> str:
        return self._camera.ccd_file

    @property
    def simulated(self) -> bool:
        return self._camera.simulated

    # ---- Settings --------------------------------------------------------------------------------

    @property
    def binning(self) -> Tuple[int, int]:
        """(x, y) binning of the next exposures; set it to one number or a pair."""
        return tuple(self._camera.binning)

    @binning.setter
    def binning(self, value):
        x, y = self._checked_binning(value)
        self._camera.configure(x, y, self._camera.operation_mode)

    @property
    def operation_mode(self) -> str:
        """raw (the pixels as read), iz (image zero measured too), processed (cut to the active
        area, image zero taken off) or pedestal (the same, keeping a pedestal of 256)."""
        return OPERATION_MODES[self._camera.operation_mode]

    @operation_mode.setter
    def operation_mode(self, value):
        x, y = self._camera.binning
        self._camera.configure(x, y, _mode(value))

    @property
    def gain_table(self) -> List[GainSetting]:
        """The gain settings the hardware definition offers."""
        return [
            GainSetting(
                g.pixel_rate, g.sensitivity, g.electrons_per_level, g.ms_per_pixel, g.description
            )
            for g in self._camera.gain_table
        ]

    @property
    def gain_setting(self) -> GainSetting:
        """The gain setting in use; set it to (pixel_rate, sensitivity) from the gain table."""
        current = tuple(self._camera.gain_setting)
        return next(g for g in self.gain_table if g[:2] == current)

    @gain_setting.setter
    def gain_setting(self, value):
        if not isinstance(value, (tuple, list)) or len(value) < 2:
            raise TypeError("a gain setting is (pixel_rate, sensitivity)")
        rate = _whole(value[0], "pixel rate")
        sensitivity = _whole(value[1], "sensitivity")
        offered = [g[:2] for g in self.gain_table]
        if (rate, sensitivity) not in offered:
            raise ValueError(f"no gain setting ({rate}, {sensitivity}); the table offers {offered}")
        self._camera.set_gain_setting(rate, sensitivity)

    @property
    def gain(self) -> float:
        """Electrons per level of the gain setting in use."""
        return self.gain_setting.electrons_per_level

    @property
    def temperature(self) -> float:
        """The CCD's temperature now, in degrees Celsius."""
        return self._camera.temperature

    @property
    def set_point(self) -> Optional[float]:
        """The temperature the controller cools the chip to, in degrees Celsius: its own set
        point, from the hardware definition. None when the definition gives none."""
        return self._camera.set_point

    # ---- Pictures --------------------------------------------------------------------------------

    def expose(self, exposure, *, binning=None, regions=None, dark=False, preflush=1):
        """Flushes the chip ``preflush`` times, exposes for ``exposure`` seconds (a dark frame
        keeps the shutter closed) and reads out the whole chip, or the regions (x, y, width,
        height) in unbinned pixels.

        Returns a Frame for the whole chip, or Frames, one for each region. ``binning`` sets the
        camera's binning first, as setting ``binning`` does.
        """
        shot = self._shot(exposure, binning, regions, dark, preflush)
        return self._take(*shot)

    def series(self, count, exposure, *, delay=0.0, preflush=1, binning=None, regions=None,
               dark=False):
        """Takes ``count`` exposures ``delay`` seconds apart and yields each as it is read out
        (a Frame, or Frames with regions), flushing ``preflush`` times before each."""
        count = _whole(count, "count", 1)
        delay_ms = round(_seconds(delay, "delay") * 1000)
        return self._series(count, delay_ms, self._shot(exposure, binning, regions, dark, preflush))

    def _series(self, count, delay_ms, shot):
        for n in range(count):
            yield self._take(*shot)
            if n + 1 < count and delay_ms > 0:
                self._camera.wait_ms(delay_ms)

    def _checked_binning(self, value):
        x, y = _pair(value, "binning")
        chip = self.chip
        if x > chip.width or y > chip.height:
            raise ValueError(f"binning {x}x{y} is larger than the chip ({chip.width} x {chip.height})")
        return x, y

    def _shot(self, exposure, binning, regions, dark, preflush):
        ms = round(_seconds(exposure, "exposure") * 1000)
        xbin, ybin = self._checked_binning(binning) if binning is not None else self.binning
        rects = _regions(regions) if regions is not None else []
        if not isinstance(dark, bool):
            raise TypeError("dark must be True or False")
        preflush = _whole(preflush, "preflush", 0, 1000)
        return ms, xbin, ybin, rects, dark, preflush, regions is not None

    def _take(self, ms, xbin, ybin, rects, dark, preflush, several):
        taken = self._camera.take(ms, xbin, ybin, rects, self._camera.operation_mode, dark, preflush)
        frames = [Frame(array, info) for array, info in taken]
        return Frames(frames) if several else frames[0]

    # ---- Cooling ---------------------------------------------------------------------------------

    def cool(self, wait=True, *, timeout=600.0, tolerance=0.5, settle=30.0, poll=1.0):
        """Switches the cooler on: the controller cools the chip to its own set point.

        With ``wait``, waits until every reading of the last ``settle`` seconds lies within
        ``tolerance`` kelvin of the set point, and returns the last reading; raises TimeoutError
        when that has not happened within ``timeout`` seconds. Readings are taken every ``poll``
        seconds on the library's clock (a virtual clock makes the wait take no real time).
        """
        timeout = _seconds(timeout, "timeout")
        settle = _seconds(settle, "settle")
        poll_ms = max(10, round(_seconds(poll, "poll") * 1000))
        if isinstance(tolerance, bool) or not isinstance(tolerance, numbers.Real) or tolerance <= 0:
            raise ValueError("tolerance must be a positive number of kelvin")
        set_point = self.set_point
        if set_point is None:
            raise Error("the hardware definition gives the chip no temperature to cool to")
        self._camera.start_cooling()
        if not wait:
            return self.temperature
        watch = _tvx.CoolingWatch(set_point, float(tolerance), settle)
        start = _tvx.clock_centiseconds()
        while True:
            elapsed = ((_tvx.clock_centiseconds() - start) & 0xFFFFFFFF) / 100.0
            watch.add(elapsed, self.temperature)
            if watch.reached:
                return watch.last
            if elapsed >= timeout:
                raise TimeoutError(
                    f"the CCD did not settle at {set_point:.1f} C within {timeout:.0f} s: it is at "
                    f"{watch.last:.2f} C and moving {watch.per_minute:+.2f} K a minute"
                )
            self._camera.wait_ms(poll_ms)
