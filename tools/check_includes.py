#!/usr/bin/env python3
"""Holds the layers of docs/design.md against the code: who may include whom.

Every quoted include must name a header of this project, in a folder that the including file's
layer may see. Within the engine, operations include rooms, and rooms never operations. No headers
include each other in a circle. Every public and platform header must compile on its own. Usage:
check_includes.py PROJECT COMPILER.
"""

import pathlib
import re
import subprocess
import sys

# Layer: the folders it is made of, and the layers that it may include besides itself.
LAYERS = {
    "base": (["platform/base"], []),
    "stream": (["platform/stream"], ["base"]),
    "toolkit": (["platform/toolkit"], ["base"]),
    "format": (["src/format"], ["base", "stream", "toolkit"]),
    "io": (["src/io"], ["format", "include", "base", "stream", "toolkit"]),
    "include": (["include"], ["base", "stream", "toolkit"]),
    "lite": (["src/lite"], ["io", "format", "include", "base", "stream", "toolkit"]),
    "engine": (["src/engine"], ["io", "format", "include", "base", "stream", "toolkit"]),
    "access": (["src/access"], ["io", "format", "include", "base", "stream", "toolkit"]),
    "tiles": (["tiles"], ["include", "base", "stream", "toolkit"]),
    "python": (["python"], ["tiles", "include", "base", "stream", "toolkit"]),
    "tools": (["tools", "examples", "benchmarks"],
              ["tiles", "include", "base", "stream", "toolkit"]),
}
OPERATIONS = [f"{name}.cpp" for name in (
    "ZrCompactFile", "Lifecycle", "GridOperations", "NamedOperations", "BatchOperations",
    "Compaction", "Checking", "Password", "Accessors", "VersionOperations", "Walking",
    "ZrTileCursor")]
# Header of src/engine: the files that may include it. All others are for every room.
ONLY_FOR = {
    "Engine.h": ["LookUp.h", *OPERATIONS],
    "LookUp.h": OPERATIONS,
    "Operation.h": ["Engine.h", "Operation.cpp", *OPERATIONS],
    "Locks.h": ["Engine.h", "Locks.cpp", "Operation.h", *OPERATIONS],
    "OpenFile.h": ["Engine.h", "Locks.cpp", "OpenFile.cpp", "Operation.cpp", "TileCopier.h",
                   "TileWalk.cpp", *OPERATIONS],
}
QUOTED = re.compile(r'^\s*#include "([^"]+)"', re.MULTILINE)


def sources(project, folders):
    for folder in folders:
        for path in sorted((project / folder).rglob("*")):
            if path.suffix in (".h", ".cpp"):
                yield path


def layering_errors(project):
    owner = {}
    for layer, (folders, _) in LAYERS.items():
        for path in sources(project, folders):
            if path.suffix == ".h":
                owner.setdefault(path.name, layer)
    for layer, (folders, allowed) in LAYERS.items():
        for path in sources(project, folders):
            for name in QUOTED.findall(path.read_text()):
                target = owner.get(pathlib.PurePath(name).name)
                if target != layer and target not in allowed:
                    yield f"{path.relative_to(project)} ({layer}) includes {name} ({target})"


def room_errors(project):
    for path in sources(project, ["src/engine"]):
        for name in QUOTED.findall(path.read_text()):
            if name in ONLY_FOR and path.name not in ONLY_FOR[name]:
                yield f"{path.relative_to(project)} includes {name}, which is for operations"


def circle_errors(project):
    """One path for each circle of headers, found by walking the includes from every header."""
    includes = {path.name: QUOTED.findall(path.read_text())
                for path in sources(project, ["include", "src", "platform"]) if path.suffix == ".h"}
    finished = set()

    def walk(name, trail):
        if name in trail:
            yield "a circle: " + " -> ".join([*trail[trail.index(name):], name])
        elif name not in finished:
            for target in includes.get(name, []):
                yield from walk(pathlib.PurePath(target).name, [*trail, name])
            finished.add(name)

    for name in includes:
        yield from walk(name, [])


def standalone_errors(project, compiler):
    folders = [project / "include", project / "tiles/include",
               *sorted(project.glob("platform/*/include"))]
    flags = [f"-I{folder}" for folder in folders]
    for folder in folders:
        for header in sorted(folder.rglob("*.h")):
            run = subprocess.run(
                [compiler, "-std=c++17", "-fsyntax-only", "-Wall", "-Wextra", "-Wpedantic",
                 "-Wshadow", "-Wconversion", "-Werror", *flags, "-x", "c++", "-"],
                input=f'#include "{header.relative_to(folder)}"\n' * 2,
                text=True, capture_output=True, check=False)
            if run.returncode != 0:
                yield f"{header.relative_to(project)} does not compile on its own\n{run.stderr}"


def main():
    project = pathlib.Path(sys.argv[1]).resolve()
    errors = [*layering_errors(project), *room_errors(project), *circle_errors(project),
              *standalone_errors(project, sys.argv[2])]
    for error in errors:
        print(error)
    print(f"{len(errors)} errors")
    return 1 if errors else 0


if __name__ == "__main__":
    sys.exit(main())
