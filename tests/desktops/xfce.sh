# SPDX-License-Identifier: GPL-3.0-or-later
# Xfce 4.18's panel (its systray hosts StatusNotifier items and XEmbed icons) and xfwm4 on Xvfb: X11 all through,
# xdotool clicks and types, ImageMagick's import shoots.
DESKTOP_NAME="Xfce 4.18 panel + xfwm4 (X11)" DESKTOP_TOOLS="Xvfb xfce4-panel xfwm4 xdotool import xprop xwininfo gdbus"

desktop_up()
{
    local work=$1
    # The panel's stock layout; without it the panel asks on its first start which layout the user wants.
    mkdir -p "$work/home/.config/xfce4/xfconf/xfce-perchannel-xml" && chown -R "$DESKTOP_USER:" "$work/home/.config" &&
        install -o "$DESKTOP_USER" -m 644 /etc/xdg/xfce4/panel/default.xml "$work/home/.config/xfce4/xfconf/xfce-perchannel-xml/xfce4-panel.xml"
    desktop_bus || return 1
    desktop_spawn "$work/xvfb.log" Xvfb -displayfd 3 -screen 0 "${DESKTOP_WIDTH}x${DESKTOP_HEIGHT}x24" -nolisten tcp \
        -noreset 3>"$SESSION_OUT/displayfd"
    session_connect "$SESSION_OUT" Xvfb || return 1
    export XDG_SESSION_TYPE=x11 XDG_CURRENT_DESKTOP=XFCE
    desktop_spawn "$work/xfwm4.log" xfwm4 --compositor=off
    wait_until 20 session_has_wm || { echo "desktop: xfwm4 did not start" >&2; return 1; }
    desktop_spawn "$work/xfce4-panel.log" xfce4-panel
    wait_until 30 desktop_watcher || { echo "desktop: the panel's tray is not on the bus" >&2; return 1; }
    DESKTOP_TRAY=1
}

desktop_move() { xdotool mousemove "$1" "$2"; }
desktop_click() { xdotool mousemove "$1" "$2" click "${3:-1}"; }
desktop_key() { xdotool key "$1"; }
desktop_screenshot() { as_user import -window root "$SESSION_OUT/shot.png" && cp "$SESSION_OUT/shot.png" "$1"; }
