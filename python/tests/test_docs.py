"""The documentation's examples run as written: a page's ```python blocks in
a fresh interpreter, its ```c blocks compiled against the built library and
run (-Wall -Wextra -Werror: a result tested with < 0 is an error)."""

import os
import re
import shutil
import subprocess

import pytest

ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..")


def _blocks(page, language):
    with open(os.path.join(ROOT, page), encoding="utf-8") as f:
        return re.findall(rf"```{language}\n(.*?)```", f.read(), flags=re.S)


# The first numbers each page says its example prints: panorama shapes,
# painted rectangles and frame positions of known pans, the centre and
# 4-sigma diameters of the beam the page makes.
@pytest.mark.parametrize("page,numbers", [
    ("README.md", [240, 552, 3, 8, 0]),
    ("docs/getting-started.md", [240, 552, 3, 0, 0, 520, 240, 0, 0]),
    ("python/README.md", [0, 0, 40, 0, 80, 0, 120, 0, 160, 0]),
    ("docs/spot-arrays.md", [150, 110, 80, 80])])
def test_the_python_examples_of_a_page_print_what_it_says(page, numbers, python):
    printed = python("-c", "\n".join(_blocks(page, "python")))
    values = [float(v) for v in re.findall(r"\d+(?:\.\d+)?", printed)]
    assert values[:len(numbers)] == pytest.approx(numbers, abs=0.2)


@pytest.mark.parametrize("page", ["README.md", "docs/getting-started.md", "docs/spot-arrays.md"])
def test_the_c_examples_of_a_page_compile_and_run(page, tmp_path):
    compiler = shutil.which("cc") or pytest.skip("no C compiler")
    library, arraycam = os.environ["VANTIX_LIBRARY"], os.environ["VANTIX_ARRAYCAM"]
    # The headers as installed: vantix.h, and vantix/arraycam.h.
    (tmp_path / "vantix").mkdir()
    shutil.copy(os.path.join(ROOT, "tools", "arraycam", "arraycam.h"), tmp_path / "vantix")
    for i, block in enumerate(_blocks(page, "c")):
        source, program = tmp_path / f"example{i}.c", tmp_path / f"example{i}"
        source.write_text(block)
        command = [compiler, "-std=c99", "-Wall", "-Wextra", "-Werror", str(source),
                   "-o", str(program), "-I", os.path.join(ROOT, "include"), "-I", str(tmp_path),
                   library, arraycam, "-lm"]
        command += [f"-Wl,-rpath,{os.path.dirname(path)}" for path in (library, arraycam)]
        built = subprocess.run(command, capture_output=True, text=True)
        assert built.returncode == 0, built.stderr
        ran = subprocess.run([str(program)], capture_output=True, text=True)
        assert ran.returncode == 0, f"{page} block {i}: {ran.stderr}"
