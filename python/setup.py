"""Supplies the package version from the project version in
../CMakeLists.txt (the library's version), so that it is written once.

Builds happen in a temporary directory, removed at the end: setuptools
would otherwise leave build/ and vantix.egg-info/ in the source tree (pip
builds in place), and a stale build/lib could slip modules deleted since
into the next wheel."""

import atexit
import os
import re
import shutil
import tempfile

from setuptools import setup

HERE = os.path.dirname(os.path.abspath(__file__))


def project_version():
    cmake = os.path.join(HERE, "..", "CMakeLists.txt")
    if os.path.exists(cmake):
        with open(cmake, encoding="utf-8") as f:
            found = re.search(r"project\(\s*vantix\s+VERSION\s+([0-9.]+)", f.read())
        if found:
            return found[1]
    # A source distribution keeps the version in its metadata.
    with open(os.path.join(HERE, "PKG-INFO"), encoding="utf-8") as f:
        return re.search(r"^Version:\s*(\S+)", f.read(), re.M)[1]


SCRATCH = tempfile.mkdtemp(prefix="vantix-build-")
atexit.register(shutil.rmtree, SCRATCH, True)

setup(version=project_version(),
      options={"build": {"build_base": os.path.join(SCRATCH, "build")},
               "egg_info": {"egg_base": SCRATCH}})
