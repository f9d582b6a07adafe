"""Client connections and sessions of the real kelpd, served from a real
configd: connection teardown, logins and logouts as the status dump shows
them, bad input, and how the daemon ends around its clients."""
import os
import re
import signal
import socket

import pytest

CTL = "/var/tmp/me_kelpd_daemon.ctl"
DOC = ('<?xml version="1.0"?>\n'
       '<pool><entry id="1" url="http://feeds.test/a.xml" name="News" poll="1200" />'
       '<entry id="2" url="http://feeds.test/b.xml" name="Radio" /></pool>\n'
       '<profiles><profile id="1"><item entry="1" /><item entry="2" /></profile>'
       '<profile id="2"><item entry="2" /></profile></profiles>\n')
DUMP_MARK = "SIGUSR2 usage courtesy of jov :)"


def start(ns, verbosity="-vvvv", rss=DOC, podcast=DOC):
    """configd with both documents, then kelpd once it holds both."""
    ns.start_configd()
    assert ns.configctl("set", "rss", "-", input=rss).returncode == 0
    assert ns.configctl("set", "podcast", "-", input=podcast).returncode == 0
    _, pid = ns.start_kelpd(verbosity)
    assert pid
    ns.syslog.wait_for("incoming config data (handle=2)")
    ns.syslog.wait_for("incoming config data (handle=1)")
    return pid


class Client:
    def __init__(self, ns):
        self.sock = ns.connect_unix(CTL)
        self.sock.settimeout(15)

    def send(self, data):
        self.sock.send(data if isinstance(data, bytes) else data.encode("latin-1"))

    def message(self):
        data = self.sock.recv(1 << 20)
        return data.split(b"\0", 1)[0].decode("latin-1")

    def answer(self, word):
        """The next answer to `word`, passing over pushed messages."""
        while True:
            text = self.message()
            if text.startswith("OK\t%s\t" % word) or text.startswith("ERROR\t%s\t" % word):
                return text

    def request(self, text):
        self.send(text)
        return self.answer(text.split()[0])

    def login(self, domain="rss", profile=1, v=3):
        return self.request("login\tv:%d\tdomain:%s\tprofile_id:%d" % (v, domain, profile))

    def close(self):
        self.sock.close()


def connection_lines(ns, pid):
    """The client lines of a fresh status dump."""
    start = len(ns.syslog.texts())
    os.kill(pid, signal.SIGUSR2)
    ns.syslog.wait_for(re.compile(r"^slab statistics of kelpd"), start=start)
    texts = ns.syslog.texts()[start:]
    i = texts.index(DUMP_MARK)
    return texts[i + 1:texts.index("RSS-Feed structure:", i)]


def profile_lines(lines):
    return [t for t in lines if t.startswith("  [")]


def test_peer_close_tears_the_connection_down(ns):
    pid = start(ns)
    a, b = Client(ns), Client(ns)
    assert a.login().startswith("OK\tlogin\t")
    assert b.login(profile=2).startswith("OK\tlogin\t")
    a.close()
    ns.syslog.wait_for("received 0 bytes")
    ns.syslog.wait_for("client gone")
    ns.syslog.wait_for("client connection closed")
    ns.syslog.wait_for(re.compile(r"^unlinking profile 1 from connection on sd \d+$"))
    start_at = len(ns.syslog.texts())
    lines = connection_lines(ns, pid)
    assert len([t for t in lines if t.startswith("client connection on sd=")]) == 1
    assert profile_lines(lines) == ["  [rss] profile 2"]
    # The profile lost its connection: the RSS tree of the dump shows no one on profile 1.
    texts = ns.syslog.texts()[start_at:]
    rss = texts[texts.index("RSS-Feed structure:"):texts.index("Podcast structure:")]
    conns = {t.strip(): rss[i + 1].split()[0] for i, t in enumerate(rss) if t.strip().startswith("<profile ")}
    assert conns == {'<profile id="1">': "[#conns=0", '<profile id="2">': "[#conns=1"}
    assert ns.alive(pid)


def test_repeated_login_is_one_entry(ns):
    pid = start(ns)
    c = Client(ns)
    first = c.login()
    assert first == "OK\tlogin\tdomain:rss\tprofile_id:1\tname:News\tfeed_id:1\tname:Radio\tfeed_id:2"
    assert c.login() == first
    assert profile_lines(connection_lines(ns, pid)) == ["  [rss] profile 1"]


def test_same_profile_id_in_both_domains_is_two_entries(ns):
    pid = start(ns)
    c = Client(ns)
    assert c.login("rss", 1).startswith("OK\t")
    assert c.login("podcast", 1, v=2).startswith("OK\t")
    lines = connection_lines(ns, pid)
    assert profile_lines(lines) == ["  [rss] profile 1", "  [podcast] profile 1"]
    assert re.fullmatch(r"client connection on sd=\d+ \[API=2\]", lines[1])


def test_unknown_profile_is_a_placeholder(ns):
    pid = start(ns)
    c = Client(ns)
    assert c.login("rss", 9) == "OK\tlogin\tdomain:rss\tprofile_id:9"
    assert profile_lines(connection_lines(ns, pid)) == ["  [rss] profile 9 [placeholder]"]
    assert c.request("accounts\tdomain:rss\tprofile_id:9") == "OK\taccounts\tdomain:rss\tprofile_id:9"


@pytest.mark.parametrize("version", [1, 4])
def test_unsupported_version_is_refused_and_api_unchanged(ns, version):
    pid = start(ns)
    c = Client(ns)
    expect = "ERROR\tlogin\t7:KD_VERSION_NOT_SUPPORTED\tdomain:rss\tprofile_id:1"
    assert c.login(v=version) == expect
    lines = connection_lines(ns, pid)
    assert re.fullmatch(r"client connection on sd=\d+ \[API=0\]", lines[1])
    assert c.login(v=3).startswith("OK\t")
    assert c.login(v=version) == expect
    lines = connection_lines(ns, pid)
    assert re.fullmatch(r"client connection on sd=\d+ \[API=3\]", lines[1])
    assert profile_lines(lines) == ["  [rss] profile 1"]


def test_logout_of_profile_not_logged_in(ns):
    start(ns)
    c = Client(ns)
    assert c.request("logout\tdomain:rss\tprofile_id:2") == \
        "ERROR\tlogout\t9:KD_NOT_LOGGED_IN\tdomain:rss\tprofile_id:2"
    assert c.login().startswith("OK\t")
    assert c.request("logout\tdomain:rss\tprofile_id:1") == "OK\tlogout\tdomain:rss\tprofile_id:1"
    assert c.request("logout\tdomain:rss\tprofile_id:1").startswith("ERROR\tlogout\t9:KD_NOT_LOGGED_IN")


def test_other_login_errors(ns):
    start(ns)
    c = Client(ns)
    assert c.login("news", 1) == "ERROR\tlogin\t14:KD_DOMAIN_NOT_FOUND\tdomain:news\tprofile_id:1"
    assert c.request("login\tv:3") == "ERROR\tlogin\t13:KD_MISSING_DOMAIN\tdomain:\tprofile_id:0"


def test_unhandled_command_gets_no_answer(ns):
    start(ns)
    c = Client(ns)
    c.send("overview")
    ns.syslog.wait_for("unhandled command 10")
    c.send("login\tv:3\tdomain:rss\tprofile_id:1")
    assert c.message().startswith("OK\tlogin\t")  # nothing was sent for the overview


def test_bad_input_never_closes_the_connection(ns):
    pid = start(ns)
    c = Client(ns)
    seed = 7
    for n in list(range(0, 40)) + [1000, 4096, 8191, 8192, 9000]:
        data = bytearray()
        for _ in range(n):
            seed = (seed * 1103515245 + 12345) & 0xffffffff
            data.append((seed >> 16) & 0xff)
        if n and n % 3 == 0:
            data[0:6] = b"logout"
        c.send(bytes(data))
    assert c.login().startswith("OK\tlogin\t")
    assert ns.syslog.count("client gone") == 0
    assert ns.alive(pid)


def test_vanishing_and_flooding_clients_leave_the_daemon_serving(ns):
    pid = start(ns)
    keeper = Client(ns)
    assert keeper.login().startswith("OK\t")
    for _ in range(5):
        c = Client(ns)
        for _ in range(50):
            c.send("overview")
        c.send("login\tv:3\tdomain:rss\tprofile_id:2")
        c.close()
    ns.syslog.wait_count("client connection closed", 5)
    lines = connection_lines(ns, pid)
    assert len([t for t in lines if t.startswith("client connection on sd=")]) == 1
    assert keeper.login().startswith("OK\t")


def test_sigterm_disconnects_both_clients_and_exits_0(ns):
    pid = start(ns)
    a, b = Client(ns), Client(ns)
    assert a.login().startswith("OK\t")
    assert b.login("podcast", 2).startswith("OK\t")
    os.kill(pid, signal.SIGTERM)
    assert ns.wait_exit(pid) == 0
    assert a.sock.recv(100) == b""
    assert b.sock.recv(100) == b""
    assert ns.syslog.count("client connection closed") == 2


def test_last_client_gone_ends_the_daemon(ns):
    pid = start(ns, verbosity="-vvv")
    for _ in range(4):  # 4, 0, 1, 2: client events only
        os.kill(pid, signal.SIGHUP)
        ns.syslog.wait_count(re.compile(r"^verbosity set to: "), _ + 1)
    ns.syslog.wait_for("verbosity set to: 2")
    c = Client(ns)
    assert c.login().startswith("OK\t")
    c.close()
    ns.syslog.wait_for("last client disconnected")
    assert ns.wait_exit(pid) == 0
    assert ns.syslog.count("client gone") == 1
    assert ns.syslog.count("received 0 bytes") == 0  # a debug line, not at -vv


def test_answers_are_zero_padded_blocks_of_the_smallest_size(ns):
    start(ns)
    c = Client(ns)
    c.send("login\tv:3\tdomain:rss\tprofile_id:9")
    block = c.sock.recv(1 << 20)
    text = "OK\tlogin\tdomain:rss\tprofile_id:9"  # 32 characters: 64 bytes
    assert len(block) == 64
    assert block == text.encode() + bytes(64 - len(text))
    c.send("logout\tdomain:rss\tprofile_id:9")
    block = c.sock.recv(1 << 20)
    text = "OK\tlogout\tdomain:rss\tprofile_id:9"  # 33 characters: still 64 bytes
    assert block == text.encode() + bytes(64 - len(text))


def test_empty_packet_is_ignored_and_a_later_close_is_seen(ns):
    start(ns)
    c = Client(ns)
    c.send(b"")
    # A placeholder has no feeds, so nothing pushed stays unread at the close.
    assert c.login(profile=9).startswith("OK\tlogin\t")
    assert ns.syslog.count("received 0 bytes") == 0
    assert ns.syslog.count("client gone") == 0
    c.close()
    ns.syslog.wait_for("received 0 bytes")
    ns.syslog.wait_for("client gone")


def test_half_closed_client_is_gone(ns):
    pid = start(ns)
    keeper = Client(ns)
    assert keeper.login(profile=2).startswith("OK\t")
    c = Client(ns)
    assert c.login().startswith("OK\tlogin\t")
    c.sock.shutdown(socket.SHUT_WR)
    ns.syslog.wait_for("received 0 bytes")
    ns.syslog.wait_for("client connection closed")
    assert c.sock.recv(64) == b""  # the daemon closed its end
    lines = connection_lines(ns, pid)
    assert len([t for t in lines if t.startswith("client connection on sd=")]) == 1
    assert profile_lines(lines) == ["  [rss] profile 2"]


def test_client_leaving_unread_answers_is_one_recv_failure(ns):
    pid = start(ns)
    keeper = Client(ns)
    assert keeper.login(profile=2).startswith("OK\t")
    c = Client(ns)
    c.send("login\tv:3\tdomain:rss\tprofile_id:1")
    assert c.sock.recv(1, socket.MSG_PEEK)  # the answer has arrived, unread
    c.close()  # closing with it still queued resets the daemon's end
    ns.syslog.wait_for("client connection closed")
    assert ns.syslog.count("recv failed with 104") == 1
    assert ns.syslog.count("client gone") == 1
    assert ns.alive(pid)
