# End-to-end cases. Each runs in a sandbox of its own (tests/e2e/run-case).

E2E_CONTACT_TYPED='+1 555 123 0001'
E2E_CONTACT_MAIL='Alice@Example.org'

# sshd with the machine's configuration, users alice (second factor) and bob
# (excluded), the verification service knowing alice's contacts, and the
# agent in service mode.
e2e_service_mode_setup() {
  e2e_install
  e2e_pam_unix_nodelay
  e2e_add_user alice
  e2e_add_user bob
  e2e_write_askpass
  cp -a /etc/ssh/sshd_config "$E2E_WORK/sshd_config.before"
  cp -a /etc/pam.d/sshd "$E2E_WORK/pam_sshd.before"
  e2e_start_sshd || { e2e_fail "sshd starts"; return 1; }
  e2e_start_verifyd "+15551230001" "$E2E_CONTACT_MAIL" || { e2e_fail "verification service starts"; return 1; }
  e2e_configure_agent
  e2e_write_policy 0 1 '["bob"]'
  if e2e_start_agent; then e2e_ok "agent switched the second factor on"; else
    e2e_fail "agent switched the second factor on" "$(tail -5 /var/log/brackmoor-agent.out)"; return 1; fi
  export E2E_ANSWER_PASSWORD=$E2E_PASSWORD
}

e2e_login_as() { # e2e_login_as USER: succeeds when the remote command ran as USER
  local out
  : > "$E2E_WORK/prompts"
  out=$(e2e_ssh "$1" 2>"$E2E_WORK/ssh.err")
  [ "$out" = "logged-in-as-$1" ] && return 0
  tr '\n' ' ' < "$E2E_WORK/ssh.err"
  return 1
}

e2e_prompt_count() { grep -c "$1" "$E2E_WORK/prompts" 2>/dev/null || true; }

# Files as they would be after a switch-off: the same lines, trimmed, with
# the keyword's counterpart line that switching leaves behind removed.
e2e_normalised() { sed -e 's/^[[:space:]]*//' -e 's/[[:space:]]*$//' "$1" | grep -v -E '^#(ChallengeResponse|KbdInteractive)Authentication yes$'; }

case_right_code() {
  e2e_service_mode_setup || return
  export E2E_ANSWER_CONTACT=$E2E_CONTACT_TYPED
  e2e_expect_success "alice logs in with password, contact and the code from the outbox" e2e_login_as alice
  [ "$(e2e_prompt_count 'Verification code for login reference')" = 1 ] && e2e_ok "one code prompt" || e2e_fail "one code prompt"
  export E2E_ANSWER_CONTACT=$E2E_CONTACT_MAIL
  e2e_expect_success "the registered mail address, typed in another case, works as well" e2e_login_as alice
}

case_wrong_code() {
  e2e_service_mode_setup || return
  export E2E_ANSWER_CONTACT=$E2E_CONTACT_TYPED E2E_ANSWER_CODE=1000000
  e2e_expect_failure "a wrong code is refused" e2e_login_as alice
}

case_wrong_password() {
  e2e_service_mode_setup || return
  export E2E_ANSWER_PASSWORD=wrong E2E_ANSWER_CONTACT=$E2E_CONTACT_TYPED
  e2e_expect_failure "a wrong password is refused" e2e_login_as alice
  [ "$(e2e_prompt_count 'Phone number')" = 0 ] && e2e_ok "no contact was asked for" || e2e_fail "no contact was asked for"
  local sent
  sent=$(find /run/brackmoor-verifyd/outbox -name '*.msg' 2>/dev/null | wc -l)
  [ "$sent" = 0 ] && e2e_ok "no message in the outbox" || e2e_fail "no message in the outbox" "$sent sent"
}

case_unlisted_contact() {
  e2e_service_mode_setup || return
  export E2E_ANSWER_CONTACT='+15559999999'
  e2e_expect_failure "an unlisted contact is refused" e2e_login_as alice
  local asked
  asked=$(e2e_prompt_count 'Phone number or mail address')
  [ "$asked" = 3 ] && e2e_ok "asked three times" || e2e_fail "asked three times" "asked $asked times"
  [ "$(e2e_prompt_count 'Verification code')" = 0 ] && e2e_ok "no code was asked for" || e2e_fail "no code was asked for"
}

case_excluded_user() {
  e2e_service_mode_setup || return
  e2e_expect_success "bob (excluded) logs in with the password alone" e2e_login_as bob
  [ "$(e2e_prompt_count 'Phone number')" = 0 ] && e2e_ok "bob was not asked for a contact" || e2e_fail "bob was not asked for a contact"
}

case_service_down() {
  E2E_HTTP_TIMEOUT=3
  e2e_service_mode_setup || return
  # The service stops answering: connections are accepted by the kernel, no TLS follows.
  kill -STOP "$E2E_VERIFYD_PID"
  export E2E_ANSWER_CONTACT=$E2E_CONTACT_TYPED
  local start=$SECONDS
  e2e_expect_failure "with the service not answering, the login is refused" e2e_login_as alice
  local took=$((SECONDS - start))
  [ $took -le 20 ] && e2e_ok "refused within ${took}s (HTTP time-out 3 s)" || e2e_fail "refused in time" "took ${took}s"
  # The client hands the message to the askpass program together with the closing prompt.
  grep -q 'The verification service is unavailable; login refused' "$E2E_WORK/prompts" \
    && e2e_ok "the user is told the service is unavailable" \
    || e2e_fail "the user is told the service is unavailable" "$(tr '\n' ' ' < "$E2E_WORK/prompts")"
  kill -CONT "$E2E_VERIFYD_PID"
}

case_agent_stopped() {
  e2e_service_mode_setup || return
  e2e_expect_success "status: in force while the agent runs" e2e_status
  if e2e_stop_agent; then e2e_ok "agent exits 0 on SIGTERM"; else e2e_fail "agent exits 0 on SIGTERM"; fi
  e2e_expect_failure "status: not in force after the agent stopped" e2e_status
  [ ! -e /etc/pam.d/brackmoor-auth ] && e2e_ok "include file removed" || e2e_fail "include file removed"
  ls /lib/*/security/pam_brackmoor.so /lib64/security/pam_brackmoor.so >/dev/null 2>&1 \
    && e2e_fail "module copies removed" || e2e_ok "module copies removed"
  diff <(e2e_normalised "$E2E_WORK/pam_sshd.before") <(e2e_normalised /etc/pam.d/sshd) >/dev/null \
    && e2e_ok "/etc/pam.d/sshd restored" || e2e_fail "/etc/pam.d/sshd restored" "$(diff "$E2E_WORK/pam_sshd.before" /etc/pam.d/sshd | head -5)"
  diff <(e2e_normalised "$E2E_WORK/sshd_config.before") <(e2e_normalised /etc/ssh/sshd_config) >/dev/null \
    && e2e_ok "sshd_config restored" || e2e_fail "sshd_config restored" "$(diff "$E2E_WORK/sshd_config.before" /etc/ssh/sshd_config | head -5)"
  E2E_SSH_METHODS=password,keyboard-interactive e2e_expect_success "alice logs in with the password alone again" e2e_login_as alice
}

case_local_totp() {
  e2e_install
  e2e_pam_unix_nodelay
  e2e_add_user alice
  e2e_write_askpass
  e2e_start_sshd || { e2e_fail "sshd starts"; return; }
  "$E2E_PREFIX/bin/brackmoor-totp" enrol alice >"$E2E_WORK/enrol.out" 2>&1 || { e2e_fail "enrol alice"; return; }
  local base32
  base32=$(grep -o 'secret=[A-Z2-7]*' "$E2E_WORK/enrol.out" | head -1 | cut -d= -f2)
  export E2E_TOTP_SECRET_HEX
  E2E_TOTP_SECRET_HEX=$(oathtool --totp -b -v "$base32" 2>/dev/null | sed -n 's/^Hex secret: //p')
  e2e_configure_agent
  e2e_write_policy 1 0 '[]'
  if e2e_start_agent; then e2e_ok "agent switched the second factor on (local mode)"; else e2e_fail "agent switched on (local mode)"; return; fi
  export E2E_ANSWER_PASSWORD=$E2E_PASSWORD
  e2e_expect_success "alice logs in with password and an authenticator code" e2e_login_as alice
  export E2E_ANSWER_CODE=000000
  e2e_expect_failure "a wrong authenticator code is refused" e2e_login_as alice
}

case_sighup_policy() {
  e2e_service_mode_setup || return
  export E2E_ANSWER_CONTACT=$E2E_CONTACT_TYPED
  e2e_write_policy 0 1 '["bob", "alice"]'
  e2e_reload_policy && grep -q 'exclude_user_list=bob;alice' /etc/pam.d/brackmoor-auth \
    && e2e_ok "SIGHUP pushed the changed policy" || e2e_fail "SIGHUP pushed the changed policy"
  e2e_expect_success "alice, now excluded, logs in with the password alone" e2e_login_as alice
  [ "$(e2e_prompt_count 'Phone number')" = 0 ] && e2e_ok "alice was not asked for a contact" || e2e_fail "alice was not asked for a contact"
}

# A Red Hat style stack (substack password-auth, pam_unix sufficient), built
# from modules this machine has.
e2e_write_rhel_stack() {
  cat > /etc/pam.d/password-auth <<'PAM'
auth        required      pam_env.so
auth        required      pam_faildelay.so delay=0
auth        sufficient    pam_unix.so nodelay nullok
auth        required      pam_deny.so

account     required      pam_unix.so

password    sufficient    pam_unix.so yescrypt shadow nullok use_authtok
password    required      pam_deny.so

session     optional      pam_keyinit.so revoke
session     required      pam_limits.so
session     required      pam_unix.so
PAM
  cat > /etc/pam.d/sshd <<'PAM'
#%PAM-1.0
auth       substack     password-auth
auth       include      postlogin
account    required     pam_nologin.so
account    include      password-auth
password   include      password-auth
session    required     pam_loginuid.so
session    include      password-auth
PAM
  printf 'auth optional pam_permit.so\nsession optional pam_permit.so\n' > /etc/pam.d/postlogin
}

case_rhel_stack() {
  e2e_install
  e2e_add_user alice
  e2e_write_askpass
  e2e_write_rhel_stack
  cp -a /etc/pam.d/sshd "$E2E_WORK/pam_sshd.before"
  e2e_start_sshd || { e2e_fail "sshd starts"; return; }
  e2e_start_verifyd "+15551230001" || { e2e_fail "verification service starts"; return; }
  e2e_configure_agent
  e2e_write_policy 0 1 '[]'
  if e2e_start_agent; then e2e_ok "agent switched on a Red Hat style stack"; else e2e_fail "agent switched on a Red Hat style stack"; return; fi
  grep -q '^auth	substack	brackmoor-auth$' /etc/pam.d/sshd && e2e_ok "sshd service file includes brackmoor-auth" || e2e_fail "sshd service file includes brackmoor-auth"
  grep -q '^auth sufficient pam_brackmoor.so ' /etc/pam.d/brackmoor-auth && e2e_ok "module line in the sufficient form" || e2e_fail "module line in the sufficient form"
  export E2E_ANSWER_PASSWORD=$E2E_PASSWORD E2E_ANSWER_CONTACT=$E2E_CONTACT_TYPED
  e2e_expect_success "alice logs in with the second factor" e2e_login_as alice
  export E2E_ANSWER_CODE=1000000
  e2e_expect_failure "a wrong code is refused" e2e_login_as alice
  unset E2E_ANSWER_CODE
  export E2E_ANSWER_PASSWORD=wrong
  e2e_expect_failure "a wrong password is refused" e2e_login_as alice
  e2e_stop_agent
  diff <(e2e_normalised "$E2E_WORK/pam_sshd.before") <(e2e_normalised /etc/pam.d/sshd) >/dev/null \
    && e2e_ok "/etc/pam.d/sshd restored" || e2e_fail "/etc/pam.d/sshd restored"
}

case_challenge_response_keyword() {
  # An older configuration naming the keyword ChallengeResponseAuthentication.
  sed -i -E 's/^[#[:space:]]*KbdInteractiveAuthentication.*$/ChallengeResponseAuthentication no/' /etc/ssh/sshd_config
  grep -q '^ChallengeResponseAuthentication no$' /etc/ssh/sshd_config || echo 'ChallengeResponseAuthentication no' >> /etc/ssh/sshd_config
  e2e_service_mode_setup || return
  grep -q '^ChallengeResponseAuthentication yes$' /etc/ssh/sshd_config && e2e_ok "ChallengeResponseAuthentication switched on" \
    || e2e_fail "ChallengeResponseAuthentication switched on"
  grep -q -E '^#?KbdInteractiveAuthentication (yes|no)$' /etc/ssh/sshd_config && e2e_fail "KbdInteractiveAuthentication untouched" \
    || e2e_ok "KbdInteractiveAuthentication untouched"
  export E2E_ANSWER_CONTACT=$E2E_CONTACT_TYPED
  e2e_expect_success "alice logs in with the second factor" e2e_login_as alice
}

case_kbdinteractive_keyword() {
  sed -i -E 's/^[#[:space:]]*(KbdInteractive|ChallengeResponse)Authentication.*$//' /etc/ssh/sshd_config
  echo 'KbdInteractiveAuthentication no' >> /etc/ssh/sshd_config
  e2e_service_mode_setup || return
  grep -q '^KbdInteractiveAuthentication yes$' /etc/ssh/sshd_config && grep -q '^#KbdInteractiveAuthentication no$' /etc/ssh/sshd_config \
    && e2e_ok "KbdInteractiveAuthentication switched on" || e2e_fail "KbdInteractiveAuthentication switched on"
  export E2E_ANSWER_CONTACT=$E2E_CONTACT_TYPED
  e2e_expect_success "alice logs in with the second factor" e2e_login_as alice
}

# A benchmark, not a test (run by hand, see docs/benchmarks.md): PAIRS pairs
# of logins, one of excluded bob (password alone) and one of alice (password,
# contact, code), their order alternating from pair to pair; the median and
# quartiles of each kind and of the difference within a pair.
case_timing() {
  e2e_service_mode_setup || return
  export E2E_ANSWER_CONTACT=$E2E_CONTACT_TYPED
  local pairs=${E2E_TIMING_PAIRS:-30} i user start times=$E2E_WORK/times
  : > "$times"
  echo "  load before: $(cut -d' ' -f1-3 /proc/loadavg)"
  for i in $(seq "$pairs"); do
    for user in $( [ $((i % 2)) = 0 ] && echo "bob alice" || echo "alice bob"); do
      start=$(date +%s%N)
      e2e_login_as "$user" >/dev/null || { e2e_fail "timed login of $user"; return; }
      echo "$i $user $(( ($(date +%s%N) - start) / 1000 ))" >> "$times"
    done
  done
  echo "  load after:  $(cut -d' ' -f1-3 /proc/loadavg)"
  # Median and quartiles (nearest rank) of a column of numbers, in ms.
  quartiles() { sort -n | awk '{ v[NR] = $1 } END { printf "%.1f (%.1f .. %.1f)", v[int((NR + 1) / 2)] / 1000,
                                  v[int((NR + 3) / 4)] / 1000, v[int((3 * NR + 3) / 4)] / 1000 }'; }
  echo "  | login | median ms (interquartile range) | pairs |"
  echo "  |---|---|---|"
  echo "  | password alone (bob, excluded) | $(awk '$2 == "bob" { print $3 }' "$times" | quartiles) | $pairs |"
  echo "  | password + contact + code (alice) | $(awk '$2 == "alice" { print $3 }' "$times" | quartiles) | $pairs |"
  echo "  | difference within a pair | $(awk '{ t[$1, $2] = $3; n[$1] = 1 } END { for (i in n) print t[i, "alice"] - t[i, "bob"] }' \
      "$times" | quartiles) | $pairs |"
  e2e_ok "timed $pairs pairs of logins"
}

# sshd's password method runs the same PAM stack but cannot answer the
# module's prompts: a user who is not excluded cannot log in that way, and
# no code is requested; an excluded user can. The status command says so.
case_password_method() {
  e2e_service_mode_setup || return
  local before
  before=$(ls /run/brackmoor-verifyd/outbox 2>/dev/null | wc -l)
  E2E_SSH_METHODS=password e2e_expect_failure "alice cannot log in by the password method" e2e_login_as alice
  [ "$(ls /run/brackmoor-verifyd/outbox 2>/dev/null | wc -l)" = "$before" ] \
    && e2e_ok "no code was sent for the password method" || e2e_fail "no code was sent for the password method"
  E2E_SSH_METHODS=password e2e_expect_success "excluded bob logs in by the password method" e2e_login_as bob
  local status
  status=$("$E2E_PREFIX/bin/brackmoor-agent" status --config /etc/brackmoor/agent.conf --user alice 2>&1)
  printf '%s\n' "$status" | grep -q 'passwordauthentication yes for alice, from .*: the password method runs the same PAM stack' \
    && e2e_ok "status explains the password method" || e2e_fail "status explains the password method" "$status"
}
