"""The Python examples of the documentation run as written: every
```python block of README.md, docs/getting-started.md and python/README.md
(the blocks of one page in order, sharing their names, as a reader would
type them), and the example of the package docstring."""

import os
import re
import textwrap

import numpy as np
import pytest

import vantix

ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..")
PAGES = ["README.md", "docs/getting-started.md", "python/README.md"]


def _run(code, where):
    namespace = {"__name__": "__doc_example__"}
    exec(compile(code, where, "exec"), namespace)
    return namespace


@pytest.mark.parametrize("page", PAGES)
def test_the_python_examples_of_a_page_run(page):
    with open(os.path.join(ROOT, page), encoding="utf-8") as f:
        blocks = re.findall(r"```python\n(.*?)```", f.read(), flags=re.S)
    assert blocks, f"{page} has no Python example"
    names = _run("\n".join(blocks), page)
    # What the examples say they make.
    result = names.get("result")
    if result is not None:
        assert result.image.dtype == np.uint8 and result.image.ndim == 3
        assert all(f.mode == "placed" for f in result.frames)
    for name in ("panorama", "fused", "colour"):
        if name in names:
            assert isinstance(names[name], np.ndarray), name


def test_the_package_docstring_example_runs():
    example = re.search(r"::\n\n(.*?)\n\n(?=\S)", vantix.__doc__, flags=re.S)[1]
    names = _run(textwrap.dedent(example), "vantix.__doc__")
    assert names["panorama"].shape == (240, 552, 3)
    assert names["fused"].shape == (240, 320, 3)
