#!/usr/bin/env bash
# scripts/setup against stand-ins for dpkg-query and apt-get: for every mix
# of packages missing or present, policy-rc.d present or absent and apt-get
# succeeding or failing, its exit status, whether it installed, and that it
# leaves policy-rc.d exactly as it found it (present during the install).
set -uo pipefail
setup=$(cd "$(dirname "$0")/../.." && pwd)/scripts/setup
if [ "$(id -u)" -ne 0 ]; then
  echo "setup_test: scripts/setup refuses to run without root; skipping" >&2
  exit 77
fi

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir "$work/bin"
# dpkg-query: every package installed unless STUB_MISSING is set.
cat > "$work/bin/dpkg-query" <<'STUB'
#!/bin/sh
[ -n "${STUB_MISSING:-}" ] && exit 1
printf 'install ok installed'
STUB
# apt-get: records each call and, at install time, whether policy-rc.d
# forbade service starts; fails the install when STUB_APT_FAILS is set.
cat > "$work/bin/apt-get" <<'STUB'
#!/bin/sh
echo "$1" >> "$STUB_LOG"
if [ "$1" = install ]; then
  if grep -qx 'exit 101' "$BRACKMOOR_POLICY_RC_D" 2>/dev/null && [ -x "$BRACKMOOR_POLICY_RC_D" ]; then
    echo policy-in-force >> "$STUB_LOG"
  fi
  [ -n "${STUB_APT_FAILS:-}" ] && exit 100
fi
exit 0
STUB
chmod 755 "$work/bin/"*

failed=0
# name | packages missing | policy-rc.d before | apt-get fails | expected status | expected apt calls
cases=(
  "all present, no policy-rc.d|      |absent |    |0|"
  "all present, policy-rc.d  |      |present|    |0|"
  "missing, no policy-rc.d   |yes   |absent |    |0|update install policy-in-force"
  "missing, policy-rc.d      |yes   |present|    |0|update install policy-in-force"
  "apt fails, no policy-rc.d |yes   |absent |yes |1|update install policy-in-force"
  "apt fails, policy-rc.d    |yes   |present|yes |1|update install policy-in-force"
)
for row in "${cases[@]}"; do
  IFS='|' read -r name missing policy fails want_status want_calls <<<"$row"
  name=$(echo $name); missing=$(echo $missing); policy=$(echo $policy); fails=$(echo $fails)
  dir=$(mktemp -d "$work/case.XXXX")
  export BRACKMOOR_POLICY_RC_D="$dir/policy-rc.d" STUB_LOG="$dir/calls"
  : > "$STUB_LOG"
  if [ "$policy" = present ]; then
    printf '#!/bin/sh\n# the administrator'"'"'s own\nexit 0\n' > "$BRACKMOOR_POLICY_RC_D"
    chmod 700 "$BRACKMOOR_POLICY_RC_D"
  fi
  before=$(stat -c '%a %s' "$BRACKMOOR_POLICY_RC_D" 2>/dev/null; cat "$BRACKMOOR_POLICY_RC_D" 2>/dev/null)

  PATH="$work/bin:$PATH" STUB_MISSING="$missing" STUB_APT_FAILS="$fails" "$setup" >"$dir/out" 2>&1
  status=$?
  after=$(stat -c '%a %s' "$BRACKMOOR_POLICY_RC_D" 2>/dev/null; cat "$BRACKMOOR_POLICY_RC_D" 2>/dev/null)
  calls=$(tr '\n' ' ' < "$STUB_LOG" | sed 's/ $//')

  problems=()
  if [ "$want_status" = 0 ]; then
    [ "$status" -eq 0 ] || problems+=("exit status $status, wanted 0")
  else
    [ "$status" -ne 0 ] || problems+=("exit status 0, wanted a failure")
  fi
  # Only when setup made its own policy-rc.d is it in force during the install;
  # an administrator's own file is left alone whatever it says.
  [ "$policy" = present ] && want_calls=${want_calls/ policy-in-force/}
  [ "$calls" = "$want_calls" ] || problems+=("apt-get calls '$calls', wanted '$want_calls'")
  [ "$before" = "$after" ] || problems+=("policy-rc.d changed: before '$before', after '$after'")
  if [ ${#problems[@]} -eq 0 ]; then
    echo "ok    $name"
  else
    failed=$((failed + 1))
    echo "FAIL  $name: ${problems[*]}"
    sed 's/^/      setup: /' "$dir/out"
  fi
done
echo "setup_test: ${#cases[@]} cases, $failed failed"
exit "$failed"
