"""Failures: the library's as tvx.Error with the whole stack, bad arguments before the library,
and nothing left behind."""

import pytest

import tvx
from support import camera_files


def test_a_broken_definition_file_tells_the_whole_story(camera, tmp_path):
    before = tvx.memory_totals()
    _, ccd = camera_files(tmp_path, ccd=("xsize = 80", "xsize = 99999"))
    with pytest.raises(tvx.Error) as caught:
        camera(ccd=ccd)
    error = caught.value
    assert error.routine == "valid" and "'xsize' (99999)" in error.text
    assert error.category == 3
    assert [e.routine for e in error.records[0].trace] == [
        "valid", "config_check_section", "camera_ctor", "camera_new"]
    assert [c.text for c in error.causes] == ["Errors in ccd configuration file."]
    story = str(error)
    for line in ("valid: identifier 'xsize' (99999) not in the range '1 4224'",
                 "config_check_section: while checking section 'CCD'",
                 "camera_new: during camera allocation",
                 "Possible cause: Errors in ccd configuration file."):
        assert line in story
    assert tvx.memory_totals() == before
    # The stack was cleared: the next camera starts afresh.
    assert camera().expose(0).shape == (64, 80)


def test_a_region_off_the_chip_is_the_library_s_to_refuse(camera):
    cam = camera(scene="coordinates")
    with pytest.raises(tvx.Error) as caught:
        cam.expose(0, regions=[(0, 0, 10, 10), (70, 0, 20, 10)])
    error = caught.value
    assert error.doing == "checking region 2"
    assert error.routine == "region_valid"
    assert error.text == "region specification (70 0, 20 10) off CCD chip (80 x 64)"
    assert [c.code for c in error.causes] == [0x1040]
    assert cam.expose(0, regions=[(60, 0, 20, 10)])[0].shape == (10, 20)


def test_bad_arguments_never_reach_the_library(camera, tmp_path):
    cam = camera()
    for call, error in [
        (lambda: cam.expose(-1), ValueError),
        (lambda: cam.expose("1"), TypeError),
        (lambda: cam.expose(1, binning=0), ValueError),
        (lambda: cam.expose(1, binning=(1, 2, 3)), ValueError),
        (lambda: cam.expose(1, binning=81), ValueError),
        (lambda: cam.expose(1, binning=1.5), TypeError),
        (lambda: cam.expose(1, regions=[(0, 0, 0, 5)]), ValueError),
        (lambda: cam.expose(1, regions=[(0, 0, 5)]), ValueError),
        (lambda: cam.expose(1, regions=[]), ValueError),
        (lambda: cam.expose(1, regions="0,0,5,5"), TypeError),
        (lambda: cam.expose(1, dark="yes"), TypeError),
        (lambda: cam.expose(1, preflush=-1), ValueError),
        (lambda: cam.series(0, 1.0), ValueError),
        (lambda: setattr(cam, "operation_mode", "cooked"), ValueError),
        (lambda: setattr(cam, "operation_mode", 4), ValueError),
        (lambda: setattr(cam, "gain_setting", (3, 1)), ValueError),
        (lambda: cam.cool(tolerance=0), ValueError),
        (lambda: camera(scene="moon"), ValueError),
        (lambda: camera(seed=-1), ValueError),
        (lambda: camera(ccd=tmp_path / "missing.def"), FileNotFoundError),
    ]:
        with pytest.raises(error):
            call()
    assert cam.binning == (1, 1) and cam.operation_mode == "raw"


def test_closing_the_camera_gives_all_its_memory_back(camera, tmp_path):
    before = tvx.memory_totals()
    cam = camera(scene="starfield")
    cam.operation_mode = "processed"
    frames = [cam.expose(1.0), *cam.expose(0, regions=[(0, 0, 8, 8), (20, 20, 8, 8)])]
    assert tvx.memory_totals() != before
    cam.close()
    assert tvx.memory_totals() == before
    # Frames outlive their camera and write their files without it.
    frames[0].to_fits(tmp_path / "after.fits")
    assert tvx.memory_totals() == before
    with pytest.raises(tvx.Error, match="closed"):
        cam.expose(0)
