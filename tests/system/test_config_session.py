"""kelpd's session with configd: subscription and fetches, change
indications, documents it refuses, and how the session's end ends kelpd.
Uses the real configd, or a scripted one where configd would never misbehave."""
import re
import signal

import configd_wire as w
from kelpd_helpers import start

DOC = ('<?xml version="1.0"?>\n<pool><entry id="1" url="http://feeds.test/a.xml" name="A" poll="600" /></pool>\n'
       '<profiles><profile id="1"><item entry="1" /></profile></profiles>\n')
EMPTY = '<?xml version="1.0"?><pool /><profiles><profile id="1" /></profiles>'

CRIT, ERR, INFO = 2, 3, 6


def with_configd(ns, rss=DOC, podcast=DOC):
    p = ns.start_configd()
    for domain, doc in (("rss", rss), ("podcast", podcast)):
        if doc is not None:
            assert ns.configctl("set", domain, "-", input=doc).returncode == 0
    return p


def test_subscribes_and_fetches_both_domains(ns):
    with_configd(ns)
    pid = start(ns, "-vvv")
    ns.syslog.wait_for("connecting to configd ...")
    assert ns.syslog.wait_for("configd connection established").prio == INFO
    ns.syslog.wait_for("incoming config data (handle=1)")
    ns.syslog.wait_for("incoming config data (handle=2)")
    ns.syslog.wait_for("client subscribed to domain 'podcast'", ident="configd")
    assert ns.alive(pid)


def test_configctl_set_makes_kelpd_fetch_the_domain_again(ns):
    with_configd(ns)
    pid = start(ns, "-vvv")
    ns.syslog.wait_for("incoming config data (handle=2)")
    assert ns.configctl("set", "rss", "-", input=DOC.replace('name="A"', 'name="A2"')).returncode == 0
    assert ns.syslog.wait_for("config change on domain 'rss' indicated").prio == INFO
    ns.syslog.wait_count("incoming config data (handle=1)", 2)
    assert ns.syslog.count("incoming config data (handle=2)") == 1
    assert ns.configctl("set", "podcast", "-", input=DOC).returncode == 0
    ns.syslog.wait_for("config change on domain 'podcast' indicated")
    ns.syslog.wait_count("incoming config data (handle=2)", 2)
    assert ns.alive(pid)


def test_both_domains_without_items_end_kelpd(ns):
    with_configd(ns, rss=None, podcast=EMPTY)   # rss never stored: served empty
    pid = start(ns, "-vv")
    ns.syslog.wait_for("config has no items")
    ns.syslog.wait_for("configuration is empty")
    assert ns.wait_exit(pid) == 0


def test_killing_configd_ends_kelpd(ns):
    p = with_configd(ns)
    pid = start(ns, "-vvv")
    ns.syslog.wait_for("incoming config data (handle=2)")
    p.kill()
    ns.syslog.wait_for("configd connection closed")
    assert ns.wait_exit(pid) == 0


def test_no_configd_ends_kelpd(ns):
    pid = start(ns, "-v")
    assert ns.syslog.wait_for("unable to connect to configd").prio == CRIT
    assert ns.wait_exit(pid) == 0


def test_one_domain_only_without_items_keeps_running(ns):
    fake = w.FakeConfigd(ns, {"rss": EMPTY})
    pid = start(ns, "-vvv")
    ns.syslog.wait_for("incoming config data (handle=1)")
    # Still serving: a change indication is still answered with a fetch.
    fake.send(w.indication(w.CHANGE_IND, "rss"))
    ns.syslog.wait_count("incoming config data (handle=1)", 2)
    assert ns.alive(pid)
    assert ns.syslog.count("configuration is empty") == 0
    assert ns.syslog.count("config has no items") == 0
    fake.close()


def test_subscription_and_requests_on_the_wire(ns):
    fake = w.FakeConfigd(ns, {"rss": DOC, "podcast": DOC})
    start(ns, "-vvv")
    ns.syslog.wait_for("incoming config data (handle=2)")
    assert fake.got(w.SUBSCRIBE) == [(w.REQUEST, w.SUBSCRIBE, 0, [["rss", "podcast"]])]
    assert fake.got(w.GET_CONFIG) == [(w.REQUEST, w.GET_CONFIG, 1, ["rss"]),
                                      (w.REQUEST, w.GET_CONFIG, 2, ["podcast"])]
    fake.close()


def test_change_of_another_domain_is_fetched_with_tag_zero_and_dropped(ns):
    fake = w.FakeConfigd(ns, {"rss": DOC, "podcast": DOC, "weather": DOC})
    pid = start(ns, "-vvv")
    ns.syslog.wait_for("incoming config data (handle=2)")
    fake.send(w.indication(w.CHANGE_IND, "weather"))
    ns.syslog.wait_for("config change on domain 'weather' indicated")
    rec = ns.syslog.wait_for("received config for unknown handle 0 - ignored")
    assert rec.prio == ERR
    assert (w.REQUEST, w.GET_CONFIG, 0, ["weather"]) in fake.got(w.GET_CONFIG)
    assert ns.alive(pid)
    fake.close()


def test_document_without_pool_is_refused_and_the_old_one_kept(ns):
    fake = w.FakeConfigd(ns, {"rss": DOC, "podcast": DOC})
    pid = start(ns, "-vvv")
    ns.syslog.wait_for("incoming config data (handle=2)")
    fake.docs["rss"] = '<?xml version="1.0"?><profiles />'
    fake.send(w.indication(w.CHANGE_IND, "rss"))
    assert ns.syslog.wait_for("missing <pool>-node in config").prio == CRIT
    fake.docs["podcast"] = '<?xml version="1.0"?><pool />'
    fake.send(w.indication(w.CHANGE_IND, "podcast"))
    assert ns.syslog.wait_for("missing <profiles>-node in config").prio == CRIT
    # The refused documents did not replace the ones with items.
    assert ns.syslog.count("configuration is empty") == 0
    assert ns.alive(pid)
    fake.close()


def test_error_reply_to_a_fetch_is_logged(ns):
    fake = w.FakeConfigd(ns, {"podcast": DOC})
    pid = start(ns, "-vvv")
    ns.syslog.wait_for("incoming config data (handle=2)")
    fake.send(w.frame(w.ERROR_REPLY, w.GET_CONFIG, 1, w.text("stored document is unreadable")))
    ns.syslog.wait_for(re.compile(r"configd refused config request \(handle=1\): stored document is unreadable"))
    assert ns.alive(pid)
    fake.close()


def test_garbage_from_configd_ends_the_session(ns):
    fake = w.FakeConfigd(ns, {"rss": DOC, "podcast": DOC})
    pid = start(ns, "-vvv")
    ns.syslog.wait_for("incoming config data (handle=2)")
    fake.send(b"\x00\x00\x00\x0bgarbage!!!!")
    assert ns.syslog.wait_for("configd error 1").prio == CRIT
    ns.syslog.wait_for("configd connection closed")
    assert ns.wait_exit(pid) == 0
    fake.close()


def test_configd_closing_mid_frame_ends_the_session(ns):
    fake = w.FakeConfigd(ns, {})
    pid = start(ns, "-vvv")
    fake.connected.wait(15)
    ns.syslog.wait_for("configd connection established")
    # The subscription and both fetches are read first: a request kelpd
    # sends after the close fails as a socket error (error 4), not the end
    # of the stream this test is about.
    fake.wait_requests(3)
    whole = w.reply(w.GET_CONFIG, 1, DOC)
    fake.send(whole[:20])
    fake.close()
    ns.syslog.wait_for("configd error 3")
    ns.syslog.wait_for("configd connection closed")
    assert ns.wait_exit(pid) == 0


def test_document_over_two_mib_reaches_kelpd(ns):
    pool = "".join('<entry id="%d" url="http://feeds.test/%d.xml" name="Feed number %d" poll="600" />'
                   % (i, i, i) for i in range(30000))
    big = DOC.replace('<pool>', '<pool>' + pool, 1)
    assert len(big) > 2 * 1024 * 1024
    with_configd(ns, rss=big)
    pid = start(ns, "-vvv")
    ns.syslog.wait_for("incoming config data (handle=1)")
    ns.syslog.wait_for("incoming config data (handle=2)")
    assert ns.syslog.count("configd error") == 0
    assert ns.alive(pid)


def test_sigterm_closes_the_session(ns):
    with_configd(ns)
    pid = start(ns, "-vvv")
    ns.syslog.wait_for("incoming config data (handle=2)")
    ns.signal(pid, signal.SIGTERM)
    ns.syslog.wait_for("disconnecting from configd ...")
    assert ns.wait_exit(pid) == 0
    ns.syslog.wait_for("client disconnected", ident="configd")
