#!/usr/bin/env python3
"""Wine prefixes of our own: made once, copied quickly, ended without leaving a process behind.

  scripts/wineprefix.py new DIR       put a fresh prefix into DIR (what stood there before goes, if it was a prefix)
  scripts/wineprefix.py run DIR CMD   run a command in the prefix DIR, with its environment
  scripts/wineprefix.py stop DIR      end everything that runs in the prefix DIR
  scripts/wineprefix.py template      only prepare the template that the copies are made from

The user's own prefix is never touched, and nothing is shown on the user's display; scripts/with-display.sh gives
a command an invisible one.
"""

import contextlib
import fcntl
import os
import pathlib
import shutil
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
HOME = ROOT / "build" / "wine"
STAMP = ".rl-prefix"  # marks a folder as ours, to be removed without asking
BOOT_LIMIT = 300  # seconds
RECIPE = 3  # changes when a template made earlier will no longer do
AE_DEBUG = r"HKLM\Software\Microsoft\Windows NT\CurrentVersion\AeDebug"


def environment(prefix, base=None):
    """The environment of a Wine program in `prefix`."""
    env = dict(os.environ if base is None else base)
    env["WINEPREFIX"] = str(prefix)
    env["WINEARCH"] = "win64"
    env.setdefault("WINEDEBUG", "-all")
    # No files for the user's desktop, no questions about parts of Wine that are not installed.
    env["WINEDLLOVERRIDES"] = "winemenubuilder.exe=d;mscoree=;mshtml="
    env["LC_ALL"] = "C.UTF-8"  # else names outside ASCII do not survive on the way to Linux files
    # A display is used only when scripts/with-display.sh made it.
    if "RL_DISPLAY" in env:
        env["DISPLAY"] = env["RL_DISPLAY"]
    else:
        env.pop("DISPLAY", None)
    env.pop("WAYLAND_DISPLAY", None)
    return env


def stop(prefix, limit=30):
    """Ends every process that runs in `prefix` and waits until they are gone."""
    env = environment(prefix)
    for option in ("-k", "-w"):
        with contextlib.suppress(subprocess.TimeoutExpired):
            subprocess.run(["wineserver", option], env=env, stdout=subprocess.DEVNULL,
                           stderr=subprocess.DEVNULL, timeout=limit, check=False)


def _wine_version():
    return subprocess.run(["wine", "--version"], capture_output=True, text=True, check=True).stdout.strip()


def _boot(prefix):
    """Makes a prefix from nothing."""
    prefix.mkdir(parents=True)
    env = environment(prefix)
    log = prefix / "boot.log"
    with open(log, "wb") as out:
        subprocess.run(["wineboot", "-i"], env=env, stdin=subprocess.DEVNULL, stdout=out, stderr=out,
                       timeout=BOOT_LIMIT, check=True)
        # A program that crashes ends at once; Wine's own debugger would hold it, and its files, for seconds. There is
        # no program of this name; for an empty name Wine starts a command interpreter.
        subprocess.run(["wine", "reg", "add", AE_DEBUG, "/v", "Debugger", "/d", "none", "/f"], env=env,
                       stdin=subprocess.DEVNULL, stdout=out, stderr=out, timeout=BOOT_LIMIT, check=True)
        subprocess.run(["wineserver", "-w"], env=env, timeout=BOOT_LIMIT, check=True)
    if not (prefix / "system.reg").exists():
        raise RuntimeError(f"wineboot made no prefix, see {log}")
    _unlink_home(prefix)


def _unlink_home(prefix):
    """Turns links into the user's home folder, which Wine makes, into folders of the prefix."""
    for path in (prefix / "drive_c" / "users").rglob("*"):
        if path.is_symlink():
            path.unlink()
            path.mkdir()


def template():
    """The folder of the prepared prefix, made on the first call."""
    name = f"template-{RECIPE}-" + "".join(c if c.isalnum() else "-" for c in _wine_version())
    target = HOME / name
    HOME.mkdir(parents=True, exist_ok=True)
    with open(HOME / "template.lock", "w") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        if not target.exists():
            print("wine: making a prefix, once", file=sys.stderr)
            work = HOME / "template-work"
            shutil.rmtree(work, ignore_errors=True)
            _boot(work)
            (work / STAMP).touch()
            work.rename(target)
    return target


def _link_or_copy(source, target):
    try:
        os.link(source, target, follow_symlinks=False)
    except OSError:  # another file system
        shutil.copy2(source, target, follow_symlinks=False)


def new(prefix):
    """Puts a fresh copy of the template into `prefix`. Wine's own libraries, which are most of it and which no
    program here writes to, are shared by hard links; the rest is copied."""
    prefix = pathlib.Path(prefix).resolve()
    source = template()
    if prefix.exists():
        remove(prefix)
    prefix.parent.mkdir(parents=True, exist_ok=True)
    shared = [source / "drive_c" / "windows" / part for part in ("system32", "winsxs")]
    shutil.copytree(source, prefix, symlinks=True, ignore=lambda folder, names: [
        name for name in names if pathlib.Path(folder, name) in shared])
    for folder in shared:
        shutil.copytree(folder, prefix / folder.relative_to(source), symlinks=True, copy_function=_link_or_copy)
    return prefix


def remove(prefix):
    """Ends what runs in `prefix` and removes it. Refuses a folder that is not one of our prefixes."""
    prefix = pathlib.Path(prefix)
    if not prefix.exists():
        return
    if not (prefix / STAMP).exists():
        raise RuntimeError(f"{prefix} is not a prefix made by this script; it is left alone")
    stop(prefix)
    shutil.rmtree(prefix)


def run(prefix, command, limit=None, **options):
    """Runs `command` in `prefix`. When `limit` seconds are over, everything in the prefix is ended and
    subprocess.TimeoutExpired is raised."""
    process = subprocess.Popen(command, env=environment(prefix, options.pop("env", None)), **options)
    try:
        process.communicate(timeout=limit)
    except BaseException:
        stop(prefix)
        process.kill()
        process.wait()
        raise
    return process.returncode


def main(arguments):
    match arguments:
        case ["template"]:
            print(template())
        case ["new", prefix]:
            new(prefix)
        case ["stop", prefix]:
            stop(pathlib.Path(prefix).resolve())
        case ["run", prefix, *command] if command:
            return run(pathlib.Path(prefix).resolve(), command)
        case _:
            print(__doc__, file=sys.stderr)
            return 2
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
