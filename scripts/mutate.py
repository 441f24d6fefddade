#!/usr/bin/env python3
"""Mutation run: how many small faults in the library does the suite catch?

Each line of the list (scripts/mutations.txt) is `path @@ find @@ replace`:
`find` must occur exactly once in `path` (so the list survives code moving
around); it is replaced, the test programs are rebuilt in their own build tree
(build/mutate, unoptimised, no debug info), and the suite runs until the first
failure. A mutant is caught when any test fails, crashes or hangs. The source
file is restored after every mutant, and on interruption.

Usage: scripts/mutate.py [--list FILE] [--only A-B] [--check]
Prints one line per mutant and ends with `caught C of B built (U not built)`.
Exit code: 0 when every mutant built, 1 otherwise, 2 on a bad list or a red
baseline.
"""
import argparse
import os
import pathlib
import shutil
import signal
import subprocess
import sys
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
BUILD = ROOT / "build" / "mutate"
# Command-level checks run after the test programs. The tool's scenario
# scripts (road, capture, tso, inspect over every golden file, the package)
# take minutes each and drive the same library calls the programs test; they
# stay out so that a run over the whole list fits in an hour.
CTEST_EXTRA = r"^(exports|exports_check_catches_undocumented|tool\.cli)$"
TEST_TIMEOUT = 120


def parse_list(path):
    rows = []
    for n, line in enumerate(path.read_text().splitlines(), 1):
        if not line.strip() or line.lstrip().startswith("#"):
            continue
        parts = line.split(" @@ ")
        if len(parts) != 3:
            sys.exit(f"{path}:{n}: expected 'path @@ find @@ replace'")
        rows.append((n, parts[0].strip(), parts[1], parts[2]))
    return rows


def check_rows(rows):
    bad = 0
    for n, rel, find, _ in rows:
        f = ROOT / rel
        count = f.read_text().count(find) if f.exists() else -1
        if count != 1:
            print(f"line {n}: {rel}: found {count} times: {find}")
            bad += 1
    return bad


def run(cmd, timeout, cwd=ROOT):
    try:
        return subprocess.run(cmd, cwd=cwd, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                              timeout=timeout).returncode
    except subprocess.TimeoutExpired:
        return -1


def configure():
    launcher = ["-DCMAKE_CXX_COMPILER_LAUNCHER=ccache"] if shutil.which("ccache") else []
    linker = ["-DCMAKE_EXE_LINKER_FLAGS=-fuse-ld=lld"] if shutil.which("ld.lld") else []
    cmd = ["cmake", "-S", str(ROOT), "-B", str(BUILD), "-G", "Ninja", "-DCMAKE_BUILD_TYPE=None",
           "-DCMAKE_CXX_FLAGS=-O0 -g0", "-DCMAKE_C_FLAGS=-O0 -g0", "-DKRM_BUILD_EXAMPLES=OFF"]
    return run(cmd + launcher + linker, 600)


def build():
    return run(["cmake", "--build", str(BUILD), "-j2"], 900)


def test_programs(first):
    progs = sorted((BUILD / "tests").glob("krm_test_*"))
    progs = [p for p in progs if p.is_file() and os.access(p, os.X_OK)]
    # The folder that mirrors the mutated code runs first: it fails soonest.
    return sorted(progs, key=lambda p: p.name != f"krm_test_{first}")


def suite_fails(first):
    """Returns the name of the first failing test program, or None."""
    for prog in test_programs(first):
        if run([str(prog), "--gtest_brief=1"], TEST_TIMEOUT, cwd=BUILD / "tests") != 0:
            return prog.name
    if run(["ctest", "--test-dir", str(BUILD), "-R", CTEST_EXTRA, "--stop-on-failure"],
           TEST_TIMEOUT * 6) != 0:
        return "command-level tests"
    return None


def mutate_one(rel, find, replace):
    """Applies one mutant, builds, runs; returns 'caught', 'survived' or 'unbuilt'."""
    f = ROOT / rel
    original = f.read_text()
    try:
        f.write_text(original.replace(find, replace, 1))
        if build() != 0:
            return "unbuilt", ""
        failed = suite_fails(pathlib.Path(rel).parts[1])
        return ("caught", failed) if failed else ("survived", "")
    finally:
        f.write_text(original)


def select(rows, only):
    if not only:
        return rows
    a, b = (int(x) for x in only.split("-"))
    return [r for i, r in enumerate(rows, 1) if a <= i <= b]


def main():
    # Paths stay absolute in what is compiled: tests find their data files
    # from their own source path.
    os.environ["CCACHE_BASEDIR"] = ""
    ap = argparse.ArgumentParser()
    ap.add_argument("--list", default=str(ROOT / "scripts" / "mutations.txt"))
    ap.add_argument("--only", help="run mutants A-B (1-based, in list order)")
    ap.add_argument("--check", action="store_true", help="only check that every row applies")
    args = ap.parse_args()

    rows = select(parse_list(pathlib.Path(args.list)), args.only)
    if check_rows(rows) != 0:
        return 2
    if args.check:
        print(f"{len(rows)} mutants apply")
        return 0
    if subprocess.run(["git", "diff", "--quiet", "--", "src"], cwd=ROOT).returncode != 0:
        print("src/ has uncommitted changes; a mutation run needs a clean library")
        return 2
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(130))
    if configure() != 0 or build() != 0 or suite_fails("") is not None:
        print("baseline does not build or the suite fails without mutants")
        return 2

    counts = {"caught": 0, "survived": 0, "unbuilt": 0}
    start = time.time()
    for i, (n, rel, find, replace) in enumerate(rows, 1):
        verdict, by = mutate_one(rel, find, replace)
        counts[verdict] += 1
        print(f"[{i}/{len(rows)}] line {n} {verdict:8} {rel}: {find.strip()} -> {replace.strip()}"
              + (f"  ({by})" if by else ""), flush=True)
    build()
    built = counts["caught"] + counts["survived"]
    print(f"caught {counts['caught']} of {built} built ({counts['unbuilt']} not built) "
          f"in {int(time.time() - start)} s")
    return 0 if counts["unbuilt"] == 0 else 1


if __name__ == "__main__":
    sys.exit(main())
