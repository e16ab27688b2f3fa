#!/usr/bin/env python3
"""Upgrades that end in a crash of the program: its report reaches the operator, the log and a minidump."""

import re
import struct
import subprocess
import sys

from upgrades import CRASHED, ROOT, Case, main, wineprefix

ACCESS_VIOLATION, ILLEGAL, BREAKPOINT, OVERFLOW = 0xC0000005, 0xC000001D, 0x80000003, 0xC00000FD
NAMES = {ACCESS_VIOLATION: "(access violation)", BREAKPOINT: "(debug breakpoint)"}
READING = [0, 0x10]

# Streams of a minidump.
THREADS, MODULES, EXCEPTION = 3, 4, 6


class Dump:
    """What a minidump says, read by its documented layout."""

    def __init__(self, data):
        signature, _, count, directory = struct.unpack_from("<4sIII", data)
        assert signature == b"MDMP", "no minidump"
        self.flags, = struct.unpack_from("<Q", data, 24)
        streams = {}
        for index in range(count):
            kind, size, at = struct.unpack_from("<III", data, directory + 12 * index)
            assert at + size <= len(data), f"stream {kind} leaves the file"
            streams[kind] = at
        self.stacks = {struct.unpack_from("<I", data, entry)[0]: struct.unpack_from("<QI", data, entry + 24)
                       for entry in self.list(data, streams[THREADS], 48)}  # by thread: start and size
        self.modules = [self.module(data, entry) for entry in self.list(data, streams[MODULES], 108)]
        at = streams[EXCEPTION]
        self.thread, _, self.code, _, _, self.address, parameters, _ = struct.unpack_from("<IIIIQQII", data, at)
        self.parameters = list(struct.unpack_from(f"<{parameters}Q", data, at + 40))
        context, = struct.unpack_from("<I", data, at + 164)
        self.stack_pointer, = struct.unpack_from("<Q", data, context + 0x98)

    @staticmethod
    def list(data, at, size):
        count, = struct.unpack_from("<I", data, at)
        return range(at + 4, at + 4 + count * size, size)

    @staticmethod
    def module(data, entry):
        base, size, _, _, name = struct.unpack_from("<QIIII", data, entry)
        length, = struct.unpack_from("<I", data, name)
        return base, size, data[name + 4:name + 4 + length].decode("utf-16-le")

    def holds_stack(self):
        """Whether the thread that failed is there, with the memory that its stack pointer points to."""
        start, size = self.stacks.get(self.thread, (0, 0))
        return start <= self.stack_pointer < start + size

    def module_of(self, address):
        return next((name for base, size, name in self.modules if base <= address < base + size), None)


def folders(bench):
    return [path / "AppData" / "Roaming" for path in (bench.prefix / "drive_c" / "users").iterdir()]


def take_dumps(bench):
    found = []
    for folder in folders(bench):
        for path in folder.glob("*.dmp") if folder.is_dir() else []:
            found.append((path.name, path.read_bytes()))
            path.unlink()
    return found


def log_path(bench):
    return next((bench.prefix / "drive_c" / "users").rglob("rlinst.log"))


def expect_lines(run, code, *more):
    """The report stands in the simulator's output, in order; the program ended with the exception's code."""
    name = NAMES.get(code, "")
    place = 0
    for line in [f"----Win32 exception detected, exceptionCode {code:#010x} {name}----", "IP 0x", "rax ", "rsi ", *more,
                 f"Exception {code:#010x} {name} has occurred."]:
        found = run.output.find("  ! " + line, place)
        assert found >= 0, f"the operator does not see {line!r}"
        place = found
    assert run.guest_exit == code, f"exit code {run.guest_exit}"


def reported(code, parameters=(), module="rlupgrader.exe", function=None):
    """Checks for a whole report. The functions of the backtrace are named by the symbols of the build."""
    def check(bench, run):
        expect_lines(run, code, "CoreDump: Writing minidump to C:\\")
        (name, data), = take_dumps(bench)
        assert re.fullmatch(r"rlupgrader-\d+(-\d+)?\.dmp", name), name
        dump = Dump(data)
        assert dump.code == code, f"the dump says {dump.code:#x}"
        assert f"IP {dump.address:#010x} " in run.output, f"the dump says {dump.address:#x}"
        assert parameters is None or dump.parameters == list(parameters), dump.parameters
        assert dump.flags == 5, f"the dump is of type {dump.flags}"
        assert dump.holds_stack(), f"no stack of thread {dump.thread} at {dump.stack_pointer:#x}: {dump.stacks}"
        found = dump.module_of(dump.address)
        assert (found or "").rsplit("\\", 1)[-1] == module, f"the place is in {found}"
        log = log_path(bench)
        text = log.read_text("utf-8")
        assert "image file C:\\upgrader\\rlupgrader.exe" in text, "the log names no modules"
        assert "backtrace[00]" in text and "backtrace[32]" not in text, "the backtrace has no frames, or too many"
        if function:
            lines = subprocess.run([ROOT / "scripts" / "crash-lines.py", log, bench.build / "rlupgrader.debug"],
                                   check=True, capture_output=True, text=True)
            assert not lines.stderr, lines.stderr
            assert function in lines.stdout, lines.stdout
    return check


def on_another_thread(bench, run):
    """Two threads are in the dump, and the one that failed is not in the program's own code."""
    expect_lines(run, ACCESS_VIOLATION, "CoreDump: Writing minidump to C:\\")
    (_, data), = take_dumps(bench)
    dump = Dump(data)
    assert len(dump.stacks) >= 2 and dump.holds_stack(), dump.stacks
    assert dump.code == ACCESS_VIOLATION and dump.parameters == READING
    assert dump.module_of(dump.address) is None


def prepared(prepare, image=None):
    """An image, once the guest is as it should be."""
    def get(bench):
        prepare(bench)
        return image(bench) if image else None
    return get


def registry(bench, *arguments):
    subprocess.run(["wine", "reg", *arguments, "/f"], env=wineprefix.environment(bench.prefix), check=True,
                   stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, timeout=60)


OVERRIDES = r"HKCU\Software\Wine\AppDefaults\rlupgrader.exe\DllOverrides"


def without_help(bench):
    """Wine is to take a dbghelp.dll beside the program, where there is none."""
    registry(bench, "add", OVERRIDES, "/v", "dbghelp", "/d", "native")


def registers_only(bench, run):
    registry(bench, "delete", OVERRIDES)
    expect_lines(run, ACCESS_VIOLATION, "CoreDump: No debug provider found!")
    assert not take_dumps(bench)
    assert "backtrace[" not in log_path(bench).read_text("utf-8")


def without_folder(bench):
    """A file stands where the application data should be."""
    for folder in folders(bench):
        if folder.is_dir():
            folder.rename(folder.with_name("Kept"))
            folder.write_text("in the way")


def no_folder(bench, run):
    for folder in folders(bench):
        if folder.is_file():
            folder.unlink()
            folder.with_name("Kept").rename(folder)
    expect_lines(run, ACCESS_VIOLATION)
    assert not take_dumps(bench)
    assert ("CoreDump: unable to determine app data path" in log_path(bench).read_text("utf-8")
            or "CoreDump: No available minidump filename, quitting..." in run.output)


def exits(bench):
    return bench.image("exit-0", Behaviour="exit", ExitCode=0)


def hangs(bench):
    return bench.image("hang", Behaviour="hang")


def crash(name, how, **more):
    return Case(name, ["--crash", how, "--expect-end", "any"], exits=(CRASHED,), leaves_image=True, **more)


CASES = [
    # While the program asks whether it runs in a virtual machine, inside the guard of that question.
    crash("at-the-start", "read@1", check=reported(ACCESS_VIOLATION, READING, function="UpgraderMain")),
    # While the host copies the image.
    crash("read", "read@40", image=exits, said=["upgrader.setGuestFileRoot"],
          check=reported(ACCESS_VIOLATION, READING, function="UpgraderLoop")),
    crash("illegal-instruction", "illegal@41", image=exits, check=reported(ILLEGAL, function="UpgraderLoop")),
    crash("breakpoint", "breakpoint@42", image=exits,
          check=reported(BREAKPOINT, parameters=None, function="UpgraderLoop")),
    crash("stack-overflow", "overflow@43", image=exits, check=reported(OVERFLOW, parameters=None)),
    crash("another-thread", "thread@44", image=exits, check=on_another_thread),
    # While the installer runs: it is not waited for any more.
    crash("while-installing", "read@200", image=hangs, said=["Attempting to launch"],
          check=reported(ACCESS_VIOLATION, READING, function="UpgraderLoop")),
    crash("no-debug-help", "read@40", image=prepared(without_help, exits), check=registers_only),
    crash("no-folder", "read@40", image=prepared(without_folder, exits), check=no_folder),
]

if __name__ == "__main__":
    sys.exit(main(CASES))
