#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-3.0-or-later
# Every text Lumora shows has its German translation: the catalogue is brought up to date from the sources (into a
# copy) and no message may be left unfinished, nor may the catalogue hold texts the sources no longer have.
#
#   translations-complete.sh LUPDATE SOURCE_DIR
set -uo pipefail
LUPDATE=$1
SOURCE=$2
WORK=$(mktemp -d "${TMPDIR:-/tmp}/lumora-ts.XXXXXX")
trap 'rm -rf "$WORK"' EXIT
cp "$SOURCE/Lumora/translations/lumora_de.ts" "$WORK/lumora_de.ts"
if ! "$LUPDATE" -silent -I "$SOURCE" -locations none "$SOURCE/Lumora" -ts "$WORK/lumora_de.ts" >"$WORK/lupdate.log" 2>&1; then
    cat "$WORK/lupdate.log"
    echo "0 passed, 1 failed"
    exit 1
fi
unfinished=$(grep -c 'type="unfinished"' "$WORK/lumora_de.ts")
vanished=$(grep -c 'type="vanished"\|type="obsolete"' "$WORK/lumora_de.ts")
total=$(grep -c '<source>' "$WORK/lumora_de.ts")
echo "$total texts; $unfinished without German; $vanished no longer in the sources"
if (( unfinished == 0 && vanished == 0 && total > 0 )); then
    echo "1 passed, 0 failed"
    exit 0
fi
grep -B2 'type="unfinished"\|type="vanished"\|type="obsolete"' "$WORK/lumora_de.ts" | grep '<source>'
echo "0 passed, 1 failed"
exit 1
