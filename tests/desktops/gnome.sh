# SPDX-License-Identifier: GPL-3.0-or-later
# GNOME Shell 43, headless, on virtual monitors, X clients through XWayland (see desktop.sh): stock (no tray) as
# gnome; as gnome-appindicator as a user has it: the AppIndicator extension on and Lumora's installed where the
# package puts it (a system data directory) but off, for Lumora to turn on at its first start; it then takes
# Lumora's item from the AppIndicator extension as a top-bar button of its own. The shell wants a system bus and,
# without logind, a mount namespace with an empty /run/systemd (it then uses its stand-in login manager). A test
# extension turns on unsafe mode, so that Eval and Screenshot answer: Clutter's virtual devices, made through Eval,
# point, click and type as the user's own do.

desktop_name() { [[ $DESKTOP == *appindicator ]] && echo "GNOME Shell 43 + AppIndicator" || echo "GNOME Shell 43 (no tray)"; }
desktop_tools() { echo gnome-shell unshare gdbus gsettings xprop xwininfo; }

GNOME_TEST_EXTENSION=lumora-tests@lumora.invalid
GNOME_APPINDICATOR=ubuntu-appindicators@ubuntu.com

desktop_start()
{
    local work=$1 outputs=${2:-1} i monitors=() extensions="'$GNOME_TEST_EXTENSION'"
    desktop_prepare "$work" || return 1
    DESKTOP_WIDTH=$(( 1280 * outputs ))
    for (( i = 0; i < outputs; i++ )); do monitors+=(--virtual-monitor 1280x800); done
    local ext="$work/home/.local/share/gnome-shell/extensions/$GNOME_TEST_EXTENSION"
    mkdir -p "$ext"
    echo "{\"uuid\": \"$GNOME_TEST_EXTENSION\", \"name\": \"Lumora tests\", \"description\": \"Unsafe mode for tests\",
           \"shell-version\": [\"43\"]}" >"$ext/metadata.json"
    echo 'function init() { return { enable() { imports.ui.main.messageTray.bannerBlocked = true; global.context.unsafe_mode = true; }, disable() {} }; }' >"$ext/extension.js"
    if [[ $DESKTOP == *appindicator ]]; then
        mkdir -p "$work/share/gnome-shell/extensions"
        cp -r "$DESKTOP_DIR/../../data/gnome-shell-extension/lumora@lumora.org" "$work/share/gnome-shell/extensions/"
        export XDG_DATA_DIRS="$work/share:${XDG_DATA_DIRS:-/usr/local/share:/usr/share}"
        extensions+=", '$GNOME_APPINDICATOR'"
    fi
    chown -R "$DESKTOP_USER:" "$work/home"

    # The system bus: a private one, as the shell only needs one to be there.
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
    WAYLAND_DISPLAY=$(gnome_eval "GLib.getenv('WAYLAND_DISPLAY')")
    DISPLAY=$(gnome_eval "GLib.getenv('DISPLAY')")
    XAUTHORITY=$(gnome_eval "GLib.getenv('XAUTHORITY')")
    [[ -n $DISPLAY && -n $WAYLAND_DISPLAY ]] || { echo "desktop: the shell names no displays" >&2; return 1; }
    desktop_wait_x 30 || { echo "desktop: XWayland does not answer on $DISPLAY" >&2; return 1; }
    if [[ $DESKTOP == *appindicator ]]; then
        wait_until 30 desktop_watcher || { echo "desktop: the AppIndicator extension is not on the bus" >&2; return 1; }
        gnome_lumora_extension 6 || { echo "desktop: Lumora's extension is not installed and off" >&2; return 1; }
        DESKTOP_TRAY=1
    fi
    # The overview the shell opens at its start would cover the desktop.
    gnome_eval 'Main.overview.hide(); true' >/dev/null
    wait_until 10 gnome_overview_hidden || { echo "desktop: the overview stays" >&2; return 1; }
}
# desktop_items: the item Lumora's extension shows in the top bar (bus name and path), as desktop.sh names one, once
# the AppIndicator extension shows it no more (Lumora registers there before it has turned its extension on).
desktop_items() { [[ -z $(watcher_items) ]] && gnome_eval "const b = Main.panel.statusArea.lumora; b ? b._owner + b._path : ''"; }
# gnome_lumora_extension STATE: Lumora's extension is in that state (1 on, 2 turned off, 6 installed and never on).
gnome_lumora_extension() { [[ $(gnome_eval "Main.extensionManager.lookup('lumora@lumora.org')?.state ?? 0") == "$1" ]]; }
gnome_overview_hidden() { [[ $(gnome_eval "Main.overview.visible") == false ]]; }

# gnome_eval JS: the value of JS in the shell, as a string; fails when the shell reports an error.
gnome_eval()
{
    local out
    out=$(as_user gdbus call --session --dest org.gnome.Shell --object-path /org/gnome/Shell \
        --method org.gnome.Shell.Eval "const { Clutter, GLib } = imports.gi; const Main = imports.ui.main; $1" \
        2>/dev/null) || return 1
    [[ $out == "(true, "* ]] || return 1
    out=${out#(true, \'}
    out=${out%\')}
    echo "${out//\"/}"
}

# Clutter's virtual devices, made once per shell and kept on the global object.
GNOME_POINTER="(global._lumoraPointer ??= Clutter.get_default_backend().get_default_seat().create_virtual_device(Clutter.InputDeviceType.POINTER_DEVICE))"
GNOME_KEYBOARD="(global._lumoraKeyboard ??= Clutter.get_default_backend().get_default_seat().create_virtual_device(Clutter.InputDeviceType.KEYBOARD_DEVICE))"

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
    local keys k down="" up=""
    keys=${1//alt/Alt_L}
    for k in ${keys//+/ }; do
        down+=" k.notify_keyval(t, Clutter.KEY_$k, Clutter.KeyState.PRESSED);"
        up=" k.notify_keyval(t, Clutter.KEY_$k, Clutter.KeyState.RELEASED);$up"
    done
    gnome_eval "const k = $GNOME_KEYBOARD; const t = GLib.get_monotonic_time(); $down $up true" >/dev/null
}
desktop_screenshot()
{
    rm -f "$SESSION_OUT/shot.png" && as_user gdbus call --session --dest org.gnome.Shell.Screenshot --object-path \
        /org/gnome/Shell/Screenshot --method org.gnome.Shell.Screenshot.Screenshot true false "$SESSION_OUT/shot.png" \
        >/dev/null 2>&1 && cp "$SESSION_OUT/shot.png" "$1"
}
