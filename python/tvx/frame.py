"""Frames: the pictures a camera takes, as numpy arrays that know how they were taken."""

import datetime
import os

import numpy as np

from . import _tvx

CREATOR = _tvx.default_creator() + " (Python)"


class Frame(np.ndarray):
    """One image of an exposure: the whole chip, or one region of it.

    Raw 16-bit data is ``uint16`` of shape (h, w); raw two-channel data is ``uint16`` of shape
    (2, h, w), channel 1 (the sensitive one) first; processed and 20-bit data are ``int32``.

    A frame is the camera's picture as it came: indexing and arithmetic give plain arrays, so
    nothing computed from a frame claims its metadata. ``copy()`` keeps it.
    """

    def __new__(cls, array, info):
        frame = np.asarray(array).view(cls)
        frame._info = info
        return frame

    def __array_finalize__(self, obj):
        self._info = getattr(obj, "_info", None)

    def __array_ufunc__(self, ufunc, method, *inputs, **kwargs):
        plain = tuple(np.asarray(x) if isinstance(x, Frame) else x for x in inputs)
        outs = kwargs.get("out")
        if outs:
            kwargs["out"] = tuple(np.asarray(o) if isinstance(o, Frame) else o for o in outs)
        result = getattr(ufunc, method)(*plain, **kwargs)
        if outs:
            # In place: the frame itself holds the result, as `frame -= bias` expects.
            return outs[0] if len(outs) == 1 else outs
        return result

    def __getitem__(self, key):
        return np.asarray(self)[key]

    def __reduce__(self):
        # A pickled frame is its pixels: the metadata belongs to the process that took it.
        return np.asarray(self).__reduce__()

    # ---- What the frame says about itself ----------------------------------------------------

    @property
    def start(self) -> datetime.datetime:
        """When the exposure began (UTC)."""
        return datetime.datetime.fromisoformat(self._info.date_obs).replace(
            tzinfo=datetime.timezone.utc
        )

    @property
    def exposure(self) -> float:
        """Exposure time in seconds."""
        return self._info.seconds

    @property
    def dark(self) -> bool:
        """Whether the shutter stayed closed."""
        return self._info.dark

    @property
    def binning(self):
        """(x, y) binning."""
        return self._info.binning

    @property
    def origin(self):
        """(x, y) on the chip, in unbinned pixels, of the frame's first pixel."""
        return self._info.origin

    @property
    def region(self) -> str:
        """The region's name when the exposure read several; "" otherwise."""
        return self._info.region

    @property
    def ccd_temperature(self):
        """The CCD's temperature at the start of the exposure, in degrees Celsius."""
        return self._info.ccd_celsius

    @property
    def gain(self) -> float:
        """Electrons per level (per ADU) of the gain setting the frame was read with."""
        return self._info.gain

    @property
    def readout_mode(self) -> str:
        """The gain setting's description."""
        return self._info.readout_mode

    @property
    def operation_mode(self) -> str:
        """raw, iz, processed or pedestal."""
        return _tvx.mode_name(self._info.mode)

    @property
    def two_channel(self) -> bool:
        return self._info.two_channel

    # ---- Astropy and FITS ----------------------------------------------------------------------

    @property
    def header(self):
        """The frame's FITS header (astropy), made from the same description as to_fits."""
        from astropy.io import fits

        header = fits.Header()
        for key, value, comment, decimals in self._info.cards(CREATOR):
            if isinstance(value, float):
                value = round(value, decimals)
            header[key] = (value, comment)
        return header

    @property
    def hdu(self):
        """An astropy PrimaryHDU of the pixels and the header."""
        from astropy.io import fits

        return fits.PrimaryHDU(np.asarray(self), header=self.header)

    @property
    def ccddata(self):
        """An astropy CCDData in adu, its header (with GAIN, electrons per adu) as metadata."""
        from astropy.nddata import CCDData

        if self.two_channel:
            raise ValueError(
                "a two-channel frame holds two images; the processed operation mode joins them"
            )
        return CCDData(np.asarray(self), unit="adu", meta=self.header)

    def to_fits(self, path) -> None:
        """Writes the frame to a FITS file, as tvxcam writes it."""
        write_fits(path, [self])


class Frames(list):
    """The frames of one exposure that read several regions, one a region, in their order."""

    def to_fits(self, path) -> None:
        """Writes every region to one FITS file, an extension each, as tvxcam writes them."""
        write_fits(path, self)


def write_fits(path, frames) -> None:
    frames = list(frames)
    for f in frames:
        if not isinstance(f, Frame) or f._info is None:
            raise TypeError("only frames taken by a camera can be written with their header")
    _tvx.write_fits(
        os.fspath(path), [(np.ascontiguousarray(np.asarray(f)), f._info) for f in frames], CREATOR
    )
