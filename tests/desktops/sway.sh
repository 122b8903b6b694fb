# SPDX-License-Identifier: GPL-3.0-or-later
# sway 1.7 with waybar (its tray a StatusNotifier host) on wlroots' headless backend, X clients through XWayland
# (see desktop.sh). The backend has no input devices: wl-input gives the seat a pointer, wtype types, grim shoots.

desktop_name() { echo "sway 1.7 + waybar"; }
desktop_tools() { echo sway swaymsg waybar grim wtype xprop xwininfo gdbus cc; }

desktop_start()
{
    local work=$1 outputs=${2:-1} i
    desktop_prepare "$work" || return 1
    DESKTOP_WIDTH=$(( 1280 * outputs ))
    {
        for (( i = 1; i <= outputs; i++ )); do
            echo "output HEADLESS-$i resolution 1280x800 position $(( (i - 1) * 1280 )) 0"
        done
        echo "xwayland enable"
        echo "exec sh -c 'echo \"\$DISPLAY\" > $SESSION_OUT/display'"
        echo "exec waybar -c $work/waybar.json"
    } >"$work/sway.conf"
    # A bar with only the tray: nothing else on it changes between two screenshots.
    echo '{"layer": "top", "position": "top", "height": 30, "modules-right": ["tray"],
           "tray": {"icon-size": 22, "spacing": 8}}' >"$work/waybar.json"
    desktop_bus || return 1
    WLR_BACKENDS=headless WLR_RENDERER=pixman WLR_LIBINPUT_NO_DEVICES=1 WLR_HEADLESS_OUTPUTS=$outputs \
        desktop_spawn "$work/sway.log" sway -c "$work/sway.conf"
    SWAY_PID=$SPAWNED
    wait_until 20 sway_socket >/dev/null || { echo "desktop: sway did not start" >&2; return 1; }
    export SWAYSOCK
    SWAYSOCK=$(sway_socket)
    for (( i = 1; i <= outputs; i++ )); do
        wait_until 10 swaymsg_outputs_have "HEADLESS-$i" ||
            { as_user swaymsg create_output >/dev/null; wait_until 10 swaymsg_outputs_have "HEADLESS-$i"; } ||
            { echo "desktop: no output HEADLESS-$i" >&2; return 1; }
        as_user swaymsg output "HEADLESS-$i" resolution 1280x800 position $(( (i - 1) * 1280 )) 0 >/dev/null
    done
    export WAYLAND_DISPLAY=wayland-1
    wait_until 10 test -S "$XDG_RUNTIME_DIR/$WAYLAND_DISPLAY" || { echo "desktop: no Wayland socket" >&2; return 1; }
    wait_until 10 test -s "$SESSION_OUT/display" || { echo "desktop: XWayland has no display" >&2; return 1; }
    export DISPLAY XDG_SESSION_TYPE=wayland XDG_CURRENT_DESKTOP=sway
    DISPLAY=$(cat "$SESSION_OUT/display")
    wait_until 20 desktop_watcher || { echo "desktop: waybar's tray is not on the bus" >&2; return 1; }
    DESKTOP_TRAY=1
    wl_input_start "$DESKTOP_WIDTH" "$DESKTOP_HEIGHT"
}

sway_socket() { local s; s=$(ls "$XDG_RUNTIME_DIR"/sway-ipc.*.sock 2>/dev/null | head -1); [[ -S $s ]] && echo "$s"; }
swaymsg_outputs_have() { as_user swaymsg -t get_outputs 2>/dev/null | grep -q "\"name\": \"$1\""; }

# wtype's keyboard is new to the seat each time: XWayland takes its keymap first and drops a key that comes at
# once, so wtype waits 300 ms before typing (-s), a delay nothing here can observe instead.
desktop_key() { as_user wtype -s 300 -k "$1"; }
desktop_screenshot() { as_user grim "$SESSION_OUT/shot.png" && cp "$SESSION_OUT/shot.png" "$1"; }
