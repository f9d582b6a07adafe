"""Configuration merges of the real kelpd with documents stored through
configctl: feed records and poll timers carried over, freed or restarted,
profiles turned into placeholders and back, and polls that follow the
connected clients and the internet."""
import os
import re
import signal

import configd_wire as w
from kelpd_client import Client
from kelpd_helpers import start as start_kelpd

CTL = "/var/tmp/me_kelpd_daemon.ctl"
INFO, DEBUG = 6, 7
URL_A = "http://feeds.test/a.xml"
URL_B = "http://feeds.test/b.xml"


def doc(entries, profiles):
    return '<?xml version="1.0"?>\n<pool>%s</pool>\n<profiles>%s</profiles>\n' % (entries, profiles)


def entry(id_, url, name, poll=None):
    p = ' poll="%s"' % poll if poll else ""
    return '<entry id="%s" url="%s" name="%s"%s />' % (id_, url, name, p)


def profile(id_, *refs):
    return '<profile id="%s">%s</profile>' % (id_, "".join('<item entry="%s" />' % r for r in refs))


ENTRIES = entry(1, URL_A, "News", 1200) + entry(2, URL_B, "Radio")
BASE = doc(ENTRIES, profile(1, 1, 2) + profile(2, 2))


def set_rss(ns, text):
    assert ns.configctl("set", "rss", "-", input=text).returncode == 0


def start(ns, rss=BASE):
    ns.start_configd()
    set_rss(ns, rss)
    assert ns.configctl("set", "podcast", "-", input=BASE).returncode == 0
    _, pid = ns.start_kelpd("-vvvv")
    assert pid
    ns.syslog.wait_for("incoming config data (handle=1)")
    ns.syslog.wait_for("incoming config data (handle=2)")
    return pid


def set_and_wait(ns, text):
    """Stores a new RSS document and waits until kelpd has merged it."""
    n = ns.syslog.count("incoming config data (handle=1)")
    set_rss(ns, text)
    ns.syslog.wait_count("incoming config data (handle=1)", n + 1)


def polling(ns, profile_id, url):
    """kelpd with a client logged in to the profile and the feed's poll started."""
    pid = start(ns)
    c = Client(ns)
    assert c.login(profile=profile_id).startswith("OK\t")
    ns.syslog.wait_for("start 1200s poll on: " + url)
    return pid, c


def dump(ns, pid):
    """Writes the status dump; returns (dump file text, syslog lines of it)."""
    start = len(ns.syslog.texts())
    os.kill(pid, signal.SIGUSR2)
    ns.syslog.wait_for(re.compile(r"^slab statistics of kelpd"), start=start)
    with open(ns.path("/var/tmp/kelpd.log")) as f:
        return f.read(), ns.syslog.texts()[start:]


def rss_part(text):
    return text.split("Podcast pool:")[0]


def test_poll_change_restarts_the_timer(ns):
    pid, c = polling(ns, 1, URL_A)
    ns.syslog.wait_for("no connection to server [" + URL_A + "]")
    set_and_wait(ns, doc(entry(1, URL_A, "News", 600) + entry(2, URL_B, "Radio"), profile(1, 1, 2) + profile(2, 2)))
    ns.syslog.wait_for("restart with new poll-time 600 on: " + URL_A)
    text, _ = dump(ns, pid)
    assert re.search(r"\[News\] http://feeds.test/a.xml\s+\[#refs=1 [^\n]*poll=600 ", rss_part(text))
    assert ns.syslog.count("no connection to server [" + URL_A + "]") == 1
    assert ns.syslog.count("stop poll on: " + URL_A) == 0


def test_url_change_refreshes_once(ns):
    pid = start(ns)
    c = Client(ns)
    assert c.login(profile=1).startswith("OK\t")
    ns.syslog.wait_for("no connection to server [" + URL_A + "]")
    moved = "http://other.test/moved.xml"
    set_and_wait(ns, doc(entry(1, moved, "News", 1200) + entry(2, URL_B, "Radio"), profile(1, 1, 2) + profile(2, 2)))
    ns.syslog.wait_for("no connection to server [" + moved + "]")
    dump(ns, pid)
    assert ns.syslog.count("no connection to server [" + moved + "]") == 1
    assert ns.syslog.count(re.compile(r"^start \d+s poll on: ")) == 2  # a.xml and b.xml, once each
    assert ns.syslog.count(re.compile(r"^stop poll on: ")) == 0


def test_last_reference_removed_frees_record_and_timer(ns):
    pid, c = polling(ns, 1, URL_A)
    set_and_wait(ns, doc(ENTRIES, profile(1, 2) + profile(2, 2)))
    text, _ = dump(ns, pid)
    assert "[News]" not in rss_part(text)
    assert "[Radio] " + URL_B in rss_part(text)
    # Coming back, the feed gets a fresh record whose poll starts anew.
    set_and_wait(ns, BASE)
    ns.syslog.wait_count("start 1200s poll on: " + URL_A, 2)
    assert ns.syslog.count("stop poll on: " + URL_A) == 0


def test_vanished_profile_becomes_placeholder(ns):
    pid, c = polling(ns, 2, URL_B)
    set_and_wait(ns, doc(ENTRIES, profile(1, 1, 2)))
    assert c.next_push("OK\taccounts\t") == "OK\taccounts\tdomain:rss\tprofile_id:2"
    ns.syslog.wait_for("stop poll on: " + URL_B)
    _, lines = dump(ns, pid)
    assert "  [rss] profile 2 [placeholder]" in lines
    # The placeholder takes the profile again when it comes back.
    set_and_wait(ns, BASE)
    assert c.next_push("OK\taccounts\t") == "OK\taccounts\tdomain:rss\tprofile_id:2\tname:Radio\tfeed_id:2"
    ns.syslog.wait_count("start 1200s poll on: " + URL_B, 2)
    _, lines = dump(ns, pid)
    assert "  [rss] profile 2" in lines


def test_logout_of_the_only_subscriber_stops_the_poll(ns):
    pid, c = polling(ns, 2, URL_B)
    assert c.logout(2) == "OK\tlogout\tdomain:rss\tprofile_id:2"
    assert ns.syslog.wait_for(re.compile(r"^unlinking profile 2 from connection on sd \d+$")).prio == DEBUG
    assert ns.syslog.wait_for("stop poll on: " + URL_B).prio == DEBUG
    assert ns.alive(pid)


def test_two_references_share_one_timer(ns):
    pid = start(ns, rss=doc(ENTRIES, profile(1, 1, 1)))
    c = Client(ns)
    assert c.login(profile=1).startswith("OK\t")
    ns.syslog.wait_for("start 1200s poll on: " + URL_A)
    text, _ = dump(ns, pid)
    assert re.search(r"\[News\] http://feeds.test/a.xml\s+\[#refs=2 ", rss_part(text))
    assert ns.syslog.count("start 1200s poll on: " + URL_A) == 1


def test_polls_need_a_connected_subscriber_and_the_internet(ns):
    pid = start(ns)
    dump(ns, pid)
    assert ns.syslog.count(re.compile(r"^start \d+s poll on: ")) == 0
    ns.internet(False)
    c = Client(ns)
    assert c.login(profile=1).startswith("OK\t")
    dump(ns, pid)
    assert ns.syslog.count(re.compile(r"^start \d+s poll on: ")) == 0
    ns.internet(True)
    assert c.login(profile=2).startswith("OK\t")  # the next timer refresh sees the internet
    ns.syslog.wait_for("start 1200s poll on: " + URL_A)
    ns.syslog.wait_for("start 1200s poll on: " + URL_B)
    ns.internet(False)
    set_and_wait(ns, BASE)  # the merge refreshes the timers
    ns.syslog.wait_for("stop poll on: " + URL_A)
    ns.syslog.wait_for("stop poll on: " + URL_B)


def test_bad_references_are_logged_and_the_rest_merged(ns):
    pid = start(ns)
    c = Client(ns)
    assert c.login(profile=1).startswith("OK\t")
    set_and_wait(ns, doc(ENTRIES, '<profile id="1"><item /><item entry="7" /><item entry="2" /></profile>'))
    ns.syslog.wait_for("found stale item node without entry reference")
    ns.syslog.wait_for("found item referencing non-existing entry '7'")
    text, _ = dump(ns, pid)
    assert "[Radio] " + URL_B in rss_part(text)
    assert "[News]" not in rss_part(text)


def test_profile_without_id_is_passed_over(ns):
    rss = doc(ENTRIES, profile(1, 1) + '<profile><item entry="2" /></profile>' + profile(3, 2))
    fake = w.FakeConfigd(ns, {"rss": rss, "podcast": BASE})
    pid = start_kelpd(ns, "-vvvv")
    assert ns.syslog.wait_for("found profile node without id - ignored").prio == INFO
    ns.syslog.wait_for("incoming config data (handle=2)")
    c = Client(ns)
    assert c.login(profile=3).startswith("OK\t")  # the profile after it was adopted
    ns.syslog.wait_for("start 1200s poll on: " + URL_B)
    _, lines = dump(ns, pid)
    assert "  [rss] profile 3" in lines
    assert ns.alive(pid)
    fake.close()
