"""The stub says what the extension has, and the package keeps what its types say."""

import os
import pathlib
import shutil
import subprocess

import hxcf
import pytest

FOLDER = pathlib.Path(hxcf.__file__).parent.parent
USES = '''
import hxcf
with hxcf.open("a", "x", layout=hxcf.Grid(2, 2)) as tiles:
    tiles[1, 2] = tiles[hxcf.Cell(1, 2)] + bytes(tiles.view("a"))
    tiles[1, 2, 3] = memoryview(b"")
    tiles.put_many({"a": bytearray()}, version=1)
    tiles.put_many((entry.key, b"x") for entry in tiles.entries(zoom=range(3)))
    tiles.put_many([("a", b""), ((1, 2, 3), tiles.view("a"))])
    tiles.meta["name"] = tiles.versions("a")[0].stamp  # wrong
    tiles[5] = b""  # wrong
    tiles["a"] = "text"  # wrong
    found = tiles.get("a") + b""  # wrong
    found = tiles.get("a", b"") + b""
    for key, data in tiles.items(prefix="1/"):
        found = data if isinstance(key, str) else b""
    hxcf.open("a", "rw")  # wrong
'''


def run(*command):
    environment = {**os.environ, "MYPYPATH": str(FOLDER), "PYTHONPATH": str(FOLDER)}
    return subprocess.run(command, capture_output=True, text=True, env=environment)


@pytest.mark.skipif(shutil.which("stubtest") is None, reason="no program stubtest (package mypy)")
def test_types(tmp_path):
    (tmp_path / "allowed").write_text(r"hxcf\._hxcf\.(Payload|Tiles|Walk)(\.__init__|\.__buffer__)?")  # not Python's own
    checked = run("stubtest", "--allowlist", str(tmp_path / "allowed"), "hxcf._hxcf")
    assert checked.returncode == 0, checked.stdout + checked.stderr
    (tmp_path / "uses.py").write_text(USES)
    cache = f"--cache-dir={tmp_path}"
    for what in (["-p", "hxcf"], ["--python-version=3.11", str(tmp_path / "uses.py")]):
        checked = run("mypy", "--strict", cache, *what)
        wrong = {int(line.split(":")[1]) for line in checked.stdout.splitlines() if ": error:" in line}
        expected = {i for i, line in enumerate(USES.splitlines(), 1) if "# wrong" in line}
        assert wrong == (set() if what[0] == "-p" else expected), checked.stdout + checked.stderr
