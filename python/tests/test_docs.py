"""The examples of the documentation run as written: every ```python
block of README.md, docs/getting-started.md and python/README.md (the blocks
of one page in order, sharing their names, as a reader would type them),
those of docs/spot-arrays.md in a process of their own (the array camera
must be the process's only camera SDK), the example of the package
docstring, and every ```c block, compiled against the built library
(-Wall -Wextra -Werror: a result tested with < 0 is an error) and run."""

import os
import re
import shutil
import subprocess
import sys
import textwrap

import numpy as np
import pytest

import vantix

ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..")
PAGES = ["README.md", "docs/getting-started.md", "python/README.md"]
C_PAGES = ["README.md", "docs/getting-started.md", "docs/spot-arrays.md"]


def _blocks(page, language):
    with open(os.path.join(ROOT, page), encoding="utf-8") as f:
        return re.findall(rf"```{language}\n(.*?)```", f.read(), flags=re.S)


def _run(code, where):
    namespace = {"__name__": "__doc_example__"}
    exec(compile(code, where, "exec"), namespace)
    return namespace


@pytest.mark.parametrize("page", PAGES)
def test_the_python_examples_of_a_page_run(page):
    blocks = _blocks(page, "python")
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


def test_the_spot_array_examples_run_in_a_process_of_their_own():
    code = "\n".join(_blocks("docs/spot-arrays.md", "python"))
    done = subprocess.run([sys.executable, "-c", code], capture_output=True, text=True,
                          cwd=os.path.join(ROOT, "python"), timeout=300)
    assert done.returncode == 0, done.stderr
    centre_x, centre_y, dx, dy = map(float, done.stdout.split()[:4])
    # The beam made there: centre (150, 110), 4-sigma diameter 80 px.
    assert abs(centre_x - 150) < 0.01 and abs(centre_y - 110) < 0.01
    assert abs(dx - 80) < 0.2 and abs(dy - 80) < 0.2


@pytest.mark.parametrize("page", C_PAGES)
def test_the_c_examples_of_a_page_compile_and_run(page, tmp_path):
    compiler = shutil.which("cc") or pytest.skip("no C compiler")
    library = os.environ["VANTIX_LIBRARY"]
    arraycam = os.environ.get("VANTIX_ARRAYCAM", "")
    # The headers as installed: vantix.h, and vantix/arraycam.h.
    (tmp_path / "vantix").mkdir()
    shutil.copy(os.path.join(ROOT, "tools", "arraycam", "arraycam.h"), tmp_path / "vantix")
    for i, block in enumerate(_blocks(page, "c")):
        source = tmp_path / f"example{i}.c"
        source.write_text(block)
        program = tmp_path / f"example{i}"
        command = [compiler, "-std=c99", "-Wall", "-Wextra", "-Werror", str(source),
                   "-o", str(program),
                   "-I", os.path.join(ROOT, "include"), "-I", str(tmp_path),
                   library, f"-Wl,-rpath,{os.path.dirname(library)}", "-lm"]
        if "arraycam" in block:
            command += [arraycam, f"-Wl,-rpath,{os.path.dirname(arraycam)}"]
        built = subprocess.run(command, capture_output=True, text=True)
        assert built.returncode == 0, built.stderr
        ran = subprocess.run([str(program)], capture_output=True, text=True, timeout=120)
        assert ran.returncode == 0, f"{page} block {i}: {ran.stderr}"
