#!/bin/sh
# Checks the model of the lock protocol with spin: tests/model/run.sh [quick|full]
#
# First the protocol as it is, which must hold; then with one of its foundations taken away, which must fail, or
# the model would show nothing. The last line counts. Needs spin and a C compiler.
set -eu
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
passed=0
failed=0

# check EXPECTED NAME DEFINITIONS...: EXPECTED is "holds" or "fails".
check() {
    expected=$1
    name=$2
    shift 2
    rm -rf "$work/run" && mkdir "$work/run"
    (cd "$work/run" && spin -a "$@" "$here/fileLock.pml" > spin.log &&
        cc -O1 -w -DSAFETY -DCOLLAPSE -DVECTORSZ=2048 -o pan pan.c && ./pan -m1000000 -w24 ${PAN:-} > pan.log) || true
    log=$work/run/pan.log
    if grep -q 'errors: 1' "$log"; then
        outcome=fails
    elif grep -q 'errors: 0' "$log" && ! grep -q 'Search not completed\|depth too small' "$log"; then
        outcome=holds
    else
        outcome=incomplete
    fi
    states=$(sed -n 's/^ *\([0-9.e+]*\) states, stored.*/\1/p' "$log")
    reason=$(sed -n 's/^pan:[0-9]*: \(.*\) (at depth.*/\1/p' "$log" | cut -c1-60)
    if [ "$outcome" = "$expected" ]; then
        passed=$((passed + 1))
        verdict=ok
    else
        failed=$((failed + 1))
        verdict=FAILED
    fi
    echo "$verdict: $name: $outcome (${states:-no} states${reason:+; $reason})"
}

check holds "2 lockers, 2 rounds, a death anywhere" -DLOCKERS=2 -DROUNDS=2
check holds "2 lockers, a death anywhere, names listed one by one" -DLOCKERS=2 -DLISTING=1
check holds "2 lockers, a death anywhere, members listed before doorways" -DLOCKERS=2 -DLISTING=2
check holds "2 lockers, a death anywhere, names listed first and looked at later" -DLOCKERS=2 -DLISTING=3
check holds "3 lockers, a death anywhere" -DLOCKERS=3
if [ "${1:-quick}" = full ]; then
    check holds "3 lockers, names listed one by one" -DLOCKERS=3 -DCRASH=0 -DLISTING=1
    check holds "3 lockers, names listed first and looked at later" -DLOCKERS=3 -DCRASH=0 -DLISTING=3
    check holds "3 lockers, exclusive, members listed before doorways" -DLOCKERS=3 -DCRASH=0 -DLISTING=2 -DTYPES=1
fi
check fails "members listed before doorways, and listed once" -DLOCKERS=2 -DCRASH=0 -DLISTING=2 -DLOOKS=1
check fails "names listed first and looked at later, and listed once" -DLOCKERS=2 -DCRASH=0 -DLISTING=3 -DLOOKS=1
check fails "a number drawn again at once" -DLOCKERS=3 -DCRASH=0 -DREUSE=1 -DTYPES=1
PAN=-E check fails "a dead locker's number drawn again at once" -DLOCKERS=3 -DREUSE=1 -DTYPES=1
check fails "a living locker taken for dead" -DLOCKERS=2 -DCRASH=0 -DSLOW=1
check fails "a living locker taken for dead, which does not care" -DLOCKERS=2 -DCRASH=0 -DSLOW=1 -DIGNORE=1
echo "$passed passed, $failed failed"
[ "$failed" -eq 0 ]
