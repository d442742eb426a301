"""Makes the package and the simulated camera importable (python/run_tests.sh
BUILD_DIR sets the environment variables naming the built libraries)."""

import os
import subprocess
import sys

import pytest

here = os.path.dirname(os.path.abspath(__file__))
sys.path[:0] = [os.path.join(here, ".."), here]


@pytest.fixture
def python():
    """Runs a fresh interpreter in python/ and returns what it printed; an exit
    status other than 0 or any output on standard error fails the test."""

    def run(*args):
        done = subprocess.run([sys.executable, *args], cwd=os.path.join(here, ".."),
                              capture_output=True, text=True)
        assert (done.returncode, done.stderr) == (0, "")
        return done.stdout

    return run
