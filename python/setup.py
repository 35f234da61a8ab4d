"""Builds quelt._quelt with the project's CMake (the repository root is this folder's parent)
into build/python-pip, linked with the static library so the installed module needs no
libQueltLibrary.so beside it."""

import os
import pathlib
import shutil
import subprocess
import sys

from setuptools import Extension, setup
from setuptools.command.build_ext import build_ext

HERE = pathlib.Path(__file__).resolve().parent
ROOT = HERE.parent


class CMakeBuild(build_ext):
    def build_extension(self, ext):
        if not (ROOT / "CMakeLists.txt").exists():
            sys.exit("quelt: build from the QueltLibrary repository (pip install ./python)")
        build = pathlib.Path(os.environ.get("QUELT_BUILD_DIR", ROOT / "build" / "python-pip"))
        subprocess.check_call([
            "cmake", "-S", str(ROOT), "-B", str(build), "-G", "Ninja",
            "-DCMAKE_BUILD_TYPE=Release", "-DQLT_BUILD_TESTS=OFF", "-DQLT_BUILD_BENCHMARKS=OFF",
            "-DQLT_BUILD_TOOLS=OFF", "-DQLT_PYTHON_STATIC=ON",
            f"-DPython3_EXECUTABLE={sys.executable}"])
        subprocess.check_call(["cmake", "--build", str(build), "--target", "quelt_native"])
        name = pathlib.Path(self.get_ext_filename(ext.name)).name
        target = pathlib.Path(self.get_ext_fullpath(ext.name))
        target.parent.mkdir(parents=True, exist_ok=True)
        shutil.copyfile(build / "python" / "quelt" / name, target)


setup(ext_modules=[Extension("quelt._quelt", sources=[])], cmdclass={"build_ext": CMakeBuild})
