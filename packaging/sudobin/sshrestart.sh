#!/bin/sh
# Makes sshd take up the configuration that the agent has just edited.
#
# 1. The new configuration is checked with "sshd -t" first. When that fails,
#    nothing is restarted: sshd keeps running with the configuration it has
#    loaded, and the script exits 1 with sshd's complaint on stderr. (sshd
#    re-executes itself on SIGHUP, so a bad file would otherwise kill it.)
# 2. The running sshd is then told to reread its configuration, by the first
#    means this machine has:
#      - systemd (only when it is the running init): "systemctl reload" of the
#        ssh or sshd unit that is active, "systemctl restart" if reload fails;
#      - the service command: "service ssh|sshd reload", restart if that fails;
#      - SIGHUP to the process named in /run/sshd.pid.
#    Reload is always tried first: sessions stay up and sshd never stops.
#
# An sshd that is not running is left alone, under systemd too: the script
# never starts a daemon the administrator had stopped, and a stopped (or
# socket-activated, not yet started) sshd reads the new file when it starts.
#
# Exit status: 0 reloaded, restarted, or nothing running to tell; 1 the new
# configuration is invalid; 2 no sshd binary to check it with; 3 sshd was
# running but could not be made to reload.
set -u

# The agent may run with a short PATH; sshd and the service tools live in the
# sbin directories. Appended, so that an explicit PATH keeps precedence.
PATH="${PATH:-}:/usr/local/sbin:/usr/sbin:/sbin:/usr/local/bin:/usr/bin:/bin"
export PATH

PID_FILE=/run/sshd.pid

say() {
    echo "sshrestart: $*" >&2
}

find_sshd() {
    if command -v sshd >/dev/null 2>&1; then
        command -v sshd
    elif [ -x /usr/sbin/sshd ]; then
        echo /usr/sbin/sshd
    fi
}

validate() {
    sshd_bin=$(find_sshd)
    if [ -z "$sshd_bin" ]; then
        say "no sshd binary found; not restarting"
        exit 2
    fi
    if ! check_output=$("$sshd_bin" -t 2>&1); then
        [ -n "$check_output" ] && echo "$check_output" >&2
        say "new sshd configuration is invalid; sshd not restarted"
        exit 1
    fi
}

# systemd is the running init exactly when this directory exists.
systemd_running() {
    [ -d /run/systemd/system ] && command -v systemctl >/dev/null 2>&1
}

reload_systemd() {
    for unit in ssh.service sshd.service; do
        if systemctl is-active --quiet "$unit" 2>/dev/null; then
            if systemctl reload "$unit" || systemctl restart "$unit"; then
                exit 0
            fi
            say "systemctl could not reload or restart $unit"
            exit 3
        fi
    done
}

reload_service() {
    command -v service >/dev/null 2>&1 || return 0
    for name in ssh sshd; do
        if service "$name" status >/dev/null 2>&1; then
            if service "$name" reload || service "$name" restart; then
                exit 0
            fi
            say "service could not reload or restart $name"
            exit 3
        fi
    done
}

reload_pid_file() {
    [ -r "$PID_FILE" ] || return 0
    pid=$(head -n 1 "$PID_FILE" 2>/dev/null)
    case "$pid" in
        '' | *[!0-9]*) return 0 ;;
    esac
    # A stale pid file may name some other process by now.
    [ "$(cat "/proc/$pid/comm" 2>/dev/null)" = "sshd" ] || return 0
    if kill -HUP "$pid"; then
        exit 0
    fi
    say "could not signal sshd (pid $pid)"
    exit 3
}

validate
if systemd_running; then
    reload_systemd
fi
reload_service
reload_pid_file
say "sshd is not running; the new configuration applies when it starts"
exit 0
