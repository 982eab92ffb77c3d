#!/usr/bin/env python3
"""Puts one fault after the other into the code and sees whether a test notices.

    tools/mutants.py [--only REGEX] [--first N] [--jobs N] [LIST]

Each line of LIST (tools/mutants.tsv) is a mutant, four columns with tabs between them: the file; a part
of one of its lines, which occurs there once; what stands in its place; and the names of the tests that
should notice, as a regular expression for ctest. The faults go into a copy of the committed tree, in
build/mutants. A mutant is noticed if the tests fail or take too long, or if it does not compile, which
is a fault of the list. Exit status 1 if one of ten or more goes unnoticed.
"""
import argparse
import pathlib
import re
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
COPY = ROOT / "build" / "mutants"
SECONDS = 240
# Without what no mutant is about: the command takes longest to build.
TARGETS = ["platform_test", "rooms_test", "lite_test", "engine_test", "interleaving_test",
           "survival_test", "access_test", "tiles_test", "hxcf_soak"]


def run(*command, seconds=None):
    """The exit status; None if it took too long."""
    try:
        with open(COPY / "last.log", "w", encoding="utf-8") as log:
            return subprocess.run(command, cwd=COPY, stdout=log, stderr=log, timeout=seconds,
                                  check=False).returncode
    except subprocess.TimeoutExpired:
        return None


def read_list(path):
    for number, line in enumerate(path.read_text(encoding="utf-8").splitlines(), 1):
        if line and not line.startswith("#"):
            columns = line.split("\t")
            if len(columns) != 4:
                sys.exit(f"{path}:{number}: not four columns")
            yield (number, *columns)


def update_copy():
    if not COPY.exists():
        subprocess.run(["git", "-C", ROOT, "worktree", "prune"], check=True)
        subprocess.run(["git", "-C", ROOT, "worktree", "add", "--detach", COPY], check=True)
    head = subprocess.run(["git", "-C", ROOT, "rev-parse", "HEAD"], check=True,
                          capture_output=True, text=True).stdout.strip()
    for command in (["checkout", "--force", "--detach", head], ["clean", "-fdq", "-e", "build"]):
        subprocess.run(["git", "-C", COPY, *command], check=True, capture_output=True)


def build(jobs):
    return run("cmake", "--build", "build/dev", "-j", jobs, "--target", *TARGETS)


def try_one(file, old, new, tests, jobs):
    path = COPY / file
    text = path.read_text(encoding="utf-8")
    if text.count(old) != 1:
        return f"not applied: the text occurs {text.count(old)} times"
    path.write_text(text.replace(old, new), encoding="utf-8")
    try:
        if build(jobs) != 0:
            return "not compiled"
        status = run("ctest", "--test-dir", "build/dev", "-R", tests, "-j", jobs,
                     "--stop-on-failure", "--timeout", "60", "--no-tests=ignore",
                     seconds=SECONDS)
        return "SURVIVED" if status == 0 else "noticed"
    finally:
        path.write_text(text, encoding="utf-8")


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--only", default="")
    parser.add_argument("--first", type=int, default=0)
    parser.add_argument("--jobs", default="2")
    parser.add_argument("list", nargs="?", default=ROOT / "tools" / "mutants.tsv", type=pathlib.Path)
    options = parser.parse_args()
    update_copy()
    if run("cmake", "--preset", "dev", "-DCMAKE_CXX_FLAGS=-O1") != 0 or build(options.jobs) != 0:
        sys.exit("the code does not build as it is")
    counts = {}
    for number, file, old, new, tests in read_list(options.list):
        if number < options.first or not re.search(options.only, f"{file}\t{old}"):
            continue
        result = try_one(file, old, new, tests, options.jobs)
        counts[result] = counts.get(result, 0) + 1
        print(f"{number}: {result}: {file}: {old} -> {new}", flush=True)
    total = sum(counts.values())
    noticed = counts.get("noticed", 0)
    print(f"{noticed} of {total} noticed; {counts}")
    sys.exit(0 if noticed * 10 >= total * 9 else 1)


if __name__ == "__main__":
    main()
