"""Fetches run in child processes, side by side, never holding the daemon:
a client is answered while slow feeds are fetched; the first four feeds of
a login are fetched at once and the fifth waits for one of them; a name
server that never answers holds nobody and the poll ends as no connection at
the deadline; the child runs unprivileged with nothing of the daemon's; IPv6
hosts are fetched; the spare child waits unprivileged, knowing no feed, and
fetches the next poll; a child killed mid-fetch ends its poll as no
connection; SIGTERM, the last client leaving or configd ending while
fetches are in flight, and a configuration that drops the feed meanwhile,
leave no child behind (the spare neither) and no answer taken; a thousand
fetches leave no descriptor and no child once the spare has ended."""
import os
import re
import signal

from fetch_helpers import HeldServer, SilentDns, children, fetchers, open_fds, spare_of, status, use_dns
from kelpd_client import Client as Ctl
from refresh_helpers import (Client, Site, doc, dump, entry, feed, overview, profile, set_rss, start_all,
                             stored)

BASE = "http://other.test:8080/"
ERR = 3
PARALLEL = 4
# The fetch's deadline (20 s) with room for a slow (sanitized) daemon.
HOLD = 60


def slow_feeds(n, first=1):
    return "".join(entry(i, BASE + "slow%d" % i, name="Feed %d" % i) for i in range(first, first + n))


def wait_children(ns, pid, want):
    """Waits until kelpd runs `want` fetching children (the spare aside)."""
    ns._wait_until(lambda: len(fetchers(pid)) == want, 30, "%d fetching children of kelpd" % want)
    return fetchers(pid)


def wait_spare(ns, pid):
    """Waits until kelpd's spare child has given up root and confined itself."""
    ns._wait_until(lambda: spare_of(pid) and status(spare_of(pid)).get("NoNewPrivs") == "1", 30,
                   "kelpd's spare child")
    return spare_of(pid)


OUTCOME = re.compile(r"^(HTTP OK|no connection to server|got HTTP error|document not found)")


def outcomes(ns, url):
    """The lines that end a poll of url."""
    return [t for t in ns.syslog.texts() if url in t and OUTCOME.match(t)]


def test_a_request_is_answered_while_three_slow_feeds_are_fetched(ns):
    server = HeldServer(ns)
    _, pid = start_all(ns, doc(slow_feeds(3), profile(1, 1, 2, 3) + profile(2, 1)))
    reader = Client(ns)
    assert reader.login(1).startswith("OK\tlogin\t")
    server.wait_arrivals(3)
    other = Client(ns)
    assert other.login(2).startswith("OK\tlogin\t")
    assert other.request("accounts\tdomain:rss\tprofile_id:2") == \
        "OK\taccounts\tdomain:rss\tprofile_id:2\tname:Feed 1\tfeed_id:1"
    # Answered while every fetch still waited for its server.
    assert server.answered == []
    assert ns.syslog.count(re.compile(r"^HTTP OK ")) == 0
    server.release()
    for i in (1, 2, 3):
        ns.syslog.wait_for("HTTP OK [%sslow%d]" % (BASE, i))
    assert ns.alive(pid)


def test_four_feeds_are_fetched_side_by_side_and_the_fifth_waits_for_one(ns):
    server = HeldServer(ns)
    start_all(ns, doc(slow_feeds(6), profile(1, 1, 2, 3, 4, 5, 6)))
    c = Client(ns)
    assert c.login(1).startswith("OK\tlogin\t")
    first = server.wait_arrivals(PARALLEL)
    assert [answered for _, answered in first] == [0] * PARALLEL
    assert len({path for path, _ in first}) == PARALLEL
    server.release(first[0][0])
    fifth = server.wait_arrivals(PARALLEL + 1)[PARALLEL]
    assert fifth[1] >= 1, "the fifth fetch began before any of the first four had its answer"
    server.release()
    server.wait_arrivals(6)
    for i in range(1, 7):
        ns.syslog.wait_for("HTTP OK [%sslow%d]" % (BASE, i))
    # Each feed once: a running fetch is never started a second time.
    assert sorted(server.paths()) == ["/slow%d" % i for i in range(1, 7)]


def test_a_name_server_that_never_answers_holds_nobody(ns):
    use_dns(ns, "timeout:30 attempts:1")
    dns = SilentDns(ns)
    url = "http://nowhere.test/feed.xml"
    _, pid = start_all(ns, doc(entry(1, url), profile(1, 1) + profile(2, 1)))
    try:
        reader = Client(ns)
        assert reader.login(1).startswith("OK\tlogin\t")
        assert dns.asked.wait(15)
        other = Client(ns)
        assert other.login(2).startswith("OK\tlogin\t")
        assert other.request("accounts\tdomain:rss\tprofile_id:2") == \
            "OK\taccounts\tdomain:rss\tprofile_id:2\tname:News\tfeed_id:1"
        assert ns.syslog.count("no connection to server [%s]" % url) == 0
        # The lookup outlasts the deadline: the child is killed, the poll fails.
        rec = ns.syslog.wait_for("no connection to server [%s]" % url, timeout=HOLD)
        assert rec.prio == ERR
        wait_children(ns, pid, 0)
        feeds, _, _ = dump(ns, pid)
        assert (feeds[0]["children"], feeds[0]["lasterror"]) == (0, 1)
        assert ns.alive(pid)
    finally:
        dns.close()


def one_held_fetch(ns):
    """kelpd with one client whose one feed's server holds the request:
    (server, kelpd's pid, client, the fetching child's pid)."""
    server = HeldServer(ns)
    _, pid = start_all(ns, doc(slow_feeds(1), profile(1, 1)))
    c = Client(ns)
    assert c.login(1).startswith("OK\tlogin\t")
    server.wait_arrivals(1)
    [child] = wait_children(ns, pid, 1)
    return server, pid, c, child


def test_the_fetching_child_runs_unprivileged_with_nothing_of_the_daemons(ns):
    server, pid, c, child = one_held_fetch(ns)
    st = status(child)
    assert all(int(v) != 0 for v in st["Uid"].split()), st["Uid"]
    assert all(int(v) != 0 for v in st["Gid"].split()), st["Gid"]
    assert st["NoNewPrivs"] == "1"
    assert int(st["CapEff"], 16) == 0
    # It is kelp-fetch, and its command line tells nobody the feed's URL.
    assert os.readlink("/proc/%d/exe" % child) == ns.bin("kelp-fetch")
    with open("/proc/%d/cmdline" % child, "rb") as f:
        assert b"slow1" not in f.read()
    # Its job's pipe, /dev/null, the pipe back and its connection to the
    # server: nothing the daemon holds (clients, listener, configd session,
    # pid file lock).
    mine = {fd: os.readlink("/proc/%d/fd/%s" % (child, fd)) for fd in os.listdir("/proc/%d/fd" % child)}
    daemons = {os.readlink("/proc/%d/fd/%s" % (pid, fd)) for fd in os.listdir("/proc/%d/fd" % pid)}
    assert mine["0"].startswith("pipe:") and mine["0"] not in daemons
    assert [mine[fd] for fd in ("1", "2")] == ["/dev/null"] * 2
    assert mine["3"].startswith("pipe:")
    assert sorted(fd for fd in mine if int(fd) > 3) == ["4"] and mine["4"].startswith("socket:")
    assert set(mine.values()) & (daemons - {mine["3"]}) <= {"/dev/null"}
    server.release()
    ns.syslog.wait_for("HTTP OK [%sslow1]" % BASE)
    wait_children(ns, pid, 0)


def test_the_spare_child_waits_unprivileged_and_takes_the_next_poll(ns):
    server = HeldServer(ns)
    server.release("/slow1")
    _, pid = start_all(ns, doc(slow_feeds(1), profile(1, 1)))
    c = Client(ns)
    assert c.login(1).startswith("OK\tlogin\t")
    ns.syslog.wait_for("HTTP OK [%sslow1]" % BASE)
    spare = wait_spare(ns, pid)
    st = status(spare)
    assert all(int(v) != 0 for v in st["Uid"].split()), st["Uid"]
    assert all(int(v) != 0 for v in st["Gid"].split()), st["Gid"]
    assert int(st["CapEff"], 16) == 0
    assert os.readlink("/proc/%d/exe" % spare) == ns.bin("kelp-fetch")
    # It knows no feed yet: its job's first part says who to be, nothing
    # more; it holds its input, /dev/null and its pipe back, nothing else.
    mine = {fd: os.readlink("/proc/%d/fd/%s" % (spare, fd)) for fd in os.listdir("/proc/%d/fd" % spare)}
    assert sorted(mine) == ["0", "1", "2", "3"]
    assert [mine[fd] for fd in ("1", "2")] == ["/dev/null"] * 2
    assert mine["0"].startswith("pipe:") and mine["3"].startswith("pipe:")
    # The next poll is fetched by the spare.
    set_rss(ns, stored(ns).replace(BASE + "slow1", BASE + "slow2"))
    server.wait_arrivals(2)
    assert wait_children(ns, pid, 1) == [spare]
    server.release()
    ns.syslog.wait_for("HTTP OK [%sslow2]" % BASE)


def test_an_ipv6_only_host_is_fetched(ns):
    server = HeldServer(ns, host="::1", port=8080)
    server.release()
    url = "http://v6.test:8080/feed.xml"
    start_all(ns, doc(entry(1, url), profile(1, 1)))
    c = Client(ns)
    assert c.login(1).startswith("OK\tlogin\t")
    ns.syslog.wait_for("HTTP OK [%s]" % url)
    c.wait_push(overview(1, [(0, 0, "K /feed.xml"), (1, 0, "L /feed.xml")]))


def test_a_child_killed_mid_fetch_ends_the_poll_as_no_connection(ns):
    server, pid, c, child = one_held_fetch(ns)
    os.kill(child, signal.SIGKILL)
    rec = ns.syslog.wait_for("no connection to server [%sslow1]" % BASE)
    assert rec.prio == ERR
    wait_children(ns, pid, 0)
    feeds, _, _ = dump(ns, pid)
    assert feeds[0]["lasterror"] == 1
    assert ns.alive(pid)
    # The next poll works as always.
    server.release()
    text = stored(ns)
    set_rss(ns, text.replace(BASE + "slow1", BASE + "slow1?again"))
    c.wait_push(overview(1, [(0, 0, "K /slow1?again"), (1, 0, "L /slow1?again")]))


def in_flight(ns, n):
    """configd, kelpd and a client fetching n held feeds, after a fast one
    whose end has brought the spare child; returns (configd, kelpd pid,
    client, the children: the n fetching and the spare)."""
    server = HeldServer(ns)
    server.release("/fast")
    entries = entry(n + 1, BASE + "fast", name="Fast") + slow_feeds(n)
    configd, pid = start_all(ns, doc(entries, profile(1, *range(1, n + 2))))
    c = Client(ns)
    assert c.login(1).startswith("OK\tlogin\t")
    ns.syslog.wait_for("HTTP OK [%sfast]" % BASE)
    server.wait_arrivals(n + 1)
    wait_children(ns, pid, n)
    spare = wait_spare(ns, pid)
    kids = children(pid)
    assert spare in kids and len(kids) == n + 1
    return server, configd, pid, c, kids


def ended_without_children(ns, pid, kids, why):
    assert ns.wait_exit(pid, timeout=HOLD) == 0
    ns.syslog.wait_for(why)
    assert [k for k in kids if os.path.exists("/proc/%d" % k)] == []
    assert outcomes(ns, BASE + "slow") == []


def test_sigterm_with_fetches_in_flight_kills_every_child_and_ends_cleanly(ns):
    server, _, pid, _, kids = in_flight(ns, 3)
    ns.signal(pid, signal.SIGTERM)
    ended_without_children(ns, pid, kids, "shutting down with exit code 0")
    assert ns.syslog.count("received terminate signal") == 1
    server.release()


def test_the_last_client_leaving_while_fetches_run_ends_every_child(ns):
    server, _, pid, c, kids = in_flight(ns, 2)
    c.close()
    ended_without_children(ns, pid, kids, "last client disconnected")
    server.release()


def test_configd_ending_while_fetches_run_ends_every_child(ns):
    server, configd, pid, _, kids = in_flight(ns, 2)
    configd.kill()
    ended_without_children(ns, pid, kids, "configd connection closed")
    server.release()


def test_a_configuration_that_drops_the_feed_during_its_fetch_drops_the_answer(ns):
    server = HeldServer(ns)
    server.release("/fast")
    two = entry(1, BASE + "slow", name="Slow") + entry(2, BASE + "fast", name="Fast")
    _, pid = start_all(ns, doc(two, profile(1, 1, 2)))
    c = Client(ns)
    assert c.login(1).startswith("OK\tlogin\t")
    ns.syslog.wait_for("HTTP OK [%sfast]" % BASE)
    [child] = wait_children(ns, pid, 1)
    n = ns.syslog.count("incoming config data (handle=1)")
    set_rss(ns, doc(entry(2, BASE + "fast", name="Fast"), profile(1, 2)))
    ns.syslog.wait_count("incoming config data (handle=1)", n + 1)
    wait_children(ns, pid, 0)
    assert not os.path.exists("/proc/%d" % child)
    assert c.request("accounts\tdomain:rss\tprofile_id:1") == \
        "OK\taccounts\tdomain:rss\tprofile_id:1\tname:Fast\tfeed_id:2"
    feeds, _, _ = dump(ns, pid)
    assert [f["url"] for f in feeds] == [BASE + "fast"]
    assert outcomes(ns, BASE + "slow") == []
    server.release()


ROUNDS = 10
FEEDS = 100


def test_a_thousand_fetches_leave_no_descriptor_and_no_child(ns):
    site = Site(ns)
    for i in range(1, FEEDS + 1):
        site.put("f%d.xml" % i, feed("K%d" % i, "L%d" % i))
    site.start()
    entries = "".join(entry(i, "http://feeds.test/f%d.xml" % i) for i in range(1, FEEDS + 1))
    _, pid = start_all(ns, doc(entries, profile(1, *range(1, FEEDS + 1)) + profile(2)))
    # A client of a profile without feeds keeps the daemon running throughout.
    keeper = Ctl(ns)
    assert keeper.login_configured(profile=2).startswith("OK\tlogin\t")
    reader = Ctl(ns)
    assert reader.login(profile=2).startswith("OK\tlogin\t")  # its connection accepted
    before = open_fds(pid)
    polls = re.compile(r"^HTTP OK \[http://feeds\.test/f\d+\.xml\]$")
    for r in range(1, ROUNDS + 1):
        assert reader.login(profile=1).startswith("OK\tlogin\t")
        ns.syslog.wait_count(polls, FEEDS * r, timeout=HOLD)
        assert reader.logout(profile=1).startswith("OK\tlogout\t")
    assert ns.syslog.count(polls) == FEEDS * ROUNDS
    # The spare child ends when no poll has come for a while; then nothing
    # of any fetch is left.
    ns._wait_until(lambda: children(pid) == [], 60, "no child of kelpd")
    assert open_fds(pid) == before
    assert ns.syslog.count(re.compile("no connection")) == 0
    assert ns.alive(pid)
