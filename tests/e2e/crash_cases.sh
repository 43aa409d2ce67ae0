# Crash cases: the agent killed (SIGKILL) at every step that changes a file,
# then started again and stopped. Sourced by run-case, inside the sandbox.
# The agent runs in local mode (no service needed) with bob excluded.

E2E_KILL_SHIM=${E2E_KILL_SHIM:-}

# Installation, users, configuration and the original files, kept in
# $E2E_WORK/orig.* so that every round starts from them.
e2e_crash_setup() {
  e2e_install
  e2e_pam_unix_nodelay
  e2e_add_user alice
  e2e_add_user bob
  e2e_configure_agent
  # Fewer log writes, every one of them a kill point too; "running" and
  # "stopped" are notices.
  sed -i 's/^level = debug$/level = notice/' /etc/brackmoor/agent.conf
  e2e_write_policy 1 1 '["bob"]'
  cp /etc/ssh/sshd_config "$E2E_WORK/orig.sshd_config"
  cp /etc/pam.d/sshd "$E2E_WORK/orig.pam_sshd"
}

e2e_crash_reset() {
  cp "$E2E_WORK/orig.sshd_config" /etc/ssh/sshd_config
  cp "$E2E_WORK/orig.pam_sshd" /etc/pam.d/sshd
  rm -f /etc/pam.d/brackmoor-auth /lib/x86_64-linux-gnu/security/pam_brackmoor.so /var/lib/brackmoor/*
}

# The four files the agent writes, as one comparable text per file; an absent
# file reads "absent".
e2e_crash_files=(/etc/ssh/sshd_config /etc/pam.d/sshd /etc/pam.d/brackmoor-auth
  /lib/x86_64-linux-gnu/security/pam_brackmoor.so)
e2e_crash_snapshot() { # e2e_crash_snapshot NAME: keeps every file as $E2E_WORK/NAME.<index>
  local i
  for i in "${!e2e_crash_files[@]}"; do
    if [ -e "${e2e_crash_files[$i]}" ]; then cp "${e2e_crash_files[$i]}" "$E2E_WORK/$1.$i"; else
      echo absent > "$E2E_WORK/$1.$i"; fi
  done
}
# Whether every file equals its copy in one of the snapshots named, and no
# temporary file is left (unless "temporaries" is the first argument).
e2e_crash_each_file_is_one_of() {
  local i name whole temporaries=0
  [ "$1" = temporaries ] && { temporaries=1; shift; }
  for i in "${!e2e_crash_files[@]}"; do
    whole=0
    for name in "$@"; do
      if [ -e "${e2e_crash_files[$i]}" ]; then cmp -s "${e2e_crash_files[$i]}" "$E2E_WORK/$name.$i" && whole=1
      else grep -qx absent "$E2E_WORK/$name.$i" && whole=1; fi
    done
    [ $whole = 1 ] || { echo "${e2e_crash_files[$i]} is none of: $*"; return 1; }
  done
  [ $temporaries = 1 ] && return 0
  ls -a /etc/ssh /etc/pam.d /lib/x86_64-linux-gnu/security | grep -q '\.brackmoor-new\.' && {
    echo "temporary files left"; return 1; }
  return 0
}

e2e_crash_agent() { # e2e_crash_agent [ENV=VALUE...]: starts the agent in the background
  E2E_CRASH_RUNS=$(e2e_crash_running_records)
  env "$@" "$E2E_PREFIX/bin/brackmoor-agent" --config /etc/brackmoor/agent.conf >>/var/log/brackmoor-agent.out 2>&1 &
  E2E_AGENT_PID=$!
}
e2e_crash_running_records() { grep -c 'brackmoor-agent running\.' /var/log/brackmoor/agent.log 2>/dev/null || echo 0; }
# Waits until the agent started last has pushed every policy.
e2e_crash_wait_running() { e2e_wait_for 20 e2e_crash_started; }
e2e_crash_started() { [ "$(e2e_crash_running_records)" -gt "$E2E_CRASH_RUNS" ]; }

# bob logs in with his password alone while excluded; once the policy no
# longer excludes him, a restart after a kill must not leave the old include
# file in force.
case_stale_policy_after_kill() {
  e2e_crash_setup
  e2e_crash_agent
  e2e_crash_wait_running || { e2e_fail "agent switched on"; return; }
  e2e_expect_success "excluded bob logs in with his password" \
    bash -c "printf '%s\n' '$E2E_PASSWORD' | pamtester sshd bob authenticate"
  kill -KILL "$E2E_AGENT_PID"; wait "$E2E_AGENT_PID" 2>/dev/null
  e2e_write_policy 1 1 '[]'
  e2e_crash_agent
  e2e_crash_wait_running
  if grep -q 'exclude_user_list' /etc/pam.d/brackmoor-auth; then
    e2e_fail "restart after the kill regenerated the include file" "$(grep pam_brackmoor /etc/pam.d/brackmoor-auth)"
  else e2e_ok "restart after the kill regenerated the include file"; fi
  e2e_expect_failure "bob no longer logs in with his password alone" \
    bash -c "printf '%s\n' '$E2E_PASSWORD' | pamtester sshd bob authenticate"
  e2e_expect_success "status: in force" e2e_status
  e2e_stop_agent
  if cmp -s /etc/pam.d/sshd "$E2E_WORK/orig.pam_sshd" || [ "$(e2e_normalised /etc/pam.d/sshd)" = \
      "$(e2e_normalised "$E2E_WORK/orig.pam_sshd")" ]; then e2e_ok "SIGTERM restored /etc/pam.d/sshd"; else
    e2e_fail "SIGTERM restored /etc/pam.d/sshd"; fi
  [ ! -e /etc/pam.d/brackmoor-auth ] && e2e_ok "include file removed" || e2e_fail "include file removed"
}

# Kills the agent at each write, rename and unlink of a switch-on and of a
# switch-off in turn; after each kill every file is whole (old or new), a
# restart converges to the switched-on state and SIGTERM restores.
case_kill_at_every_write() {
  [ -n "$E2E_KILL_SHIM" ] && [ -f "$E2E_KILL_SHIM" ] || { e2e_fail "kill shim built" "E2E_KILL_SHIM=$E2E_KILL_SHIM"; return; }
  e2e_crash_setup
  e2e_crash_snapshot orig
  # A clean cycle, counted: the calls until switched on, and in all.
  e2e_crash_agent LD_PRELOAD="$E2E_KILL_SHIM" BRACKMOOR_KILL_AT=0 BRACKMOOR_CALL_COUNT="$E2E_WORK/count"
  e2e_crash_wait_running || { e2e_fail "agent switched on"; return; }
  local on_calls all_calls
  on_calls=$(cat "$E2E_WORK/count")
  e2e_crash_snapshot on
  e2e_stop_agent
  all_calls=$(cat "$E2E_WORK/count")
  e2e_crash_snapshot off
  e2e_ok "a clean cycle makes $on_calls calls to switch on and $((all_calls - on_calls)) to switch off"

  local n phase status bad=0 converged=0
  for n in $(seq 1 "$all_calls"); do
    e2e_crash_reset
    e2e_crash_agent LD_PRELOAD="$E2E_KILL_SHIM" BRACKMOOR_KILL_AT="$n"
    phase=on
    if [ "$n" -gt "$on_calls" ]; then
      phase=off
      e2e_crash_wait_running
      kill -TERM "$E2E_AGENT_PID" 2>/dev/null
    fi
    wait "$E2E_AGENT_PID" 2>/dev/null; status=$?
    E2E_AGENT_PID=
    if [ "$status" != 137 ]; then e2e_log "call $n ($phase): not reached (exit $status)"; fi
    # A temporary file may stay behind; the next start removes it.
    if ! why=$(e2e_crash_each_file_is_one_of temporaries orig on off); then
      bad=$((bad + 1)); e2e_fail "killed at call $n of the switch-$phase: every file whole" "$why"; continue
    fi
    e2e_crash_agent
    if e2e_crash_wait_running && why=$(e2e_crash_each_file_is_one_of on); then
      converged=$((converged + 1))
    else
      bad=$((bad + 1)); e2e_fail "killed at call $n of the switch-$phase: a restart converges" "$why"
    fi
    e2e_stop_agent
    if ! why=$(e2e_crash_each_file_is_one_of off); then
      bad=$((bad + 1)); e2e_fail "killed at call $n of the switch-$phase: SIGTERM then restores" "$why"
    fi
  done
  [ "$bad" = 0 ] && e2e_ok "killed at each of $all_calls calls: files whole, $converged restarts converged, every stop restored"
}
