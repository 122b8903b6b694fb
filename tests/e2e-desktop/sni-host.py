#!/usr/bin/python3
# A minimal StatusNotifier host for the desktop tests, on the session bus it is started on: it owns
# org.kde.StatusNotifierWatcher, takes every item that registers (and says it is a host itself), and writes each
# registered item's bus name, one a line, to the file given. What a panel does with a click on an item, the test
# does with xdotool (the press) and a call of the item's Activate (the activation the host sends after the release).
#
#   sni-host.py ITEMS_FILE
import sys

from gi.repository import Gio, GLib

WATCHER = """
<node>
  <interface name="org.kde.StatusNotifierWatcher">
    <method name="RegisterStatusNotifierItem"><arg name="service" type="s" direction="in"/></method>
    <method name="RegisterStatusNotifierHost"><arg name="service" type="s" direction="in"/></method>
    <property name="RegisteredStatusNotifierItems" type="as" access="read"/>
    <property name="IsStatusNotifierHostRegistered" type="b" access="read"/>
    <property name="ProtocolVersion" type="i" access="read"/>
    <signal name="StatusNotifierItemRegistered"><arg type="s"/></signal>
    <signal name="StatusNotifierItemUnregistered"><arg type="s"/></signal>
    <signal name="StatusNotifierHostRegistered"/>
  </interface>
</node>
"""

items_file = sys.argv[1]
items = []
loop = GLib.MainLoop()


def on_call(connection, sender, path, interface, method, parameters, invocation):
    if method == "RegisterStatusNotifierItem":
        service = parameters.unpack()[0]
        # Qt registers with its unique name; an item that passes a path lives on the caller's name.
        name = sender if service.startswith("/") else service
        items.append(name)
        with open(items_file, "a") as out:
            out.write(name + "\n")
        connection.emit_signal(None, "/StatusNotifierWatcher", "org.kde.StatusNotifierWatcher",
                               "StatusNotifierItemRegistered", GLib.Variant("(s)", (name,)))
    invocation.return_value(None)


def on_get(connection, sender, path, interface, name):
    if name == "RegisteredStatusNotifierItems":
        return GLib.Variant("as", items)
    if name == "IsStatusNotifierHostRegistered":
        return GLib.Variant("b", True)
    if name == "ProtocolVersion":
        return GLib.Variant("i", 0)
    return None


def on_bus(connection, name):
    info = Gio.DBusNodeInfo.new_for_xml(WATCHER).interfaces[0]
    connection.register_object("/StatusNotifierWatcher", info, on_call, on_get, None)


def on_name(connection, name):
    # Ready: clients that look for a watcher from now on find one.
    with open(items_file + ".ready", "w") as out:
        out.write("ready\n")


def on_lost(connection, name):
    sys.stderr.write("sni-host: could not own %s\n" % name)
    loop.quit()


Gio.bus_own_name(Gio.BusType.SESSION, "org.kde.StatusNotifierWatcher", Gio.BusNameOwnerFlags.NONE,
                 on_bus, on_name, on_lost)
loop.run()
