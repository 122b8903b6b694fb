#!/bin/sh
# udevadm-test.sh RULE DEVPATH...
#
# Runs systemd's own `udevadm test` on each device with RULE as the only udev rule and prints its output, one
# block per device, each after a line "== DEVPATH". The sysfs udevadm sees is the virtual desk's: it runs under
# umockdev's preload, passed in LUMORA_UDEV_PRELOAD (everything else here runs without it, so that the mounts
# below land where they say).
#
# Run it in a mount namespace of its own (unshare --mount --map-root-user): udevadm reads its rules from
# /usr/lib/udev/rules.d and /etc/udev/rules.d, and writes its database under /run/udev and links under /dev, so
# all of these are replaced by scratch space first. Nothing outside the namespace sees any of it, and nothing is
# left behind when it ends.
set -eu
rule=$1
shift
mount -t tmpfs lumora-udev-test /run
mkdir /run/rules /run/none
cp "$rule" /run/rules/
touch /run/null
mount --bind /dev/null /run/null
# The desk's test bed may live in /dev/shm: keep it in sight across the scratch /dev.
mkdir /run/shm
mount --bind /dev/shm /run/shm
mount --bind /run/none /usr/lib/udev/rules.d
mount --bind /run/rules /etc/udev/rules.d
mount -t tmpfs lumora-udev-test /dev
touch /dev/null
mount --bind /run/null /dev/null
mkdir /dev/shm
mount --bind /run/shm /dev/shm
for devpath in "$@"; do
    echo "== $devpath"
    LD_PRELOAD=$LUMORA_UDEV_PRELOAD udevadm test --action=add "$devpath" 2>/dev/null
done
