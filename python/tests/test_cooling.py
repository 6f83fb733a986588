"""Cooling to the controller's set point, and saying so only when it is true."""

import pytest

import tvx


def test_cool_waits_until_the_chip_settles_at_the_set_point(camera):
    cam = camera()
    assert cam.set_point == pytest.approx(-100.0)
    assert cam.cool(wait=False) == pytest.approx(20.0, abs=0.5)
    reached = cam.cool(timeout=900, tolerance=0.5, settle=30)
    assert reached == pytest.approx(-100.0, abs=0.5)
    assert cam.temperature == pytest.approx(-100.0, abs=0.5)
    assert cam.expose(0).ccd_temperature == pytest.approx(-100.0, abs=0.5)


def test_a_failing_cooler_is_reported_not_waited_out(camera):
    cam = camera()
    tvx._tvx._cooler_drift(2.0)
    try:
        with pytest.raises(TimeoutError, match="did not settle at -100.0 C within 300 s"):
            cam.cool(timeout=300)
        assert cam.temperature > -95
    finally:
        tvx._tvx._cooler_drift(0.0)
