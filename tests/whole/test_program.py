#!/usr/bin/env python3
"""Looks at the shipped program without running it: what it is, what it needs, and on which Windows it can start."""

import os
import pathlib
import re
import subprocess
import sys

BUILD = pathlib.Path(os.environ.get("RL_BUILD", pathlib.Path(__file__).resolve().parents[2] / "build" / "windows"))
PROGRAM = BUILD / "rlupgrader.exe"
SYSTEM = {"ADVAPI32.dll", "KERNEL32.dll", "SHELL32.dll", "USER32.dll", "VERSION.dll", "msvcrt.dll"}
# What the headers declare for Windows Server 2003 and XP x64, whose version is 5.2.
HEADERS = "#include <windows.h>\n#include <ntsecapi.h>\n#include <shlobj.h>\n#include <winver.h>\n"
OLDEST = ["-D_WIN32_WINNT=0x0502", "-DWINVER=0x0502"]


def output(*command, text=None):
    return subprocess.run(command, input=text, capture_output=True, text=True, check=True).stdout


def imports():
    """The imported names by library."""
    found, library = {}, None
    for line in output("x86_64-w64-mingw32-objdump", "-p", PROGRAM).splitlines():
        if match := re.match(r"\s+DLL Name: (\S+)", line):
            library = found.setdefault(match[1], set())
        elif library is not None and (match := re.match(r"\t[0-9a-f]+\t +\d+ +(\w+)$|\t[0-9a-f]+\t.*\s(\w+)$", line)):
            library.add(match[1] or match[2])
    return found


def imports_only_from_the_system():
    found = imports()
    assert found, "no imports were found"
    assert set(found) <= SYSTEM, sorted(set(found) - SYSTEM)


def imports_only_what_the_oldest_guests_have():
    declared = set(re.findall(r"\w+", output("x86_64-w64-mingw32-gcc-posix", "-E", "-P", *OLDEST, "-x", "c", "-",
                                             text=HEADERS)))
    assert "CreateFileW" in declared and "GetTickCount64" not in declared
    names = set().union(*(names for library, names in imports().items() if library != "msvcrt.dll"))
    assert names and names <= declared, sorted(names - declared)


def has_no_console_and_starts_on_5_2():
    header = output("x86_64-w64-mingw32-objdump", "-p", PROGRAM)
    assert re.search(r"^Subsystem\s+0*2\s", header, re.M)
    major, minor = (int(re.search(rf"^{part}SubsystemVersion\s+(\d+)", header, re.M)[1]) for part in ("Major", "Minor"))
    assert (major, minor) <= (5, 2), (major, minor)


def is_small_and_has_its_data_beside_it():
    assert PROGRAM.stat().st_size < 3 << 20
    assert (BUILD / "icudt38l.dat").is_file()


def main():
    failed = 0
    for check in (imports_only_from_the_system, imports_only_what_the_oldest_guests_have,
                  has_no_console_and_starts_on_5_2, is_small_and_has_its_data_beside_it):
        name = check.__name__.replace("_", " ")
        try:
            check()
            print("ok", name)
        except AssertionError as error:
            failed += 1
            print("not ok", name)
            print("  ", error)
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
