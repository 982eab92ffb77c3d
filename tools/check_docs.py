#!/usr/bin/env python3
"""Holds the documents against the code: links lead somewhere, and tests, files and names exist.

Usage: check_docs.py PROJECT
"""
import pathlib
import re
import sys

root = pathlib.Path(sys.argv[1])
documents = [root / "README.md", root / "CONTRIBUTING.md", *sorted((root / "docs").glob("*.md"))]
folders = ("cmake", "include", "src", "tiles", "platform", "tests", "tools", "python", "fuzz", "benchmarks", "scripts")
sources = [path for folder in folders for path in (root / folder).rglob("*") if path.is_file()]
words = set()
for path in sources:
    words |= set(re.findall(r"\w+", path.name + " " + path.read_text(errors="replace")))
tests = set(re.findall(r"TEST(?:_[FP])?\((\w+), (\w+)\)",
                       "".join(p.read_text() for p in (root / "tests").rglob("*.cpp"))))
suites = {suite for suite, _ in tests}


def anchors(text):
    """The anchors that a page's headings get."""
    return {re.sub(r"[^\w -]", "", heading.lower()).strip().replace(" ", "-")
            for heading in re.findall(r"^#+ (.*)$", text, re.M)}


def faults(page):
    text = page.read_text()
    for link in re.findall(r"\]\(([^)\s]+)\)", text):
        name, _, anchor = link.partition("#")
        target = (page.parent / name) if name else page
        if not target.exists():
            yield f"no file {link}"
        elif anchor and anchor not in anchors(target.read_text()):
            yield f"no heading {link}"
    prose = re.sub(r"```.*?```", "", text, flags=re.S)
    for code in re.findall(r"`([^`\n]+)`", prose):
        suite, dot, case = code.partition(".")
        isTest = dot and suite in suites and case not in ("h", "cpp", "…")
        if isTest and (suite, case) not in tests:
            yield f"no test {code}"
        elif re.fullmatch(r"[A-Z]\w*[a-z]\w*|k[A-Z]\w+|m_\w+", code) and code not in words:
            yield f"no name {code}"


found = [f"{page.relative_to(root)}: {fault}" for page in documents for fault in faults(page)]
print("\n".join(found) or f"{len(documents)} documents, {len(tests)} tests")
sys.exit(bool(found))
