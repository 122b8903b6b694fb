# SPDX-License-Identifier: GPL-3.0-or-later
# The frame a scenario on a real desktop stands on, sourced with DESKTOP LUMORA VIRTUAL_DESK ARTIFACT_DIR (and
# EXTRA_TOOLS): the desktop's file, root and the tools checked (77 skips), a WORK directory, the desktop stopped and
# its logs kept however the scenario ends. A desktop file (sway.sh, …) sets DESKTOP_NAME, DESKTOP_TOOLS and defines
# desktop_up WORK (OUTPUTS outputs of 1280x800 side by side; exports DISPLAY, WAYLAND_DISPLAY; sets DESKTOP_TRAY when
# a StatusNotifier host runs), desktop_move X Y, desktop_click X Y [BUTTON], desktop_key NAME, desktop_screenshot FILE.
# The desktops run as the system user lumora-desktops (sway refuses root, GNOME and KWin want a user's session).
DESKTOP=$1 LUMORA=$(realpath "$2") VIRTUAL_DESK=$(realpath "$3") ARTIFACTS=$4
HERE=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
# shellcheck source=../e2e-desktop/desktop-session.sh
source "$HERE/../e2e-desktop/desktop-session.sh"
# shellcheck source=../e2e-desktop/report.sh
source "$HERE/../e2e-desktop/report.sh"
DESKTOP_USER=lumora-desktops DESKTOP_GROUPS=() SPAWN_WRAP=() DESKTOP_TRAY=0 DESKTOP_WIDTH=1280 DESKTOP_HEIGHT=800
# The X tools of desktop-session.sh run as the test user: an XWayland server lets in only its own user.
xwininfo() { as_user xwininfo "$@"; }; xprop() { as_user xprop "$@"; }; xdotool() { as_user xdotool "$@"; }
as_user() { "${AS_USER[@]}" "$@"; }

# desktop_start WORK OUTPUTS: the session's directories (WORK/run as XDG_RUNTIME_DIR, WORK/user for what the session
# writes) owned by the test user (made once per machine), then the desktop.
desktop_start()
{
    local work=$1
    OUTPUTS=$2 DESKTOP_WIDTH=$(( 1280 * $2 ))
    id -u "$DESKTOP_USER" >/dev/null 2>&1 || useradd --system --create-home --home-dir "/var/lib/$DESKTOP_USER" \
        --shell /usr/sbin/nologin "$DESKTOP_USER" || id -u "$DESKTOP_USER" >/dev/null 2>&1 || return 1
    mkdir -p "$work/home" "$work/run" "$work/user" && chmod 755 "$work" && chmod 700 "$work/run"
    chown -R "$DESKTOP_USER:" "$work/home" "$work/run" "$work/user"
    export XDG_RUNTIME_DIR="$work/run" SESSION_OUT="$work/user"
    unset WAYLAND_DISPLAY DISPLAY XAUTHORITY QT_QPA_PLATFORM
    # No accessibility bus: it is started on demand, slowly, and nothing here reads it.
    export NO_AT_BRIDGE=1 GTK_A11Y=none
    AS_USER=(env HOME="$work/home" XDG_CONFIG_HOME="$work/home/.config" XDG_CACHE_HOME="$work/home/.cache"
             XDG_DATA_HOME="$work/home/.local/share" USER="$DESKTOP_USER" LOGNAME="$DESKTOP_USER"
             setpriv --reuid="$DESKTOP_USER" --regid="$DESKTOP_USER" --init-groups --)
    desktop_up "$work"
}

# desktop_spawn LOG COMMAND...: COMMAND as the test user (inside SPAWN_WRAP, run as root) in the background, in a
# process group of its own (a background job is no group leader: setsid needs no fork, $! is the group), as SPAWNED.
desktop_spawn() { setsid "${SPAWN_WRAP[@]}" "${AS_USER[@]}" "${@:2}" >"$1" 2>&1 & SPAWNED=$!; DESKTOP_GROUPS+=("$SPAWNED"); }
# desktop_run COMMAND...: a program of the session, its output in RUN_LOG or SESSION_OUT/<name>.log.
desktop_run() { desktop_spawn "${RUN_LOG:-$SESSION_OUT/$(basename "$1").log}" "$@"; }
# start_lumora NAME [DESK OPTIONS] -- COMMAND...: COMMAND (lumora) on the virtual desk, in the session, as APP_PID.
start_lumora() { rm -f "$SESSION_OUT/control"
    RUN_LOG="$WORK/lumora-$1.log" desktop_run "$VIRTUAL_DESK" --control "$SESSION_OUT/control" "${@:2}"; APP_PID=$SPAWNED; }
ended() { wait_until "$2" bash -c '! kill -0 "$0" 2>/dev/null' "$1"; }
equals() { [[ "$("${@:2}")" == "$1" ]]; }

# desktop_stop: every process group started here ended (TERM, KILL after 5 s) and reaped, last first.
desktop_stop()
{
    local i pgid deadline=$(( $(now_ms) + 5000 ))
    for (( i = ${#DESKTOP_GROUPS[@]} - 1; i >= 0; i-- )); do kill -TERM -- "-${DESKTOP_GROUPS[i]}" 2>/dev/null; done
    for pgid in "${DESKTOP_GROUPS[@]}"; do
        while kill -0 -- "-$pgid" 2>/dev/null && (( $(now_ms) < deadline )); do sleep 0.05; done
        kill -KILL -- "-$pgid" 2>/dev/null; wait "$pgid" 2>/dev/null
    done
    DESKTOP_GROUPS=(); session_stop
}

# desktop_bus: the test user's private session bus, exported as DBUS_SESSION_BUS_ADDRESS.
desktop_bus()
{
    desktop_spawn "$SESSION_OUT/../dbus.log" dbus-daemon --session --nofork --nopidfile --print-address=1 \
        --address="unix:path=$XDG_RUNTIME_DIR/bus"
    wait_until 10 test -S "$XDG_RUNTIME_DIR/bus" || { echo "desktop: no session bus" >&2; return 1; }
    export DBUS_SESSION_BUS_ADDRESS="unix:path=$XDG_RUNTIME_DIR/bus"
}
desktop_wait_x() { wait_until "$1" xprop -root _XKB_RULES_NAMES >/dev/null 2>&1; }
# session_dbus DEST PATH METHOD ARGS...: a call on the session bus, as the test user.
session_dbus() { as_user gdbus call --session --dest "$1" --object-path "$2" --method "$3" "${@:4}"; }
watcher_property() { session_dbus org.kde.StatusNotifierWatcher /StatusNotifierWatcher \
    org.freedesktop.DBus.Properties.Get org.kde.StatusNotifierWatcher "$1" 2>/dev/null; }
# desktop_items: the StatusNotifier items the session's watcher lists, one a line (nothing without a watcher).
desktop_items() { watcher_property RegisteredStatusNotifierItems | grep -o "'[^']*'" | tr -d "'"; }
desktop_watcher() { session_dbus org.freedesktop.DBus /org/freedesktop/DBus org.freedesktop.DBus.NameHasOwner \
    org.kde.StatusNotifierWatcher 2>/dev/null | grep -q true; }

# wl_input_start: the made-up pointer of a compositor without input devices (wl-input.c, built into WORK), fed
# through a coprocess.
wl_input_start()
{
    local work=${SESSION_OUT%/user}
    cc -O2 -o "$work/wl-input" "$HERE/wl-input.c" $(pkg-config --cflags --libs wayland-client) && chmod 755 "$work/wl-input" ||
        { echo "desktop: cannot build wl-input (libwayland-dev)" >&2; return 1; }
    coproc WL_INPUT { exec setsid "${AS_USER[@]}" "$work/wl-input" "$DESKTOP_WIDTH" "$DESKTOP_HEIGHT" 2>"$work/wl-input.log"; }
    DESKTOP_GROUPS+=("$WL_INPUT_PID"); wl_input move 0 0
}
desktop_move() { wl_input move "$1" "$2"; }
desktop_click() { wl_input move "$1" "$2" && wl_input click "${3:-1}"; }
# wl_input COMMAND...: one command to wl-input, and its answer awaited (10 s at most).
wl_input() { local reply; echo "$*" >&"${WL_INPUT[1]}" && read -r -t 10 reply <&"${WL_INPUT[0]}" && [[ $reply == ok ]]; }

[[ -f "$HERE/${DESKTOP%%-*}.sh" ]] || { echo "SKIP: no desktop named $DESKTOP here"; exit 77; }
# shellcheck source=sway.sh
source "$HERE/${DESKTOP%%-*}.sh"
(( EUID == 0 )) || { echo "SKIP: the desktops run as a test user that only root can switch to"; exit 77; }
for tool in $DESKTOP_TOOLS setpriv setsid ${EXTRA_TOOLS:-}; do
    command -v "$tool" >/dev/null 2>&1 || { echo "SKIP: $tool is missing (scripts/install-desktop-deps.sh installs it)"; exit 77; }
done
rm -rf "$ARTIFACTS" && mkdir -p "$ARTIFACTS"
WORK=$(mktemp -d "${TMPDIR:-/tmp}/lumora-desktop.XXXXXX")
cleanup() { desktop_stop; cp "$WORK"/*.log "$WORK"/user/*.log "$ARTIFACTS/" 2>/dev/null; rm -rf "$WORK"; }
trap cleanup EXIT; trap 'exit 1' INT TERM
figure() { echo "   figure: $*"; }; shot() { desktop_screenshot "$ARTIFACTS/$1.png" && echo "   screenshot: $ARTIFACTS/$1.png"; }
