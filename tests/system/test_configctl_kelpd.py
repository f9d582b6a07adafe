"""configctl editing a domain that a running kelpd serves: the daemon
fetches the document again on configd's change indication, polls the new
feed for its logged-in client and tells that client its new feed list."""
import kelpd_helpers as k
from test_sessions import Client

DOC = ('<?xml version="1.0"?>\n<pool>\n  <entry id="1" url="http://feeds.test/a.xml" name="A" />\n</pool>\n'
       '<profiles>\n  <profile id="1">\n    <item entry="1" />\n  </profile>\n</profiles>\n')
NEW = "http://feeds.test/new.xml"


def logged_in_client(ns):
    """kelpd at verbosity 3 with both domains, and a client of rss profile 1
    whose first feed is being polled."""
    k.start_with_config(ns, DOC)
    k.start(ns, "-vvv")
    ns.syslog.wait_for("incoming config data (handle=1)")
    ns.syslog.wait_for("incoming config data (handle=2)")
    client = Client(ns)
    assert client.login().startswith("OK\tlogin\tdomain:rss\tprofile_id:1\t")
    ns.syslog.wait_for("start 1200s poll on: http://feeds.test/a.xml")
    return client


def add_feed(ns):
    cp = ns.configctl("feed", "add", "rss", NEW, "--name", "New", "--profile", "1")
    assert (cp.returncode, cp.stdout, cp.stderr) == (0, "added feed 2\n", "")
    ns.syslog.wait_count("incoming config data (handle=1)", 2)
    ns.syslog.wait_for("start 1200s poll on: " + NEW)


def test_feed_add_reaches_a_running_kelpd_and_its_poll_starts(ns):
    client = logged_in_client(ns)
    add_feed(ns)
    answer = client.request("accounts\tdomain:rss\tprofile_id:1")
    assert answer.startswith("OK\taccounts\tdomain:rss\tprofile_id:1\t")
    assert "name:New\tfeed_id:2" in answer
    client.close()


def test_feed_add_pushes_accounts_to_logged_in_client(ns):
    client = logged_in_client(ns)
    add_feed(ns)
    # Unasked: the daemon pushes the profile's new feed list by itself.
    pushed = client.answer("accounts")
    assert pushed.startswith("OK\taccounts\tdomain:rss\tprofile_id:1\t")
    assert "name:A\tfeed_id:1" in pushed and "name:New\tfeed_id:2" in pushed
    client.close()
