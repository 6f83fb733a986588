"""The library on its own thread: other Python threads run while it waits, calls from several
threads take their turns, and Ctrl-C leaves the camera ready."""

import _thread
import threading
import time

import numpy as np

import tvx
from support import coordinates

# A short exposure on the real clock, long enough to see the interpreter run beside it.
REAL_SECONDS = 0.3


def test_other_threads_run_while_the_library_waits(camera):
    cam = camera()
    tvx._tvx._use_real_clock()
    taken = []
    worker = threading.Thread(target=lambda: taken.append(cam.expose(REAL_SECONDS, preflush=0)))
    worker.start()
    ticks = 0
    while worker.is_alive():
        ticks += 1
        time.sleep(0.005)
    worker.join()
    assert len(taken) == 1
    # Held the GIL through the exposure, and this thread would not have ticked at all.
    assert ticks > 10


def interrupted(call):
    """Runs `call` with a Ctrl-C 50 ms into it; whether it raised KeyboardInterrupt."""
    timer = threading.Timer(0.05, _thread.interrupt_main)
    timer.start()
    try:
        call()
    except KeyboardInterrupt:
        return True
    timer.cancel()
    return False


def test_ctrl_c_ends_an_exposure_at_once_and_leaves_the_camera_ready(camera):
    cam = camera(scene="coordinates")
    tvx._tvx._use_real_clock()
    start = time.monotonic()
    assert interrupted(lambda: cam.expose(600, preflush=0))
    # The library's wait gives up on the abort: ten minutes of exposure end within seconds.
    assert time.monotonic() - start < 10
    assert not tvx._tvx._abort_pending()
    frame = cam.expose(0, preflush=0)
    np.testing.assert_array_equal(frame, coordinates((0, 0), (64, 80), (1, 1)))


def test_ctrl_c_while_waiting_for_another_thread_s_exposure(camera):
    cam = camera(scene="coordinates")
    tvx._tvx._use_real_clock()
    taken = []
    worker = threading.Thread(target=lambda: taken.append(cam.expose(REAL_SECONDS, preflush=0)))
    worker.start()
    # The library busy for 50 ms on end is the exposure: every other call takes far less.
    deadline, since = time.monotonic() + 5, None
    while since is None or time.monotonic() - since < 0.05:
        assert time.monotonic() < deadline, "the exposure never started"
        since = (since or time.monotonic()) if tvx._tvx._library_busy() else None
        time.sleep(0.001)
    # Our call, queued behind it, gives up at once; the other thread's exposure is not ours to stop.
    assert interrupted(lambda: cam.temperature)
    assert worker.is_alive()
    worker.join()
    assert not tvx._tvx._abort_pending()
    np.testing.assert_array_equal(taken[0], coordinates((0, 0), (64, 80), (1, 1)))


def test_threads_sharing_a_camera_take_their_turns(camera):
    cam = camera(scene="coordinates")
    wrong = []

    def shoot(region, binning):
        for _ in range(5):
            frame = cam.expose(0, binning=binning, regions=[region])[0]
            if not np.array_equal(frame, coordinates(frame.origin, frame.shape, binning)):
                wrong.append((region, binning))

    threads = [threading.Thread(target=shoot, args=args)
               for args in [((0, 0, 30, 20), (1, 1)), ((10, 10, 40, 40), (2, 2)),
                            ((50, 30, 30, 34), (3, 2))]]
    for t in threads:
        t.start()
    for t in threads:
        t.join()
    assert wrong == []
