// SPDX-License-Identifier: GPL-3.0-or-later
// Lumora's GNOME Shell extension. GNOME Shell keeps the focused window and the pointer to itself; this extension
// answers Lumora over the session bus (org.lumora.Lumora.Shell on /org/lumora/Lumora/Shell) with the focused
// window's frame and the pointer, in the stage's coordinates (the logical layout of Mutter's display
// configuration), and shows Lumora's brightness changes in GNOME's own on-screen display.
//
// It also gives Lumora its button in the top bar. GNOME's AppIndicator extension opens an item's menu on a click
// and activates the item only on a double click, so a click there never opens Lumora's panel; Lumora registers its
// StatusNotifier item here instead when this extension runs, and the button calls the item's Activate on a left
// click (the panel hangs under the button) and shows the item's menu, read over DBusMenu, on a right click.
// SPDX-License-Identifier: GPL-3.0-or-later

const { Clutter, GdkPixbuf, Gio, GLib, GObject, Meta, St } = imports.gi;
const Main = imports.ui.main;
const PanelMenu = imports.ui.panelMenu;
const PopupMenu = imports.ui.popupMenu;

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
    <!-- The caller's StatusNotifier item (on /StatusNotifierItem, or the path given) as a button in the top bar,
         until the caller leaves the bus. -->
    <method name="RegisterStatusNotifierItem">
      <arg type="s" direction="in" name="service"/>
    </method>
  </interface>
</node>`;

const ITEM = 'org.kde.StatusNotifierItem';

// ARGB32 in network byte order, as StatusNotifier items send their pixmaps, to the RGBA a pixbuf takes.
function pixbufOf([width, height, argb]) {
    const rgba = new Uint8Array(argb.length);
    for (let i = 0; i + 3 < argb.length; i += 4)
        rgba.set([argb[i + 1], argb[i + 2], argb[i + 3], argb[i]], i);
    return GdkPixbuf.Pixbuf.new_from_bytes(new GLib.Bytes(rgba), GdkPixbuf.Colorspace.RGB, true, 8, width, height,
        width * 4);
}

const StatusButton = GObject.registerClass(
class StatusButton extends PanelMenu.Button {
    _init(owner, path) {
        super._init(0.5, 'Lumora');
        this._owner = owner;
        this._path = path;
        this._icon = new St.Icon({ style_class: 'system-status-icon' });
        this.add_child(this._icon);
        this._iconChanged = Gio.DBus.session.signal_subscribe(owner, ITEM, 'NewIcon', path, null,
            Gio.DBusSignalFlags.NONE, () => this._loadIcon());
        this._loadIcon();
        this._stageEvents = global.stage.connect('captured-event', this._dismissPanel.bind(this));
    }

    _call(path, iface, method, args, replyType, then) {
        Gio.DBus.session.call(this._owner, path, iface, method, args, replyType, Gio.DBusCallFlags.NONE, 5000, null,
            (bus, result) => {
                try {
                    const reply = bus.call_finish(result);
                    then?.(reply.recursiveUnpack());
                } catch (e) {
                    logError(e, 'Lumora');
                }
            });
    }

    _item(property, then) {
        this._call(this._path, 'org.freedesktop.DBus.Properties', 'Get', new GLib.Variant('(ss)', [ITEM, property]),
            new GLib.VariantType('(v)'), ([value]) => then(value));
    }

    // The pixmap closest to the top bar's icon size.
    _loadIcon() {
        this._item('IconPixmap', pixmaps => {
            const want = 16 * St.ThemeContext.get_for_stage(global.stage).scale_factor;
            const best = pixmaps.filter(p => p[0] > 0).sort((a, b) =>
                Math.abs(a[0] - want) - Math.abs(b[0] - want))[0];
            if (best)
                this._icon.gicon = pixbufOf(best);
        });
    }

    // The item's menu anew for every right click: its labels, which are enabled, its separators.
    _showMenu() {
        if (this.menu.isOpen) {
            this.menu.close();
            return;
        }
        this._item('Menu', menuPath => {
            this._call(menuPath, 'com.canonical.dbusmenu', 'GetLayout', new GLib.Variant('(iias)', [0, -1, []]),
                null, ([, [, , children]]) => {
                    this.menu.removeAll();
                    for (const [id, properties] of children) {
                        if (properties.visible === false)
                            continue;
                        if (properties.type === 'separator') {
                            this.menu.addMenuItem(new PopupMenu.PopupSeparatorMenuItem());
                            continue;
                        }
                        const entry = this.menu.addAction((properties.label ?? '').replace(/_(?!_)/g, ''), () =>
                            this._call(menuPath, 'com.canonical.dbusmenu', 'Event', new GLib.Variant('(isvu)',
                                [id, 'clicked', new GLib.Variant('i', 0), global.get_current_time()]), null));
                        entry.setSensitive(properties.enabled !== false);
                    }
                    this.menu.open();
                });
        });
    }

    // A startup token first, with the click's time: GNOME gives the keyboard to the panel that opens only with it.
    _activate(time) {
        const [x, y] = this.get_transformed_position();
        const [width, height] = this.get_transformed_size();
        const activate = () => this._call(this._path, ITEM, 'Activate',
            new GLib.Variant('(ii)', [Math.round(x + width / 2), Math.round(y + height)]), null);
        const context = global.create_app_launch_context(time, -1);
        const app = Gio.AppInfo.create_from_commandline('lumora', 'Lumora',
            Gio.AppInfoCreateFlags.SUPPORTS_STARTUP_NOTIFICATION);
        this._call(this._path, ITEM, 'ProvideXdgActivationToken',
            new GLib.Variant('(s)', [context.get_startup_notify_id(app, [])]), null, activate);
    }

    // Opens on the press, as the top bar's own buttons do. A left click activates the item under the button.
    vfunc_event(event) {
        if (event.type() !== Clutter.EventType.BUTTON_PRESS)
            return Clutter.EVENT_PROPAGATE;
        if (event.get_button() === Clutter.BUTTON_SECONDARY) {
            this._showMenu();
        } else {
            this.menu.close();
            this._activate(event.get_time());
        }
        return Clutter.EVENT_STOP;
    }

    // GNOME keeps the focus where it is on a click on its empty background, and Lumora's panel (an X11 window) did
    // not hear Escape here: on either, the panel is made to lose the focus, on which it closes.
    _dismissPanel(stage, event) {
        const panel = global.display.focus_window;
        if (panel?.get_wm_class_instance() !== 'lumora' || panel.window_type !== Meta.WindowType.UTILITY)
            return Clutter.EVENT_PROPAGATE;
        const type = event.type();
        const [x, y] = event.get_coords();
        const frame = panel.get_frame_rect();
        const outside = x < frame.x || y < frame.y || x >= frame.x + frame.width || y >= frame.y + frame.height;
        if ((type === Clutter.EventType.BUTTON_PRESS && outside && !this.contains(event.get_source())) ||
            (type === Clutter.EventType.KEY_PRESS && event.get_key_symbol() === Clutter.KEY_Escape)) {
            global.display.unset_input_focus(event.get_time());
            return type === Clutter.EventType.KEY_PRESS ? Clutter.EVENT_STOP : Clutter.EVENT_PROPAGATE;
        }
        return Clutter.EVENT_PROPAGATE;
    }

    _onDestroy() {
        global.stage.disconnect(this._stageEvents);
        Gio.DBus.session.signal_unsubscribe(this._iconChanged);
        super._onDestroy();
    }
});

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

    RegisterStatusNotifierItemAsync([service], invocation) {
        const owner = invocation.get_sender();
        if (this._button?._owner === owner) {
            invocation.return_value(null);
            return;
        }
        this.removeButton();
        this._button = new StatusButton(owner, service.startsWith('/') ? service : '/StatusNotifierItem');
        Main.panel.addToStatusArea('lumora', this._button);
        this._ownerWatch = Gio.bus_watch_name_on_connection(Gio.DBus.session, owner, Gio.BusNameWatcherFlags.NONE,
            null, () => this.removeButton());
        invocation.return_value(null);
    }

    removeButton() {
        if (this._ownerWatch)
            Gio.bus_unwatch_name(this._ownerWatch);
        this._button?.destroy();
        this._button = null;
        this._ownerWatch = 0;
    }
}

class Extension {
    enable() {
        this._shell = new LumoraShell();
        this._object = Gio.DBusExportedObject.wrapJSObject(INTERFACE, this._shell);
        this._object.export(Gio.DBus.session, OBJECT_PATH);
        this._owner = Gio.bus_own_name_on_connection(Gio.DBus.session, BUS_NAME, Gio.BusNameOwnerFlags.NONE,
            null, null);
    }

    disable() {
        Gio.bus_unown_name(this._owner);
        this._object.unexport();
        this._object = null;
        this._shell.removeButton();
        this._shell = null;
    }
}

function init() {
    return new Extension();
}
