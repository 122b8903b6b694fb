#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-3.0-or-later
# Every text Lumora shows has its German translation: the catalogue, brought up to date from the sources in a copy,
# has no message unfinished and none that the sources no longer have.
#   translations-complete.sh LUPDATE SOURCE_DIR
set -uo pipefail
WORK=$(mktemp -d "${TMPDIR:-/tmp}/lumora-ts.XXXXXX")
trap 'rm -rf "$WORK"' EXIT
TS=$WORK/lumora_de.ts LEFT='type="\(unfinished\|vanished\|obsolete\)"'
cp "$2/Lumora/translations/lumora_de.ts" "$TS"
"$1" -silent -I "$2" -locations none "$2/Lumora" -ts "$TS" >"$WORK/lupdate.log" 2>&1 ||
    { cat "$WORK/lupdate.log"; echo "0 passed, 1 failed"; exit 1; }
total=$(grep -c '<source>' "$TS") left=$(grep -c "$LEFT" "$TS")
echo "$total texts; $left without German or no longer in the sources"
(( left == 0 && total > 0 )) && { echo "1 passed, 0 failed"; exit 0; }
grep -B2 "$LEFT" "$TS" | grep '<source>'
echo "0 passed, 1 failed"
exit 1
