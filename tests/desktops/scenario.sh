#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-3.0-or-later
# scenario.sh DESKTOP LUMORA VIRTUAL_DESK ARTIFACT_DIR: the tray application on a real desktop, lumora on the
# virtual desk, driven with the desktop's pointer and keyboard and checked on screenshots: the icon in colour, the
# panel next to it on a click, closed by a click elsewhere, Escape and a second click, the right-click menu next to
# the icon and Quit from it, a second start showing the panel; without a tray, the panel as a window.
set -uo pipefail
EXTRA_TOOLS=xdotool
# shellcheck source=frame.sh
source "$(dirname "$0")/frame.sh"
stop_lumora()
{
    kill -0 "$APP_PID" 2>/dev/null && { kill -TERM "$APP_PID"; ended "$APP_PID" 10 || kill -KILL -- "-$APP_PID"; wait "$APP_PID"; } 2>/dev/null
}

# icon_box FILE: "x y width height" of the sun in the desktop's bars (the top 48 and the bottom 64 rows), found by
# its amber; fails when there is none (no icon, or one drawn without its colour).
icon_box()
{
    local top=$(( DESKTOP_HEIGHT - 64 ))
    { session_convert "$1" -crop "${DESKTOP_WIDTH}x48+0+0" +repage -depth 8 txt:- | sed 's/^/0 /'
      session_convert "$1" -crop "${DESKTOP_WIDTH}x64+0+$top" +repage -depth 8 txt:- | sed "s/^/$top /"; } 2>/dev/null |
        awk -F'[ ,:()]+' '$2 ~ /^#/ { next }
             { x = $2; y = $3 + $1; r = $4; g = $5; b = $6 }
             # Amber, also where the bar shows through its edges: green about two thirds of red, little blue (an
             # orange warning sign has less green and more blue).
             r >= 120 && g >= 0.58 * r && g <= 0.85 * r && b <= 0.2 * r {
                 n[x]++; if (!(x in y0) || y < y0[x]) y0[x] = y; if (y > y1[x]) y1[x] = y }
             # Of the clusters of amber columns (a warning sign is amber too), the sun has the most amber pixels.
             END {
                 for (x = 0; x <= '"$DESKTOP_WIDTH"' + 8; x++) if (x in n) {
                     if (!run || x - last > 6) { run = 1; from = x; count = 0; top = y0[x]; bottom = y1[x] }
                     count += n[x]; last = x; if (y0[x] < top) top = y0[x]; if (y1[x] > bottom) bottom = y1[x]
                     if (count > best) { best = count; box = from " " top " " (x - from + 1) " " (bottom - top + 1) }
                 }
                 if (best < 12) exit 1; print box }'
}
icon_seen() { desktop_screenshot "$WORK/seen.png" && read -r IX IY IW IH < <(icon_box "$WORK/seen.png"); }
items_registered() { [[ -n $(desktop_items) ]]; }
# near A_X A_Y A_W A_H B_X B_Y B_W B_H: the two rectangles are at most 48 pixels apart.
near() { (( $5 - $1 - $3 <= 48 && $1 - $5 - $7 <= 48 && $6 - $2 - $4 <= 48 && $2 - $6 - $8 <= 48 )); }

# changed_box BEFORE AFTER: "x y width height" of the largest region that changed between two screenshots (a menu
# that opened, not a clock that ticked or a button the pointer lit up); fails when nothing did.
changed_box()
{
    session_convert "$1" "$2" -alpha off -compose difference -composite -colorspace gray -threshold 8% \
        -morphology Dilate Square:2 -define connected-components:verbose=true \
        -define connected-components:area-threshold=200 -connected-components 8 null: 2>/dev/null |
        awk '$NF ~ /^graya?\(255/ { split($2, p, /[x+]/); print $(NF - 1), p[3], p[4], p[1], p[2]; n++ } END { exit !n }' |
        sort -rn | head -1 | cut -d' ' -f2-
    [[ ${PIPESTATUS[1]} == 0 ]]
}
menu_open() { desktop_screenshot "$WORK/menu.png" && MENU=$(changed_box "$WORK/before-menu.png" "$WORK/menu.png") &&
    read -r _ _ w h <<<"$MENU" && (( w >= 60 && h >= 40 )); }

# has_menu_item LABEL: the item's exported menu (DBusMenu) has an entry so labelled.
has_menu_item()
{
    local item path=/StatusNotifierItem menu
    item=$(desktop_items | head -1)
    [[ $item == */* ]] && { path=/${item#*/}; item=${item%%/*}; }
    menu=$(session_dbus "$item" "$path" org.freedesktop.DBus.Properties.Get org.kde.StatusNotifierItem Menu 2>/dev/null |
        grep -o "objectpath '[^']*'" | cut -d"'" -f2)
    [[ -n $menu && $menu != /NO_DBUSMENU ]] && session_dbus "$item" "$menu" com.canonical.dbusmenu.GetLayout \
        -- 0 -1 '@as []' 2>/dev/null | grep -qF "'label': <'$1'>"
}

painted() { desktop_screenshot "$WORK/painted.png" && [[ -n $(read -r x y w h < <(panel_geometry) && slider_rows "$WORK/painted.png" "$x" "$y" "$h") ]]; }
click_icon() { desktop_click $(( IX + IW / 2 )) $(( IY + IH / 2 )) "${1:-1}"; }
click_desktop() { desktop_click $(( DESKTOP_WIDTH / 2 )) $(( DESKTOP_HEIGHT / 2 )); }
opened() { click_icon; wait_until 10 panel_shown || { fail "no panel after a click on the icon"; return 1; }; }
# closed_again: what a check left open (the panel, or a host's own menu) closed, with a person's pause around it:
# the next click is no double click, nor the one a host delivers late that took the panel's focus.
closed_again()
{
    sleep 1
    if ! panel_shown; then desktop_key Escape; click_desktop
    else click_icon; wait_until 10 panel_hidden || fail "the panel stays open after one more click on the icon"; fi
    sleep 1
}

step "desktop: $DESKTOP_NAME"
started=$(now_ms)
desktop_start "$WORK" 1 || abort "the desktop did not start"
pass "started in $(( $(now_ms) - started )) ms; X clients on $DISPLAY"

if (( ! DESKTOP_TRAY )); then
    step "no tray: the panel is a window titled Lumora"
    lumora_window() { lumora_window_named Lumora managed >/dev/null; }; window_gone() { ! lumora_window; }
    started=$(now_ms)
    start_lumora window -- "$LUMORA"
    wait_until 30 lumora_window || { shot 01-no-window; abort "no window titled Lumora"; }
    figure "start -> window mapped: $(( $(now_ms) - started )) ms"
    shot 01-window
    desktop_key alt+F4
    check "closed as a window is closed (Alt+F4)" wait_until 10 window_gone
    RUN_LOG="$WORK/lumora-second.log" desktop_run "$LUMORA"
    check "a second start shows it again" wait_until 20 lumora_window
    finish
fi

step "lumora's sun in the tray"
started=$(now_ms)
start_lumora first -- "$LUMORA"
wait_until 30 items_registered && figure "start -> item registered with the host: $(( $(now_ms) - started )) ms"
# GNOME as a user has it after installing the package: Lumora's extension there, off until Lumora's first start.
[[ $DESKTOP == gnome-appindicator ]] && check "lumora turned its GNOME Shell extension on" wait_until 10 gnome_lumora_extension 1
wait_until 30 icon_seen || { cp "$WORK/seen.png" "$ARTIFACTS/01-no-colour.png"
    abort "no amber sun in the desktop's bars: no icon, or one drawn without its colour ($ARTIFACTS/01-no-colour.png)"; }
pass "the sun is in the tray, in colour, at $IX,$IY ${IW}x$IH ($(( $(now_ms) - started )) ms after the start)"
shot 01-icon

step "a click on the icon opens the panel next to it"
clicked=$(now_ms)
if opened; then
    figure "click -> panel mapped: $(( $(now_ms) - clicked )) ms"
    wait_until 10 painted && figure "click -> panel painted: $(( $(now_ms) - clicked )) ms"
    read -r PX PY PW PH < <(panel_geometry)
    check "the panel ($PX,$PY ${PW}x$PH) is next to the icon ($IX,$IY)" near "$PX" "$PY" "$PW" "$PH" "$IX" "$IY" "$IW" "$IH"
    shot 02-panel-open
else
    shot 02-no-panel
fi
# How the open panel is closed, each from a panel opened afresh (the first is still open).
for closer in "click_desktop:a click on the desktop" "desktop_key Escape:Escape" "sleep 1; click_icon:a second click on the icon"; do
    step "${closer#*:} closes it"
    { panel_shown || opened; } && { eval "${closer%%:*}"; check "closed by ${closer#*:}" wait_until 10 panel_hidden; }
    closed_again
done

step "the right-click menu: About Lumora, Check for Updates…, Quit Lumora, next to the icon; Quit quits"
for label in "About Lumora" "Check for Updates…" "Quit Lumora"; do
    check "the item exports \"$label\" over DBusMenu" has_menu_item "$label"
done
desktop_move $(( IX + IW / 2 )) $(( IY + IH / 2 ))
sleep 1   # the host's hover effects settle before the screenshot the menu is told from
desktop_screenshot "$WORK/before-menu.png"
click_icon 3
if wait_until 10 menu_open; then
    read -r NX NY NW NH <<<"$MENU"
    check "a menu opened next to the icon ($NX,$NY ${NW}x$NH)" near "$NX" "$NY" "$NW" "$NH" "$IX" "$IY" "$IW" "$IH"
    check "the right click did not open the panel" panel_hidden
    shot 03-menu
    desktop_click $(( NX + NW / 2 )) $(( NY + NH - 16 ))   # "Quit Lumora", the last item
    check "Quit Lumora from it ends lumora with status 0" eval 'ended "$APP_PID" 10 && wait "$APP_PID"'
else
    fail "no menu on a right click on the icon"
    cp "$WORK/before-menu.png" "$ARTIFACTS/03-before-right-click.png"; shot 03-no-menu
    desktop_key Escape   # whatever menu the host showed instead
fi
stop_lumora

step "a second start shows the panel of the first"
# A user who turns the extension off keeps it off: Lumora turns it on at its first start only.
[[ $DESKTOP == gnome-appindicator ]] && as_user gnome-extensions disable lumora@lumora.org
start_lumora again -- "$LUMORA"
wait_until 30 icon_seen || abort "no icon after the start again"
RUN_LOG="$WORK/lumora-second.log" desktop_run "$LUMORA"
check "the panel is shown" wait_until 20 panel_shown
check "the second lumora ended" ended "$SPAWNED" 20
[[ $DESKTOP == gnome-appindicator ]] && check "its GNOME Shell extension stays off" gnome_lumora_extension 2
shot 04-second-start
stop_lumora
finish
