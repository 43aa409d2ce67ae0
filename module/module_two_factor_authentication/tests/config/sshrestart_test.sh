#!/bin/sh
# Tests of the installation's sshd restart script (packaging/sudobin/
# sshrestart.sh) with stand-ins for sshd, systemctl and service first on PATH
# and a stand-in daemon behind /run/sshd.pid. Runs only inside the sandbox:
# it writes /run and mounts over /usr/sbin/sshd.
#
# Usage: sshrestart_test.sh PATH-OF-sshrestart.sh
set -u

# The topmost mount at $1 is one that sandbox-run made.
mounted_by_sandbox() {
    awk -v point="$1" '$5 == point { last = $0 } END { print last }' /proc/self/mountinfo |
        grep -q " - .*brackmoor-sandbox"
}

if [ "${BRACKMOOR_IN_SANDBOX:-}" != "1" ] || ! mounted_by_sandbox /run; then
    echo "sshrestart_test: needs tests/sandbox/sandbox-run (a private /run); skipping" >&2
    exit 77
fi
script=$1
passed=0
failed=0
work=$(mktemp -d)
daemon_pid=""

# --- stand-ins -------------------------------------------------------------

mkdir -p "$work/bin" "$work/daemon"
cat > "$work/bin/sshd" <<'STUB'
#!/bin/sh
echo "sshd $*" >> "$STATE/calls"
if [ "$1" = "-t" ] && [ -s "$STATE/config_error" ]; then
    cat "$STATE/config_error" >&2
    exit 255
fi
exit 0
STUB
cat > "$work/bin/systemctl" <<'STUB'
#!/bin/sh
echo "systemctl $*" >> "$STATE/calls"
case "$1" in
    is-active) [ "$3" = "$(cat "$STATE/active_unit" 2>/dev/null)" ] ;;
    reload) exit "$(cat "$STATE/reload_status" 2>/dev/null || echo 0)" ;;
    *) exit 0 ;;
esac
STUB
cat > "$work/bin/service" <<'STUB'
#!/bin/sh
echo "service $*" >> "$STATE/calls"
case "$2" in
    status) [ "$1" = "$(cat "$STATE/service_running" 2>/dev/null)" ] ;;
    reload) exit "$(cat "$STATE/reload_status" 2>/dev/null || echo 0)" ;;
    *) exit 0 ;;
esac
STUB
# Named sshd so that its process name is the daemon's.
cat > "$work/daemon/sshd" <<'STUB'
#!/bin/sh
trap 'echo hup >> "$STATE/hups"' HUP
while :; do sleep 0.05; done
STUB
chmod 755 "$work"/bin/* "$work/daemon/sshd"

# --- helpers ---------------------------------------------------------------

reset() {
    [ -n "$daemon_pid" ] && kill "$daemon_pid" 2>/dev/null && wait "$daemon_pid" 2>/dev/null
    daemon_pid=""
    STATE=$(mktemp -d)
    export STATE
    rm -rf /run/systemd /run/sshd.pid
}

systemd_running() { mkdir -p /run/systemd/system; }

start_daemon() {
    "$work/daemon/sshd" &
    daemon_pid=$!
    echo "$daemon_pid" > /run/sshd.pid
}

restart() {
    PATH="$work/bin:$PATH" sh "$script" > "$STATE/out" 2> "$STATE/err"
    status=$?
}

called() { grep -qx "$1" "$STATE/calls" 2>/dev/null; }
never_called() { ! grep -q "^$1" "$STATE/calls" 2>/dev/null; }

# Polls for a HUP record until a deadline.
hup_seen() {
    for _ in $(seq 1 100); do
        [ -s "$STATE/hups" ] && return 0
        sleep 0.02
    done
    return 1
}

check() {
    name=$1
    shift
    if "$@"; then
        passed=$((passed + 1))
    else
        failed=$((failed + 1))
        echo "FAIL: $name: $*" >&2
        sed 's/^/    calls: /' "$STATE/calls" >&2 2>/dev/null
        sed 's/^/    stderr: /' "$STATE/err" >&2 2>/dev/null
    fi
}

# --- cases -----------------------------------------------------------------

# An invalid configuration stops everything, whatever could restart sshd.
reset
echo "/etc/ssh/sshd_config line 9: Bad configuration option: Nonsense" > "$STATE/config_error"
systemd_running
echo ssh.service > "$STATE/active_unit"
echo ssh > "$STATE/service_running"
start_daemon
restart
check "invalid: exit status" [ "$status" -eq 1 ]
check "invalid: says why" grep -q "Bad configuration option" "$STATE/err"
check "invalid: refuses" grep -q "invalid; sshd not restarted" "$STATE/err"
check "invalid: validated" called "sshd -t"
check "invalid: no systemctl" never_called systemctl
check "invalid: no service" never_called service
sleep 0.2
check "invalid: no signal" [ ! -s "$STATE/hups" ]

# systemd with Debian's unit name.
reset
systemd_running
echo ssh.service > "$STATE/active_unit"
restart
check "systemd ssh: exit status" [ "$status" -eq 0 ]
check "systemd ssh: validated first" [ "$(head -n 1 "$STATE/calls")" = "sshd -t" ]
check "systemd ssh: reloads" called "systemctl reload ssh.service"
check "systemd ssh: no restart" never_called "systemctl restart"
check "systemd ssh: no service" never_called service

# systemd with the Red Hat and SUSE unit name.
reset
systemd_running
echo sshd.service > "$STATE/active_unit"
restart
check "systemd sshd: exit status" [ "$status" -eq 0 ]
check "systemd sshd: reloads" called "systemctl reload sshd.service"
check "systemd sshd: other unit untouched" never_called "systemctl reload ssh.service"

# A failing reload falls back to a restart.
reset
systemd_running
echo ssh.service > "$STATE/active_unit"
echo 1 > "$STATE/reload_status"
restart
check "systemd restart: exit status" [ "$status" -eq 0 ]
check "systemd restart: restarts" called "systemctl restart ssh.service"

# systemctl installed but systemd not the running init: the service command.
reset
echo ssh > "$STATE/service_running"
restart
check "service ssh: exit status" [ "$status" -eq 0 ]
check "service ssh: no systemctl" never_called systemctl
check "service ssh: reloads" called "service ssh reload"

reset
echo sshd > "$STATE/service_running"
restart
check "service sshd: reloads" called "service sshd reload"
check "service sshd: exit status" [ "$status" -eq 0 ]

# No manager knows a running sshd: SIGHUP to the pid file's process.
reset
systemd_running
start_daemon
restart
check "pid file: exit status" [ "$status" -eq 0 ]
check "pid file: signalled" hup_seen
check "pid file: no reload by managers" never_called "systemctl reload"

# A stale pid file naming another process is left alone.
reset
sleep 30 &
other=$!
echo "$other" > /run/sshd.pid
restart
check "stale pid: exit status" [ "$status" -eq 0 ]
check "stale pid: other process alive" kill -0 "$other"
check "stale pid: says not running" grep -q "not running" "$STATE/err"
kill "$other"
wait "$other" 2>/dev/null

# Nothing running at all: nothing is started.
reset
systemd_running
restart
check "not running: exit status" [ "$status" -eq 0 ]
check "not running: no start" never_called "systemctl start"
check "not running: says so" grep -q "not running" "$STATE/err"

# No sshd to validate with: refuse.
reset
rm "$work/bin/sshd"
if [ -e /usr/sbin/sshd ]; then
    : > "$work/not-executable"
    mount --bind "$work/not-executable" /usr/sbin/sshd
fi
echo ssh > "$STATE/service_running"
restart
check "no sshd: exit status" [ "$status" -eq 2 ]
check "no sshd: no service" never_called service
[ -e /usr/sbin/sshd ] && umount /usr/sbin/sshd 2>/dev/null

reset
rm -rf "$work"
echo "sshrestart_test: $passed passed, $failed failed"
[ "$failed" -eq 0 ]
