#!/usr/bin/env python3
"""Finds functions of the libraries that are longer than 60 lines.

It goes by the layout that clang-format gives: a brace alone in the first column (of a class, in the
third) ends a function, whose head is the last line before it that stands in that column. Usage:
check_functions.py PROJECT.
"""

import pathlib
import re
import sys

LIMIT = 60
# What else ends so: types, and statements within functions.
OTHER = re.compile(r"(struct|class|union|enum|namespace|extern|if|for|while|switch|do|try|}|:)(?!\w)")


def functions(lines):
    """(index of the first line, number of lines) for each function of a file."""
    for end, line in enumerate(lines):
        if line not in ("}", "  }"):
            continue
        indent = line[:-1]
        first = next((i for i in range(end - 1, -1, -1)
                      if re.match(indent + r"[^\s#]", lines[i])), end)
        if not OTHER.match(lines[first].strip()):
            yield first, end - first + 1


def main():
    project = pathlib.Path(sys.argv[1]).resolve()
    count = long = 0
    for folder in ("src", "tiles", "platform", "include", "python"):
        for path in sorted((project / folder).rglob("*")):
            if path.suffix not in (".h", ".cpp"):
                continue
            lines = path.read_text().splitlines()
            for first, length in functions(lines):
                count += 1
                if length > LIMIT:
                    long += 1
                    print(f"{path.relative_to(project)}:{first + 1}: {length} lines: "
                          f"{lines[first].strip()}")
    print(f"{count} functions, {long} of more than {LIMIT} lines")
    return 1 if long or not count else 0


if __name__ == "__main__":
    sys.exit(main())
