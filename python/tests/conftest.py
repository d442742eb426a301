"""Makes the package and the simulated camera importable (python/run_tests.sh
BUILD_DIR sets the environment variables naming the built libraries)."""

import os
import sys

here = os.path.dirname(os.path.abspath(__file__))
sys.path[:0] = [os.path.join(here, ".."), here]
