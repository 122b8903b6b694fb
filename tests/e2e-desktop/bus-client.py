#!/usr/bin/python3
# A client of Lumora's session bus interface for the end-to-end test, for what gdbus cannot do from a shell: read
# the Displays property as values, record PropertiesChanged, send many calls without waiting for each reply, and
# compare the served interface with the installed introspection file. Every wait is bounded.
#
#   bus-client.py displays                    one line per display: id, brightness (4 decimals), on, canPowerOff,
#                                             name; tab-separated, in the property's order
#   bus-client.py watch FILE                  appends the Displays list of every PropertiesChanged to FILE as a JSON
#                                             line; FILE.ready appears once it listens; runs until killed
#   bus-client.py signal FILE INDEX ID        brightness (4 decimals) and on of display ID in signal INDEX of FILE
#                                             (-1: the last)
#   bus-client.py burst COUNT METHOD ID [D]   COUNT METHOD(ID[, D]) calls (Step, TogglePower) sent at once on one
#                                             connection; prints the number of replies and of errors once every
#                                             call is answered
#   bus-client.py same-interface FILE         exit 0 when the served org.lumora.Lumora1 has the methods, arguments
#                                             and properties of the introspection file FILE; else says what differs
import json
import sys
import xml.etree.ElementTree as ElementTree

from gi.repository import Gio, GLib

NAME = "org.lumora.Lumora"
PATH = "/org/lumora/Lumora"
INTERFACE = "org.lumora.Lumora1"
TIMEOUT_MS = 10000


def bus():
    return Gio.bus_get_sync(Gio.BusType.SESSION, None)


def displays():
    reply = bus().call_sync(NAME, PATH, "org.freedesktop.DBus.Properties", "Get",
                            GLib.Variant("(ss)", (INTERFACE, "Displays")), GLib.VariantType("(v)"),
                            Gio.DBusCallFlags.NONE, TIMEOUT_MS, None)
    for ident, name, brightness, on, can_power_off in reply.unpack()[0]:
        print(f"{ident}\t{brightness:.4f}\t{str(on).lower()}\t{str(can_power_off).lower()}\t{name}")


def watch(path):
    connection = bus()

    def changed(_connection, _sender, _path, _interface, _signal, parameters):
        interface, values, _invalidated = parameters.unpack()
        if interface == INTERFACE and "Displays" in values:
            with open(path, "a") as out:
                out.write(json.dumps(values["Displays"]) + "\n")

    connection.signal_subscribe(NAME, "org.freedesktop.DBus.Properties", "PropertiesChanged", PATH, None,
                                Gio.DBusSignalFlags.NONE, changed)
    # A round trip to the bus: the match rule is in place once it returns.
    connection.call_sync("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "GetId", None,
                         None, Gio.DBusCallFlags.NONE, TIMEOUT_MS, None)
    with open(path + ".ready", "w") as ready:
        ready.write("ready\n")
    GLib.MainLoop().run()


def signal(path, index, ident):
    with open(path) as lines:
        signals = [json.loads(line) for line in lines if line.strip()]
    for entry in signals[index]:
        if entry[0] == ident:
            print(f"{entry[2]:.4f}\t{str(entry[3]).lower()}")
            return
    sys.exit(f"no display {ident} in signal {index}")


def burst(count, method, ident, delta=None):
    arguments = GLib.Variant("(u)", (ident,)) if delta is None else GLib.Variant("(ud)", (ident, delta))
    connection = bus()
    loop = GLib.MainLoop()
    answers = {"replies": 0, "errors": 0}

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
        connection.call(NAME, PATH, INTERFACE, method, arguments, None,
                        Gio.DBusCallFlags.NONE, TIMEOUT_MS, None, answered)
    GLib.timeout_add(2 * TIMEOUT_MS, loop.quit)
    loop.run()
    print(f"{answers['replies']} replies, {answers['errors']} errors")


def members(interface):
    described = []
    for method in interface.findall("method"):
        args = [(a.get("name"), a.get("type"), a.get("direction", "in")) for a in method.findall("arg")]
        described.append(("method", method.get("name"), tuple(args)))
    for prop in interface.findall("property"):
        described.append(("property", prop.get("name"), (prop.get("type"), prop.get("access"))))
    for sig in interface.findall("signal"):
        described.append(("signal", sig.get("name"), tuple((a.get("name"), a.get("type")) for a in sig.findall("arg"))))
    return sorted(described)


def same_interface(path):
    reply = bus().call_sync(NAME, PATH, "org.freedesktop.DBus.Introspectable", "Introspect", None,
                            GLib.VariantType("(s)"), Gio.DBusCallFlags.NONE, TIMEOUT_MS, None)
    served = ElementTree.fromstring(reply.unpack()[0]).find(f"interface[@name='{INTERFACE}']")
    installed = ElementTree.parse(path).getroot().find(f"interface[@name='{INTERFACE}']")
    if served is None or installed is None:
        sys.exit(f"{INTERFACE} missing: served {served is not None}, installed {installed is not None}")
    if members(served) != members(installed):
        sys.exit(f"served {members(served)}\ninstalled {members(installed)}")


def main(args):
    command = args[0]
    if command == "displays":
        displays()
    elif command == "watch":
        watch(args[1])
    elif command == "signal":
        signal(args[1], int(args[2]), int(args[3]))
    elif command == "burst":
        burst(int(args[1]), args[2], int(args[3]), float(args[4]) if len(args) > 4 else None)
    elif command == "same-interface":
        same_interface(args[1])
    else:
        sys.exit(f"unknown command {command}")


if __name__ == "__main__":
    main(sys.argv[1:])
