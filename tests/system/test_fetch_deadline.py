"""A feed server that trickles its bytes cannot hold a fetch for long: the
whole fetch has one deadline (20 s), after which the poll fails as a lost
connection does ("no connection to server", lasterror 1, the feed's items
kept). A server that stalls after its headers is cut off sooner, by the
wait's own time-out (3 s): the poll takes what arrived, an empty document.
Fetches run in children, so a client request sent while a fetch trickles is
answered at once, before the fetch ends; and the next poll of a
well-behaved server works. The deadline is the shipped one, so both servers
share one daemon and the file takes about 30 s."""
import select
import threading

from refresh_helpers import Client, dump, doc, entry, feed, overview, profile, repoll, start_all

BASE = "http://other.test:8080/"
ERR = 3
# The deadline, plus room for a slow (sanitized) daemon to log the failure.
HOLD = 60


def hung_up(conn, seconds):
    """Waits up to `seconds` for the daemon to close the connection."""
    return bool(select.select([conn], [], [], seconds)[0])


class FeedServer:
    """other.test:8080: /good.xml serves the current feed; /trickle sends
    the headers, the start of a document and then a blank every 1.5 s, well
    inside each wait's time-out; /stall sends the headers and then nothing.
    Both slow ones go on until the daemon hangs up and note when a fetch of
    theirs has started."""

    def __init__(self, ns):
        self.feed = feed("K", "L")
        self.started = {"/trickle": threading.Event(), "/stall": threading.Event()}
        self.srv = ns.serve_http(self.handle, host="127.0.0.2", port=8080)

    def handle(self, data, conn):
        path = data.split(b" ", 2)[1].decode().split("?")[0]
        head = b"HTTP/1.1 200 OK\r\nContent-Type: text/xml\r\n\r\n"
        if path == "/good.xml":
            conn.sendall(head + self.feed.encode("latin-1"))
            return
        if path == "/stall":
            conn.sendall(head)
            self.started[path].set()
            hung_up(conn, 2 * HOLD)
            return
        conn.sendall(head + b"<?xml version=\"1.0\"?>\n<rss")
        self.started[path].set()
        while not hung_up(conn, 1.5):
            conn.sendall(b" ")


def held_poll(ns, pid, server, old_url, path, reader, line, lasterror, answered_first=False):
    """Moves the entry from `old_url` to the slow server and checks the
    poll's outcome (`line`, with %s for the url, at LOG_ERR, and
    `lasterror`), with a request sent while the fetch runs (answered before
    the poll ends, when `answered_first`); returns the entry's new url."""
    url = BASE + path.lstrip("/")
    repoll(ns, old_url, url)
    assert server.started[path].wait(15)
    assert reader.request("accounts\tdomain:rss\tprofile_id:2") == \
        "OK\taccounts\tdomain:rss\tprofile_id:2\tname:News\tfeed_id:1"
    if answered_first:
        ns.syslog.sync()
        assert ns.syslog.count(line.replace("%s", url)) == 0
    rec = ns.syslog.wait_for(line.replace("%s", url), timeout=HOLD)
    assert rec.prio == ERR
    feeds, _, _ = dump(ns, pid)
    # A failed poll keeps the items.
    assert (feeds[0]["children"], feeds[0]["lasterror"]) == (2, lasterror)
    return url


def test_trickling_and_stalled_servers_cannot_hold_the_daemon(ns):
    server = FeedServer(ns)
    url = BASE + "good.xml"
    _, pid = start_all(ns, doc(entry(1, url), profile(1, 1) + profile(2, 1)))
    watcher = Client(ns)
    assert watcher.login(1).startswith("OK\tlogin\t")
    watcher.wait_push(overview(1, [(0, 0, "K"), (1, 0, "L")]))
    reader = Client(ns)
    assert reader.login(2).startswith("OK\tlogin\t")

    # Ended by the deadline: failed like a lost connection, nothing parsed.
    url = held_poll(ns, pid, server, url, "/trickle", reader, "no connection to server [%s]", 1,
                    answered_first=True)
    assert ns.syslog.count("HTTP OK [%s]" % url) == 0
    # Ended by the wait's time-out: the empty body is the document, without items.
    url = held_poll(ns, pid, server, url, "/stall", reader, "no items found - try to check URL by hand", 5)
    assert ns.syslog.count("HTTP OK [%s]" % url) == 1

    # A server that behaves again is polled as always.
    server.feed = feed("N", "K", "L")
    repoll(ns, url, BASE + "good.xml?again")
    ns.syslog.wait_for("HTTP OK [%sgood.xml?again]" % BASE)
    watcher.wait_push(overview(1, [(2, 0, "N"), (0, 0, "K"), (1, 0, "L")]))
    feeds, _, _ = dump(ns, pid)
    assert (feeds[0]["children"], feeds[0]["lasterror"]) == (3, 5)
    assert ns.alive(pid)
