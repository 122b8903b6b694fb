#!/usr/bin/env bash
# The tray application on a real desktop started headless: the unmodified lumora on the virtual desk's emulated
# monitors, driven with that desktop's own pointer and keyboard, checked through what the user gets: the icon in
# the desktop's tray (in colour: screenshot pixels), the panel opening next to it on a click and closing on a click
# elsewhere, on Escape and on a second click on the icon, the right-click menu next to the icon with its three
# items, Quit from it, a second start showing the panel; without a tray, the panel as a window that closes as a
# window does. Prints the time from the start to the icon and from a click to the painted panel.
#
#   scenario.sh DESKTOP LUMORA VIRTUAL_DESK ARTIFACT_DIR
#
# DESKTOP names a desktop file here (sway, gnome, gnome-appindicator, kde, xfce). Needs root (the desktops run
# as a test user made for them). Exit status: 0 passed, 1 failed, 77 skipped (desktop not installed, or not root).
# Screenshots and logs stay in ARTIFACT_DIR.
set -uo pipefail

DESKTOP=$1
LUMORA=$(realpath "$2")
VIRTUAL_DESK=$(realpath "$3")
ARTIFACTS=$4
HERE=$(cd "$(dirname "$0")" && pwd)
# shellcheck source=desktop.sh
source "$HERE/desktop.sh"
# shellcheck source=sway.sh
source "$HERE/${DESKTOP%%-*}.sh"

if (( EUID != 0 )); then echo "SKIP: the desktops run as a test user that only root can switch to"; exit 77; fi
for tool in $(desktop_tools) setpriv setsid xdotool; do
    command -v "$tool" >/dev/null 2>&1 ||
        { echo "SKIP: $tool is missing (scripts/install-desktop-deps.sh installs it)"; exit 77; }
done

rm -rf "$ARTIFACTS"
mkdir -p "$ARTIFACTS"
WORK=$(mktemp -d "${TMPDIR:-/tmp}/lumora-desktop.XXXXXX")
FAILURES=0
APP_PID=""
cleanup()
{
    desktop_stop
    cp "$WORK"/*.log "$WORK"/user/*.log "$ARTIFACTS/" 2>/dev/null
    rm -rf "$WORK"
}
trap cleanup EXIT
trap 'exit 1' INT TERM

step() { echo "== $*"; }
pass() { echo "   ok: $*"; }
fail() { echo "   FAIL: $*"; FAILURES=$((FAILURES + 1)); }
check() { local what=$1; shift; if "$@"; then pass "$what"; else fail "$what"; fi; }
figure() { echo "   figure: $*"; }
shot() { desktop_screenshot "$ARTIFACTS/$1.png" && echo "   screenshot: $ARTIFACTS/$1.png"; }
finish()
{
    echo
    if (( FAILURES == 0 )); then echo "1 passed, 0 failed"; exit 0; fi
    echo "0 passed, 1 failed ($FAILURES checks failed)"
    exit 1
}
abort() { fail "$*"; shot zz-abort; finish; }

# start_lumora: lumora on the virtual desk, in the session as the user starts it, as APP_PID.
start_lumora()
{
    rm -f "$SESSION_OUT/control"
    RUN_LOG="$WORK/lumora-$1.log" desktop_run "$VIRTUAL_DESK" --control "$SESSION_OUT/control" -- "$LUMORA"
    APP_PID=$SPAWNED
}
# stop_lumora: lumora ended, if it still runs.
stop_lumora()
{
    running "$APP_PID" || return 0
    kill -TERM "$APP_PID" 2>/dev/null
    wait_until 10 bash -c '! kill -0 "$0" 2>/dev/null' "$APP_PID" || kill -KILL -- "-$APP_PID" 2>/dev/null
    wait "$APP_PID" 2>/dev/null
}
# ended_well: lumora ends within 10 s, with status 0.
ended_well()
{
    wait_until 10 bash -c '! kill -0 "$0" 2>/dev/null' "$APP_PID" || return 1
    wait "$APP_PID"
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
             # Amber, also where the colour of the bar shows through its edges: red strong, green about two thirds
             # of it, little blue (an orange warning sign has less green and more blue).
             r >= 120 && g >= 0.58 * r && g <= 0.85 * r && b <= 0.2 * r {
                 n[x]++; if (!(x in y0) || y < y0[x]) y0[x] = y; if (!(x in y1) || y > y1[x]) y1[x] = y }
             # The amber columns fall into clusters (other amber marks in a bar: a warning sign); the sun is the
             # cluster with the most amber pixels.
             END {
                 for (x = 0; x <= '"$DESKTOP_WIDTH"' + 8; x++) {
                     if (x in n) {
                         if (!run || x - last > 6) { run = 1; from = x; count = 0; top = y0[x]; bottom = y1[x] }
                         count += n[x]; last = x
                         if (y0[x] < top) top = y0[x]; if (y1[x] > bottom) bottom = y1[x]
                         if (count > best) { best = count; box = from " " top " " (x - from + 1) " " (bottom - top + 1) }
                     }
                 }
                 if (best < 12) exit 1
                 print box
             }'
}
# icon_seen: the sun is on the screen now, at IX IY IW IH.
icon_seen()
{
    local box
    desktop_screenshot "$WORK/seen.png" && box=$(icon_box "$WORK/seen.png") && read -r IX IY IW IH <<<"$box"
}
running() { kill -0 "$1" 2>/dev/null; }
# icon_added: what the start of lumora added to the bars (since WORK/before.png, in WORK/seen.png), at IX IY IW IH:
# of the icon-sized changes there, the leftmost (a tray grows to the left, and the icons right of the new one only
# moved).
icon_added()
{
    local box
    box=$(changed_boxes "$WORK/before.png" "$WORK/seen.png" |
          awk -v h="$DESKTOP_HEIGHT" '$3 <= 64 && $4 <= 64 && ($2 < 48 || $2 > h - 64)' | sort -n | head -1)
    [[ -n $box ]] && read -r IX IY IW IH <<<"$box"
}
# screen_still: two screenshots a moment apart differ in a few pixels at most (a clock may tick).
screen_still()
{
    desktop_screenshot "$WORK/still-0.png" && sleep 0.5 && desktop_screenshot "$WORK/still.png" &&
        [[ $(session_convert "$WORK/still-0.png" "$WORK/still.png" -compose difference -composite -colorspace gray \
             -threshold 8% -format '%[fx:mean * w * h < 400]' info:) == 1 ]]
}
# icon_located: the sun by its colour or, drawn without it, by what appeared in the bars, at IX IY IW IH.
icon_located() { icon_seen || icon_added; }
items_registered() { [[ -n $(desktop_items) ]]; }

# near A_X A_Y A_W A_H B_X B_Y B_W B_H: the two rectangles are at most 48 pixels apart.
near()
{
    local gap_x=0 gap_y=0
    (( $5 > $1 + $3 )) && gap_x=$(( $5 - $1 - $3 ))
    (( $1 > $5 + $7 )) && gap_x=$(( $1 - $5 - $7 ))
    (( $6 > $2 + $4 )) && gap_y=$(( $6 - $2 - $4 ))
    (( $2 > $6 + $8 )) && gap_y=$(( $2 - $6 - $8 ))
    (( gap_x <= 48 && gap_y <= 48 ))
}

# changed_boxes BEFORE AFTER: "x y width height" of every region that changed between two screenshots, the
# largest first; fails when nothing did. changed_box: the largest (a menu that opened, not a clock that ticked or
# a button the pointer lit up).
changed_boxes()
{
    session_convert "$1" "$2" -compose difference -composite -colorspace gray -threshold 8% -morphology Dilate Square:2 \
        -define connected-components:verbose=true -define connected-components:area-threshold=200 \
        -connected-components 8 null: 2>/dev/null |
        awk '$NF == "gray(255)" { split($2, p, /[x+]/); print $(NF - 1), p[3], p[4], p[1], p[2]; n++ } END { exit !n }' |
        sort -rn | cut -d' ' -f2-
}
changed_box() { changed_boxes "$@" | head -1; [[ ${PIPESTATUS[0]} == 0 ]]; }

# menu_items: the labels of the item's exported menu (DBusMenu), one a line.
menu_items()
{
    local item path menu
    item=$(desktop_items | head -1)
    [[ -n $item ]] || return 1
    path=/StatusNotifierItem
    [[ $item == */* ]] && { path=/${item#*/}; item=${item%%/*}; }
    menu=$(as_user gdbus call --session --dest "$item" --object-path "$path" \
        --method org.freedesktop.DBus.Properties.Get org.kde.StatusNotifierItem Menu 2>/dev/null |
        grep -o "objectpath '[^']*'" | cut -d"'" -f2)
    [[ -n $menu && $menu != /NO_DBUSMENU ]] || return 1
    as_user gdbus call --session --dest "$item" --object-path "$menu" --method com.canonical.dbusmenu.GetLayout -- 0 -1 '@as []' \
        2>/dev/null | grep -o "'label': <'[^']*'>" | sed "s/'label': <'//; s/'>\$//"
}
has_menu_item() { menu_items | grep -qxF "$1"; }

painted() { desktop_screenshot "$WORK/painted.png" && [[ -n $(read -r x y w h < <(panel_geometry) && slider_rows "$WORK/painted.png" "$x" "$y" "$h") ]]; }

step "desktop: $(desktop_name)"
started=$(now_ms)
desktop_start "$WORK" 1 || { cp "$WORK"/*.log "$ARTIFACTS/" 2>/dev/null; abort "the desktop did not start"; }
pass "started in $(( $(now_ms) - started )) ms; X clients on $DISPLAY"

if (( DESKTOP_TRAY )); then
    step "lumora's sun in the tray"
    # The desktop settles (a wallpaper fading in, a panel laid out) before the picture the new icon is told from.
    wait_until 30 screen_still || echo "   note: the desktop never stood still for the picture before the start"
    cp "$WORK/still.png" "$WORK/before.png"
    started=$(now_ms)
    start_lumora first
    wait_until 30 items_registered && figure "start -> item registered with the host: $(( $(now_ms) - started )) ms"
    if wait_until 30 icon_seen; then
        pass "the sun is in the tray, in colour, at $IX,$IY ${IW}x$IH ($(( $(now_ms) - started )) ms after the start)"
    else
        cp "$WORK/seen.png" "$ARTIFACTS/01-no-colour.png"
        cp "$WORK/before.png" "$ARTIFACTS/00-before.png"
        fail "no amber sun in the desktop's bars: no icon, or one drawn without its colour ($ARTIFACTS/01-no-colour.png)"
        wait_until 10 icon_located || abort "nothing appeared in the bars after the start"
        pass "something appeared in the bars at $IX,$IY ${IW}x$IH: taken as the icon"
    fi
    shot 01-icon
    click_icon() { desktop_click $(( IX + IW / 2 )) $(( IY + IH / 2 )) "${1:-1}"; }
    # closed_again: a panel a check left open is closed through its icon, so that the next check starts afresh;
    # then a pause beyond the double-click interval, so that the next click is a fresh one.
    closed_again()
    {
        sleep 0.6
        panel_shown || return 0
        click_icon
        wait_until 10 panel_hidden && { sleep 0.6; return 0; }
        fail "the panel stays open after one more click on the icon: lumora is started afresh"
        stop_lumora
        desktop_screenshot "$WORK/before.png"
        start_lumora afresh
        wait_until 30 icon_located || abort "no icon after starting afresh"
    }

    step "a click on the icon opens the panel next to it"
    clicked=$(now_ms)
    click_icon
    if wait_until 10 panel_shown; then
        figure "click -> panel mapped: $(( $(now_ms) - clicked )) ms"
        wait_until 10 painted && figure "click -> panel painted: $(( $(now_ms) - clicked )) ms"
        read -r PX PY PW PH < <(panel_geometry)
        check "the panel ($PX,$PY ${PW}x$PH) is next to the icon ($IX,$IY)" near "$PX" "$PY" "$PW" "$PH" "$IX" "$IY" "$IW" "$IH"
        shot 02-panel-open
        echo "   the desktop with the panel open: $ARTIFACTS/02-panel-open.png"
    else
        fail "no panel after a click on the icon"
        shot 02-no-panel
    fi

    step "a click elsewhere closes it"
    desktop_click $(( DESKTOP_WIDTH / 2 )) $(( DESKTOP_HEIGHT / 2 ))
    check "closed by a click on the desktop" wait_until 10 panel_hidden
    closed_again

    step "Escape closes it"
    click_icon
    if wait_until 10 panel_shown; then
        desktop_key Escape
        check "closed by Escape" wait_until 10 panel_hidden
    else
        fail "no panel to close"
    fi
    closed_again

    step "a second click on the icon closes it"
    click_icon
    if wait_until 10 panel_shown; then
        sleep 0.6
        click_icon
        check "closed by a second click on the icon" wait_until 10 panel_hidden
    else
        fail "no panel to close"
    fi
    closed_again

    step "the right-click menu: About Lumora, Check for Updates…, Quit Lumora, next to the icon; Quit quits"
    for label in "About Lumora" "Check for Updates…" "Quit Lumora"; do
        check "the item exports \"$label\" over DBusMenu" has_menu_item "$label"
    done
    desktop_move $(( IX + IW / 2 )) $(( IY + IH / 2 ))
    sleep 1   # the host's hover effects settle before the screenshot the menu is told from
    desktop_screenshot "$WORK/before-menu.png"
    click_icon 3
    menu_open() { desktop_screenshot "$WORK/menu.png" && MENU=$(changed_box "$WORK/before-menu.png" "$WORK/menu.png") &&
                  read -r _ _ w h <<<"$MENU" && (( w >= 60 && h >= 40 )); }
    if wait_until 10 menu_open; then
        read -r NX NY NW NH <<<"$MENU"
        check "a menu opened next to the icon ($NX,$NY ${NW}x$NH)" near "$NX" "$NY" "$NW" "$NH" "$IX" "$IY" "$IW" "$IH"
        check "the right click did not open the panel" panel_hidden
        shot 03-menu
        # "Quit Lumora" is the last item.
        desktop_click $(( NX + NW / 2 )) $(( NY + NH - 16 ))
        check "Quit Lumora from it ends lumora with status 0" ended_well
    else
        fail "no menu on a right click on the icon"
        shot 03-no-menu
    fi
    if running "$APP_PID"; then
        desktop_key Escape   # whatever menu the host showed instead
        stop_lumora
    fi

    step "a second start shows the panel of the first"
    desktop_screenshot "$WORK/before.png"
    start_lumora again
    wait_until 30 icon_located || abort "no icon after the start again"
    RUN_LOG="$WORK/lumora-second.log" desktop_run "$LUMORA"
    second=$SPAWNED
    check "the panel is shown" wait_until 20 panel_shown
    check "the second lumora ended" wait_until 20 bash -c '! kill -0 "$0" 2>/dev/null' "$second"
    shot 04-second-start
    stop_lumora
else
    step "no tray: the panel is a window titled Lumora"
    started=$(now_ms)
    start_lumora window
    lumora_window() { lumora_window_named Lumora managed; }
    if wait_until 30 lumora_window >/dev/null; then
        figure "start -> window mapped: $(( $(now_ms) - started )) ms"
        shot 01-window
        echo "   the desktop with the panel open: $ARTIFACTS/01-window.png"
        desktop_key alt+F4
        window_gone() { ! lumora_window >/dev/null; }
        window_back() { lumora_window >/dev/null; }
        check "closed as a window is closed (Alt+F4)" wait_until 10 window_gone
        RUN_LOG="$WORK/lumora-second.log" desktop_run "$LUMORA"
        check "a second start shows it again" wait_until 20 window_back
    else
        fail "no window titled Lumora"
        shot 01-no-window
    fi
fi
finish
