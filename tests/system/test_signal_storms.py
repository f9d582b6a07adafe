"""Signals while the daemon is busy: storms of SIGHUP and SIGUSR2 from a
loop while clients send requests and polls run: every request is answered
exactly, the verbosity steps through its cycle one served signal at a time,
every status dump is whole (no other line inside it), and the daemon works
afterwards. (SIGTERM while fetches are in flight: test_fetch_children.py.)"""
import os
import re
import signal
import threading
import time

from refresh_helpers import Client, Site, doc, entry, feed, overview, profile, set_rss, start_all

COURTESY = "SIGUSR2 usage courtesy of jov :)"
SLAB = re.compile(r"^slab statistics of kelpd")


def requester(c, profile_id, n, failures):
    want = "OK\taccounts\tdomain:rss\tprofile_id:%d\tname:News\tfeed_id:1" % profile_id
    try:
        for i in range(n):
            got = c.request("accounts\tdomain:rss\tprofile_id:%d" % profile_id)
            if got != want:
                failures.append((profile_id, i, got))
    except Exception as e:  # noqa: BLE001 - reported by the test, not lost in the thread
        failures.append((profile_id, "raised", repr(e)))


def storm(pid, stop, sent, minimum):
    while not stop.is_set() or sent[0] < minimum:
        os.kill(pid, signal.SIGHUP)
        os.kill(pid, signal.SIGUSR2)
        sent[0] += 1
        time.sleep(0.002)


def check_dumps_whole(ns):
    """Every dump's syslog listing runs from its first line to its slab line
    with nothing foreign inside."""
    texts = ns.syslog.texts()
    starts = [i for i, t in enumerate(texts) if t == COURTESY]
    assert starts
    for i in starts:
        end = next(j for j in range(i, len(texts)) if SLAB.search(texts[j]))
        inside = texts[i:end]
        assert "RSS-Feed structure:" in inside and "Podcast structure:" in inside, inside
        foreign = [t for t in inside if t.startswith(("received ", "verbosity set to", "HTTP OK"))]
        assert not foreign, inside
    return len(starts)


def check_verbosity_cycle(ns, start):
    """Each served SIGHUP steps the verbosity by exactly one."""
    names = {0: "shut up :)"}
    sets = [t for t in ns.syslog.texts() if t.startswith("verbosity set to: ")]
    assert sets
    for k, t in enumerate(sets):
        v = (start + k + 1) % 5
        assert t == "verbosity set to: %s" % names.get(v, v), (k, sets)
    return (start + len(sets)) % 5


def test_hangup_and_dump_storms_during_requests_and_polls(ns):
    # Smaller counts under the sanitizers: the same assertions, less waiting.
    n = 100 if ns.sanitize else 300
    site = Site(ns)
    titles = ["K", "L"]
    site.put("a.xml", feed(*titles))
    site.start()
    url = "http://feeds.test/a.xml"
    _, pid = start_all(ns, doc(entry(1, url), profile(1, 1) + profile(2, 1)))
    watcher = Client(ns)
    assert watcher.login(1).startswith("OK\tlogin\t")
    watcher.wait_push(overview(1, [(0, 0, "K"), (1, 0, "L")]))
    askers = [Client(ns), Client(ns)]
    for k, c in enumerate(askers):
        assert c.login(k + 1).startswith("OK\tlogin\t")

    failures, sent, stop = [], [0], threading.Event()
    threads = [threading.Thread(target=requester, args=(c, k + 1, n, failures), daemon=True)
               for k, c in enumerate(askers)]
    stormer = threading.Thread(target=storm, args=(pid, stop, sent, n), daemon=True)
    for t in threads + [stormer]:
        t.start()
    # Polls during the storm: each new URL is polled at once, and the new
    # item on top reaches the watching client.
    for k in range(3):
        titles.insert(0, "New %d" % k)
        site.put("a.xml", feed(*titles))
        set_rss(ns, doc(entry(1, "%s?%d" % (url, k)), profile(1, 1) + profile(2, 1)))
        watcher.wait_push(re.compile(r"overview\tdomain:rss\tprofile_id:1\tfeed_id:1\tnumber:%d\t.*"
                                     r"\tsubject:New %d\tuid:.*" % (len(titles), k)), timeout=30)
    # A requester still running has hung on an answer that never came.
    for t in threads:
        t.join(120)
        assert not t.is_alive(), "a requester is still waiting after 120 s"
    stop.set()
    stormer.join(60)
    assert not stormer.is_alive(), "the signal storm did not end"
    assert not failures, failures[:5]
    assert sent[0] >= n

    # One more of each, served on their own: the state is still consistent.
    marker = ns.syslog.count(COURTESY)
    os.kill(pid, signal.SIGUSR2)
    ns.syslog.wait_count(COURTESY, marker + 1)
    ns.syslog.wait_count(SLAB, marker + 1)
    before = len([t for t in ns.syslog.texts() if t.startswith("verbosity set to: ")])
    os.kill(pid, signal.SIGHUP)
    ns.syslog.wait_count(re.compile("^verbosity set to: "), before + 1)
    check_verbosity_cycle(ns, 4)
    dumps = check_dumps_whole(ns)
    assert 1 < dumps <= sent[0] + 1
    with open(ns.path("/var/tmp/kelpd.log")) as f:
        text = f.read()
    assert re.fullmatch(r"RSS pool:\n\[News\] %s\?2  \[#refs=2 #children=5 nextuid=5 poll=600 lasterror=0 "
                        r"due=\d+\]\nPodcast pool:\n" % re.escape(url), text), text
    assert askers[0].request("accounts\tdomain:rss\tprofile_id:1") == \
        "OK\taccounts\tdomain:rss\tprofile_id:1\tname:News\tfeed_id:1"
    assert ns.alive(pid)
