# SPDX-License-Identifier: GPL-3.0-or-later
# The real desktops, started headless for tests: what every desktop file (sway.sh, gnome.sh, kde.sh, xfce.sh,
# sourced after this) shares. Each defines desktop_name, desktop_tools and
#   desktop_start WORK OUTPUTS   OUTPUTS outputs of 1280x800 side by side; exports DISPLAY (X11 or XWayland),
#                                WAYLAND_DISPLAY, XAUTHORITY, DBUS_SESSION_BUS_ADDRESS, XDG_RUNTIME_DIR; sets
#                                DESKTOP_TRAY (1: a StatusNotifier host runs) and DESKTOP_WIDTH
#   desktop_move X Y, desktop_click X Y [BUTTON], desktop_key NAME (Escape, alt+F4), desktop_screenshot FILE
# desktop_run COMMAND... runs a program in the session. Every process runs in a group of its own, ended by
# desktop_stop (from an EXIT trap). The desktops run as the system user lumora-desktops (sway refuses root, GNOME
# and KWin want a user's session); every socket, display and bus is private to WORK.

DESKTOP_DIR=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
# shellcheck source=../e2e-desktop/desktop-session.sh
source "$DESKTOP_DIR/../e2e-desktop/desktop-session.sh"

DESKTOP_USER=lumora-desktops
DESKTOP_GROUPS=()
# A command that starts what desktop_spawn starts, as root, before it becomes the test user (a namespace).
SPAWN_WRAP=()
DESKTOP_TRAY=0
DESKTOP_WIDTH=1280
DESKTOP_HEIGHT=800

# The X tools of desktop-session.sh run as the test user: an XWayland server lets in only its own user.
xwininfo() { as_user xwininfo "$@"; }
xprop() { as_user xprop "$@"; }
xdotool() { as_user xdotool "$@"; }

# desktop_user: the test user, made once per machine.
desktop_user()
{
    id -u "$DESKTOP_USER" >/dev/null 2>&1 && return 0
    (( EUID == 0 )) || { echo "desktop: run as root, to make the test user $DESKTOP_USER" >&2; return 1; }
    useradd --system --create-home --home-dir "/var/lib/$DESKTOP_USER" --shell /usr/sbin/nologin "$DESKTOP_USER" ||
        id -u "$DESKTOP_USER" >/dev/null 2>&1
}

# desktop_prepare WORK: the session's directories, owned by the test user: WORK/home, WORK/run (XDG_RUNTIME_DIR)
# and WORK/user for what the session writes (logs, the display number).
desktop_prepare()
{
    local work=$1
    desktop_user || return 1
    chmod 755 "$work"
    mkdir -p "$work/home" "$work/run" "$work/user"
    chown -R "$DESKTOP_USER:" "$work/home" "$work/run" "$work/user"
    chmod 700 "$work/run"
    export XDG_RUNTIME_DIR="$work/run" SESSION_OUT="$work/user"
    unset WAYLAND_DISPLAY DISPLAY XAUTHORITY QT_QPA_PLATFORM
    # No accessibility bus: it is started on demand, slowly, and nothing here reads it.
    export NO_AT_BRIDGE=1 GTK_A11Y=none
    AS_USER=(env HOME="$work/home" XDG_CONFIG_HOME="$work/home/.config" XDG_CACHE_HOME="$work/home/.cache"
             XDG_DATA_HOME="$work/home/.local/share" USER="$DESKTOP_USER" LOGNAME="$DESKTOP_USER"
             setpriv --reuid="$DESKTOP_USER" --regid="$DESKTOP_USER" --init-groups --)
}

# as_user COMMAND...: COMMAND as the test user with this shell's environment and the session's HOME.
as_user() { "${AS_USER[@]}" "$@"; }

# desktop_spawn LOG COMMAND...: COMMAND as the test user in the background, in a process group of its own (a
# script's background job is no group leader: setsid needs no fork and $! is the group's id), its pid in SPAWNED.
desktop_spawn()
{
    setsid "${SPAWN_WRAP[@]}" "${AS_USER[@]}" "${@:2}" >"$1" 2>&1 &
    SPAWNED=$!
    DESKTOP_GROUPS+=("$SPAWNED")
}

# desktop_run COMMAND...: a program of the session, in the background, its pid in SPAWNED; its output in RUN_LOG
# or SESSION_OUT/<name>.log.
desktop_run() { desktop_spawn "${RUN_LOG:-$SESSION_OUT/$(basename "$1").log}" "$@"; }

# desktop_stop: every process group started here ended (TERM, KILL after 5 s) and reaped, last first.
desktop_stop()
{
    local i pgid deadline
    for (( i = ${#DESKTOP_GROUPS[@]} - 1; i >= 0; i-- )); do
        kill -TERM -- "-${DESKTOP_GROUPS[i]}" 2>/dev/null
    done
    deadline=$(( $(now_ms) + 5000 ))
    for pgid in "${DESKTOP_GROUPS[@]}"; do
        while kill -0 -- "-$pgid" 2>/dev/null && (( $(now_ms) < deadline )); do sleep 0.05; done
        kill -KILL -- "-$pgid" 2>/dev/null
        wait "$pgid" 2>/dev/null
    done
    DESKTOP_GROUPS=()
    session_stop
}

# desktop_bus: a private session bus for the desktop (the test user's), exported as DBUS_SESSION_BUS_ADDRESS.
desktop_bus()
{
    desktop_spawn "$SESSION_OUT/../dbus.log" dbus-daemon --session --nofork --nopidfile --print-address=1 \
        --address="unix:path=$XDG_RUNTIME_DIR/bus"
    wait_until 10 test -S "$XDG_RUNTIME_DIR/bus" || { echo "desktop: no session bus" >&2; return 1; }
    export DBUS_SESSION_BUS_ADDRESS="unix:path=$XDG_RUNTIME_DIR/bus"
}

# desktop_wait_x SECONDS: DISPLAY answers.
desktop_wait_x() { wait_until "$1" xprop -root _XKB_RULES_NAMES >/dev/null 2>&1; }

# desktop_items: the StatusNotifier items the session's watcher lists, one a line (nothing without a watcher).
desktop_items() { watcher_items; }
watcher_items()
{
    as_user gdbus call --session --dest org.kde.StatusNotifierWatcher --object-path /StatusNotifierWatcher \
        --method org.freedesktop.DBus.Properties.Get org.kde.StatusNotifierWatcher RegisteredStatusNotifierItems \
        2>/dev/null | grep -o "'[^']*'" | tr -d "'"
}
desktop_watcher() { as_user gdbus call --session --dest org.freedesktop.DBus --object-path /org/freedesktop/DBus \
    --method org.freedesktop.DBus.NameHasOwner org.kde.StatusNotifierWatcher 2>/dev/null | grep -q true; }

# wl_input_start WIDTH HEIGHT: the made-up pointer of a compositor without input devices (wl-input.c, built here
# into WORK), running as the test user, fed through a coprocess.
wl_input_start()
{
    local work=${SESSION_OUT%/user}
    cc -O2 -o "$work/wl-input" "$DESKTOP_DIR/wl-input.c" $(pkg-config --cflags --libs wayland-client) ||
        { echo "desktop: cannot build wl-input (libwayland-dev)" >&2; return 1; }
    chmod 755 "$work/wl-input"
    coproc WL_INPUT { exec setsid "${AS_USER[@]}" "$work/wl-input" "$1" "$2" 2>"$work/wl-input.log"; }
    DESKTOP_GROUPS+=("$WL_INPUT_PID")
    wl_input move 0 0
}
desktop_move() { wl_input move "$1" "$2"; }
desktop_click() { wl_input move "$1" "$2" && wl_input click "${3:-1}"; }
# wl_input COMMAND...: one command to wl-input, and its answer awaited (10 s at most).
wl_input()
{
    local reply
    echo "$*" >&"${WL_INPUT[1]}" || return 1
    read -r -t 10 reply <&"${WL_INPUT[0]}" && [[ $reply == ok ]]
}
