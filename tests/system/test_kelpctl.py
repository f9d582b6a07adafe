"""kelpctl against the real kelpd and configd: the login's feed table, raw
requests, a refused login while the configuration has not arrived, and
accounts and overview of feeds that have not been fetched yet."""
import os
import signal

CTL = "/var/tmp/me_kelpd_daemon.ctl"
DOC = ('<?xml version="1.0"?>\n'
       '<pool><entry id="1" url="http://feeds.test/a.xml" name="News" />'
       '<entry id="12" url="http://feeds.test/b.xml" name="Caf\u00e9 Radio" />'
       '<entry id="3" url="http://feeds.test/c.xml" /></pool>\n'
       '<profiles><profile id="1"><item entry="1" /><item entry="12" /><item entry="3" /></profile>'
       '<profile id="2" /></profiles>\n')


def start(ns):
    ns.start_configd()
    for domain in ("rss", "podcast"):
        assert ns.configctl("set", domain, "-", input=DOC).returncode == 0
    _, pid = ns.start_kelpd("-vvv")
    assert pid
    ns.syslog.wait_for("incoming config data (handle=1)")
    ns.syslog.wait_for("incoming config data (handle=2)")
    return pid


def keep_alive(ns):
    """A connected client, so that the daemon outlives each kelpctl run."""
    s = ns.connect_unix(CTL)
    s.settimeout(15)
    s.send(b"login\tv:3\tdomain:rss\tprofile_id:2")
    assert s.recv(4096).startswith(b"OK\tlogin\t")
    return s


def test_login_prints_the_feed_table(ns):
    pid = start(ns)
    keeper = keep_alive(ns)
    cp = ns.kelpctl("login")
    assert cp.returncode == 0, cp.stderr
    assert cp.stdout == ("FEED_ID  NAME\n"
                         "1        News\n"
                         "12       Caf\u00e9 Radio\n"
                         "3        http://feeds.test/c.xml\n")
    cp = ns.kelpctl("-d", "podcast", "-p", "2", "login")
    assert cp.returncode == 0 and cp.stdout == "FEED_ID  NAME\n"
    assert ns.alive(pid)
    keeper.close()


def test_raw_request_prints_the_answer(ns):
    start(ns)
    keeper = keep_alive(ns)
    cp = ns.kelpctl("raw", "logout", "domain:rss", "profile_id:1")
    assert cp.returncode == 0, cp.stderr
    assert cp.stdout == "ERROR\\tlogout\\t9:KD_NOT_LOGGED_IN\\tdomain:rss\\tprofile_id:1\n"
    cp = ns.kelpctl("raw", "login", "v:4", "domain:rss", "profile_id:1")
    assert cp.stdout == "ERROR\\tlogin\\t7:KD_VERSION_NOT_SUPPORTED\\tdomain:rss\\tprofile_id:1\n"
    cp = ns.kelpctl("raw", "accounts", "domain:rss", "profile_id:1")
    assert cp.stdout == "ERROR\\taccounts\\t9:KD_NOT_LOGGED_IN\\tdomain:rss\\tprofile_id:1\n"
    keeper.close()


def test_login_refused_until_the_configuration_arrives(ns):
    configd = ns.start_configd()
    for domain in ("rss", "podcast"):
        assert ns.configctl("set", domain, "-", input=DOC).returncode == 0
    os.kill(configd.pid, signal.SIGSTOP)  # connected, but no document yet
    try:
        _, pid = ns.start_kelpd("-vvv")
        assert pid
        ns.syslog.wait_for("configd connection established")
        keeper = ns.connect_unix(CTL)  # the daemon stays while a client is there
        ns.syslog.wait_for("new client connected")
        cp = ns.kelpctl("login")
        assert cp.returncode == 1
        assert cp.stderr == "kelpctl: login refused: 19:KD_NO_CONFIG\n"
        assert cp.stdout == ""
    finally:
        os.kill(configd.pid, signal.SIGCONT)
    ns.syslog.wait_for("incoming config data (handle=1)")
    ns.syslog.wait_for("incoming config data (handle=2)")
    cp = ns.kelpctl("login")
    assert cp.returncode == 0 and cp.stdout.startswith("FEED_ID  NAME\n1        News\n")
    keeper.close()


def test_accounts_and_overview_of_feeds_not_fetched_yet(ns):
    start(ns)
    keeper = keep_alive(ns)
    cp = ns.kelpctl("accounts")
    assert cp.returncode == 0, cp.stderr
    assert cp.stdout == ("FEED_ID  NAME\n"
                         "1        News\n"
                         "12       Caf\u00e9 Radio\n"
                         "3        http://feeds.test/c.xml\n")
    cp = ns.kelpctl("overview")
    assert cp.returncode == 0, cp.stderr
    assert cp.stdout == ("feed 1 (News): no items yet\n\n"
                         "feed 12 (Caf\u00e9 Radio): no items yet\n\n"
                         "feed 3 (http://feeds.test/c.xml): no items yet\n")
    cp = ns.kelpctl("-p", "2", "accounts")
    assert cp.returncode == 0 and cp.stdout == "FEED_ID  NAME\n"
    keeper.close()
