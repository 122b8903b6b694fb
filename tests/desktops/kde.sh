# SPDX-License-Identifier: GPL-3.0-or-later
# KDE Plasma 5.27: KWin on virtual outputs with plasmashell (its tray a StatusNotifier host, kded5 the watcher),
# X clients through XWayland (see desktop.sh). Debian's kwin_wayland carries a file capability, which a process
# switched to another user may not exec: a plain copy runs. KWin's fake input (permission checks off, as for a test
# session) gives wl-input a pointer and a keyboard; its ScreenShot2 interface the pictures.

desktop_name() { echo "KWin 5.27 + plasmashell"; }
desktop_tools() { echo kwin_wayland plasmashell kded5 gdbus xprop xwininfo cc; }

desktop_start()
{
    local work=$1 outputs=${2:-1}
    desktop_prepare "$work" || return 1
    DESKTOP_WIDTH=$(( 1280 * outputs ))
    cp /usr/bin/kwin_wayland "$work/kwin_wayland"
    chmod 755 "$work/kwin_wayland"
    desktop_bus || return 1
    export KWIN_SCREENSHOT_NO_PERMISSION_CHECKS=1 KWIN_WAYLAND_NO_PERMISSION_CHECKS=1 XDG_SESSION_TYPE=wayland \
        XDG_CURRENT_DESKTOP=KDE KDE_FULL_SESSION=true KDE_SESSION_VERSION=5
    # What KWin starts once its Wayland and X servers are up names them (in a process group of its own, which
    # would outlive the desktop: it ends at once).
    printf '#!/bin/sh\necho "$DISPLAY $XAUTHORITY" > %s/display\n' "$SESSION_OUT" >"$work/started"
    chmod 755 "$work/started"
    desktop_spawn "$work/kwin.log" "$work/kwin_wayland" --virtual --xwayland --socket wayland-0 \
        --width "$DESKTOP_WIDTH" --height "$DESKTOP_HEIGHT" --output-count "$outputs" \
        "$work/started"
    wait_until 60 test -s "$SESSION_OUT/display" || { echo "desktop: KWin did not start" >&2; return 1; }
    export WAYLAND_DISPLAY=wayland-0 DISPLAY XAUTHORITY
    read -r DISPLAY XAUTHORITY <"$SESSION_OUT/display"
    desktop_wait_x 30 || { echo "desktop: XWayland does not answer on $DISPLAY" >&2; return 1; }
    desktop_spawn "$work/kded5.log" kded5
    desktop_spawn "$work/kactivitymanagerd.log" /usr/lib/x86_64-linux-gnu/libexec/kactivitymanagerd
    QT_QPA_PLATFORM=wayland desktop_spawn "$work/plasmashell.log" plasmashell --no-respawn
    wait_until 60 desktop_watcher || { echo "desktop: no StatusNotifier watcher (kded5)" >&2; return 1; }
    wait_until 90 kde_tray_up || { echo "desktop: plasmashell's tray is not on the bus" >&2; return 1; }
    DESKTOP_TRAY=1
    wl_input_start "$DESKTOP_WIDTH" "$DESKTOP_HEIGHT"
}
# plasmashell's tray has registered itself as a StatusNotifier host.
kde_tray_up()
{
    as_user gdbus call --session --dest org.kde.StatusNotifierWatcher --object-path /StatusNotifierWatcher \
        --method org.freedesktop.DBus.Properties.Get org.kde.StatusNotifierWatcher IsStatusNotifierHostRegistered \
        2>/dev/null | grep -q true
}

desktop_key() { [[ $1 == Escape ]] && wl_input key 1; }   # evdev KEY_ESC: the one key typed on a tray
desktop_screenshot()
{
    local size
    size=$(as_user /usr/bin/python3 "$DESKTOP_DIR/kwin-screenshot.py" "$SESSION_OUT/shot.raw") || return 1
    read -r w h stride <<<"$size"
    session_convert -size "$(( stride / 4 ))x$h" -depth 8 "bgra:$SESSION_OUT/shot.raw" -crop "${w}x$h+0+0" +repage \
        -alpha off "$1"
}
