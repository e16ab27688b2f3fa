#!/usr/bin/env python3
"""A fault at every single port call of an upgrade's conversation, one run of the program each.

Whatever call it is, the program ends by itself with a documented exit code, keeps to the protocol, closes its
channels, signals completion and leaves neither image nor process behind.
"""

import sys

from upgrades import AS_EXPECTED, COPY, GUEST_EXIT, SCRIPT, Case, judge, main_with

SCRIPT_OPTIONS = ["--no-verify", "--cancel", "after", "--expect-end", "any"]


def image(bench):
    return bench.image("exit-0", Behaviour="exit", ExitCode=0)


def ends_well(bench, run):
    assert run.guest_exit in (0, 1), f"the guest's exit code is {run.guest_exit}"
    assert " 0 deviations" in run.output, "the protocol was not kept"
    log = bench.log()
    assert "I1:Cancelled by the host" in log or "E1:" in log, f"nothing tells why it ended:\n{log}"


def sweep(bench, option):
    """Runs with the fault at call 1, 2, 3, ... until there is no such call; gives how many there were."""
    call = 0
    while True:
        call += 1
        case = Case(f"{option.strip('-')}-{call}", [*SCRIPT_OPTIONS, option, str(call)], image=image, limit=30,
                    exits=(AS_EXPECTED, GUEST_EXIT, SCRIPT, COPY), check=ends_well)
        run = bench.run(case)
        try:
            judge(bench, case, run)
        except AssertionError as problem:
            raise AssertionError(f"at call {call}: {problem}\n{run.output}\n{run.transcript[-3000:]}") from problem
        bench.clean()
        if "answered with a fault" not in run.output:
            assert run.code == AS_EXPECTED, run.output
            return call - 1


def sweeps(bench):
    passed = failed = 0
    for option in ("--fail-call", "--checkpoint-call"):
        try:
            calls = sweep(bench, option)
            assert calls > 50, f"only {calls} calls"
            print(f"ok {option.strip('-')} at each of {calls} calls")
            passed += 1
        except AssertionError as problem:
            print(f"not ok {option.strip('-')} {problem}")
            failed += 1
        sys.stdout.flush()
    return passed, failed


if __name__ == "__main__":
    sys.exit(main_with(sweeps))
