// Lumora's GNOME Shell extension. GNOME Shell keeps the focused window and the pointer to itself; this extension
// answers Lumora over the session bus (org.lumora.Lumora.Shell on /org/lumora/Lumora/Shell) with the focused
// window's frame and the pointer, in the stage's coordinates (the logical layout of Mutter's display
// configuration), and shows Lumora's brightness changes in GNOME's own on-screen display.
// SPDX-License-Identifier: GPL-3.0-or-later

const { Gio, GLib } = imports.gi;
const Main = imports.ui.main;

const BUS_NAME = 'org.lumora.Lumora.Shell';
const OBJECT_PATH = '/org/lumora/Lumora/Shell';
const INTERFACE = `
<node>
  <interface name="org.lumora.Lumora.Shell">
    <!-- The focused window's frame (hasWindow false: none) and the pointer, in the stage's coordinates. -->
    <method name="Where">
      <arg type="b" direction="out" name="hasWindow"/>
      <arg type="d" direction="out" name="x"/>
      <arg type="d" direction="out" name="y"/>
      <arg type="d" direction="out" name="width"/>
      <arg type="d" direction="out" name="height"/>
      <arg type="d" direction="out" name="pointerX"/>
      <arg type="d" direction="out" name="pointerY"/>
    </method>
    <!-- GNOME's on-screen display on the monitor of that connector: an icon name, a label, a level of 0 to 1. -->
    <method name="ShowOSD">
      <arg type="s" direction="in" name="connector"/>
      <arg type="s" direction="in" name="icon"/>
      <arg type="s" direction="in" name="label"/>
      <arg type="d" direction="in" name="level"/>
    </method>
  </interface>
</node>`;

class LumoraShell {
    Where() {
        const window = global.display.get_focus_window();
        const [pointerX, pointerY] = global.get_pointer();
        if (window === null)
            return [false, 0, 0, 0, 0, pointerX, pointerY];
        const frame = window.get_frame_rect();
        return [true, frame.x, frame.y, frame.width, frame.height, pointerX, pointerY];
    }

    ShowOSD(connector, icon, label, level) {
        const monitors = global.backend.get_monitor_manager();
        let index = monitors.get_monitor_for_connector(connector);
        if (index < 0)
            index = -1;  // not shown by GNOME: on every monitor
        Main.osdWindowManager.show(index, Gio.ThemedIcon.new(icon), label, level, 1);
    }
}

class Extension {
    enable() {
        this._object = Gio.DBusExportedObject.wrapJSObject(INTERFACE, new LumoraShell());
        this._object.export(Gio.DBus.session, OBJECT_PATH);
        this._owner = Gio.bus_own_name_on_connection(Gio.DBus.session, BUS_NAME, Gio.BusNameOwnerFlags.NONE,
            null, null);
    }

    disable() {
        Gio.bus_unown_name(this._owner);
        this._object.unexport();
        this._object = null;
    }
}

function init() {
    return new Extension();
}
