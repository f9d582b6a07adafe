"""The status dump with real figures: a polled feed's line in the dump file
and its record in the syslog listing after real polls (children, nextuid,
lasterror, and due counting down from the poll interval), and an entry with
text inside it in the tree listing."""
import re
import time

from refresh_helpers import (URL, Client, Site, doc, dump, entry, feed, profile, repoll, start_all)

RECORD = re.compile(r"   \[#refs=(\d+) #children=(\d+) nextuid=(\d+) poll=(\d+) lasterror=(-?\d+) due=(-?\d+)\]")


def test_dump_after_polls_shows_the_feed_as_polled(ns):
    site = Site(ns)
    site.put("a.xml", feed("K", "L", "M"))
    site.start()
    rss = doc(entry(1, URL, poll=600) + entry(2, "http://feeds.test/unused.xml", name="Unused"),
              profile(1, 1))
    _, pid = start_all(ns, rss)
    c = Client(ns)
    c.login(1)
    ns.syslog.wait_for("HTTP OK [%s]" % URL)
    first = time.time()
    feeds, text, listing = dump(ns, pid)
    rss_part, pod = text.split("Podcast pool:\n")
    assert pod == ""
    m = re.fullmatch(r"RSS pool:\n\[News\] http://feeds\.test/a\.xml  \[#refs=1 #children=3 nextuid=3 "
                     r"poll=600 lasterror=0 due=(\d+)\]\n", rss_part)
    assert m, text
    due = int(m.group(1))
    assert 600 - (time.time() - first) - 2 <= due <= 600
    # The same record below the entry's element in the tree listing.
    i = listing.index('   <entry id="1" url="%s" name="News" poll="600" />' % URL)
    rec = RECORD.fullmatch(listing[i + 1])
    assert rec and rec.groups()[:5] == ("1", "3", "3", "600", "0"), listing[i + 1]
    assert listing[i + 2] == '   <entry id="2" url="http://feeds.test/unused.xml" name="Unused" poll="600" />'
    # A failed poll: the items stay, the error is on record, due starts again.
    site.put("a.xml", "<rss><channel><item><title>broken</title></itm></channel></rss>")
    repoll(ns, URL, URL + "?2")
    ns.syslog.wait_for("error parsing xml - try to validate the feed")
    again = time.time()
    feeds, _, _ = dump(ns, pid)
    assert (feeds[0]["children"], feeds[0]["nextuid"], feeds[0]["lasterror"]) == (3, 3, 4)
    assert 600 - (time.time() - again) - 2 <= feeds[0]["due"] <= 600


def test_due_counts_down_between_dumps(ns):
    site = Site(ns)
    site.put("a.xml", feed("K"))
    site.start()
    _, pid = start_all(ns, doc(entry(1, URL, poll=600), profile(1, 1)))
    c = Client(ns)
    c.login(1)
    ns.syslog.wait_for("HTTP OK [%s]" % URL)
    before = dump(ns, pid)[0][0]["due"]
    # Wait for the clock's second to change, then dump again.
    t = int(time.time())
    ns._wait_until(lambda: int(time.time()) >= t + 2, 5, "two seconds")
    after = dump(ns, pid)[0][0]["due"]
    assert after < before <= 600


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
