#!/usr/bin/env python3
"""Installers of all kinds, and what people see: the question whether to reboot, on the console session and as a box
on a display, and the usage box.

Pictures of the boxes, in every language, are kept in RL_OUT.
"""

import os
import re
import shutil
import subprocess
import sys
import threading
import time

from upgrades import ROOT, Case, image, main, wineprefix

END_SENT = "guest request: 'toolinstall.end 0'"
ASKED = "Reboot is required to complete tools install..."
REBOOTS = "Upgrader rebooting VM."
SHUTS_DOWN = "Upgrader shutting down VM."
OVERRIDES = wineprefix.environment("", {})["WINEDLLOVERRIDES"]
QUESTION_SECONDS = 30  # until silence counts as consent
BOX_LIMIT = 60  # seconds for the box to appear


LAUNCHER = "launcher/setup.exe"
PACKAGE = image("package", LAUNCHER, "small.msi")
PLAIN_PACKAGE = image("plain-package", "plain/setup.exe", "small.msi")
REFUSING = image("refusing", LAUNCHER, "installers/refuses.msi")
REBOOTING = image("rebooting", LAUNCHER, "installers/reboots.msi")
WANTS_REBOOT = image("wants-reboot", Behaviour="exit", ExitCode=3010)
NSIS = image("nsis", "installers/nsis.exe")
EARLY = image("early", "installers/early.exe")
HANDLES = image("handles", "installers/handles.exe")


def wine(bench, *command):
    return subprocess.run(["wine", *command], env=wineprefix.environment(bench.prefix), stdin=subprocess.DEVNULL,
                          stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, timeout=120, check=False)


def every(*checks):
    def check(bench, run):
        for each in checks:
            each(bench, run)
    return check


def installed(folder):
    """A check that there are files in this folder of Program Files; takes them away again."""
    def check(bench, _run):
        place = bench.prefix / "drive_c" / "Program Files" / folder
        assert any(path.is_file() for path in place.rglob("*")), f"nothing in {place}"
        wine(bench, "msiexec", "/x", str(bench.sample("small.msi")), "/qn")
        shutil.rmtree(place, ignore_errors=True)
    return check


def nothing_installed(bench, _run):
    assert not (bench.prefix / "drive_c" / "Program Files" / "Ravlin Tools refused").exists()


def msi_log(bench, run):
    path = bench.unix(run.root + "\\rlmsi.log")
    assert path.stat().st_size > 0, f"{path} is empty"


def arguments_of_nsis(bench, run):
    text = bench.unix(run.root + "\\arguments.txt").read_text()
    assert text == f'/s /v"/qn" /L "{run.root}\\rlmsi.log"', text


def no_handle_of_ours(bench, run):
    """Nothing that the program has open reaches the installer: neither its log nor the image nor the data of ICU."""
    lines = bench.unix(run.root + "\\handles.txt").read_bytes().decode("utf-16-le").splitlines()
    assert lines, "no handles at all"
    own = "handles.txt"
    ours = [line for line in lines if run.root in line and own not in line or
            re.search(r"rlinst\.log|\.iso|\.dat|upgrader|\.lck|ToolsUpgrade", line)]
    assert not ours, f"inherited: {ours}"


# A folder for temporary files, and so for the image and the installer, whose name is not a plain one.
class OddFolder:
    NAME = "Temp mit Blanks é 日本"

    @staticmethod
    def _set(bench, value):
        for name in ("TEMP", "TMP"):
            wine(bench, "reg", "add", "HKCU\\Environment", "/v", name, "/t", "REG_EXPAND_SZ", "/d", value, "/f")

    def make(self, bench):
        (bench.prefix / "drive_c" / self.NAME).mkdir()
        self._set(bench, f"C:\\{self.NAME}")
        return PACKAGE(bench)

    def check(self, bench, run):
        self._set(bench, "%USERPROFILE%\\Temp")
        folder = bench.prefix / "drive_c" / self.NAME
        text = (folder / "rlinst.log").read_text("utf-8")
        logs = list(folder.glob("*/rlmsi.log"))
        shutil.rmtree(folder)
        assert len(logs) == 1, logs
        root = f"C:\\{self.NAME}\\{logs[0].parent.name}"
        assert f'SetupCmdLine ["{root}\\setup.exe" /s /v"/qn /L*v "{root}\\rlmsi.log"" /w]' in text
        installed("Ravlin")(bench, run)


odd = OddFolder()

INSTALLERS = [
    *[Case(f"package-{letter}", ["--run-args", f"-{letter}"], image=PACKAGE, limit=120, unsaid=[END_SENT, ASKED],
           said=[f'/s /v"{ui}', "Setup process returned 0"], check=every(installed("Ravlin"), *more))
      for letter, ui, more in (("s", "/qb- REBOOT=R", [msi_log]), ("x", "/qn UPGRADE_AT_SHUTDOWN=1", []))],
    Case("package-without-launcher", ["--run-args", "-q"], image=PLAIN_PACKAGE, limit=120, unsaid=[END_SENT, ' /w"'],
         said=['/s /v"/qn" /L "', "Setup process returned 0"], check=installed("Ravlin")),
    Case("package-refuses", ["--run-args", "-q", "--expect-end", "sent"], image=REFUSING, limit=120,
         said=["Setup process returned 1603", END_SENT], unsaid=[ASKED],
         logged=["Setup returned [1603]", "Telling the host that the installation did not succeed"],
         check=every(nothing_installed, msi_log)),
    Case("package-reboots-at-shutdown", ["--run-args", "-x"], image=REBOOTING, limit=120,
         said=["Setup process returned 3010"], unsaid=[ASKED, REBOOTS, END_SENT],
         logged=["A reboot is required; nobody is asked, because the installer was told not to restart"],
         check=installed("Ravlin Tools reboot")),
    Case("package-reboots-and-we-shut-down", ["--run-args", "-q"], ["-s"], image=REBOOTING, limit=120,
         said=["Setup process returned 3010", SHUTS_DOWN], unsaid=[ASKED, END_SENT],
         logged=["A reboot is required; nobody is asked, because the guest shuts down"]),
    Case("package-told-not-to-reboot", guest=["-p", '/s /v"/qn REBOOT=R"'], image=REBOOTING, limit=120,
         said=["Reboot really suppress parameter detected.", "Setup process returned 3010"],
         unsaid=[ASKED, REBOOTS, END_SENT]),
    Case("other-make", ["--run-args", "-q"], image=NSIS, said=["Setup process returned 1641"],
         unsaid=[END_SENT, ASKED], check=every(arguments_of_nsis, installed("Ravlin Tools NSIS"))),
    Case("returns-early", ["--run-args", "-q"], image=EARLY, said=["Setup process returned 0"], unsaid=[END_SENT],
         logged=["Setup returned [0]"]),
    Case("inherits-nothing", ["--run-args", "-q"], image=HANDLES, said=["Setup process returned 0"],
         check=no_handle_of_ours),
    Case("odd-folder", ["--run-args", "-q"], image=odd.make, limit=120, said=["Setup process returned 0"],
         unsaid=[END_SENT], check=odd.check),
]


# The question on the console session, with a library of ours in place of the system's.
class ConsoleSession:
    """Puts sample/installers/KIND/wtsapi32.dll in place while a case runs."""

    def __init__(self, kind):
        self.kind = kind
        self.recorded = ""

    @staticmethod
    def _library(bench):
        return bench.prefix / "drive_c" / "windows" / "system32" / "wtsapi32.dll"

    def make(self, bench):
        library = self._library(bench)
        library.rename(library.with_suffix(".system"))  # shared with other prefixes: never written to
        shutil.copy(bench.sample(f"installers/{self.kind}/wtsapi32.dll"), library)
        return WANTS_REBOOT(bench)

    def check(self, bench, _run):
        library = self._library(bench)
        library.with_suffix(".system").replace(library)
        record = bench.prefix / "drive_c" / "wts.txt"
        if record.exists():
            self.recorded = record.read_bytes().decode("utf-16-le")
            record.unlink()


def console(name, answer, reboots, line):
    session = ConsoleSession("answers")

    def asked(_bench, _run):
        style, seconds, wait, title, text = session.recorded.rstrip("\n").split("\n")
        assert (style, seconds, wait) == ("36", str(QUESTION_SECONDS), "1"), session.recorded
        assert title == "Ravlin Tools Setup" and text.startswith("Setup needs to reboot"), session.recorded

    return Case(f"console-{name}", image=session.make,
                said=["Setup process returned 3010", ASKED] + [REBOOTS] * reboots,
                unsaid=[END_SENT] + [REBOOTS] * (not reboots), logged=[line], check=every(session.check, asked),
                env={"WINEDLLOVERRIDES": OVERRIDES + ";wtsapi32=n", "RL_WTS_ANSWER": answer,
                     "RL_WTS_RECORD": "C:\\wts.txt"})


CONSOLE = [
    console("yes", "6", True, "Reboot now: yes"),
    console("no", "7", False, "Reboot now: no"),
    console("silent", "32000", True, "Reboot now: no answer in time, taken as yes"),
    console("fails", "fail", False, "Reboot now: could not be asked, taken as no"),
]


# The question as a box of our own, on a display.
class Person:
    """Somebody at the guest's screen, who waits for the box, takes a picture of it, and answers or leaves it."""

    SIZE = "640x300"
    MIDDLE = ["320", "150"]
    desktop = None  # the program that keeps the guest's desktop open
    pictures = {}  # and the language of each

    def __init__(self, name, key, language, make_image, session=None):
        self.name, self.key, self.language, self.make_image, self.session = name, key, language, make_image, session
        self.problem = self.thread = None

    def _picture(self):
        """What is on the desktop, without what of it has one colour."""
        return subprocess.run(["import", "-window", "root", "-crop", f"{self.SIZE}+0+0", "+repage", "-trim", "-depth",
                               "8", "ppm:-"], check=True, capture_output=True, timeout=60).stdout

    def _wait_for_picture(self, box):
        """The box has many colours, the empty desktop has one. Either, once it is drawn, does not change any more."""
        limit, last = time.monotonic() + BOX_LIMIT, None
        while time.monotonic() < limit:
            picture = self._picture()
            colours = len({picture[at:at + 3] for at in range(len(picture) % 3, len(picture), 3)})
            if picture == last and (colours > 30) == box:
                return picture
            last = picture
            time.sleep(0.1)
        raise AssertionError("no box appeared" if box else "the desktop did not become empty")

    def _work(self, out):
        try:
            picture = self._wait_for_picture(box=True)
            subprocess.run(["convert", "ppm:-", out / f"{self.name}.png"], input=picture, check=True, timeout=60)
            same = self.pictures.setdefault(picture, self.language)
            assert same == self.language, f"the box looks as in {same}"
            if self.key:
                subprocess.run(["xdotool", "mousemove", *self.MIDDLE, "click", "1", "sleep", "0.3", "key", self.key],
                               check=True, timeout=60)
        except Exception as problem:  # noqa: BLE001, told by check()
            self.problem = problem

    @staticmethod
    def _open_desktop(bench):
        """A desktop of Wine's own, which draws captions and takes the keys. It is chosen when the guest starts."""
        wine(bench, "reg", "add", "HKCU\\Software\\Wine\\Explorer", "/v", "Desktop", "/d", "Guest", "/f")
        wine(bench, "reg", "add", "HKCU\\Software\\Wine\\Explorer\\Desktops", "/v", "Guest", "/d", Person.SIZE, "/f")
        wineprefix.stop(bench.prefix)
        Person.desktop = subprocess.Popen(["wine", bench.sample("installers/desktop.exe")],
                                          env=wineprefix.environment(bench.prefix), text=True, stdin=subprocess.PIPE,
                                          stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        assert Person.desktop.stdout.readline().strip() == "open", "the guest has no desktop"

    def make(self, bench):
        if not Person.desktop:
            self._open_desktop(bench)
        self._wait_for_picture(box=False)  # what was seen before has to go
        made = self.make_image(bench)
        self.thread = threading.Thread(target=self._work, args=(bench.out,))
        self.thread.start()
        return made

    def check(self, bench, run):
        self.thread.join()
        if self.session:
            self.session.check(bench, run)
        assert not self.problem, self.problem


def box(name, key, reboots, line, language="en_US", session=None):
    person = Person(f"box-{name}", key, language, session.make if session else WANTS_REBOOT, session)
    overrides = ";wtsapi32=n" if session else ";wtsapi32="
    return Case(f"box-{name}", image=person.make, limit=BOX_LIMIT + QUESTION_SECONDS + 30,
                said=["Setup process returned 3010", ASKED] + [REBOOTS] * reboots,
                unsaid=[END_SENT] + [REBOOTS] * (not reboots), logged=[line], check=person.check,
                env={"WINEDLLOVERRIDES": OVERRIDES + overrides, "LC_ALL": f"{language}.UTF-8"})


YES, NO = "Reboot now: yes", "Reboot now: no"
BOXES = [
    box("en", "Return", True, YES),
    box("de", "n", False, NO, "de_DE"),
    box("fr", "Return", True, YES, "fr_FR"),
    box("es", "n", False, NO, "es_ES"),
    box("it", "Return", True, YES, "it_IT"),
    box("ja", "n", False, NO, "ja_JP"),
    box("zh", "Return", True, YES, "zh_CN"),
    box("left-alone", None, True, "Reboot now: no answer in time, taken as yes"),
    box("without-entry-point", "n", False, NO, session=ConsoleSession("lacks")),
]



# Other releases of Windows, as far as Wine plays them: it tells their version numbers.
class Release:
    def __init__(self, name):
        self.name = name

    def make(self, bench):
        wine(bench, "reg", "add", "HKCU\\Software\\Wine", "/v", "Version", "/d", self.name, "/f")
        return bench.image("done", Behaviour="exit")

    @staticmethod
    def check(bench, _run):
        wine(bench, "reg", "delete", "HKCU\\Software\\Wine", "/v", "Version", "/f")


def release(name, through_session):
    played = Release(name)
    session = ["System_IsLoginScreenActive: desktop name is"]
    return Case(f"release-{name}", guest=["-s"], image=played.make,
                check=played.check, logged=["Asking the system for a shutdown"],
                said=["Setup process returned 0", SHUTS_DOWN] + session * through_session,
                unsaid=[END_SENT] + session * (not through_session))


RELEASES = [release("win2k", True),
            *[release(name, False) for name in ("winxp64", "win10")]]


def usage(language):
    name = "usage-" + language[:2]
    person = Person(name, "Return", language, lambda bench: None)
    return Case(name, ["--expect-no-start"], ["-h"], image=person.make, check=person.check, limit=BOX_LIMIT + 30,
                said=["Upgrader failed parsing command line arguments."], env={"LC_ALL": f"{language}.UTF-8"})


USAGE = [usage(language) for language in ("en_US", "de_DE", "fr_FR", "es_ES", "it_IT", "ja_JP", "zh_CN")]

SILENCE = "box-left-alone"


def main_beside_silence(cases):
    """The case that is a wait of half a minute runs in a guest, and on a display, of its own."""
    own = {key: value for key, value in os.environ.items() if key not in ("WINEPREFIX", "RL_DISPLAY")}
    with subprocess.Popen([sys.executable, __file__, SILENCE], env=own, stdout=subprocess.PIPE, text=True) as beside:
        status = main([case for case in cases if case.name != SILENCE])
        print(beside.communicate()[0], end="")
    return status or beside.returncode


if __name__ == "__main__":
    if "RL_DISPLAY" not in os.environ:
        os.execv(ROOT / "scripts" / "with-display.sh", ["with-display.sh", sys.executable, __file__, *sys.argv[1:]])
    ALL = INSTALLERS + CONSOLE + RELEASES + BOXES + USAGE
    sys.exit(main(ALL) if sys.argv[1:] else main_beside_silence(ALL))
