#!/usr/bin/env bash
# The demo's steps, inside the sandbox (scripts/demo starts it there).
set -uo pipefail
here=$(cd "$(dirname "$0")" && pwd)
source "$here/lib.sh"
source "$here/cases.sh"
trap e2e_cleanup EXIT

show() { # show TITLE: prints standard input indented
  printf '  --- %s\n' "$1"
  sed 's/^/  | /'
}

e2e_say "Sandbox: installation, users and sshd"
e2e_install && e2e_ok "installed under $E2E_PREFIX (a tmpfs of the sandbox)"
e2e_pam_unix_nodelay
e2e_add_user alice && e2e_add_user bob && e2e_ok "users alice and bob, password '$E2E_PASSWORD'"
e2e_write_askpass
cp -a /etc/ssh/sshd_config "$E2E_WORK/sshd_config.before"
cp -a /etc/pam.d/sshd "$E2E_WORK/pam_sshd.before"
if e2e_start_sshd; then e2e_ok "sshd listens on 127.0.0.1:$E2E_SSH_PORT with a fresh host key"; else e2e_fail "sshd starts"; exit 1; fi

e2e_say "Verification service"
if e2e_start_verifyd "+1 555 123 0001"; then
  e2e_ok "brackmoor-verifyd serves https://127.0.0.1:$E2E_SERVICE_PORT with a fresh certificate"
  e2e_ok "agent $E2E_AGENT_ID registered (token printed once, kept in /etc/brackmoor/token); contact +15551230001 added"
else
  e2e_fail "verification service starts"; exit 1
fi

e2e_say "Agent in service mode"
e2e_configure_agent
e2e_write_policy 0 1 '["bob"]'
show "policy /etc/brackmoor/two_factor_authentication.json" < /etc/brackmoor/two_factor_authentication.json
if e2e_start_agent; then e2e_ok "brackmoor-agent switched the second factor on"; else
  e2e_fail "brackmoor-agent switched the second factor on" "$(tail -3 /var/log/brackmoor-agent.out)"; exit 1; fi
e2e_status | show "brackmoor-agent status"

e2e_say "What the agent changed"
diff -u "$E2E_WORK/sshd_config.before" /etc/ssh/sshd_config | grep -E '^[-+][^-+]' | show "/etc/ssh/sshd_config (changed lines)"
diff -u "$E2E_WORK/pam_sshd.before" /etc/pam.d/sshd | grep -E '^[-+][^-+]' | show "/etc/pam.d/sshd (changed lines)"
grep -v -E '^#|^$' /etc/pam.d/brackmoor-auth | show "/etc/pam.d/brackmoor-auth (without comments)"

e2e_say "Logins over ssh"
export E2E_ANSWER_PASSWORD=$E2E_PASSWORD E2E_ANSWER_CONTACT=$E2E_CONTACT_TYPED
e2e_expect_success "alice logs in: password, contact '$E2E_CONTACT_TYPED', code from the outbox" e2e_login_as alice
show "what alice was asked" < "$E2E_WORK/prompts"
ls /run/brackmoor-verifyd/outbox/*.msg 2>/dev/null | tail -1 | xargs cat | show "the message the service delivered (outbox)"
E2E_ANSWER_CODE=1000000 e2e_expect_failure "alice with a wrong code is refused" e2e_login_as alice
e2e_expect_success "bob (excluded by the policy) logs in with his password alone" e2e_login_as bob

e2e_say "Agent stopped"
if e2e_stop_agent; then e2e_ok "brackmoor-agent stopped on SIGTERM (exit 0)"; else e2e_fail "brackmoor-agent stopped on SIGTERM"; fi
[ ! -e /etc/pam.d/brackmoor-auth ] && e2e_ok "/etc/pam.d/brackmoor-auth removed" || e2e_fail "/etc/pam.d/brackmoor-auth removed"
diff <(e2e_normalised "$E2E_WORK/pam_sshd.before") <(e2e_normalised /etc/pam.d/sshd) >/dev/null \
  && e2e_ok "/etc/pam.d/sshd restored" || e2e_fail "/etc/pam.d/sshd restored"
diff <(e2e_normalised "$E2E_WORK/sshd_config.before") <(e2e_normalised /etc/ssh/sshd_config) >/dev/null \
  && e2e_ok "/etc/ssh/sshd_config restored (the keyword stays 'no', its commented 'yes' line is kept)" \
  || e2e_fail "/etc/ssh/sshd_config restored"
diff -u "$E2E_WORK/sshd_config.before" /etc/ssh/sshd_config | grep -E '^[-+][^-+]' | show "/etc/ssh/sshd_config against the original"
e2e_expect_failure "brackmoor-agent status: the second factor is no longer in force" e2e_status
E2E_SSH_METHODS=password,keyboard-interactive e2e_expect_success "alice logs in with her password alone again" e2e_login_as alice

e2e_summary
