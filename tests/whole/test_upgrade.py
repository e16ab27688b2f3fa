#!/usr/bin/env python3
"""Whole upgrades that go well, and ones that cannot: bad images, bad installers, refusals, cancels, breaks."""

import subprocess
import sys

from upgrades import Case, main

HANG = {"Behaviour": "hang"}
EXIT = {"Behaviour": "exit"}
END_SENT = "guest request: 'toolinstall.end 0'"
STARTED = "upgrader.setGuestFileRoot"
BEGUN = "Upgrader: Beginning installation."
LAUNCHED = "Attempting to launch"


def image(name, **settings):
    return lambda bench: bench.image(name, **settings)


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
    """The real package is where a user looks for it, and both logs say how it got there."""
    files = [path for path in (bench.prefix / "drive_c" / "Program Files" / "Ravlin").rglob("*") if path.is_file()]
    assert files, "nothing is installed"
    log = bench.unix(run.root + "\\rlmsi.log")
    assert log.stat().st_size > 0, "rlmsi.log is empty"
    logs = list((bench.prefix / "drive_c").rglob("rlinst.log"))
    assert logs and all(path.stat().st_size > 0 for path in logs), "no rlinst.log"
    text = b"".join(path.read_bytes() for path in logs).replace(b"\0", b"")
    assert b"SetupCmdLine" in text, "rlinst.log does not know the installer's command line"


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
         unsaid=[END_SENT], check=lambda bench, run: (installed(bench, run), extracted(bench, run))),
    Case("small-packets", ["--file-version", "1"], image=well(), said=["Open mode", "Write handle", "Read handle"],
         unsaid=[END_SENT, "V3"]),
    Case("low-bandwidth", ["--low-bandwidth", "--no-verify"], image=well(), limit=300,
         said=["Setup process returned 0"], unsaid=[END_SENT]),
    Case("old-hypervisor", ["--no-cookie-open"], image=well(), said=["Setup process returned 0"]),
    Case("shut-down", guest=["-s"], image=well(), said=["Setup process returned 0", "Upgrader shutting down VM."]),
    Case("arguments", guest=["-p", '/s /v"/qn FOO=1"'], check=record, unsaid=[END_SENT],
         image=image("record", Record="C:\\line.txt", ExitCode=0, **EXIT),
         said=['setup.exe" /s /v"/qn FOO=1" /w']),
    Case("plain-installer", ["--run-args", "-q"], image=image("plain", kind="plain", ExitCode=0, **EXIT),
         said=['/s /v"/qn" /L "', "Setup process returned 0"], unsaid=['" /w']),
    Case("conversation", ["--do", "greeting", "--do", "ping", "--do", "reset", "--do", "idle 3",
                          "--do", "send nonsense => ERROR Unknown Command", "--do", "send   => ERROR Bad command",
                          "--do", "send f => ERROR 1 argument required", "--do", "ping", "--do", "cancel",
                          "--do", "end"], said=["Received reset from RHD"], unsaid=[END_SENT]),
]

INSTALLERS = [
    Case("installer-1603", ["--expect-end", "sent"], image=well(1603), said=["Setup process returned 1603", END_SENT]),
    Case("installer-1641", image=well(1641), said=["Setup process returned 1641"],
         unsaid=[END_SENT, "Reboot is required"]),
    Case("installer-3010", image=well(3010), said=["Setup process returned 3010", "Reboot is required"],
         unsaid=[END_SENT], limit=90),
    # The host's -s asks all the same, its -x does not; REBOOT=R keeps quiet where it stands in -p.
    Case("installer-3010-after-s", ["--run-args", "-s"], image=well(3010),
         said=["REBOOT=R", "Setup process returned 3010", "Reboot is required"], unsaid=[END_SENT]),
    Case("installer-3010-after-x", ["--run-args", "-x"], image=well(3010),
         said=["UPGRADE_AT_SHUTDOWN=1", "Setup process returned 3010"], unsaid=[END_SENT, "Reboot is required"]),
    Case("installer-3010-suppressed", guest=["-p", '/s /v"/qn REBOOT=R"'], image=well(3010),
         said=["Reboot really suppress parameter detected.", "Setup process returned 3010"],
         unsaid=[END_SENT, "Reboot is required"]),
    Case("installer-crashes", ["--expect-end", "sent"], image=image("crash", Behaviour="crash"),
         said=["Setup process returned -1073741819", END_SENT]),
    Case("installer-missing", ["--expect-end", "sent"], image=without_setup,
         said=["Unlinking ISO", "Error in FileIO_Access", "Unexpected end of the main loop (-1)", END_SENT]),
]

IMAGES = [
    Case("no-image", ["--expect-end", "sent"],
         said=[BEGUN, "Error in Iso9660_Open", "Unexpected end of the main loop (-1)", END_SENT]),
    Case("empty-image", ["--expect-end", "sent"], image=lambda bench: bench.file("empty.iso", b""),
         said=["Error in Iso9660_Open", END_SENT], unsaid=[LAUNCHED]),
    Case("not-an-image", ["--expect-end", "sent"], image=lambda bench: bench.file("text.iso", b"no image\n" * 20000),
         said=["Error in Iso9660_Open", END_SENT], unsaid=[LAUNCHED]),
    *[Case(f"cut-image-{size}", ["--expect-end", "sent"], image=cut(size), said=[BEGUN, "Error in Iso9660_", END_SENT],
           unsaid=[LAUNCHED]) for size in (32768, 34000, 40960, 60000)],
]

REFUSALS = [
    Case("no-hypervisor", ["--no-port", "--expect-no-start"], unsaid=[STARTED],
         said=["stderr The Ravlin Tools Upgrader application must be run in a Virtual Machine."]),
    Case("other-version", ["--version", "5", "--expect-no-start"], unsaid=[STARTED],
         said=["The version of this program is incompatible with your Ravlin software.",
               "stderr The Ravlin Tools Upgrader application must be run in a Virtual Machine."]),
    Case("silent-hypervisor", ["--silent", "--expect-no-start"], unsaid=[STARTED],
         said=["The version of this program is incompatible"]),
    Case("help", ["--expect-no-start"], ["-h"], unsaid=[STARTED],
         said=["Upgrader failed parsing command line arguments.", "Upgrader failed initialization."]),
    Case("unknown-option", ["--expect-no-start"], ["-x"], unsaid=[STARTED],
         said=["Upgrader failed parsing command line arguments."]),
    Case("too-many-arguments", ["--expect-no-start"], ["a"] * 127, unsaid=[STARTED],
         said=["stderr", "126 arguments"]),
    Case("no-command-channel", ["--refuse-channel", "TCLO", "--expect-no-start"], unsaid=[STARTED],
         said=["RpcIn_start: couldn't open channel with TCLO protocol", "stderr Unable to start the receive loop."]),
    Case("no-request-channel", ["--refuse-channel", "RPCI", "--expect-exit", "1", "--do", "end"],
         said=["RpcOut: couldn't open channel with RPCI protocol",
               "stderr Failed to send RPC greeting to set temp directory."]),
    Case("greeting-unknown", ["--refuse-greeting=unknown"], unsaid=[END_SENT],
         said=["stderr Failed to send RPC greeting to set temp directory.", "stderr Setting temp directory root failed."]),
    Case("greeting-answered-with-text", ["--refuse-greeting=text"], unsaid=[END_SENT],
         said=["stderr RPC greeting failed: Host software version may not be compatible with the Upgrader."]),
]

CANCELS = [
    *[Case(f"cancel-{when}", ["--cancel", when], image=image("hang", **HANG), unsaid=[END_SENT, "had to be ended"],
           said=["'upgrader.cancel'", "Received upgrader.cancel from RHD", "Deleting"])
      for when in ("before", "during", "after", "installing")],
    *[Case(f"break-{when}", ["--break-at", when], image=image("hang", **HANG), unsaid=["was still running"],
           said=["signal break", "Exiting UpgraderLoop on signal 1", END_SENT])
      for when in ("before", "during", "after", "installing")],
    *[Case(f"{name}-installing", ["--break-at", "installing", "--signal", name], image=image("hang", **HANG),
           said=[f"Exiting UpgraderLoop on signal {number}", END_SENT, "started by the guest, was still running"])
      for name, number in (("close", 2), ("logoff", 5), ("shutdown", 6))],
    Case("ctrl-c", ["--do", "greeting", "--do", "idle 1", "--do", "signal ctrl-c", "--do", "idle 5", "--do", "cancel", "--do", "end"],
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
