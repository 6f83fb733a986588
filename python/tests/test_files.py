"""FITS files as tvxcam writes them, and the library's own image files."""

import os
import struct
import subprocess

import numpy as np
import pytest
from astropy.io import fits

import tvx

# Keywords that differ between two files of the same picture: when, and who wrote them.
OWN = {"DATE-OBS", "DATE-END", "CREATOR", "CHECKSUM", "DATASUM"}


def snap_with_tvxcam(build_dir, path, *regions):
    tvxcam = os.path.join(build_dir, "tools", "tvxcam", "tvxcam")
    args = [tvxcam, "snap", "-q", "--virtual-clock", "--scene", "coordinates", "-e", "0"]
    for r in regions:
        args += ["-r", ",".join(map(str, r))]
    subprocess.run(args + ["-o", os.fspath(path)], check=True)


def same_file(ours, theirs):
    with fits.open(ours) as a, fits.open(theirs) as b:
        assert len(a) == len(b)
        for ha, hb in zip(a, b):
            assert [k for k in ha.header if k not in OWN] == [k for k in hb.header if k not in OWN]
            for key in ha.header:
                if key not in OWN:
                    assert ha.header[key] == hb.header[key], key
            np.testing.assert_array_equal(ha.data, hb.data)


def test_to_fits_writes_what_tvxcam_writes(camera, build_dir, tmp_path):
    cam = camera(scene="coordinates")
    frame = cam.expose(0)
    frame.to_fits(tmp_path / "ours.fits")
    snap_with_tvxcam(build_dir, tmp_path / "theirs.fits")
    same_file(tmp_path / "ours.fits", tmp_path / "theirs.fits")
    # The frame's own header is the file's.
    with fits.open(tmp_path / "ours.fits") as f:
        for key, value in frame.header.items():
            assert f[0].header[key] == value, key
        assert f[0].header["CREATOR"].endswith("(Python)")
        assert f[0].header["XORGSUBF"] == 0 and f[0].header["BUNIT"] == "adu"

    regions = [(3, 5, 21, 10), (40, 20, 16, 17)]
    cam.expose(0, regions=regions).to_fits(tmp_path / "ours2.fits")
    snap_with_tvxcam(build_dir, tmp_path / "theirs2.fits", *regions)
    same_file(tmp_path / "ours2.fits", tmp_path / "theirs2.fits")


def test_hdu_and_modified_frames(camera, tmp_path):
    frame = camera(scene="flat").expose(1.0, binning=2)
    hdu = frame.hdu
    assert hdu.header["XBINNING"] == 2 and hdu.header["EXPTIME"] == 1.0
    np.testing.assert_array_equal(hdu.data, frame)
    # A frame the program changed is written as it now is, if its pixels still fit.
    frame[:] = 7
    frame.to_fits(tmp_path / "seven.fits")
    assert np.all(fits.getdata(tmp_path / "seven.fits") == 7)
    with pytest.raises(TypeError):
        tvx.Frames([np.zeros((2, 2), np.uint16)]).to_fits(tmp_path / "x.fits")


def test_out_of_range_pixels_are_refused_before_writing(camera, tmp_path):
    cam = camera(scene="coordinates")
    cam.operation_mode = "processed"
    frame = cam.expose(0)  # signed 16-bit pixels, widened to int32
    frame[0, 0] = 40000
    with pytest.raises(ValueError, match="16-bit signed"):
        frame.to_fits(tmp_path / "big.fits")
    assert not (tmp_path / "big.fits").exists()


@pytest.mark.parametrize(
    "dtype,depth",
    [(np.uint16, None), (np.int16, None), (np.uint8, None), (np.uint16, 12), (np.int32, 28),
     (np.uint32, None)],
)
def test_native_files_round_trip(tmp_path, dtype, depth):
    info = np.iinfo(dtype)
    bits = depth or info.bits
    low, high = (-(1 << (bits - 1)), (1 << (bits - 1)) - 1) if info.min < 0 else (0, (1 << bits) - 1)
    pixels = np.random.default_rng(1).integers(low, high, (5, 7), endpoint=True).astype(dtype)
    tvx.write_image(tmp_path / "x.img", pixels, depth=depth)
    header = (tmp_path / "x.img").read_bytes()[:6]
    assert struct.unpack("<HHBB", header) == (7, 5, bits, 0xFF if info.min < 0 else 0)
    back = tvx.read_image(tmp_path / "x.img")
    assert back.dtype == dtype
    np.testing.assert_array_equal(back, pixels)


def test_older_formats_in_either_byte_order(tmp_path):
    pixels = (np.arange(6 * 9, dtype=np.uint16) * 1000).reshape(6, 9)
    files = {
        "olvane1.le": struct.pack("<HH", 9, 6) + pixels.astype("<u2").tobytes(),
        "olvane1.be": struct.pack(">HH", 9, 6) + pixels.astype(">u2").tobytes(),
        "native.be": struct.pack(">HHH", 9, 6, 16) + pixels.astype(">u2").tobytes(),
    }
    for name, data in files.items():
        (tmp_path / name).write_bytes(data)
        back = tvx.read_image(tmp_path / name)
        assert back.dtype == np.uint16, name
        np.testing.assert_array_equal(back, pixels, err_msg=name)


def test_image_file_errors(tmp_path):
    image = np.zeros((4, 4), np.uint16)
    for bad, error in [
        (image.astype(float), TypeError),
        (np.zeros((2, 4, 4), np.uint16), ValueError),
        (np.zeros((1, 70000), np.uint8), ValueError),
        ([[1, 2]], TypeError),
    ]:
        with pytest.raises(error):
            tvx.write_image(tmp_path / "bad.img", bad)
    with pytest.raises(ValueError, match="cannot hold"):
        tvx.write_image(tmp_path / "bad.img", image + 5000, depth=12)
    with pytest.raises(FileNotFoundError):
        tvx.read_image(tmp_path / "missing.img")
    (tmp_path / "tiff").write_bytes(struct.pack("<HH", 0x4949, 42) + bytes(100))
    with pytest.raises(tvx.Error, match="unable to read tiff file formats") as caught:
        tvx.read_image(tmp_path / "tiff")
    assert caught.value.category == 18 and caught.value.routine == "image_read"
