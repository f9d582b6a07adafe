"""Read marks across the end of kelpd, as every visit of a person meets them:
an item is read, the last client leaves, kelpd ends, and a client that comes
back later (with a new kelpd, against the same configd) finds the item still
read, whichever form the feed writes its titles in: plain text, plain text
with tabs, CDATA (as WordPress and many other publishers write them) or
CDATA holding markup."""
import pytest

from refresh_helpers import URL, Client, Site, attrs_of_item, doc, entry, feed, fnv, item, overview, profile, start_all

ONE = doc(entry(1, URL), profile(1, 1))
# How each form writes a title, and the item's title it gives (clients are
# sent it with its tabs turned into spaces).
FORMS = {
    "plain": ("%s", "%s"),
    "plain_with_tabs": ("\n\t\t%s\n\t", "\n\t\t%s\n\t"),
    "cdata": ("<![CDATA[%s]]>", "%s"),
    "cdata_with_markup": ("<![CDATA[<b>%s</b><br>]]>", "%s"),
}
STORIES = ["Story 1", "Story 2", "Story 3"]


def titled(form, titles):
    return feed(*[item(FORMS[form][0] % t, "g-" + t) for t in titles])


def sent(form, title):
    return (FORMS[form][1] % title).replace("\t", " ")


def stories(form, states, titles=STORIES):
    """The overview's items: uids in order, the states given, the subjects sent."""
    return [(uid, state, sent(form, t)) for uid, (state, t) in enumerate(zip(states, titles))]


def saved(ns, read, form, first_title):
    """configd holds `read`, and "first" names `first_title`: the hash of the
    title as parsed or as sent (the two differ for a title with tabs)."""
    firsts = {str(fnv(FORMS[form][1] % first_title)), str(fnv(sent(form, first_title)))}
    ns._wait_until(lambda: attrs_of_item(ns, 1) in [{"entry": "1", "read": read, "first": f} for f in firsts],
                   15, "read=%s first=one of %s in configd" % (read, sorted(firsts)))


def read_story_2_and_leave(ns, form):
    """A first visit: kelpd polls the feed, the client reads Story 2, the
    mark reaches configd, the client leaves and kelpd ends by itself."""
    site = Site(ns)
    site.put("a.xml", titled(form, STORIES))
    site.start()
    _, pid = start_all(ns, ONE)
    c = Client(ns)
    assert c.login(1).startswith("OK\tlogin\t")
    c.wait_push(overview(1, stories(form, [0, 0, 0])))
    assert c.body(1, 1).startswith("OK\tbody\t")
    saved(ns, "02", form, "Story 1")
    c.close()
    assert ns.wait_exit(pid) == 0
    ns.syslog.wait_for("shutting down with exit code 0")
    return site


def come_back(ns):
    """The next visit: a new kelpd against the same configd, a client logged in."""
    seen = ns.syslog.count("incoming config data (handle=2)")
    _, pid = ns.start_kelpd("-vvvv")
    assert pid
    ns.syslog.wait_count("incoming config data (handle=2)", seen + 1)
    c = Client(ns)
    assert c.login(1).startswith("OK\tlogin\t")
    return c


@pytest.mark.parametrize("form", sorted(FORMS))
def test_read_item_is_still_read_when_the_client_comes_back(ns, form):
    read_story_2_and_leave(ns, form)
    c = come_back(ns)
    ns.syslog.wait_for("read flags matching at item 0 [Hash: %d]" % fnv(sent(form, "Story 1")))
    c.wait_push(overview(1, stories(form, [0, 1, 0])))
    saved(ns, "02", form, "Story 1")


@pytest.mark.parametrize("form", sorted(FORMS))
def test_read_mark_follows_its_item_below_items_new_since_the_last_visit(ns, form):
    site = read_story_2_and_leave(ns, form)
    site.put("a.xml", titled(form, ["Story 5", "Story 4"] + STORIES))
    c = come_back(ns)
    ns.syslog.wait_for("read flags matching at item 2 [Hash: %d]" % fnv(sent(form, "Story 1")))
    c.wait_push(overview(1, stories(form, [0, 0, 0, 1, 0], ["Story 5", "Story 4"] + STORIES)))
    saved(ns, "08", form, "Story 5")
