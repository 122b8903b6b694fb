# SPDX-License-Identifier: GPL-3.0-or-later
# How a scenario reports: steps, counted checks, and the closing line ctest and `make test-desktops` read ("1 passed,
# 0 failed" or "0 passed, 1 failed (...)", status 0 or 1). The scenario defines shot NAME, which abort takes first.
FAILURES=0
step() { echo "== $*"; }
pass() { echo "   ok: $*"; }
fail() { echo "   FAIL: $*"; FAILURES=$((FAILURES + 1)); }
check() { local what=$1; shift; if "$@"; then pass "$what"; else fail "$what"; fi; }
finish() { echo; (( FAILURES )) || { echo "1 passed, 0 failed"; exit 0; }; echo "0 passed, 1 failed ($FAILURES checks failed)"; exit 1; }
abort() { fail "$*"; shot "zz-abort" 2>/dev/null; finish; }
