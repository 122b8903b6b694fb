#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-3.0-or-later
# The tray application end to end on the virtual desk, docked in trayer (Xvfb + openbox, a private session bus):
# driven over org.lumora.Lumora1 as a script would drive it, then with xdotool as a person would; checked through the
# window system, screenshots, the emulated monitors, the desk's log and the PropertiesChanged received. Then how it
# looks: light and dark (qt6ct), German, and desks of 12 and 20 displays on a 1280x800 screen.
#   desktop.sh LUMORA VIRTUAL_DESK ARTIFACT_DIR INTROSPECTION_XML UPDATE_PLUGIN PRIVATE_LIBDIR
# UPDATE_PLUGIN is a test update plugin, PRIVATE_LIBDIR the private library directory relative to the executable's.
set -uo pipefail
INTROSPECTION=$4 UPDATE_PLUGIN=$5 PRIVATE_LIBDIR=$6
source "$(dirname "$0")/checks.sh" "$@"
SIGNALS=$WORK/signals.jsonl
signals() { cat "$SIGNALS" 2>/dev/null | wc -l; }
more_signals_than() { (( $(signals) > $1 )); }
# signalled INDEX ID: "brightness on" of a display in PropertiesChanged number INDEX (-1: the last).
signalled() { client signal "$SIGNALS" "$1" "$2" | tr '\t' ' '; }
# sets FROM TO CONNECTOR CODE: the Set requests to a monitor in transactions FROM+1 ... TO of the desk's log.
sets() { sed -n "$(( $1 + 1 )),${2}p" "$WORK/desk.jsonl" | grep "\"connector\":\"$3\"" | grep '"request":"set"' | grep "\"code\":\"$4\""; }
values() { sed 's/.*"value":\([0-9]*\).*/\1/'; }
dp() { desk_value brightness card0-DP-1; }
hdmi() { desk_value brightness card0-HDMI-A-1; }
xmessage_shown() { xdotool search --onlyvisible --name '^xmessage$' 2>/dev/null | head -1; }
# other_app ARGUMENT...: another application's window (xmessage), shown.
other_app() { xmessage -geometry +80+400 "$@" & session_track $!; wait_until 10 eval 'test -n "$(xmessage_shown)"' || fail "no xmessage"; }
step "desktop: Xvfb, openbox, trayer, a session bus, a client recording PropertiesChanged; lumora on the desk"
start_desktop
session_bus "$WORK" || abort "no session bus"
/usr/bin/python3 "$HERE/bus-client.py" watch "$SIGNALS" >"$WORK/watch.log" 2>&1 & session_track $!
wait_until 10 test -e "$SIGNALS.ready" || abort "the signal recorder did not start"
start_docked "$WORK/lumora.log"
check "Displays lists the three displays once the first refresh is in" wait_until 20 listed
check "the first list came with PropertiesChanged" wait_until 10 more_signals_than 0
check "the served interface is the installed introspection file's" client same-interface "$INTROSPECTION"
step "Displays: (id, name, brightness, on, canPowerOff), as the monitors and the backlight have them"
DP=$(dp) HDMI=$(hdmi)
expected=$(awk -v d="$DP" -v h="$HDMI" -v b="$(desk_value backlight intel_backlight)" 'BEGIN {
    printf "103\t%.4f\ttrue\ttrue\tDELL U2720Q\n110\t%.4f\ttrue\ttrue\tLG HDR 4K\n95\t%.4f\ttrue\tfalse\tBuilt-in Display",
    d / 100, h / 100, b / 19200 }')
check "DP-1 at $DP %, HDMI-A-1 at $HDMI %, the panel's backlight, in the panel's order" equals "$expected" client displays
step "bad arguments: an error each, and nothing changes"
BEFORE=$(desk_state) SHOWN_BEFORE=$(client displays) SIGNALS_BEFORE=$(signals)
E=org.lumora.Lumora1.Error
refused "
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
call SetDisplayInUse 0.5 | $E.NoDisplayInUse"
check "monitors, backlight and the desk's transaction count as before ($BEFORE)" equals "$BEFORE" desk_state
check "Displays as before" equals "$SHOWN_BEFORE" client displays
step "SetBrightness: shown at once, written; the same value again sends no PropertiesChanged"
call SetBrightness 103 0.3 >/dev/null
check "Displays shows DP-1 at 0.3 at once" equals "0.3000 true" shown 103
check "DP-1 at 30" wait_until 10 equals 30 dp
check "the first PropertiesChanged after the refused calls carries it" wait_until 10 equals "0.3000 true" signalled "$SIGNALS_BEFORE" 103
call SetBrightness 103 0.3 >/dev/null
call SetBrightness 95 0.25 >/dev/null
check "the panel's backlight at a quarter (4800 of 19200)" wait_until 10 equals 4800 desk_value backlight intel_backlight
check "the next PropertiesChanged is the panel's (none for DP-1's unchanged value)" \
    wait_until 10 equals "0.2500 true" signalled $(( SIGNALS_BEFORE + 1 )) 95
step "Step: from the shown brightness, clamped, into standby and out of it"
call Step 110 -0.1 >/dev/null
check "HDMI-A-1 from $HDMI to $(( HDMI - 10 ))" wait_until 10 equals $(( HDMI - 10 )) hdmi
call SetBrightness 110 0.05 >/dev/null
call Step 110 -0.0625 >/dev/null
check "stepping below 0 puts HDMI-A-1 into standby (D6 = 04)" wait_until 10 equals 4 desk_value power card0-HDMI-A-1
check "shown at 0, off" equals "0.0000 false" shown 110
call Step 110 0.0625 >/dev/null
check "stepping up wakes it (D6 = 01) at a sixteenth (6 %)" wait_until 10 equals "6 1" monitor card0-HDMI-A-1
call Step 95 1 >/dev/null
check "the panel stepped by 1 stops at full (19200)" wait_until 10 equals 19200 desk_value backlight intel_backlight
step "100 Step calls in a burst while DP-1 takes its time: coalesced as a slider drag is"
# Before any toggle or panel opening: a refresh publishing during the burst would replace what the steps add to.
call SetBrightness 103 0.11 >/dev/null
wait_until 10 equals 11 dp || fail "DP-1 did not reach 11"
BURST_FROM=$(signals)
desk hold card0-DP-1 >/dev/null
check "every call answered while the monitor holds its first write" equals "100 replies, 0 errors" client burst 100 Step 103 0.007
check "Displays shows the sum of the steps at once, 0.81" equals "0.8100 true" shown 103
desk release card0-DP-1 >/dev/null
check "DP-1 settles at 81" wait_until 15 equals 81 dp
burst_signals=$(( $(signals) - BURST_FROM ))
check "at most one PropertiesChanged per call ($burst_signals), the last with 0.81, no two in a row alike" bash -c \
    '(( $1 >= 1 && $1 <= 100 )) && [[ $2 == "0.8100 true" && -z $(tail -n "$1" "$0" | uniq -d) ]]' "$SIGNALS" \
    "$burst_signals" "$(signalled -1 103)"
step "TogglePower: standby keeping the brightness, then awake at it"
TOGGLED_AT=$(signals)
call TogglePower 103 >/dev/null
check "DP-1 in standby (D6 = 04)" wait_until 10 equals 4 desk_value power card0-DP-1
check "shown off" equals "0.0000 false" shown 103
# Standby changes the brightness shown and then the power state: one turn, one signal, with both.
check "the next PropertiesChanged carries DP-1 at 0 and off, not a brightness of 0 while on" \
    wait_until 10 equals "0.0000 false" signalled "$TOGGLED_AT" 103
desk brightness card0-DP-1 99 >/dev/null  # as if lost in standby: only the wake's own write brings 81 back
call TogglePower 103 >/dev/null
check "DP-1 on again (D6 = 01) at the kept 81 %" wait_until 10 equals "81 1" monitor card0-DP-1
step "1,001 TogglePower calls at once: the monitor ends as the last asks, after few power commands"
# HDMI-A-1 is changed on the monitor itself: only the refresh after the run reads that, and so tells it has come.
desk brightness card0-HDMI-A-1 33 >/dev/null
POWER_AT=$(desk_value transactions)
check "every call answered" equals "1001 replies, 0 errors" client burst 1001 TogglePower 103
check "an odd number of toggles from on: shown off" equals "0.0000 false" shown 103
check "DP-1 in standby (D6 = 04)" wait_until 15 equals 4 desk_value power card0-DP-1
check "the run is read back once, 2 s after the last call" wait_until 15 equals "0.3300 true" shown 110
check "DP-1 still shown off, in standby" equals "0.0000 false 4" eval 'echo $(shown 103) $(desk_value power card0-DP-1)'
POWER_TO=$(desk_value transactions)
call TogglePower 103 >/dev/null
check "one more wakes it (D6 = 01)" wait_until 15 equals 1 desk_value power card0-DP-1
step "Refresh: a change made on the monitor itself is read back and signalled"
desk brightness card0-HDMI-A-1 42 >/dev/null
call Refresh >/dev/null
check "Displays and the last PropertiesChanged show HDMI-A-1 at 0.42" \
    wait_until 10 eval '[[ $(shown 110) == "0.4200 true" && $(signalled -1 110) == "0.4200 true" ]]'
step "a second lumora asks the first to show its panel and exits quietly; ShowPanel does the same"
started_again_quietly "the second instance"
check "the first one shows its panel, still docked, still running" wait_until 10 panel_shown
check "... still docked and running" eval 'icon_docked && running $APP_PID'
read -r PX PY PW PH < <(panel_geometry)
check "the panel has the keyboard focus" wait_until 10 equals "$(panel_id)" xdotool getwindowfocus
xdotool key Escape
check "Escape hides it" wait_until 10 panel_hidden
call ShowPanel >/dev/null
check "ShowPanel shows it" wait_until 10 panel_shown
xdotool key Escape
wait_until 10 panel_hidden
step "left click on the icon opens the panel under it, one row per display"
open_panel || abort "no panel after a click on the icon"
wait_until 10 equals 3 panel_rows
read -r PX PY PW PH < <(panel_geometry)
x=$(( IX + IW / 2 - 150 )) && (( x > 980 )) && x=980
check "300 wide, 6 below the icon, centred under it, kept on screen ($PX $PY $PW)" equals "$x $(( IY + IH + 6 )) 300" echo "$PX $PY $PW"
shot 02-panel-open
mapfile -t ROWS < <(slider_rows "$ARTIFACTS/02-panel-open.png" "$PX" "$PY" "$PH")
check "3 sliders (found ${#ROWS[@]}: ${ROWS[*]})" test "${#ROWS[@]}" -eq 3
step "hot-plug: unplug HDMI-A-1, its row goes; plug it in, its row comes back"
desk unplug card0-HDMI-A-1 >/dev/null
check "two rows after the unplug" wait_until 10 equals 2 panel_rows
desk plug card0-HDMI-A-1 >/dev/null
check "three rows after the plug" wait_until 10 equals 3 panel_rows
step "Alt+Tab leaves the panel up; a click in another window hides it and that window gets its click"
other_app -print -buttons "clicked:0" "another application" >"$WORK/xmessage.out" 2>&1
check "panel still shown after another window appeared" panel_shown
xdotool key alt+Tab
sleep 0.3
check "panel still shown after Alt+Tab" panel_shown
read -r MX MY _ MH _ < <(window_geometry "$(xmessage_shown)")
xdotool mousemove $(( MX + 20 )) $(( MY + MH - 12 )) click 1
check "panel hidden by the click in the other window" wait_until 10 panel_hidden
check "the other window got its click" wait_until 10 grep -q clicked "$WORK/xmessage.out"
step "keyboard: the panel takes the focus, Tab reaches the first slider, arrows and Page keys step it, Escape gives the focus back"
other_app "focused application" >/dev/null 2>&1
OTHER=$(xmessage_shown)
xdotool windowactivate --sync "$OTHER" 2>/dev/null
check "the other application has the focus" wait_until 10 equals "$OTHER" xdotool getwindowfocus
open_panel || abort "no panel for the keyboard"
check "the panel has the keyboard focus" wait_until 10 equals "$(panel_id)" xdotool getwindowfocus
xdotool mousemove 640 700
KEYED=$(dp) HDMI=$(hdmi)
xdotool key Tab  # from the first control, DP-1's power button, to its slider
for n in 1 2 3; do
    xdotool key Right
    check "Right $n: DP-1 at $(( KEYED + n ))" wait_until 10 equals $(( KEYED + n )) dp
done
xdotool key Page_Down
PAGED=$(awk -v v="$KEYED" 'BEGIN { printf "%d", (v + 3) - 6.25 + 0.5 }')  # a sixteenth down, as the slider rounds it
check "Page Down: DP-1 a sixteenth lower, at $PAGED; HDMI-A-1 untouched" wait_until 10 equals "$PAGED $HDMI" eval 'echo $(dp) $(hdmi)'
xdotool key Escape
check "Escape hides the panel" wait_until 10 panel_hidden
check "the focus is back on the other application" wait_until 10 equals "$OTHER" xdotool getwindowfocus
step "tooltips show although the panel is never the active window"
open_panel || abort "no panel for the tooltip"
mapfile -t ROWS < <(screenshot "$WORK/tip.png"; slider_rows "$WORK/tip.png" "$PX" "$PY" "$PH")
xdotool windowactivate --sync "$OTHER" 2>/dev/null
wait_until 10 equals "$OTHER" xdotool getwindowfocus
# A tooltip waits for the pointer to stop; one that came to rest while the panel was losing the focus gets a nudge.
hover_tooltip() { local n; for n in 0 1 0 1 0; do xdotool mousemove $(( PX + 240 + n )) "${ROWS[0]}"; wait_until 2 tooltip_shown && return; done; false; }
check "a tooltip window appears over the slider" hover_tooltip
shot 10c-tooltip
xdotool mousemove 640 700 click 1
check "closed by a click elsewhere" wait_until 10 panel_hidden
step "the icon toggles: open, and a second click closes; a double click counts as a click"
# Each click after a pause beyond the double-click interval, so that it is a fresh click.
sleep 0.6; click_icon
check "opens" wait_until 10 panel_shown
sleep 0.6; xdotool click 1
check "closes" wait_until 10 panel_hidden
sleep 0.6; xdotool click --repeat 3 --delay 120 1
check "three quick clicks (a click, a double click, a click) leave it open" wait_until 10 panel_shown
sleep 0.6; xdotool click 1
check "closes again" wait_until 10 panel_hidden
step "About Lumora, the first item of the menu: its whole title shows"
click_icon 3
wait_until 10 menu_shown || abort "no menu"
read -r NX NY NW NH < <(menu_geometry)
check "the menu opens 4 below the icon (y $NY), not the panel" eval '(( NY == IY + IH + 4 )) && panel_hidden'
shot 11-menu
xdotool mousemove $(( NX + 40 )) $(( NY + 12 )) click 1
about() { lumora_window_named "About Lumora" >/dev/null; }
check "a window titled About Lumora" wait_until 10 about
ABOUT=$(lumora_window_named "About Lumora")
check "wide enough for its title" bash -c '(( $(cut -d" " -f3 <<<"$0") >= 380 ))' "$(window_geometry "$ABOUT")"
xdotool windowactivate --sync "$ABOUT" key Escape 2>/dev/null
check "About closes" wait_until 10 eval '! about'
quit_from_menu "Quit"
step "the desk's log"
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
if (( EUID == 0 )); then
    start_with_plugin
    check "the plugin made its controller at start, started, without delegates" wait_until 10 grep -qx "create 1 0" "$WORK/update.log"
    click_icon 3
    wait_until 10 menu_shown || abort "no menu"
    read -r NX NY NW NH < <(menu_geometry)
    # "Check for Updates…" is the second item.
    xdotool mousemove $(( NX + 40 )) $(( NY + 32 )) click 1
    check "Check for Updates reached the plugin once" wait_until 10 equals 1 grep -cx "check 0" "$WORK/update.log"
    quit_from_menu "q in the menu"
    check "still exactly one controller made" equals 1 grep -c '^create' "$WORK/update.log"
else
    echo "   note: not root here, so no directory of this run is root's: the loading case is left out"
fi
step "the same plugin in a directory others may write to is not loaded"
rm -f "$WORK/update.log"
chmod 777 "$WORK/install/bin/$PRIVATE_LIBDIR"
start_with_plugin
check "no controller made" test ! -s "$WORK/update.log"
quit_from_menu "q in the menu"
# brightest FILE X Y W H: the highest luminance (0 ... 255) in a rectangle of an image.
brightest() { session_convert "$1" -crop "$4x$5+$2+$3" +repage -colorspace Gray -depth 8 -format '%[fx:int(255*maxima)]' info:; }
# background: the luminance of the shown panel's background just inside its top edge, now.
background() { screenshot "$WORK/now.png"; brightest "$WORK/now.png" $(( PX + 150 )) $(( PY + 6 )) 1 1; }
rows_shown() { (( $(panel_rows) >= $1 )); }
# theme light|dark: qt6ct's configuration, written beside and moved in place as settings tools do (one change).
theme() {
    local palette="custom_palette=false"
    [[ $1 == light ]] || palette=$'custom_palette=true\ncolor_scheme_path=/usr/share/qt6ct/colors/darker.conf'
    mkdir -p "$XDG_CONFIG_HOME/qt6ct"
    printf '[Appearance]\n%s\nicon_theme=Adwaita\nstyle=Fusion\nstandard_dialogs=default\n' "$palette" >"$XDG_CONFIG_HOME/qt6ct/new"
    mv "$XDG_CONFIG_HOME/qt6ct/new" "$XDG_CONFIG_HOME/qt6ct/qt6ct.conf"
}
step "light, then dark without a restart (qt6ct, the Adwaita icons)"
[[ -f /usr/lib/x86_64-linux-gnu/qt6/plugins/platformthemes/libqt6ct.so ]] ||
    abort "qt6ct is not installed (scripts/install-deps.sh installs it)"
theme light
QT_QPA_PLATFORMTHEME=qt6ct start_docked "$WORK/lumora-themes.log"
open_panel || abort "no panel"
wait_until 10 rows_shown 3
shot 01-light
check "the panel is light ($(background))" eval '(( $(background) > 180 ))'
theme dark
check "the panel turns dark while it is open" wait_until 10 eval '(( $(background) < 100 ))'
read -r PX PY PW PH < <(panel_geometry)
shot 02-dark
# The refresh symbol in the footer's left corner.
lit=$(brightest "$ARTIFACTS/02-dark.png" $(( PX + 16 )) $(( PY + PH - 44 )) 28 28)
check "the refresh symbol is drawn light on the dark panel (brightest $lit)" test "${lit:-0}" -gt 150
quit_from_footer "Quit (dark)"
step "German from the system locale (LANGUAGE=de)"
LANGUAGE=de start_docked "$WORK/lumora-de.log"
open_panel || abort "no panel (German)"
wait_until 10 rows_shown 3
shot 03-german
click_icon 3
wait_until 10 menu_shown || abort "no menu (German)"
read -r NX NY NW NH < <(menu_geometry)
xdotool mousemove $(( NX + 40 )) $(( NY + 12 )) click 1
check "the first menu item opens a window titled Über Lumora" wait_until 10 lumora_window_named "Über Lumora"
shot 04-german-about
xdotool windowactivate --sync "$(lumora_window_named "Über Lumora")" key Escape 2>/dev/null
quit_from_menu "q in the German menu"
for n in 12 20; do
    step "$n displays on a 1280x800 screen: the rows scroll, the footer stays on screen"
    # n DisplayPort monitors, each on its own AUX channel.
    for (( i = 1; i <= n; i++ )); do
        printf '{ "name": "DP-%d", "edid": { "vendor": "DEL", "model": "0x%04X", "serial": %d, "name": "Monitor %d" }, "ddc": { "bus": %d }, "monitor": { "current": %d } }\n' \
            "$i" $(( 0xA000 + i )) $(( 1000 + i )) "$i" $(( 10 + i )) $(( 20 + 3 * i ))
    done | paste -sd, | sed 's/^/{ "cards": [ { "connectors": [/; s/$/] } ] }/' >"$WORK/desk-$n.json"
    start_docked "$WORK/lumora-$n.log" "$WORK/desk-$n.json"
    open_panel || abort "no panel ($n displays)"
    # The panel grows to its full height once the refresh of the opening has read every monitor.
    wait_until 30 eval 'read -r PX PY PW PH < <(panel_geometry) && (( PH > 400 ))'
    wait_until 10 rows_shown 4
    read -r PX PY PW PH < <(panel_geometry)
    shot "05-displays-$n"
    check "the panel ends on the screen, no taller than the screen leaves below the tray (y $PY, height $PH)" \
        test "$PH" -le $(( 800 - PY - 6 ))
    quit_from_footer "the footer's Quit ($n displays)"
done
finish
