# A small X11 desktop for driving the tray application from outside: Xvfb, the openbox window manager and the
# trayer system tray, plus helpers to find Lumora's windows, wait with deadlines, read pixels and take
# screenshots. Sourced by the end-to-end test, the desktop figures and `make demo`.
#
# Every process started here is recorded and ended by session_stop (call it from an EXIT trap). Nothing waits
# without a deadline. Needs: Xvfb openbox trayer xdotool xwininfo xprop import, and ImageMagick's convert.

SESSION_PIDS=()

# session_environment WORK: a desktop of our own. No session bus until a test starts its own (session_bus): the
# address "disabled:" keeps libdbus and GLib from autolaunching one through the X server, a bus that would outlive
# the test and that made trayer hang at start now and then. No StatusNotifier host over D-Bus, then (the icon docks
# through XEmbed); a private runtime directory under WORK (the single-instance lock lives there), a private
# configuration directory, and sanitizer options that suit a Qt program run under umockdev.
session_environment()
{
    unset WAYLAND_DISPLAY QT_QPA_PLATFORM
    export DBUS_SESSION_BUS_ADDRESS=disabled:
    export XDG_RUNTIME_DIR="$1/runtime" XDG_CONFIG_HOME="$1/config"
    mkdir -p "$XDG_RUNTIME_DIR" "$XDG_CONFIG_HOME"
    chmod 700 "$XDG_RUNTIME_DIR"
    export ASAN_OPTIONS="${ASAN_OPTIONS:+$ASAN_OPTIONS:}verify_asan_link_order=0:detect_leaks=0"
}

# The real ImageMagick (a plain `convert` earlier in PATH may be something else).
session_convert()
{
    local tool
    for tool in convert-im6.q16 /usr/bin/convert convert; do
        if command -v "$tool" >/dev/null 2>&1; then
            "$tool" "$@"
            return
        fi
    done
    return 127
}

# now_ms: a monotonic clock in milliseconds.
now_ms()
{
    local up
    read -r up _ </proc/uptime
    # /proc/uptime has centiseconds; date gives nanoseconds when available.
    local ns
    ns=$(date +%s%N 2>/dev/null)
    if [[ $ns =~ ^[0-9]+$ ]]; then
        echo $((ns / 1000000))
    else
        echo $(( ${up%.*} * 1000 + 10#${up#*.} * 10 ))
    fi
}

# wait_until SECONDS COMMAND...: runs COMMAND every 20 ms until it succeeds; fails after SECONDS.
wait_until()
{
    local limit=$1
    shift
    local deadline=$(( $(now_ms) + limit * 1000 ))
    while (( $(now_ms) < deadline )); do
        if "$@"; then
            return 0
        fi
        sleep 0.02
    done
    "$@"
}

session_track() { SESSION_PIDS+=("$1"); }

# session_start WORKDIR [WIDTHxHEIGHT [notray]]: starts Xvfb on a free display, openbox and trayer (a tray at the
# top right; none with "notray", see session_start_tray); exports DISPLAY. Fails when any piece does not come up
# in time.
session_start()
{
    local work=$1 size=${2:-1280x800} tray=${3:-tray}
    mkdir -p "$work"
    rm -f "$work/displayfd"
    Xvfb -displayfd 3 -screen 0 "${size}x24" -nolisten tcp -noreset 3>"$work/displayfd" >"$work/xvfb.log" 2>&1 &
    session_track $!
    session_connect "$work" Xvfb && session_start_wm "$work" || return 1
    if [[ $tray == tray ]]; then
        session_start_tray "$work"
    fi
}

# session_connect WORKDIR SERVER: waits for the X server just started with -displayfd 3>WORKDIR/displayfd to give
# its display and answer; exports DISPLAY.
session_connect()
{
    if ! wait_until 20 test -s "$1/displayfd"; then
        echo "session: $2 did not start" >&2
        return 1
    fi
    export DISPLAY=":$(tr -d '\n' <"$1/displayfd")"
    if ! wait_until 10 xprop -root _XKB_RULES_NAMES >/dev/null 2>&1; then
        echo "session: no X server on $DISPLAY" >&2
        return 1
    fi
}

# session_start_wm WORKDIR: openbox on DISPLAY.
session_start_wm()
{
    openbox --sm-disable >"$1/openbox.log" 2>&1 &
    session_track $!
    if ! wait_until 10 session_has_wm; then
        echo "session: openbox did not start" >&2
        return 1
    fi
}

# session_start_tray WORKDIR: trayer, an XEmbed system tray at the top right of the screen. Now and then trayer
# never shows its panel (it dies, or hangs, at start on a loaded machine): one that has not shown it in 10 s is
# ended and started again, three times at most.
session_start_tray()
{
    local attempt pid
    for attempt in 1 2 3; do
        trayer --edge top --align right --widthtype request --height 24 --SetDockType true --SetPartialStrut true \
            --transparent false --expand false >"$1/trayer.log" 2>&1 &
        pid=$!
        session_track "$pid"
        wait_until 10 session_has_tray && return 0
        if kill -0 "$pid" 2>/dev/null; then
            echo "session: trayer showed no panel in 10 s (attempt $attempt); its log:" >&2
            kill -KILL "$pid" 2>/dev/null
            wait "$pid" 2>/dev/null
        else
            wait "$pid" 2>/dev/null
            echo "session: trayer ended with status $? before showing its panel (attempt $attempt); its log:" >&2
        fi
        sed 's/^/    trayer: /' "$1/trayer.log" >&2
    done
    return 1
}

# session_bus WORKDIR: a private session bus (dbus-daemon), exported as DBUS_SESSION_BUS_ADDRESS. No
# StatusNotifier host is on it unless a test starts one.
session_bus()
{
    rm -f "$1/bus-address"
    dbus-daemon --session --nofork --nopidfile --print-address=3 3>"$1/bus-address" >"$1/dbus.log" 2>&1 &
    session_track $!
    if ! wait_until 10 test -s "$1/bus-address"; then
        echo "session: the session bus did not start" >&2
        return 1
    fi
    export DBUS_SESSION_BUS_ADDRESS
    DBUS_SESSION_BUS_ADDRESS=$(head -1 "$1/bus-address")
}

session_has_wm() { xprop -root _NET_SUPPORTING_WM_CHECK 2>/dev/null | grep 'window id' >/dev/null; }
session_has_tray() { xwininfo -root -tree 2>/dev/null | grep '("panel" "trayer")' >/dev/null; }

# session_stop: ends every tracked process (TERM, then KILL after a grace period) and reaps it.
session_stop()
{
    local pid i
    for (( i = ${#SESSION_PIDS[@]} - 1; i >= 0; i-- )); do
        pid=${SESSION_PIDS[i]}
        kill -TERM "$pid" 2>/dev/null || true
    done
    for pid in "${SESSION_PIDS[@]}"; do
        local deadline=$(( $(now_ms) + 5000 ))
        while kill -0 "$pid" 2>/dev/null && (( $(now_ms) < deadline )); do
            sleep 0.05
        done
        kill -KILL "$pid" 2>/dev/null || true
        wait "$pid" 2>/dev/null || true
    done
    SESSION_PIDS=()
}

# lumora_windows: "id x y width height viewable(0/1)" for every window of class lumora, one per line.
lumora_windows()
{
    local id info x y w h state
    for id in $(xdotool search --classname '^lumora$' 2>/dev/null); do
        info=$(xwininfo -id "$id" 2>/dev/null) || continue
        x=$(awk '/Absolute upper-left X/ {print $4}' <<<"$info")
        y=$(awk '/Absolute upper-left Y/ {print $4}' <<<"$info")
        w=$(awk '/^ *Width:/ {print $2}' <<<"$info")
        h=$(awk '/^ *Height:/ {print $2}' <<<"$info")
        state=0
        grep -q 'Map State: IsViewable' <<<"$info" && state=1
        echo "$id $x $y $w $h $state"
    done
}

# tray_icon: "x y width height" of Lumora's icon docked in the tray (a viewable window inside trayer's panel).
tray_icon()
{
    local panel id info
    panel=$(xwininfo -root -tree 2>/dev/null | awk '/\("panel" "trayer"\)/ {print $1; exit}')
    [[ -n $panel ]] || return 1
    for id in $(xwininfo -id "$panel" -tree 2>/dev/null | awk '/\("lumora" "Lumora"\)/ {print $1}'); do
        info=$(xwininfo -id "$id" 2>/dev/null) || continue
        grep -q 'Map State: IsViewable' <<<"$info" || continue
        awk '/Absolute upper-left X/ {x=$4} /Absolute upper-left Y/ {y=$4} /^ *Width:/ {w=$2} /^ *Height:/ {h=$2}
             END {print x, y, w, h}' <<<"$info"
        return 0
    done
    return 1
}
icon_docked() { tray_icon >/dev/null; }

# lumora_window_named TITLE [managed]: the id of Lumora's viewable top-level window with that exact title
# (_NET_WM_NAME); with "managed", only a window the window manager manages (the icon docked in a tray is titled
# Lumora too).
lumora_window_named()
{
    local id
    for id in $(xdotool search --onlyvisible --classname '^lumora$' 2>/dev/null); do
        xprop -id "$id" _NET_WM_NAME 2>/dev/null | grep -xF "_NET_WM_NAME(UTF8_STRING) = \"$1\"" >/dev/null || continue
        if [[ ${2:-} == managed ]] && ! xprop -id "$id" WM_STATE 2>/dev/null | grep 'window state: Normal' >/dev/null; then
            continue
        fi
        echo "$id"
        return 0
    done
    return 1
}

# window_geometry ID: "x y width height" of a window, its position on the screen.
window_geometry()
{
    xwininfo -id "$1" 2>/dev/null |
        awk '/Absolute upper-left X/ {x=$4} /Absolute upper-left Y/ {y=$4} /^ *Width:/ {w=$2} /^ *Height:/ {h=$2}
             END {if (w == "") exit 1; print x, y, w, h}'
}

# panel_geometry: "x y width height" of the shown panel (Lumora's viewable 300-wide window).
panel_geometry()
{
    lumora_windows | awk '$4 == 300 && $6 == 1 {print $2, $3, $4, $5; found=1; exit} END {exit !found}'
}
panel_shown() { panel_geometry >/dev/null; }
panel_id() { lumora_windows | awk '$4 == 300 && $6 == 1 {print $1; exit}'; }
# panel_rows: how many slider rows the shown panel has now (a screenshot into WORK).
panel_rows()
{
    local x y w h
    screenshot "$WORK/rows.png"
    read -r x y w h < <(panel_geometry) || return 1
    slider_rows "$WORK/rows.png" "$x" "$y" "$h" | wc -l
}
panel_hidden() { ! panel_shown; }

# menu_geometry: "x y width height" of a shown Lumora window that is neither the panel nor the icon, nor a tooltip.
menu_geometry()
{
    local id x y w h v
    while read -r id x y w h v; do
        (( w != 300 && w > 60 && v == 1 )) || continue
        xprop -id "$id" _NET_WM_WINDOW_TYPE 2>/dev/null | grep TOOLTIP >/dev/null && continue
        echo "$x $y $w $h"
        return 0
    done < <(lumora_windows)
    return 1
}

# tooltip_shown: a viewable Lumora window of the tooltip type is on screen.
tooltip_shown()
{
    local id
    for id in $(xdotool search --onlyvisible --classname '^lumora$' 2>/dev/null); do
        xprop -id "$id" _NET_WM_WINDOW_TYPE 2>/dev/null | grep _NET_WM_WINDOW_TYPE_TOOLTIP >/dev/null && return 0
    done
    return 1
}
menu_shown() { menu_geometry >/dev/null; }

# screenshot FILE: the whole screen as PNG.
screenshot() { import -window root "$1"; }

# pixel_column FILE X Y0 Y1: "y r g b" for the pixels of column X from Y0 to Y1 of an image.
pixel_column()
{
    local file=$1 x=$2 y0=$3 y1=$4
    session_convert "$file" -crop "1x$(( y1 - y0 + 1 ))+$x+$y0" +repage -depth 8 txt:- |
        awk -v y0="$y0" -F'[ ,:()]+' 'NR > 1 { print $2 + y0, $3, $4, $5 }'
}

# slider_rows FILE PANEL_X PANEL_Y PANEL_H: the y of every brightness slider in the shown panel, top to bottom.
# A slider is found by its filled groove (the highlight colour, bluish) just right of its start: the dim sun
# sits at 16 ... 32 points and the groove starts 8 points later.
slider_rows()
{
    local file=$1 px=$2 py=$3 ph=$4
    pixel_column "$file" $(( px + 48 )) "$py" $(( py + ph - 1 )) |
        awk 'BEGIN { inrun = 0 }
             { blue = ($4 > 140 && $4 > $2 + 60) }
             blue && !inrun { start = $1; inrun = 1 }
             !blue && inrun { print int((start + prev) / 2); inrun = 0 }
             { prev = $1 }
             END { if (inrun) print int((start + prev) / 2) }'
}

# dark_rows FILE X Y0 Y1: the middle of every run of dark pixels in column X between Y0 and Y1.
dark_rows()
{
    pixel_column "$1" "$2" "$3" "$4" |
        awk 'BEGIN { inrun = 0 }
             { dark = ($2 + $3 + $4 < 300) }
             dark && !inrun { start = $1; inrun = 1 }
             !dark && inrun { print int((start + prev) / 2); inrun = 0 }
             { prev = $1 }
             END { if (inrun) print int((start + prev) / 2) }'
}
