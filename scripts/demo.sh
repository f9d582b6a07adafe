#!/usr/bin/env bash
# The main job, shown on one machine without touching it: kelpd runs in a
# private mount and network namespace (its fixed paths /var/run, /var/tmp,
# /var/rpc and /dev/log are private there) with configd holding examples/,
# a local nginx serving the example feeds as http://feeds.test/, and kelpctl
# as the clients: the first poll, a read, the push to another profile and
# the marks stored in configd; kelp-web serves the browser page meanwhile
# (its URL is printed); then the syslog lines and the exit status. Run from
# a terminal, kelp-web then keeps serving (starting kelpd again whenever a
# page needs it) until Ctrl-C; without a terminal the demo ends there.
#
# Usage: scripts/demo.sh <builddir>     (as root; `make demo` calls it)
#        KELP_WEB_PORT=8081 make demo   (another port for kelp-web)
set -euo pipefail

BUILD=${1:?usage: scripts/demo.sh <builddir>}
BIN=$(cd "$BUILD/bin" && pwd)
SRC=$(cd "$(dirname "$0")/.." && pwd)
WORK=$(mktemp -d /tmp/kelp-demo-XXXXXX)
trap 'cleanup' EXIT

say() { printf '\n== %s\n' "$*"; }

cleanup() {
    [ -n "${CONFIGD:-}" ] && kill "$CONFIGD" 2>/dev/null || true
    [ -n "${NGINX:-}" ] && kill "$NGINX" 2>/dev/null || true
    [ -n "${HOLDER:-}" ] && kill "$HOLDER" 2>/dev/null || true
    [ -n "${LOGGER:-}" ] && kill "$LOGGER" 2>/dev/null || true
    [ -n "${WATCH:-}" ] && kill "$WATCH" 2>/dev/null || true
    [ -n "${WEB:-}" ] && kill "$WEB" 2>/dev/null || true
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
    printf 'nameserver 127.0.0.1\noptions timeout:1 attempts:1\n' > "$WORK/resolv.conf"
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
        if [ -e /etc/resolv.conf ]; then mount --bind "$T/resolv.conf" /etc/resolv.conf; fi
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

# --- a local feed server: feeds.test on the loopback -----------------------
write_feeds() {
    local www=$WORK/www
    mkdir -p "$www"
    rss_feed "Gateway news" "Firmware 7.58 released" "New firmware for your gateway." \
             "Maintenance tonight" "Short outage between 2 and 3 am." > "$www/news.xml"
    rss_feed "Local weather" "Sunny" "Clear skies, 24 degrees." > "$www/weather.xml"
    cat > "$www/blog.atom" <<'EOF2'
<?xml version="1.0" encoding="utf-8"?>
<feed xmlns="http://www.w3.org/2005/Atom"><title>Developer blog</title>
<entry><title>Why one thread is enough</title><id>urn:blog:1</id><updated>2026-11-20T10:00:00Z</updated>
<content type="html">&lt;p&gt;Everything runs in callbacks of one event loop.&lt;/p&gt;</content></entry>
</feed>
EOF2
    rss_feed "Weekly radio show" "Episode 12" "Music and talk." > "$www/radio-show.xml"
    rss_feed "Tech talk" "Episode 3" "Feeds on small devices." > "$www/tech-talk.xml"
}

# rss_feed TITLE [ITEM_TITLE ITEM_BODY]...
rss_feed() {
    printf '<?xml version="1.0" encoding="utf-8"?>\n<rss version="2.0"><channel><title>%s</title>\n' "$1"
    shift
    local n=0
    while [ $# -ge 2 ]; do
        n=$((n + 1))
        printf '<item><title>%s</title><guid>item-%d</guid><description>%s</description></item>\n' "$1" "$n" "$2"
        shift 2
    done
    printf '</channel></rss>\n'
}

start_nginx() {
    command -v nginx > /dev/null || { say "nginx not installed: polls will fail"; return; }
    write_feeds
    mkdir -p "$WORK/nginx/tmp"
    chmod 755 "$WORK"
    cat > "$WORK/nginx/nginx.conf" <<EOF2
user root;
worker_processes 1;
pid $WORK/nginx/nginx.pid;
error_log $WORK/nginx/error.log;
events { worker_connections 64; }
http {
  access_log $WORK/nginx/access.log;
  client_body_temp_path $WORK/nginx/tmp/body; proxy_temp_path $WORK/nginx/tmp/proxy;
  fastcgi_temp_path $WORK/nginx/tmp/fastcgi; uwsgi_temp_path $WORK/nginx/tmp/uwsgi;
  scgi_temp_path $WORK/nginx/tmp/scgi;
  types { application/rss+xml xml; application/atom+xml atom; }
  server { listen 127.0.0.1:80; root $WORK/www; }
}
EOF2
    nsenter --target "$HOLDER" --mount --net -- nginx -p "$WORK/nginx" -c "$WORK/nginx/nginx.conf" \
        -e "$WORK/nginx/error.log" -g 'daemon off;' &
    NGINX=$!
    say "nginx serving http://feeds.test/ from $WORK/www"
}

# --- kelpd ---------------------------------------------------------------
run_kelpd() {
    say "starting: kelpd -vv"
    local out
    # A failed start is shown by its syslog lines below, not by ending here.
    # kelpd counts every 'v' of its arguments, its own name included, so it
    # runs as plain "kelpd" whatever the checkout's path holds.
    out=$(inside bash -c 'exec -a kelpd "$0" "$@"' "$BIN/kelpd" -vv) || true
    echo "$out"
    DAEMON=$(echo "$out" | sed -n 's/^kelpd started with pid \[\([0-9]*\)\]$/\1/p')
}

# One client watches profile 2 of "rss" for the whole run (it keeps the
# daemon alive: kelpd ends by itself when its last client has gone); another
# logs in as profile 1, waits for the first poll, reads an item of the feed
# both profiles subscribe, and the watcher is seen to get the new state.
run_client() {
    [ -x "$BIN/kelpctl" ] || { say "kelpctl not built"; return; }
    [ -n "${CONFIGD:-}" ] || return
    for _ in $(seq 1 50); do
        [ -S "/proc/$HOLDER/root/var/tmp/me_kelpd_daemon.ctl" ] && break
        sleep 0.1
    done
    # nsenter execs kelpctl, so $! is the watcher itself (a signal reaches it).
    nsenter --target "$HOLDER" --mount --net -- "$BIN/kelpctl" -p 2 watch > "$WORK/watch.txt" 2>&1 &
    WATCH=$!
    # The watcher prints its login answer first: from then on it holds the daemon.
    for _ in $(seq 1 50); do
        [ -s "$WORK/watch.txt" ] && break
        sleep 0.1
    done
    say "kelpctl accounts (rss, profile 1)"
    inside "$BIN/kelpctl" accounts || true
    # The first poll of each feed runs right after the first login; the
    # watcher sees the overview of the shared feed when it is done.
    for _ in $(seq 1 100); do
        grep -q "^overview domain=rss profile_id=2 feed_id=2 " "$WORK/watch.txt" && break
        sleep 0.1
    done
    say "kelpctl overview (rss, profile 1): the items after the first poll"
    inside "$BIN/kelpctl" overview || true
    say "kelpctl read 2 0: reading item 0 of 'Local weather' marks it read for profiles 1 and 2"
    inside "$BIN/kelpctl" read 2 0 || true
    sleep 0.5
    say "what profile 2's watching client was pushed (kelpctl -p 2 watch)"
    cat "$WORK/watch.txt"
    say "the read marks as configd stores them (configctl get rss)"
    inside "$BIN/configctl" get rss | grep '<item ' || true
    kill -TERM "$WATCH" 2>/dev/null || true
    wait "$WATCH" 2>/dev/null || true
}

# kelp-web: in the namespace's mount namespace (it finds kelpd's control
# socket there) but on the host's loopback, so a browser on this machine can
# open it while the demo runs. The kelpd it starts when a page needs one
# runs in the namespace's network, where feeds.test is.
start_web() {
    [ -x "$BIN/kelp-web" ] || { say "kelp-web not built"; return; }
    cat > "$WORK/kelpd-in-ns" <<EOF2
#!/bin/sh
exec nsenter --target $HOLDER --net -- bash -c 'exec -a kelpd "\$0" -vv' "$BIN/kelpd"
EOF2
    chmod 755 "$WORK/kelpd-in-ns"
    nsenter --target "$HOLDER" --mount -- "$BIN/kelp-web" --listen 127.0.0.1:${KELP_WEB_PORT:-8080} \
        --kelpd "$WORK/kelpd-in-ns" > "$WORK/web.txt" &
    WEB=$!
    while ! grep -q listening "$WORK/web.txt" 2>/dev/null; do
        kill -0 "$WEB" 2>/dev/null || { say "kelp-web did not start (port ${KELP_WEB_PORT:-8080} taken?)"; WEB=; return; }
        sleep 0.05
    done
    say "$(cat "$WORK/web.txt") (open it in a browser while the demo runs)"
}

# From a terminal, kelp-web goes on serving the example feeds until Ctrl-C.
keep_serving() {
    [ -n "${WEB:-}" ] && [ -t 0 ] && [ -t 1 ] || return 0
    say "$(sed 's/listening on/still serving/' "$WORK/web.txt"): open it in a browser; Ctrl-C ends the demo"
    local stop=
    trap 'stop=1' INT
    while [ -z "$stop" ] && kill -0 "$WEB" 2>/dev/null; do sleep 1 || true; done
    trap - INT
    [ -n "$stop" ] && say "Ctrl-C: the demo ends" || say "kelp-web has ended"
}

# Waits for the daemon to end (it ends by itself when there is nothing to
# do), or asks it to end with SIGTERM after a few seconds.
wait_kelpd() {
    for _ in $(seq 1 50); do
        [ -n "$DAEMON" ] && kill -0 "$DAEMON" 2>/dev/null || break
        sleep 0.1
    done
    if [ -n "$DAEMON" ] && kill -0 "$DAEMON" 2>/dev/null; then
        say "kelpd still running: status dump (kelpd --create-supportdata), then SIGTERM"
        inside "$BIN/kelpd" --create-supportdata && inside cat /var/tmp/kelpd.log
        kill -TERM "$DAEMON"
        while kill -0 "$DAEMON" 2>/dev/null; do sleep 0.05; done
    fi
}

show_log() {
    sleep 0.2
    say "syslog"
    sed 's/^<[0-9]*>//' "$WORK/syslog.txt"
    local code
    code=$(grep -o 'shutting down with exit code -\?[0-9]*' "$WORK/syslog.txt" | tail -n1 | awk '{print $NF}')
    say "kelpd exit code: ${code:-unknown}"
}

start_syslog
start_namespace
start_nginx
start_configd
run_kelpd
start_web
run_client
wait_kelpd
show_log
keep_serving
