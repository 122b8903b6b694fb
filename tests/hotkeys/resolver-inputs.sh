#!/usr/bin/env bash
# Runs resolver_inputs once per layout on an X server that shows that layout's monitors (Xorg with the dummy
# driver), each run on the virtual desk with the matching connectors.
#
#   resolver-inputs.sh RESOLVER_INPUTS WORKDIR
#
# Exit status: 0 passed, 1 failed, 77 skipped (no Xorg with the dummy driver, or not root).
set -uo pipefail
BINARY=$1
WORK=$2
HERE=$(cd "$(dirname "$0")" && pwd)
# shellcheck source=../e2e-desktop/desktop-session.sh
source "$HERE/../e2e-desktop/desktop-session.sh"
# shellcheck source=../e2e-desktop/monitors-session.sh
source "$HERE/../e2e-desktop/monitors-session.sh"

for tool in openbox xprop umockdev-wrapper; do
    command -v "$tool" >/dev/null 2>&1 || { echo "FAIL: $tool is missing (scripts/install-deps.sh installs it)"; exit 1; }
done

rm -rf "$WORK"
mkdir -p "$WORK"
trap session_stop EXIT
session_environment "$WORK"
monitors_session_start "$WORK" 6400 2880 || { cat "$WORK/xorg.log" >&2; exit 1; }

failed=0
for layout in $("$BINARY" --list); do
    echo "== $layout"
    # shellcheck disable=SC2046
    monitors_set $("$BINARY" --monitors "$layout") || { echo "FAIL: xrandr could not lay out $layout"; failed=1; continue; }
    timeout -k 5 60 umockdev-wrapper "$BINARY" --layout "$layout" || failed=1
done
exit "$failed"
