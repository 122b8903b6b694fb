# SPDX-License-Identifier: GPL-3.0-or-later
# sway 1.7 with waybar (its tray a StatusNotifier host) on wlroots' headless backend, X clients through XWayland.
# The backend has no input devices: wl-input gives the seat a pointer, wtype types, grim shoots.
DESKTOP_NAME="sway 1.7 + waybar" DESKTOP_TOOLS="sway swaymsg waybar grim wtype xprop xwininfo gdbus cc"
OUTPUT_NAMES=(HEADLESS-1 HEADLESS-2)

desktop_up()
{
    local work=$1 i
    {
        for (( i = 1; i <= OUTPUTS; i++ )); do echo "output HEADLESS-$i resolution 1280x800 position $(( (i - 1) * 1280 )) 0"; done
        echo "xwayland enable"
        echo "exec sh -c 'echo \"\$DISPLAY\" > $SESSION_OUT/display'"
        echo "exec waybar -c $work/waybar.json"
    } >"$work/sway.conf"
    # A bar with only the tray: nothing else on it changes between two screenshots.
    echo '{"layer": "top", "position": "top", "height": 30, "modules-right": ["tray"],
           "tray": {"icon-size": 22, "spacing": 8}}' >"$work/waybar.json"
    desktop_bus || return 1
    WLR_BACKENDS=headless WLR_RENDERER=pixman WLR_LIBINPUT_NO_DEVICES=1 WLR_HEADLESS_OUTPUTS=$OUTPUTS \
        desktop_spawn "$work/sway.log" sway -c "$work/sway.conf"
    wait_until 20 sway_socket >/dev/null || { echo "desktop: sway did not start" >&2; return 1; }
    export SWAYSOCK; SWAYSOCK=$(sway_socket)
    for (( i = 1; i <= OUTPUTS; i++ )); do
        wait_until 10 swaymsg_outputs_have "HEADLESS-$i" ||
            { as_user swaymsg create_output >/dev/null; wait_until 10 swaymsg_outputs_have "HEADLESS-$i"; } ||
            { echo "desktop: no output HEADLESS-$i" >&2; return 1; }
        as_user swaymsg output "HEADLESS-$i" resolution 1280x800 position $(( (i - 1) * 1280 )) 0 >/dev/null
    done
    export WAYLAND_DISPLAY=wayland-1
    wait_until 10 test -S "$XDG_RUNTIME_DIR/$WAYLAND_DISPLAY" || { echo "desktop: no Wayland socket" >&2; return 1; }
    wait_until 10 test -s "$SESSION_OUT/display" || { echo "desktop: XWayland has no display" >&2; return 1; }
    export DISPLAY=$(cat "$SESSION_OUT/display") XDG_SESSION_TYPE=wayland XDG_CURRENT_DESKTOP=sway
    wait_until 20 desktop_watcher || { echo "desktop: waybar's tray is not on the bus" >&2; return 1; }
    DESKTOP_TRAY=1
    wl_input_start
}

sway_socket() { local s; s=$(ls "$XDG_RUNTIME_DIR"/sway-ipc.*.sock 2>/dev/null | head -1); [[ -S $s ]] && echo "$s"; }
swaymsg_outputs_have() { as_user swaymsg -t get_outputs 2>/dev/null | grep -q "\"name\": \"$1\""; }
# wtype's keyboard is new to the seat each time: XWayland takes its keymap first and drops a key that comes at
# once, so wtype waits 300 ms before typing (-s), a delay nothing here can observe instead.
desktop_key() { as_user wtype -s 300 -k "$1"; }
desktop_screenshot() { as_user grim "$SESSION_OUT/shot.png" && cp "$SESSION_OUT/shot.png" "$1"; }

# The window the user works in (WINDOW, by its title): shown, moved onto output N and focused there, focused.
window_shown() { as_user swaymsg -t get_tree | grep -q "\"name\": \"$WINDOW\""; }
window_to() { as_user swaymsg "[title=\"^$WINDOW\$\"] move to output HEADLESS-$1, focus" >/dev/null; }
window_focused()
{
    as_user swaymsg -t get_tree | python3 -c '
import json, sys
def focused(n):
    if n.get("focused"): return n
    return next(filter(None, map(focused, n.get("nodes", []) + n.get("floating_nodes", []))), None)
print((focused(json.load(sys.stdin)) or {}).get("name"))' | grep -qx "$WINDOW"
}
# osd_shown N: the level bar of Lumora's own on-screen display is lit in WORK/osd.png, low in the middle of output N
# (320 x 64, a tenth of the output's height above its bottom edge; its bar 44 pixels down, from 60 across).
osd_shown()
{
    session_convert "$WORK/osd.png" -crop "1x1+$(( ($1 - 1) * 1280 + (1280 - 320) / 2 + 64 ))+$(( 800 - 64 - 80 + 47 ))" \
        +repage -depth 8 txt:- | awk -F'[ ,:()]+' 'NR == 2 { exit !($3 > 200 && $4 > 200 && $5 > 200) }'
}
