#!/usr/bin/env python3
"""Whole upgrades that go well, and ones that cannot: bad images, bad installers, refusals, cancels, breaks."""

import subprocess
import sys

from upgrades import Case, image, main

HANG = {"Behaviour": "hang"}
EXIT = {"Behaviour": "exit"}
END_SENT = "guest request: 'toolinstall.end 0'"
STARTED = "upgrader.setGuestFileRoot"
BEGUN = "Upgrader: Beginning installation."
LAUNCHED = "Attempting to launch"
TOLD = "I1:Telling the host that the installation did not succeed"
VIRTUAL_MACHINE = "The Ravlin Tools Upgrader application must be run in a Virtual Machine."
ENDED = "E1:The main loop ended before its time (-1)"


def well(code=0):
    return image(f"exit-{code}", ExitCode=code, **EXIT)


def cut(size):
    return lambda bench: bench.file(f"cut-{size}.iso", bench.image("exit-0", ExitCode=0, **EXIT).read_bytes()[:size])


def without_setup(bench):
    folder = bench.work / "no-setup"
    folder.mkdir(exist_ok=True)
    (folder / "readme.txt").write_text("nothing to see\n")
    out = bench.work / "no-setup.iso"
    subprocess.run(["xorriso", "-as", "mkisofs", "--norock", "-J", "-o", out, folder], check=True,
                   capture_output=True, timeout=60)
    return out


def installed(bench, run):
    """The real package is where a user looks for it."""
    files = [path for path in (bench.prefix / "drive_c" / "Program Files" / "Ravlin").rglob("*") if path.is_file()]
    assert files, "nothing is installed"
    log = bench.unix(run.root + "\\rlmsi.log")
    assert log.stat().st_size > 0, "rlmsi.log is empty"


def extracted(bench, run):
    """What was on the image stands beside where it was, deep folders and foreign names included."""
    names = {path.name for path in bench.unix(run.root).rglob("*")}
    assert "setup.exe" in names, names
    assert any(not name.isascii() for name in names), names


def record(bench, _run):
    line = (bench.prefix / "drive_c" / "line.txt").read_bytes().decode("utf-16")
    assert line.endswith(' /s /v"/qn FOO=1" /w'), line


UPGRADES = [
    Case("upgrade", ["--run-args", "-q"], image=lambda bench: bench.sample("windows.iso"), limit=240,
         said=[STARTED, "'Capabilities_Register'", "OpenV3", "WriteV3", "Getattr", "ReadV3",
               "'upgrader.run -q'", BEGUN, "Extracting", "Unlinking ISO", LAUNCHED, "rlmsi.log",
               "Setup process returned 0", "hgfs_server tools-upgrader 0", "now signalling event"],
         logged=["I1:Upgrader [C:\\upgrader\\rlupgrader.exe]", "I1:Upgrader cmdLine []", "I1:Guest file root [",
                 "I1:Run [ -q]", "I1:Extracted the image to [", "I1:SetupArgs [/s", "I1:SetupCmdLine [",
                 "I1:Setup returned [0]", "I1:Upgrader returning [0]"],
         unsaid=[END_SENT, "Queuing"], check=lambda bench, run: (installed(bench, run), extracted(bench, run))),
    Case("small-packets", ["--file-version", "1"], image=well(), said=["Open mode", "Write handle", "Read handle"],
         unsaid=[END_SENT, "V3"]),
    # Four bytes a call: there and back, and to the judgement that this is no image.
    Case("low-bandwidth", ["--low-bandwidth", "--expect-end", "sent"], limit=120,
         image=lambda bench: bench.file("little.iso", bytes(range(256)) * 32),
         said=["WriteV3", "ReadV3", "Error in Iso9660_Open", END_SENT], logged=["], result 9"]),
    Case("old-hypervisor", ["--no-cookie-open"], image=well(), said=["Setup process returned 0"]),
    Case("shut-down", guest=["-s"], image=well(), said=["Setup process returned 0", "Upgrader shutting down VM."],
         logged=["I1:Asking the system for a shutdown"]),
    Case("arguments", guest=["-p", '/s /v"/qn FOO=1"'], check=record, unsaid=[END_SENT],
         image=image("record", Record="C:\\line.txt", ExitCode=0, **EXIT),
         said=['setup.exe" /s /v"/qn FOO=1" /w']),
    Case("conversation", ["--do", "greeting", "--do", "ping", "--do", "reset", "--do", "idle 3",
                          "--do", "send nonsense => ERROR Unknown Command", "--do", "send   => ERROR Bad command",
                          "--do", "send f => ERROR 1 argument required", "--do", "ping", "--do", "cancel",
                          "--do", "end"], said=["Received reset from RHD"], unsaid=[END_SENT]),
]

INSTALLERS = [
    Case("installer-3010", image=well(3010), said=["Setup process returned 3010", "Reboot is required"],
         # Wine has no console session that could be asked.
         logged=["I1:Setup returned [3010]", "E1:Could not ask for a reboot on console session",
                 "I1:Reboot now: could not be asked, taken as no"],
         unsaid=[END_SENT, "Upgrader rebooting VM."], limit=90),
    # The host's -s asks all the same.
    Case("installer-3010-after-s", ["--run-args", "-s"], image=well(3010),
         said=["REBOOT=R", "Setup process returned 3010", "Reboot is required"], unsaid=[END_SENT]),
    Case("installer-crashes", ["--expect-end", "sent"], image=image("crash", Behaviour="crash"),
         said=["Setup process returned -1073741819", END_SENT], logged=["I1:Setup returned [-1073741819]", TOLD]),
    Case("installer-missing", ["--expect-end", "sent"], image=without_setup,
         said=["Unlinking ISO", "Error in FileIO_Access", "Unexpected end of the main loop (-1)", END_SENT],
         logged=["E1:No installer at [C:\\", ENDED, TOLD]),
    Case("installer-no-program", ["--expect-end", "sent"], image=image("no-program", "../CMakeCache.txt"),
         said=["Error creating process", "Unexpected end of the main loop (-1)", END_SENT],
         logged=["E1:Could not start the installer, error 193", ENDED, TOLD]),
    Case("bad-input", ["--run-args", "now -q"], image=well(), said=['setup.exe" /w', "Setup process returned 0"],
         logged=["E1:Bad input:  now -q", "I1:SetupArgs []", "I1:SetupCmdLine [", "I1:Setup returned [0]"]),
]

IMAGES = [
    Case("no-image", ["--expect-end", "sent"],
         said=[BEGUN, "Error in Iso9660_Open", "Unexpected end of the main loop (-1)", END_SENT],
         logged=["E1:Could not open the image [", "result 2: there is no such file", ENDED, TOLD]),
    Case("empty-image", ["--expect-end", "sent"], image=lambda bench: bench.file("empty.iso", b""),
         said=["Error in Iso9660_Open", END_SENT], unsaid=[LAUNCHED]),
    Case("not-an-image", ["--expect-end", "sent"], image=lambda bench: bench.file("text.iso", b"no image\n" * 20000),
         said=["Error in Iso9660_Open", END_SENT], unsaid=[LAUNCHED],
         logged=["E1:Could not open the image [", "windows.iso], result 9\n", TOLD]),
    *[Case(f"cut-image-{size}", ["--expect-end", "sent"], image=cut(size), unsaid=[LAUNCHED],
           said=[BEGUN, f"Error in Iso9660_{where}", END_SENT],
           logged=["E1:Could not " + where.lower(), f"], result {result}", ENDED, TOLD])
      for size, where, result in ((34000, "Open", 9), (60000, "Extract", 2))],
]

REFUSALS = [
    Case("no-hypervisor", ["--no-port", "--expect-no-start"], unsaid=[STARTED], said=["stderr " + VIRTUAL_MACHINE],
         logged=["E1:" + VIRTUAL_MACHINE, "I1:Upgrader returning [1]"]),
    *[Case(name, [*options, "--expect-no-start"], unsaid=[STARTED], logged=["E1:" + VIRTUAL_MACHINE],
           said=["The version of this program is incompatible with your Ravlin software.", "stderr " + VIRTUAL_MACHINE])
      for name, options in (("other-version", ["--version", "5"]), ("silent-hypervisor", ["--silent"]))],
    *[Case(name, ["--expect-no-start"], [option], unsaid=[STARTED],
           said=["Upgrader failed parsing command line arguments.", "Upgrader failed initialization."],
           logged=[f"I1:Upgrader cmdLine [{option}]", "I1:Showing the usage box", "I1:Upgrader returning [1]"])
      for name, option in (("help", "-h"), ("unknown-option", "-x"))],
    Case("too-many-arguments", ["--expect-no-start"], ["a"] * 127, unsaid=[STARTED],
         said=["stderr", "126 arguments"], logged=["E1:The command line holds more than 126 arguments"]),
    Case("no-command-channel", ["--refuse-channel", "TCLO", "--expect-no-start"], unsaid=[STARTED],
         said=["RpcIn_start: couldn't open channel with TCLO protocol", "stderr Unable to start the receive loop."],
         logged=["E1:Unable to start the receive loop."]),
    Case("no-request-channel", ["--refuse-channel", "RPCI", "--expect-exit", "1", "--do", "end"],
         said=["RpcOut: couldn't open channel with RPCI protocol",
               "stderr Failed to send RPC greeting to set temp directory."],
         logged=["E1:Failed to send RPC greeting to set temp directory.",
                 "E1:Reply to the greeting: [RpcOut: Unable to open the communication channel]"]),
    *[Case(f"greeting-{how}", [f"--refuse-greeting={how}"], unsaid=[END_SENT],
           said=["stderr " + text, "stderr Setting temp directory root failed."],
           logged=["E1:" + text, f"E1:Reply to the greeting: [{reply}]", "E1:Setting temp directory root failed.",
                   "I1:Upgrader returning [1]"])
      for how, text, reply in (
          ("unknown", "Failed to send RPC greeting to set temp directory.", "Unknown command"),
          ("text", "RPC greeting failed: Host software version may not be compatible with the Upgrader.",
           "not compatible"))],
]

CANCELS = [
    *[Case(f"cancel-{when}", ["--cancel", when], image=image("hang", **HANG), unsaid=[END_SENT, "had to be ended"],
           said=["'upgrader.cancel'", "Received upgrader.cancel from RHD", "Deleting"],
           logged=["I1:Cancelled by the host"] + ["E1:Killing tools sub-process"] * (when == "installing"))
      for when in ("before", "during", "after", "installing")],
    *[Case(f"break-{when}", ["--break-at", when], image=image("hang", **HANG), unsaid=["was still running"],
           said=["signal break", "Exiting UpgraderLoop on signal 1", END_SENT],
           logged=["I1:Stopped by console signal 1", TOLD])
      for when in ("before", "during", "after", "installing")],
    *[Case(f"{name}-installing", ["--break-at", "installing", "--signal", name], image=image("hang", **HANG),
           said=[f"Exiting UpgraderLoop on signal {number}", END_SENT, "started by the guest, was still running"])
      for name, number in (("close", 2), ("logoff", 5), ("shutdown", 6))],
    Case("ctrl-c", ["--do", "greeting", "--do", "idle 1", "--do", "signal ctrl-c", "--do", "idle 5", "--do", "cancel",
                    "--do", "end"],
         said=["signal ctrl-c", "Received upgrader.cancel"], unsaid=["Exiting UpgraderLoop on signal", END_SENT]),
    Case("run-twice", ["--do", "greeting", "--do", "copy", "--do", "run -q", "--do", "run -s", "--do", "end"],
         image=well(), said=["Received upgrader.run from ravlin", "Received upgrader.run from ravlin", BEGUN]),
    Case("cancel-with-shutdown", ["--cancel", "after"], ["-s"], image=well(),
         said=["Received upgrader.cancel", "Upgrader shutting down VM."]),
    Case("break-with-shutdown", ["--break-at", "after"], ["-s"], image=well(), said=[END_SENT],
         unsaid=["Upgrader shutting down VM."]),
]

if __name__ == "__main__":
    sys.exit(main(UPGRADES + INSTALLERS + IMAGES + REFUSALS + CANCELS))
