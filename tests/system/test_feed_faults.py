"""Feed servers that misbehave at the connection level: one that resets the
connection in the middle of the body, ones that answer with something that
is not HTTP or with nothing at all, one that redirects back to where it
started and one that redirects to ever new targets. Each poll fails with its own log line and
lasterror, the feed's items stay, the daemon goes on answering its clients,
and a good feed afterwards is polled as always. All cases run in one daemon,
one after the other; the endless redirect chain is ended by the fetch's
deadline (20 s), which is most of this file's time."""
import select
import socket
import struct
import time

from kelpns_io import wait_acknowledged
from refresh_helpers import Client, dump, doc, entry, feed, overview, profile, repoll, start_all

BASE = "http://other.test:8080/"
ERR = 3
HEAD = b"HTTP/1.1 200 OK\r\nContent-Type: text/xml\r\n\r\n"


def reset(conn):
    """Closes with a reset instead of an orderly end."""
    conn.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))


class FaultyServer:
    """other.test:8080 with one path per fault."""

    def __init__(self, ns):
        self.feed = feed("K", "L")
        self.hops = 0
        ns.serve_http(self.handle, host="127.0.0.2", port=8080)

    def handle(self, data, conn):
        path = data.split(b" ", 2)[1].decode()
        if path.startswith("/good.xml"):
            conn.sendall(HEAD + self.feed.encode("latin-1"))
        elif path == "/reset":
            body = feed(*["Item %d" % i for i in range(50)]).encode("latin-1")
            conn.sendall(HEAD + body[:len(body) // 2])
            wait_acknowledged(conn)  # the half is there before the reset
            reset(conn)
        elif path == "/garbage":
            conn.sendall(b"SSH-2.0-OpenSSH_9.2\r\n\x00\xff\xfe binary \x1b[2J\r\n\r\n<rss>")
        elif path == "/silent":
            select.select([conn], [], [], 60)  # until the daemon hangs up
        elif path == "/binary":
            conn.sendall(bytes(range(256)) * 8)
            reset(conn)
        elif path in ("/loop-a", "/loop-b"):
            other = "/loop-b" if path == "/loop-a" else "/loop-a"
            conn.sendall(b"HTTP/1.1 302 Found\r\nLocation: %s\r\n\r\n" % other.encode())
        elif path.startswith("/chain/"):
            # Always a new target, a hop every 0.1 s: only the deadline ends it.
            self.hops += 1
            time.sleep(0.1)
            conn.sendall(b"HTTP/1.1 302 Found\r\nLocation: /chain/%d\r\n\r\n" % self.hops)


class Poller:
    """The daemon with one feed, a watching client of profile 1 and a client
    of profile 2 that asks for its feed list after every fault."""

    def __init__(self, ns):
        self.ns = ns
        self.server = FaultyServer(ns)
        self.url = BASE + "good.xml"
        _, self.pid = start_all(ns, doc(entry(1, self.url), profile(1, 1) + profile(2, 1)))
        self.watcher = Client(ns)
        assert self.watcher.login(1).startswith("OK\tlogin\t")
        self.watcher.wait_push(overview(1, [(0, 0, "K"), (1, 0, "L")]))
        self.asker = Client(ns)
        assert self.asker.login(2).startswith("OK\tlogin\t")

    def poll(self, path, line, lasterror, timeout=15):
        """Moves the entry to `path`; `line` (with %s for the url) is the
        poll's log line at LOG_ERR."""
        url = BASE + path.lstrip("/")
        repoll(self.ns, self.url, url)
        self.url = url
        rec = self.ns.syslog.wait_for(line % url if "%s" in line else line, timeout=timeout)
        assert rec.prio == ERR
        feeds, _, _ = dump(self.ns, self.pid)
        assert (feeds[0]["children"], feeds[0]["lasterror"]) == (2, lasterror)
        assert self.asker.request("accounts\tdomain:rss\tprofile_id:2") == \
            "OK\taccounts\tdomain:rss\tprofile_id:2\tname:News\tfeed_id:1"
        assert self.ns.alive(self.pid)

    def good_poll(self, *titles):
        self.server.feed = feed(*titles)
        self.poll_ok("good.xml?%d" % len(titles))
        self.watcher.wait_push(overview(1, [(uid, 0, t) for uid, t in self.uids(titles)]))

    def poll_ok(self, path):
        url = BASE + path
        repoll(self.ns, self.url, url)
        self.url = url
        self.ns.syslog.wait_for("HTTP OK [%s]" % url)

    @staticmethod
    def uids(titles):
        known = {"K": 0, "L": 1}
        return [(known.get(t, 2), t) for t in titles]


def test_faults_fail_their_poll_and_the_next_good_poll_works(ns):
    p = Poller(ns)
    # Half a document and then a reset: what came is parsed, and is broken.
    p.poll("/reset", "error parsing xml - try to validate the feed", 4)
    assert ns.syslog.count("HTTP OK [%sreset]" % BASE) == 1
    # No status line: no usable response at all.
    p.poll("/garbage", "no connection to server [%s]", 1)
    p.poll("/binary", "no connection to server [%s]", 1)
    # Not a byte: the wait's time-out (3 s) gives up on it.
    p.poll("/silent", "no connection to server [%s]", 1)
    # Back to where it started: the loop is seen and its status kept.
    p.poll("/loop-a", "got HTTP error 302 [%s]", 302)
    # Ever new targets: ended by the fetch's deadline like a lost connection.
    p.poll("/chain/0", "no connection to server [%s]", 1, timeout=60)
    assert 10 < p.server.hops
    p.good_poll("N", "K", "L")
    feeds, _, _ = dump(ns, p.pid)
    assert (feeds[0]["children"], feeds[0]["lasterror"]) == (3, 1)
