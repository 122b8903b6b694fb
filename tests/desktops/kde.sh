# SPDX-License-Identifier: GPL-3.0-or-later
# KDE Plasma 5.27: KWin on virtual outputs with plasmashell (its tray a StatusNotifier host, kded5 the watcher),
# X clients through XWayland. Debian's kwin_wayland carries a file capability, which a process switched to another
# user may not exec: a plain copy runs. KWin's fake input (permission checks off, as for a test session) gives
# wl-input a pointer and a keyboard; its ScreenShot2 interface the pictures. KWin tells other programs nothing of its
# windows: a KWin script of the test's own moves one, and neither the focus nor Plasma's on-screen display is read.
DESKTOP_NAME="KWin 5.27 + plasmashell" DESKTOP_TOOLS="kwin_wayland plasmashell kded5 gdbus xprop xwininfo cc"
OUTPUT_NAMES=(Virtual-0 Virtual-1)
OUTPUT_WIDTH=2560   # KWin's virtual outputs take the whole --width each

desktop_up()
{
    local work=$1
    cp /usr/bin/kwin_wayland "$work/kwin_wayland" && chmod 755 "$work/kwin_wayland"
    desktop_bus || return 1
    export KWIN_SCREENSHOT_NO_PERMISSION_CHECKS=1 KWIN_WAYLAND_NO_PERMISSION_CHECKS=1 XDG_SESSION_TYPE=wayland \
        XDG_CURRENT_DESKTOP=KDE KDE_FULL_SESSION=true KDE_SESSION_VERSION=5
    # What KWin starts once its Wayland and X servers are up names them (in a process group of its own, which
    # would outlive the desktop: it ends at once).
    printf '#!/bin/sh\necho "$DISPLAY $XAUTHORITY" > %s/display\n' "$SESSION_OUT" >"$work/started" && chmod 755 "$work/started"
    desktop_spawn "$work/kwin.log" "$work/kwin_wayland" --virtual --xwayland --socket wayland-0 \
        --width "$DESKTOP_WIDTH" --height "$DESKTOP_HEIGHT" --output-count "$OUTPUTS" "$work/started"
    wait_until 60 test -s "$SESSION_OUT/display" || { echo "desktop: KWin did not start" >&2; return 1; }
    export WAYLAND_DISPLAY=wayland-0 DISPLAY XAUTHORITY
    read -r DISPLAY XAUTHORITY <"$SESSION_OUT/display"
    desktop_wait_x 30 || { echo "desktop: XWayland does not answer on $DISPLAY" >&2; return 1; }
    desktop_spawn "$work/kded5.log" kded5
    desktop_spawn "$work/kactivitymanagerd.log" /usr/lib/x86_64-linux-gnu/libexec/kactivitymanagerd
    QT_QPA_PLATFORM=wayland desktop_spawn "$work/plasmashell.log" plasmashell --no-respawn
    wait_until 60 desktop_watcher || { echo "desktop: no StatusNotifier watcher (kded5)" >&2; return 1; }
    # plasmashell's tray has registered itself as a StatusNotifier host.
    wait_until 90 eval 'watcher_property IsStatusNotifierHostRegistered | grep -q true' ||
        { echo "desktop: plasmashell's tray is not on the bus" >&2; return 1; }
    DESKTOP_TRAY=1
    wl_input_start
}

desktop_key() { [[ $1 == Escape ]] && wl_input key 1; }   # evdev KEY_ESC: the one key typed on a tray
# The whole workspace through ScreenShot2: its pixels come through a pipe, which gdbus cannot pass.
desktop_screenshot()
{
    local w h stride; read -r w h stride < <(as_user /usr/bin/python3 -c '
import os, sys
from gi.repository import Gio, GLib
read_end, write_end = os.pipe()
fds = Gio.UnixFDList.new_from_array([write_end])
reply, _ = Gio.bus_get_sync(Gio.BusType.SESSION).call_with_unix_fd_list_sync(
    "org.kde.KWin", "/org/kde/KWin/ScreenShot2", "org.kde.KWin.ScreenShot2", "CaptureWorkspace",
    GLib.Variant("(a{sv}h)", ({"include-cursor": GLib.Variant("b", True)}, 0)), GLib.VariantType("(a{sv})"),
    Gio.DBusCallFlags.NONE, 10000, fds, None)
for fd in fds.steal_fds(): os.close(fd)  # the write end KWin got a copy of, closed so that the read below ends
info = reply.unpack()[0]
with os.fdopen(read_end, "rb") as pipe, open(sys.argv[1], "wb") as out:
    out.write(pipe.read())
print(info["width"], info["height"], info["stride"])' "$SESSION_OUT/shot.raw") && [[ -n $stride ]] || return 1
    session_convert -size "$(( stride / 4 ))x$h" -depth 8 "bgra:$SESSION_OUT/shot.raw" -crop "${w}x$h+0+0" +repage \
        -alpha off "$1"
}

# The window the user works in (WINDOW): shown, moved onto output N and activated.
window_shown() { pgrep -u "$DESKTOP_USER" -x "$([[ $WINDOW == "$NATIVE" ]] && echo weston-terminal || echo xev)" >/dev/null; }
# kwin_script JS: run in KWin, loaded over org.kde.kwin.Scripting as Plasma's own scripts are.
kwin_script()
{
    local file="$SESSION_OUT/move-$RANDOM.js" name="lumora-test-$RANDOM" id
    echo "$1" >"$file" && chmod 644 "$file"
    id=$(session_dbus org.kde.KWin /Scripting org.kde.kwin.Scripting.loadScript "$file" "$name" | tr -dc '0-9') || return 1
    session_dbus org.kde.KWin "/Scripting/Script$id" org.kde.kwin.Script.run >/dev/null 2>&1 ||
        session_dbus org.kde.KWin "/$id" org.kde.kwin.Script.run >/dev/null || return 1
    session_dbus org.kde.KWin /Scripting org.kde.kwin.Scripting.unloadScript "$name" >/dev/null
}
# spot_black N: the screen is black where the window's middle goes on output N (both windows are black, the
# wallpaper is not).
spot_black()
{
    desktop_screenshot "$WORK/moved.png" &&
        session_convert "$WORK/moved.png" -crop "1x1+$(( ($1 - 1) * 2560 + 500 ))+400" +repage -depth 8 txt:- |
            awk -F'[ ,:()]+' 'NR == 2 { exit !($3 < 20 && $4 < 20 && $5 < 20) }'
}
# Moved and activated until the screen shows it there (a window just mapped may not be listed yet; the script finds
# nothing then), once the wallpaper shows there (an output not yet painted is black too).
window_moved_to()
{
    kwin_script "const c = workspace.clientList().find(c => c.caption === '$WINDOW');
        if (c) { const g = c.frameGeometry;
                 c.frameGeometry = {x: $(( ($1 - 1) * 2560 + 200 )), y: 200, width: g.width, height: g.height};
                 workspace.activeClient = c; }" && spot_black "$1"
}
spot_painted() { ! spot_black "$1"; }
window_to() { wait_until 20 spot_painted "$1" && wait_until 20 window_moved_to "$1"; }
