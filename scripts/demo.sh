#!/usr/bin/env bash
# The main job, shown on one machine without touching it: kelpd runs in a
# private mount and network namespace (its fixed paths /var/run, /var/tmp,
# /var/rpc and /dev/log are private there), with configd when it was built,
# and its syslog lines and exit status are printed.
#
# Usage: scripts/demo.sh <builddir>     (as root; `make demo` calls it)
set -euo pipefail

BUILD=${1:?usage: scripts/demo.sh <builddir>}
BIN=$(cd "$BUILD/bin" && pwd)
SRC=$(cd "$(dirname "$0")/.." && pwd)
WORK=$(mktemp -d /tmp/kelp-demo-XXXXXX)
trap 'cleanup' EXIT

say() { printf '\n== %s\n' "$*"; }

cleanup() {
    [ -n "${CONFIGD:-}" ] && kill "$CONFIGD" 2>/dev/null || true
    [ -n "${HOLDER:-}" ] && kill "$HOLDER" 2>/dev/null || true
    [ -n "${LOGGER:-}" ] && kill "$LOGGER" 2>/dev/null || true
    wait 2>/dev/null || true
    rm -rf "$WORK"
}

# --- syslog: a datagram socket that prints what the programs log ----------
start_syslog() {
    /usr/bin/python3 -u - "$WORK/log.sock" > "$WORK/syslog.txt" <<'EOF' &
import socket, sys
s = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
s.bind(sys.argv[1])
while True:
    print(s.recv(65536).decode("latin-1").rstrip("\n\x00"), flush=True)
EOF
    LOGGER=$!
    while [ ! -S "$WORK/log.sock" ]; do sleep 0.05; done
}

# --- the namespace: private /run, /var and /dev/log, loopback only --------
start_namespace() {
    printf '127.0.0.1\tlocalhost feeds.test\n' > "$WORK/hosts"
    mkfifo "$WORK/ready"
    unshare --mount --net --propagation private -- /bin/sh -c '
        set -e
        T=$1
        mount -t tmpfs kelp-run /run
        mount -t tmpfs kelp-var /var
        mkdir -m 1777 /var/tmp
        mkdir -p /var/rpc /var/lib/configd
        ln -s ../run /var/run
        mkdir "$T/dev"
        mount -t tmpfs kelp-dev "$T/dev"
        for n in null zero urandom random tty; do : > "$T/dev/$n"; mount --bind /dev/$n "$T/dev/$n"; done
        : > "$T/dev/log"; mount --bind "$T/log.sock" "$T/dev/log"
        mount --move "$T/dev" /dev
        mount --bind "$T/hosts" /etc/hosts
        ip link set lo up
        ip route add default dev lo
        echo ready > "$T/ready"
        exec sleep infinity' demo "$WORK" &
    HOLDER=$!
    read -r _ < "$WORK/ready"
}

inside() { nsenter --target "$HOLDER" --mount --net -- "$@"; }

# --- configd with the example configuration, when built --------------------
start_configd() {
    [ -x "$BIN/configd" ] || { say "configd not built: kelpd will find no configd"; return; }
    for domain in rss podcast; do
        if [ -f "$SRC/examples/$domain.xml" ]; then
            cp "$SRC/examples/$domain.xml" "/proc/$HOLDER/root/var/lib/configd/$domain.xml"
        fi
    done
    nsenter --target "$HOLDER" --mount --net -- "$BIN/configd" &
    CONFIGD=$!
    while [ ! -S "/proc/$HOLDER/root/var/rpc/configd" ]; do
        kill -0 "$CONFIGD" 2>/dev/null || { say "configd did not start"; return; }
        sleep 0.05
    done
    say "configd running (pid $CONFIGD)"
}

# --- kelpd ---------------------------------------------------------------
run_kelpd() {
    say "starting: kelpd -vv"
    local out
    out=$(inside "$BIN/kelpd" -vv)
    echo "$out"
    DAEMON=$(echo "$out" | sed -n 's/^kelpd started with pid \[\([0-9]*\)\]$/\1/p')
}

# Waits for the daemon to end (it ends by itself when there is nothing to
# do), or asks it to end with SIGTERM after a few seconds.
wait_kelpd() {
    for _ in $(seq 1 50); do
        [ -n "$DAEMON" ] && kill -0 "$DAEMON" 2>/dev/null || break
        sleep 0.1
    done
    if [ -n "$DAEMON" ] && kill -0 "$DAEMON" 2>/dev/null; then
        say "kelpd still running: SIGUSR2 (status dump), then SIGTERM"
        inside "$BIN/kelpd" --create-supportdata && inside cat /var/tmp/kelpd.log
        kill -TERM "$DAEMON"
        while kill -0 "$DAEMON" 2>/dev/null; do sleep 0.05; done
    fi
}

show_log() {
    sleep 0.2
    say "syslog"
    cat "$WORK/syslog.txt"
    local code
    code=$(grep -o 'shutting down with exit code -\?[0-9]*' "$WORK/syslog.txt" | tail -n1 | awk '{print $NF}')
    say "kelpd exit code: ${code:-unknown}"
}

start_syslog
start_namespace
start_configd
run_kelpd
wait_kelpd
show_log
