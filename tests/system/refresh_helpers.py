"""Shared steps of the feed refresh system tests: a real configd holding the
documents, nginx serving feed files that tests rewrite between polls, a
client on the control socket that keeps what the daemon pushes, and readers
for the status dump and configd's stored documents."""
import os
import re
import signal
import socket
import time

from kelpd_helpers import connect

URL = "http://feeds.test/a.xml"
EMPTY = '<?xml version="1.0"?>\n<pool />\n<profiles />\n'


def fnv(text):
    """The title hash kept in "first" (FNV with a zero basis, multiply first)."""
    h = 0
    for b in text.encode("latin-1"):
        h = (h * 16777619) & 0xFFFFFFFF
        h ^= b
    return h


def item(title, guid=None):
    g = "<guid>%s</guid>" % guid if guid else ""
    return "<item><title>%s</title>%s</item>" % (title, g)


def feed(*items, title="Kelp News"):
    return ('<?xml version="1.0"?>\n<rss version="2.0"><channel><title>%s</title>%s</channel></rss>\n'
            % (title, "".join(i if i.startswith("<item>") else item(i) for i in items)))


def doc(entries, profiles):
    return '<?xml version="1.0"?>\n<pool>%s</pool>\n<profiles>%s</profiles>\n' % (entries, profiles)


def entry(id_, url, name="News", poll=600):
    n = ' name="%s"' % name if name is not None else ""
    return '<entry id="%s" url="%s"%s poll="%s" />' % (id_, url, n, poll)


def profile(id_, *refs):
    return '<profile id="%s">%s</profile>' % (id_, "".join('<item entry="%s" />' % r for r in refs))


def overview(profile_id, items, feed_id=1):
    """items: (uid, state, subject) in list order; state 1 read, 0 unread."""
    parts = ["overview", "domain:rss", "profile_id:%d" % profile_id, "feed_id:%d" % feed_id,
             "number:%d" % len(items), "number_new:%d" % sum(1 for i in items if not i[1] & 1)]
    for uid, state, subject in items:
        parts += ["uid:%d" % uid, "state:%d" % state, "subject:%s" % subject]
    return "\t".join(parts)


class Site:
    """nginx on feeds.test:80 serving files that a test rewrites at will."""

    def __init__(self, ns):
        self.root = os.path.join(ns.tmp, "www")
        os.makedirs(self.root, exist_ok=True)
        os.chmod(ns.tmp, 0o755)
        os.chmod(self.root, 0o755)
        self.ns = ns
        self.proc = None

    def put(self, name, text):
        path = os.path.join(self.root, name)
        with open(path, "wb") as f:
            f.write(text.encode("latin-1") if isinstance(text, str) else text)
        os.chmod(path, 0o644)

    def start(self):
        self.proc = self.ns.start_nginx(self.root)
        return self

    def stop(self):
        self.proc.terminate()
        self.proc.wait(10)


class Client:
    """A raw client connection; pushed messages wait in `pushed` until a
    test looks for them."""

    def __init__(self, ns):
        self.sock = connect(ns)
        self.sock.settimeout(15)
        self.pushed = []

    def _recv(self):
        return self.sock.recv(1 << 20).split(b"\0", 1)[0].decode("latin-1")

    def request(self, text):
        self.sock.send(text.encode("latin-1"))
        word = text.split()[0]
        while True:
            msg = self._recv()
            if msg.startswith("OK\t%s\t" % word) or msg.startswith("ERROR\t%s\t" % word):
                return msg
            self.pushed.append(msg)

    def login(self, profile_id):
        return self.request("login\tv:3\tdomain:rss\tprofile_id:%d" % profile_id)

    def body(self, profile_id, uid, feed_id=1):
        return self.request("body\tdomain:rss\tprofile_id:%d\tfeed_id:%d\tuid:%d" % (profile_id, feed_id, uid))

    def wait_push(self, want, timeout=15):
        """The first pushed message equal to `want` (or matching a compiled
        pattern); every message before it is dropped."""
        deadline = time.monotonic() + timeout
        while True:
            while self.pushed:
                msg = self.pushed.pop(0)
                if (want.fullmatch(msg) if isinstance(want, re.Pattern) else msg == want):
                    return msg
            left = deadline - time.monotonic()
            if left <= 0:
                raise AssertionError("no pushed message %r" % (want,))
            self.sock.settimeout(left)
            try:
                self.pushed.append(self._recv())
            except socket.timeout:
                raise AssertionError("no pushed message %r" % (want,))
            finally:
                self.sock.settimeout(15)

    def close(self):
        self.sock.close()


def set_rss(ns, text):
    cp = ns.configctl("set", "rss", "-", input=text)
    assert cp.returncode == 0, cp.stderr


def stored(ns, domain="rss"):
    cp = ns.configctl("get", domain)
    assert cp.returncode == 0, cp.stderr
    return cp.stdout


def attrs_of_item(ns, profile_id):
    """The attributes of the profile's first subscription in configd's
    stored document."""
    m = re.search(r'<profile id="%d"[^>]*>\s*<item ([^>]*?)\s*/>' % profile_id, stored(ns))
    assert m, stored(ns)
    return dict(re.findall(r'(\w+)="([^"]*)"', m.group(1)))


def start_all(ns, rss, *args, env=None):
    """configd holding `rss` (and an empty podcast domain), then kelpd (with
    `env` added to its environment)."""
    configd = ns.start_configd()
    set_rss(ns, rss)
    assert ns.configctl("set", "podcast", "-", input=EMPTY).returncode == 0
    _, pid = ns.start_kelpd(*(args or ("-vvvv",)), env=env)
    assert pid
    if not args:
        ns.syslog.wait_for("incoming config data (handle=1)")
    return configd, pid


def repoll(ns, old_url, new_url):
    """Moves the entry to another address (keeping everything else configd
    stores, read marks included), which polls it at once."""
    text = stored(ns)
    assert 'url="%s"' % old_url in text
    n = ns.syslog.count("incoming config data (handle=1)")
    set_rss(ns, text.replace('url="%s"' % old_url, 'url="%s"' % new_url))
    ns.syslog.wait_count("incoming config data (handle=1)", n + 1)


DUMP_LINE = re.compile(r"\[(.*?)\] (\S*)  \[#refs=(\d+) #children=(\d+) nextuid=(\d+) poll=(-?\d+) "
                       r"lasterror=(-?\d+) due=(-?\d+)\]")


def dump(ns, pid):
    """Writes the status dump; returns (RSS feed lines as dicts, dump file
    text, syslog lines of the dump)."""
    start = len(ns.syslog.texts())
    os.kill(pid, signal.SIGUSR2)
    ns.syslog.wait_for(re.compile(r"^slab statistics of kelpd"), start=start)
    with open(ns.path("/var/tmp/kelpd.log")) as f:
        text = f.read()
    rss = text.split("Podcast pool:")[0]
    feeds = []
    for m in DUMP_LINE.finditer(rss):
        keys = ("name", "url", "refs", "children", "nextuid", "poll", "lasterror", "due")
        feeds.append({k: (v if k in ("name", "url") else int(v)) for k, v in zip(keys, m.groups())})
    return feeds, text, ns.syslog.texts()[start:]
