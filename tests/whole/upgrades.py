"""Runs the unmodified program under hostsim, once per case, and judges what came of it.

A test program of this folder makes a list of cases and hands it to main(). It needs RL_BUILD, the folder with
rlupgrader.exe, hostsim.exe and sample/; WINEPREFIX, a Wine prefix to use up; and may have RL_OUT, a folder that
keeps each case's transcript and installer log. Without them it takes build/windows and makes a prefix of its own.
"""

import dataclasses
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import time
import traceback

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
sys.path.insert(0, str(ROOT / "scripts"))
import wineprefix  # noqa: E402

# Exit codes of hostsim.
AS_EXPECTED, TIMED_OUT, CRASHED, GUEST_EXIT, DEVIATION, SCRIPT, COPY, END_NOTICE = 0, 3, 4, 5, 6, 7, 8, 9

# Programs that an upgrade starts and that have to be gone when it is over.
OURS = ("rlupgrader.exe", "hostsim.exe", "setup.exe", "msiexec.exe")


@dataclasses.dataclass
class Case:
    """One run. `said` are texts that the transcript holds in this order, `logged` ones that rlinst.log holds, and
    `unsaid` ones that the transcript does not hold."""

    name: str
    options: list = dataclasses.field(default_factory=list)  # of hostsim
    guest: list = dataclasses.field(default_factory=list)  # of the program
    image: object = None  # path, or a function of Bench that gives one
    exits: tuple = (AS_EXPECTED,)
    said: list = dataclasses.field(default_factory=list)
    logged: list = dataclasses.field(default_factory=list)
    unsaid: list = dataclasses.field(default_factory=list)
    check: object = None  # function of (Bench, Run) that raises
    limit: int = 60  # seconds
    env: dict = dataclasses.field(default_factory=dict)
    leaves_image: bool = False


@dataclasses.dataclass
class Run:
    code: int
    output: str
    transcript: str

    @property
    def guest_exit(self):
        found = re.search(r"^guest +exit code (\S+),", self.output, re.M)
        return found and int(found[1], 0)

    @property
    def root(self):
        """The directory that the guest announced, as a Windows path without its last separator."""
        found = re.search(r"^directory +(\S+)\\: \d+ files", self.output, re.M)
        return found and found[1]


class Guest:
    """Keeps the prefix awake while cases run in it: a guest that starts anew takes two seconds each time."""

    def __init__(self, prefix):
        options = {"env": wineprefix.environment(prefix), "stdout": subprocess.DEVNULL, "stderr": subprocess.DEVNULL}
        self.process = subprocess.Popen(["wine", "cmd"], stdin=subprocess.PIPE, **options)
        # A program that is still starting when its guest is stopped hangs, so wait until one has run.
        subprocess.run(["wine", "cmd", "/c", "exit"], stdin=subprocess.DEVNULL, timeout=120, check=False, **options)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.stdin.close()  # the end of its input is the end of cmd
        try:
            self.process.wait(5)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()


class Bench:
    """Where cases run: a build, a prefix, and a folder for images."""

    def __init__(self, build, prefix, out, work):
        self.build, self.prefix, self.out, self.work = build, prefix, out, work
        self.program = prefix / "drive_c" / "upgrader"
        self.program.mkdir(exist_ok=True)
        for name in ("rlupgrader.exe", "icudt38l.dat"):
            shutil.copy(build / name, self.program)

    def sample(self, name):
        return self.build / "sample" / name

    def unix(self, path):
        """The Linux path of a Windows path on drive C."""
        assert path.lower().startswith("c:\\"), path
        found = self.prefix / "drive_c"
        for part in path[3:].split("\\"):
            same = [entry for entry in found.iterdir() if entry.name.lower() == part.lower()]
            found = same[0] if same else found / part
        return found

    def image(self, name, setup="launcher/setup.exe", package=None, **settings):
        """A small image with this setup program and package; the sample's setup.exe behaves as the settings say, see
        sim/sample/setup.cpp."""
        out = self.work / f"{name}.iso"
        if not out.exists():
            command = [sys.executable, ROOT / "sim" / "sample" / "make_image.py", out, "--bare", "--setup",
                       self.sample(setup)]
            command += ["--package", self.sample(package)] if package else []
            for key, value in settings.items():
                command += ["--set", f"{key}={value}"]
            subprocess.run(command, check=True, timeout=60)
        return out

    def log(self):
        """The installer log of the last run, without its time stamps."""
        texts = [path.read_text("utf-8", "replace")
                 for path in (self.prefix / "drive_c" / "users").glob("*/Temp/rlinst.log")]
        return re.sub(r"^inst : \S+ \S+ ", "", "\n".join(texts), flags=re.M)

    def file(self, name, data):
        path = self.work / name
        path.write_bytes(data)
        return path

    def run(self, case):
        """Runs a case. Wine on a busy machine now and then fails to start a program, hostsim, which then has said
        nothing at all, or the guest, with an internal error: that is told and tried once more."""
        run = self.run_once(case)
        if run.code != 0 and not run.transcript and (not run.output.strip() or "failed with error 1359" in run.output):
            print(f"note: {case.name}: Wine did not start a program ({run.code}); once more", file=sys.stderr)
            run = self.run_once(case)
        return run

    def run_once(self, case):
        transcript = self.out / f"{case.name}.txt"
        transcript.unlink(missing_ok=True)
        image = case.image(self) if callable(case.image) else case.image
        command = ["wine", str(self.build / "hostsim.exe"), "--timeout", str(case.limit),
                   "--transcript", str(transcript)]
        command += ["--image", str(image)] if image else []
        command += [*case.options, "--", "C:\\upgrader\\rlupgrader.exe", *case.guest]
        env = {**wineprefix.environment(self.prefix), **case.env}
        # Not a pipe: Wine's own services inherit it, and they stay.
        with open(self.work / "output.txt", "w+b") as output:
            done = subprocess.run(command, env=env, stdin=subprocess.DEVNULL, stdout=output,
                                  stderr=subprocess.STDOUT, timeout=case.limit + 60, check=False)
            output.seek(0)
            said = output.read().decode("utf-8", "replace")
        text = transcript.read_text("utf-8", "replace") if transcript.exists() else ""
        transcript.with_suffix(".log").write_text(self.log())
        return Run(done.returncode, said, text)

    def processes(self):
        """What of ours runs in the prefix."""
        found = []
        mark = f"WINEPREFIX={self.prefix}".encode()
        for folder in pathlib.Path("/proc").glob("[0-9]*"):
            try:
                line = (folder / "cmdline").read_bytes()
                if mark in (folder / "environ").read_bytes().split(b"\0"):
                    name = line.split(b"\0")[0].replace(b"\\", b"/").rsplit(b"/", 1)[-1].decode("utf-8", "replace")
                    found += [name] if name.lower() in OURS else []
            except OSError:
                continue  # gone, or not ours to see
        return found

    def clean(self):
        """Forgets the files of the last run."""
        for folder in (self.prefix / "drive_c" / "users").glob("*/Temp"):
            for entry in folder.iterdir():
                shutil.rmtree(entry) if entry.is_dir() else entry.unlink()


def image(name, *parts, **settings):
    """A function that has a Bench make this image."""
    return lambda bench: bench.image(name, *parts, **settings)


def holds(what, whole, texts):
    """Raises AssertionError when the texts do not stand in the whole in this order."""
    place = 0
    for text in texts:
        found = whole.find(text, place)
        assert found >= 0, f"not {what}{' (in this order)' if text in whole else ''}: {text!r}"
        place = found + len(text)


def judge(bench, case, run):
    """Raises AssertionError when the run is not what the case asks for."""
    assert run.code in case.exits, f"hostsim ended with {run.code} instead of {case.exits}"
    holds("said", run.transcript, case.said)
    holds("logged", bench.log(), case.logged)
    for text in case.unsaid:
        assert text not in run.transcript, f"said: {text!r}"
    assert case.leaves_image or "image left" not in run.output, "the image was left behind"
    if case.check:
        case.check(bench, run)
    # The system takes a moment to forget processes that have been ended.
    limit = time.monotonic() + 10
    while (left := bench.processes()) and time.monotonic() < limit:
        time.sleep(0.05)
    assert not left, f"still running: {left}"


def run_case(bench, case):
    start = time.monotonic()
    run = None
    try:
        run = bench.run(case)
        judge(bench, case, run)
    except Exception as problem:  # noqa: BLE001, a case may fail in any way
        print(f"not ok {case.name}: {problem}")
        if not isinstance(problem, AssertionError):
            traceback.print_exc(file=sys.stdout)
        if run:
            print(run.output)
            print(run.transcript[-6000:])
            print(bench.log())
        good = False
    else:
        print(f"ok {case.name} ({time.monotonic() - start:.1f} s)")
        good = True
    sys.stdout.flush()
    bench.clean()
    return good


def main_with(function):
    """Prepares a Bench and calls function(bench), which gives how many tests passed and failed."""
    build = pathlib.Path(os.environ.get("RL_BUILD", ROOT / "build" / "windows")).resolve()
    with tempfile.TemporaryDirectory() as work:
        work = pathlib.Path(work)
        own = "WINEPREFIX" not in os.environ
        prefix = wineprefix.new(work / "prefix") if own else pathlib.Path(os.environ["WINEPREFIX"]).resolve()
        out = pathlib.Path(os.environ.get("RL_OUT", work / "out"))
        out.mkdir(parents=True, exist_ok=True)
        try:
            bench = Bench(build, prefix, out, work)
            with Guest(prefix):
                passed, failed = function(bench)
        finally:
            if own:
                wineprefix.remove(prefix)
    print(f"{passed} passed, {failed} failed")
    return 0 if passed > 0 and failed == 0 else 1


def main(cases):
    """Runs the cases, or those whose name holds a word of the command line."""
    words = sys.argv[1:]
    chosen = [case for case in cases if not words or any(word in case.name for word in words)]

    def run_all(bench):
        passed = sum(run_case(bench, case) for case in chosen)
        return passed, len(chosen) - passed

    return main_with(run_all)
