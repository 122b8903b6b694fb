#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-3.0-or-later
# The Debian package as a user gets it: builds it (`make deb`), runs lintian, desktop-file-validate and appstreamcli
# on it, installs it with apt-get on this machine, runs the installed /usr/bin/lumora probe on the virtual desk,
# checks every file is where the desktop (and man, udev, systemd) looks for it, removes it and checks that only
# its configuration is left, then purges it.
#
# Needs root (it installs and removes a package) and a virtual desk already built: build/release's or build/asan's
# (`make test` builds the latter), or VIRTUAL_DESK=path. Not for a machine where Lumora is installed otherwise:
# the package replaces that install and is purged at the end.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD

fail() { echo "check-package: FAILED: $*" >&2; exit 1; }
step() { echo "== $* ($(( SECONDS - started )) s)"; }
started=$SECONDS

[ "$(id -u)" -eq 0 ] || fail "needs root: it installs and removes the package"

desk=${VIRTUAL_DESK:-}
if [ -z "$desk" ]; then
  for candidate in build/release/tools/virtual-desk/virtual-desk build/asan/tools/virtual-desk/virtual-desk; do
    if [ -x "$candidate" ]; then desk=$root/$candidate; break; fi
  done
fi
if [ -z "$desk" ] || [ ! -x "$desk" ]; then fail "no virtual desk built (run make test, or set VIRTUAL_DESK)"; fi

# One package check at a time on a machine: the install and removal would trip over each other's.
exec 9>/run/lock/lumora-check-package.lock
flock -w 1800 9 || fail "another package check holds /run/lock/lumora-check-package.lock"

apt_get() { DEBIAN_FRONTEND=noninteractive apt-get -o DPkg::Lock::Timeout=600 -o Dpkg::Use-Pty=0 -y -q "$@"; }
installed() { dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q ' installed$'; }
# The packages dpkg still knows (installed, or removed with their configuration kept).
known() {
  local package
  for package in lumora lumora-dev; do
    dpkg-query -W -f='${Status}\n' "$package" 2>/dev/null | grep -qv 'not-installed$' && echo "$package"
  done
  return 0
}

# Whatever happens below, the machine is left without the package.
cleanup() {
  local packages
  packages=$(known)
  if [ -n "$packages" ]; then
    # shellcheck disable=SC2086
    apt_get purge $packages >/dev/null 2>&1 || true
  fi
}
trap cleanup EXIT

step "building the package"
make deb
cd build/deb
debs=(lumora_*.deb lumora-dev_*.deb)
for deb in "${debs[@]}"; do [ -f "$deb" ] || fail "make deb did not build $deb"; done
ls -l ./*.deb ./*.ddeb 2>/dev/null || true

step "lintian"
# Info and pedantic tags are shown for the record; errors and warnings fail the check.
lintian --info --display-info --pedantic --fail-on error,warning lumora_*.dsc lumora_*.changes
echo "lintian: no errors or warnings (any info or pedantic tags are listed above)"

step "desktop-file-validate and appstreamcli on the package's tree"
# The tree the package was made from (its files only): the metainfo, the menu entry and the icon as one
# component, as the AppStream generator of an archive puts them together.
tree=lumora/debian/lumora
desktop-file-validate "$tree"/usr/share/applications/*.desktop "$tree"/etc/xdg/autostart/*.desktop
appstreamcli validate-tree --no-net "$tree"

# What an earlier Lumora left when the user had granted it the keyboards: its rule, and an access list on uinput.
mkdir -p /etc/udev/rules.d
echo 'KERNEL=="uinput", TAG+="uaccess"' >/etc/udev/rules.d/70-lumora-input.rules
acl_node=
if [ -c /dev/uinput ] && command -v setfacl >/dev/null 2>&1 && setfacl -m u:nobody:rw /dev/uinput 2>/dev/null; then
  acl_node=/dev/uinput
fi

step "installing with apt-get"
# The Recommends (logind, udev, kmod) are what a desktop has already; this checks the package's own files.
apt_get install --no-install-recommends "${debs[@]/#/./}"
installed lumora || fail "lumora is not installed"
installed lumora-dev || fail "lumora-dev is not installed"
[ "$(command -v lumora)" = /usr/bin/lumora ] || fail "lumora on PATH is $(command -v lumora), not /usr/bin/lumora"

step "the installed probe on the virtual desk"
probe=$(LUMORA_PROBE=1 timeout 60 "$desk" -- /usr/bin/lumora) || fail "the probe on the virtual desk failed"
echo "$probe"
# The default desk: two DDC/CI monitors and the laptop panel (tools/virtual-desk/README.md).
expected=(
  "Displays: 3  (IOAVService: true, DisplayServices: true)"
  "• [103] DELL U2720Q (external/DDC) brightness=50%"
  "• [110] LG HDR 4K (external/DDC) brightness=70%"
  "• [95] Built-in Display (internal) brightness=50%"
)
for line in "${expected[@]}"; do
  grep -qxF -- "$line" <<<"$probe" || fail "the probe did not print: $line"
done

step "files where the desktop looks for them"
# The places the freedesktop standards and the system tools read, with their default search paths.
find_in() {  # find_in DIRS RELATIVE-PATH: the first DIRS entry (colon-separated) holding it
  local dir
  IFS=: read -ra dirs <<<"$1"
  for dir in "${dirs[@]}"; do
    if [ -e "$dir/$2" ]; then echo "$dir/$2"; return 0; fi
  done
  return 1
}
desktop_key() { sed -n "s/^$2=//p" "$1" | head -n 1; }
data_dirs=${XDG_DATA_DIRS:-/usr/local/share:/usr/share}
config_dirs=${XDG_CONFIG_DIRS:-/etc/xdg}

entry=$(find_in "$data_dirs" applications/org.lumora.Lumora.desktop) || fail "no application-menu entry"
desktop-file-validate "$entry"
[ "$(command -v "$(desktop_key "$entry" Exec)")" = /usr/bin/lumora ] || fail "$entry does not start /usr/bin/lumora"
echo "menu entry: $entry"

icon_name=$(desktop_key "$entry" Icon)
icon=$(find_in "$data_dirs" "icons/hicolor/scalable/apps/$icon_name.svg") || fail "no hicolor icon named $icon_name"
hicolor_index=$(find_in "$data_dirs" icons/hicolor/index.theme) || fail "no hicolor theme to hold the icon"
grep -q '^\[scalable/apps\]' "$hicolor_index" || fail "$hicolor_index has no scalable/apps directory"
python3 -c 'import sys, xml.etree.ElementTree as et; assert et.parse(sys.argv[1]).getroot().tag.endswith("svg")' \
  "$icon" || fail "$icon is not an SVG drawing"
echo "icon: $icon"

autostart=$(find_in "$config_dirs" autostart/org.lumora.Lumora.desktop) || fail "no autostart entry"
desktop-file-validate "$autostart"
read -r autostart_program autostart_arguments <<<"$(desktop_key "$autostart" Exec)"
[ "$(command -v "$autostart_program")" = /usr/bin/lumora ] || fail "$autostart does not start lumora"
# At login Lumora opens no window where there is no tray: the entry asks for that, and the installed lumora knows it.
[ "$autostart_arguments" = --background ] || fail "$autostart starts lumora without --background"
/usr/bin/lumora --help | grep -q -- '--background' || fail "the installed lumora does not know --background"
echo "autostart: $autostart"

metainfo=$(find_in "$data_dirs" metainfo/org.lumora.Lumora.metainfo.xml) || fail "no AppStream metainfo"
appstreamcli validate --no-net "$metainfo"
grep -qF '<launchable type="desktop-id">org.lumora.Lumora.desktop</launchable>' "$metainfo" ||
  fail "$metainfo does not launch the menu entry"
echo "metainfo: $metainfo"

manual=$(man -w lumora) || fail "man cannot find lumora(1)"
man_text=$(MANWIDTH=100 man lumora 2>/dev/null)
for word in LUMORA_PROBE LUMORA_PROBE_SET "DEVICE ACCESS" "THE TRAY APPLICATION"; do
  grep -qF -- "$word" <<<"$man_text" || fail "lumora(1) does not cover $word"
done
echo "manual: $manual"

[ -f /usr/lib/udev/rules.d/60-lumora-i2c.rules ] || fail "no udev rule in /usr/lib/udev/rules.d"
cmp -s /usr/lib/udev/rules.d/60-lumora-i2c.rules "$root/data/60-lumora-i2c.rules" || fail "the udev rule differs"
grep -qx 'i2c-dev' /usr/lib/modules-load.d/lumora-i2c-dev.conf || fail "no modules-load file naming i2c-dev"
echo "udev rule, modules-load file: /usr/lib/udev/rules.d/60-lumora-i2c.rules, /usr/lib/modules-load.d/lumora-i2c-dev.conf"

header=$(find_in /usr/include lumora/LumoraUpdatePlugin.h) || fail "no update plugin header"
echo '#include <lumora/LumoraUpdatePlugin.h>' | cc -x c -fsyntax-only -Wall -Werror - || fail "$header does not compile"
echo "plugin header: $header"

step "the key service"
keys=/usr/libexec/lumora/lumora-keys
unit=/usr/lib/systemd/system/lumora-keys.service
[ -x "$keys" ] || fail "no key service at $keys"
[ -f "$unit" ] || fail "no unit at $unit"
grep -qx "ExecStart=$keys" "$unit" || fail "$unit does not start $keys"
grep -qx 'BusName=org.lumora.Keys' "$unit" || fail "$unit is not a bus service"
for hardening in NoNewPrivileges=yes ProtectSystem=strict ProtectHome=yes PrivateNetwork=yes DevicePolicy=closed \
                 'DeviceAllow=char-input rw' 'DeviceAllow=/dev/uinput rw' 'CapabilityBoundingSet=' \
                 RestrictAddressFamilies=AF_UNIX; do
  grep -qxF -- "$hardening" "$unit" || fail "$unit lacks $hardening"
done
if grep -q '^\[Install\]' "$unit"; then fail "$unit is enabled at boot: the bus starts it"; fi
activation=/usr/share/dbus-1/system-services/org.lumora.Keys.service
grep -qx "SystemdService=lumora-keys.service" "$activation" || fail "$activation does not start the unit"
policy=/usr/share/dbus-1/system.d/org.lumora.Keys.conf
xmllint --noout "$policy" 2>/dev/null || python3 -c 'import sys, xml.dom.minidom as m; m.parse(sys.argv[1])' "$policy" ||
  fail "$policy is not well-formed"
action=/usr/share/polkit-1/actions/org.lumora.keys.policy
python3 - "$action" <<'PY' || fail "$action does not give the keys to the active session alone"
import sys, xml.etree.ElementTree as et
defaults = et.parse(sys.argv[1]).getroot().find("action[@id='org.lumora.keys.attach']/defaults")
assert [defaults.find(k).text for k in ("allow_any", "allow_inactive", "allow_active")] == \
    ["auth_admin", "auth_admin", "yes"]
PY
[ ! -e /usr/libexec/lumora/lumora-grant-input-access ] || fail "the old permission helper is still installed"
[ ! -e /etc/udev/rules.d/70-lumora-input.rules ] || fail "the keyboard rule of an earlier Lumora outlived the upgrade"
if [ -n "$acl_node" ] && getfacl -p "$acl_node" 2>/dev/null | grep -q '^user:nobody:'; then
  fail "the access an earlier Lumora left on $acl_node outlived the upgrade"
fi
# A plain process of a user opens no key device and not /dev/uinput.
for node in /dev/input/event* /dev/uinput; do
  [ -c "$node" ] || continue
  if setpriv --reuid=nobody --regid=nogroup --clear-groups sh -c 'exec 3<"$1"' sh "$node" 2>/dev/null; then
    fail "a plain user process can read $node"
  fi
done
# The service on the virtual desk: a private system bus with the installed policy and activation file (no launch
# helper), stand-ins for logind and polkit; one attach starts it, and it leaves once the client is gone.
bus_dir=$(mktemp -d)
cat >"$bus_dir/bus.conf" <<CONF
<busconfig><listen>unix:path=$bus_dir/bus</listen><auth>EXTERNAL</auth>
<servicedir>/usr/share/dbus-1/system-services</servicedir>
<policy context="default"><allow send_destination="*" eavesdrop="true"/><allow eavesdrop="true"/>
<allow own="org.freedesktop.login1"/><allow own="org.freedesktop.PolicyKit1"/></policy>
<include>$policy</include></busconfig>
CONF
DBUS_SYSTEM_BUS_ADDRESS="unix:path=$bus_dir/bus" timeout 120 "$desk" -- /usr/bin/python3 - "$bus_dir" <<'PY' ||
import os, socket, subprocess, sys, time
import dbus
d = sys.argv[1]
daemon = subprocess.Popen(["dbus-daemon", "--nofork", "--config-file=" + d + "/bus.conf"])
try:
    deadline = time.time() + 20
    while not os.path.exists(d + "/bus"):
        assert time.time() < deadline, "no bus"
        time.sleep(0.05)
    mocks = [subprocess.Popen([sys.executable, "-m", "dbusmock", "--system", "--template", t], stdout=subprocess.DEVNULL)
             for t in ("logind", "polkitd")]
    bus = dbus.SystemBus()
    for name in ("org.freedesktop.login1", "org.freedesktop.PolicyKit1"):
        while not bus.name_has_owner(name):
            assert time.time() < deadline, name
            time.sleep(0.05)
    login = bus.get_object("org.freedesktop.login1", "/org/freedesktop/login1")
    login.AddSession("c1", "seat0", dbus.UInt32(1000), "user", True, dbus_interface="org.freedesktop.DBus.Mock")
    login.AddMethod("org.freedesktop.login1.Manager", "GetSessionByPID", "u", "o",
                    "ret = dbus.ObjectPath('/org/freedesktop/login1/session/c1')", dbus_interface="org.freedesktop.DBus.Mock")
    bus.get_object("org.freedesktop.PolicyKit1", "/org/freedesktop/PolicyKit1/Authority").SetAllowed(
        ["org.lumora.keys.attach"], dbus_interface="org.freedesktop.DBus.Mock")
    assert not bus.name_has_owner("org.lumora.Keys"), "the service ran before anyone asked"
    ours, theirs = socket.socketpair(socket.AF_UNIX, socket.SOCK_SEQPACKET)
    bus.get_object("org.lumora.Keys", "/org/lumora/Keys").Attach(
        dbus.types.UnixFd(theirs.fileno()), False, dbus_interface="org.lumora.Keys1", timeout=60)
    assert bus.name_has_owner("org.lumora.Keys"), "the first attach did not start the service"
    print("key service: started by the first attach")
    ours.close()
    deadline = time.time() + 60
    while bus.name_has_owner("org.lumora.Keys"):
        assert time.time() < deadline, "the service did not leave when idle"
        time.sleep(0.2)
    print("key service: left once idle")
    for m in mocks:
        m.kill()
finally:
    daemon.kill()
PY
  fail "the key service did not start on attach and stop when idle"
rm -rf "$bus_dir"
echo "key service: $keys ($unit, $activation, $policy, $action)"

step "removing with apt-get"
files=$(dpkg-query -L lumora lumora-dev)
conffiles=$(dpkg-query -W -f='${Conffiles}\n' lumora | awk 'NF { print $1 }')
apt_get remove lumora lumora-dev
for package in lumora lumora-dev; do
  ! installed "$package" || fail "$package is still installed"
done
left=()
while IFS= read -r path; do
  if [ -z "$path" ] || [ -d "$path" ] || { [ ! -e "$path" ] && [ ! -L "$path" ]; }; then continue; fi
  grep -qxF -- "$path" <<<"$conffiles" || left+=("$path")
done <<<"$files"
[ ${#left[@]} -eq 0 ] || fail "left after removal, not configuration: ${left[*]}"
echo "left after removal (configuration): $(tr '\n' ' ' <<<"$conffiles")"

step "purging"
[ "$(known)" = lumora ] || fail "after removal dpkg should know lumora (its configuration) only, not: $(known)"
apt_get purge lumora
while IFS= read -r path; do
  [ -z "$path" ] || [ ! -e "$path" ] || fail "left after purge: $path"
done <<<"$conffiles"
[ -z "$(known)" ] || fail "dpkg still knows $(known) after the purge"

step "the package checks passed"
