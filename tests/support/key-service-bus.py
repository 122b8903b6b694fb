#!/usr/bin/python3
# SPDX-License-Identifier: GPL-3.0-or-later
"""A system bus for the key service's tests, benchmarks and end-to-end runs.

    key-service-bus.py DIR LUMORA_KEYS POLICY [--idle-exit SECONDS] [--refuse]

A private dbus-daemon on DIR/bus with the system bus's rules and the package's POLICY, python-dbusmock's logind (seat0,
active session c1 of user 1000; GetSessionByPID answers c1 unless PlaceProcess(pid, session) said otherwise) and
polkitd (org.lumora.keys.attach allowed unless --refuse), and LUMORA_KEYS activatable as org.lumora.Keys, only on a
virtual desk (UMOCKDEV_DIR). Prints the bus address once all is up (and makes DIR/ready) and serves until terminated;
its children die with it.
"""
import ctypes
import os
import signal
import subprocess
import sys
import time

import dbus

def dies_with_us():
    ctypes.CDLL(None, use_errno=True).prctl(1, signal.SIGKILL)  # PR_SET_PDEATHSIG


def main():
    args = sys.argv[1:]
    work, keys, policy = args[:3] if len(args) >= 3 else sys.exit(__doc__)
    idle = args[args.index("--idle-exit") + 1] if "--idle-exit" in args else "0.5"
    os.makedirs(work + "/services", exist_ok=True)
    with open(work + "/services/org.lumora.Keys.service", "w") as f:
        f.write("[D-BUS Service]\nName=org.lumora.Keys\n"
                f"Exec=/bin/sh -c 'test -n \"$UMOCKDEV_DIR\" && exec {keys} --idle-exit {idle}'\n")
    with open(work + "/bus.conf", "w") as f:
        f.write(f"""<busconfig><listen>unix:path={work}/bus</listen><auth>EXTERNAL</auth>
<servicedir>{work}/services</servicedir>
<policy context="default"><deny own="*"/><deny send_type="method_call"/><allow send_type="signal"/>
 <allow send_requested_reply="true" send_type="method_return"/><allow send_requested_reply="true" send_type="error"/>
 <allow receive_type="method_call"/><allow receive_type="method_return"/><allow receive_type="error"/><allow receive_type="signal"/>
 <allow send_destination="org.freedesktop.DBus" send_interface="org.freedesktop.DBus"/>
 <allow send_destination="org.freedesktop.DBus" send_interface="org.freedesktop.DBus.Introspectable"/>
 <allow send_destination="org.freedesktop.DBus" send_interface="org.freedesktop.DBus.Properties"/></policy>
<policy user="root"><allow own="org.freedesktop.login1"/><allow own="org.freedesktop.PolicyKit1"/>
 <allow send_destination="org.freedesktop.login1"/><allow send_destination="org.freedesktop.PolicyKit1"/></policy>
<include>{policy}</include></busconfig>
""")
    address = f"unix:path={work}/bus"
    os.environ["DBUS_SYSTEM_BUS_ADDRESS"] = address
    # Nothing of theirs goes to our standard output, which the caller may stop reading once the address is out.
    children = [subprocess.Popen(["dbus-daemon", "--nofork", "--config-file=" + work + "/bus.conf"],
                                 stdout=subprocess.DEVNULL, preexec_fn=dies_with_us)]
    deadline = time.monotonic() + 30
    while not os.path.exists(work + "/bus"):
        if time.monotonic() > deadline or children[0].poll() is not None:
            sys.exit("key-service-bus: the bus did not come up")
        time.sleep(0.02)
    for template in ("logind", "polkitd"):
        children.append(subprocess.Popen([sys.executable, "-m", "dbusmock", "--system", "--template", template],
                                         stdout=subprocess.DEVNULL, preexec_fn=dies_with_us))
    bus = dbus.SystemBus()
    for name in ("org.freedesktop.login1", "org.freedesktop.PolicyKit1"):
        while not bus.name_has_owner(name):
            if time.monotonic() > deadline:
                sys.exit("key-service-bus: no " + name)
            time.sleep(0.02)
    mock = "org.freedesktop.DBus.Mock"
    login = bus.get_object("org.freedesktop.login1", "/org/freedesktop/login1")
    login.AddSession("c1", "seat0", dbus.UInt32(1000), "user", True, dbus_interface=mock)
    login.AddMethod("org.freedesktop.login1.Manager", "GetSessionByPID", "u", "o",
                    "ret = dbus.ObjectPath('/org/freedesktop/login1/session/' + "
                    "self.__dict__.get('placed', {}).get(int(args[0]), 'c1'))", dbus_interface=mock)
    login.AddMethod("org.freedesktop.login1.Manager", "PlaceProcess", "us", "",
                    "self.__dict__.setdefault('placed', {})[int(args[0])] = args[1]", dbus_interface=mock)
    bus.get_object("org.freedesktop.PolicyKit1", "/org/freedesktop/PolicyKit1/Authority").SetAllowed(
        dbus.Array([] if "--refuse" in args else ["org.lumora.keys.attach"], signature="s"), dbus_interface=mock)
    open(work + "/ready", "w").close()
    try:
        print(address, flush=True)
    except BrokenPipeError:  # the caller stopped reading early: it finds DIR/ready instead
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
    while all(child.poll() is None for child in children):
        time.sleep(0.5)
    sys.exit("key-service-bus: " + " ".join(f"{c.args[0]}={c.returncode}" for c in children))


main()
