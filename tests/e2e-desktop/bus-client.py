#!/usr/bin/python3
# SPDX-License-Identifier: GPL-3.0-or-later
# A client of Lumora's session bus interface for what gdbus cannot do from a shell. Every wait is bounded.
#   displays                   each display: id, brightness, on, canPowerOff, name (tab-separated)
#   watch FILE                 the Displays of every PropertiesChanged, a JSON line each (FILE.ready once it listens)
#   signal FILE INDEX ID       brightness and on of display ID in signal INDEX of FILE (-1: the last)
#   burst COUNT METHOD ID [D]  COUNT METHOD(ID[, D]) calls at once on one connection; replies and errors once answered
#   same-interface FILE        exit 0 when the served org.lumora.Lumora1 has the members of the introspection FILE
import json
import sys
import xml.etree.ElementTree as ElementTree

from gi.repository import Gio, GLib

NAME, PATH, INTERFACE, TIMEOUT_MS = "org.lumora.Lumora", "/org/lumora/Lumora", "org.lumora.Lumora1", 10000
bus = Gio.bus_get_sync(Gio.BusType.SESSION, None)

def get(interface, method, arguments, reply):
    return bus.call_sync(NAME, PATH, interface, method, arguments, GLib.VariantType(reply), Gio.DBusCallFlags.NONE,
                         TIMEOUT_MS, None).unpack()[0]

def line(ident, brightness, on, can_power_off="", name=""):
    return "\t".join([str(ident), f"{brightness:.4f}", str(on).lower(), str(can_power_off).lower(), name]).rstrip()

def watch(path):
    def changed(_connection, _sender, _path, _interface, _signal, parameters):
        interface, values, _invalidated = parameters.unpack()
        if interface == INTERFACE and "Displays" in values:
            with open(path, "a") as out:
                out.write(json.dumps(values["Displays"]) + "\n")

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
        if answers["replies"] + answers["errors"] == count:
            loop.quit()

    for _ in range(count):
        bus.call(NAME, PATH, INTERFACE, method, arguments, None, Gio.DBusCallFlags.NONE, TIMEOUT_MS, None, answered)
    GLib.timeout_add(2 * TIMEOUT_MS, loop.quit)
    loop.run()
    print(f"{answers['replies']} replies, {answers['errors']} errors")

def members(root):
    interface = root.find(f"interface[@name='{INTERFACE}']")
    if interface is None:
        sys.exit(f"no {INTERFACE}")
    return sorted((m.tag, m.get("name"), m.get("type"), m.get("access"), tuple(
        (a.get("name"), a.get("type"), a.get("direction", "in") if m.tag == "method" else "") for a in m.findall("arg")))
        for m in interface if m.tag in ("method", "property", "signal"))

def main(command, *args):
    if command == "displays":
        for entry in get("org.freedesktop.DBus.Properties", "Get", GLib.Variant("(ss)", (INTERFACE, "Displays")), "(v)"):
            print(line(entry[0], entry[2], entry[3], entry[4], entry[1]))
    elif command == "watch":
        watch(args[0])
    elif command == "signal":
        signals = [json.loads(text) for text in open(args[0]) if text.strip()]
        entry = next((e for e in signals[int(args[1])] if e[0] == int(args[2])), None) or sys.exit("no such display")
        print(line(entry[0], entry[2], entry[3]).split("\t", 1)[1])
    elif command == "burst":
        burst(int(args[0]), args[1], int(args[2]), *args[3:])
    elif command == "same-interface":
        served = ElementTree.fromstring(get("org.freedesktop.DBus.Introspectable", "Introspect", None, "(s)"))
        installed = ElementTree.parse(args[0]).getroot()
        if members(served) != members(installed):
            sys.exit(f"served {members(served)}\ninstalled {members(installed)}")
    else:
        sys.exit(f"unknown command {command}")

if __name__ == "__main__":
    main(*sys.argv[1:])
