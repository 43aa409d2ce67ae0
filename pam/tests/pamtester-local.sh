#!/usr/bin/env bash
# Local mode under pamtester, whose conversation is libpam's own terminal one
# (misc_conv), with codes made by oathtool, an implementation of its own:
# every algorithm, period and digit count, counter-based tokens, recovery
# codes, the failure limit, users without a secret, two logins at once with
# one code, and pam_unix before the module with a wrong password.
# Runs only inside the sandbox (it writes /etc/pam.d, /etc/brackmoor, users).
#
# Usage: pamtester-local.sh MODULE TOTP_TOOL
set -euo pipefail
module=$1 tool=$2

if [ "${BRACKMOOR_IN_SANDBOX:-}" != 1 ]; then
  echo "run through tests/sandbox/sandbox-run; skipping" >&2
  exit 77
fi
for needed in pamtester oathtool; do
  command -v "$needed" >/dev/null || { echo "$needed is not installed; skipping" >&2; exit 77; }
done

failures=0
check() { # check WHAT COMMAND...: reports whether the command succeeded
  local what=$1; shift
  if "$@"; then echo "ok    $what"; else echo "FAIL  $what"; failures=$((failures + 1)); fi
}
refused() { ! "$@"; }
shows() { grep -qF -- "$1" <<<"$out"; }
# login USER ANSWER...: one pamtester login typing the answers in turn; what it showed is in $out.
login() { local user=$1; shift; out=$(printf '%s\n' "$@" | pamtester brackmoor-local "$user" authenticate 2>&1); }
enrol() { enrolled=$("$tool" enrol "$@"); uri=$(grep '^otpauth://' <<<"$enrolled"); secret=$(sed 's/.*[?&]secret=\([A-Z2-7]*\).*/\1/' <<<"$uri"); }
recovery_code() { sed -n "/^Recovery codes/,\$p" <<<"$1" | sed -n "$(($2 + 1))s/^ *//p"; }

echo "auth required $module refresh_time=301 echo=0 local=1 exclude_user_list=root" >/etc/pam.d/brackmoor-local
rm -f /etc/brackmoor/pam.conf

for algorithm in SHA1 SHA256 SHA512; do
  for digits in 6 8; do
    for period in 30 60; do
      what="$algorithm, $digits digits, $period s"
      enrol daemon --algorithm $algorithm --digits $digits --period $period --issuer 'ACME Ops'
      check "$what: the URI carries the settings" grep -q "^otpauth://totp/ACME%20Ops:daemon%40.*&issuer=ACME%20Ops&algorithm=$algorithm&digits=$digits&period=$period\$" <<<"$uri"
      code=$(oathtool --totp=$algorithm --digits=$digits --time-step-size=${period}s -b "$secret")
      check "$what: oathtool's code logs in" login daemon "$code"
      check "$what: only once" refused login daemon "$code"
    done
  done
done
check "show prints the URI again, with the issuer" test "$("$tool" show daemon)" = "$uri"

enrol daemon --hotp
hotp() { oathtool --hotp -b -c "$1" "$secret"; }
check "token: a code ten presses ahead logs in" login daemon "$(hotp 10)"
check "token: an earlier one is refused" refused login daemon "$(hotp 3)"
check "token: eleven presses ahead is refused" refused login daemon "$(hotp 22)"
check "token: ten ahead of the last login is accepted" login daemon "$(hotp 21)"
check "token: show gives the counter" grep -q '&counter=22$' <<<"$("$tool" show daemon)"

enrol daemon
check "a recovery code logs in" login daemon "$(recovery_code "$enrolled" 1)"
check "and tells how many are left" shows "Recovery code accepted; codes left: 9."
check "a recovery code works once" refused login daemon "$(recovery_code "$enrolled" 1)"
renewed=$("$tool" codes daemon)
check "a new set voids the old one" refused login daemon "$(recovery_code "$enrolled" 2)"
check "a code of the new set logs in" login daemon "$(recovery_code "$renewed" 2)"

printf 'max_failures = 3\nfailure_window = 600\n' >/etc/brackmoor/pam.conf
check "three wrong codes reach the limit" refused login daemon 000000 11111111 222222
check "the limit is told" shows "Too many wrong codes; try again in 10 minutes."
check "the right code is refused while locked" refused login daemon "$(oathtool --totp -b "$secret")"
check "and the refusal is told before asking" shows "Too many wrong codes; try again in 10 minutes."
check "a user without a secret is asked like everyone" refused login bin 123456 654321 11111111
check "and gets the same answers" shows "Wrong authenticator code."
check "and the same limit" refused login bin 123456
check "told the same way" shows "Too many wrong codes; try again in 10 minutes."
printf 'allow_unenrolled = 1\n' >/etc/brackmoor/pam.conf
check "during a rollout, a user without a secret logs in" login bin
check "with a warning" shows "No authenticator is set up for this account yet"
check "while enrolled users still need their code" refused login daemon
rm /etc/brackmoor/pam.conf

# Two logins at once with one code: exactly one gets in. Both wait at the
# prompt until the code is typed into both at the same moment.
prompted() { grep -q 'Authenticator code' /tmp/race.out1 && grep -q 'Authenticator code' /tmp/race.out2; }
split=0
for _ in $(seq 20); do
  enrol daemon
  rm -f /tmp/race.in1 /tmp/race.in2 /tmp/race.out1 /tmp/race.out2 && mkfifo /tmp/race.in1 /tmp/race.in2
  pamtester brackmoor-local daemon authenticate </tmp/race.in1 >/tmp/race.out1 2>&1 & first=$!
  exec 3>/tmp/race.in1
  pamtester brackmoor-local daemon authenticate </tmp/race.in2 >/tmp/race.out2 2>&1 & second=$!
  exec 4>/tmp/race.in2
  for _ in $(seq 100); do prompted && break; sleep 0.05; done
  code=$(oathtool --totp -b "$secret")
  echo "$code" >&3; echo "$code" >&4; exec 3>&- 4>&-
  wins=0
  wait $first && wins=$((wins + 1))
  wait $second && wins=$((wins + 1))
  [ $wins = 1 ] || split=$((split + 1))
done
check "one code typed into two logins at once: exactly one gets in, 20 rounds" test $split = 0

useradd -M carol && echo 'carol:Right-1st' | chpasswd
cat >/etc/pam.d/brackmoor-local <<PAM
auth required pam_unix.so nodelay
auth [success=1 default=ignore] $module local=1
auth requisite pam_deny.so
auth required pam_permit.so
PAM
enrol carol
check "pam_unix first: a wrong password is refused" refused login carol wrong "$(oathtool --totp -b "$secret")"
check "without asking for a code" refused shows "Authenticator code"
check "the right password and code log in" login carol Right-1st "$(oathtool --totp -b "$secret")"

[ $failures = 0 ] && echo "pamtester local mode: all passed" || { echo "pamtester local mode: $failures failed"; exit 1; }
