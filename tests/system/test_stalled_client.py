"""A client that stops reading while the real kelpd pushes to it: the other
clients get every message in order, and the stalled one is cut off once
its queue is full, without the daemon waiting for it."""
from kelpd_client import Client
from test_reading import DOC, URL, serve  # noqa: F401  (same feed server and configuration)

ITEMS = 60
BURST = 400


def many_items():
    return [("Item %02d" % i, "Text %d" % i, "") for i in range(ITEMS)]


def start(ns):
    ns.start_nginx(serve(ns, many_items()))
    ns.start_configd()
    for domain in ("rss", "podcast"):
        assert ns.configctl("set", domain, "-", input=DOC).returncode == 0
    _, pid = ns.start_kelpd("-vv")
    assert pid
    return pid


def test_a_stalled_reader_among_twenty_does_not_hold_up_the_others(ns):
    pid = start(ns)
    reader = Client(ns)
    assert reader.login_configured(profile=1).startswith("OK\t")
    reader.next_push("overview\tdomain:rss\tprofile_id:1\tfeed_id:1\tnumber:%d" % ITEMS)
    stalled = Client(ns)
    assert stalled.login(profile=2).startswith("OK\t")
    active = [Client(ns) for _ in range(20)]
    for c in active:
        assert c.login(profile=2).startswith("OK\t")
        c.next_push("overview\tdomain:rss\tprofile_id:2\tfeed_id:1\tnumber:%d" % ITEMS)
    for i in range(BURST):
        answer = reader.item("body", 1, i % ITEMS)
        assert answer.startswith("OK\tbody\t"), answer
        want = "overview\tdomain:rss\tprofile_id:2\tfeed_id:1\tnumber:%d\tnumber_new:%d\t" % (
            ITEMS, max(ITEMS - 1 - i, 0))
        for c in active:
            got = c.message()
            assert got.startswith(want), (i, got[:80])
    ns.syslog.wait_for("send failed with 11")
    ns.syslog.wait_for("client gone")
    assert ns.alive(pid)
    for c in active:
        assert c.request("accounts\tdomain:rss\tprofile_id:2").startswith("OK\taccounts\t")
        assert c.pushed == []
