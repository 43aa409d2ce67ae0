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

# --- installation ------------------------------------------------------------

# Installs the built project under /opt/brackmoor, on a tmpfs private to the sandbox.
e2e_install() {
  mount -t tmpfs -o mode=0755 e2e-opt /opt
  cmake --install "$E2E_BUILD" --prefix "$E2E_PREFIX" >/dev/null
  mkdir -p "$E2E_WORK"
  chmod 0700 "$E2E_WORK"
}

# --- users -------------------------------------------------------------------

# e2e_add_user NAME: a local user with the common test password.
e2e_add_user() {
  useradd -m -s /bin/sh "$1"
  echo "$1:$E2E_PASSWORD" | chpasswd
}

# pam_unix waits about 2 s after every failure; the sandbox's stack skips that.
e2e_pam_unix_nodelay() {
  local file
  for file in /etc/pam.d/common-auth /etc/pam.d/password-auth; do
    [ -f "$file" ] || continue
    sed -i '/pam_unix\.so/{/nodelay/!s/pam_unix\.so/pam_unix.so nodelay/}' "$file"
  done
}

# --- sshd ----------------------------------------------------------------------

# Fresh host key, known_hosts for the client, sshd in the foreground on 127.0.0.1.
e2e_start_sshd() {
  rm -f /etc/ssh/ssh_host_*
  ssh-keygen -q -t ed25519 -N '' -f /etc/ssh/ssh_host_ed25519_key
  echo "127.0.0.1 $(cut -d' ' -f1,2 /etc/ssh/ssh_host_ed25519_key.pub)" > "$E2E_WORK/known_hosts"
  mkdir -p /run/sshd
  /usr/sbin/sshd -D -e -o ListenAddress=127.0.0.1 -o Port=$E2E_SSH_PORT \
    -o HostKey=/etc/ssh/ssh_host_ed25519_key 2>>/var/log/sshd.log &
  E2E_SSHD_PID=$!
  e2e_wait_for 10 bash -c "exec 3<>/dev/tcp/127.0.0.1/$E2E_SSH_PORT"
}

# --- verification service --------------------------------------------------------

# Certificate, configuration, database with one agent and its contacts; starts
# the service on 127.0.0.1:$E2E_SERVICE_PORT. e2e_start_verifyd CONTACT...
e2e_start_verifyd() {
  local dir=/etc/brackmoor-verifyd
  mkdir -p "$dir" /run/brackmoor-verifyd
  openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 2 \
    -keyout "$dir/verifyd.key" -out "$dir/verifyd.crt" -subj /CN=localhost \
    -addext subjectAltName=DNS:localhost,IP:127.0.0.1 \
    -addext basicConstraints=critical,CA:TRUE 2>/dev/null
  cat > "$dir/verifyd.ini" <<INI
[server]
address = 127.0.0.1
port = $E2E_SERVICE_PORT
threads = 4

[tls]
certificate = $dir/verifyd.crt
private_key = $dir/verifyd.key

[database]
path = /run/brackmoor-verifyd/verifyd.db

[outbox]
directory = /run/brackmoor-verifyd/outbox

[limits]
codes_per_minute = 30
codes_per_hour = 300

[log]
file = /var/log/brackmoor-verifyd.log
INI
  E2E_VERIFYD="$E2E_PREFIX/bin/brackmoor-verifyd --config $dir/verifyd.ini"
  E2E_TOKEN=$($E2E_VERIFYD agent add "$E2E_AGENT_ID" 2>/dev/null | head -1)
  [ -n "$E2E_TOKEN" ] || return 1
  local contact
  for contact in "$@"; do
    $E2E_VERIFYD contact add "$E2E_AGENT_ID" "$contact" >/dev/null 2>&1 || return 1
  done
  $E2E_VERIFYD serve >>/var/log/brackmoor-verifyd.out 2>&1 &
  E2E_VERIFYD_PID=$!
  e2e_wait_for 10 bash -c "exec 3<>/dev/tcp/127.0.0.1/$E2E_SERVICE_PORT"
}

e2e_stop_verifyd() {
  [ -n "${E2E_VERIFYD_PID:-}" ] || return 0
  kill -CONT "$E2E_VERIFYD_PID" 2>/dev/null  # a test may have stopped it
  kill "$E2E_VERIFYD_PID" 2>/dev/null
  wait "$E2E_VERIFYD_PID" 2>/dev/null
  E2E_VERIFYD_PID=
}

# --- agent -----------------------------------------------------------------------

# e2e_write_policy LOCAL ECHO EXCLUDED_USERS_JSON_ARRAY
e2e_write_policy() {
  printf '{"content": {"refresh_time": 300, "echo": %s, "local": %s, "exclude_user_list": %s}}\n' \
    "$2" "$1" "$3" > /etc/brackmoor/two_factor_authentication.json
  chmod 0644 /etc/brackmoor/two_factor_authentication.json
}

e2e_configure_agent() {
  mkdir -p /etc/brackmoor
  chmod 0755 /etc/brackmoor
  printf '%s\n' "${E2E_TOKEN:-no-token}" > /etc/brackmoor/token
  chmod 0600 /etc/brackmoor/token
  cp /etc/brackmoor-verifyd/verifyd.crt /etc/brackmoor/ca.pem 2>/dev/null || : > /etc/brackmoor/ca.pem
  cat > /etc/brackmoor/agent.conf <<INI
[agent]
id = $E2E_AGENT_ID
installation_path = $E2E_PREFIX/

[service]
address = 127.0.0.1:$E2E_SERVICE_PORT
ca_file = /etc/brackmoor/ca.pem
auth_token_file = /etc/brackmoor/token
connect_timeout = ${E2E_HTTP_TIMEOUT:-10}
read_timeout = ${E2E_HTTP_TIMEOUT:-10}

[log]
dir = /var/log/brackmoor
level = debug

[policy.two_factor_authentication]
file = /etc/brackmoor/two_factor_authentication.json
module = two_factor_authentication_module
callback = 10001
feature = two_factor_authentication_feature
INI
  chmod 0644 /etc/brackmoor/agent.conf
}

e2e_status() {
  "$E2E_PREFIX/bin/brackmoor-agent" status --config /etc/brackmoor/agent.conf
}

# How often sshd has started listening so far: the agent's restart script
# makes it re-execute itself (SIGHUP), which closes and reopens its socket.
e2e_sshd_listens() { grep -c 'Server listening on' /var/log/sshd.log 2>/dev/null || echo 0; }

# Waits until sshd listens again after more than BEFORE starts.
e2e_wait_sshd_reloaded() {
  local before=$1
  [ -n "${E2E_SSHD_PID:-}" ] || return 0
  e2e_wait_for 10 bash -c "[ \$(grep -c 'Server listening on' /var/log/sshd.log) -gt $before ]"
}

# Starts the agent and waits until the second factor is in force and sshd
# has reloaded its configuration.
e2e_start_agent() {
  local listens
  listens=$(e2e_sshd_listens)
  "$E2E_PREFIX/bin/brackmoor-agent" --config /etc/brackmoor/agent.conf --foreground \
    >>/var/log/brackmoor-agent.out 2>&1 &
  E2E_AGENT_PID=$!
  e2e_wait_for 20 e2e_status && e2e_wait_sshd_reloaded "$listens"
}

# Pushes the changed policy file (SIGHUP) and waits until the task has
# restarted with it: sshd reloads twice (switch-off, switch-on).
e2e_reload_policy() {
  local listens
  listens=$(e2e_sshd_listens)
  kill -HUP "$E2E_AGENT_PID"
  e2e_wait_sshd_reloaded $((listens + 1)) && e2e_wait_for 20 e2e_status
}

e2e_stop_agent() {
  [ -n "${E2E_AGENT_PID:-}" ] || return 0
  local listens
  listens=$(e2e_sshd_listens)
  kill -TERM "$E2E_AGENT_PID" 2>/dev/null
  wait "$E2E_AGENT_PID" 2>/dev/null
  local status=$?
  E2E_AGENT_PID=
  e2e_wait_sshd_reloaded "$listens"
  return $status
}

# --- logins ------------------------------------------------------------------------

# The SSH_ASKPASS program: answers each keyboard-interactive prompt by its
# text. The code is read from the newest outbox message for the login
# reference named in the prompt, unless E2E_ANSWER_CODE says otherwise.
e2e_write_askpass() {
  cat > "$E2E_WORK/askpass" <<'SH'
#!/bin/bash
prompt=$1
echo "$prompt" >> "$E2E_WORK/prompts"
case "$prompt" in
  *"Phone number or mail address"*) printf '%s\n' "$E2E_ANSWER_CONTACT" ;;
  *"Verification code for login reference"*)
    if [ -n "${E2E_ANSWER_CODE:-}" ]; then printf '%s\n' "$E2E_ANSWER_CODE"; exit 0; fi
    ref=$(printf '%s' "$prompt" | grep -o '[0-9]\+' | tail -1)
    file=$(grep -l "for login reference $ref\$" /run/brackmoor-verifyd/outbox/*.msg 2>/dev/null | sort | tail -1)
    sed -n 's/.*verification code \([0-9]*\) for login reference.*/\1/p' "$file" ;;
  *"Authenticator code"*)
    if [ -n "${E2E_ANSWER_CODE:-}" ]; then printf '%s\n' "$E2E_ANSWER_CODE"; exit 0; fi
    oathtool --totp "$E2E_TOTP_SECRET_HEX" ;;
  *"Press Enter to close"*) echo ;;
  *[Pp]assword*) printf '%s\n' "${E2E_ANSWER_PASSWORD:-}" ;;
  *) exit 1 ;;
esac
SH
  chmod 0755 "$E2E_WORK/askpass"
}

# e2e_ssh USER [COMMAND]: one login by keyboard-interactive authentication,
# answered by the askpass program; prints the remote output.
e2e_ssh() {
  local user=$1
  local command=${2:-echo logged-in-as-\$(id -un)}
  E2E_WORK=$E2E_WORK SSH_ASKPASS="$E2E_WORK/askpass" SSH_ASKPASS_REQUIRE=force DISPLAY=:0 \
    timeout 60 ssh -F /dev/null -p "$E2E_SSH_PORT" \
      -o UserKnownHostsFile="$E2E_WORK/known_hosts" -o StrictHostKeyChecking=yes \
      -o PreferredAuthentications="${E2E_SSH_METHODS:-keyboard-interactive}" \
      -o PubkeyAuthentication=no -o NumberOfPasswordPrompts=1 -o ConnectTimeout=10 \
      -o LogLevel=ERROR -T "$user@127.0.0.1" "$command" </dev/null
}

# Everything the sandbox started is stopped with it; this only lets the agent
# restore the files first when a test ends early.
e2e_cleanup() {
  e2e_stop_agent || true
  e2e_stop_verifyd
  [ -n "${E2E_SSHD_PID:-}" ] && kill "$E2E_SSHD_PID" 2>/dev/null
  return 0
}
