"""The coordinate scene read back through numpy, pixel for pixel."""

import numpy as np
import pytest
from astropy.io import fits

import tvx

from support import camera_files, coordinates


@pytest.mark.parametrize("binning", [(1, 1), (2, 2), (3, 2)])
def test_whole_chip_is_pixel_exact(camera, binning):
    cam = camera(scene="coordinates")
    frame = cam.expose(0.5, binning=binning)
    bx, by = binning
    assert frame.dtype == np.uint16
    # The nearest whole number of binned pixels: a last column may reach past the chip.
    assert frame.shape == ((64 + by // 2) // by, (80 + bx // 2) // bx)
    assert frame.origin == (0, 0) and frame.binning == binning
    np.testing.assert_array_equal(frame, coordinates((0, 0), frame.shape, binning))
    assert cam.binning == binning


@pytest.mark.parametrize("binning", [(1, 1), (2, 2), (3, 2)])
def test_several_regions_come_back_one_frame_each(camera, binning):
    cam = camera(scene="coordinates")
    cam.binning = binning
    asked = [(3, 5, 21, 10), (40, 20, 16, 17), (60, 40, 20, 24)]
    frames = cam.expose(0, regions=asked)
    bx, by = binning
    assert [f.region for f in frames] == ["region 1", "region 2", "region 3"]
    for (x, y, w, h), frame in zip(asked, frames):
        # Regions are fitted to the binning grid: the nearest whole number of binned pixels.
        assert frame.shape == ((h + by // 2) // by, (w + bx // 2) // bx)
        assert frame.binning == binning
        np.testing.assert_array_equal(frame, coordinates(frame.origin, frame.shape, binning))
    one = cam.expose(0, regions=[asked[0]])
    assert len(one) == 1 and one[0].region == ""


def test_processed_modes_cut_the_active_area_and_take_image_zero_off(camera):
    cam = camera(scene="coordinates")
    codes = coordinates((0, 0), (64, 80), (1, 1)).astype(np.int64)
    # Image zero: the mean of the 13 right-most columns over all rows but two at each end.
    image_zero = round(codes[2:62, 67:80].mean())
    cam.operation_mode = "processed"
    frame = cam.expose(0)
    assert frame.dtype == np.int32 and frame.shape == (64, 64) and frame.origin == (0, 0)
    np.testing.assert_array_equal(frame, codes[:, :64] - image_zero)
    cam.operation_mode = "pedestal"
    frame = cam.expose(0)
    assert frame.operation_mode == "pedestal"
    np.testing.assert_array_equal(frame, np.maximum(codes[:, :64] - (image_zero - 256), 0))


def test_two_channel_data_come_as_two_planes(camera, tmp_path):
    hw, _ = camera_files(tmp_path, hardware=("    mode = 1\n", "    mode = 17\n"))
    cam = camera(hw=hw, scene="coordinates")
    frame = cam.expose(0, regions=[(8, 4, 24, 16)])[0]
    assert frame.two_channel and frame.dtype == np.uint16 and frame.shape == (2, 16, 24)
    first = coordinates(frame.origin, (16, 24), (1, 1))
    np.testing.assert_array_equal(frame[0], first)
    np.testing.assert_array_equal(frame[1], ~first)
    # The file holds the camera's own 32-bit pixels, channel 1 in the upper half.
    frame.to_fits(tmp_path / "two.fits")
    with fits.open(tmp_path / "two.fits") as f:
        np.testing.assert_array_equal(f[0].data, first.astype(np.uint32) << 16 | (~first))
    with pytest.raises(ValueError):
        frame.ccddata
    cam.operation_mode = "processed"
    joined = cam.expose(0)
    assert joined.dtype == np.int32 and joined.shape == (64, 64) and not joined.two_channel


def test_frames_hold_their_metadata(camera):
    cam = camera(scene="coordinates")
    cam.gain_setting = (2, 2)
    frame = cam.expose(2.5, dark=True)
    assert frame.exposure == 2.5 and frame.dark
    assert frame.gain == cam.gain == pytest.approx(1.778, abs=0.001)
    assert frame.readout_mode == "150 kHz low light"
    assert frame.ccd_temperature == pytest.approx(20.0, abs=0.5)
    assert frame.start.tzinfo is not None
    # Anything computed from a frame is a plain array that claims none of it.
    assert type(frame + 1) is np.ndarray and type(frame[1:3]) is np.ndarray
    copy = frame.copy()
    copy -= 1
    assert copy.gain == frame.gain
    np.testing.assert_array_equal(copy, np.asarray(frame) - 1)


def test_a_series_yields_each_frame_as_it_is_read(camera):
    cam = camera(scene="coordinates")
    start = tvx._tvx.clock_centiseconds()
    series = cam.series(3, 0.5, delay=2.0, regions=[(10, 10, 20, 20)], binning=2)
    first = next(series)
    # One exposure so far; the rest wait for the program to ask.
    assert tvx._tvx.clock_centiseconds() - start < 200
    rest = list(series)
    assert len(rest) == 2
    for (frame,) in [first, *rest]:
        assert frame.exposure == 0.5 and frame.binning == (2, 2)
        np.testing.assert_array_equal(frame, coordinates(frame.origin, frame.shape, (2, 2)))
    # Three exposures and two delays on the library's clock.
    assert tvx._tvx.clock_centiseconds() - start >= 3 * 50 + 2 * 200
