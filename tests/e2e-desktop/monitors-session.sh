# A desktop with several monitors in one X screen, for the brightness keys: Xvfb ignores RandR monitors, so this
# runs Xorg with the dummy video driver on one large screen and lays monitors out on it with
# `xrandr --setmonitor`, named like the desk's DRM connectors so that Lumora matches them by output name. The
# driver's own output (DUMMY0) stays as a monitor over the whole screen; it matches no connector. Qt reads the
# monitors when it connects: set them before starting the program that needs them.
#
# Sourced after desktop-session.sh (it uses its process tracking and waits). Needs: Xorg (xserver-xorg-core,
# xserver-xorg-video-dummy), xrandr (x11-xserver-utils), openbox, and root (Xorg opens the console).

# monitors_session_available: 0 when this machine can run it.
monitors_session_available()
{
    command -v Xorg >/dev/null 2>&1 && command -v xrandr >/dev/null 2>&1 && [[ $(id -u) -eq 0 ]] &&
        [[ -e /usr/lib/xorg/modules/drivers/dummy_drv.so ]]
}

# Sourced where this machine cannot run it, the scenario is skipped.
if ! monitors_session_available; then
    echo "SKIP: needs Xorg with the dummy driver, xrandr, and root"
    exit 77
fi

# monitors_session_start WORK WIDTH HEIGHT: Xorg (dummy) with one WIDTHxHEIGHT screen and openbox; exports
# DISPLAY. The mode's pixel clock stays under the driver's 300 MHz by refreshing slowly.
monitors_session_start()
{
    local work=$1 width=$2 height=$3
    mkdir -p "$work"
    local htotal=$(( width + 220 )) vtotal=$(( height + 20 ))
    local clock
    clock=$(awk -v h="$htotal" -v v="$vtotal" 'BEGIN { c = h * v * 14 / 1000000; if (c > 280) c = 280; printf "%.2f", c }')
    cat >"$work/xorg.conf" <<CONF
Section "Device"
  Identifier "dummy"
  Driver "dummy"
  VideoRam 256000
EndSection
Section "Monitor"
  Identifier "monitor"
  HorizSync 5.0-1000.0
  VertRefresh 5.0-200.0
  Modeline "desk" $clock $width $(( width + 20 )) $(( width + 120 )) $htotal $height $(( height + 3 )) $(( height + 8 )) $vtotal
EndSection
Section "Screen"
  Identifier "screen"
  Device "dummy"
  Monitor "monitor"
  DefaultDepth 24
  SubSection "Display"
    Depth 24
    Modes "desk"
    Virtual $width $height
  EndSubSection
EndSection
CONF
    rm -f "$work/displayfd"
    Xorg -displayfd 3 -config "$work/xorg.conf" -noreset -nolisten tcp -logfile "$work/xorg.log" \
        3>"$work/displayfd" >"$work/xorg.out" 2>&1 &
    session_track $!
    session_connect "$work" "Xorg (see xorg.log)" && session_start_wm "$work"
}

# monitors_set NAME=WIDTHxHEIGHT+X+Y ...: exactly these monitors (besides DUMMY0), replacing the ones set before.
monitors_set()
{
    local name
    for name in $(xrandr --listmonitors | awk 'NR > 1 { n = $2; gsub(/[+*]/, "", n); if (n != "DUMMY0") print n }'); do
        xrandr --delmonitor "$name" || return 1
    done
    local monitor geometry w h x y
    for monitor in "$@"; do
        name=${monitor%%=*}
        geometry=${monitor#*=}
        IFS='x+' read -r w h x y <<<"$geometry"
        # About 96 dpi, so that nobody scales.
        xrandr --setmonitor "$name" "$w/$(( w * 254 / 960 ))x$h/$(( h * 254 / 960 ))+$x+$y" none || return 1
    done
}

# work_at X Y: the window the user works in (WINDOW, its process WINDOW_PID), an ordinary window opened or moved
# to X Y and focused.
WINDOW=""
WINDOW_PID=""
work_at()
{
    local x=$1 y=$2
    if [[ -z $WINDOW ]]; then
        xmessage -geometry "900x500+$x+$y" "the window you work in" >/dev/null 2>&1 &
        WINDOW_PID=$!
        session_track "$WINDOW_PID"
        wait_until 10 bash -c 'xdotool search --onlyvisible --name "^xmessage$" >/dev/null' || return 1
        WINDOW=$(xdotool search --onlyvisible --name '^xmessage$' | head -1)
    else
        xdotool windowmove --sync "$WINDOW" "$x" "$y" >/dev/null 2>&1 || return 1
    fi
    xdotool windowactivate --sync "$WINDOW" >/dev/null 2>&1
    wait_until 10 bash -c '[[ $(xdotool getactivewindow 2>/dev/null) == "$0" ]]' "$WINDOW"
}
