#!/usr/bin/env python3
"""Builds and runs the benchmarks, and prints one table of what they measured against what.

  ./bench [NAME]...    only the benchmarks whose name contains one of these

A benchmark is a program bench_* that rl_bench() in a benchmarks/<name>/CMakeLists.txt adds, or an executable file bench_* in
such a folder. It runs alone, with a fresh Wine prefix in memory (WINEPREFIX), RL_BUILD naming the folder of the
optimised build and RL_OUT a folder in memory. It interleaves what it compares, takes medians, and writes one line for
each figure to its standard output, with tabs between:

  NAME    VALUE    UNIT    REFERENCE    RATIO

REFERENCE is the floor or the peer, measured in the same run and in the same unit; RATIO sets the two in relation so
that less is better. A dash stands for a figure without reference. Lines without tabs are remarks, shown
below the table. The table is kept in build/bench/results.tsv.
"""

import argparse
import os
import pathlib
import shutil
import signal
import subprocess
import sys
import tempfile

import wineprefix

ROOT = pathlib.Path(__file__).resolve().parent.parent
BUILD = ROOT / "build" / "bench"
LIMIT = 900  # seconds for one benchmark
HEADINGS = ["benchmark", "value", "unit", "reference", "ratio"]


def build():
    log = BUILD.parent / "bench-build.log"
    log.parent.mkdir(exist_ok=True)
    with open(log, "wb") as out:
        for command in (["cmake", "--preset", "bench"], ["ninja", "-C", str(BUILD), "all", "sample_image"]):
            if subprocess.run(command, cwd=ROOT, stdout=out, stderr=subprocess.STDOUT, check=False).returncode != 0:
                sys.exit("\n".join(log.read_text().splitlines()[-60:]) + f"\nbench: the build failed; see {log}")


def programs(names):
    """The commands by name."""
    found = {path.stem: ["wine", str(path)] for path in (BUILD / "bench").glob("bench_*.exe")}
    for path in (ROOT / "benchmarks").glob("*/bench_*"):
        if path.is_file() and os.access(path, os.X_OK):
            found[path.stem] = [str(path)]
    return {name: found[name] for name in sorted(found) if not names or any(part in name for part in names)}


def run(name, command, scratch):
    """Runs one benchmark. Gives its rows and its remarks, or a row that says how it failed."""
    prefix = wineprefix.new(scratch / "prefix")
    out = scratch / "out"
    out.mkdir()
    log = BUILD / f"{name}.log"
    env = {**os.environ, "RL_BUILD": str(BUILD), "RL_OUT": str(out)}
    try:
        with open(log, "wb") as text:
            code = wineprefix.run(prefix, command, LIMIT, env=env, stdin=subprocess.DEVNULL, stdout=text)
    except subprocess.TimeoutExpired:
        code = f"a time-out of {LIMIT} s"
    finally:
        wineprefix.remove(prefix)
        shutil.rmtree(out)
    lines = [line for line in log.read_text(errors="replace").splitlines() if line.strip()]
    rows = [line.split("\t") for line in lines if "\t" in line]
    remarks = [f"{name}: {line}" for line in lines if "\t" not in line]
    bad = [row for row in rows if len(row) != len(HEADINGS)]
    return rows, remarks, code != 0 or bool(bad) or not rows, f"{name}: ended with {code}; its output is in {log}"


def show(rows):
    table = [HEADINGS, *rows]
    widths = [max(len(row[column]) for row in table) for column in range(len(HEADINGS))]
    for row in table:
        cells = [text.ljust(width) if column in (0, 2) else text.rjust(width)
                 for column, (text, width) in enumerate(zip(row, widths))]
        print("  ".join(cells).rstrip())
    (BUILD / "results.tsv").write_text("".join("\t".join(row) + "\n" for row in table))


def main(arguments):
    parser = argparse.ArgumentParser(prog="./bench", description=__doc__, usage=argparse.SUPPRESS,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("names", nargs="*", help=argparse.SUPPRESS)
    options = parser.parse_args(arguments)
    signal.signal(signal.SIGTERM, signal.default_int_handler)
    build()
    chosen = programs(options.names)
    rows, remarks, failures = [], [], []
    with tempfile.TemporaryDirectory(prefix="rl-bench-", dir="/dev/shm") as scratch:
        for name, command in chosen.items():
            print(f"running {name}", file=sys.stderr, flush=True)
            more, said, failed, how = run(name, command, pathlib.Path(scratch))
            rows += [row for row in more if len(row) == len(HEADINGS)]
            remarks += said
            failures += [how] if failed else []
    show(rows)
    print(*remarks, *failures, sep="\n")
    return 0 if rows and not failures else 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
