# SPDX-License-Identifier: GPL-3.0-or-later
# A small X11 desktop (Xvfb, openbox, trayer) and helpers that find Lumora's windows, wait with deadlines and read
# pixels. Every process started here is ended by session_stop (call it from an EXIT trap).
SESSION_PIDS=()
# session_environment WORK: private runtime and configuration directories; "disabled:" stops buses autolaunching.
session_environment() {
    unset WAYLAND_DISPLAY QT_QPA_PLATFORM
    export DBUS_SESSION_BUS_ADDRESS=disabled: XDG_RUNTIME_DIR="$1/runtime" XDG_CONFIG_HOME="$1/config"
    mkdir -p "$XDG_RUNTIME_DIR" "$XDG_CONFIG_HOME" && chmod 700 "$XDG_RUNTIME_DIR"
    export ASAN_OPTIONS="${ASAN_OPTIONS:+$ASAN_OPTIONS:}verify_asan_link_order=0:detect_leaks=0"
}
session_convert() { /usr/bin/convert "$@"; }  # the system's ImageMagick, whatever PATH has first
now_ms() { echo $(( $(date +%s%N) / 1000000 )); }
# wait_until SECONDS COMMAND...: runs COMMAND every 20 ms until it succeeds; fails after SECONDS.
wait_until() {
    local deadline=$(( $(now_ms) + $1 * 1000 )) && shift
    while (( $(now_ms) < deadline )); do "$@" && return 0; sleep 0.02; done
    "$@"
}
session_track() { SESSION_PIDS+=("$1"); }
# session_start WORKDIR [WIDTHxHEIGHT [notray]]: Xvfb on a free display, openbox and trayer (none with "notray").
session_start() {
    mkdir -p "$1" && rm -f "$1/displayfd"
    Xvfb -displayfd 3 -screen 0 "${2:-1280x800}x24" -nolisten tcp -noreset 3>"$1/displayfd" >"$1/xvfb.log" 2>&1 & session_track $!
    session_connect "$1" Xvfb && session_start_wm "$1" || return 1
    [[ ${3:-tray} != tray ]] || session_start_tray "$1"
}
# session_connect WORKDIR SERVER: the X server started with -displayfd 3>WORKDIR/displayfd, once it answers.
session_connect() {
    wait_until 20 test -s "$1/displayfd" || { echo "session: $2 did not start" >&2; return 1; }
    export DISPLAY=":$(tr -d '\n' <"$1/displayfd")"
    wait_until 10 xprop -root _XKB_RULES_NAMES >/dev/null 2>&1 || { echo "session: no X server on $DISPLAY" >&2; return 1; }
}
session_start_wm() { openbox --sm-disable >"$1/openbox.log" 2>&1 & session_track $!
    wait_until 10 session_has_wm || { echo "session: openbox did not start" >&2; return 1; }; }
# session_start_tray WORKDIR: trayer at the top right, tried three times (it dies or hangs now and then when busy).
session_start_tray() {
    local attempt pid
    for attempt in 1 2 3; do
        trayer --edge top --align right --widthtype request --height 24 --SetDockType true --SetPartialStrut true \
            --transparent false --expand false >"$1/trayer.log" 2>&1 &
        pid=$! && session_track "$pid" && wait_until 10 session_has_tray && return 0
        kill -KILL "$pid" 2>/dev/null && wait "$pid" 2>/dev/null
        echo "session: trayer showed no panel in 10 s (attempt $attempt): $(cat "$1/trayer.log")" >&2
    done
    return 1
}
session_bus() {  # WORKDIR: a private session bus, exported as DBUS_SESSION_BUS_ADDRESS
    rm -f "$1/bus-address"
    dbus-daemon --session --nofork --nopidfile --print-address=3 3>"$1/bus-address" >"$1/dbus.log" 2>&1 & session_track $!
    wait_until 10 test -s "$1/bus-address" || { echo "session: the session bus did not start" >&2; return 1; }
    export DBUS_SESSION_BUS_ADDRESS && DBUS_SESSION_BUS_ADDRESS=$(head -1 "$1/bus-address")
}
session_has_wm() { xprop -root _NET_SUPPORTING_WM_CHECK 2>/dev/null | grep -q 'window id'; }
session_has_tray() { xwininfo -root -tree 2>/dev/null | grep -q '("panel" "trayer")'; }
session_stop() {  # every tracked process: TERM, KILL after 5 s, reaped
    local pid deadline
    for pid in "${SESSION_PIDS[@]}"; do kill -TERM "$pid" 2>/dev/null; done
    for pid in "${SESSION_PIDS[@]}"; do
        deadline=$(( $(now_ms) + 5000 ))
        while kill -0 "$pid" 2>/dev/null && (( $(now_ms) < deadline )); do sleep 0.05; done
        kill -KILL "$pid" 2>/dev/null; wait "$pid" 2>/dev/null
    done
    SESSION_PIDS=()
}
window_geometry() {  # ID: "x y width height" of a window on the screen, and "viewable" when it is
    xwininfo -id "$1" 2>/dev/null | awk '/Absolute upper-left X/ {x=$4} /Absolute upper-left Y/ {y=$4}
        /^ *Width:/ {w=$2} /^ *Height:/ {h=$2} /IsViewable/ {v=" viewable"} END {if (w == "") exit 1; print x, y, w, h v}'
}
lumora_windows() { local id g  # "id x y width height viewable(0/1)" for every window of class lumora
    for id in $(xdotool search --classname '^lumora$' 2>/dev/null); do g=$(window_geometry "$id") && set -- $g && echo "$id $1 $2 $3 $4 $(( $# == 5 ))"; done; }
tray_icon() {  # "x y width height" of Lumora's icon docked in trayer's panel
    local panel id
    panel=$(xwininfo -root -tree 2>/dev/null | awk '/\("panel" "trayer"\)/ {print $1; exit}')
    for id in $([[ -n $panel ]] && xwininfo -id "$panel" -tree 2>/dev/null | awk '/\("lumora" "Lumora"\)/ {print $1}'); do
        window_geometry "$id" | awk '$5 == "viewable" {print $1, $2, $3, $4; ok=1} END {exit !ok}' && return
    done
    false
}
icon_docked() { tray_icon >/dev/null; }
# lumora_window_named TITLE [managed]: Lumora's viewable window so titled ("managed": not the docked icon, titled so too).
lumora_window_named() {
    local id
    for id in $(xdotool search --onlyvisible --classname '^lumora$' 2>/dev/null); do
        xprop -id "$id" _NET_WM_NAME 2>/dev/null | grep -qxF "_NET_WM_NAME(UTF8_STRING) = \"$1\"" || continue
        [[ ${2:-} != managed ]] || xprop -id "$id" WM_STATE 2>/dev/null | grep -q 'window state: Normal' && echo "$id" && return
    done
    false
}
# The shown panel: Lumora's viewable 300-wide window.
panel_id() { lumora_windows | awk '$4 == 300 && $6 == 1 {print $1; exit}'; }
panel_geometry() { lumora_windows | awk '$4 == 300 && $6 == 1 {print $2, $3, $4, $5; f=1; exit} END {exit !f}'; }
panel_shown() { panel_geometry >/dev/null; }; panel_hidden() { ! panel_shown; }
panel_rows() { local x y w h; screenshot "$WORK/rows.png"; read -r x y w h < <(panel_geometry) && slider_rows "$WORK/rows.png" "$x" "$y" "$h" | wc -l; }
menu_geometry() { local id x y w h v  # "x y width height" of a shown Lumora window neither the panel, the icon nor a tooltip
    while read -r id x y w h v; do (( w != 300 && w > 60 && v )) && ! window_type "$id" TOOLTIP && echo "$x $y $w $h" && return; done < <(lumora_windows)
    false; }
menu_shown() { menu_geometry >/dev/null; }
window_type() { xprop -id "$1" _NET_WM_WINDOW_TYPE 2>/dev/null | grep -q "_NET_WM_WINDOW_TYPE_$2"; }
tooltip_shown() { local id; for id in $(xdotool search --onlyvisible --classname '^lumora$' 2>/dev/null); do window_type "$id" TOOLTIP && return; done; false; }
screenshot() { import -window root "$1"; }
# pixel_column FILE X Y0 Y1: "y r g b" for the pixels of column X from Y0 to Y1 of an image.
pixel_column() { session_convert "$1" -crop "1x$(( $4 - $3 + 1 ))+$2+$3" +repage -depth 8 txt:- | awk -v y0="$3" -F'[ ,:()]+' 'NR > 1 { print $2 + y0, $3, $4, $5 }'; }
# runs_in_column FILE X Y0 Y1 CONDITION: the middle of every run of pixels meeting an awk CONDITION on r g b.
runs_in_column() {
    pixel_column "$1" "$2" "$3" "$4" | awk '{ r = $2; g = $3; b = $4; in_ = ('"$5"') }
        in_ && !run { start = $1; run = 1 } !in_ && run { print int((start + prev) / 2); run = 0 } { prev = $1 }
        END { if (run) print int((start + prev) / 2) }'
}
# slider_rows FILE PANEL_X PANEL_Y PANEL_H: the y of every slider, by its filled (bluish) groove right of the dim sun.
slider_rows() { runs_in_column "$1" $(( $2 + 48 )) "$3" $(( $3 + $4 - 1 )) 'b > 140 && b > r + 60'; }
dark_rows() { runs_in_column "$1" "$2" "$3" "$4" 'r + g + b < 300'; }
