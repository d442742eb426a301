"""The documentation's examples run as written: the ```python blocks of a
page in order (as a reader types them), those of docs/spot-arrays.md in a
process of their own (the array camera must be its only camera SDK), the
package docstring's, and every ```c block, compiled against the built
library (-Wall -Wextra -Werror: a result tested with < 0 is an error) and run."""

import os
import re
import shutil
import subprocess
import sys
import textwrap

import pytest

import vantix

ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..")


def _blocks(page, language):
    with open(os.path.join(ROOT, page), encoding="utf-8") as f:
        return re.findall(rf"```{language}\n(.*?)```", f.read(), flags=re.S)


@pytest.mark.parametrize("page", ["README.md", "docs/getting-started.md", "python/README.md",
                                  "vantix.__doc__"])
def test_the_python_examples_of_a_page_run(page):
    if page == "vantix.__doc__":
        code = textwrap.dedent(re.search(r"::\n\n(.*?)\n\n(?=\S)", vantix.__doc__, re.S)[1])
    else:
        code = "\n".join(_blocks(page, "python"))
    assert code, f"{page} has no Python example"
    names = {"__name__": "__doc_example__"}
    exec(compile(code, page, "exec"), names)
    if "result" in names:  # the stitching example places every frame
        assert all(f.mode == "placed" for f in names["result"].frames)


def test_the_spot_array_examples_run_in_a_process_of_their_own():
    code = "\n".join(_blocks("docs/spot-arrays.md", "python"))
    done = subprocess.run([sys.executable, "-c", code], capture_output=True, text=True,
                          cwd=os.path.join(ROOT, "python"))
    assert done.returncode == 0, done.stderr
    # The beam made there: centre (150, 110), 4-sigma diameter 80 px.
    measured = [float(v) for v in done.stdout.split()[:4]]
    assert measured == pytest.approx([150, 110, 80, 80], abs=0.2)


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
                   library, f"-Wl,-rpath,{os.path.dirname(library)}", "-lm"]
        if "arraycam" in block:
            command += [arraycam, f"-Wl,-rpath,{os.path.dirname(arraycam)}"]
        built = subprocess.run(command, capture_output=True, text=True)
        assert built.returncode == 0, built.stderr
        ran = subprocess.run([str(program)], capture_output=True, text=True)
        assert ran.returncode == 0, f"{page} block {i}: {ran.stderr}"
