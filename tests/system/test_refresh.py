"""Feed polls end to end: the real kelpd polls feeds served on loopback (nginx
for files, a scripted server for errors) for profiles of the real configd,
with clients connected on the control socket. What a poll records (lasterror,
lastpoll in the status dump), logs, pushes to the clients and saves to
configd, across polls and across a restart of both daemons."""
import re
import signal

from refresh_helpers import (URL, Client, Site, attrs_of_item, doc, dump, entry, feed, fnv, item,
                             overview, profile, repoll, set_rss, start_all, stored)

ERR, NOTICE, INFO = 3, 5, 6
ONE = doc(entry(1, URL), profile(1, 1))
URL2 = URL + "?again"


def polled(ns, site_feed, rss=ONE, profile_id=1):
    """nginx serving `site_feed` as a.xml, both daemons running and a client
    logged in whose first poll has been pushed."""
    site = Site(ns)
    site.put("a.xml", site_feed)
    site.start()
    site.configd, pid = start_all(ns, rss)
    c = Client(ns)
    assert c.login(profile_id).startswith("OK\tlogin\t")
    ns.syslog.wait_for("HTTP OK [%s]" % URL)
    return site, pid, c


def test_first_poll_pushes_the_items_and_is_recorded(ns):
    site, pid, c = polled(ns, feed("K", "L", "M"))
    c.wait_push(overview(1, [(0, 0, "K"), (1, 0, "L"), (2, 0, "M")]))
    assert ns.syslog.wait_for("HTTP OK [%s]" % URL).prio == NOTICE
    ns.syslog.wait_for("[kddbg] 3 items are new")
    feeds, _, _ = dump(ns, pid)
    assert len(feeds) == 1
    f = feeds[0]
    assert (f["name"], f["url"], f["refs"], f["children"], f["nextuid"], f["poll"], f["lasterror"]) == \
        ("News", URL, 1, 3, 3, 600, 0)
    # The next poll is due one interval after this one.
    assert 570 <= f["due"] <= 600


def test_new_items_on_top_keep_uids_and_move_read_marks(ns):
    site, pid, c = polled(ns, feed("K", "L", "M"))
    c.wait_push(overview(1, [(0, 0, "K"), (1, 0, "L"), (2, 0, "M")]))
    assert c.body(1, 1).startswith("OK\tbody\t")
    ns._wait_until(lambda: attrs_of_item(ns, 1).get("read") == "02", 15, "L read in configd")
    site.put("a.xml", feed("X", "K", "L", "M"))
    repoll(ns, URL, URL2)
    c.wait_push(overview(1, [(3, 0, "X"), (0, 0, "K"), (1, 1, "L"), (2, 0, "M")]))
    ns.syslog.wait_for("[kddbg] new item: X")
    # The moved mark is what configd keeps.
    ns._wait_until(lambda: attrs_of_item(ns, 1).get("read") == "04", 15, "moved mark saved")
    assert attrs_of_item(ns, 1)["first"] == str(fnv("X"))


def test_changed_item_loses_its_mark_and_keeps_its_uid(ns):
    site, pid, c = polled(ns, feed(item("K", "k"), item("L", "l")))
    c.wait_push(overview(1, [(0, 0, "K"), (1, 0, "L")]))
    c.body(1, 1)
    ns._wait_until(lambda: attrs_of_item(ns, 1).get("read") == "02", 15, "L read in configd")
    site.put("a.xml", feed(item("K", "k"), item("L, corrected", "l")))
    repoll(ns, URL, URL2)
    c.wait_push(overview(1, [(0, 0, "K"), (1, 0, "L, corrected")]))
    ns.syslog.wait_for("[kddbg] updated item: L, corrected")
    ns._wait_until(lambda: "read" not in attrs_of_item(ns, 1), 15, "mark dropped in configd")
    assert "first" not in attrs_of_item(ns, 1)


def test_two_profiles_of_one_feed_each_get_their_view(ns):
    rss = doc(entry(1, URL), profile(1, 1) + profile(2, 1))
    site = Site(ns)
    site.put("a.xml", feed("K", "L"))
    site.start()
    _, pid = start_all(ns, rss)
    c1, c2 = Client(ns), Client(ns)
    c1.login(1)
    c2.login(2)
    ns.syslog.wait_for("HTTP OK [%s]" % URL)
    c1.wait_push(overview(1, [(0, 0, "K"), (1, 0, "L")]))
    c2.wait_push(overview(2, [(0, 0, "K"), (1, 0, "L")]))


def scripted(ns, answers):
    """A scripted HTTP server on other.test:8080; `answers` maps a path to a
    list of raw responses, the last one repeated."""
    def handler(data, conn):
        path = data.split(b" ", 2)[1].decode()
        queue = answers.get(path, [b"HTTP/1.1 404 Not Found\r\n\r\n"])
        conn.sendall(queue.pop(0) if len(queue) > 1 else queue[0])
    return ns.serve_http(handler, host="127.0.0.2", port=8080)


def ok(body):
    return b"HTTP/1.1 200 OK\r\nContent-Type: text/xml\r\n\r\n" + body.encode("latin-1")


def test_not_found_after_a_success_keeps_the_items(ns):
    url = "http://other.test:8080/feed.xml"
    scripted(ns, {"/feed.xml": [ok(feed("K", "L")), b"HTTP/1.1 404 Not Found\r\n\r\n"],
                  "/moved.xml": [ok(feed("K", "L"))]})
    _, pid = start_all(ns, doc(entry(1, url), profile(1, 1)))
    c = Client(ns)
    c.login(1)
    c.wait_push(overview(1, [(0, 0, "K"), (1, 0, "L")]))
    repoll(ns, url, url + "?2")
    rec = ns.syslog.wait_for("document not found - URL changed? [%s?2]" % url)
    assert rec.prio == ERR
    feeds, _, _ = dump(ns, pid)
    assert (feeds[0]["children"], feeds[0]["lasterror"]) == (2, 404)
    # A later good poll leaves the last failure on record.
    repoll(ns, url + "?2", "http://other.test:8080/moved.xml")
    ns.syslog.wait_for("HTTP OK [http://other.test:8080/moved.xml]")
    feeds, _, _ = dump(ns, pid)
    assert (feeds[0]["children"], feeds[0]["lasterror"]) == (2, 404)


def test_redirect_loop_ends_with_its_status(ns):
    url = "http://other.test:8080/a"
    scripted(ns, {"/a": [b"HTTP/1.1 302 Found\r\nLocation: /b\r\n\r\n"],
                  "/b": [b"HTTP/1.1 302 Found\r\nLocation: /a\r\n\r\n"]})
    _, pid = start_all(ns, doc(entry(1, url), profile(1, 1)))
    c = Client(ns)
    c.login(1)
    assert ns.syslog.wait_for("got HTTP error 302 [%s]" % url).prio == ERR
    feeds, _, _ = dump(ns, pid)
    assert (feeds[0]["children"], feeds[0]["lasterror"]) == (0, 302)


def test_server_error_and_broken_documents(ns):
    base = "http://other.test:8080/"
    scripted(ns, {"/500": [b"HTTP/1.1 500 Oops\r\n\r\n"],
                  "/broken": [ok("<rss><channel><item><title>K</title></itm></channel></rss>")],
                  "/empty": [ok(feed())]})
    _, pid = start_all(ns, doc(entry(1, base + "500"), profile(1, 1)))
    c = Client(ns)
    c.login(1)
    ns.syslog.wait_for("got HTTP error 500 [%s500]" % base)
    repoll(ns, base + "500", base + "broken")
    assert ns.syslog.wait_for("error parsing xml - try to validate the feed").prio == ERR
    assert dump(ns, pid)[0][0]["lasterror"] == 4
    repoll(ns, base + "broken", base + "empty")
    assert ns.syslog.wait_for("no items found - try to check URL by hand").prio == ERR
    assert dump(ns, pid)[0][0]["lasterror"] == 5


def test_server_gone_keeps_the_items(ns):
    site, pid, c = polled(ns, feed("K", "L"))
    c.wait_push(overview(1, [(0, 0, "K"), (1, 0, "L")]))
    site.stop()
    repoll(ns, URL, URL2)
    assert ns.syslog.wait_for("no connection to server [%s]" % URL2).prio == ERR
    feeds, _, _ = dump(ns, pid)
    assert (feeds[0]["children"], feeds[0]["lasterror"]) == (2, 1)
    # The client still reads what the feed held.
    assert c.body(1, 1).startswith("OK\tbody\tdomain:rss\tprofile_id:1\tfeed_id:1\tuid:1\t")


def test_truncated_feed_keeps_its_complete_items(ns):
    titles = ["Item %04d" % i for i in range(400)]
    site = Site(ns)
    site.put("a.xml", feed(*["<item><title>%s</title><description>%s</description></item>" % (t, "x" * 600)
                             for t in titles]))
    site.start()
    start_all(ns, ONE)
    _, pid = None, ns.pidfile_pid()
    c = Client(ns)
    c.login(1)
    assert ns.syslog.wait_for("HTTP OK [%s] [truncated]" % URL).prio == NOTICE
    msg = c.wait_push(re.compile(r"overview\tdomain:rss\tprofile_id:1\tfeed_id:1\tnumber:(\d+)\t.*"))
    feeds, _, _ = dump(ns, pid)
    f = feeds[0]
    assert f["lasterror"] == 2
    # Only the items completed before the cut, in order.
    assert 250 < f["children"] < 400
    assert "\tnumber:%d\tnumber_new:%d\t" % (f["children"], f["children"]) in msg
    assert msg.endswith("\tsubject:" + titles[f["children"] - 1])


def test_feed_title_becomes_the_name_in_configd_and_the_clients(ns):
    site, pid, c = polled(ns, feed("K", title="Kelp News"), rss=doc(entry(1, URL, name=URL), profile(1, 1)))
    assert ns.syslog.wait_for("setting feed title to 'Kelp News'").prio == NOTICE
    ns._wait_until(lambda: 'name="Kelp News"' in stored(ns), 15, "title saved in configd")
    c.wait_push("OK\taccounts\tdomain:rss\tprofile_id:1\tname:Kelp News\tfeed_id:1")
    c.wait_push(overview(1, [(0, 0, "K")]))


def test_user_given_name_is_kept(ns):
    site, pid, c = polled(ns, feed("K", title="Kelp News"), rss=doc(entry(1, URL, name="Mine"), profile(1, 1)))
    c.wait_push(overview(1, [(0, 0, "K")]))
    assert 'name="Mine"' in stored(ns)
    assert ns.syslog.count("setting feed title to 'Kelp News'") == 0


def test_read_marks_survive_a_restart_of_both_daemons(ns):
    site, pid, c = polled(ns, feed("K", "L", "M"))
    c.wait_push(overview(1, [(0, 0, "K"), (1, 0, "L"), (2, 0, "M")]))
    c.body(1, 0)
    c.body(1, 1)
    ns._wait_until(lambda: attrs_of_item(ns, 1) == {"entry": "1", "read": "03", "first": str(fnv("K"))},
                   15, "marks saved")
    # The last client gone, kelpd ends; configd is restarted from its files.
    c.close()
    assert ns.wait_exit(pid) == 0
    site.configd.terminate()
    assert site.configd.wait(15) == 0
    ns.start_configd()
    site.put("a.xml", feed("X", "Y", "K", "L", "M"))
    _, pid = ns.start_kelpd("-vvvv")
    # Both daemons log the line: the second's proves the documents are in.
    ns.syslog.wait_count("incoming config data (handle=2)", 2)
    c = Client(ns)
    assert c.login(1).startswith("OK\tlogin\t")
    ns.syslog.wait_for("read flags matching at item 2 [Hash: %d]" % fnv("K"))
    c.wait_push(overview(1, [(0, 0, "X"), (1, 0, "Y"), (2, 1, "K"), (3, 1, "L"), (4, 0, "M")]))
    ns._wait_until(lambda: attrs_of_item(ns, 1) == {"entry": "1", "read": "0c", "first": str(fnv("X"))},
                   15, "shifted marks saved")


def test_poll_timer_fires_again_after_the_interval(ns):
    # 30 seconds is the shortest interval a feed can have.
    site, pid, c = polled(ns, feed("K"), rss=doc(entry(1, URL, poll=30), profile(1, 1)))
    c.wait_push(overview(1, [(0, 0, "K")]))
    feeds, _, _ = dump(ns, pid)
    assert feeds[0]["poll"] == 30 and 0 < feeds[0]["due"] <= 30
    site.put("a.xml", feed("N", "K"))
    ns.syslog.wait_count("HTTP OK [%s]" % URL, 2, timeout=45)
    c.wait_push(overview(1, [(1, 0, "N"), (0, 0, "K")]))
    assert ns.syslog.count("start 30s poll on: " + URL) == 1


def test_poll_lines_follow_the_verbosity(ns):
    # At verbosity 1 only the failure is written, never the success.
    url = "http://other.test:8080/feed.xml"
    scripted(ns, {"/feed.xml": [ok(feed("K"))]})
    _, pid = start_all(ns, doc(entry(1, url, name=url) + entry(2, "http://other.test:8080/none"),
                               profile(1, 1, 2)), "-v")
    c = Client(ns)
    # Nothing at this verbosity tells when the configuration has arrived.
    ns._wait_until(lambda: c.login(1).startswith("OK\tlogin\t"), 15, "login")
    ns.syslog.wait_for("document not found - URL changed? [http://other.test:8080/none]")
    c.wait_push(re.compile(r"overview\tdomain:rss\tprofile_id:1\tfeed_id:1\t.*"))
    ns._wait_until(lambda: 'name="Kelp News"' in stored(ns), 15, "title saved")
    texts = ns.syslog.texts()
    assert not any(t.startswith("HTTP OK") or t.startswith("setting feed title") for t in texts), texts


def test_entry_without_url_is_not_fetched(ns):
    rss = doc('<entry id="7" name="Nowhere" poll="600" />', profile(1, 7))
    _, pid = start_all(ns, rss, "-vv")
    c = Client(ns)
    ns._wait_until(lambda: c.login(1).startswith("OK\tlogin\t"), 15, "login")
    assert ns.syslog.wait_for("missing 'url' in entry '7'").prio == INFO
    feeds, _, _ = dump(ns, pid)
    # Never fetched: no error recorded, and no poll time to count down from.
    assert (feeds[0]["children"], feeds[0]["lasterror"]) == (0, 0)
    assert feeds[0]["due"] < -1000000


def test_entry_without_url_is_silent_below_verbosity_two(ns):
    rss = doc('<entry id="7" name="Nowhere" poll="600" />' + entry(1, "http://other.test:8080/x"),
              profile(1, 1, 7))
    _, pid = start_all(ns, rss, "-v")
    c = Client(ns)
    ns._wait_until(lambda: c.login(1).startswith("OK\tlogin\t"), 15, "login")
    # The other feed's failure shows that the polls have run.
    ns.syslog.wait_for("no connection to server [http://other.test:8080/x]")
    dump(ns, pid)
    assert ns.syslog.count("missing 'url' in entry '7'") == 0
