"""The built library and the simulated camera SDK come from environment
variables: python/run_tests.sh BUILD_DIR sets them from a CMake build tree."""

import os
import sys

import pytest

here = os.path.dirname(os.path.abspath(__file__))
sys.path[:0] = [os.path.join(here, ".."), here]


def pytest_configure(config):
    for name in ("VANTIX_LIBRARY", "VANTIX_SIMCAM"):
        if not os.path.exists(os.environ.get(name, "")):
            raise pytest.UsageError(f"{name} names no file: run python/run_tests.sh BUILD_DIR")
