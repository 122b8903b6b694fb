#!/bin/sh
# SPDX-License-Identifier: GPL-3.0-or-later
# udevadm-test.sh RULE DEVPATH...
#
# Runs systemd's `udevadm test` on each device with RULE as the only rule and prints its output, each block after a
# line "== DEVPATH", on the virtual desk's sysfs (umockdev's preload, passed in LUMORA_UDEV_PRELOAD). Run it in a
# mount namespace of its own (unshare --mount --map-root-user): the rule directories, /run/udev and /dev are
# replaced by scratch space first, which nothing outside the namespace sees and nothing outlives.
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
