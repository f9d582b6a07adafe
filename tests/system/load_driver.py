"""A load generator for kelpd's control socket: many connections served
from one poll loop, several requests in flight on each, every answer checked
against the one load_fixture predicts and every pushed overview against the
feed it names. Each connection keeps a model of what kelpd knows about it
(its logins and API version), updated as its requests are sent: kelpd serves
one connection's requests in order, so the model is exact for answers."""
import collections
import random
import select
import socket

import load_fixture as fx

DEPTH = 8  # requests in flight per connection
RECV = 1 << 20


class Conn:
    def __init__(self, sock, home):
        self.sock = sock
        self.home = home          # (domain, profile) never logged out of
        self.api = 0              # as the requests sent so far leave it
        self.rx_api = 0           # as the answers received so far show it
        self.logins = []          # (domain, profile) in login order
        self.expect = collections.deque()  # (answer, api it sets or None)
        self.answers = 0
        self.pushes = 0
        self.seen_read = {}       # (domain, feed) -> uids seen read in an overview


class Mix:
    """Chooses requests and predicts their answers."""

    def __init__(self, seed):
        self.rng = random.Random(seed)
        self.read = set()  # (domain, feed, uid) some connection asked for
        self.sent = collections.Counter()

    def _profile(self, c):
        r = self.rng.random()
        if c.logins and r < 0.85:
            return self.rng.choice(c.logins)
        return self.rng.choice(fx.DOMAINS), self.rng.choice(fx.PROFILES)

    def login(self, c, domain, profile, v):
        """A login; an accepted version becomes the connection's even when
        the rest of the login fails."""
        req = "login\tv:%d\tdomain:%s\tprofile_id:%d" % (v, domain, profile)
        fields = "domain:%s\tprofile_id:%d" % (domain, profile)
        if v not in (2, 3):
            return req, "ERROR\tlogin\t7:KD_VERSION_NOT_SUPPORTED\t" + fields, None
        c.api = v
        if domain not in fx.DOMAINS:
            return req, "ERROR\tlogin\t14:KD_DOMAIN_NOT_FOUND\t" + fields, v
        if (domain, profile) not in c.logins:
            c.logins.append((domain, profile))
        return req, fx.login_answer(domain, profile), v

    def _logout(self, c, domain, profile):
        req = "logout\tdomain:%s\tprofile_id:%d" % (domain, profile)
        if (domain, profile) not in c.logins:
            return req, "ERROR\tlogout\t9:KD_NOT_LOGGED_IN\tdomain:%s\tprofile_id:%d" % (domain, profile), None
        c.logins.remove((domain, profile))
        return req, "OK\tlogout\tdomain:%s\tprofile_id:%d" % (domain, profile), None

    def _item(self, c, cmd):
        domain, profile = self._profile(c)
        subs = fx.subscriptions(domain, profile)
        r = self.rng.random()
        # Every request on the shared feed pushes an overview to each connection
        # of the domain's other profiles: a few of them keep the pushes in bounds.
        if subs and r < 0.86:
            feed = subs[0]
        elif subs and r < 0.9:
            feed = subs[1]
        else:
            feed = self.rng.choice(fx.feed_ids(domain) + [fx.DANGLING])
        uid = self.rng.randrange(fx.ITEMS) if self.rng.random() < 0.95 else 50 + self.rng.randrange(9)
        req = "%s\tdomain:%s\tprofile_id:%d\tfeed_id:%d\tuid:%d" % (cmd, domain, profile, feed, uid)
        if (domain, profile) not in c.logins:
            return req, "ERROR\t%s\t9:KD_NOT_LOGGED_IN\tdomain:%s\tprofile_id:%d\tfeed_id:%d\tuid:%d" % (
                cmd, domain, profile, feed, uid), None
        answer = fx.item_answer(cmd, domain, profile, feed, uid, c.api)
        if feed in fx.subscriptions(domain, profile) and 0 <= uid < fx.ITEMS:
            self.read.add((domain, feed, uid))
        return req, answer, None

    def _malformed(self, c):
        kind = self.rng.randrange(5)
        if kind == 0:
            return "body\tdomain:rss\tprofile_id:1\tfeed_id:1", \
                "ERROR\tbody\t6:KD_MISSING_UID\tdomain:rss\tprofile_id:1\tfeed_id:1\tuid:0", None
        if kind == 1:
            return "image\tdomain:podcast\tprofile_id:2", \
                "ERROR\timage\t17:KD_MISSING_FEEDID\tdomain:podcast\tprofile_id:2\tfeed_id:0\tuid:0", None
        if kind == 2:
            return "enclosure", "ERROR\tenclosure\t13:KD_MISSING_DOMAIN\tdomain:\tprofile_id:0\tfeed_id:0\tuid:0", None
        if kind == 3:
            # Without its profile id the request names profile 0, which logins may have made.
            code = "15:KD_MISSING_PROFILE" if ("rss", 0) in c.logins else "9:KD_NOT_LOGGED_IN"
            return "accounts\tdomain:rss", "ERROR\taccounts\t%s\tdomain:rss\tprofile_id:0" % code, None
        return "login", "ERROR\tlogin\t7:KD_VERSION_NOT_SUPPORTED\tdomain:\tprofile_id:0", None

    def next(self, c):
        """(request text, expected answer or None, api the answer sets or None)."""
        r = self.rng.random()
        if r < 0.30:
            kind = "body"
        elif r < 0.40:
            kind = "enclosure"
        elif r < 0.50:
            kind = "image"
        elif r < 0.60:
            kind = "accounts"
        elif r < 0.70:
            kind = "login"
        elif r < 0.78:
            kind = "logout"
        elif r < 0.83:
            kind = "status"
        elif r < 0.86:
            kind = "badlogin"
        elif r < 0.97:
            kind = "malformed"
        else:
            kind = "unanswered"
        self.sent[kind] += 1
        if kind in ("body", "enclosure", "image"):
            return self._item(c, kind)
        if kind == "accounts":
            domain, profile = self._profile(c)
            req = "accounts\tdomain:%s\tprofile_id:%d" % (domain, profile)
            if (domain, profile) in c.logins:
                return req, fx.accounts_answer(domain, profile), None
            return req, "ERROR\taccounts\t9:KD_NOT_LOGGED_IN\tdomain:%s\tprofile_id:%d" % (domain, profile), None
        if kind == "login":
            domain, profile = self.rng.choice(fx.DOMAINS), self.rng.choice(fx.PROFILES + (0, 99))
            return self.login(c, domain, profile, self.rng.choice((2, 3)))
        if kind == "logout":
            domain, profile = self._profile(c)
            if (domain, profile) == c.home:
                domain, profile = "rss", 99
            return self._logout(c, domain, profile)
        if kind == "status":
            return "status", "ERROR\tstatus\t9:KD_NOT_LOGGED_IN\tdomain:\tprofile_id:0", None
        if kind == "badlogin":
            if self.rng.random() < 0.5:
                return self.login(c, "rss", 1, self.rng.choice((0, 1, 4)))
            return self.login(c, "mail", 1, self.rng.choice((2, 3)))
        if kind == "malformed":
            return self._malformed(c)
        return self.rng.choice(("bogus\tdomain:rss", "overview\tdomain:rss", "OK", "ERROR", " \n")), None, None


def check_overview(c, text, mix):
    """A pushed overview: the feed's items in order, the flags of the
    connection's API version, read marks only on items some request asked
    for, and no mark lost since the last overview of that feed."""
    f = text.split("\t")
    assert f[1].startswith("domain:") and f[3].startswith("feed_id:"), text
    domain, feed = f[1][7:], int(f[3][8:])
    items = fx.cached_items(domain, feed)
    assert f[4] == "number:%d" % len(items), text
    read = set()
    for k, item in enumerate(items):
        uid, state, subject = f[6 + 3 * k:9 + 3 * k]
        assert (uid, subject) == ("uid:%d" % item.uid, "subject:%s" % item.title), text
        n = int(state[6:])
        assert n & ~1 == item.flags(c.rx_api), (c.rx_api, text)
        if n & 1:
            assert (domain, feed, item.uid) in mix.read, text
            read.add(item.uid)
    assert len(f) == 6 + 3 * len(items), text
    assert f[5] == "number_new:%d" % (len(items) - len(read)), text
    before = c.seen_read.get((domain, feed), set())
    assert before <= read, (before, text)
    c.seen_read[(domain, feed)] = read
    c.pushes += 1


# One buffer for every receive: a fresh megabyte per packet would cost more
# than the packet.
_buf = bytearray(RECV)
_view = memoryview(_buf)


def receive(c, mix):
    n = c.sock.recv_into(_buf, RECV, socket.MSG_DONTWAIT)
    assert n, "kelpd closed a connection"
    end = _buf.find(0, 0, n)
    text = _view[:end if end >= 0 else n].tobytes().decode("latin-1")
    if text.startswith("overview\t"):
        check_overview(c, text, mix)
        return
    assert c.expect, "unexpected message %r" % text
    want, api = c.expect.popleft()
    assert text == want, (text, want)
    if api is not None:
        c.rx_api = api
    c.answers += 1


def run(conns, total, seed=1):
    """Sends `total` requests spread over `conns`, DEPTH in flight on each,
    until every answer has arrived; returns the Mix (its counts)."""
    mix = Mix(seed)
    by_fd = {c.sock.fileno(): c for c in conns}
    poller = select.poll()
    for fd in by_fd:
        poller.register(fd, select.POLLIN)
    left = total
    waiting = 0

    def fill(c):
        nonlocal left, waiting
        while left > 0 and len(c.expect) < DEPTH:
            req, answer, api = mix.next(c)
            c.sock.send(req.encode("latin-1"))
            left -= 1
            if answer is not None:
                c.expect.append((answer, api))
                waiting += 1

    for c in conns:
        fill(c)
    while left > 0 or waiting > 0:
        events = poller.poll(15000)
        assert events, "no answer within 15 s (%d requests left, %d answers due)" % (left, waiting)
        for fd, ev in events:
            c = by_fd[fd]
            assert not ev & (select.POLLHUP | select.POLLERR), "connection lost"
            before = c.answers
            receive(c, mix)
            waiting -= c.answers - before
            fill(c)
    return mix


def drain(c, mix, timeout=0.2):
    """Reads (and checks) what was pushed after the last answer."""
    while select.select([c.sock], [], [], timeout)[0]:
        receive(c, mix)
