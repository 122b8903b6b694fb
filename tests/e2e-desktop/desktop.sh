#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-3.0-or-later
# The tray application docked in trayer: driven over org.lumora.Lumora1 as a script would, then with xdotool as a
# person would; then the update plugin, light and dark, German, and 12 and 20 displays on a 1280x800 screen.
#   desktop.sh LUMORA VIRTUAL_DESK ARTIFACT_DIR INTROSPECTION_XML UPDATE_PLUGIN PRIVATE_LIBDIR(relative to the binary's)
set -uo pipefail
INTROSPECTION=$4 UPDATE_PLUGIN=$5 PRIVATE_LIBDIR=$6
source "$(dirname "$0")/checks.sh" "$@"
SIGNALS=$WORK/signals.log
signals() { cat "$SIGNALS" 2>/dev/null | wc -l; }
# signalled INDEX ID: "brightness on" of a display in PropertiesChanged number INDEX (-1: the last).
signalled() { { [[ $1 == -1 ]] && tail -1 "$SIGNALS" || sed -n "$(( $1 + 1 ))p" "$SIGNALS"; } | tr ';' '\n' |
    awk -v id="$2" '$1 == id { print $2, $3 }'; }
# sets FROM TO CONNECTOR CODE: the Set requests to a monitor in transactions FROM+1 ... TO of the log.
sets() { sed -n "$(( $1 + 1 )),${2}p" "$WORK/desk.jsonl" | grep "\"connector\":\"$3\"" | grep '"request":"set"' | grep "\"code\":\"$4\""; }
values() { sed 's/.*"value":\([0-9]*\).*/\1/'; }
dp() { desk_value brightness card0-DP-1; }; hdmi() { desk_value brightness card0-HDMI-A-1; }
xmessage_shown() { xdotool search --onlyvisible --name '^xmessage$' 2>/dev/null | head -1; }
# other_app ARGUMENT...: another application's window (xmessage), shown.
other_app() { xmessage -geometry +80+400 "$@" & session_track $!; wait_until 10 eval 'test -n "$(xmessage_shown)"' || fail "no xmessage"; }
# menu_item N: the menu opened from the icon, and its item N (from 0) clicked.
menu_item() { click_icon 3; wait_until 10 menu_shown || abort "no menu"; read -r NX NY NW NH < <(menu_geometry)
    xdotool mousemove $(( NX + 40 )) $(( NY + 12 + 20 * $1 )) click 1; }
step "desktop: Xvfb, openbox, trayer, a session bus, a client recording PropertiesChanged; lumora on the desk"
start_desktop
session_bus "$WORK" || abort "no session bus"
/usr/bin/python3 "$HERE/bus-client.py" watch "$SIGNALS" >"$WORK/watch.log" 2>&1 & session_track $!
wait_until 10 test -e "$SIGNALS.ready" || abort "the signal recorder did not start"
start_docked "$WORK/lumora.log"
check "Displays lists the three displays once the first refresh is in" wait_until 20 listed
check "the first list came with PropertiesChanged" wait_until 10 eval '(( $(signals) > 0 ))'
check "the served interface is the installed introspection file's" client same-interface "$INTROSPECTION"
DP=$(dp) HDMI=$(hdmi)
expected=$(awk -v d="$DP" -v h="$HDMI" -v b="$(desk_value backlight intel_backlight)" 'BEGIN { printf "103\t%.4f\ttrue\t" \
    "true\tDELL U2720Q\n110\t%.4f\ttrue\ttrue\tLG HDR 4K\n95\t%.4f\ttrue\tfalse\tBuilt-in Display", d / 100, h / 100, b / 19200 }')
check "Displays (id, name, brightness, on, canPowerOff): DP-1 at $DP %, HDMI-A-1 at $HDMI %, the backlight" equals "$expected" client displays
step "bad arguments: an error each, and nothing changes"
SIGNALS_BEFORE=$(signals) E=org.lumora.Lumora1.Error
refused 'desk_state; client displays' "
call SetBrightness 42 0.5 | $E.UnknownDisplay: There is no display 42; the displays are 103 (DELL U2720Q), 110 (LG HDR 4K), 95 (Built-in Display).
call SetBrightness 103 nan | $E.NotFinite
call SetBrightness 110 -inf | $E.NotFinite
call SetBrightness 103 1.5 | $E.OutOfRange: The brightness must be a fraction from 0 to 1 (0.5 is 50 %), not 1.5.
call SetBrightness 110 -0.1 | $E.OutOfRange
call Step 103 2 | $E.OutOfRange: A step must be a fraction from -1 to 1
call Step 110 -1.5 | $E.OutOfRange
call Step 95 inf | $E.NotFinite
call Step 42 0.1 | $E.UnknownDisplay
call TogglePower 42 | $E.UnknownDisplay
call TogglePower 95 | $E.CannotPowerOff: Display 95 (Built-in Display) has no standby
send org.lumora.Lumora1.SetBrightness string:103 double:0.5 | org.freedesktop.DBus.Error.InvalidArgs: SetBrightness takes (ud)
send org.lumora.Lumora1.Step uint32:103 int32:1 | org.freedesktop.DBus.Error.InvalidArgs
send org.lumora.Lumora1.StepDisplayInUse uint32:103 double:0.1 | org.freedesktop.DBus.Error.InvalidArgs: StepDisplayInUse takes (d), a step, not (ud).
timeout 20 gdbus call \"\${DEST[@]}\" --method org.freedesktop.DBus.Properties.Set org.lumora.Lumora1 Displays '<@a(usdbb) []>' | org.freedesktop.DBus.Error.PropertyReadOnly
call Brighter 103 | org.freedesktop.DBus.Error.UnknownMethod
call StepDisplayInUse 0.0625 | $E.NoDisplayInUse: There is no display in use: no connected display is shown on the desktop.
call SetDisplayInUse 0.5 | $E.NoDisplayInUse
call StepDisplayInUse 2 | $E.OutOfRange: A step must be a fraction from -1 to 1 (0.0625 is a sixteenth, as a brightness key steps), not 2.
call SetDisplayInUse -0.1 | $E.OutOfRange: The brightness must be a fraction from 0 to 1 (0.5 is 50 %), not -0.1.
call SetDisplayInUse inf | $E.NotFinite
send org.lumora.Lumora1.SetDisplayInUse string:0.5 | org.freedesktop.DBus.Error.InvalidArgs: SetDisplayInUse takes (d), a brightness fraction, not (s)."
step "SetBrightness: shown at once, written; the same value again sends no PropertiesChanged"
call SetBrightness 103 0.3 >/dev/null
check "Displays shows DP-1 at 0.3 at once" equals "0.3000 true" shown 103
check "DP-1 at 30; the first PropertiesChanged after the refused calls carries it" wait_until 10 equals "30 0.3000 true" \
    eval 'echo $(dp) $(signalled "$SIGNALS_BEFORE" 103)'
after "call SetBrightness 103 0.3; call SetBrightness 95 0.25" "backlight at 4800 of 19200; the next PropertiesChanged is its, \
none for DP-1's unchanged value" "4800 0.2500 true" eval 'echo $(desk_value backlight intel_backlight) $(signalled $(( SIGNALS_BEFORE + 1 )) 95)'
step "Step: from the shown brightness, clamped, into standby and out of it"
after "call Step 110 -0.1" "HDMI-A-1 from $HDMI to $(( HDMI - 10 ))" $(( HDMI - 10 )) hdmi
call SetBrightness 110 0.05 >/dev/null
after "call Step 110 -0.0625" "stepping below 0 puts HDMI-A-1 into standby (D6 = 04), shown at 0, off" "4 0.0000 false" \
    eval 'echo $(desk_value power card0-HDMI-A-1) $(shown 110)'
after "call Step 110 0.0625" "stepping up wakes it (D6 = 01) at a sixteenth (6 %)" "6 1" monitor card0-HDMI-A-1
after "call Step 95 1" "the panel stepped by 1 stops at full (19200)" 19200 desk_value backlight intel_backlight
step "100 Step calls in a burst while DP-1 takes its time: coalesced as a slider drag is"
# Before any toggle or panel opening: a refresh publishing during the burst would replace what the steps add to.
after "call SetBrightness 103 0.11" "DP-1 at 11" 11 dp
BURST_FROM=$(signals) && desk hold card0-DP-1 >/dev/null
check "every call answered while the monitor holds its first write" equals "100 replies, 0 errors" client burst 100 Step 103 0.007
check "Displays shows the sum of the steps at once, 0.81" equals "0.8100 true" shown 103
after "desk release card0-DP-1" "DP-1 settles at 81" 81 dp
burst_signals=$(( $(signals) - BURST_FROM ))
check "at most one PropertiesChanged per call ($burst_signals), the last with 0.81, no two in a row alike" bash -c \
    '(( $1 >= 1 && $1 <= 100 )) && [[ $2 == "0.8100 true" && -z $(tail -n "$1" "$0" | uniq -d) ]]' "$SIGNALS" \
    "$burst_signals" "$(signalled -1 103)"
step "TogglePower: standby keeping the brightness, then awake at it"
# Standby changes the brightness shown and then the power state: one turn, one signal, with both.
TOGGLED_AT=$(signals)
after "call TogglePower 103" "DP-1 in standby (D6 = 04), shown off; the next PropertiesChanged at 0 and off, not at 0 while on" \
    "4 0.0000 false 0.0000 false" eval 'echo $(desk_value power card0-DP-1) $(shown 103) $(signalled "$TOGGLED_AT" 103)'
desk brightness card0-DP-1 99 >/dev/null  # as if lost in standby: only the wake's own write brings 81 back
after "call TogglePower 103" "DP-1 on again (D6 = 01) at the kept 81 %" "81 1" monitor card0-DP-1
step "1,001 TogglePower calls at once: the monitor ends as the last asks, after few power commands"
# HDMI-A-1 is changed on the monitor itself: only the refresh after the run reads that, and so tells it has come.
desk brightness card0-HDMI-A-1 33 >/dev/null
POWER_AT=$(desk_value transactions)
check "every call answered" equals "1001 replies, 0 errors" client burst 1001 TogglePower 103
check "an odd number of toggles from on: shown off" equals "0.0000 false" shown 103
check "the run is read back once, 2 s after the last call; DP-1 still shown off, in standby (D6 = 04)" wait_until 15 \
    equals "0.3300 true 0.0000 false 4" eval 'echo $(shown 110) $(shown 103) $(desk_value power card0-DP-1)'
POWER_TO=$(desk_value transactions)
after "call TogglePower 103" "one more wakes it (D6 = 01)" 1 desk_value power card0-DP-1
after "desk brightness card0-HDMI-A-1 42; call Refresh" "Refresh: HDMI-A-1 changed on the monitor, in Displays and signalled" \
    "0.4200 true 0.4200 true" eval 'echo $(shown 110) $(signalled -1 110)'
step "a second lumora asks the first to show its panel (ShowPanel) and exits quietly"
started_again_quietly "the second instance"
check "the first one shows its panel, still docked, still running" wait_until 10 eval 'panel_shown && icon_docked && running $APP_PID'
after "xdotool key Escape" "Escape hides it" hidden panel_state
step "left click on the icon opens the panel under it, one row per display; hot-plug takes a row away and back"
open_panel || abort "no panel after a click on the icon"
check "three rows, one per display" wait_until 10 equals 3 panel_rows
x=$(( IX + IW / 2 - 150 )) && (( x > 980 )) && x=980
check "300 wide, 6 below the icon, centred under it, kept on screen ($PX $PY $PW)" equals "$x $(( IY + IH + 6 )) 300" echo "$PX $PY $PW"
after "desk unplug card0-HDMI-A-1" "two rows after HDMI-A-1's unplug" 2 panel_rows
after "desk plug card0-HDMI-A-1" "three rows after the plug" 3 panel_rows
step "Alt+Tab leaves the panel up; a click in another window hides it and that window gets its click"
other_app -print -buttons "clicked:0" "another application" >"$WORK/xmessage.out" 2>&1
xdotool key alt+Tab && sleep 0.3
check "panel still shown after another window appeared and Alt+Tab" panel_shown
read -r MX MY _ MH _ < <(window_geometry "$(xmessage_shown)")
xdotool mousemove $(( MX + 20 )) $(( MY + MH - 12 )) click 1
check "panel hidden by the click in the other window, which got its click" \
    wait_until 10 eval 'panel_hidden && grep -q clicked "$WORK/xmessage.out"'
step "keyboard: the panel takes the focus, Tab reaches the first slider, arrows and Page keys step it, Escape gives the focus back"
other_app "focused application" >/dev/null 2>&1 && OTHER=$(xmessage_shown) && xdotool windowactivate --sync "$OTHER" 2>/dev/null
open_panel || abort "no panel for the keyboard"
check "the panel has the keyboard focus" wait_until 10 equals "$(panel_id)" xdotool getwindowfocus
xdotool mousemove 640 700 && KEYED=$(dp) HDMI=$(hdmi)
xdotool key Tab  # from the first control, DP-1's power button, to its slider
for n in 1 2 3; do after "xdotool key Right" "Right $n: DP-1 at $(( KEYED + n ))" $(( KEYED + n )) dp; done
PAGED=$(awk -v v="$KEYED" 'BEGIN { printf "%d", (v + 3) - 6.25 + 0.5 }')  # a sixteenth down, as the slider rounds it
after "xdotool key Page_Down" "Page Down: DP-1 a sixteenth lower, at $PAGED; HDMI-A-1 untouched" "$PAGED $HDMI" eval 'echo $(dp) $(hdmi)'
after "xdotool key Escape" "Escape hides the panel, the focus is back on the other application" "$OTHER" \
    eval 'panel_hidden && xdotool getwindowfocus'
step "tooltips show although the panel is never the active window"
open_panel || abort "no panel for the tooltip"
mapfile -t ROWS < <(screenshot "$WORK/tip.png"; slider_rows "$WORK/tip.png" "$PX" "$PY" "$PH")
xdotool windowactivate --sync "$OTHER" 2>/dev/null && wait_until 10 equals "$OTHER" xdotool getwindowfocus
# A tooltip waits for the pointer to stop; one that came to rest while the panel was losing the focus gets a nudge.
hover_tooltip() { local n; for n in 0 1 0 1 0; do xdotool mousemove $(( PX + 240 + n )) "${ROWS[0]}"; wait_until 2 tooltip_shown && return; done; false; }
check "a tooltip window appears over the slider" hover_tooltip
after "xdotool mousemove 640 700 click 1" "closed by a click elsewhere" hidden panel_state
# The icon toggles, a double click counting as a click; each after a pause beyond the double-click interval.
for click in "opens:shown:1" "closes:hidden:1" "three quick clicks (a click, a double click, a click) leave it open:shown:3" \
    "closes again:hidden:1"; do
    sleep 0.6; xdotool mousemove $(( IX + IW / 2 )) $(( IY + IH / 2 )) click --repeat "${click##*:}" --delay 120 1
    IFS=: read -r what state _ <<<"$click" && check "$what" wait_until 10 "panel_$state"
done
step "About Lumora, the first item of the menu, opens 4 below the icon: its whole title shows"
menu_item 0
check "the menu opened 4 below the icon (y $NY), not the panel" eval '(( NY == IY + IH + 4 )) && panel_hidden'
check "a window titled About Lumora" wait_until 10 eval 'ABOUT=$(lumora_window_named "About Lumora")'
check "wide enough for its title" bash -c '(( $(cut -d" " -f3 <<<"$0") >= 380 ))' "$(window_geometry "$ABOUT")"
after 'xdotool windowactivate --sync "$ABOUT" key Escape 2>&1' "About closes" "" eval 'lumora_window_named "About Lumora"'
quit_from_menu "Quit"
mapfile -t writes < <(sets 0 \$ card0-DP-1 0x10 | values | uniq |
    awk '{ v[NR] = $1 } $1 == 11 { last = NR } END { for (i = last + 1; i <= NR; i++) { print v[i]; if (v[i] == 81) exit } }')
check "the 100 steps (the writes after the last 11, up to 81) reached DP-1 as at most two writes, the newest last (${writes[*]})" \
    test "${#writes[@]}" -ge 1 -a "${#writes[@]}" -le 2 -a "${writes[-1]:-}" == 81
# While the calls come in the monitor takes one command at a time, each the newest state; once they stop, one more.
mapfile -t power < <(sets "$POWER_AT" "$POWER_TO" card0-DP-1 0xD6 | grep '"outcome":"ok"' | grep -v ignored | values | uniq)
check "the 1,001 toggles reached DP-1 as a few power commands, standby last (${power[*]})" \
    test "${#power[@]}" -ge 1 -a "${#power[@]}" -le 12 -a "${power[-1]:-}" == 4
check "the newest brightness written to DP-1 is the last one keyed, $PAGED" equals "$PAGED" eval 'sets 0 \$ card0-DP-1 0x10 | values | tail -1'
no_violation "$WORK/lumora.log"
step "an update plugin in a private library directory only root can change: Check for Updates reaches it"
mkdir -p -m 755 "$WORK/install/bin/$PRIVATE_LIBDIR" && cp "$LUMORA" "$WORK/install/bin/lumora" &&
    cp "$UPDATE_PLUGIN" "$WORK/install/bin/$PRIVATE_LIBDIR/liblumora-update.so" || abort "no copy with the plugin"
export LUMORA_TEST_UPDATE_LOG="$WORK/update.log"
start_with_plugin() { LUMORA="$WORK/install/bin/lumora" start_docked "$WORK/lumora-with-plugin.log"; }
if (( EUID == 0 )); then  # (else no directory of this run is root's, and the loading case is left out)
    start_with_plugin
    check "the plugin made its controller at start, started, without delegates" wait_until 10 grep -qx "create 1 0" "$WORK/update.log"
    menu_item 1  # Check for Updates…
    check "Check for Updates reached the plugin once" wait_until 10 equals 1 grep -cx "check 0" "$WORK/update.log"
    quit_from_menu "q in the menu"
    check "still exactly one controller made" equals 1 grep -c '^create' "$WORK/update.log"
fi
# luma NAME X Y W H: the screen shot as NAME, and the highest luminance (0 ... 255) in a rectangle of it.
luma() { shot "$1" >/dev/null && session_convert "$ARTIFACTS/$1.png" -crop "$4x$5+$2+$3" +repage -colorspace Gray -depth 8 \
    -format '%[fx:int(255*maxima)]' info:; }
background() { luma "$1" $(( PX + 150 )) $(( PY + 6 )) 1 1; }  # just inside the panel's top edge
rows_shown() { (( $(panel_rows) >= $1 )); }
# theme light|dark: qt6ct's configuration, written beside and moved in place as settings tools do (one change).
theme() {
    local palette=custom_palette=false dir=$XDG_CONFIG_HOME/qt6ct
    [[ $1 == light ]] || palette=$'custom_palette=true\ncolor_scheme_path=/usr/share/qt6ct/colors/darker.conf'
    mkdir -p "$dir" && printf '[Appearance]\n%s\nicon_theme=Adwaita\nstyle=Fusion\n' "$palette" >"$dir/new" && mv "$dir/new" "$dir/qt6ct.conf"
}
step "the same plugin in a directory others may write to is not loaded; light, then dark without a restart (qt6ct)"
[[ -f /usr/lib/x86_64-linux-gnu/qt6/plugins/platformthemes/libqt6ct.so ]] ||
    abort "qt6ct is not installed (scripts/install-deps.sh installs it)"
rm -f "$WORK/update.log" && chmod 777 "$WORK/install/bin/$PRIVATE_LIBDIR" && theme light
QT_QPA_PLATFORMTHEME=qt6ct start_with_plugin
check "no controller made" test ! -s "$WORK/update.log"
open_panel && wait_until 10 rows_shown 3 || abort "no panel"
check "the panel is light" eval '(( $(background 01-light) > 180 ))'
theme dark
check "the panel turns dark while it is open" wait_until 10 eval '(( $(background 02-dark) < 100 ))'
read -r PX PY PW PH < <(panel_geometry)
check "the footer's refresh symbol is drawn light on the dark panel" eval '(( $(luma 02-dark $(( PX + 16 )) $(( PY + PH - 44 )) 28 28) > 150 ))'
quit_from_footer "Quit (dark)"
step "German from the system locale; 20 displays on a 1280x800 screen: the rows scroll, the footer stays on screen"
for (( i = 1; i <= 20; i++ )); do  # DisplayPort monitors, each on its own AUX channel
    printf '{ "name": "DP-%d", "edid": { "vendor": "DEL", "model": "0x%04X", "serial": %d, "name": "Monitor %d" }, "ddc": { "bus": %d }, "monitor": { "current": %d } }\n' \
        "$i" $(( 0xA000 + i )) $(( 1000 + i )) "$i" $(( 10 + i )) $(( 20 + 3 * i ))
done | paste -sd, | sed 's/^/{ "cards": [ { "connectors": [/; s/$/] } ] }/' >"$WORK/desk-20.json"
LANGUAGE=de start_docked "$WORK/lumora-20.log" "$WORK/desk-20.json"
menu_item 0
check "the first menu item opens a window titled Über Lumora" wait_until 10 eval 'ABOUT=$(lumora_window_named "Über Lumora")'
xdotool windowactivate --sync "$ABOUT" key Escape 2>/dev/null
# The panel grows to its full height once the refresh of the opening has read every monitor.
open_panel && wait_until 30 eval 'read -r PX PY PW PH < <(panel_geometry) && (( PH > 400 ))' && wait_until 10 rows_shown 4 ||
    abort "no panel (20 displays)"
read -r PX PY PW PH < <(panel_geometry)
check "the panel ends on the screen, no taller than the screen leaves below the tray (y $PY, height $PH)" \
    test "$PH" -le $(( 800 - PY - 6 ))
quit_from_menu "q in the German menu"
finish
