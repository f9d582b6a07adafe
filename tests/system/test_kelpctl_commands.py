"""kelpctl's commands against a scripted stand-in daemon: the exact requests
each one sends after its login, what it prints, pushed messages that arrive
before the answer, ERROR answers, API 2 against API 3, watch, and messages
that no daemon should send."""
import random
import signal
import subprocess
import threading

import pytest

from kelpctl_fake import NO_DAEMON, REFUSED, fake, one_line_error  # noqa: F401

LOGIN = b"login\tv:3\tdomain:rss\tprofile_id:1"
LOGIN_OK = "OK\tlogin\tdomain:rss\tprofile_id:1\tname:News\tfeed_id:4\tname:Caf\xe9 Radio\tfeed_id:9"
NEWS = ("overview\tdomain:rss\tprofile_id:1\tfeed_id:4\tnumber:2\tnumber_new:1"
        "\tuid:17\tstate:1\tsubject:First\tuid:18\tstate:6\tsubject:Second \xfcber")
RADIO = "overview\tdomain:rss\tprofile_id:1\tfeed_id:9\tnumber:1\tnumber_new:1\tuid:3\tstate:4\tsubject:Episode 3"
OFFLINE = "ERROR\tstatus\t20:KD_NO_INTERNET\tdomain:rss\tprofile_id:1"
ONLINE = "OK\tstatus\tdomain:rss\tprofile_id:1"
STATUS_ANSWER = "ERROR\tstatus\t9:KD_NOT_LOGGED_IN\tdomain:\tprofile_id:0"
BODY = b"body\tdomain:rss\tprofile_id:1\tfeed_id:4\tuid:17"


# --- accounts ------------------------------------------------------------------

def test_accounts_asks_after_the_login_and_prints_the_table(ns, fake):
    d = fake([[LOGIN_OK, NEWS, RADIO, OFFLINE],
              ["OK\taccounts\tdomain:rss\tprofile_id:1\tname:News\tfeed_id:4"]])
    cp = ns.kelpctl("accounts")
    assert cp.returncode == 0, cp.stderr
    assert cp.stdout == "FEED_ID  NAME\n4        News\n"
    assert d.requests == [LOGIN, b"accounts\tdomain:rss\tprofile_id:1"]


def test_accounts_refused(ns, fake):
    fake([[LOGIN_OK], ["ERROR\taccounts\t9:KD_NOT_LOGGED_IN\tdomain:podcast\tprofile_id:2"]])
    cp = ns.kelpctl("accounts")
    assert cp.returncode == REFUSED
    assert one_line_error(cp) == "kelpctl: accounts refused: 9:KD_NOT_LOGGED_IN"
    assert cp.stdout == ""


# --- overview ------------------------------------------------------------------

def test_overview_prints_each_feed_of_the_login_as_a_table(ns, fake):
    d = fake([[LOGIN_OK, OFFLINE, RADIO, NEWS]])
    cp = ns.kelpctl("overview")
    assert cp.returncode == 0, cp.stderr
    assert cp.stdout == ("feed 4 (News): 2 items, 1 new\n"
                         "UID  READ  ENCL  IMG  SUBJECT\n"
                         "17   yes   no    no   First\n"
                         "18   no    yes   yes  Second \u00fcber\n"
                         "\n"
                         "feed 9 (Caf\u00e9 Radio): 1 item, 1 new\n"
                         "UID  READ  ENCL  IMG  SUBJECT\n"
                         "3    no    no    yes  Episode 3\n")
    assert d.requests == [LOGIN]  # an overview is pushed, never asked for


def test_overview_under_api_2_has_no_enclosure_or_image_flags(ns, fake):
    d = fake([["OK\tlogin\tdomain:podcast\tprofile_id:2\tname:Radio\tfeed_id:9",
               "overview\tdomain:podcast\tprofile_id:2\tfeed_id:9\tnumber:2\tnumber_new:1"
               "\tuid:1234567\tstate:1\tsubject:Old\tuid:8\tstate:0\tsubject:"]])
    cp = ns.kelpctl("--api", "2", "-d", "podcast", "-p", "2", "overview")
    assert cp.returncode == 0, cp.stderr
    assert cp.stdout == ("feed 9 (Radio): 2 items, 1 new\n"
                         "UID      READ  ENCL  IMG  SUBJECT\n"
                         "1234567  yes   -     -    Old\n"
                         "8        no    -     -    \n")
    assert d.requests == [b"login\tv:2\tdomain:podcast\tprofile_id:2"]


def test_overview_of_a_feed_never_fetched(ns, fake):
    fake([[LOGIN_OK, NEWS]])  # no overview for feed 9: the daemon has no items for it
    cp = ns.kelpctl("overview")
    assert cp.returncode == 0, cp.stderr
    assert cp.stdout.endswith("\n\nfeed 9 (Caf\u00e9 Radio): no items yet\n")
    assert cp.stdout.startswith("feed 4 (News): 2 items, 1 new\n")


def test_overview_of_one_feed(ns, fake):
    fake([[LOGIN_OK, NEWS, RADIO]])
    cp = ns.kelpctl("overview", "9")
    assert cp.returncode == 0, cp.stderr
    assert cp.stdout == ("feed 9 (Caf\u00e9 Radio): 1 item, 1 new\n"
                         "UID  READ  ENCL  IMG  SUBJECT\n"
                         "3    no    no    yes  Episode 3\n")


def test_overview_keeps_the_latest_snapshot_of_a_feed(ns, fake):
    fake([[LOGIN_OK, NEWS.replace("number_new:1", "number_new:2").replace("state:1", "state:0"), NEWS, RADIO]])
    cp = ns.kelpctl("overview")
    assert cp.returncode == 0, cp.stderr
    assert cp.stdout.startswith("feed 4 (News): 2 items, 1 new\nUID  READ  ENCL  IMG  SUBJECT\n17   yes ")


def test_overview_of_a_feed_the_profile_lacks(ns, fake):
    fake([[LOGIN_OK, NEWS, RADIO]])
    cp = ns.kelpctl("overview", "5")
    assert cp.returncode == REFUSED
    assert one_line_error(cp) == "kelpctl: feed 5 is not one of profile 1's feeds"
    assert cp.stdout == ""


def test_overview_of_a_profile_without_feeds(ns, fake):
    fake([["OK\tlogin\tdomain:rss\tprofile_id:3"]])
    cp = ns.kelpctl("-p", "3", "overview")
    assert cp.returncode == 0, cp.stderr
    assert cp.stdout == "profile 3 (rss) has no feeds\n"


def test_overview_with_a_refused_login(ns, fake):
    fake([["ERROR\tlogin\t19:KD_NO_CONFIG\tdomain:rss\tprofile_id:1"]])
    cp = ns.kelpctl("overview")
    assert cp.returncode == REFUSED
    assert one_line_error(cp) == "kelpctl: login refused: 19:KD_NO_CONFIG"


# --- read, enclosure, image ----------------------------------------------------

def test_read_prints_the_body_and_its_images(ns, fake):
    d = fake([[LOGIN_OK], [NEWS, ONLINE,
                           "OK\tbody\tdomain:rss\tprofile_id:1\tfeed_id:4\tuid:17\tbody:Line one\nGr\xfc\xdfe"
                           "\timage:http://feeds.test/a.jpg\toffset:12\timage:b.png\toffset:0"]])
    cp = ns.kelpctl("read", "4", "17")
    assert cp.returncode == 0, cp.stderr
    assert cp.stdout == ("Line one\nGr\u00fc\u00dfe\n"
                         "image at offset 12: http://feeds.test/a.jpg\n"
                         "image at offset 0: b.png\n")
    assert d.requests == [LOGIN, BODY]


def test_read_under_api_2_prints_the_body_only(ns, fake):
    d = fake([["OK\tlogin\tdomain:rss\tprofile_id:1"],
              ["OK\tbody\tdomain:rss\tprofile_id:1\tfeed_id:4\tuid:17\tbody:Plain text"]])
    cp = ns.kelpctl("--api", "2", "read", "4", "17")
    assert cp.returncode == 0, cp.stderr
    assert cp.stdout == "Plain text\n"
    assert d.requests == [b"login\tv:2\tdomain:rss\tprofile_id:1", BODY]


def test_read_of_an_item_gone(ns, fake):
    fake([[LOGIN_OK], ["ERROR\tbody\t12:KD_UID_NOT_FOUND\tdomain:rss\tprofile_id:1\tfeed_id:4\tuid:17"]])
    cp = ns.kelpctl("read", "4", "17")
    assert cp.returncode == REFUSED
    assert one_line_error(cp) == "kelpctl: body refused: 12:KD_UID_NOT_FOUND"
    assert cp.stdout == ""


def test_read_of_a_feed_not_subscribed(ns, fake):
    fake([[LOGIN_OK], ["OK\tbody\tdomain:rss\tprofile_id:1\tfeed_id:5\tuid:17"]])
    cp = ns.kelpctl("read", "5", "17")
    assert cp.returncode == REFUSED
    assert one_line_error(cp) == "kelpctl: feed 5 is not one of profile 1's feeds"


@pytest.mark.parametrize("word", ["enclosure", "image"])
def test_url_commands_print_the_url(ns, fake, word):
    d = fake([["OK\tlogin\tdomain:podcast\tprofile_id:2"],
              [RADIO, "OK\t%s\tdomain:podcast\tprofile_id:2\tfeed_id:9\tuid:3\turl:http://feeds.test/ep3" % word]])
    cp = ns.kelpctl("-d", "podcast", "-p", "2", word, "9", "3")
    assert cp.returncode == 0, cp.stderr
    assert cp.stdout == "http://feeds.test/ep3\n"
    assert d.requests == [b"login\tv:3\tdomain:podcast\tprofile_id:2",
                          ("%s\tdomain:podcast\tprofile_id:2\tfeed_id:9\tuid:3" % word).encode()]


@pytest.mark.parametrize("word", ["enclosure", "image"])
def test_url_commands_with_an_empty_url(ns, fake, word):
    fake([[LOGIN_OK], ["OK\t%s\tdomain:rss\tprofile_id:1\tfeed_id:4\tuid:17\turl:" % word]])
    cp = ns.kelpctl(word, "4", "17")
    assert cp.returncode == REFUSED
    assert one_line_error(cp) == "kelpctl: item 17 of feed 4 has no %s" % word
    assert cp.stdout == ""


def test_enclosure_refused(ns, fake):
    fake([[LOGIN_OK], ["ERROR\tenclosure\t18:KD_FEED_NOT_FOUND\tdomain:rss\tprofile_id:1\tfeed_id:4\tuid:1"]])
    cp = ns.kelpctl("enclosure", "4", "1")
    assert cp.returncode == REFUSED
    assert one_line_error(cp) == "kelpctl: enclosure refused: 18:KD_FEED_NOT_FOUND"


# --- status --------------------------------------------------------------------

@pytest.mark.parametrize("script", [
    [[LOGIN_OK, OFFLINE], [STATUS_ANSWER]],   # pushed before the status request was read
    [[LOGIN_OK], [STATUS_ANSWER, OFFLINE]],   # pushed just after its answer
    [[LOGIN_OK, NEWS, OFFLINE], [RADIO, STATUS_ANSWER]],
])
def test_status_not_usable(ns, fake, script):
    d = fake(script)
    cp = ns.kelpctl("status")
    assert cp.returncode == REFUSED
    assert cp.stdout == "internet: not usable (20:KD_NO_INTERNET)\n"
    assert cp.stderr == ""
    assert d.requests == [LOGIN, b"status"]


@pytest.mark.parametrize("script", [
    [[LOGIN_OK, NEWS], [STATUS_ANSWER]],       # no status push after the login: usable
    [[LOGIN_OK, OFFLINE, ONLINE], [STATUS_ANSWER]],  # down at the login, back since
    [[LOGIN_OK], [ONLINE.replace("rss\tprofile_id:1", "\tprofile_id:0")]],  # a daemon that can answer
])
def test_status_usable(ns, fake, script):
    d = fake(script)
    cp = ns.kelpctl("status")
    assert cp.returncode == 0, cp.stderr
    assert cp.stdout == "internet: usable\n"
    assert d.requests == [LOGIN, b"status"]


def test_status_with_another_error(ns, fake):
    fake([[LOGIN_OK], ["ERROR\tstatus\t5:KD_NO_MEMORY\tdomain:\tprofile_id:0"]])
    cp = ns.kelpctl("status")
    assert cp.returncode == REFUSED
    assert one_line_error(cp) == "kelpctl: status refused: 5:KD_NO_MEMORY"


# --- watch ---------------------------------------------------------------------

def watching(ns, fake, script, *args):
    d = fake(script)
    p = ns.spawn([ns.bin("kelpctl")] + list(args) + ["watch"],
                 stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    return d, p


@pytest.mark.parametrize("sig", [signal.SIGINT, signal.SIGTERM])
def test_watch_prints_pushes_readably_until_interrupted(ns, fake, sig):
    d, p = watching(ns, fake, [[LOGIN_OK, NEWS, OFFLINE, "OK\taccounts\tdomain:rss\tprofile_id:1\tname:A b\"c"]])
    lines = [p.stdout.readline().decode() for _ in range(4)]
    assert lines == [
        "OK login domain=rss profile_id=1 name=News feed_id=4 name=\"Caf\u00e9 Radio\" feed_id=9\n",
        "overview domain=rss profile_id=1 feed_id=4 number=2 number_new=1 uid=17 state=1(read) subject=First "
        "uid=18 state=6(enclosure,image) subject=\"Second \u00fcber\"\n",
        "ERROR status 20:KD_NO_INTERNET domain=rss profile_id=1\n",
        "OK accounts domain=rss profile_id=1 name=\"A b\\\"c\"\n",
    ]
    assert d.done.wait(15)
    p.send_signal(sig)
    out, err = p.communicate(timeout=15)
    assert p.returncode == 0
    assert out == b"" and err == b""
    assert d.requests == [LOGIN]


def test_watch_under_api_2_names_only_the_read_flag(ns, fake):
    d, p = watching(ns, fake, [["OK\tlogin\tdomain:rss\tprofile_id:1",
                                "overview\tdomain:rss\tprofile_id:1\tfeed_id:4\tnumber:1\tnumber_new:0"
                                "\tuid:17\tstate:7\tsubject:x"]], "--api", "2")
    p.stdout.readline()
    assert p.stdout.readline() == (b"overview domain=rss profile_id=1 feed_id=4 number=1 number_new=0 "
                                   b"uid=17 state=7(read) subject=x\n")
    assert d.done.wait(15)
    p.send_signal(signal.SIGINT)
    p.communicate(timeout=15)
    assert p.returncode == 0


def test_watch_ends_when_the_daemon_goes(ns, fake):
    fake([[LOGIN_OK, RADIO]], close_after=True)
    cp = ns.kelpctl("watch")
    assert cp.returncode == NO_DAEMON
    assert cp.stdout.splitlines()[1] == ("overview domain=rss profile_id=1 feed_id=9 number=1 number_new=1 "
                                         "uid=3 state=4(image) subject=\"Episode 3\"")
    assert one_line_error(cp) == "kelpctl: kelpd closed the connection"


# --- malformed messages --------------------------------------------------------

MALFORMED_OVERVIEW = (b"overview\tfeed_id:4\tnumber:99999999999999999999999\tuid:\tstate:99999999999"
                      b"\tsubject\tuid:1\tstate:-1\tstate:\tsubject:a:b\tfrom:nowhere\0")
GARBAGE = [
    b"overview\tdomain:rss\tfeed_id:4",                          # cut short, no NUL
    MALFORMED_OVERVIEW,
    b"\0" * 65536,                                               # empty text in a 64 KiB block
    b"x" * 65536,                                                # 64 KiB, no NUL
    b"overview" + b"\t" * 30000 + b"\0",
    b"",                                                         # an empty packet is not the end
    b"OK\0",
    b"ERROR\0",
    b"OK\tenclosure\0",                                          # the answer to another request
]


def test_overview_survives_malformed_pushes(ns, fake):
    fake([[LOGIN_OK] + GARBAGE + [NEWS]])
    cp = ns.kelpctl("overview")
    assert cp.returncode == 0, cp.stderr
    assert cp.stdout.startswith("feed 4 (News): 2 items, 1 new\nUID  READ  ENCL  IMG  SUBJECT\n17   yes")
    assert "feed 9 (Caf\u00e9 Radio): no items yet\n" in cp.stdout


def test_overview_shows_a_malformed_overview_as_well_as_it_can(ns, fake):
    fake([[LOGIN_OK, MALFORMED_OVERVIEW, RADIO]])
    cp = ns.kelpctl("overview", "4")
    assert cp.returncode == 0, cp.stderr
    assert cp.stdout == ("feed 4 (News): 99999999999999999999999 items, ? new\n"
                         "UID  READ  ENCL  IMG  SUBJECT\n"
                         "     ?     ?     ?    \n"
                         "1    ?     ?     ?    a:b\n")


@pytest.mark.parametrize("answer, status, out, err", [
    ("OK\tbody", REFUSED, "", "kelpctl: feed 4 is not one of profile 1's feeds\n"),
    ("OK\tbody\tdomain:rss\tprofile_id:1\tfeed_id:4\tuid:17\tbody:", 0, "\n", ""),
    ("OK\tbody\tbody:\x1b[2J\r\n\x85", 0, "\\x1b[2J\n\\x85\n", ""),
    ("ERROR\tbody", REFUSED, "", "kelpctl: body refused: unknown error\n"),
])
def test_read_after_malformed_pushes(ns, fake, answer, status, out, err):
    fake([[LOGIN_OK], GARBAGE + [answer]])
    cp = ns.kelpctl("read", "4", "17")
    assert (cp.returncode, cp.stdout, cp.stderr) == (status, out, err)


def test_read_of_a_malformed_answer_prints_what_it_has(ns, fake):
    fake([[LOGIN_OK], ["OK\tbody\tbody:x\timage:\timage:y\toffset:99999999999999\toffset:z\tfoo:bar"]])
    cp = ns.kelpctl("read", "4", "17")
    assert cp.returncode == 0, cp.stderr
    assert cp.stdout == "x\nimage at offset ?: \nimage at offset 99999999999999: y\n"


def watch_lines(ns, fake, messages):
    """Runs watch until it has printed a line for the login answer and one for
    each message, then interrupts it; a daemon that closed could cut the
    reading of an empty packet short, so this one stays."""
    d, p = watching(ns, fake, [[LOGIN_OK] + messages])
    guard = threading.Timer(60, p.kill)  # a line missing must fail, not hang
    guard.start()
    lines = [p.stdout.readline() for _ in range(1 + len(messages))]
    guard.cancel()
    assert d.done.wait(15)
    p.send_signal(signal.SIGINT)
    out, err = p.communicate(timeout=15)
    assert (p.returncode, out, err) == (0, b"", b"")
    return lines


def test_watch_survives_malformed_pushes(ns, fake):
    lines = watch_lines(ns, fake, GARBAGE)
    assert lines[1] == b"overview domain=rss feed_id=4\n"
    assert lines[2].startswith(b"overview feed_id=4 number=99999999999999999999999 uid=\"\" state=99999999999 ")
    assert lines[3] == b"(empty message)\n"
    assert lines[4] == b"x" * 65536 + b"\n"
    assert lines[5] == b"overview" + b" \"\"" * 30000 + b"\n"
    assert lines[6:10] == [b"(empty message)\n", b"OK\n", b"ERROR\n", b"OK enclosure\n"]


def random_messages(seed, count):
    """Messages cut from protocol words, numbers too large, Latin-1 and control
    bytes; some framed, some without a NUL, a few of 64 KiB."""
    rnd = random.Random(seed)
    tokens = ["overview", "OK", "ERROR", "login", "body", "status", "accounts", "\t", "\t", "\t", ":",
              "uid:", "state:", "subject:", "feed_id:", "number:", "number_new:", "name:", "image:",
              "offset:", "body:", "url:", "domain:", "profile_id:", "4", "9", "4294967296", "9" * 30,
              "-1", "\xe9", "\x85", "\x1b", "\0", "\\", '"', " ", "\n", "\r"]
    out = []
    for _ in range(count):
        text = "".join(rnd.choice(tokens) for _ in range(rnd.randrange(40))).encode("latin-1")
        kind = rnd.randrange(10)
        if kind == 0:
            text = (text * (65536 // max(len(text), 1) + 1))[:65536]
        out.append(text if kind < 3 else text + b"\0" * (64 - len(text) % 32))
    return out


@pytest.mark.parametrize("seed", [1, 2, 3])
def test_watch_prints_one_line_for_each_of_many_random_messages(ns, fake, seed):
    lines = watch_lines(ns, fake, random_messages(seed, 300))
    assert all(line.endswith(b"\n") and b"\n" not in line[:-1] for line in lines)


@pytest.mark.parametrize("seed", [4, 5])
def test_overview_survives_many_random_messages(ns, fake, seed):
    fake([[LOGIN_OK] + random_messages(seed, 300)])
    cp = ns.run([ns.bin("kelpctl"), "overview"], text=False)
    assert cp.returncode == 0
    assert cp.stderr == b""
    assert cp.stdout.startswith(b"feed 4 (News): ")
