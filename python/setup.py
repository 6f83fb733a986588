"""Builds the package tvx: `pip install ./python` from the top of a tvx checkout.

The module is built by the project's own CMake, with the library's code linked in, so nothing but
Debian's packages is needed: cmake, a C++20 compiler, libcfitsio-dev, pybind11-dev, python3-dev,
python3-setuptools and python3-numpy (`make deps` installs them all). Nothing is downloaded: there
is no pyproject.toml, so pip builds with the setuptools it finds rather than fetching one.
"""

import os
import re
import shutil
import subprocess
import sys
from pathlib import Path

from setuptools import Extension, setup
from setuptools.command.build_ext import build_ext

HERE = Path(__file__).resolve().parent
TOP = HERE.parent


def project_version():
    text = (TOP / "CMakeLists.txt").read_text()
    return re.search(r"project\(tvx VERSION ([0-9.]+)", text).group(1)


class CMakeBuild(build_ext):
    """Configures the checkout with TVX_PYTHON_ONLY, builds the module and puts it, with the
    simulated camera's files, into the package."""

    def build_extension(self, ext):
        build = Path(self.build_temp).resolve() / "cmake"
        config = [
            "cmake",
            "-S", str(TOP),
            "-B", str(build),
            "-DCMAKE_BUILD_TYPE=Release",
            "-DTVX_PYTHON_ONLY=ON",
            "-DTVX_WERROR=OFF",
            f"-DPython_EXECUTABLE={sys.executable}",
        ]
        if shutil.which("ninja"):
            config += ["-G", "Ninja"]
        if not (build / "CMakeCache.txt").exists():
            subprocess.run(config, check=True)
        jobs = os.environ.get("TVX_BUILD_JOBS", str(os.cpu_count() or 2))
        subprocess.run(
            ["cmake", "--build", str(build), "--target", "tvx_python", "-j", jobs], check=True
        )
        built = build / "python" / "tvx"
        module = next(built.glob("_tvx*.so"))
        target = Path(self.get_ext_fullpath(ext.name))
        target.parent.mkdir(parents=True, exist_ok=True)
        shutil.copy2(module, target)
        data = target.parent / "data" / "sim"
        shutil.rmtree(data, ignore_errors=True)
        shutil.copytree(TOP / "data" / "sim", data)


setup(
    name="tvx",
    version=project_version(),
    description="A CCD camera on a 7100 controller, with numpy arrays and astropy",
    packages=["tvx"],
    ext_modules=[Extension("tvx._tvx", sources=[])],
    cmdclass={"build_ext": CMakeBuild},
    python_requires=">=3.9",
    install_requires=["numpy"],
    extras_require={"astropy": ["astropy"]},
    zip_safe=False,
)
