#!/usr/bin/env python3
"""What is left after an upgrade and a restart of the guest: options -c and -d, files and registry.

The restart is the prefix's: everything in it ends, and the next start carries out what was put off until then.
"""

import shutil
import subprocess
import sys

from upgrades import Bench, Case, main, wineprefix

END_SENT = "guest request: 'toolinstall.end 0'"
DONE = {"Behaviour": "exit", "ExitCode": "0"}
PENDING = "PendingFileRenameOperations"


def finished(bench):
    return bench.image("finished", **DONE)


def restart(bench):
    """Ends all programs of the prefix and starts it anew."""
    wineprefix.stop(bench.prefix)
    subprocess.run(["wineboot", "-r"], env=wineprefix.environment(bench.prefix), stdin=subprocess.DEVNULL,
                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, timeout=120, check=True)
    wineprefix.stop(bench.prefix)


def files(bench):
    """Every file and folder of drive C with its contents' size; the registry's own files are compared apart."""
    drive = bench.prefix / "drive_c"
    return {str(path.relative_to(drive)).replace("/", "\\"): path.lstat().st_size if path.is_file() else None
            for path in drive.rglob("*")}


def registry(bench):
    """Every value of the registry by its key."""
    wineprefix.stop(bench.prefix)  # which writes it to its files
    values = {}
    for name in ("system.reg", "user.reg", "userdef.reg"):
        key = ""
        for line in (bench.prefix / name).read_text("latin-1").replace("\\\n", "").splitlines():
            if line.startswith("["):
                key = name + " " + line[1:line.rindex("]")]
                values[key] = ""
            elif line.startswith(("\"", "@")):
                value, _, data = line.partition("=")
                values[f"{key} {value}"] = data
    return values


def difference(before, after):
    return sorted(f"{'+' if name not in before else '-' if name not in after else '~'} {name}"
                  for name in before.keys() | after.keys() if before.get(name, before) != after.get(name, after))


class Snapshot:
    """The guest before an upgrade, and what is different afterwards."""

    def make(self, bench):
        restart(bench)  # so that what a restart itself does is not counted
        made = finished(bench)
        self.registry = registry(bench)
        self.files = files(bench)
        return made

    def check(self, bench, run):
        assert (bench.program / "rlupgrader.exe").exists(), "gone before the restart"
        restart(bench)
        changed = registry(bench)
        left = difference(self.files, files(bench))
        keys = difference(self.registry, changed)
        print("files that differ:", *left, sep="\n  ")
        print("registry entries that differ:", *keys, sep="\n  ")
        shutil.copytree(bench.build, bench.program, ignore=lambda _folder, names: [
            name for name in names if name not in ("rlupgrader.exe", "icudt38l.dat")])
        root = run.root.removeprefix("C:\\")
        temp = root.rpartition("\\")[0]
        # The program's folder is gone; the run's own folder holds what the image held, and the log stays.
        assert left == sorted(["- upgrader", "- upgrader\\rlupgrader.exe", "- upgrader\\icudt38l.dat",
                               f"+ {root}", f"+ {root}\\setup.exe", f"+ {root}\\setup.ini",
                               f"+ {temp}\\rlinst.log"]), left
        assert not keys, keys


def deletes_the_program(bench, _run):
    """Of the program's folder its own file, and nothing else, goes at the restart."""
    before = {path.name for path in bench.program.iterdir()}
    assert "rlupgrader.exe" in before, f"gone before the restart: {before}"
    restart(bench)
    after = {path.name for path in bench.program.iterdir()}
    Bench(bench.build, bench.prefix, bench.out, bench.work)  # puts the program back
    assert before - after == {"rlupgrader.exe"}, f"gone: {before - after}"
    assert PENDING not in "\n".join(registry(bench)), "still to be deleted after the restart"


snapshot = Snapshot()

RESTARTS = [
    Case("nothing-of-ours-left", ["--run-args", "-q"], ["-c"], image=snapshot.make, check=snapshot.check, limit=120,
         said=["Searching in C:\\upgrader", "Queuing C:\\upgrader\\", "Queuing C:\\upgrader\\",
               "Queuing C:\\upgrader for deletion"], unsaid=[END_SENT],
         logged=["I1:Removing [C:\\upgrader] at the next restart"]),
    # The program's own file is put off at once, whatever becomes of the upgrade.
    Case("program-deleted-after-cancel", ["--cancel", "before"], ["-d"], image=finished, limit=120,
         check=deletes_the_program),
]

if __name__ == "__main__":
    sys.exit(main(RESTARTS))
