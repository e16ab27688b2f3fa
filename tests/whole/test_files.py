#!/usr/bin/env python3
"""Every file operation in every version, asked of the unmodified program over its channel and each answer checked."""

import sys

from upgrades import Case, main

WALK = [text for step in ("greeting", "walk", "ping", "cancel", "end") for text in ("--do", step)]
OPERATIONS = ["CreateDir", "Open", "Write", "Read", "Setattr", "Getattr", "SearchOpen", "SearchRead", "SearchClose",
              "QueryVolumeInfo", "Rename", "Close", "DeleteFile", "DeleteDir"]
WALKED = [f"host:  f #{number} " for number in (1, 20, 40, 60, 80)] + ["LockChangeV3", "not supported"]

CASES = [
    Case("walk", WALK, said=[f" {name} " for name in OPERATIONS] + ["CreateDirV2 ", "CreateDirV3 ", *WALKED[-2:]]),
    Case("walk-low-bandwidth", [*WALK, "--low-bandwidth"], said=WALKED),
]

if __name__ == "__main__":
    sys.exit(main(CASES))
