#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-3.0-or-later
# Plants realistic faults in the product one at a time (each a one-line change a developer could make), rebuilds,
# runs the tests recorded as catching it and puts the file back. Prints one line per fault and fails when a fault
# goes uncaught, does not apply (the code it names moved) or does not build.
#
#   scripts/planted-faults.sh [ID-REGEX]      all faults, or those whose id matches
#
# The faults are listed in scripts/faults/*.tsv, one per line, tab-separated:
#   id  file  text-to-find  replacement  ctest-regex  what-it-breaks
# The text must occur exactly once in the file. Lines starting with # are comments. Builds in build/faults (Debug,
# no sanitizers: the faults are caught by what the tests check, not by the sanitizers); each fault rebuilds only
# what its tests run. Don't build or commit in the same tree while it runs: the faults are planted in its sources.
set -euo pipefail
cd "$(dirname "$0")/.."
only=${1:-.}
build=${LUMORA_FAULTS_BUILD:-build/faults}

if [ -n "$(git status --porcelain --untracked-files=no -- Lumora LumoraCore LumoraKeys tools)" ]; then
  echo "planted-faults: the product has uncommitted changes; commit or stash them first" >&2
  exit 2
fi
[ -f "$build/build.ninja" ] || cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Debug >/dev/null

saved=$(mktemp -d)
planted=""
restore() { if [ -n "$planted" ]; then cp "$saved/original" "$planted"; planted=""; fi; }
trap 'restore; rm -rf "$saved"' EXIT
trap 'exit 130' INT TERM

plant() {  # file find replace: exact, single occurrence
  python3 - "$1" "$2" "$3" <<'PY'
import sys
path, find, repl = sys.argv[1:]
text = open(path, encoding="utf-8").read()
n = text.count(find)
if n != 1:
    sys.exit(f"found {n} times")
open(path, "w", encoding="utf-8").write(text.replace(find, repl))
PY
}

# What the named tests run: the build's files on their command lines (test programs, lumora, the virtual desk, ...),
# and the key service, which the bus starts. Only these are rebuilt for each fault.
targets() {
  local root
  root=$(cd "$build" && pwd)
  { ctest --test-dir "$build" -N -V -R "$1" | sed -n 's/^[0-9]*: Test command: //p' | grep -o "$root/[^\" ]*" |
      sed "s|^$root/||" | grep -v '/artifacts/'; echo LumoraKeys/lumora-keys; } | sort -u
}

total=0 caught=0 failed=0
printf '%-28s %-8s %s\n' "fault" "result" "caught by"
while IFS=$'\t' read -r id file find repl tests what; do
  [[ -z "$id" || "$id" == \#* ]] && continue
  [[ "$id" =~ $only ]] || continue
  total=$((total + 1))
  cp "$file" "$saved/original"; planted=$file
  if ! why=$(plant "$file" "$find" "$repl" 2>&1); then
    result="STALE"; detail="$file: text $why"
  elif ! timeout 1200 ninja -C "$build" -j "$(nproc)" $(targets "$tests") >"$saved/build.log" 2>&1; then
    result="NOBUILD"; detail=$(grep -m1 'error' "$saved/build.log" || true)
  else
    rc=0; timeout 1500 ctest --test-dir "$build" -R "$tests" --timeout 300 -j "$(nproc)" >"$saved/test.log" 2>&1 || rc=$?
    if grep -q 'No tests were found' "$saved/test.log"; then
      result="NOTEST"; detail="no test matches $tests"
    elif [ "$rc" -eq 0 ]; then
      result="MISSED"; detail="$tests all passed: $what"
    else
      result="caught"
      detail=$(sed -n '/tests FAILED:/,$s/^[[:space:]]*[0-9]* - \([^ ]*\) .*/\1/p' "$saved/test.log" | paste -sd' ')
    fi
  fi
  restore
  [ "$result" = caught ] && caught=$((caught + 1)) || failed=$((failed + 1))
  printf '%-28s %-8s %s\n' "$id" "$result" "$detail"
done < <(cat scripts/faults/*.tsv)
echo "planted-faults: $caught of $total caught"
[ "$failed" -eq 0 ] && [ "$total" -gt 0 ]
