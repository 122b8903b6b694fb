#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-3.0-or-later
# Builds Lumora's Debian packages with Debian's own tooling into build/deb/ (lumora_*.deb, lumora-dev_*.deb,
# the -dbgsym package and the .changes file, and the source package). Builds from a copy of the tree, so that the build leaves nothing in
# the checkout and the results land next to the copy rather than in the checkout's parent directory.
set -euo pipefail
cd "$(dirname "$0")/.."

out=build/deb
jobs=${JOBS:-$(nproc)}
rm -rf "$out"
mkdir -p "$out/lumora"

# The files git knows (committed or not, but not ignored), or everything but the build trees outside git.
if git rev-parse --is-inside-work-tree >/dev/null 2>&1; then
  # (A file deleted but not yet committed is still listed; it is skipped.)
  git ls-files -z --cached --others --exclude-standard |
    while IFS= read -r -d '' f; do if [ -e "$f" ] || [ -L "$f" ]; then printf '%s\0' "$f"; fi; done |
    xargs -0 cp -a --parents -t "$out/lumora" --
else
  tar --exclude=./build --exclude=./.git --exclude=./artifacts -cf - . | tar -xf - -C "$out/lumora"
fi

# The source package too (lumora_*.dsc and its tarball), made from the pristine copy: lintian checks debian/
# (control, rules, copyright, changelog) only there.
(cd "$out" && dpkg-source --build lumora)

cd "$out/lumora"
dpkg-buildpackage -us -uc -b -J"$jobs"
