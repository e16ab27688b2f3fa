#!/usr/bin/env python3
"""Turns the backtrace of a crash report into functions and source lines.

  scripts/crash-lines.py RLINST.LOG [SYMBOLS]

RLINST.LOG is the log of the program that crashed, SYMBOLS the file rlupgrader.debug of the same build (build/windows by
default). Each backtrace line that lies in the program is followed by its function, file and line, calls that were
inlined included; lines in other modules are shown as they are. Says so when the symbols belong to another build.
"""

import pathlib
import re
import struct
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
ADDR2LINE = "x86_64-w64-mingw32-addr2line"
FRAME = re.compile(r"backtrace\[(\d+)\] frame \S+ IP (\S+) params .*\[(.*) base (\S+) 0x[0-9a-f]+:0x[0-9a-f]+\]")
STAMP = re.compile(r"  checksum \S+ timestamp (\S+)")
IMAGE = re.compile(r"  image file (.*)")


def read_headers(symbols):
    """(link time, preferred base) of the program that the symbols belong to."""
    data = symbols.read_bytes()[:4096]
    try:
        nt, = struct.unpack_from("<I", data, 60)
        if data[:2] == b"MZ" and data[nt:nt + 4] == b"PE\0\0":
            return struct.unpack_from("<I", data, nt + 8)[0], struct.unpack_from("<Q", data, nt + 48)[0]
    except struct.error:
        pass  # too short
    raise SystemExit(f"crash-lines: {symbols} is no symbol file")


def is_program(path, symbols):
    return path.replace("\\", "/").rsplit("/", 1)[-1].rsplit(".", 1)[0].lower() == symbols.stem.lower()


def name_address(symbols, address):
    done = subprocess.run([ADDR2LINE, "-f", "-C", "-p", "-i", "-e", symbols, hex(address)], check=True,
                          capture_output=True, text=True)
    return done.stdout.rstrip("\n").split("\n")


def main(arguments):
    if len(arguments) not in (1, 2) or arguments[0] in ("-h", "--help"):
        print(__doc__, file=sys.stderr)
        return 2
    log = pathlib.Path(arguments[0]).read_bytes().decode("utf-8", "replace")
    symbols = pathlib.Path(arguments[1] if len(arguments) > 1 else ROOT / "build" / "windows" / "rlupgrader.debug")
    linked, preferred = read_headers(symbols)
    stamp = None
    for line in log.splitlines():
        if found := STAMP.search(line):
            stamp = int(found[1], 16)
        elif (found := IMAGE.search(line)) and is_program(found[1], symbols) and stamp != linked:
            print(f"crash-lines: {symbols} is of another build; names and lines are wrong", file=sys.stderr)
        elif "backtrace[" in line:
            print(line[line.index("backtrace["):])
            found = FRAME.search(line)
            if found and is_program(found[3], symbols):
                # All but the innermost frame stand behind a call, which may be the last of its line.
                behind = 1 if int(found[1]) > 0 else 0
                address = int(found[2], 16) - int(found[4], 16) + preferred - behind
                print("\n".join("    " + text for text in name_address(symbols, address)))
    return 0


if __name__ == "__main__":
    try:
        sys.exit(main(sys.argv[1:]))
    except OSError as problem:  # one of the files, or the program that names addresses
        sys.exit(f"crash-lines: {problem}")
