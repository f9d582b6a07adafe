"""configctl opml export and import: OPML 2.0 out, the files real readers
write in (flat, nested categories, extra attributes, missing titles,
non-ASCII names, a thousand feeds), feeds reused by URL, profiles
subscribed, a round trip that gives the same feeds and subscriptions, and
hostile files refused without storing anything."""
import os
import shutil
import subprocess
import sys
import unicodedata
import xml.etree.ElementTree as ET

import pytest

from test_configctl_feeds import RICH, ok, one_line_error, stored, with_rich

SOURCE = os.environ.get("KELP_SOURCE", os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", ".."))
DATA = os.path.join(SOURCE, "tests", "data", "opml")

EMPTY_WITH_PROFILE = '<?xml version="1.0"?>\n<pool>\n</pool>\n<profiles>\n  <profile id="1" />\n</profiles>\n'


def columns(text):
    return sum(2 if unicodedata.east_asian_width(c) in "WF" else 1 for c in text)


def fixture(ns, name):
    """The fixture's path inside the namespace."""
    shutil.copy(os.path.join(DATA, name), ns.path("/var/tmp/" + name))
    return "/var/tmp/" + name


def feeds(ns, domain):
    """{url: (name, poll, profiles)} of a domain, from `configctl feeds`."""
    out = {}
    for row in ok(ns.configctl("feeds", domain)).splitlines()[1:]:
        cells = [c for c in row.split("  ") if c]
        _, name, url, poll, profiles = [c.strip() for c in cells]
        out[url] = (name, poll, profiles)
    return out


def import_into(ns, domain, name, *args):
    return ns.configctl("opml", "import", domain, fixture(ns, name), *args)


def test_export_writes_opml_2_with_a_category_per_profile(ns):
    with_rich(ns)
    ok(ns.configctl("feed", "add", "rss", "http://feeds.test/lonely.xml", "--name", "Lonely"))
    assert ok(ns.configctl("opml", "export", "rss")) == (
        '<?xml version="1.0" encoding="UTF-8"?>\n'
        '<opml version="2.0">\n'
        '  <head>\n'
        '    <title>Feeds of domain rss</title>\n'
        '  </head>\n'
        '  <body>\n'
        '    <outline text="Profile 1" title="Profile 1" kelpProfile="1">\n'
        '      <outline type="rss" text="News &amp; more" title="News &amp; more" '
        'xmlUrl="http://feeds.test/news.xml?a=1&amp;b=2" kelpPoll="600" />\n'
        '      <outline type="rss" text="Wetter f\u00fcr M\u00fcnchen" title="Wetter f\u00fcr M\u00fcnchen" '
        'xmlUrl="http://feeds.test/weather.xml" />\n'
        '    </outline>\n'
        '    <outline text="Profile 2" title="Profile 2" kelpProfile="2">\n'
        '      <outline type="rss" text="Blog" title="Blog" xmlUrl="http://feeds.test/blog.atom" kelpPoll="3600" />\n'
        '    </outline>\n'
        '    <outline type="rss" text="Lonely" title="Lonely" xmlUrl="http://feeds.test/lonely.xml" />\n'
        '  </body>\n'
        '</opml>\n')


def test_export_of_one_profile_is_flat(ns):
    with_rich(ns)
    root = ET.fromstring(ok(ns.configctl("opml", "export", "rss", "--profile", "1")).encode())
    assert root.tag == "opml" and root.get("version") == "2.0"
    assert root.find("head/title").text == "Feeds of domain rss for profile 1"
    outlines = list(root.find("body"))
    assert [(o.get("type"), o.get("title"), o.get("text"), o.get("xmlUrl")) for o in outlines] == [
        ("rss", "News & more", "News & more", "http://feeds.test/news.xml?a=1&b=2"),
        ("rss", "Wetter f\u00fcr M\u00fcnchen", "Wetter f\u00fcr M\u00fcnchen", "http://feeds.test/weather.xml")]
    assert all(len(o) == 0 for o in outlines)


def test_export_of_an_unknown_profile_is_refused(ns):
    with_rich(ns)
    assert one_line_error(ns.configctl("opml", "export", "rss", "--profile", "9")) == \
        "configctl: opml export rss: no profile 9"


def test_round_trip_into_an_empty_domain(ns):
    with_rich(ns)
    ok(ns.configctl("feed", "add", "rss", "http://feeds.test/lonely.xml", "--name", "Lonely <&>"))
    ok(ns.configctl("profile", "add", "rss", "4"))
    exported = ok(ns.configctl("opml", "export", "rss"))
    with open(ns.path("/var/tmp/out.opml"), "w") as f:
        f.write(exported)
    out = ok(ns.configctl("opml", "import", "copy", "/var/tmp/out.opml"))
    assert out.splitlines() == [
        "added profile 1", "added profile 2", "added profile 4",
        "added feed 1: News & more <http://feeds.test/news.xml?a=1&b=2>",
        "added feed 2: Wetter f\u00fcr M\u00fcnchen <http://feeds.test/weather.xml>",
        "added feed 3: Blog <http://feeds.test/blog.atom>",
        "added feed 4: Lonely <&> <http://feeds.test/lonely.xml>",
        "4 feeds added, 0 skipped"]
    assert feeds(ns, "copy") == feeds(ns, "rss")
    again = ok(ns.configctl("opml", "export", "copy"))
    assert again == exported.replace("domain rss", "domain copy")


def test_import_flat_file_subscribes_the_profile(ns):
    ns.start_configd()
    ok(ns.configctl("set", "rss", "-", input=EMPTY_WITH_PROFILE))
    out = ok(import_into(ns, "rss", "flat.opml", "--profile", "1"))
    assert out == ("added feed 1: Gateway news <http://feeds.test/news.xml>\n"
                   "added feed 2: Local weather <http://feeds.test/weather.xml>\n"
                   "added feed 3: Developer blog <https://other.test/blog.atom>\n"
                   "3 feeds added, 0 skipped\n")
    assert stored(ns) == (
        '<?xml version="1.0"?>\n<pool>\n'
        '  <entry id="1" url="http://feeds.test/news.xml" name="Gateway news" />\n'
        '  <entry id="2" url="http://feeds.test/weather.xml" name="Local weather" />\n'
        '  <entry id="3" url="https://other.test/blog.atom" name="Developer blog" />\n'
        '</pool>\n<profiles>\n'
        '  <profile id="1"><item entry="1" /><item entry="2" /><item entry="3" /></profile>\n'
        '</profiles>\n')


def test_import_flattens_categories_and_reuses_feeds_by_url(ns):
    with_rich(ns)
    out = ok(import_into(ns, "rss", "nested.opml", "--profile", "2")).splitlines()
    assert out == ["added feed 8: Kernel news <http://feeds.test/kernel.xml>",
                   "added feed 9: Distro digest <http://feeds.test/distro.xml>",
                   "added feed 10: Gadgets <http://feeds.test/gadgets.xml>",
                   "skipped http://feeds.test/weather.xml (already in the pool as feed 2)",
                   "3 feeds added, 1 skipped"]
    f = feeds(ns, "rss")
    assert len(f) == 6
    assert f["http://feeds.test/kernel.xml"] == ("Kernel news", "-", "2")
    # The feed already there keeps its name and gains the subscription.
    assert f["http://feeds.test/weather.xml"] == ("Wetter f\u00fcr M\u00fcnchen", "-", "1,2")
    # Nothing the import does not touch changed: the old pool is still there verbatim.
    assert stored(ns).startswith(RICH.split('  <entry id="7"')[0])
    assert '<item entry="1" read="0f80" first="123456789" />' in stored(ns)


def test_import_twice_adds_nothing_the_second_time(ns):
    ns.start_configd()
    ok(import_into(ns, "rss", "nested.opml"))
    before = stored(ns)
    out = ok(import_into(ns, "rss", "nested.opml"))
    assert out.splitlines()[-1] == "0 feeds added, 4 skipped"
    assert stored(ns) == before


def test_import_ignores_reader_extras(ns):
    ns.start_configd()
    ok(ns.configctl("set", "rss", "-", input=EMPTY_WITH_PROFILE))
    ok(import_into(ns, "rss", "extras.opml", "--profile", "1"))
    assert feeds(ns, "rss") == {
        "http://feeds.test/radio.rss": ("Radio hour", "-", "1"),
        "http://feeds.test/science.xml?format=rss&lang=en": ("Science & nature", "-", "1"),
        "http://feeds.test/changelog.atom": ("Changelog", "-", "1"),
    }


def test_import_names_feeds_without_a_title(ns):
    ns.start_configd()
    ok(import_into(ns, "rss", "missing-title.opml"))
    assert feeds(ns, "rss") == {
        "http://feeds.test/text-only.xml": ("Only text", "-", "-"),
        "http://feeds.test/empty-title.xml": ("http://feeds.test/empty-title.xml", "-", "-"),
        "http://feeds.test/bare.xml": ("http://feeds.test/bare.xml", "-", "-"),
        "http://feeds.test/two-lines.xml": ("Title over two lines", "-", "-"),
    }


def test_import_keeps_non_ascii_names(ns):
    ns.start_configd()
    ok(import_into(ns, "podcast", "non-ascii.opml"))
    doc = stored(ns, "podcast")
    for name in ("Wetter f\u00fcr M\u00fcnchen", "\u041d\u043e\u0432\u043e\u0441\u0442\u0438",
                 "\u5929\u6c17\u4e88\u5831", "Caf\u00e9 \u2013 le blog", "Emoji \U0001f3a7 Pod"):
        assert 'name="%s"' % name in doc
    # Wide characters keep the table's columns in line.
    rows = ok(ns.configctl("feeds", "podcast")).splitlines()
    assert len({columns(r[:r.index("http://")]) for r in rows[1:]}) == 1


def test_import_of_a_thousand_feeds(ns):
    ns.start_configd()
    ok(ns.configctl("set", "rss", "-", input=EMPTY_WITH_PROFILE))
    out = ok(import_into(ns, "rss", "thousand.opml", "--profile", "1"))
    assert out.splitlines()[-1] == "1000 feeds added, 0 skipped"
    f = feeds(ns, "rss")
    assert len(f) == 1000 and f["http://feeds.test/many/0999.xml"] == ("Feed 0999", "-", "1")
    rows = ok(ns.configctl("feeds", "rss")).splitlines()[1:]
    assert [r.split()[0] for r in rows] == [str(i) for i in range(1, 1001)]


def test_the_generated_fixture_is_up_to_date():
    sys.path.insert(0, DATA)
    import make_opml
    with open(os.path.join(DATA, "thousand.opml")) as f:
        assert f.read() == make_opml.thousand()


def generated(ns, kind):
    path = "/var/tmp/%s.opml" % kind
    subprocess.run([sys.executable, os.path.join(DATA, "make_opml.py"), kind, ns.path(path)], check=True)
    return path


BAD = [
    ("not-opml.xml", "not an OPML document (no <opml> element)"),
    ("no-body.opml", "not an OPML document (no <body> element)"),
    ("entity-bomb.opml", "entity declarations are not accepted"),
    ("bad-url.opml", "outline 2: not an http or https URL: 'feed://feeds.test/bad.xml'"),
    ("control-name.opml", "outline 2: name contains a control character"),
    ("low-poll.opml", "outline 1: poll interval 5 s is below the minimum of 30 s"),
]


@pytest.mark.parametrize("name,why", BAD)
def test_bad_files_are_refused_and_nothing_is_stored(ns, name, why):
    with_rich(ns)
    path = fixture(ns, name)
    assert one_line_error(ns.configctl("opml", "import", "rss", path)) == "configctl: %s: %s" % (path, why)
    assert stored(ns) == RICH


@pytest.mark.parametrize("kind,why", [("many", "more than 10000 outlines"),
                                      ("deep", "elements nested more than 64 deep")])
def test_oversized_files_are_refused_and_nothing_is_stored(ns, kind, why):
    with_rich(ns)
    path = generated(ns, kind)
    assert one_line_error(ns.configctl("opml", "import", "rss", path)) == "configctl: %s: %s" % (path, why)
    assert stored(ns) == RICH


@pytest.mark.parametrize("text,why", [
    ("<html><body><p>Not found</p></body></html>", "no <opml> element"),
    ('<opml version="2.0"><body><outline text="x"></body></opml>', "not well-formed XML"),
    ("", "not well-formed XML"),
])
def test_other_broken_input_is_refused(ns, text, why):
    with_rich(ns)
    with open(ns.path("/var/tmp/x.opml"), "w") as f:
        f.write(text)
    assert why in one_line_error(ns.configctl("opml", "import", "rss", "/var/tmp/x.opml"))
    assert stored(ns) == RICH


def test_file_over_8_mib_is_refused(ns):
    with_rich(ns)
    with open(ns.path("/var/tmp/big.opml"), "w") as f:
        f.write('<opml version="2.0"><body>' + " " * (9 << 20) + "</body></opml>")
    line = one_line_error(ns.configctl("opml", "import", "rss", "/var/tmp/big.opml"))
    assert line == "configctl: /var/tmp/big.opml: too large (limit 8 MiB)"
    assert stored(ns) == RICH


def test_import_for_an_unknown_profile_or_missing_file_is_refused(ns):
    with_rich(ns)
    line = one_line_error(import_into(ns, "rss", "flat.opml", "--profile", "9"))
    assert line == "configctl: opml import rss: no profile 9"
    assert "cannot open" in one_line_error(ns.configctl("opml", "import", "rss", "/nonexistent.opml"))
    assert stored(ns) == RICH
