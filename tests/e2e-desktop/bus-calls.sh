# Calls on Lumora's session bus interface from a shell, as the README shows them, for the end-to-end scenarios
# that drive org.lumora.Lumora1. Sourced after checks.sh; needs gdbus and dbus-send, and HERE (for bus-client.py).

for tool in gdbus busctl dbus-send; do
    command -v "$tool" >/dev/null 2>&1 || abort "$tool is missing (scripts/install-deps.sh installs it)"
done

DEST=(--session --dest org.lumora.Lumora --object-path /org/lumora/Lumora)
# call METHOD ARGS...: a method of org.lumora.Lumora1.
call() { local method=$1; shift; timeout -k 2 20 gdbus call "${DEST[@]}" --method "org.lumora.Lumora1.$method" -- "$@"; }
client() { timeout -k 2 30 /usr/bin/python3 "$HERE/bus-client.py" "$@"; }
# shown ID: "brightness on" of a display in the Displays property.
shown() { client displays | awk -F'\t' -v id="$1" '$1 == id {print $2, $3}'; }
# fails CALL... EXPECTED: the call fails, and what it says contains EXPECTED (the D-Bus error name, and the message).
fails()
{
    local expected=${*: -1} out
    out=$("${@:1:$#-1}" 2>&1) && { echo "   (succeeded: $out)"; return 1; }
    [[ $out == *"$expected"* ]] || { echo "   (said: $out)"; return 1; }
}
# The whole observable state of the default desk: brightness and power of both monitors, the backlight, the number
# of I2C transactions so far.
desk_state()
{
    echo "$(desk_value brightness card0-DP-1) $(desk_value power card0-DP-1)" \
         "$(desk_value brightness card0-HDMI-A-1) $(desk_value power card0-HDMI-A-1)" \
         "$(desk_value backlight intel_backlight) $(desk_value transactions)"
}
