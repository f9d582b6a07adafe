"""Shared pieces of the kelp-web system tests: kelp-web itself, a scripted
stand-in for kelpd that keeps read marks and pushes overviews like the real
one, HTTP from inside the namespace, and headless Chromium."""
import http.client
import json
import os
import re
import select
import signal
import socket
import subprocess
import threading

CTL = "/var/tmp/me_kelpd_daemon.ctl"


def frame(text):
    """A daemon block: the text, its NUL, zeros up to the capacity."""
    data = text.encode("latin-1")
    cap = 32
    while cap < len(data) + 2:
        cap *= 2
    return data + b"\0" * (cap - len(data))


def fields(request):
    words = request.decode("latin-1").split()
    return words[0] if words else "", dict(w.split(":", 1) for w in words[1:] if ":" in w)


class Item:
    def __init__(self, uid, subject, body="", enclosure="", images=()):
        self.uid, self.subject, self.body = uid, subject, body
        self.enclosure, self.images = enclosure, list(images)  # images: (url, offset)
        self.read = set()  # (domain, profile) that read it

    def state(self, who):
        return (1 if who in self.read else 0) + (2 if self.enclosure else 0) + (4 if self.images else 0)


class StubKelpd:
    """Listens on the control socket and plays kelpd for the page: login
    lists `feeds` and pushes an overview per feed with items, reading an item
    marks it and pushes overviews to the profile's other connections.
    feeds: {(domain, profile): [(feed_id, name)]}, items: {feed_id: [Item]}."""

    def __init__(self, ns, feeds, items, online=True):
        self.feeds, self.items, self.online = feeds, items, online
        self.lock = threading.Lock()
        self.conns = {}        # socket -> set of (domain, profile)
        self.requests = []
        self.got = threading.Condition()
        self.closed = threading.Semaphore(0)
        self.listener = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        self.listener.bind(ns.path(CTL))
        self.listener.listen(16)
        self.stop_r, self.stop_w = os.pipe()
        self.thread = threading.Thread(target=self._run, daemon=True)
        self.thread.start()

    # --- what the test does --------------------------------------------------
    def send_all(self, who, text):
        with self.lock:
            targets = [c for c, logins in self.conns.items() if who in logins]
        for c in targets:
            self._send(c, text)

    def set_online(self, up):
        self.online = up
        with self.lock:
            pairs = [(c, who) for c, logins in self.conns.items() for who in logins]
        for c, (domain, profile) in pairs:
            self._send(c, self._status(domain, profile))

    def overview(self, who, feed_id):
        domain, profile = who
        items = self.items.get(feed_id, [])
        unread = sum(1 for i in items if who not in i.read)
        parts = ["overview", "domain:" + domain, "profile_id:%d" % profile, "feed_id:%d" % feed_id,
                 "number:%d" % len(items), "number_new:%d" % unread]
        for i in items:
            parts += ["uid:%d" % i.uid, "state:%d" % i.state(who), "subject:" + i.subject]
        return "\t".join(parts)

    def accounts(self, who, cmd="accounts"):
        domain, profile = who
        parts = ["OK", cmd, "domain:" + domain, "profile_id:%d" % profile]
        for feed_id, name in self.feeds.get(who, []):
            parts += ["name:" + name, "feed_id:%d" % feed_id]
        return "\t".join(parts)

    def wait_requests(self, n, timeout=15):
        """The requests received, once there are at least n."""
        with self.got:
            assert self.got.wait_for(lambda: len(self.requests) >= n, timeout), self.requests
            return list(self.requests)

    def logged_in(self, who):
        """True once some connection has logged in as `who`."""
        with self.lock:
            return any(who in logins for logins in self.conns.values())

    def connection_count(self):
        with self.lock:
            return len(self.conns)

    def close(self):
        os.write(self.stop_w, b"x")
        self.thread.join(5)
        with self.lock:
            for c in self.conns:
                c.close()
        self.listener.close()
        os.close(self.stop_r)
        os.close(self.stop_w)

    # --- the daemon's side -------------------------------------------------------
    def _status(self, domain, profile):
        if self.online:
            return "OK\tstatus\tdomain:%s\tprofile_id:%d" % (domain, profile)
        return "ERROR\tstatus\t20:KD_NO_INTERNET\tdomain:%s\tprofile_id:%d" % (domain, profile)

    @staticmethod
    def _send(c, text):
        try:
            c.send(frame(text))
        except OSError:
            pass

    def _run(self):
        while True:
            with self.lock:
                socks = list(self.conns)
            ready, _, _ = select.select([self.listener, self.stop_r] + socks, [], [])
            if self.stop_r in ready:
                return
            for s in ready:
                if s is self.listener:
                    c, _ = self.listener.accept()
                    with self.lock:
                        self.conns[c] = set()
                else:
                    self._receive(s)

    def _receive(self, c):
        try:
            data = c.recv(8192)
        except OSError:
            data = b""
        if not data:
            with self.lock:
                del self.conns[c]
            c.close()
            self.closed.release()
            return
        with self.got:
            self.requests.append(data)
            self.got.notify_all()
        cmd, f = fields(data)
        if cmd == "login":
            self._login(c, f)
        elif cmd in ("body", "enclosure", "image"):
            self._item(c, cmd, f)

    def _login(self, c, f):
        who = (f["domain"], int(f["profile_id"]))
        with self.lock:
            self.conns[c].add(who)
        self._send(c, self.accounts(who, "login"))
        for feed_id, _ in self.feeds.get(who, []):
            if self.items.get(feed_id):
                self._send(c, self.overview(who, feed_id))
        if not self.online:
            self._send(c, self._status(*who))

    def _item(self, c, cmd, f):
        who = (f["domain"], int(f["profile_id"]))
        feed_id, uid = int(f["feed_id"]), int(f["uid"])
        item = next((i for i in self.items.get(feed_id, []) if i.uid == uid), None)
        head = "%s\tdomain:%s\tprofile_id:%d\tfeed_id:%d\tuid:%d" % (cmd, who[0], who[1], feed_id, uid)
        if item is None:
            self._send(c, "ERROR\t" + head.replace("\t", "\t12:KD_UID_NOT_FOUND\t", 1))
            return
        changed = who not in item.read
        item.read.add(who)
        if cmd == "body":
            tail = "body:" + (item.body or item.subject)
            tail += "".join("\timage:%s\toffset:%d" % im for im in item.images)
        elif cmd == "enclosure":
            tail = "url:" + item.enclosure
        else:
            tail = "url:" + (item.images[0][0] if item.images else "")
        self._send(c, "OK\t" + head + "\t" + tail)
        if changed:
            with self.lock:
                others = [o for o, logins in self.conns.items() if who in logins and o is not c]
            for o in others:
                self._send(o, self.overview(who, feed_id))


# --- kelp-web ------------------------------------------------------------------------

class KelpWeb:
    """kelp-web in the namespace's mount namespace (its control socket) but
    on the host's loopback, where one Chromium serves every test.

    kelpd="ns" (the default) has kelp-web start the built kelpd (with -vvv)
    inside the namespace's network, where the test's feed servers are, by
    way of a wrapper given with --kelpd; kelpd=None gives no --kelpd, so
    kelp-web starts the kelpd beside its own program (in the host's
    network, where no feed server of the test answers)."""

    def __init__(self, ns, kelpd="ns"):
        self.ns = ns
        argv = ["nsenter", "--target", str(ns.pid), "--mount", "--", ns.bin("kelp-web"), "--listen", "127.0.0.1:0"]
        if kelpd == "ns":
            argv += ["--kelpd", kelpd_in_namespace(ns)]
        elif kelpd is not None:
            argv += ["--kelpd", kelpd]
        self.proc = subprocess.Popen(argv, env=ns.env(), cwd="/", stdin=subprocess.DEVNULL, stdout=subprocess.PIPE)
        ns._procs.append(self.proc)
        line = self.proc.stdout.readline().decode()
        m = re.fullmatch(r"kelp-web listening on http://127\.0\.0\.1:(\d+)/\n", line)
        assert m, "kelp-web did not start: %r" % line
        self.port = int(m.group(1))
        self.url = "http://127.0.0.1:%d/" % self.port
        self.origin = self.url.rstrip("/")

    STARTED = re.compile(r"^kelpd started with pid (\d+)$")

    def started(self, count=1, timeout=30):
        """The pids of the first `count` kelpd that kelp-web started, once
        it has logged them."""
        self.ns.syslog.wait_count(self.STARTED, count, ident="kelp-web", timeout=timeout)
        return [int(self.STARTED.match(t).group(1)) for t in self.ns.syslog.texts("kelp-web")
                if self.STARTED.match(t)][:count]

    def request(self, method, path, body=None, headers=None):
        c = http.client.HTTPConnection("127.0.0.1", self.port, timeout=15)
        c.request(method, path, body=body, headers=headers or {})
        r = c.getresponse()
        data = r.read()
        c.close()
        return r, data

    def post(self, path, obj, origin=None, ctype="application/json"):
        body = obj if isinstance(obj, (bytes, str)) else json.dumps(obj)
        headers = {"Content-Type": ctype}
        if origin is not False:
            headers["Origin"] = origin or self.origin
        r, data = self.request("POST", path, body, headers)
        return r.status, json.loads(data or b"{}")

    def open_session(self, domain="rss", profile=1):
        status, body = self.post("/api/session", {"domain": domain, "profile": profile})
        assert status == 200, body
        return body["session"]

    def events(self, token):
        """The event stream as a raw socket, its response head read."""
        s = socket.create_connection(("127.0.0.1", self.port), timeout=15)
        s.sendall(("GET /api/events?session=%s HTTP/1.1\r\nHost: 127.0.0.1:%d\r\n\r\n"
                   % (token, self.port)).encode())
        head = b""
        while b"\r\n\r\n" not in head:
            chunk = s.recv(1)
            assert chunk, "event stream closed: %r" % head
            head += chunk
        return s, head.decode("latin-1")

    def stop(self):
        """SIGTERM, so that a sanitizer build checks for leaks on the way out."""
        if self.proc.poll() is None:
            self.proc.send_signal(signal.SIGTERM)
            assert self.proc.wait(15) == 0


def serve_feeds(ns, files):
    """nginx serving files ({name: text or bytes}) as http://feeds.test/NAME."""
    root = os.path.join(ns.tmp, "www")
    os.makedirs(root)
    for name, data in files.items():
        with open(os.path.join(root, name), "wb") as f:
            f.write(data if isinstance(data, bytes) else data.encode("utf-8"))
    os.chmod(root, 0o755)
    ns.start_nginx(root)


def configure(ns, doc):
    """configd holding doc in both domains; returns configd's process."""
    p = ns.start_configd()
    for domain in ("rss", "podcast"):
        cp = ns.configctl("set", domain, "-", input=doc)
        assert cp.returncode == 0, cp.stderr
    return p


def kelpd_in_namespace(ns):
    """A program that runs the built kelpd, as "kelpd" and with -vvv, in the
    namespace's network (kelp-web itself is on the host's loopback)."""
    path = os.path.join(ns.tmp, "kelpd-in-ns")
    with open(path, "w") as f:
        f.write("#!/bin/sh\nexec nsenter --target %d --net -- /bin/bash -c 'exec -a kelpd \"$0\" -vvv' %s\n"
                % (ns.pid, ns.bin("kelpd")))
    os.chmod(path, 0o755)
    return path


def read_event(sock, buf):
    """The next `data:` event's JSON from a raw (chunked) event stream."""
    while True:
        m = re.search(rb"data: (.*?)\n\n", buf[0])
        if m:
            buf[0] = buf[0][m.end():]
            return json.loads(m.group(1))
        chunk = sock.recv(65536)
        assert chunk, "event stream ended"
        buf[0] += chunk


# --- Chromium ------------------------------------------------------------------------

def chromium(tmpdir, width=1200, height=800):
    from selenium import webdriver
    from selenium.webdriver.chrome.service import Service
    opts = webdriver.ChromeOptions()
    for arg in ("--headless=new", "--no-sandbox", "--disable-dev-shm-usage", "--disable-gpu",
                "--no-first-run", "--disable-extensions", "--window-size=%d,%d" % (width, height),
                # Nothing outside the namespace answers: no name lookups at all.
                "--host-resolver-rules=MAP * ~NOTFOUND, EXCLUDE 127.0.0.1",
                "--disable-background-networking", "--disable-component-update", "--disable-sync",
                "--disable-default-apps", "--no-default-browser-check",
                "--user-data-dir=" + tmpdir):
        opts.add_argument(arg)
    opts.binary_location = "/usr/bin/chromium"
    opts.set_capability("goog:loggingPrefs", {"browser": "ALL"})
    return webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=opts)
