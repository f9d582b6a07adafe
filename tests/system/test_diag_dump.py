"""The status dump with real figures: a polled feed's line in the dump file
and its record in the syslog listing after real polls (children, nextuid,
lasterror, and due counting down from the poll interval), and an entry with
text inside it in the tree listing. kelpd reads a clock that the tests set
(fake_clock.py), so that due is known to the second."""
import re

from fake_clock import FakeClock
from refresh_helpers import (URL, Client, Site, doc, dump, entry, feed, profile, repoll, start_all)

RECORD = re.compile(r"   \[#refs=(\d+) #children=(\d+) nextuid=(\d+) poll=(\d+) lasterror=(-?\d+) due=(-?\d+)\]")


def polled_once(ns, titles, rss):
    """kelpd on the test's clock, with `rss` polled once for a client of
    profile 1: (clock, pid, site, client). The client is kept: with it gone
    the feed would no longer be polled."""
    site = Site(ns)
    site.put("a.xml", feed(*titles))
    site.start()
    clock = FakeClock(ns)
    _, pid = start_all(ns, rss, env=clock.env())
    c = Client(ns)
    c.login(1)
    ns.syslog.wait_for("HTTP OK [%s]" % URL)
    return clock, pid, site, c


def test_dump_after_polls_shows_the_feed_as_polled(ns):
    rss = doc(entry(1, URL, poll=600) + entry(2, "http://feeds.test/unused.xml", name="Unused"),
              profile(1, 1))
    clock, pid, site, _client = polled_once(ns, ("K", "L", "M"), rss)
    # The clock has not moved since the poll started: the whole interval is left.
    feeds, text, listing = dump(ns, pid)
    rss_part, pod = text.split("Podcast pool:\n")
    assert pod == ""
    assert rss_part == ("RSS pool:\n[News] http://feeds.test/a.xml  [#refs=1 #children=3 nextuid=3 "
                        "poll=600 lasterror=0 due=600]\n"), text
    # The same record below the entry's element in the tree listing.
    i = listing.index('   <entry id="1" url="%s" name="News" poll="600" />' % URL)
    assert listing[i + 1] == "   [#refs=1 #children=3 nextuid=3 poll=600 lasterror=0 due=600]"
    assert listing[i + 2] == '   <entry id="2" url="http://feeds.test/unused.xml" name="Unused" poll="600" />'
    # A failed poll 100 s later: the items stay, the error is on record, and
    # due starts again from the poll that failed.
    clock.advance(100)
    site.put("a.xml", "<rss><channel><item><title>broken</title></itm></channel></rss>")
    repoll(ns, URL, URL + "?2")
    ns.syslog.wait_for("error parsing xml - try to validate the feed")
    clock.advance(7)
    feeds, _, _ = dump(ns, pid)
    assert (feeds[0]["children"], feeds[0]["nextuid"], feeds[0]["lasterror"], feeds[0]["due"]) == (3, 3, 4, 593)


def test_due_counts_down_between_dumps(ns):
    clock, pid, _, _client = polled_once(ns, ("K",), doc(entry(1, URL, poll=600), profile(1, 1)))
    dues = []
    for step in (0, 250, 349):
        clock.advance(step)
        feeds, _, listing = dump(ns, pid)
        dues.append(feeds[0]["due"])
        rec = RECORD.fullmatch(listing[listing.index('   <entry id="1" url="%s" name="News" poll="600" />' % URL) + 1])
        assert rec and int(rec.group(6)) == dues[-1], listing
    assert dues == [600, 350, 1]


def test_entry_with_text_inside_lists_only_its_element_lines(ns):
    rss = ('<?xml version="1.0"?>\n<pool><entry id="1" url="%s" name="News" poll="600">some text</entry>'
           '</pool>\n<profiles><profile id="1"><item entry="1" /></profile></profiles>\n' % URL)
    site = Site(ns)
    site.put("a.xml", feed("K"))
    site.start()
    _, pid = start_all(ns, rss)
    c = Client(ns)
    c.login(1)
    ns.syslog.wait_for("HTTP OK [%s]" % URL)
    _, _, listing = dump(ns, pid)
    i = listing.index('   <entry id="1" url="%s" name="News" poll="600">' % URL)
    assert RECORD.fullmatch(listing[i + 1]), listing
    assert listing[i + 2] == "   </entry>"
    assert not any("some text" in line for line in listing)
