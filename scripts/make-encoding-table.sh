#!/bin/bash
# Makes lib/misc/encodingTable.inc anew from the alias data of the distribution's ICU (package libicu-dev).
#
#   scripts/make-encoding-table.sh            write the file
#   scripts/make-encoding-table.sh --check    say whether the file in the tree is what would be written
#
# The order of the rows is ICU's. To be run when ICU moves to another version, and at no other time: an encoding's
# index is its row.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
table=$root/lib/misc/encodingTable.inc
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

"${CXX:-c++}" -std=c++20 -O1 -Wall -Wextra "$root/lib/misc/encodingTableMake.cpp" -o "$work/make" -licuuc
"$work/make" >"$work/table"
case ${1:-} in
  "") cp "$work/table" "$table" ;;
  --check) diff -u "$table" "$work/table" ;;
  *) echo "make-encoding-table: unknown argument '$1'" >&2; exit 2 ;;
esac
