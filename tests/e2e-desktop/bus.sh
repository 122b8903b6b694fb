#!/usr/bin/env bash
# End to end over the session bus: the tray application on the virtual desk (Xvfb + openbox + trayer, a private
# session bus), driven as a script or a desktop shortcut would drive it — gdbus and busctl calls on
# org.lumora.Lumora1 — and checked on the emulated monitors, the backlight, the desk's transaction log, the
# Displays property and the PropertiesChanged signals a client receives.
#
#   bus.sh LUMORA VIRTUAL_DESK ARTIFACT_DIR INTROSPECTION_XML
#
# Exit status: 0 passed, 1 failed, 77 skipped (no Xvfb). Screenshots and logs stay in ARTIFACT_DIR.
set -uo pipefail

INTROSPECTION=$4
HERE=$(cd "$(dirname "$0")" && pwd)

# shellcheck source=checks.sh
source "$HERE/checks.sh" "$@"
# shellcheck source=bus-calls.sh
source "$HERE/bus-calls.sh"

SIGNALS=$WORK/signals.jsonl
signals() { [[ -f $SIGNALS ]] && wc -l <"$SIGNALS" || echo 0; }
# more_signals_than N: more than N PropertiesChanged recorded so far (re-read at each try of wait_until).
more_signals_than() { (( $(signals) > $1 )); }
# signalled INDEX ID: "brightness on" of a display in PropertiesChanged number INDEX (-1: the last).
signalled() { client signal "$SIGNALS" "$1" "$2" | tr '\t' ' '; }

step "desktop: Xvfb, openbox, trayer, a session bus; a client recording PropertiesChanged"
start_desktop
session_bus "$WORK" || abort "no session bus"
/usr/bin/python3 "$HERE/bus-client.py" watch "$SIGNALS" >"$WORK/watch.log" 2>&1 &
session_track $!
wait_until 10 test -s "$SIGNALS.ready" || abort "the signal recorder did not start"

step "lumora on the virtual desk serves org.lumora.Lumora1"
start_lumora "$WORK/lumora.log"
wait_until 20 icon_docked || abort "the sun never docked in the tray"
listed() { [[ $(client displays 2>/dev/null | wc -l) -eq 3 ]]; }
check "Displays lists the three displays once the first refresh is in" wait_until 20 listed
check "the first list came with PropertiesChanged" wait_until 10 more_signals_than 0
check "the served interface is the installed introspection file's" client same-interface "$INTROSPECTION"

step "Displays: (id, name, brightness, on, canPowerOff), as the monitors and the backlight have them"
client displays | tee "$WORK/displays.txt" | sed 's/^/   /'
DP=$(desk_value brightness card0-DP-1)
HDMI=$(desk_value brightness card0-HDMI-A-1)
PANEL=$(awk -v b="$(desk_value backlight intel_backlight)" 'BEGIN { printf "%.4f", b / 19200 }')
expected=$(printf '103\t%.4f\ttrue\ttrue\tDELL U2720Q\n110\t%.4f\ttrue\ttrue\tLG HDR 4K\n95\t%s\ttrue\tfalse\tBuilt-in Display' \
    "$(awk -v v="$DP" 'BEGIN { print v / 100 }')" "$(awk -v v="$HDMI" 'BEGIN { print v / 100 }')" "$PANEL")
check "DP-1 at $DP %, HDMI-A-1 at $HDMI %, the panel at $PANEL, in the panel's order" test "$(cat "$WORK/displays.txt")" == "$expected"
busctl_out=$(timeout -k 2 20 busctl --user get-property org.lumora.Lumora /org/lumora/Lumora org.lumora.Lumora1 Displays)
check "busctl reads it as a(usdbb) (read: $busctl_out)" bash -c '[[ $0 == "a(usdbb) 3 103 \"DELL U2720Q\" "* ]]' "$busctl_out"

step "bad arguments: an error each, and nothing changes"
BEFORE=$(desk_state)
SHOWN_BEFORE=$(client displays)
SIGNALS_BEFORE=$(signals)
E=org.lumora.Lumora1.Error
check "SetBrightness of display 42: UnknownDisplay" fails call SetBrightness 42 0.5 "$E.UnknownDisplay: There is no display 42; the displays are 103 (DELL U2720Q), 110 (LG HDR 4K), 95 (Built-in Display)."
check "SetBrightness nan: NotFinite" fails call SetBrightness 103 nan "$E.NotFinite"
check "SetBrightness inf: NotFinite" fails call SetBrightness 103 inf "$E.NotFinite"
check "SetBrightness -inf: NotFinite" fails call SetBrightness 110 -inf "$E.NotFinite"
check "SetBrightness 1.5: OutOfRange" fails call SetBrightness 103 1.5 "$E.OutOfRange: The brightness must be a fraction from 0 to 1 (0.5 is 50 %), not 1.5."
check "SetBrightness -0.1: OutOfRange" fails call SetBrightness 110 -0.1 "$E.OutOfRange"
check "SetBrightness 2 on the panel: OutOfRange" fails call SetBrightness 95 2 "$E.OutOfRange"
check "Step by 2: OutOfRange" fails call Step 103 2 "$E.OutOfRange: A step must be a fraction from -1 to 1"
check "Step by -1.5: OutOfRange" fails call Step 110 -1.5 "$E.OutOfRange"
check "Step by nan: NotFinite" fails call Step 95 nan "$E.NotFinite"
check "Step of display 42: UnknownDisplay" fails call Step 42 0.1 "$E.UnknownDisplay"
check "TogglePower of display 42: UnknownDisplay" fails call TogglePower 42 "$E.UnknownDisplay"
check "TogglePower of the panel: CannotPowerOff" fails call TogglePower 95 "$E.CannotPowerOff: Display 95 (Built-in Display) has no standby"
check "a string for the id: InvalidArgs" fails timeout -k 2 20 dbus-send --session --print-reply --dest=org.lumora.Lumora \
    /org/lumora/Lumora org.lumora.Lumora1.SetBrightness string:103 double:0.5 "org.freedesktop.DBus.Error.InvalidArgs: SetBrightness takes (ud)"
check "an int32 step: InvalidArgs" fails timeout -k 2 20 dbus-send --session --print-reply --dest=org.lumora.Lumora \
    /org/lumora/Lumora org.lumora.Lumora1.Step uint32:103 int32:1 "org.freedesktop.DBus.Error.InvalidArgs"
check "Displays cannot be set: PropertyReadOnly" fails timeout -k 2 20 gdbus call "${DEST[@]}" \
    --method org.freedesktop.DBus.Properties.Set org.lumora.Lumora1 Displays "<@a(usdbb) []>" "org.freedesktop.DBus.Error.PropertyReadOnly"
check "no such method: UnknownMethod" fails call Brighter 103 "org.freedesktop.DBus.Error.UnknownMethod"
check "StepDisplayInUse with a display id: InvalidArgs" fails timeout -k 2 20 dbus-send --session --print-reply \
    --dest=org.lumora.Lumora /org/lumora/Lumora org.lumora.Lumora1.StepDisplayInUse uint32:103 double:0.1 \
    "org.freedesktop.DBus.Error.InvalidArgs: StepDisplayInUse takes (d), a step, not (ud)."
# Xvfb's one screen shows none of the desk's connectors (no output name, no EDID of theirs).
check "StepDisplayInUse on a desktop that shows none of the displays: NoDisplayInUse" \
    fails call StepDisplayInUse 0.0625 \
    "$E.NoDisplayInUse: There is no display in use: no connected display is shown on the desktop."
check "SetDisplayInUse likewise" fails call SetDisplayInUse 0.5 "$E.NoDisplayInUse"
check "monitors, backlight and the desk's transaction count as before ($BEFORE)" equals "$BEFORE" desk_state
check "Displays as before" equals "$SHOWN_BEFORE" client displays

step "SetBrightness: shown at once, written to the monitor; the same value again sends no PropertiesChanged"
call SetBrightness 103 0.3 >/dev/null
check "Displays shows DP-1 at 0.3 at once" equals "0.3000 true" shown 103
check "DP-1 at 30" wait_until 10 equals 30 desk_value brightness card0-DP-1
check "a PropertiesChanged" wait_until 10 more_signals_than "$SIGNALS_BEFORE"
check "the first after the refused calls carries DP-1 at 0.3" equals "0.3000 true" signalled "$SIGNALS_BEFORE" 103
call SetBrightness 103 0.3 >/dev/null
call SetBrightness 95 0.25 >/dev/null
check "the panel's backlight at a quarter (4800 of 19200)" wait_until 10 equals 4800 desk_value backlight intel_backlight
check "another PropertiesChanged" wait_until 10 more_signals_than $(( SIGNALS_BEFORE + 1 ))
check "it is the panel's change (none came for DP-1's unchanged value)" \
    equals "0.2500 true" signalled $(( SIGNALS_BEFORE + 1 )) 95

step "Step: from the shown brightness, clamped, into standby and out of it"
call Step 110 -0.1 >/dev/null
check "HDMI-A-1 from $HDMI to $(( HDMI - 10 ))" wait_until 10 equals $(( HDMI - 10 )) desk_value brightness card0-HDMI-A-1
call SetBrightness 110 0.05 >/dev/null
call Step 110 -0.0625 >/dev/null
check "stepping below 0 puts HDMI-A-1 into standby (D6 = 04)" wait_until 10 equals 4 desk_value power card0-HDMI-A-1
check "shown at 0, off" equals "0.0000 false" shown 110
call Step 110 0.0625 >/dev/null
check "stepping up wakes it (D6 = 01)" wait_until 10 equals 1 desk_value power card0-HDMI-A-1
check "... at a sixteenth (6 %)" wait_until 10 equals 6 desk_value brightness card0-HDMI-A-1
call Step 95 1 >/dev/null
check "the panel stepped by 1 stops at full (19200)" wait_until 10 equals 19200 desk_value backlight intel_backlight

step "100 Step calls in a burst while DP-1 takes its time: coalesced as a slider drag is"
# Before any toggle or panel opening: each of those refreshes (a toggle two seconds later), and a refresh that
# publishes during the burst would replace the shown brightness the steps add to.
call SetBrightness 103 0.11 >/dev/null
wait_until 10 equals 11 desk_value brightness card0-DP-1 || fail "DP-1 did not reach 11"
BURST_FROM=$(signals)
desk hold card0-DP-1 >/dev/null
burst=$(client burst 100 Step 103 0.007)
check "every call answered while the monitor holds its first write ($burst)" test "$burst" == "100 replies, 0 errors"
check "Displays shows the sum of the steps at once, 0.81" equals "0.8100 true" shown 103
desk release card0-DP-1 >/dev/null
check "DP-1 settles at 81" wait_until 15 equals 81 desk_value brightness card0-DP-1
burst_signals=$(( $(signals) - BURST_FROM ))
check "at most one PropertiesChanged per call ($burst_signals)" test "$burst_signals" -ge 1 -a "$burst_signals" -le 100
check "the last one carries 0.81" equals "0.8100 true" signalled -1 103
repeats=$(tail -n "$burst_signals" "$SIGNALS" | uniq -d | wc -l)
check "no two in a row alike (repeats: $repeats)" test "$repeats" -eq 0
echo "   PropertiesChanged during the burst: $burst_signals"

step "TogglePower: standby keeping the brightness, then awake at it"
TOGGLED_AT=$(signals)
KEPT=$(desk_value brightness card0-DP-1)
call TogglePower 103 >/dev/null
check "DP-1 in standby (D6 = 04)" wait_until 10 equals 4 desk_value power card0-DP-1
check "shown off" equals "0.0000 false" shown 103
# Standby changes the brightness shown and then the power state: one turn, one signal, with both.
check "a PropertiesChanged" wait_until 10 more_signals_than "$TOGGLED_AT"
check "the first carries DP-1 at 0 and off, not a brightness of 0 while still on" \
    equals "0.0000 false" signalled "$TOGGLED_AT" 103
call TogglePower 103 >/dev/null
check "DP-1 on again (D6 = 01)" wait_until 10 equals 1 desk_value power card0-DP-1
check "at the kept $KEPT %" wait_until 10 equals "$KEPT" desk_value brightness card0-DP-1

step "1,001 TogglePower calls at once: the monitor ends in the state the last asks for, after few commands"
# Any process of the session may call this; once the calls outrun the monitor, the power commands are folded.
# HDMI-A-1 is changed on the monitor itself: only the refresh after the run reads that, and so tells it has come.
desk brightness card0-HDMI-A-1 33 >/dev/null
POWER_FROM=$(desk_value transactions)
burst=$(client burst 1001 TogglePower 103)
check "every call answered ($burst)" test "$burst" == "1001 replies, 0 errors"
check "an odd number of toggles from on: shown off" equals "0.0000 false" shown 103
check "DP-1 in standby (D6 = 04)" wait_until 15 equals 4 desk_value power card0-DP-1
check "the run is read back once, 2 s after the last call" wait_until 15 equals "0.3300 true" shown 110
check "DP-1 still shown off" equals "0.0000 false" shown 103
check "still in standby" equals 4 desk_value power card0-DP-1
POWER_TO=$(desk_value transactions)
call TogglePower 103 >/dev/null
check "one more wakes it (D6 = 01)" wait_until 15 equals 1 desk_value power card0-DP-1

step "Refresh: a change made on the monitor itself is read back and signalled"
desk brightness card0-HDMI-A-1 42 >/dev/null
call Refresh >/dev/null
check "Displays shows HDMI-A-1 at 0.42" wait_until 10 equals "0.4200 true" shown 110
check "a PropertiesChanged carried it" wait_until 10 equals "0.4200 true" signalled -1 110

step "ShowPanel: the panel opens under the icon"
call ShowPanel >/dev/null
check "the panel is shown" wait_until 10 panel_shown
shot 01-shown-over-the-bus
xdotool key Escape
check "Escape hides it" wait_until 10 panel_hidden

step "Quit; the desk's log"
xdotool mousemove 10 700
IX_IY=$(tray_icon) || abort "no icon"
read -r IX IY IW IH <<<"$IX_IY"
xdotool mousemove $(( IX + IW / 2 )) $(( IY + IH / 2 )) click 3
if ! wait_until 20 menu_shown; then
    # Seen once on a CI machine that stalled for many seconds at a time (trayer, up in 30 ms here, took over 20 s
    # there in the same run): keep what the screen and the windows were, and click once more, as a user would.
    shot zz-no-menu
    echo "   NOTE: no menu 20 s after the right click; Lumora's windows (id x y w h viewable):"
    lumora_windows | sed 's/^/      /'
    xdotool mousemove $(( IX + IW / 2 )) $(( IY + IH / 2 )) click 3
fi
check "menu shown" wait_until 20 menu_shown
xdotool key q
expect_exit_zero "q in the menu"
if [[ -s $WORK/desk.jsonl ]]; then
    cp "$WORK/desk.jsonl" "$ARTIFACTS/desk.jsonl"
    # DP-1's brightness writes, one value per write (a write sends its packet twice; a NAKed packet is sent again).
    grep '"connector":"card0-DP-1"' "$WORK/desk.jsonl" | grep '"request":"set"' | grep '"code":"0x10"' |
        sed 's/.*"value":\([0-9]*\).*/\1/' | uniq >"$WORK/dp1-writes.txt"
    # The burst's writes: after the last write of 11, up to the burst's 81 (the toggles come after it).
    mapfile -t burst_writes < <(awk '{ v[NR] = $1 } $1 == 11 { last = NR }
        END { for (i = last + 1; i <= NR; i++) { print v[i]; if (v[i] == 81) break } }' "$WORK/dp1-writes.txt")
    check "the burst reached DP-1 as at most two writes, the newest last (${burst_writes[*]})" \
        test "${#burst_writes[@]}" -ge 1 -a "${#burst_writes[@]}" -le 2 -a "${burst_writes[-1]:-}" == 81
    echo "   writes on the wire for 100 Step calls: ${#burst_writes[@]}"
    # The 1,001 toggles' power commands on DP-1 (a command sends its packet twice; the monitor NAKs the repeat).
    # While the calls come in, the monitor takes one command at a time, each the newest state (about one per
    # 0.15 s into standby, 1.7 s out of it); once they stop, one more at most.
    mapfile -t power_commands < <(awk -v from="$POWER_FROM" -v to="$POWER_TO" 'NR > from && NR <= to' "$WORK/desk.jsonl" |
        grep '"connector":"card0-DP-1"' | grep '"request":"set"' | grep '"code":"0xD6"' |
        grep '"outcome":"ok"' | grep -v ignored | sed 's/.*"value":\([0-9]*\).*/\1/')
    check "1,001 toggles reached DP-1 as a few power commands, standby last (${power_commands[*]})" \
        test "${#power_commands[@]}" -ge 1 -a "${#power_commands[@]}" -le 12 -a "${power_commands[-1]:-}" == 4
    echo "   power commands on the wire for 1,001 TogglePower calls: ${#power_commands[@]}"
else
    fail "the virtual desk wrote no log"
fi
check "the virtual desk saw no violation" bash -c '! grep -qi violation "$0"' "$WORK/lumora.log"

finish
