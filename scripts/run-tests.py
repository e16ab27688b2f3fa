#!/usr/bin/env python3
"""Builds and runs the tests.

  ./test [native|windows|whole|fuzz]... [NAME]... [options]

Rings, all four when none is named:
  native    the platform-neutral units, with sanitizers
  windows   all units, built for Windows, under Wine
  whole     whole upgrades of the unmodified program: what is executable and named test_* in tests/whole
  fuzz      every fuzz target, for a bounded number of inputs

NAME runs only the programs whose name contains it. A program of GoogleTest takes --gtest_filter.

Each program is a process of its own, with a time limit, and under Wine with a prefix of its own.
The output of a failing one is shown, all of them are kept in build/test-logs. The last line sums up; the exit code is
0 only when something ran and nothing failed.

A program of tests/whole finds in its environment RL_BUILD (the folder with the product, the simulator and sample/),
WINEPREFIX (a fresh one, ended by this script) and RL_OUT (a folder for what it wants to keep). It says what it did
in lines "ok NAME", "not ok NAME" and "skip NAME: REASON" among others, and ends with exit code 0 unless it failed.
"""

import argparse
import concurrent.futures
import dataclasses
import json
import os
import pathlib
import re
import shutil
import signal
import subprocess
import sys
import threading
import time

import wineprefix

ROOT = pathlib.Path(__file__).resolve().parent.parent
BUILD = ROOT / "build"
LOGS = BUILD / "test-logs"
SECONDS = LOGS / "seconds.json"  # that each program took last time
RINGS = ("native", "windows", "whole", "fuzz")
PRESETS = {"native": "native", "windows": "windows-debug", "whole": "windows", "fuzz": "fuzz"}
TARGETS = {"whole": ["all", "sample_image"]}
LIMITS = {"native": 180, "windows": 600, "whole": 900}  # seconds for one program
SHOWN_LINES = 150  # of a failing program's output
SANITIZERS = {
    "ASAN_OPTIONS": "detect_leaks=1:detect_stack_use_after_return=1:strict_string_checks=1",
    "UBSAN_OPTIONS": "print_stacktrace=1",
    "ASAN_SYMBOLIZER_PATH": "/usr/bin/llvm-symbolizer-14",
}


@dataclasses.dataclass
class Result:
    """What became of the tests of one program."""

    passed: int = 0
    failed: list = dataclasses.field(default_factory=list)
    skipped: list = dataclasses.field(default_factory=list)

    def add(self, other):
        self.passed += other.passed
        self.failed += other.failed
        self.skipped += other.skipped

    def __str__(self):
        text = f"{self.passed} passed, {len(self.failed)} failed"
        return text + (f", {len(self.skipped)} skipped" if self.skipped else "")


@dataclasses.dataclass
class Program:
    """One test program: how to start it and how to read what it says."""

    ring: str
    name: str
    command: list
    limit: float
    read: object  # (output, exit code) -> Result
    wine: bool = False
    env: dict = dataclasses.field(default_factory=dict)

    @property
    def key(self):
        return f"{self.ring} {self.name}"

    @property
    def log(self):
        return LOGS / self.ring / f"{self.name}.log"


# Reading what a program said

GTEST_END = re.compile(r"\[ +(OK|FAILED|SKIPPED) +\] (\S+?)(?:, where .*)? \(\d+ ms\)$")


def read_gtest(output, code):
    """From the text, not from the report file, which is missing just when a test crashed."""
    result, running, since = Result(), None, []
    for line in output.splitlines():
        begin = re.match(r"\[ RUN      \] (\S+)$", line)
        end = GTEST_END.search(line)
        if begin:
            running, since = begin[1], []
        elif end and running:
            if end[1] == "OK":
                result.passed += 1
            elif end[1] == "FAILED":
                result.failed.append(end[2])
            else:
                reason = [text for text in since if text and not text.endswith(": Skipped")]
                result.skipped.append(f"{end[2]}: {' '.join(reason) or 'no reason given'}")
            running = None
        else:
            since.append(line.strip())
    if running:
        result.failed.append(f"{running} (ended with code {code} in the middle of it)")
    elif code != 0 and not result.failed:
        result.failed.append(f"(all tests passed, but it ended with code {code})")
    return result


def read_lines(output, code):
    result = Result()
    for line in output.splitlines():
        if line.startswith("ok "):
            result.passed += 1
        elif line.startswith("not ok "):
            result.failed.append(line[7:])
        elif line.startswith("skip "):
            result.skipped.append(line[5:])
    if code != 0 and not result.failed:
        result.failed.append(f"(ended with code {code})")
    if code == 0 and not (result.passed or result.failed or result.skipped):
        result.passed = 1
    return result


def read_fuzzer(_output, code):
    return Result(passed=1) if code == 0 else Result(failed=[f"(ended with code {code})"])


# Running programs

class Runner:
    """Runs programs and ends what they leave behind, also when it is interrupted itself."""

    def __init__(self):
        self.lock = threading.Lock()
        self.active = {}  # process -> prefix or None
        self.stopping = False

    def run(self, program):
        """Gives (Result, seconds)."""
        program.log.parent.mkdir(parents=True, exist_ok=True)
        start = time.monotonic()
        prefix = wineprefix.new(BUILD / "wine" / f"{program.ring}-{program.name}") if program.wine else None
        code, note = self._execute(program, prefix)
        output = program.log.read_text(errors="replace")
        result = program.read(output, code)
        if note:
            result.failed.append(note)
        if prefix and not result.failed:
            wineprefix.remove(prefix)
        return result, time.monotonic() - start

    def _execute(self, program, prefix):
        env = {**os.environ, **SANITIZERS, **program.env}
        if prefix:
            env = wineprefix.environment(prefix, env)
        with open(program.log, "wb") as log, self.lock:
            if self.stopping:
                return -1, "(not run: interrupted)"
            process = subprocess.Popen(program.command, env=env, stdin=subprocess.DEVNULL, stdout=log,
                                       stderr=subprocess.STDOUT, cwd=ROOT, start_new_session=True)
            self.active[process] = prefix
        note = None
        try:
            process.wait(program.limit)
        except subprocess.TimeoutExpired:
            note = f"(ended after {program.limit:.0f} seconds, its time limit)"
        self._end(process, prefix)
        with self.lock:
            del self.active[process]
        return process.wait(), note

    @staticmethod
    def _end(process, prefix):
        """Ends the process with all of its children, and whatever runs in the prefix."""
        try:
            os.killpg(process.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass
        if prefix:
            wineprefix.stop(prefix)

    def stop(self):
        with self.lock:
            self.stopping = True
            active = list(self.active.items())
        for process, prefix in active:
            self._end(process, prefix)


# Finding programs

def gtest_programs(ring, options):
    suffix = ".exe" if ring == "windows" else ""
    flags = [f"--gtest_filter={options.gtest_filter}"] if options.gtest_filter else []
    for path in sorted((BUILD / PRESETS[ring] / "tests").glob(f"test_*{suffix}")):
        if path.suffix == suffix:
            wine = ["wine"] if ring == "windows" else []
            yield Program(ring, path.stem, [*wine, str(path), *flags], LIMITS[ring], read_gtest, wine=bool(wine))


def whole_programs(_options):
    for path in sorted((ROOT / "tests" / "whole").glob("test_*")):
        if os.access(path, os.X_OK) and path.is_file():
            out = BUILD / "test-out" / path.stem
            shutil.rmtree(out, ignore_errors=True)
            out.mkdir(parents=True)
            env = {"RL_BUILD": str(BUILD / "windows"), "RL_OUT": str(out)}
            yield Program("whole", path.stem, [str(path)], LIMITS["whole"], read_lines, wine=True, env=env)


def fuzz_programs(options):
    for path in sorted((BUILD / "fuzz" / "fuzz").glob("fuzz_*")):
        if path.suffix or not os.access(path, os.X_OK):
            continue
        # Without a time of the caller's choice every run starts from the seeds and tries the same inputs.
        bounds = [f"-max_total_time={options.fuzz_seconds}"] if options.fuzz_seconds else [
            "-runs=20000", "-seed=1", "-max_total_time=40"]
        found = BUILD / "fuzz" / ("corpus" if options.fuzz_seconds else "scratch") / path.name
        if not options.fuzz_seconds:
            shutil.rmtree(found, ignore_errors=True)
        crashes = BUILD / "fuzz" / "crashes" / path.name
        for folder in (found, crashes):
            folder.mkdir(parents=True, exist_ok=True)
        seeds = ROOT / "fuzz" / "corpus" / path.name.removeprefix("fuzz_")
        command = [str(path), *bounds, "-timeout=20", "-rss_limit_mb=2048", "-print_final_stats=1",
                   f"-artifact_prefix={crashes}/", str(found), *([str(seeds)] if seeds.is_dir() else [])]
        yield Program("fuzz", path.name, command, (options.fuzz_seconds or 60) + 120, read_fuzzer)


def programs(ring, options):
    match ring:
        case "whole":
            found = whole_programs(options)
        case "fuzz":
            found = fuzz_programs(options)
        case _:
            found = gtest_programs(ring, options)
    return [program for program in found if not options.names or any(name in program.name for name in options.names)]


def read_seconds():
    try:
        return json.loads(SECONDS.read_text())
    except (OSError, ValueError):
        return {}


# The whole

def build(ring):
    """Configures and builds what the ring needs; a text when that failed."""
    preset = PRESETS[ring]
    log = LOGS / f"build-{preset}.log"
    log.parent.mkdir(parents=True, exist_ok=True)
    start = time.monotonic()
    with open(log, "wb") as out:
        ninja = ["ninja", "-C", str(BUILD / preset)]
        for command in (["cmake", "--preset", preset],
                        [*ninja, "-t", "cleandead"],  # a test that is no more would be found, and run
                        [*ninja, "-k", "20", *TARGETS.get(ring, ["all"])]):
            if subprocess.run(command, cwd=ROOT, stdin=subprocess.DEVNULL, stdout=out, stderr=subprocess.STDOUT,
                              check=False).returncode != 0:
                out.flush()
                show_end(log)
                return f"{ring}: the build failed"
    print(f"{ring:8} built in {time.monotonic() - start:.0f} s", flush=True)
    return None


def show_end(log):
    lines = log.read_text(errors="replace").splitlines()
    if len(lines) > SHOWN_LINES:
        print(f"--- the last {SHOWN_LINES} of {len(lines)} lines of {log.relative_to(ROOT)}")
    else:
        print(f"--- {log.relative_to(ROOT)}")
    print("\n".join(lines[-SHOWN_LINES:]))
    print("---", flush=True)


def choose(options, total):
    """Builds the rings and gives the programs to run. What is left out by a failed build counts as a failure."""
    chosen = []
    for ring in options.rings:
        failure = build(ring)
        if failure:
            total.failed.append(failure)
            continue
        found = programs(ring, options)
        if not found:
            print(f"{ring:8} has no such program" if options.names else f"{ring:8} has no program yet", flush=True)
        chosen += found
    return chosen


def run(chosen, options, runner, total):
    if any(program.wine for program in chosen):
        wineprefix.template()
    # The longest first, so that none runs alone at the end; a new one may take as long as it is allowed to.
    took = read_seconds()
    chosen = sorted(chosen, key=lambda program: -took.get(program.key, program.limit))
    with concurrent.futures.ThreadPoolExecutor(options.jobs) as pool:
        running = {pool.submit(runner.run, program): program for program in chosen}
        try:
            for future in concurrent.futures.as_completed(running):
                program, (result, seconds) = running[future], future.result()
                took[program.key] = round(seconds, 1)
                report(program, result, seconds, total)
        except KeyboardInterrupt:
            runner.stop()
            raise
    SECONDS.write_text(json.dumps(took, indent=1, sort_keys=True))


def report(program, result, seconds, total):
    print(f"{program.ring:8} {program.name:28} {result}  ({seconds:.1f} s)", flush=True)
    if result.failed:
        show_end(program.log)
    where = f"{program.ring}: {program.name}: "
    total.add(Result(result.passed, [where + text for text in result.failed],
                     [where + text for text in result.skipped]))


def parse(arguments):
    parser = argparse.ArgumentParser(prog="./test", description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter, usage=argparse.SUPPRESS)
    parser.add_argument("what", nargs="*", help=argparse.SUPPRESS)
    parser.add_argument("--gtest_filter", metavar="PATTERN", help="only these tests of the GoogleTest programs")
    parser.add_argument("--fuzz-seconds", type=int, metavar="N",
                        help="fuzz each target for N seconds, and keep the inputs found for the next time")
    parser.add_argument("-j", "--jobs", type=int, default=(os.cpu_count() or 1) + 1,
                        help="programs at a time (one more than there are processors, for some mostly wait)")
    options = parser.parse_args(arguments)
    options.rings = [ring for ring in RINGS if ring in options.what] or list(RINGS)
    options.names = [name for name in options.what if name not in RINGS]
    return options


def enter_own_mounts():
    """As root: goes on as a process with a mount namespace of its own, which holds a volume of 512 KiB for the test that
    fills one, and which goes with the process. Without the right to that, the test says that it is skipped."""
    if "RL_SMALL_VOLUME" in os.environ or os.geteuid() != 0:
        return
    os.environ["RL_SMALL_VOLUME"] = ""  # tried
    small = BUILD / "small-volume"
    small.mkdir(parents=True, exist_ok=True)
    unshare = ["unshare", "--mount", "sh", "-c", 'mount -t tmpfs -o size=512k tmpfs "$0" && exec "$@"', str(small)]
    if subprocess.run([*unshare, "true"], stderr=subprocess.DEVNULL, check=False).returncode == 0:
        os.environ["RL_SMALL_VOLUME"] = "Z:" + str(small).replace("/", "\\")
        os.execvp(unshare[0], [*unshare, sys.executable, *sys.argv])


def main(arguments):
    options = parse(arguments)
    enter_own_mounts()
    runner, total = Runner(), Result()
    signal.signal(signal.SIGTERM, signal.default_int_handler)
    start = time.monotonic()
    try:
        run(choose(options, total), options, runner, total)
    except KeyboardInterrupt:
        total.failed.append("interrupted")
    if total.skipped:
        print("\nSkipped:", *total.skipped, sep="\n  ")
    if total.failed:
        print("\nFailed:", *total.failed, sep="\n  ")
    print(f"\nTook {time.monotonic() - start:.0f} s.\n{total}", flush=True)
    return 0 if total.passed and not total.failed else 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
