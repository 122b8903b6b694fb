# SPDX-License-Identifier: GPL-3.0-or-later
# The frame a scenario on a real desktop stands on, sourced once DESKTOP, LUMORA, VIRTUAL_DESK, ARTIFACTS (and
# EXTRA_TOOLS, beyond the desktop's) are set: the desktop's starter, the reporting, root and the tools checked (77
# skips), a clean ARTIFACTS, a WORK directory, and the desktop stopped with its logs kept however the scenario ends.
HERE=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
# shellcheck source=desktop.sh
source "$HERE/desktop.sh"
# shellcheck source=../e2e-desktop/report.sh
source "$HERE/../e2e-desktop/report.sh"
if [[ ! -f "$HERE/${DESKTOP%%-*}.sh" ]]; then echo "SKIP: no desktop named $DESKTOP here"; exit 77; fi
# shellcheck source=sway.sh
source "$HERE/${DESKTOP%%-*}.sh"

if (( EUID != 0 )); then echo "SKIP: the desktops run as a test user that only root can switch to"; exit 77; fi
for tool in $(desktop_tools) setpriv setsid ${EXTRA_TOOLS:-}; do
    command -v "$tool" >/dev/null 2>&1 ||
        { echo "SKIP: $tool is missing (scripts/install-desktop-deps.sh installs it)"; exit 77; }
done

rm -rf "$ARTIFACTS" && mkdir -p "$ARTIFACTS"
WORK=$(mktemp -d "${TMPDIR:-/tmp}/lumora-desktop.XXXXXX")
cleanup() { desktop_stop; cp "$WORK"/*.log "$WORK"/user/*.log "$ARTIFACTS/" 2>/dev/null; rm -rf "$WORK"; }
trap cleanup EXIT
trap 'exit 1' INT TERM

figure() { echo "   figure: $*"; }
shot() { desktop_screenshot "$ARTIFACTS/$1.png" && echo "   screenshot: $ARTIFACTS/$1.png"; }
