"""The examples of docs/python.md are true: of the real data where they were fetched, else of a
folder that looks like them."""

import doctest
import os
import pathlib
import re
import shutil

import hxcf
import pytest

PROJECT = pathlib.Path(__file__).parents[2]
REAL = PROJECT / "build/realdata/data/cesium/package/Source/Assets/Textures/NaturalEarthII"


@pytest.mark.skipif(shutil.which("hxcf") is None, reason="no command hxcf in PATH")
def test_examples(tmp_path, monkeypatch):
    monkeypatch.chdir(tmp_path)
    if REAL.is_dir():
        shutil.copytree(REAL, "NaturalEarthII", ignore=lambda _, names: [n for n in names if n.endswith("xml")])
    else:
        for z, x, y in [(z, x, y) for z in range(3) for x in range(2 << z) for y in range(1 << z)]:
            path = pathlib.Path(f"NaturalEarthII/{z}/{x}/{y}.jpg")
            path.parent.mkdir(parents=True, exist_ok=True)
            path.write_bytes(b"\xff\xd8\xff\xe0" + os.urandom(8000 + 100 * x + y))
    text = (PROJECT / "docs/python.md").read_text()
    examples = "".join(re.findall(r"^```python\n(.*?)^```$", text, re.M | re.S))
    found = doctest.DocTestParser().get_doctest(examples, {"__name__": "__main__"}, "python.md", None, 0)
    assert len(found.examples) > 40
    told = []
    doctest.DocTestRunner().run(found, out=told.append)
    assert "".join(told) == ""


def test_documents_name_everything():
    text = (PROJECT / "docs/python.md").read_text()
    names = set(hxcf.__all__) | {name for name in vars(hxcf.Tiles) if not name.startswith("_")}
    assert {name for name in names if not re.search(rf"\b{name}\b", text)} <= {
        "Check", "Finding", "FoundKey", "Key", "Statistics", "Tiles", "Version", "Walk"
    }
