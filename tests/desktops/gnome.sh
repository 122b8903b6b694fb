# SPDX-License-Identifier: GPL-3.0-or-later
# GNOME Shell 43 on virtual monitors: stock (no tray) as gnome; as gnome-appindicator as a user has it, the
# AppIndicator extension on and Lumora's installed system-wide but off, for Lumora to turn on at its first start (it
# then takes Lumora's item over as a top-bar button). Without logind the shell wants an empty /run/systemd (a mount
# namespace). A test extension turns on unsafe mode: Eval and Screenshot answer, Clutter's virtual devices point,
# click and type as the user's own do.
DESKTOP_NAME="GNOME Shell 43 (no tray)" DESKTOP_TOOLS="gnome-shell unshare gdbus gsettings xprop xwininfo"
[[ $DESKTOP == *appindicator ]] && DESKTOP_NAME="GNOME Shell 43 + AppIndicator"
OUTPUT_NAMES=(Meta-0 Meta-1)
GNOME_TEST_EXTENSION=lumora-tests@lumora.invalid

desktop_up()
{
    local work=$1 i monitors=() extensions="'$GNOME_TEST_EXTENSION'"
    local ext="$work/home/.local/share/gnome-shell/extensions/$GNOME_TEST_EXTENSION"
    for (( i = 0; i < OUTPUTS; i++ )); do monitors+=(--virtual-monitor 1280x800); done
    mkdir -p "$ext"
    echo "{\"uuid\": \"$GNOME_TEST_EXTENSION\", \"name\": \"Lumora tests\", \"description\": \"Unsafe mode\", \"shell-version\": [\"43\"]}" >"$ext/metadata.json"
    echo 'function init() { return { enable() { imports.ui.main.messageTray.bannerBlocked = true; global.context.unsafe_mode = true; }, disable() {} }; }' >"$ext/extension.js"
    if [[ $DESKTOP == *appindicator ]]; then
        mkdir -p "$work/share/gnome-shell/extensions"
        cp -r "$HERE/../../data/gnome-shell-extension/lumora@lumora.org" "$work/share/gnome-shell/extensions/"
        export XDG_DATA_DIRS="$work/share:${XDG_DATA_DIRS:-/usr/local/share:/usr/share}"
        extensions+=", 'ubuntu-appindicators@ubuntu.com'"
    fi
    chown -R "$DESKTOP_USER:" "$work/home"

    # A private system bus: the shell only needs one to be there.
    desktop_spawn "$work/system-bus.log" dbus-daemon --config-file=/usr/share/dbus-1/session.conf --nofork \
        --nopidfile --address="unix:path=$XDG_RUNTIME_DIR/system-bus"
    wait_until 10 test -S "$XDG_RUNTIME_DIR/system-bus" || { echo "desktop: no system bus" >&2; return 1; }
    export DBUS_SYSTEM_BUS_ADDRESS="unix:path=$XDG_RUNTIME_DIR/system-bus"
    desktop_bus || return 1
    as_user gsettings set org.gnome.shell enabled-extensions "[$extensions]" &&
        as_user gsettings set org.gnome.shell disable-extension-version-validation true ||
        { echo "desktop: cannot enable the extensions" >&2; return 1; }

    export XDG_SESSION_TYPE=wayland XDG_CURRENT_DESKTOP=GNOME
    SPAWN_WRAP=(unshare --mount --propagation private sh -c 'mount -t tmpfs none /run/systemd && exec "$@"' sh)
    desktop_spawn "$work/gnome-shell.log" gnome-shell --headless --wayland "${monitors[@]}"
    SPAWN_WRAP=()
    wait_until 60 gnome_eval 'true' >/dev/null || { echo "desktop: GNOME Shell did not come up in unsafe mode" >&2; return 1; }
    export WAYLAND_DISPLAY DISPLAY XAUTHORITY
    for i in WAYLAND_DISPLAY DISPLAY XAUTHORITY; do printf -v "$i" %s "$(gnome_eval "GLib.getenv('$i')")"; done
    [[ -n $DISPLAY && -n $WAYLAND_DISPLAY ]] || { echo "desktop: the shell names no displays" >&2; return 1; }
    desktop_wait_x 30 || { echo "desktop: XWayland does not answer on $DISPLAY" >&2; return 1; }
    if [[ $DESKTOP == *appindicator ]]; then
        wait_until 30 desktop_watcher || { echo "desktop: the AppIndicator extension is not on the bus" >&2; return 1; }
        gnome_lumora_extension 6 || { echo "desktop: Lumora's extension is not installed and off" >&2; return 1; }
        DESKTOP_TRAY=1
    fi
    # The overview the shell opens at its start would cover the desktop.
    gnome_eval 'Main.overview.hide(); true' >/dev/null
    wait_until 10 equals false gnome_eval "Main.overview.visible" || { echo "desktop: the overview stays" >&2; return 1; }
}
# desktop_items: the item Lumora's extension shows in the top bar (bus name and path), once the AppIndicator
# extension shows it no more (Lumora registers there before it has turned its extension on).
desktop_items() { ! watcher_property RegisteredStatusNotifierItems | grep -q "'" && gnome_eval "const b = Main.panel.statusArea.lumora; b ? b._owner + b._path : ''"; }
# gnome_lumora_extension STATE: Lumora's extension is in that state (1 on, 2 turned off, 6 installed and never on).
gnome_lumora_extension() { equals "$1" gnome_eval "Main.extensionManager.lookup('lumora@lumora.org')?.state ?? 0"; }

# gnome_eval JS: the value of JS in the shell, as a string; fails when the shell reports an error.
gnome_eval()
{
    local out
    out=$(session_dbus org.gnome.Shell /org/gnome/Shell org.gnome.Shell.Eval \
        "const { Clutter, GLib } = imports.gi; const Main = imports.ui.main; $1" 2>/dev/null) || return 1
    [[ $out == "(true, "* ]] || return 1
    out=${out#(true, \'}
    out=${out%\')}
    echo "${out//\"/}"
}

# Clutter's virtual devices, made once per shell and kept on the global object.
GNOME_DEVICE="Clutter.get_default_backend().get_default_seat().create_virtual_device(Clutter.InputDeviceType"
GNOME_POINTER="(global._lumoraPointer ??= $GNOME_DEVICE.POINTER_DEVICE))"
GNOME_KEYBOARD="(global._lumoraKeyboard ??= $GNOME_DEVICE.KEYBOARD_DEVICE))"
desktop_move() { gnome_eval "$GNOME_POINTER.notify_absolute_motion(GLib.get_monotonic_time(), $1, $2); true" >/dev/null; }
desktop_click()
{
    desktop_move "$1" "$2" &&
        gnome_eval "const p = $GNOME_POINTER; p.notify_button(GLib.get_monotonic_time(), ${3:-1}, Clutter.ButtonState.PRESSED);
                    p.notify_button(GLib.get_monotonic_time(), ${3:-1}, Clutter.ButtonState.RELEASED); true" >/dev/null
}
# desktop_key NAME: a key or a combination (alt+F4), by its Clutter name.
desktop_key()
{
    local keys=${1//alt/Alt_L}
    gnome_eval "const k = $GNOME_KEYBOARD; const t = GLib.get_monotonic_time(); const keys = '$keys'.split('+');
        keys.forEach(n => k.notify_keyval(t, Clutter['KEY_' + n], Clutter.KeyState.PRESSED));
        keys.reverse().forEach(n => k.notify_keyval(t, Clutter['KEY_' + n], Clutter.KeyState.RELEASED)); true" >/dev/null
}
desktop_screenshot() { rm -f "$SESSION_OUT/shot.png" && session_dbus org.gnome.Shell.Screenshot /org/gnome/Shell/Screenshot \
    org.gnome.Shell.Screenshot.Screenshot true false "$SESSION_OUT/shot.png" >/dev/null 2>&1 && cp "$SESSION_OUT/shot.png" "$1"; }

# The window the user works in (WINDOW, by its title): shown, moved onto output N and focused there, focused.
the_window() { echo "global.get_window_actors().map(a => a.meta_window).find(w => w.get_title() === '$WINDOW')"; }
window_shown() { equals true gnome_eval "!!$(the_window)"; }
# Onto the output and focused, asked until a try finds it there already (the shell may undo a first move while it
# still places a window just mapped).
window_moved_to()
{
    local x=$(( ($1 - 1) * 1280 + 200 ))
    equals "$x" gnome_eval "const w = $(the_window); const x = w.get_frame_rect().x;
        if (x !== $x) w.move_frame(true, $x, 200); w.activate(global.get_current_time()); x"
}
window_to() { wait_until 10 window_moved_to "$1"; }
window_focused() { equals "$WINDOW" gnome_eval "global.display.get_focus_window()?.get_title()"; }
# osd_shown N: GNOME's on-screen display (through Lumora's extension) is up on output N (one OSD window a monitor).
osd_shown() { equals $(( $1 - 1 )) gnome_eval "Main.osdWindowManager._osdWindows.findIndex(w => w.visible)"; }
