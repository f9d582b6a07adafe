"""The namespace harness itself: syslog, network, files, sockets, exit codes."""
import os
import re
import socket
import subprocess
import sys

import pytest

import kelpns

PY = sys.executable


def test_syslog_round_trip(ns):
    ns.run([PY, "-c", "import syslog; syslog.openlog('kelpd', syslog.LOG_PID);"
            "syslog.syslog(syslog.LOG_INFO, 'hello from inside')"], check=True)
    rec = ns.syslog.wait_for("hello from inside")
    assert rec.prio == 6 and rec.ident == "kelpd" and rec.pid > 0
    ns.run(["logger", "-u", "/dev/log", "-t", "other", "-p", "user.err", "plain logger"], check=True)
    rec = ns.syslog.wait_for(re.compile("plain logger"), ident="other")
    assert rec.prio == 3


def test_parse_syslog_formats():
    r = kelpns.parse_syslog(b"<14>Nov  1 20:00:52 kelpd[42]: text: with colon")
    assert r == kelpns.Record("kelpd", 42, 6, "text: with colon")
    r = kelpns.parse_syslog(b"<11>Nov 21 20:00:52 tst: x\n")
    assert r == kelpns.Record("tst", None, 3, "x")


def test_internet_switch_visible_in_route_table(ns):
    assert "default dev lo" in ns.run(["ip", "route"]).stdout
    ns.internet(False)
    assert "default" not in ns.run(["ip", "route"]).stdout
    ns.internet(True)
    assert "default dev lo" in ns.run(["ip", "route"]).stdout


def test_private_paths_and_hosts(ns):
    out = ns.run(["sh", "-c", "echo hi > /var/run/x.pid; ls -d /var/tmp /var/rpc /var/lib/configd;"
                  " getent hosts feeds.test slow.test"]).stdout
    assert "/var/rpc" in out and "127.0.0.1" in out and "127.0.0.3" in out
    with open(ns.path("/var/run/x.pid")) as f:
        assert f.read() == "hi\n"
    assert not os.path.exists("/run/x.pid")


def test_unix_socket_inside(ns):
    p = ns.spawn([PY, "-c", "import socket,os\n"
                  # Listening before the name appears, so a connect never finds it refused.
                  "s=socket.socket(socket.AF_UNIX,socket.SOCK_SEQPACKET); s.bind('/var/tmp/t.new'); s.listen(1)\n"
                  "os.rename('/var/tmp/t.new','/var/tmp/t.ctl')\n"
                  "c,_=s.accept(); c.send(c.recv(100)[::-1])"])
    ns._wait_until(lambda: os.path.exists(ns.path("/var/tmp/t.ctl")), 15, "socket", p)
    c = ns.connect_unix("/var/tmp/t.ctl")
    c.send(b"abc")
    assert c.recv(100) == b"cba"
    c.close()
    assert p.wait(15) == 0


def test_tcp_listen_inside_reachable_from_inside(ns):
    s = ns.listen_tcp("127.0.0.2")
    port = s.getsockname()[1]
    p = ns.spawn([PY, "-c", "import socket; c=socket.create_connection(('other.test', %d)); c.send(b'ping')" % port])
    conn, _ = s.accept()
    assert conn.recv(10) == b"ping"
    assert p.wait(15) == 0
    with pytest.raises(OSError):
        socket.create_connection(("127.0.0.2", port), timeout=1)


def test_serve_http_and_nginx(ns, tmp_path):
    srv = ns.serve_http(lambda req, c: c.sendall(b"HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok"))
    out = ns.run(["curl", "-s", "http://feeds.test:%d/x" % srv.port]).stdout
    assert out == "ok" and srv.requests[0].startswith(b"GET /x ")
    (tmp_path / "feed.rss").write_text("<rss/>")
    os.chmod(tmp_path, 0o755)
    ns.start_nginx(str(tmp_path), port=8080)
    assert ns.run(["curl", "-s", "http://feeds.test:8080/feed.rss"]).stdout == "<rss/>"


def test_orphan_exit_status_collected(ns):
    cp = ns.run(["sh", "-c", "(sleep 0.2; exit 7) & echo $!"])
    pid = int(cp.stdout)
    assert ns.wait_exit(pid) == 7
    assert not ns.alive(pid)


def test_teardown_reports_bad_syslog_lines():
    space = kelpns.Namespace("/nonexistent")
    try:
        space.run(["logger", "-u", "/dev/log", "-t", "kelpd", 'assertion "x" failed'], check=True)
        space.syslog.wait_for(re.compile("assertion"))
    finally:
        space.close()
    assert any("assertion" in p for p in space.problems())
    space.remove()


def test_nsenter_processes_killed_at_teardown():
    space = kelpns.Namespace("/nonexistent")
    p = subprocess.Popen(space._argv(["sh", "-c", "sleep 1000 & echo $!"]), stdout=subprocess.PIPE, text=True)
    pid = int(p.stdout.readline())
    p.wait()
    space.close()
    space.remove()
    assert not os.path.exists("/proc/%d" % pid) or open("/proc/%d/stat" % pid).read().split()[2] == "Z"
