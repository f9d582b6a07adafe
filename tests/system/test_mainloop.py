"""kelpd main loop: the signal flags (SIGHUP verbosity cycle, SIGUSR2 status
dump, SIGTERM with and without clients) and the support-data client."""
import os
import re
import signal
import stat

import configd_wire
from kelpd_client import Client
from kelpd_helpers import (DOC, DUMP, PIDFILE, connect, has, kelpd, kelpd_at, lines, read,
                           settled_lines, start, start_with_config)

COURTESY = "SIGUSR2 usage courtesy of jov :)"


def hangup(ns, pid, expect):
    """One SIGHUP, served before the next is sent (the flag does not count)."""
    before = ns.syslog.count(expect)
    ns.signal(pid, signal.SIGHUP)
    ns.syslog.wait_count(expect, before + 1)


def test_five_hangups_from_zero_cycle_through_shut_up(ns):
    ns.silent_configd()
    pid = start(ns)
    for want in ("verbosity set to: 1", "verbosity set to: 2", "verbosity set to: 3",
                 "verbosity set to: 4", "verbosity set to: shut up :)"):
        hangup(ns, pid, want)
    sets = [t for t in lines(ns) if t.startswith("verbosity set to")]
    assert sets == ["verbosity set to: 1", "verbosity set to: 2", "verbosity set to: 3",
                    "verbosity set to: 4", "verbosity set to: shut up :)"]
    # The handler logs only at verbosity 2 or more: the 3rd, 4th and 5th.
    assert ns.syslog.count("received hangup signal") == 3
    assert all(r.prio == 6 for r in ns.syslog.records("kelpd"))
    hangup(ns, pid, "verbosity set to: 1")
    assert ns.alive(pid)


def test_unclamped_start_verbosity_wraps_at_first_hangup(ns):
    ns.silent_configd()
    pid = start(ns, "-vvvvvv")
    hangup(ns, pid, "verbosity set to: 2")


def test_vs_in_program_path_set_start_verbosity(ns):
    # "/var/tmp/vv/kelpd" holds three 'v': verbosity 3, the next is 4.
    ns.silent_configd()
    pid = start(ns, prog=kelpd_at(ns, "/var/tmp/vv/kelpd"))
    hangup(ns, pid, "verbosity set to: 4")


def test_dump_without_configuration_holds_the_two_headings(ns):
    ns.silent_configd()
    pid = start(ns)
    ns.signal(pid, signal.SIGUSR2)
    ns.syslog.wait_for("Podcast structure:")
    assert read(ns, DUMP) == "RSS pool:\nPodcast pool:\n"
    assert stat.S_IMODE(os.stat(ns.path(DUMP)).st_mode) == 0o640
    texts = lines(ns)
    i = texts.index(COURTESY)
    assert texts[i:i + 4] == [COURTESY, "no client connected", "RSS-Feed structure:", "Podcast structure:"]
    assert ns.syslog.wait_for(COURTESY).prio == 7
    # The handler's own line is gated by verbosity 2; the dump is not.
    assert not has(ns, "received user2 signal")


def test_dump_twice_truncates_the_file(ns):
    ns.silent_configd()
    with open(ns.path(DUMP), "w") as f:
        f.write("x" * 1000)
    pid = start(ns, "-vv")
    for n in (1, 2):
        ns.signal(pid, signal.SIGUSR2)
        ns.syslog.wait_count("Podcast structure:", n)
        assert read(ns, DUMP) == "RSS pool:\nPodcast pool:\n"
    assert ns.syslog.count("received user2 signal") == 2


def test_dump_file_that_cannot_be_opened(ns):
    os.mkdir(ns.path(DUMP))
    ns.silent_configd()
    pid = start(ns)
    ns.signal(pid, signal.SIGUSR2)
    rec = ns.syslog.wait_for("unable to open logfile: Is a directory")
    assert rec.prio == 3
    ns.syslog.wait_for(COURTESY)
    ns.syslog.wait_for("Podcast structure:")
    assert ns.alive(pid)


def test_dump_lists_subscribed_entries_and_the_trees(ns):
    fake = configd_wire.FakeConfigd(ns, {"rss": DOC, "podcast": DOC})
    try:
        pid = start(ns, "-vvv")
        ns.syslog.wait_for("incoming config data (handle=1)")
        ns.syslog.wait_for("incoming config data (handle=2)")
        ns.signal(pid, signal.SIGUSR2)
        ns.syslog.wait_for(re.compile("^slab statistics"))
    finally:
        fake.close()
    text = read(ns, DUMP)
    rss, pod = text.split("Podcast pool:\n")
    assert rss.startswith("RSS pool:\n")
    # Only the subscribed entry has a feed record; with no client logged in
    # nothing is polled, so its figures are all still zero.
    for part in (rss[len("RSS pool:\n"):], pod):
        assert part == "[A] http://feeds.test/a.xml  [#refs=1 #children=0 nextuid=0 poll=0 lasterror=0 due=0]\n", text
    texts = lines(ns)
    tree = texts[texts.index("RSS-Feed structure:") + 1:texts.index("Podcast structure:")]
    # The declaration node is the root: the pool is one level below it.
    assert tree[0] == ' <?xml version="1.0"?>'
    assert '   <entry id="1" url="http://feeds.test/a.xml" name="A" poll="600" />' in tree, tree
    assert '   <entry id="2" url="http://feeds.test/b.xml" name="B" poll="600" />' in tree
    assert "  </pool>" in tree and "  </profiles>" in tree and tree[-1] == " </?xml version=\"1.0\"?>"
    i = tree.index('   <entry id="1" url="http://feeds.test/a.xml" name="A" poll="600" />')
    assert tree[i + 1] == "   [#refs=1 #children=0 nextuid=0 poll=0 lasterror=0 due=0]"
    i = tree.index('   <profile id="1">')
    assert tree[i + 1] == "   [#conns=0 was_online=0]"
    assert tree[i + 2] == '    <item entry="1" />'
    assert tree[i + 3] == "   </profile>"


def test_dump_ignores_a_pool_nested_before_the_real_one(ns):
    # The first "pool" in document order sits inside <profiles>; the feeds
    # hang off the root's own pool, and that is the one the dump lists.
    doc = ('<?xml version="1.0"?><profiles><pool><entry id="9" url="http://feeds.test/n.xml"/></pool>'
           '<profile id="1"><item entry="1"/></profile></profiles>'
           '<pool><entry id="1" url="http://feeds.test/a.xml" name="A" poll="600"/></pool>')
    start_with_config(ns, doc)
    pid = start(ns, "-vvv")
    ns.syslog.wait_for("incoming config data (handle=1)")
    ns.syslog.wait_for("incoming config data (handle=2)")
    ns.signal(pid, signal.SIGUSR2)
    ns.syslog.wait_for(re.compile("^slab statistics"))
    rss, pod = read(ns, DUMP).split("Podcast pool:\n")
    for part in (rss[len("RSS pool:\n"):], pod):
        assert part.startswith("[A] http://feeds.test/a.xml  [#refs=1 "), part


def test_sigterm_without_clients_ends_with_zero(ns):
    ns.silent_configd()
    pid = start(ns, "-vv")
    ns.signal(pid, signal.SIGTERM)
    assert ns.wait_exit(pid) == 0
    ns.syslog.wait_for("shutting down with exit code 0")
    assert has(ns, "received terminate signal")
    assert not has(ns, "configuration is empty")
    assert not has(ns, "last client disconnected")
    assert not os.path.exists(ns.path(PIDFILE))


def test_sigterm_with_running_configd(ns):
    start_with_config(ns)
    pid = start(ns, "-vvv")
    ns.syslog.wait_for("incoming config data (handle=1)")
    ns.syslog.wait_for("incoming config data (handle=2)")
    # A configuration with a subscription keeps the daemon waiting for clients.
    hangup(ns, pid, "verbosity set to: 4")
    assert ns.alive(pid)
    ns.signal(pid, signal.SIGTERM)
    assert ns.wait_exit(pid) == 0
    ns.syslog.wait_for("shutting down with exit code 0")
    assert not has(ns, "configuration is empty")


def test_create_supportdata_waits_for_the_dump(ns):
    ns.silent_configd()
    pid = start(ns)
    cp = ns.run([kelpd(ns), "--create-supportdata"])
    assert (cp.returncode, cp.stdout, cp.stderr) == (0, "", "")
    assert read(ns, DUMP) == "RSS pool:\nPodcast pool:\n"
    # The file is closed before the syslog part of the dump is written.
    ns.syslog.wait_for("Podcast structure:")
    assert ns.syslog.count(COURTESY) == 1
    assert ns.alive(pid)


def test_create_supportdata_refuses_another_program(ns):
    other = ns.spawn(["sleep", "1000"])
    with open(ns.path(PIDFILE), "w") as f:
        f.write("%d\n" % other.pid)
    cp = ns.run([kelpd(ns), "--create-supportdata"])
    assert cp.returncode == 1
    assert cp.stderr == "cmdline of pid %d is not 'kelpd' - lockfile seems to be stale\n" % other.pid
    # No SIGUSR2 was sent: its default action would have ended sleep.
    assert other.poll() is None


def test_create_supportdata_with_stale_pid(ns):
    pid = 4000000
    while os.path.exists("/proc/%d" % pid):
        pid += 1
    with open(ns.path(PIDFILE), "w") as f:
        f.write("%d\n" % pid)
    cp = ns.run([kelpd(ns), "--create-supportdata"])
    assert cp.returncode == 1
    assert cp.stderr == ("unable to verify kelpd in '/proc/%d/cmdline' - lockfile seems to be stale: "
                         "No such file or directory\n" % pid)


def test_create_supportdata_with_empty_pid_file(ns):
    open(ns.path(PIDFILE), "w").close()
    cp = ns.run([kelpd(ns), "--create-supportdata"])
    assert (cp.returncode, cp.stderr) == (1, "unable to read kelpd pid from lockfile\n")


def test_create_supportdata_times_out_on_a_stopped_daemon(ns):
    ns.silent_configd()
    pid = start(ns)
    ns.signal(pid, signal.SIGSTOP)
    cp = ns.run([kelpd(ns), "--create-supportdata"])
    assert cp.returncode == 1
    assert cp.stderr == "warning: waiting for logfile timed out - data might be missing or outdated\n"
    # The file exists (created for the watch) but holds no dump yet.
    assert read(ns, DUMP) == ""
    ns.signal(pid, signal.SIGCONT)
    ns.syslog.wait_for(COURTESY)
    ns.syslog.wait_for("Podcast structure:")
    assert read(ns, DUMP) == "RSS pool:\nPodcast pool:\n"


def test_create_supportdata_reads_only_31_bytes_of_the_command_line(ns):
    # The daemon's path is cut inside its last component: not recognised.
    ns.silent_configd()
    prog = kelpd_at(ns, "/run/" + "k" * 24 + "/kelpd")
    pid = start(ns, prog=prog)
    cp = ns.run([kelpd(ns), "--create-supportdata"])
    assert cp.returncode == 1
    assert cp.stderr == "cmdline of pid %d is not 'kelpd' - lockfile seems to be stale\n" % pid
    assert ns.alive(pid)
    assert not os.path.exists(ns.path(DUMP))


def stopped(ns, pid):
    with open(ns.path("/proc/%d/stat" % pid)) as f:
        return f.read().rsplit(")", 1)[1].split()[0] == "T"


def test_signals_arriving_together_are_all_served(ns):
    # Stopped in its wait, the daemon finds both signals pending at once.
    ns.silent_configd()
    pid = start(ns, "-vv")
    ns.signal(pid, signal.SIGSTOP)
    ns._wait_until(lambda: stopped(ns, pid), 15, "daemon stopped")
    ns.signal(pid, signal.SIGHUP)
    ns.signal(pid, signal.SIGUSR2)
    ns.signal(pid, signal.SIGCONT)
    ns.syslog.wait_for("verbosity set to: 3")
    ns.syslog.wait_for("Podcast structure:")
    assert ns.syslog.count("received hangup signal") == 1
    assert ns.syslog.count("received user2 signal") == 1
    assert ns.syslog.count(COURTESY) == 1
    assert read(ns, DUMP) == "RSS pool:\nPodcast pool:\n"
    assert ns.alive(pid)


def empty_doc_daemon(ns, verbosity):
    empty = '<?xml version="1.0"?><pool /><profiles><profile id="1" /></profiles>'
    start_with_config(ns, doc=empty)
    return start(ns, verbosity)


def test_empty_configuration_ends_silently_below_verbosity_two(ns):
    pid = empty_doc_daemon(ns, "-v")
    assert ns.wait_exit(pid) == 0
    assert settled_lines(ns) == []


def test_empty_configuration_reason_at_verbosity_two(ns):
    pid = empty_doc_daemon(ns, "-vv")
    assert ns.wait_exit(pid) == 0
    ns.syslog.wait_for("shutting down with exit code 0")
    rec = [r for r in ns.syslog.records("kelpd") if r.text == "configuration is empty"]
    assert len(rec) == 1 and rec[0].prio == 6
    assert not has(ns, "last client disconnected")


def logged_in(ns):
    """A client after its login's answer (a login before the configuration
    has arrived is refused, but the connection counts all the same)."""
    s = connect(ns)
    s.settimeout(15)
    s.send(b"login\tv:3\tdomain:rss\tprofile_id:1")
    got = b""
    while not got.startswith((b"OK\tlogin\t", b"ERROR\tlogin\t")):
        got = s.recv(1 << 16)
    return s, got


def client_session(ns):
    """One client that logs in and leaves."""
    logged_in(ns)[0].close()


def test_last_client_gone_ends_silently_below_verbosity_two(ns):
    start_with_config(ns)
    pid = start(ns, "-v")
    # Offline, so that no poll fails (and logs at -v) against a missing
    # server; the client reads the status it is then told before it leaves,
    # since a close with unread data would be a reset.
    ns.internet(False)
    c = Client(ns)
    # Nothing at -v tells when the configuration is in, and only an
    # accepted login is told the status.
    assert c.login_configured().startswith("OK\tlogin\t")
    assert c.next_push("ERROR\tstatus\t20:")
    c.close()
    assert ns.wait_exit(pid) == 0
    assert settled_lines(ns) == []


def test_last_client_gone_reason_at_verbosity_two(ns):
    start_with_config(ns)
    pid = start(ns, "-vv")
    client_session(ns)
    assert ns.wait_exit(pid) == 0
    ns.syslog.wait_for("shutting down with exit code 0")
    rec = [r for r in ns.syslog.records("kelpd") if r.text == "last client disconnected"]
    assert len(rec) == 1 and rec[0].prio == 6
    assert not has(ns, "configuration is empty")


def test_configd_gone_while_a_client_is_connected(ns):
    configd = start_with_config(ns)
    pid = start(ns, "-vvvv")
    ns.syslog.wait_for("incoming config data (handle=1)")
    ns.syslog.wait_for("incoming config data (handle=2)")
    s, answer = logged_in(ns)
    assert answer.startswith(b"OK\tlogin\t")
    configd.kill()
    # The loop ends with the client still connected: its record is released
    # (a leak would fail the test under the sanitizers) and it sees the end.
    assert ns.wait_exit(pid) == 0
    assert s.recv(100) == b""
    assert ns.syslog.count("client connection closed") == 1
    assert not has(ns, "last client disconnected")


def test_sigterm_disconnects_a_connected_client(ns):
    start_with_config(ns)
    pid = start(ns, "-vvv")
    ns.syslog.wait_for("incoming config data (handle=1)")
    ns.syslog.wait_for("incoming config data (handle=2)")
    s, answer = logged_in(ns)
    assert answer.startswith(b"OK\tlogin\t")
    ns.signal(pid, signal.SIGTERM)
    # The daemon does not wait for the client to leave: it lets it go.
    assert ns.wait_exit(pid) == 0
    assert s.recv(100) == b""
    assert has(ns, "received terminate signal")
    assert not has(ns, "last client disconnected")
