"""The package as cmake --install puts it in place: it runs from any directory on its own copy of
the simulated camera."""

import os
import subprocess
import sys
import textwrap


def test_installed_package_takes_a_picture(build_dir, tmp_path):
    prefix = tmp_path / "prefix"
    subprocess.run(["cmake", "--install", build_dir, "--prefix", prefix, "--component", "python"],
                   check=True, capture_output=True)
    site = prefix / "lib" / "python3" / "dist-packages"
    env = {k: v for k, v in os.environ.items() if k not in ("TVX_DATA_DIR", "PYTHONPATH")}
    env["PYTHONPATH"] = os.fspath(site)
    script = textwrap.dedent("""
        import tvx
        with tvx.Camera(virtual_clock=True) as cam:
            frame = cam.expose(0.5)
        print(tvx.__file__)
        print(tvx.data_dir())
        print(frame.shape, frame.dtype)
    """)
    run = tmp_path / "run"
    run.mkdir()
    out = subprocess.run([sys.executable, "-c", script], cwd=run, env=env, check=True,
                         capture_output=True, text=True).stdout.splitlines()
    assert out[0] == os.fspath(site / "tvx" / "__init__.py")
    assert out[1] == os.fspath(site / "tvx" / "data" / "sim")
    assert out[2] == "(64, 80) uint16"
