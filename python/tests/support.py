"""What the coordinate scene holds, and a simulated camera of our own."""

import os
import shutil

import numpy as np

import tvx


def coordinates(origin, shape, binning):
    """The coordinate scene read from `origin` (unbinned) at `binning`: an unbinned pixel is its
    column plus 256 times its row, a binned one the sum of its pixels, both kept to 16 bits."""
    (x0, y0), (h, w), (bx, by) = origin, shape, binning
    y, x = np.mgrid[y0 : y0 + h * by, x0 : x0 + w * bx]
    codes = (x + 256 * y).reshape(h, by, w, bx)
    return (codes.sum(axis=(1, 3)) & 0xFFFF).astype(np.uint16)


def camera_files(tmp_path, hardware=None, ccd=None):
    """A copy of the simulated camera's files, with edits (old, new) to its hardware or small
    chip's definition. Returns the paths of the two definitions."""
    shutil.copytree(tvx.data_dir(), tmp_path, dirs_exist_ok=True)
    paths = (tmp_path / "7100hw.def", tmp_path / "sim_small.def")
    for path, edit in zip(paths, (hardware, ccd)):
        if edit:
            text = path.read_text()
            assert edit[0] in text
            path.write_text(text.replace(*edit))
    return tuple(os.fspath(p) for p in paths)
