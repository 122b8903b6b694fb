#!/usr/bin/python3
# SPDX-License-Identifier: GPL-3.0-or-later
# kwin-screenshot FILE: the whole workspace of the running KWin as raw BGRA pixels in FILE, and "WIDTH HEIGHT STRIDE"
# on standard output, through org.kde.KWin.ScreenShot2 (the pixels come through a pipe, which gdbus cannot pass).
import os
import sys

from gi.repository import Gio, GLib

bus = Gio.bus_get_sync(Gio.BusType.SESSION)
read_end, write_end = os.pipe()
fds = Gio.UnixFDList.new()
fds.append(write_end)
os.close(write_end)
reply, _ = bus.call_with_unix_fd_list_sync(
    "org.kde.KWin", "/org/kde/KWin/ScreenShot2", "org.kde.KWin.ScreenShot2", "CaptureWorkspace",
    GLib.Variant("(a{sv}h)", ({"include-cursor": GLib.Variant("b", True)}, 0)), GLib.VariantType("(a{sv})"),
    Gio.DBusCallFlags.NONE, 10000, fds, None)
# The list holds a copy of the write end: closed, so that the read below ends when KWin has written the picture.
for fd in fds.steal_fds():
    os.close(fd)
info = reply.unpack()[0]
with os.fdopen(read_end, "rb") as pipe, open(sys.argv[1], "wb") as out:
    out.write(pipe.read())
print(info["width"], info["height"], info["stride"])
