# Shared steps of the end-to-end runs. Sourced by scripts/demo and the e2e tests,
# always inside tests/sandbox/sandbox-run (private namespaces, copies of /etc,
# tmpfs /run /home /tmp ...). Nothing here may run outside such a sandbox.

if [ "${BRACKMOOR_IN_SANDBOX:-}" != "1" ]; then
  echo "tests/e2e/lib.sh: refusing to run outside the sandbox" >&2
  exit 2
fi

E2E_ROOT=${E2E_ROOT:-$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)}
E2E_BUILD=${E2E_BUILD:-$E2E_ROOT/build}
E2E_PREFIX=/opt/brackmoor
E2E_WORK=/tmp/e2e
E2E_SSH_PORT=22
E2E_SERVICE_PORT=8443
E2E_AGENT_ID=host-0001
E2E_PASSWORD='Corr3ct-horse'
E2E_VERBOSE=${E2E_VERBOSE:-0}

E2E_FAILURES=0
E2E_STEPS=0

# One line per step: "ok   what" or "FAIL what (why)".
e2e_ok()   { E2E_STEPS=$((E2E_STEPS + 1)); printf '  ok    %s\n' "$1"; }
e2e_fail() { E2E_STEPS=$((E2E_STEPS + 1)); E2E_FAILURES=$((E2E_FAILURES + 1)); printf '  FAIL  %s\n' "$1"; [ -n "${2:-}" ] && printf '        %s\n' "$2"; return 0; }
e2e_say()  { printf '\n== %s\n' "$1"; }
e2e_log()  { [ "$E2E_VERBOSE" = 1 ] && printf '        %s\n' "$*"; return 0; }

# Runs "$@" and reports the step by its exit status.
e2e_expect_success() { local what=$1; shift; if out=$("$@" 2>&1); then e2e_ok "$what"; else e2e_fail "$what" "$(printf '%s' "$out" | tail -3 | tr '\n' ' ')"; fi; }
e2e_expect_failure() { local what=$1; shift; if out=$("$@" 2>&1); then e2e_fail "$what" "unexpectedly succeeded"; else e2e_ok "$what"; fi; }

# Polls a command until it succeeds or the deadline (seconds) passes.
e2e_wait_for() {
  local seconds=$1; shift
  local end=$((SECONDS + seconds))
  while [ $SECONDS -lt $end ]; do
    "$@" >/dev/null 2>&1 && return 0
    sleep 0.1
  done
  return 1
}

e2e_summary() {
  printf '\n%d steps, %d failed\n' "$E2E_STEPS" "$E2E_FAILURES"
  printf '%d passed, %d failed\n' "$((E2E_STEPS - E2E_FAILURES))" "$E2E_FAILURES"
  [ "$E2E_FAILURES" -eq 0 ]
}
