"""kelpctl without kelpd: usage errors, a daemon that is not running, and
the client's side of the protocol against a scripted stand-in daemon that
listens on the control socket inside the test's namespace."""
import signal
import socket
import subprocess

import pytest

from kelpctl_fake import CTL, NO_DAEMON, REFUSED, USAGE_ERROR, fake, one_line_error  # noqa: F401

# --- usage -------------------------------------------------------------------

@pytest.mark.parametrize("args, text", [
    ((), "kelpctl: missing command (try 'kelpctl --help')"),
    (("frobnicate",), "kelpctl: unknown command 'frobnicate' (try 'kelpctl --help')"),
    (("-d", "news", "login"), "kelpctl: domain must be rss or podcast, not 'news'"),
    (("-p", "x1", "login"), "kelpctl: profile must be a number from 0 to 4294967295, not 'x1'"),
    (("-p", "4294967296", "login"), "kelpctl: profile must be a number from 0 to 4294967295, not '4294967296'"),
    (("-p", "-1", "login"), "kelpctl: profile must be a number from 0 to 4294967295, not '-1'"),
    (("--api", "4", "login"), "kelpctl: api must be 2 or 3, not '4'"),
    (("-t", "0", "raw", "status"), "kelpctl: timeout must be 1 to 3600 seconds, not '0'"),
    (("-q", "login"), "kelpctl: unknown option '-q' (try 'kelpctl --help')"),
    (("--bogus", "login"), "kelpctl: unknown option '--bogus' (try 'kelpctl --help')"),
    (("login", "extra"), "kelpctl: login takes no arguments (use -d and -p before the command)"),
    (("raw",), "kelpctl: raw needs a request, e.g. kelpctl raw login v:3 domain:rss profile_id:1"),
    (("accounts", "4"), "kelpctl: accounts takes no arguments (use -d and -p before the command)"),
    (("status", "now"), "kelpctl: status takes no arguments (use -d and -p before the command)"),
    (("watch", "x"), "kelpctl: watch takes no arguments (use -d and -p before the command)"),
    (("overview", "4", "5"), "kelpctl: overview takes at most one FEED_ID (a number), e.g. kelpctl overview 4"),
    (("overview", "four"), "kelpctl: overview takes at most one FEED_ID (a number), e.g. kelpctl overview 4"),
    (("read", "4"), "kelpctl: read needs FEED_ID UID (two numbers), e.g. kelpctl read 4 17"),
    (("read", "4", "17", "18"), "kelpctl: read needs FEED_ID UID (two numbers), e.g. kelpctl read 4 17"),
    (("read", "4", "-1"), "kelpctl: read needs FEED_ID UID (two numbers), e.g. kelpctl read 4 17"),
    (("enclosure", "4294967296", "1"),
     "kelpctl: enclosure needs FEED_ID UID (two numbers), e.g. kelpctl enclosure 4 17"),
    (("image", "x", "1"), "kelpctl: image needs FEED_ID UID (two numbers), e.g. kelpctl image 4 17"),
    (("-f", "read", "4", "17"), "kelpctl: -f works with login and raw only (try 'kelpctl watch')"),
    (("-f", "watch"), "kelpctl: -f works with login and raw only (try 'kelpctl watch')"),
])
def test_usage_errors_are_one_line_with_status_2(ns, args, text):
    cp = ns.kelpctl(*args)
    assert cp.returncode == USAGE_ERROR
    assert one_line_error(cp) == text
    assert cp.stdout == ""


def test_option_without_value(ns):
    cp = ns.kelpctl("login", "-d")  # options end at the command: -d is an argument here
    assert cp.returncode == USAGE_ERROR
    cp = ns.kelpctl("-d")
    assert cp.returncode == USAGE_ERROR
    assert one_line_error(cp) == "kelpctl: option '-d' needs a value (try 'kelpctl --help')"


def test_help_lists_commands_and_exit_statuses(ns):
    cp = ns.kelpctl("--help")
    assert cp.returncode == 0 and cp.stderr == ""
    assert cp.stdout.startswith("usage: kelpctl [-d rss|podcast] [-p PROFILE] [--api 2|3]")
    commands = [line.split()[0] for line in cp.stdout.split("commands:\n")[1].split("\n\n")[0].splitlines()]
    assert commands == ["login", "accounts", "overview", "read", "enclosure", "image", "status", "watch", "raw"]
    for word in (CTL, "exit status", "FEED_ID UID", "[FEED_ID]", "REQUEST..."):
        assert word in cp.stdout


# --- no daemon -----------------------------------------------------------------

@pytest.mark.parametrize("args", [("login",), ("raw", "status"), ("-f", "-d", "podcast", "login")])
def test_daemon_not_running(ns, args):
    cp = ns.kelpctl(*args)
    assert cp.returncode == NO_DAEMON
    assert one_line_error(cp) == ("kelpctl: kelpd is not running (cannot connect to %s: "
                                  "No such file or directory)" % CTL)
    assert cp.stdout == ""


def test_stale_socket_file_is_not_running(ns):
    s = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
    s.bind(ns.path(CTL))
    s.close()  # the file stays, nobody listens
    cp = ns.kelpctl("login")
    assert cp.returncode == NO_DAEMON
    assert one_line_error(cp) == ("kelpctl: kelpd is not running (cannot connect to %s: "
                                  "Connection refused)" % CTL)


# --- against a stand-in daemon --------------------------------------------------

def test_login_prints_the_feed_table(ns, fake):
    d = fake([["OK\tlogin\tdomain:rss\tprofile_id:1\tname:News\tfeed_id:4\tname:Caf\xe9 Radio\tfeed_id:12345678"]])
    cp = ns.kelpctl("login")
    assert cp.returncode == 0, cp.stderr
    assert cp.stdout == ("FEED_ID   NAME\n"
                         "4         News\n"
                         "12345678  Caf\u00e9 Radio\n")
    assert d.requests == [b"login\tv:3\tdomain:rss\tprofile_id:1"]


def test_login_sends_domain_profile_and_api(ns, fake):
    d = fake([["OK\tlogin\tdomain:podcast\tprofile_id:7"]])
    cp = ns.kelpctl("-d", "podcast", "-p", "7", "--api", "2", "login")
    assert cp.returncode == 0, cp.stderr
    assert cp.stdout == "FEED_ID  NAME\n"
    assert d.requests == [b"login\tv:2\tdomain:podcast\tprofile_id:7"]


def test_login_skips_pushed_messages_before_its_answer(ns, fake):
    fake([["ERROR\tstatus\t20:KD_NO_INTERNET\tdomain:rss\tprofile_id:1",
           "OK\tlogin\tdomain:rss\tprofile_id:1\tname:News\tfeed_id:4"]])
    cp = ns.kelpctl("login")
    assert cp.returncode == 0, cp.stderr
    assert cp.stdout == "FEED_ID  NAME\n4        News\n"


def test_refused_login(ns, fake):
    fake([["ERROR\tlogin\t19:KD_NO_CONFIG\tdomain:rss\tprofile_id:1"]])
    cp = ns.kelpctl("login")
    assert cp.returncode == REFUSED
    assert one_line_error(cp) == "kelpctl: login refused: 19:KD_NO_CONFIG"
    assert cp.stdout == ""


def test_daemon_closing_before_the_answer(ns, fake):
    fake([[]], close_after=True)
    cp = ns.kelpctl("login")
    assert cp.returncode == NO_DAEMON
    assert one_line_error(cp) == "kelpctl: kelpd closed the connection"


def test_no_answer_in_time(ns, fake):
    fake([[]])  # takes the request and keeps silent, as for an unknown command
    cp = ns.kelpctl("-t", "1", "raw", "overview")
    assert cp.returncode == NO_DAEMON
    assert one_line_error(cp) == "kelpctl: no answer from kelpd within 1 seconds"


def test_raw_joins_words_with_tabs_and_shows_tabs(ns, fake):
    d = fake([["ERROR\tlogout\t9:KD_NOT_LOGGED_IN\tdomain:rss\tprofile_id:7"]])
    cp = ns.kelpctl("raw", "logout", "domain:rss", "profile_id:7")
    assert cp.returncode == 0, cp.stderr
    assert cp.stdout == "ERROR\\tlogout\\t9:KD_NOT_LOGGED_IN\\tdomain:rss\\tprofile_id:7\n"
    assert d.requests == [b"logout\tdomain:rss\tprofile_id:7"]


def test_raw_escapes_backslashes_and_control_bytes(ns, fake):
    fake([["OK\tbody\tbody:a\\b\x01c\x85d\xfc"]])
    cp = ns.run([ns.bin("kelpctl"), "raw", "body"], text=False)
    assert cp.returncode == 0
    assert cp.stdout == b"OK\\tbody\\tbody:a\\\\b\\x01c\\x85d\xc3\xbc\n"


def test_raw_reads_a_large_message_whole(ns, fake):
    subject = "x" * 100000
    fake([["overview\tdomain:rss\tsubject:" + subject]])
    cp = ns.kelpctl("raw", "status")
    assert cp.returncode == 0, cp.stderr
    assert cp.stdout == "overview\\tdomain:rss\\tsubject:" + subject + "\n"


def test_follow_prints_pushed_messages_until_the_daemon_goes(ns, fake):
    fake([["OK\tlogin\tdomain:rss\tprofile_id:1\tname:News\tfeed_id:4",
           "overview\tdomain:rss\tprofile_id:1\tfeed_id:4\tnumber:0\tnumber_new:0",
           "ERROR\tstatus\t20:KD_NO_INTERNET\tdomain:rss\tprofile_id:1"]], close_after=True)
    cp = ns.kelpctl("--follow", "login")
    assert cp.stdout == ("FEED_ID  NAME\n4        News\n"
                         "overview\\tdomain:rss\\tprofile_id:1\\tfeed_id:4\\tnumber:0\\tnumber_new:0\n"
                         "ERROR\\tstatus\\t20:KD_NO_INTERNET\\tdomain:rss\\tprofile_id:1\n")
    assert cp.returncode == NO_DAEMON
    assert one_line_error(cp) == "kelpctl: kelpd closed the connection"


def test_follow_ends_quietly_when_interrupted(ns, fake):
    d = fake([["OK\tstatus\tdomain:rss\tprofile_id:1"]])
    p = ns.spawn([ns.bin("kelpctl"), "-f", "raw", "status"], stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    first = p.stdout.readline()
    assert first == b"OK\\tstatus\\tdomain:rss\\tprofile_id:1\n"
    assert d.done.wait(15)
    p.send_signal(signal.SIGINT)
    out, err = p.communicate(timeout=15)
    assert p.returncode == 0
    assert out == b"" and err == b""
