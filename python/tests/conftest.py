"""Test set-up: the built library and the simulated camera SDK come from
environment variables (python/run_tests.sh sets both from a build tree)."""

import os
import sys

import pytest

_REQUIRED = {
    "VANTIX_LIBRARY": "the built libvantix.so.1 (e.g. build/libvantix.so.1)",
    "VANTIX_SIMCAM": "the simulated camera SDK (e.g. build/tools/simcam/libvantix_simcam.so)",
}

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), ".."))
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))


def pytest_configure(config):
    for name, what in _REQUIRED.items():
        path = os.environ.get(name)
        if not path or not os.path.exists(path):
            raise pytest.UsageError(
                f"set {name} to {what}; got {path!r}. "
                "python/run_tests.sh BUILD_DIR sets it from a CMake build tree.")


@pytest.fixture(scope="session")
def simcam():
    import simcam as helper
    return helper.load(os.environ["VANTIX_SIMCAM"])
