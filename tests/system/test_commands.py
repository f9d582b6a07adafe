"""Commands and pushes of the real kelpd without feed items: answers to
requests that find nothing, feed lists pushed after configuration changes,
and the silence where nothing changed."""
import re

from kelpd_client import Client

DOC = ('<?xml version="1.0"?>\n'
       '<pool><entry id="1" url="http://feeds.test/a.xml" name="News" poll="1200" />'
       '<entry id="2" url="http://feeds.test/b.xml" name="Radio" /></pool>\n'
       '<profiles><profile id="1"><item entry="1" /><item entry="2" /></profile>'
       '<profile id="2"><item entry="2" /></profile></profiles>\n')


def set_rss(ns, text):
    n = ns.syslog.count("incoming config data (handle=1)")
    assert ns.configctl("set", "rss", "-", input=text).returncode == 0
    ns.syslog.wait_count("incoming config data (handle=1)", n + 1)


def start(ns, rss=DOC):
    ns.start_configd()
    assert ns.configctl("set", "rss", "-", input=rss).returncode == 0
    assert ns.configctl("set", "podcast", "-", input=DOC).returncode == 0
    _, pid = ns.start_kelpd("-vvvv")
    assert pid
    ns.syslog.wait_for("incoming config data (handle=1)")
    ns.syslog.wait_for("incoming config data (handle=2)")
    return pid


def stored(ns, domain="rss"):
    cp = ns.configctl("get", domain)
    assert cp.returncode == 0, cp.stderr
    return cp.stdout


def settle(c):
    """Two answered requests: whatever a change pushed has arrived before them."""
    c.request("accounts\tdomain:rss\tprofile_id:1")
    c.request("accounts\tdomain:rss\tprofile_id:1")


def test_item_requests_that_find_nothing_write_nothing(ns):
    start(ns)
    before = stored(ns)
    c = Client(ns)
    assert c.login().startswith("OK\tlogin\t")
    # The feeds were never fetched (nothing serves them): no uid is known.
    assert c.item("body", 1, 0) == \
        "ERROR\tbody\t12:KD_UID_NOT_FOUND\tdomain:rss\tprofile_id:1\tfeed_id:1\tuid:0"
    assert c.item("image", 7, 3) == "OK\timage\tdomain:rss\tprofile_id:1\tfeed_id:7\tuid:3"
    assert c.item("enclosure", 1, 3, profile=2) == \
        "ERROR\tenclosure\t9:KD_NOT_LOGGED_IN\tdomain:rss\tprofile_id:2\tfeed_id:1\tuid:3"
    assert c.request("body\tdomain:rss\tprofile_id:1\tfeed_id:1") == \
        "ERROR\tbody\t6:KD_MISSING_UID\tdomain:rss\tprofile_id:1\tfeed_id:1\tuid:0"
    assert c.request("image\tdomain:rss") == \
        "ERROR\timage\t15:KD_MISSING_PROFILE\tdomain:rss\tprofile_id:0\tfeed_id:0\tuid:0"
    assert c.request("body") == "ERROR\tbody\t13:KD_MISSING_DOMAIN\tdomain:\tprofile_id:0\tfeed_id:0\tuid:0"
    assert c.request("status") == "ERROR\tstatus\t9:KD_NOT_LOGGED_IN\tdomain:\tprofile_id:0"
    assert stored(ns) == before
    assert not ns.syslog.count(re.compile(r"^<\?xml"))


def test_placeholder_profile_item_request_is_ok_with_the_request_fields(ns):
    start(ns)
    c = Client(ns)
    assert c.login(profile=9) == "OK\tlogin\tdomain:rss\tprofile_id:9"
    assert c.item("body", 1, 1, profile=9) == "OK\tbody\tdomain:rss\tprofile_id:9\tfeed_id:1\tuid:1"


def test_overview_from_a_client_is_logged_and_not_answered(ns):
    start(ns)
    c = Client(ns)
    assert c.login().startswith("OK\t")
    c.send("overview\tdomain:rss")
    ns.syslog.wait_for("unhandled command 10")
    settle(c)
    assert c.pushed == []


def test_renamed_feed_pushes_the_feed_list_to_each_subscriber(ns):
    start(ns)
    a, a2, b = Client(ns), Client(ns), Client(ns)
    for c, p in ((a, 1), (a2, 1), (b, 2)):
        assert c.login(profile=p).startswith("OK\t")
    set_rss(ns, DOC.replace('name="Radio"', 'name="Radio Eins"'))
    assert a.next_push("OK\taccounts\t") == \
        "OK\taccounts\tdomain:rss\tprofile_id:1\tname:News\tfeed_id:1\tname:Radio Eins\tfeed_id:2"
    assert a2.next_push("OK\taccounts\t") == \
        "OK\taccounts\tdomain:rss\tprofile_id:1\tname:News\tfeed_id:1\tname:Radio Eins\tfeed_id:2"
    assert b.next_push("OK\taccounts\t") == "OK\taccounts\tdomain:rss\tprofile_id:2\tname:Radio Eins\tfeed_id:2"


def test_reordered_subscriptions_are_a_change_identical_ones_are_not(ns):
    start(ns)
    c = Client(ns)
    assert c.login().startswith("OK\t")
    set_rss(ns, DOC)
    settle(c)
    assert c.pushed == []
    set_rss(ns, DOC.replace('<item entry="1" /><item entry="2" />', '<item entry="2" /><item entry="1" />'))
    assert c.next_push("OK\taccounts\t") == \
        "OK\taccounts\tdomain:rss\tprofile_id:1\tname:Radio\tfeed_id:2\tname:News\tfeed_id:1"


def test_removed_profile_gets_its_empty_feed_list(ns):
    start(ns)
    c = Client(ns)
    assert c.login(profile=2).startswith("OK\t")
    set_rss(ns, DOC.replace('<profile id="2"><item entry="2" /></profile>', ''))
    assert c.next_push("OK\taccounts\t") == "OK\taccounts\tdomain:rss\tprofile_id:2"


def test_api_two_and_three_logins_both_answer_the_feed_list(ns):
    start(ns)
    c2, c3 = Client(ns), Client(ns)
    want = "OK\tlogin\tdomain:rss\tprofile_id:1\tname:News\tfeed_id:1\tname:Radio\tfeed_id:2"
    assert c2.login(v=2) == want
    assert c3.login(v=3) == want
