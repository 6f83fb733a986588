"""What a scientist does with the frames: find stars, measure the gain, reduce with ccdproc."""

import warnings

import astropy.units as u
import ccdproc
import numpy as np
import pytest
from astropy.stats import sigma_clipped_stats
from photutils.detection import DAOStarFinder

FIELD = [(0, 0, 512, 512)]


def stars(frame):
    data = np.asarray(frame, dtype=float)
    _, median, std = sigma_clipped_stats(data, sigma=3.0)
    with warnings.catch_warnings():
        warnings.simplefilter("ignore")  # a frame without stars says so by a warning
        found = DAOStarFinder(fwhm=3.0, threshold=8 * std)(data - median)
    return np.zeros((0, 2)) if found is None else np.c_[found["xcentroid"], found["ycentroid"]]


def matched(a, b, within=0.5):
    """How many of the positions `a` have one of `b` within `within` pixels."""
    if len(a) == 0 or len(b) == 0:
        return 0
    distance = np.hypot(*(a[:, None, :] - b[None, :, :]).transpose(2, 0, 1))
    return int(np.sum(distance.min(axis=1) < within))


def test_photutils_finds_the_star_field(camera):
    cam = camera(ccd="sim_large.def", scene="starfield", seed=11)
    first, again = (stars(cam.expose(2.0, regions=FIELD)[0]) for _ in range(2))
    dark = stars(cam.expose(2.0, regions=FIELD, dark=True)[0])
    cam.close()
    other = stars(camera(ccd="sim_large.def", scene="starfield", seed=12).expose(2.0, regions=FIELD)[0])
    # About 600 stars a megapixel, most of them bright enough to find.
    assert 100 < len(first) < 200
    # The same stars in a second exposure, none with the shutter closed, others for another seed.
    assert matched(first, again) >= 0.95 * len(first)
    assert len(dark) == 0
    assert matched(first, other) < 0.05 * len(first)


@pytest.mark.parametrize("ccd", ["sim_small.def", "sim_large.def", "sim_4k.def"])
@pytest.mark.parametrize("setting", [(1, 1), (2, 2)])
def test_photon_transfer_gives_the_quoted_gain(camera, ccd, setting):
    cam = camera(ccd=ccd, scene="flat")
    cam.gain_setting = setting
    # The whole active area of the small chip, a quarter of a megapixel of the others.
    x, y, w, h = cam.chip.active_area
    region = [(x, y, min(w, 512), min(h, 512))]
    bias = [np.asarray(cam.expose(0, regions=region)[0], float) for _ in range(2)]
    flat = [cam.expose(5.0, regions=region)[0] for _ in range(2)]
    signal = np.mean(flat) - np.mean(bias)
    # Each difference holds twice a frame's noise; the bias pair's is the read noise alone.
    shot = np.var(np.subtract(*flat, dtype=float)) / 2 - np.var(bias[0] - bias[1]) / 2
    assert signal / shot == pytest.approx(flat[0].gain, rel=0.05)
    assert flat[0].gain == cam.gain


def test_ccdproc_reduces_a_frame(camera):
    cam = camera(scene="flat")
    frame = cam.expose(1.0)
    ccd = frame.ccddata
    assert ccd.unit == u.adu and ccd.meta["GAIN"] == pytest.approx(frame.gain, abs=1e-4)
    # The covered columns on the right are the overscan.
    ccd = ccdproc.subtract_overscan(ccd, overscan=ccd[:, 67:80], overscan_axis=1, median=True)
    ccd = ccdproc.trim_image(ccd[:, :64])
    ccd = ccdproc.gain_correct(ccd, ccd.meta["GAIN"] * u.electron / u.adu)
    assert ccd.unit == u.electron
    # 2000 photons a second on every pixel, and a little dark current.
    assert np.mean(ccd.data) == pytest.approx(2000, rel=0.02)
