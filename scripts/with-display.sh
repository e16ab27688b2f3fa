#!/bin/bash
# Runs a command with an X display of its own, which nobody sees, and gives its exit code:
#   scripts/with-display.sh scripts/wineprefix.py run DIR wine program.exe
# The display is named by DISPLAY, and by RL_DISPLAY for scripts/wineprefix.py, which uses no other.
set -euo pipefail
[ $# -gt 0 ] || { sed -n '2,4s/^# //p' "$0" >&2; exit 2; }

exec 3< <(exec Xvfb -displayfd 1 -screen 0 1024x768x24 -nolisten tcp 2>/dev/null)
server=$!
trap 'kill $server 2>/dev/null; wait $server 2>/dev/null || true' EXIT
read -r -t 30 number <&3 || { echo "with-display: Xvfb does not start" >&2; exit 1; }
export DISPLAY=:$number RL_DISPLAY=:$number
status=0
"$@" || status=$?
exit $status
