"""The internet status of the real kelpd, switched by the namespace's default
route: a login while it is down, the retry wait, and its return."""
from kelpd_client import Client

DOC = ('<?xml version="1.0"?>\n'
       '<pool><entry id="1" url="http://feeds.test/a.xml" name="News" poll="1200" /></pool>\n'
       '<profiles><profile id="1"><item entry="1" /></profile>'
       '<profile id="2"><item entry="1" /></profile></profiles>\n')
DOWN = "ERROR\tstatus\t20:KD_NO_INTERNET\tdomain:rss\tprofile_id:%d"
UP = "OK\tstatus\tdomain:rss\tprofile_id:%d"


def start(ns, verbosity="-vvv"):
    ns.start_configd()
    for domain in ("rss", "podcast"):
        assert ns.configctl("set", domain, "-", input=DOC).returncode == 0
    _, pid = ns.start_kelpd(verbosity)
    assert pid
    ns.syslog.wait_for("incoming config data (handle=1)")
    ns.syslog.wait_for("incoming config data (handle=2)")
    return pid


def test_login_while_down_is_answered_then_told_and_waits(ns):
    start(ns)
    ns.internet(False)
    c = Client(ns)
    assert c.login() == "OK\tlogin\tdomain:rss\tprofile_id:1\tname:News\tfeed_id:1"
    assert c.next_push("ERROR\tstatus\t") == DOWN % 1
    # No poll starts without the internet; the retry wait doubles after 30 s.
    ns.syslog.wait_for("still no internet - waiting another 60 seconds", timeout=60)
    assert not ns.syslog.count("start 1200s poll on: http://feeds.test/a.xml")
    assert c.request("accounts\tdomain:rss\tprofile_id:1").startswith("OK\taccounts\t")


def test_internet_back_tells_the_profiles_and_starts_the_polls(ns):
    start(ns)
    ns.internet(False)
    a, b = Client(ns), Client(ns)
    assert a.login(profile=1).startswith("OK\t")
    assert b.login(profile=2).startswith("OK\t")
    assert a.next_push("ERROR\tstatus\t") == DOWN % 1
    assert b.next_push("ERROR\tstatus\t") == DOWN % 2
    ns.internet(True)
    ns.syslog.wait_for("the internet is back, hooray!", timeout=60)
    assert a.next_push("OK\tstatus\t") == UP % 1
    assert b.next_push("OK\tstatus\t") == UP % 2
    ns.syslog.wait_for("start 1200s poll on: http://feeds.test/a.xml")


def test_retry_lines_need_verbosity_two(ns):
    ns.start_configd()
    for domain in ("rss", "podcast"):
        assert ns.configctl("set", domain, "-", input=DOC).returncode == 0
    _, pid = ns.start_kelpd("-v")
    assert pid
    ns.internet(False)
    c = Client(ns, timeout=60)
    assert c.login_configured().startswith("OK\tlogin\t")
    assert c.next_push("ERROR\tstatus\t") == DOWN % 1
    ns.internet(True)
    # The status arrives when the wait ends; its log lines stay below the gate.
    assert c.next_push("OK\tstatus\t") == UP % 1
    assert not ns.syslog.count("the internet is back, hooray!")
