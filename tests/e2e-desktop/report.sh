# How an end-to-end scenario reports: steps, checks that count failures, and the closing line ctest and
# `make test-desktops` read ("1 passed, 0 failed" or "0 passed, 1 failed (...)", exit status 0 or 1). The scenario
# defines shot NAME, a screenshot kept as an artefact, which abort takes before it gives up.

FAILURES=0
step() { echo "== $*"; }
pass() { echo "   ok: $*"; }
fail() { echo "   FAIL: $*"; FAILURES=$((FAILURES + 1)); }
check() { local what=$1; shift; if "$@"; then pass "$what"; else fail "$what"; fi; }
finish()
{
    echo
    if (( FAILURES == 0 )); then echo "1 passed, 0 failed"; exit 0; fi
    echo "0 passed, 1 failed ($FAILURES checks failed)"
    exit 1
}
abort() { fail "$*"; shot "zz-abort" 2>/dev/null; finish; }
