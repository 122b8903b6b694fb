#!/bin/sh
# SPDX-License-Identifier: GPL-3.0-or-later
# Writes the KEY_* and BTN_* names of the kernel's input-event-codes.h as C++ table rows: {"KEY_ESC", 1},
# Used by the build (see CMakeLists.txt); aliases defined as other names (KEY_HANGUEL KEY_HANGEUL) are skipped.
set -eu
sed -nE 's/^#define[[:space:]]+((KEY|BTN)_[A-Z0-9_]+)[[:space:]]+(0x[0-9a-fA-F]+|[0-9]+)([[:space:]].*)?$/{"\1", \3},/p' "$1" > "$2.tmp"
mv "$2.tmp" "$2"
