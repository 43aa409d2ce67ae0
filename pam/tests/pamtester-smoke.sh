#!/usr/bin/env bash
# The module under pamtester, whose conversation is libpam's own terminal one
# (misc_conv): an enrolled user logs in with the current authenticator code
# once, the same code is then refused, and an excluded user passes.
# Runs only inside the sandbox (it writes /etc/pam.d and /etc/brackmoor).
#
# Usage: pamtester-smoke.sh MODULE TOTP_TOOL
set -euo pipefail
module=$1 tool=$2

if [ "${BRACKMOOR_IN_SANDBOX:-}" != 1 ]; then
  echo "run through tests/sandbox/sandbox-run; skipping" >&2
  exit 77
fi
for needed in pamtester oathtool; do
  command -v "$needed" >/dev/null || { echo "$needed is not installed; skipping" >&2; exit 77; }
done

echo "auth required $module refresh_time=301 echo=0 local=1 exclude_user_list=root" >/etc/pam.d/brackmoor-smoke
secret=$("$tool" enrol daemon | sed -n 's/.*[?&]secret=\([A-Z2-7]*\).*/\1/p')
code=$(oathtool --totp --base32 "$secret")

echo "$code" | pamtester brackmoor-smoke daemon authenticate
if printf '%s\n%s\n%s\n' "$code" "$code" "$code" | pamtester brackmoor-smoke daemon authenticate; then
  echo "FAIL: a used code was accepted again" >&2
  exit 1
fi
pamtester brackmoor-smoke root authenticate </dev/null
if pamtester brackmoor-smoke bin authenticate </dev/null; then
  echo "FAIL: a user without a secret was accepted" >&2
  exit 1
fi
echo "pamtester smoke test passed"
