# SPDX-License-Identifier: GPL-3.0-or-later
# A desktop with several monitors in one X screen: Xvfb ignores RandR monitors, so this runs Xorg with the dummy
# driver on one large screen and lays monitors out on it with `xrandr --setmonitor`, named like the desk's DRM
# connectors so that Lumora matches them by output name (the driver's own DUMMY0 matches none). Qt reads the
# monitors when it connects: set them before starting the program. Sourced after desktop-session.sh; needs Xorg
# (xserver-xorg-core, xserver-xorg-video-dummy), xrandr, openbox, and root (Xorg opens the console).
if ! command -v Xorg >/dev/null 2>&1 || ! command -v xrandr >/dev/null 2>&1 || (( $(id -u) != 0 )) ||
    [[ ! -e /usr/lib/xorg/modules/drivers/dummy_drv.so ]]; then
    echo "SKIP: needs Xorg with the dummy driver, xrandr, and root"
    exit 77
fi
# monitors_session_start WORK WIDTH HEIGHT: Xorg (dummy) with one WIDTHxHEIGHT screen, and openbox; exports DISPLAY.
# The mode's pixel clock stays under the driver's 300 MHz by refreshing slowly.
monitors_session_start() {
    local w=$2 h=$3
    mkdir -p "$1" && rm -f "$1/displayfd"
    printf '%s\n' 'Section "Device"' 'Identifier "dummy"' 'Driver "dummy"' 'VideoRam 256000' 'EndSection' \
        'Section "Monitor"' 'Identifier "monitor"' 'HorizSync 5.0-1000.0' 'VertRefresh 5.0-200.0' \
        "Modeline \"desk\" $(awk -v t=$(( (w + 220) * (h + 20) )) 'BEGIN { c = t * 14 / 1e6; printf "%.2f", (c > 280 ? 280 : c) }') $w $(( w + 20 )) $(( w + 120 )) $(( w + 220 )) $h $(( h + 3 )) $(( h + 8 )) $(( h + 20 ))" \
        'EndSection' 'Section "Screen"' 'Identifier "screen"' 'Device "dummy"' 'Monitor "monitor"' 'DefaultDepth 24' \
        'SubSection "Display"' 'Depth 24' 'Modes "desk"' "Virtual $w $h" 'EndSubSection' 'EndSection' >"$1/xorg.conf"
    Xorg -displayfd 3 -config "$1/xorg.conf" -noreset -nolisten tcp -logfile "$1/xorg.log" 3>"$1/displayfd" >"$1/xorg.out" 2>&1 &
    session_track $!
    session_connect "$1" "Xorg (see xorg.log)" && session_start_wm "$1"
}
# monitors_set NAME=WIDTHxHEIGHT+X+Y ...: exactly these monitors (besides DUMMY0), replacing the ones set before.
monitors_set() {
    local name monitor w h x y
    for name in $(xrandr --listmonitors | awk 'NR > 1 { n = $2; gsub(/[+*]/, "", n); if (n != "DUMMY0") print n }'); do
        xrandr --delmonitor "$name" || return 1
    done
    for monitor in "$@"; do
        IFS='x+' read -r w h x y <<<"${monitor#*=}"
        # About 96 dpi, so that nobody scales.
        xrandr --setmonitor "${monitor%%=*}" "$w/$(( w * 254 / 960 ))x$h/$(( h * 254 / 960 ))+$x+$y" none || return 1
    done
}
# work_at X Y: the window the user works in (WINDOW, its process WINDOW_PID), opened or moved to X Y, and focused.
WINDOW="" WINDOW_PID=""
work_at() {
    if [[ -z $WINDOW ]]; then
        xmessage -geometry "900x500+$1+$2" "the window you work in" >/dev/null 2>&1 &
        WINDOW_PID=$!
        session_track "$WINDOW_PID"
        wait_until 10 eval 'WINDOW=$(xdotool search --onlyvisible --name "^xmessage$" | head -1); [[ -n $WINDOW ]]' || return 1
    else
        xdotool windowmove --sync "$WINDOW" "$1" "$2" >/dev/null 2>&1 || return 1
    fi
    xdotool windowactivate --sync "$WINDOW" >/dev/null 2>&1
    wait_until 10 eval '[[ $(xdotool getactivewindow 2>/dev/null) == "$WINDOW" ]]'
}
