#!/usr/bin/python3
# SPDX-License-Identifier: GPL-3.0-or-later
# What gdbus cannot do from a shell on Lumora's session bus interface. Every wait is bounded.
#   displays                   each display: id, brightness, on, canPowerOff, name (tab-separated)
#   watch FILE                 a line "ID BRIGHTNESS ON;..." per PropertiesChanged of Displays (FILE.ready once it listens)
#   burst COUNT METHOD ID [D]  COUNT METHOD(ID[, D]) calls at once on one connection; replies and errors once answered
#   same-interface FILE        exit 0 when the served org.lumora.Lumora1 has the members of the introspection FILE
import sys
import xml.etree.ElementTree as ElementTree
from gi.repository import Gio, GLib

NAME, PATH, INTERFACE, TIMEOUT_MS = "org.lumora.Lumora", "/org/lumora/Lumora", "org.lumora.Lumora1", 10000
bus = Gio.bus_get_sync(Gio.BusType.SESSION, None)

def get(interface, method, arguments, reply):
    return bus.call_sync(NAME, PATH, interface, method, arguments, GLib.VariantType(reply), Gio.DBusCallFlags.NONE,
                         TIMEOUT_MS, None).unpack()[0]

def watch(path):
    def changed(_connection, _sender, _path, _interface, _signal, parameters):
        interface, values, _invalidated = parameters.unpack()
        if interface == INTERFACE and "Displays" in values:
            with open(path, "a") as out:
                out.write(";".join(f"{d[0]} {d[2]:.4f} {str(d[3]).lower()}" for d in values["Displays"]) + "\n")
    bus.signal_subscribe(NAME, "org.freedesktop.DBus.Properties", "PropertiesChanged", PATH, None,
                         Gio.DBusSignalFlags.NONE, changed)
    # A round trip to the bus: the match rule is in place once it returns.
    bus.call_sync("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "GetId", None, None,
                  Gio.DBusCallFlags.NONE, TIMEOUT_MS, None)
    open(path + ".ready", "w").close()
    GLib.MainLoop().run()

def burst(count, method, ident, delta=None):
    arguments = GLib.Variant("(u)", (ident,)) if delta is None else GLib.Variant("(ud)", (ident, float(delta)))
    loop, answers = GLib.MainLoop(), {"replies": 0, "errors": 0}
    def answered(source, result):
        try:
            source.call_finish(result)
            answers["replies"] += 1
        except GLib.Error as error:
            answers["errors"] += 1
            print(error.message, file=sys.stderr)
        if sum(answers.values()) == count:
            loop.quit()
    for _ in range(count):
        bus.call(NAME, PATH, INTERFACE, method, arguments, None, Gio.DBusCallFlags.NONE, TIMEOUT_MS, None, answered)
    GLib.timeout_add(2 * TIMEOUT_MS, loop.quit)
    loop.run()
    print(f"{answers['replies']} replies, {answers['errors']} errors")

def interface(root):  # the element, canonical: whitespace, attribute order and comments aside
    found = root.find(f"interface[@name='{INTERFACE}']")
    return "" if found is None else ElementTree.canonicalize(ElementTree.tostring(found), strip_text=True)

def main(command, *args):
    if command == "displays":
        for d in get("org.freedesktop.DBus.Properties", "Get", GLib.Variant("(ss)", (INTERFACE, "Displays")), "(v)"):
            print("\t".join([str(d[0]), f"{d[2]:.4f}", str(d[3]).lower(), str(d[4]).lower(), d[1]]))
    elif command == "watch":
        watch(args[0])
    elif command == "burst":
        burst(int(args[0]), args[1], int(args[2]), *args[3:])
    elif command == "same-interface":
        served = interface(ElementTree.fromstring(get("org.freedesktop.DBus.Introspectable", "Introspect", None, "(s)")))
        if not served or served != interface(ElementTree.parse(args[0]).getroot()):
            sys.exit(f"served: {served}")
    else:
        sys.exit(f"unknown command {command}")

main(*sys.argv[1:])
