"""configctl's feed and profile commands: each is one read-modify-write of
the domain document that keeps everything it does not touch byte for byte,
refuses bad input without storing anything, and loses no update when
several editors write at once (configd's conditional save)."""
import re
import subprocess

import pytest

import configd_wire as w
from kelpd_helpers import settled_lines

# Pretty-printed, with read marks, attributes and elements configctl does
# not know, a comment and entities: all of it must survive every edit.
RICH = ('<?xml version="1.0" encoding="utf-8"?>\n'
        '<!-- kept as it is -->\n'
        '<pool>\n'
        '  <entry id="1" url="http://feeds.test/news.xml?a=1&amp;b=2" name="News &amp; more" poll="600" x-color="blue" />\n'
        '  <entry id="2" url="http://feeds.test/weather.xml" name="Wetter f\u00fcr M\u00fcnchen" />\n'
        '  <vendor-note lang="en">set up by the installer</vendor-note>\n'
        '  <entry id="7" url="http://feeds.test/blog.atom" name="Blog" poll="3600" />\n'
        '</pool>\n'
        '<profiles>\n'
        '  <profile id="1" label="Anna">\n'
        '    <item entry="1" read="0f80" first="123456789" />\n'
        '    <item entry="2" read="" x-seen="yes" />\n'
        '  </profile>\n'
        '  <profile id="2">\n'
        '    <item entry="7" read="01" first="42" />\n'
        '  </profile>\n'
        '</profiles>\n'
        '<extras><anything at="all" /></extras>\n')


def one_line_error(cp):
    assert cp.returncode == 1, (cp.returncode, cp.stdout, cp.stderr)
    lines = cp.stderr.strip().splitlines()
    assert len(lines) == 1 and lines[0].startswith("configctl: "), cp.stderr
    return lines[0]


def stored(ns, domain="rss"):
    with open(ns.path("/var/lib/configd/%s.xml" % domain)) as f:
        return f.read()


def with_rich(ns):
    ns.start_configd()
    assert ns.configctl("set", "rss", "-", input=RICH).returncode == 0
    assert ns.configctl("get", "rss").stdout == RICH


def ok(cp):
    assert cp.returncode == 0 and cp.stderr == "", (cp.returncode, cp.stdout, cp.stderr)
    return cp.stdout


def test_feeds_lists_the_pool_as_a_table(ns):
    with_rich(ns)
    out = ok(ns.configctl("feeds", "rss"))
    assert out.splitlines() == [
        "ID  NAME                URL                                 POLL  PROFILES",
        "1   News & more         http://feeds.test/news.xml?a=1&b=2  600   1",
        "2   Wetter f\u00fcr M\u00fcnchen  http://feeds.test/weather.xml       -     1",
        "7   Blog                http://feeds.test/blog.atom         3600  2",
    ]


def test_feeds_of_a_never_stored_domain_is_just_the_heading(ns):
    ns.start_configd()
    assert ok(ns.configctl("feeds", "podcast")) == "ID  NAME  URL  POLL  PROFILES\n"


def test_feed_add_takes_the_next_id_and_keeps_everything_else(ns):
    with_rich(ns)
    out = ok(ns.configctl("feed", "add", "rss", "http://feeds.test/new.xml", "--name", "Neu \u00e4", "--poll", "900",
                          "--profile", "1", "--profile=2"))
    assert out == "added feed 8\n"
    want = RICH.replace(
        'poll="3600" />\n</pool>',
        'poll="3600" />\n  <entry id="8" url="http://feeds.test/new.xml" name="Neu \u00e4" poll="900" />\n</pool>')
    want = want.replace('x-seen="yes" />\n', 'x-seen="yes" />\n    <item entry="8" />\n')
    want = want.replace('first="42" />\n', 'first="42" />\n    <item entry="8" />\n')
    assert stored(ns) == want
    assert ns.configctl("get", "rss").stdout == want


def test_feed_add_takes_several_profiles_after_one_option(ns):
    with_rich(ns)
    ok(ns.configctl("feed", "add", "rss", "http://feeds.test/n.xml", "--profile", "1", "2"))
    assert ok(ns.configctl("feeds", "rss")).splitlines()[-1].split()[-1] == "1,2"


def test_feed_add_without_name_uses_the_url_and_the_default_poll(ns):
    ns.start_configd()
    assert ok(ns.configctl("feed", "add", "rss", "https://feeds.test/x.xml")) == "added feed 1\n"
    assert ns.configctl("get", "rss").stdout == (
        '<?xml version="1.0" encoding="utf-8"?><pool><entry id="1" url="https://feeds.test/x.xml" '
        'name="https://feeds.test/x.xml" /></pool><profiles />\n')


def test_new_id_is_one_more_than_the_largest(ns):
    with_rich(ns)
    ok(ns.configctl("feed", "rm", "rss", "2"))
    assert ok(ns.configctl("feed", "add", "rss", "http://feeds.test/z.xml")) == "added feed 8\n"


def test_feed_rm_removes_the_entry_and_its_subscriptions_only(ns):
    with_rich(ns)
    ok(ns.configctl("feed", "rm", "rss", "1"))
    want = RICH.replace('  <entry id="1" url="http://feeds.test/news.xml?a=1&amp;b=2" name="News &amp; more" '
                        'poll="600" x-color="blue" />\n', '')
    want = want.replace('    <item entry="1" read="0f80" first="123456789" />\n', '')
    assert stored(ns) == want


def test_feed_set_changes_only_the_named_attributes(ns):
    with_rich(ns)
    ok(ns.configctl("feed", "set", "rss", "1", "--name", "Nachrichten", "--poll", "30"))
    ok(ns.configctl("feed", "set", "rss", "2", "--url", "https://feeds.test/w2.xml"))
    want = RICH.replace('name="News &amp; more" poll="600"', 'name="Nachrichten" poll="30"')
    want = want.replace('url="http://feeds.test/weather.xml"', 'url="https://feeds.test/w2.xml"')
    assert stored(ns) == want


def test_subscribe_and_unsubscribe_keep_read_marks_of_other_items(ns):
    with_rich(ns)
    ok(ns.configctl("subscribe", "rss", "2", "1", "2"))
    want = RICH.replace('first="42" />\n', 'first="42" />\n    <item entry="1" />\n    <item entry="2" />\n')
    assert stored(ns) == want
    # Subscribing again keeps the read marks the subscription has.
    ok(ns.configctl("subscribe", "rss", "1", "1"))
    assert stored(ns) == want
    ok(ns.configctl("unsubscribe", "rss", "1", "2"))
    assert stored(ns) == want.replace('    <item entry="2" read="" x-seen="yes" />\n', '')
    assert "2   " in ok(ns.configctl("feeds", "rss")).splitlines()[2]


def test_profile_add_and_rm(ns):
    with_rich(ns)
    ok(ns.configctl("profile", "add", "rss", "5"))
    want = RICH.replace('first="42" />\n  </profile>\n', 'first="42" />\n  </profile>\n  <profile id="5" />\n')
    assert stored(ns) == want
    ok(ns.configctl("subscribe", "rss", "5", "7"))
    ok(ns.configctl("profile", "rm", "rss", "1"))
    assert ok(ns.configctl("feeds", "rss")).splitlines()[1:] == [
        "1   News & more         http://feeds.test/news.xml?a=1&b=2  600   -",
        "2   Wetter f\u00fcr M\u00fcnchen  http://feeds.test/weather.xml       -     -",
        "7   Blog                http://feeds.test/blog.atom         3600  2,5",
    ]


def test_first_profile_and_item_are_indented_like_their_parent(ns):
    ns.start_configd()
    doc = '<?xml version="1.0"?>\n<pool>\n</pool>\n<profiles>\n</profiles>\n'
    ok(ns.configctl("set", "rss", "-", input=doc))
    ok(ns.configctl("profile", "add", "rss", "1"))
    ok(ns.configctl("feed", "add", "rss", "http://feeds.test/a.xml", "--name", "A", "--profile", "1"))
    assert stored(ns) == ('<?xml version="1.0"?>\n<pool>\n  <entry id="1" url="http://feeds.test/a.xml" name="A" />\n'
                          '</pool>\n<profiles>\n  <profile id="1"><item entry="1" /></profile>\n</profiles>\n')


BAD = [
    (["feed", "add", "rss", "ftp://feeds.test/a.xml"], "not an http or https URL"),
    (["feed", "add", "rss", "feeds.test/a.xml"], "not an http or https URL"),
    (["feed", "add", "rss", "http:///a.xml"], "URL has no host"),
    (["feed", "add", "rss", "http://feeds.test/a b.xml"], "white space or a control character"),
    (["feed", "add", "rss", "http://feeds.test/n.xml", "--name", "bad\tname"], "control character"),
    (["feed", "add", "rss", "http://feeds.test/n.xml", "--name", "bell\x07"], "control character"),
    (["feed", "add", "rss", "http://feeds.test/n.xml", "--name", ""], "empty name"),
    (["feed", "add", "rss", "http://feeds.test/n.xml", "--poll", "29"], "below the minimum of 30 s"),
    (["feed", "add", "rss", "http://feeds.test/n.xml", "--poll", "-5"], "not a number of seconds"),
    (["feed", "add", "rss", "http://feeds.test/n.xml", "--poll", "10m"], "not a number of seconds"),
    (["feed", "add", "rss", "http://feeds.test/n.xml", "--profile", "9"], "no profile 9"),
    (["feed", "add", "rss", "http://feeds.test/blog.atom"], "feed 7 has that URL already"),
    (["feed", "rm", "rss", "3"], "no feed 3"),
    (["feed", "set", "rss", "3", "--name", "x"], "no feed 3"),
    (["feed", "set", "rss", "1", "--poll", "0"], "below the minimum"),
    (["feed", "set", "rss", "1", "--url", "javascript:alert(1)"], "not an http or https URL"),
    (["feed", "set", "rss", "1", "--url", "http://feeds.test/blog.atom"], "feed 7 has that URL already"),
    (["subscribe", "rss", "9", "1"], "no profile 9"),
    (["subscribe", "rss", "1", "7", "3"], "no feed 3"),
    (["unsubscribe", "rss", "1", "3"], "no feed 3"),
    (["profile", "add", "rss", "1"], "profile 1 exists already"),
    (["profile", "add", "rss", "x1"], "profile id is not a number"),
    (["profile", "rm", "rss", "9"], "no profile 9"),
    (["feed", "add", "RSS", "http://feeds.test/n.xml"], "invalid domain name"),
]


@pytest.mark.parametrize("args,why", BAD, ids=[" ".join(a[:2]) + ": " + w for a, w in BAD])
def test_bad_input_is_refused_and_nothing_is_stored(ns, args, why):
    with_rich(ns)
    assert why in one_line_error(ns.configctl(*args))
    assert stored(ns) == RICH


FEED_ADD = "usage: configctl feed add DOMAIN URL [--name NAME] [--poll SECONDS] [--profile P [P...]]\n"
FEED_SET = "usage: configctl feed set DOMAIN ID [--name NAME] [--url URL] [--poll SECONDS]\n"
# One line naming what is wrong, then the command's usage line.
USAGE_ERRORS = [
    (["feed", "add", "rss"], "configctl: feed add: URL missing\n" + FEED_ADD),
    (["feed", "set", "rss", "1"], "configctl: feed set: nothing to change: give --name, --url or --poll\n" + FEED_SET),
    (["feed", "set", "rss"], "configctl: feed set: ID missing\n" + FEED_SET),
    (["feed", "add", "rss", "u", "--bogus", "1"], "configctl: feed add: unknown option '--bogus'\n" + FEED_ADD),
    (["feed", "add", "rss", "u", "--bogus=1"], "configctl: feed add: unknown option '--bogus'\n" + FEED_ADD),
    (["subscribe", "rss", "1"], "configctl: subscribe: ID missing\nusage: configctl subscribe DOMAIN PROFILE ID...\n"),
    (["unsubscribe"], "configctl: unsubscribe: DOMAIN missing\n"
                      "usage: configctl unsubscribe DOMAIN PROFILE ID...\n"),
    (["profile", "add", "rss"], "configctl: profile add: ID missing\nusage: configctl profile add DOMAIN ID\n"),
    (["profile", "rm", "rss", "1", "2"], "configctl: profile rm: unexpected argument '2'\n"
                                         "usage: configctl profile rm DOMAIN ID\n"),
    (["feed", "rm", "rss"], "configctl: feed rm: ID missing\nusage: configctl feed rm DOMAIN ID\n"),
    (["feeds"], "configctl: feeds: DOMAIN missing\nusage: configctl feeds DOMAIN\n"),
    (["feed", "add", "rss", "http://feeds.test/a.xml", "--name"], "configctl: feed add: --name needs a value\n" + FEED_ADD),
    (["feed", "add", "rss", "http://feeds.test/a.xml", "1"], "configctl: feed add: unexpected argument '1'\n" + FEED_ADD),
    (["opml", "export", "rss", "x"], "configctl: opml export: unexpected argument 'x'\n"
                                     "usage: configctl opml export DOMAIN [--profile P]\n"),
    (["opml", "import", "rss", "--profile", "1"], "configctl: opml import: FILE missing\n"
                                                  "usage: configctl opml import DOMAIN FILE [--profile P]\n"),
    (["feed"], "configctl: feed: add, rm, set expected\n" + FEED_ADD + "usage: configctl feed rm DOMAIN ID\n" + FEED_SET),
    (["opml", "print", "rss"], "configctl: opml: unknown command 'print' (export, import)\n"
                               "usage: configctl opml export DOMAIN [--profile P]\n"
                               "usage: configctl opml import DOMAIN FILE [--profile P]\n"),
]


@pytest.mark.parametrize("args,stderr", USAGE_ERRORS, ids=[" ".join(a) for a, _ in USAGE_ERRORS])
def test_usage_errors_name_the_problem_and_exit_2(ns, args, stderr):
    with_rich(ns)
    cp = ns.configctl(*args)
    assert (cp.returncode, cp.stdout, cp.stderr) == (2, "", stderr)
    assert stored(ns) == RICH


def test_help_lists_every_command(ns):
    out = ok(ns.configctl("--help"))
    for cmd in ("get DOMAIN", "set DOMAIN", "feeds DOMAIN", "feed add DOMAIN URL", "feed rm DOMAIN ID",
                "feed set DOMAIN ID", "subscribe DOMAIN PROFILE ID", "unsubscribe DOMAIN PROFILE ID",
                "profile add DOMAIN ID", "profile rm DOMAIN ID", "opml export DOMAIN", "opml import DOMAIN FILE",
                "--timeout SECONDS"):
        assert cmd in out


def test_timeout_option_bounds_the_wait(ns):
    ns.silent_configd()
    line = one_line_error(ns.configctl("--timeout", "1", "feed", "add", "rss", "http://feeds.test/a.xml"))
    assert line == "configctl: feed add rss: no answer from configd within 1 s"
    line = one_line_error(ns.configctl("--timeout=2", "feeds", "rss"))
    assert line == "configctl: feeds rss: no answer from configd within 2 s"


@pytest.mark.parametrize("value", ["0", "x", "", "-1", "3601"])
def test_bad_timeout_is_named_and_exits_2(ns, value):
    cp = ns.configctl("--timeout", value, "get", "rss")
    line = "configctl: --timeout: '%s' is not a number of seconds from 1 to 3600\n" % value
    assert (cp.returncode, cp.stdout, cp.stderr) == (2, "", line)
    cp = ns.configctl("--timeout=" + value, "get", "rss")
    assert (cp.returncode, cp.stdout, cp.stderr) == (2, "", line)


HINT = "usage: configctl [--timeout SECONDS] COMMAND ... ('configctl --help' lists the commands)\n"


@pytest.mark.parametrize("args,first", [
    ([], "configctl: no command given\n"),
    (["frobnicate", "rss"], "configctl: unknown command 'frobnicate'\n"),
    (["--verbose", "get", "rss"], "configctl: unknown option '--verbose'\n"),
    (["--timeoutx=3", "get", "rss"], "configctl: unknown option '--timeoutx=3'\n"),
    (["--timeout"], "configctl: --timeout needs a number of seconds\n"),
], ids=["none", "unknown", "option", "near-timeout", "timeout-without-value"])
def test_command_line_errors_name_the_problem_and_hint_at_help(ns, args, first):
    cp = ns.configctl(*args)
    assert (cp.returncode, cp.stdout, cp.stderr) == (2, "", first + HINT)


def test_unreachable_configd(ns):
    line = one_line_error(ns.configctl("feed", "add", "rss", "http://feeds.test/a.xml"))
    assert "cannot connect to configd" in line


def test_two_editors_adding_100_feeds_each_lose_nothing(ns):
    ns.start_configd()
    loop = ('for i in $(seq 1 100); do %s feed add rss http://feeds.test/%%s$i.xml --name "%%s $i" || exit 1; done'
            % ns.bin("configctl"))
    editors = [ns.spawn(["sh", "-c", loop % (who, who)], stderr=subprocess.PIPE, text=True) for who in "ab"]
    for p in editors:
        _, err = p.communicate(timeout=600)
        assert p.returncode == 0, err
    rows = ok(ns.configctl("feeds", "rss")).splitlines()[1:]
    ids = [r.split()[0] for r in rows]
    urls = {r.split()[3] for r in rows}
    assert len(rows) == 200 and len(set(ids)) == 200 and sorted(map(int, ids)) == list(range(1, 201))
    assert urls == {"http://feeds.test/%s%d.xml" % (who, i) for who in "ab" for i in range(1, 101)}


def test_save_naming_an_older_generation_is_refused(ns):
    ns.start_configd()
    ok(ns.configctl("set", "rss", "-", input=RICH))
    c = w.Client(ns)
    c.send(w.request(w.GET_GENERATION, 3, "rss"))
    kind, msgid, tag, (gen, doc) = c.recv()
    assert (kind, msgid, tag) == (w.REPLY, w.GET_GENERATION, 3)
    assert re.fullmatch(r"[0-9a-f]{16}", gen) and doc.encode("latin-1").decode() == RICH
    changed = RICH.replace("Blog", "Blog 2")
    c.send(w.request(w.SAVE_IF, 4, "rss " + gen, changed))
    kind, msgid, tag, (newgen,) = c.recv()
    assert (kind, msgid, tag) == (w.REPLY, w.SAVE_IF, 4)
    assert re.fullmatch(r"[0-9a-f]{16}", newgen) and newgen != gen
    assert c.get("rss")[3] == [changed.encode().decode("latin-1")]
    # A second save based on the first generation comes too late.
    c.send(w.request(w.SAVE_IF, 5, "rss " + gen, RICH))
    assert c.recv() == (w.ERROR_REPLY, w.SAVE_IF, 5,
                        ["conflict: domain 'rss' changed since generation %s was read (now %s)" % (gen, newgen)])
    assert stored(ns) == changed
    c.send(w.request(w.SAVE_IF, 6, "rss " + newgen, RICH))
    assert c.recv()[:3] == (w.REPLY, w.SAVE_IF, 6)
    assert stored(ns) == RICH
    c.close()


@pytest.mark.parametrize("arg,why", [("rss", "conflict: "), ("rss 0123", "conflict: "), ("../x 0", "invalid domain")])
def test_conditional_save_without_the_current_generation_is_refused(ns, arg, why):
    ns.start_configd()
    ok(ns.configctl("set", "rss", "-", input=RICH))
    c = w.Client(ns)
    c.send(w.request(w.SAVE_IF, 1, arg, RICH.replace("Blog", "B")))
    kind, msgid, tag, (reason,) = c.recv()
    assert (kind, msgid, tag) == (w.ERROR_REPLY, w.SAVE_IF, 1) and reason.startswith(why)
    assert stored(ns) == RICH
    c.close()


def test_conditional_save_tells_subscribers_but_not_the_saver(ns):
    ns.start_configd()
    sub = w.Client(ns)
    sub.send(w.request(w.SUBSCRIBE, 0, ["rss"]))
    assert sub.get("rss")[0] == w.REPLY
    ok(ns.configctl("feed", "add", "rss", "http://feeds.test/a.xml"))
    assert sub.recv() == (w.INDICATION, w.CHANGE_IND, 0, ["rss"])
    sub.close()


def test_an_edit_that_changes_nothing_stores_nothing(ns):
    with_rich(ns)
    ok(ns.configctl("subscribe", "rss", "1", "1"))
    ok(ns.configctl("profile", "add", "rss", "3"))
    assert [t for t in settled_lines(ns, "configd") if "saved" in t] == ["domain 'rss' saved"] * 2
