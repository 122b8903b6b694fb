#!/usr/bin/env bash
# End to end, how the panel looks on a real desk: a live switch from a light to a dark palette (qt6ct, which
# desktops without their own Qt theme use, re-reads its configuration while Lumora runs), German from the system
# locale, and desks of 12 and 20 displays on a 1280x800 screen, where the rows scroll and the footer stays on
# screen. Screenshots of each stay in ARTIFACT_DIR.
#
#   looks.sh LUMORA VIRTUAL_DESK ARTIFACT_DIR
#
# Exit status: 0 passed, 1 failed, 77 skipped (no Xvfb).
set -uo pipefail

HERE=$(cd "$(dirname "$0")" && pwd)

# shellcheck source=checks.sh
source "$HERE/checks.sh" "$@"

step "desktop: Xvfb, openbox, trayer"
start_desktop

# luminance FILE X Y: 0 ... 255, the brightness of one pixel.
luminance()
{
    session_convert "$1" -crop "1x1+$2+$3" +repage -depth 8 txt:- |
        awk -F'[ ,:()]+' 'NR == 2 { printf "%d", 0.299 * $3 + 0.587 * $4 + 0.114 * $5 }'
}
# brightest FILE X Y W H: the highest luminance in a rectangle.
brightest()
{
    session_convert "$1" -crop "$4x$5+$2+$3" +repage -colorspace Gray -depth 8 -format '%[fx:int(255*maxima)]' info:
}
rows_shown() { (( $(panel_rows) >= $1 )); }

step "light, then dark without a restart (qt6ct, the Adwaita icons)"
if [[ -f /usr/lib/x86_64-linux-gnu/qt6/plugins/platformthemes/libqt6ct.so ]] || command -v qt6ct >/dev/null 2>&1; then
    mkdir -p "$XDG_CONFIG_HOME/qt6ct"
    theme()   # theme light|dark
    {
        local palette="custom_palette=false"
        [[ $1 == dark ]] && palette="custom_palette=true
color_scheme_path=/usr/share/qt6ct/colors/darker.conf"
        # Written beside and moved in place, as settings tools do: one change for the watcher to see.
        printf '[Appearance]\n%s\nicon_theme=Adwaita\nstyle=Fusion\nstandard_dialogs=default\n' "$palette" \
            >"$XDG_CONFIG_HOME/qt6ct/qt6ct.conf.new"
        mv "$XDG_CONFIG_HOME/qt6ct/qt6ct.conf.new" "$XDG_CONFIG_HOME/qt6ct/qt6ct.conf"
    }
    theme light
    QT_QPA_PLATFORMTHEME=qt6ct start_docked "$WORK/lumora-themes.log"
    open_panel || abort "no panel"
    wait_until 10 rows_shown 3
    shot 01-light
    # The panel's background just inside its top edge, and the refresh symbol in the footer's left corner.
    REFRESH=(16 $(( PH - 16 - 28 )) 28 28)
    check "the panel is light ($(luminance "$ARTIFACTS/01-light.png" $(( PX + 150 )) $(( PY + 6 ))))" \
        test "$(luminance "$ARTIFACTS/01-light.png" $(( PX + 150 )) $(( PY + 6 )))" -gt 180
    theme dark
    panel_dark() { screenshot "$WORK/now.png"; (( $(luminance "$WORK/now.png" $(( PX + 150 )) $(( PY + 6 ))) < 100 )); }
    check "the panel turns dark while it is open" wait_until 10 panel_dark
    read -r PX PY PW PH < <(panel_geometry)
    shot 02-dark
    lit=$(brightest "$ARTIFACTS/02-dark.png" $(( PX + REFRESH[0] )) $(( PY + PH - 16 - 28 )) "${REFRESH[2]}" "${REFRESH[3]}")
    check "the refresh symbol is drawn light on the dark panel (brightest $lit)" test "${lit:-0}" -gt 150
    quit_from_footer "Quit (dark)"
else
    fail "qt6ct is not installed (scripts/install-deps.sh installs it)"
fi

step "German from the system locale (LANGUAGE=de)"
LANGUAGE=de start_docked "$WORK/lumora-de.log"
open_panel || abort "no panel (German)"
wait_until 10 rows_shown 3
shot 03-german
click_icon 3
wait_until 10 menu_shown || abort "no menu (German)"
read -r NX NY NW NH < <(menu_geometry)
xdotool mousemove $(( NX + 40 )) $(( NY + 12 )) click 1
german_about() { lumora_window_named "Über Lumora" >/dev/null; }
check "the first menu item opens a window titled Über Lumora" wait_until 10 german_about
shot 04-german-about
ABOUT=$(lumora_window_named "Über Lumora")
xdotool windowactivate --sync "$ABOUT" key Escape 2>/dev/null
click_icon 3
wait_until 10 menu_shown || abort "no menu (German)"
xdotool key q
expect_exit_zero "q in the German menu"

# desk_of N FILE: a desk of N DisplayPort monitors, each on its own AUX channel.
desk_of()
{
    local n=$1 i
    {
        echo '{ "cards": [ { "connectors": ['
        for (( i = 1; i <= n; i++ )); do
            (( i > 1 )) && echo ','
            printf '{ "name": "DP-%d", "edid": { "vendor": "DEL", "model": "0x%04X", "serial": %d, "name": "Monitor %d" },' \
                "$i" $(( 0xA000 + i )) $(( 1000 + i )) "$i"
            printf ' "ddc": { "bus": %d }, "monitor": { "current": %d } }' $(( 10 + i )) $(( 20 + 3 * i ))
        done
        echo '] } ] }'
    } >"$2"
}

for n in 12 20; do
    step "$n displays on a 1280x800 screen: the rows scroll, the footer stays on screen"
    desk_of "$n" "$WORK/desk-$n.json"
    start_docked "$WORK/lumora-$n.log" "$WORK/desk-$n.json"
    open_panel || abort "no panel ($n displays)"
    # The panel grows to its full height once the refresh of the opening has read every monitor.
    grown() { read -r PX PY PW PH < <(panel_geometry) && (( PH > 400 )); }
    wait_until 30 grown
    wait_until 10 rows_shown 4
    read -r PX PY PW PH < <(panel_geometry)
    shot "05-displays-$n"
    check "the panel ends on the screen (bottom $(( PY + PH )) of 800)" test $(( PY + PH )) -le 800
    check "the panel is no taller than the screen leaves below the tray (height $PH)" test "$PH" -le $(( 800 - PY - 6 ))
    quit_from_footer "the footer's Quit ($n displays)"
done

finish
