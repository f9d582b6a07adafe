"""kelpd under load, with the real configd and feeds served by nginx: five
hundred connections in both domains each get exactly their overviews after
a login, a read and a poll; twenty clients pipelining a hundred thousand
requests of every kind get every answer right, and once they have gone the
daemon holds the allocations and descriptors it held before; an overview
larger than a socket's default send buffer reaches its client whole.
kelpd sets no limit on connections of its own (only the descriptors of the
process bound them), so the test raises RLIMIT_NOFILE where it must."""
import os
import re
import resource
import signal
import threading
import time

import load_driver
import load_fixture as fx
from fetch_helpers import children
from kelpd_client import Client
from kelpd_helpers import connect, open_fds, settled_lines
from refresh_helpers import Site, stored

CONNECTIONS = 500
# The full mix in both passes: under ASan it takes about three times as long,
# well within the time a test file may take there.
REQUESTS = 100000
CLIENTS = 20
SLAB = re.compile(r"slab statistics of kelpd: (\d+) live allocations, (\d+) bytes")


def enough_descriptors(n):
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    if soft != resource.RLIM_INFINITY and soft < n:
        assert hard == resource.RLIM_INFINITY or hard >= n, "RLIMIT_NOFILE %d is too low" % hard
        resource.setrlimit(resource.RLIMIT_NOFILE, (n, hard))


def start(ns, verbosity="-vv"):
    site = Site(ns)
    fx.write_feeds(site.root)
    site.start()
    ns.start_configd()
    for domain in fx.DOMAINS:
        assert ns.configctl("set", domain, "-", input=fx.config(domain)).returncode == 0
    _, pid = ns.start_kelpd(verbosity)
    assert pid
    return site, pid


def keeper_of_every_profile(ns):
    """A connection logged in to every profile once each feed has been
    polled (it has received each subscription's first overview)."""
    k = Client(ns)
    for domain in fx.DOMAINS:
        for p in fx.PROFILES:
            answer = k.login_configured(domain, p)
            assert answer == fx.login_answer(domain, p), answer
    want = {(d, p, f) for d in fx.DOMAINS for p in fx.PROFILES for f in fx.subscriptions(d, p)}
    while want:
        text = k.pushed.pop(0) if k.pushed else k.message()
        m = re.match(r"overview\tdomain:(\w+)\tprofile_id:(\d+)\tfeed_id:(\d+)\tnumber:%d\t" % fx.ITEMS, text)
        if m:
            want.discard((m.group(1), int(m.group(2)), int(m.group(3))))
    return k


def slab_figures(ns, pid):
    """(live allocations, live bytes) from the status dump, and its lines per tag."""
    start = len(ns.syslog.texts())
    os.kill(pid, signal.SIGUSR2)
    m = SLAB.fullmatch(ns.syslog.wait_for(SLAB, start=start).text)
    lines = settled_lines(ns)[start:]
    tags = lines[lines.index(m.group(0)) + 1:]
    return (int(m.group(1)), int(m.group(2))), tags


def test_five_hundred_connections_each_get_their_overviews(ns):
    enough_descriptors(2 * CONNECTIONS + 256)
    site, pid = start(ns)
    keeper = keeper_of_every_profile(ns)
    conns = []
    for i in range(CONNECTIONS):
        domain, profile, api = fx.DOMAINS[i % 2], fx.PROFILES[(i // 2) % 5], 2 + i % 2
        s = connect(ns)
        s.settimeout(15)
        s.send(("login\tv:%d\tdomain:%s\tprofile_id:%d" % (api, domain, profile)).encode())
        conns.append((s, domain, profile, api))

    def expect(want_for):
        for s, domain, profile, api in conns:
            for want in want_for(domain, profile, api):
                got = s.recv(1 << 20).split(b"\0", 1)[0].decode("latin-1")
                assert got == want, (domain, profile, api, got, want)

    items = {d: {f: fx.items(d, f) for f in fx.feed_ids(d)} for d in fx.DOMAINS}
    expect(lambda d, p, api: [fx.login_answer(d, p)] +
           [fx.overview(d, p, f, items[d][f], set(), api) for f in fx.subscriptions(d, p)])
    assert len(open_fds(ns, pid)) > CONNECTIONS + 1
    # One read of the shared feed in each domain reaches every connection.
    for domain in fx.DOMAINS:
        answer = keeper.item("body", fx.SHARED[domain], 0, domain=domain, profile=1)
        assert answer == fx.item_answer("body", domain, 1, fx.SHARED[domain], 0, 3)
    expect(lambda d, p, api: [fx.overview(d, p, fx.SHARED[d], items[d][fx.SHARED[d]], {0}, api)])
    # A poll that brings a new item on top reaches every connection too.
    for domain in fx.DOMAINS:
        shared = fx.SHARED[domain]
        ns._wait_until(lambda: len(re.findall(r'<item entry="%d" read="01"' % shared, stored(ns, domain))) == 5,
                       15, "read marks stored")
        items[domain][shared] = [fx.Item(domain, shared, fx.MAX_UID, title="%s breaking news" % domain)] + \
            items[domain][shared]
        site.put("%s%d.xml" % (domain, shared), fx.rss(items[domain][shared]))
        old = fx.url(domain, shared)
        # The entry moved keeps every attribute configd stores and is polled at once.
        text = stored(ns, domain).replace('url="%s"' % old, 'url="%s?2"' % old)
        assert ns.configctl("set", domain, "-", input=text).returncode == 0
    expect(lambda d, p, api: [fx.overview(d, p, fx.SHARED[d], items[d][fx.SHARED[d]], {0}, api)])
    # Nothing else arrived: the next message of each is its own answer.
    for s, domain, profile, api in conns:
        s.send(("accounts\tdomain:%s\tprofile_id:%d" % (domain, profile)).encode())
    expect(lambda d, p, api: [fx.accounts_answer(d, p)])
    for s, *_ in conns:
        s.close()
    assert ns.alive(pid)
    assert not [t for t in ns.syslog.texts() if t.startswith("send failed")]


def home_connections(ns, mix):
    conns = []
    for i in range(CLIENTS):
        c = load_driver.Conn(connect(ns), (fx.DOMAINS[i % 2], fx.PROFILES[(i // 2) % 5]))
        req, answer, api = mix.login(c, c.home[0], c.home[1], 3)
        c.sock.send(req.encode())
        got = c.sock.recv(1 << 20).split(b"\0", 1)[0].decode("latin-1")
        assert got == answer
        c.rx_api = api
        conns.append(c)
    return conns


def test_a_hundred_thousand_mixed_requests_from_twenty_clients(ns):
    _, pid = start(ns, "-vv")
    keeper = keeper_of_every_profile(ns)
    # Placeholders made now are the daemon's idle state too.
    for domain in fx.DOMAINS:
        for p in (0, 99):
            assert keeper.login(domain=domain, profile=p) == fx.login_answer(domain, p)
    for domain in fx.DOMAINS:
        for p in fx.PROFILES + (0, 99):
            assert keeper.logout(profile=p, domain=domain) == \
                "OK\tlogout\tdomain:%s\tprofile_id:%d" % (domain, p)
    # The multiplexer's tables grow to the most descriptors in use at once and
    # stay so; as many connections as the load opens, all answered before
    # any closes (so the daemon holds them together), bring them there first.
    warm = [Client(ns) for _ in range(CLIENTS)]
    for c in warm:
        assert c.request("status").startswith("ERROR\tstatus\t9:")
    for c in warm:
        c.close()
    assert keeper.request("status").startswith("ERROR\tstatus\t9:")
    # The spare fetching child of the logins' polls ends when no poll comes.
    ns._wait_until(lambda: children(pid) == [], 60, "no child of kelpd")
    idle, idle_tags = slab_figures(ns, pid)
    fds = sorted(open_fds(ns, pid))
    conns = home_connections(ns, load_driver.Mix(0))
    started = time.monotonic()
    mix = load_driver.run(conns, REQUESTS - CLIENTS, seed=7)
    elapsed = time.monotonic() - started
    for c in conns:
        load_driver.drain(c, mix)
    assert sum(c.answers for c in conns) == sum(mix.sent.values()) - mix.sent["unanswered"]
    assert all(n > 0 for n in mix.sent.values()) and len(mix.sent) == 10, mix.sent
    assert sum(c.pushes for c in conns) > 0
    for c in conns:
        c.sock.close()
    # Every connection gone: the allocations and descriptors of the idle daemon.
    # Saves to configd still travelling settle first.
    last = []

    def settled():
        last[:] = [slab_figures(ns, pid), sorted(open_fds(ns, pid))]
        return (last[0][0], last[1]) == (idle, fds)
    try:
        ns._wait_until(settled, 30, "the idle figures")
    except TimeoutError:
        pass
    (figures, tags), now_fds = last
    assert figures == idle, (figures, idle, sorted(set(tags) - set(idle_tags)), sorted(set(idle_tags) - set(tags)))
    assert now_fds == fds
    assert ns.alive(pid)
    assert keeper.request("accounts\tdomain:rss\tprofile_id:1") == \
        "ERROR\taccounts\t9:KD_NOT_LOGGED_IN\tdomain:rss\tprofile_id:1"
    assert not [t for t in ns.syslog.texts() if "failed" in t or "unable" in t]
    print("%d requests in %.1f s" % (REQUESTS, elapsed))


def long_subject(i):
    return ("Item %04d " % i) + "".join(chr(ord("a") + (i + k) % 26) for k in range(150))


def serve_long_feed(ns):
    """Serves feeds.test/a.xml, 1000 items with long subjects, and starts
    configd; returns the subjects."""
    site = Site(ns)
    titles = [long_subject(i) for i in range(1000)]
    site.put("a.xml", '<?xml version="1.0"?><rss><channel><title>Big</title>%s</channel></rss>'
             % "".join("<item><title>%s</title></item>" % t for t in titles))
    site.start()
    ns.start_configd()
    return titles


def test_an_overview_larger_than_a_default_send_buffer_arrives_whole(ns):
    # 1000 items of 160 characters: a text of about 185 kB, sent as a block
    # of 256 KiB, more than a local socket's default send buffer takes.
    titles = serve_long_feed(ns)
    doc = ('<?xml version="1.0"?>\n<pool><entry id="1" url="http://feeds.test/a.xml" name="Big" poll="600" />'
           '</pool>\n<profiles><profile id="1"><item entry="1" /></profile></profiles>\n')
    for domain in fx.DOMAINS:
        assert ns.configctl("set", domain, "-", input=doc).returncode == 0
    _, pid = ns.start_kelpd("-vv")
    c = Client(ns)
    assert c.login_configured().startswith("OK\tlogin\t")
    data = c.sock.recv(1 << 20)
    want = "\t".join(["overview\tdomain:rss\tprofile_id:1\tfeed_id:1\tnumber:1000\tnumber_new:1000"] +
                     ["uid:%d\tstate:0\tsubject:%s" % (i, t) for i, t in enumerate(titles)])
    assert len(data) == 256 * 1024
    assert data.split(b"\0", 1)[0].decode("latin-1") == want
    cp = ns.kelpctl("overview", "1")
    assert cp.returncode == 0, cp.stderr
    assert cp.stdout.splitlines()[0] == "feed 1 (Big): 1000 items, 1000 new"
    assert len(cp.stdout.splitlines()) > 1000
    assert not [t for t in ns.syslog.texts() if t.startswith("send failed")]
    assert ns.alive(pid)


def test_a_login_to_many_large_feeds_gets_every_overview(ns):
    # Twenty subscriptions whose overviews are 256 KiB blocks each: more at
    # once than a socket and its queue's cap hold together. A login queues
    # them all; a client that reads them as they come must get every one,
    # not be cut off as if it had stopped reading.
    feeds = 20
    titles = serve_long_feed(ns)
    doc = ('<?xml version="1.0"?>\n<pool>%s</pool>\n<profiles><profile id="1">%s</profile></profiles>\n'
           % ("".join('<entry id="%d" url="http://feeds.test/a.xml?f=%d" name="Big" poll="600" />' % (f, f)
                      for f in range(1, feeds + 1)),
              "".join('<item entry="%d" />' % f for f in range(1, feeds + 1))))
    for domain in fx.DOMAINS:
        assert ns.configctl("set", domain, "-", input=doc).returncode == 0
    _, pid = ns.start_kelpd("-vvv")
    # The first login starts the polls; its connection reads their pushes
    # away in the background.
    first = Client(ns)
    assert first.login_configured().startswith("OK\tlogin\t")
    got_first = []

    def read_first():
        while len(got_first) < feeds:
            got_first.append(first.message())

    reader = threading.Thread(target=read_first)
    reader.start()
    for f in range(1, feeds + 1):
        ns.syslog.wait_for("HTTP OK [http://feeds.test/a.xml?f=%d]" % f)
    reader.join(60)
    assert len(got_first) == feeds
    start_line = len(ns.syslog.texts())
    c = Client(ns)
    assert c.login().startswith("OK\tlogin\t")
    head = "overview\tdomain:rss\tprofile_id:1\tfeed_id:%d\tnumber:1000\tnumber_new:1000\t"
    for f in range(1, feeds + 1):
        text = c.message()
        assert text.startswith(head % f), text[:80]
        assert text.endswith("subject:" + titles[-1])
    assert c.request("accounts\tdomain:rss\tprofile_id:1").startswith("OK\taccounts\t")
    assert not [t for t in ns.syslog.texts()[start_line:] if t.startswith("send failed")]
    assert ns.alive(pid)
