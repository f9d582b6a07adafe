"""kelp-feedcheck: a file or a URL parsed exactly as a poll of kelpd would,
with the items as the daemon holds them and the verdict line a poll logs."""
import os
import re
import shutil

from feed_files import big_feed, corpus, own

OWN_FILES = ["rss091.xml", "rss092.xml", "rss10.xml", "rss20.xml", "atom.xml", "podcast.xml"]
CORPUS_FILES = ["FeedReader__Rss091FullSample.xml", "FeedReader__AtomAdobe.xml",
                "FeedReader__Rss20CTVNews.xml"]
BIG = "big.xml"  # larger than the HTTP client's response bound


def feedcheck(ns, *args):
    """Runs kelp-feedcheck; returns (exit status, stdout, stderr) as Latin-1 text."""
    p = ns.run([ns.bin("kelp-feedcheck"), *args], timeout=60, text=False)
    return p.returncode, p.stdout.decode("latin-1"), p.stderr.decode("latin-1")


def put(ns, name, data):
    """A file in the test's directory, readable inside the namespace."""
    path = os.path.join(str(ns.tmp), name)
    with open(path, "wb") as f:
        f.write(data)
    os.chmod(path, 0o644)
    return path


def verdict(out):
    m = re.search(r"^verdict: (.*)$", out, re.M)
    assert m, out
    return m.group(1)


def titles(out):
    return re.findall(r"^  title: (.*)$", out, re.M)


def parses_with_items(ns, source):
    path = put(ns, os.path.basename(source), open(source, "rb").read())
    rc, out, err = feedcheck(ns, path)
    assert rc == 0, (source, out, err)
    assert out.startswith("result: 200\ncontent-type: (none)\n"), out
    n = len(titles(out))
    assert n > 0 and verdict(out) == ("%d item%s" % (n, "" if n == 1 else "s")), out


def test_own_files_parse_with_items(ns):
    for name in OWN_FILES:
        parses_with_items(ns, own(name))


def test_corpus_files_parse_with_items(ns):
    for name in CORPUS_FILES:
        parses_with_items(ns, corpus(name))


def test_rss091_as_kelpd_holds_it(ns):
    rc, out, _ = feedcheck(ns, put(ns, "rss091.xml", open(own("rss091.xml"), "rb").read()))
    assert rc == 0
    assert "feed title: Harbour Notes\n" in out
    assert titles(out) == ["Tide tables"]
    assert "  body: 36 bytes: The tide tables for\\nthe week are out\n" in out
    assert verdict(out) == "1 item"


FEED = (b'<?xml version="1.0"?><rss><channel><title>Caf&#233; feed</title>'
        b'<item><title>First &amp; best</title><guid>g1</guid>'
        b'<pubDate>Tue, 10 Jun 2003 04:00:00 GMT</pubDate>'
        b'<description>&lt;p&gt;Hello&lt;/p&gt;&lt;img src="/a.png"&gt; world</description>'
        b'<enclosure url="/ep1.mp3" type="audio/mpeg" length="1"/></item>'
        b'<item><title><![CDATA[<b>Second</b>]]></title></item>'
        b'</channel></rss>')


def test_items_fields_offsets_and_absolute_urls(ns):
    path = put(ns, "feed.xml", FEED)
    rc, out, _ = feedcheck(ns, "--url", "http://feeds.test:8080/rss/feed.xml", path)
    assert rc == 0, out
    assert "feed title: Caf\u00c3\u00a9 feed\n" in out  # UTF-8 bytes of the document, kept as they are
    assert titles(out) == ["First & best", "Second"]
    assert "  hash: 0\n" in out  # the CDATA title
    assert "  guid: g1\n" in out
    assert "  date: 1055217600 " in out
    assert "  body: 11 bytes: Hello world\n" in out
    assert "  enclosure: type=audio/mpeg url=http://feeds.test:8080/ep1.mp3\n" in out
    assert "  image: offset=5 type=(none) url=http://feeds.test:8080/a.png\n" in out
    assert verdict(out) == "2 items"


def test_no_items_verdict(ns):
    path = put(ns, "empty.xml", b"<rss><channel><title>Quiet</title></channel></rss>")
    rc, out, _ = feedcheck(ns, path, "text/xml; charset=utf-8")
    assert rc == 1
    assert "content-type: text/xml; charset=utf-8\nfeed title: Quiet\n" in out
    assert verdict(out) == "no items found - try to check URL by hand"


def test_broken_document_verdict_and_truncated_reading(ns):
    doc = (b"<rss><channel><title>T</title><item><title>one</title></item>"
           b"<item><title>two</title></item><item><title>thr")
    path = put(ns, "broken.xml", doc)
    rc, out, _ = feedcheck(ns, path)
    assert rc == 1
    assert "feed title: T\n" in out  # reported although the parse failed
    assert verdict(out) == "error parsing xml - try to validate the feed"
    rc, out, _ = feedcheck(ns, "--truncated", path)
    assert rc == 0
    assert out.startswith("result: 2 (truncated)\n")
    assert titles(out) == ["one", "two"]


def test_xml_errors_logged_with_verbosity(ns):
    path = put(ns, "broken.xml", b"<rss><item><title>x</title></rss>")
    rc, out, err = feedcheck(ns, "-v", path)
    assert rc == 1
    assert "xml error: " in err
    rec = ns.syslog.wait_for(re.compile(r"^xml error: "), ident="kelp-feedcheck")
    assert rec.prio == 3  # LOG_ERR
    rc, out, err = feedcheck(ns, path)  # verbosity 0: the verdict only
    assert rc == 1 and "xml error" not in err


def charset_fixture(name):
    source = os.environ.get("KELP_SOURCE", os.path.join(os.path.dirname(__file__), "..", ".."))
    with open(os.path.join(source, "tests", "data", "charsets", name), "rb") as f:
        return f.read()


def item_lines(out):
    """Every item line but the dates (items without pubDate get the time of parsing)."""
    return [l for l in out.splitlines() if l.startswith("  ") and not l.startswith("  date:")]


def test_legacy_charset_is_read_as_the_same_feed_in_utf8(ns):
    for name in ["ISO-8859-15", "KOI8-R", "Shift_JIS"]:
        rc, out, _ = feedcheck(ns, put(ns, name + ".xml", charset_fixture(name + ".xml")))
        assert rc == 0, out
        assert out.startswith("result: 200\ncontent-type: (none)\ncharset: %s (transcoded)\nfeed title: " % name), out
        rc, twin, _ = feedcheck(ns, put(ns, name + ".utf8.xml", charset_fixture(name + ".utf8.xml")))
        assert "charset:" not in twin  # UTF-8 is read as it came
        assert item_lines(out) == item_lines(twin)
        assert verdict(out) == verdict(twin) == "3 items"


def test_unknown_charset_is_named_and_refused(ns):
    path = put(ns, "latin1.xml", b"<rss><channel><item><title>caf\xe9</title></item></channel></rss>")
    rc, out, err = feedcheck(ns, "-v", path, "text/xml; charset=x-nope")
    assert rc == 1
    assert "charset: x-nope (unknown, not decoded)\n" in out
    assert verdict(out) == "error parsing xml - try to validate the feed"
    assert 'xml error: unknown charset "x-nope"' in err
    rc, out, _ = feedcheck(ns, path)  # no charset named: windows-1252
    assert rc == 0
    assert "charset: windows-1252 (transcoded)\n" in out
    assert titles(out) == ["caf\u00c3\u00a9"]  # UTF-8 bytes, as from a UTF-8 feed


def test_usage_errors(ns):
    assert feedcheck(ns)[0] == 2
    rc, _, err = feedcheck(ns, "/no/such/file.xml")
    assert rc == 2 and "no such file" in err
    rc, _, err = feedcheck(ns, "http://feeds.test/x", "text/xml")
    assert rc == 2 and "files only" in err
    assert feedcheck(ns, "--bogus", "x")[0] == 2


def serve(ns, tmp_path):
    root = tmp_path / "www"
    os.makedirs(root)
    for name in OWN_FILES:
        shutil.copy(own(name), root / name)
    (root / BIG).write_bytes(big_feed())
    (root / "feed.xml").write_bytes(FEED)
    os.chmod(tmp_path, 0o755)
    for d, _, files in os.walk(root):
        os.chmod(d, 0o755)
        for f in files:
            os.chmod(os.path.join(d, f), 0o644)
    ns.start_nginx(str(root))
    return root


def test_url_mode_matches_file_mode(ns, tmp_path):
    root = serve(ns, tmp_path)
    for name in OWN_FILES:
        rc, out, err = feedcheck(ns, "http://feeds.test/" + name)
        assert rc == 0, (name, out, err)
        assert out.startswith("result: 200\ncontent-type: text/xml\n"), out
        rc2, out2, _ = feedcheck(ns, "--url", "http://feeds.test/" + name, str(root / name))
        assert titles(out) == titles(out2) and verdict(out) == verdict(out2), name


def test_url_mode_big_feed_is_read_truncated(ns, tmp_path):
    root = serve(ns, tmp_path)
    rc, out, _ = feedcheck(ns, "http://feeds.test/" + BIG)
    assert rc == 0, out
    assert out.startswith("result: 2 (truncated)\ncontent-type: text/xml\n"), out
    _, whole, _ = feedcheck(ns, str(root / BIG))
    cut = titles(out)
    assert 0 < len(cut) < len(titles(whole))
    assert cut == titles(whole)[:len(cut)]


def test_url_mode_relative_urls_use_feed_host(ns, tmp_path):
    serve(ns, tmp_path)
    rc, out, _ = feedcheck(ns, "http://feeds.test/feed.xml")
    assert rc == 0
    assert "  enclosure: type=audio/mpeg url=http://feeds.test/ep1.mp3\n" in out
    assert verdict(out) == "2 items"


def test_url_mode_fetch_failures(ns, tmp_path):
    serve(ns, tmp_path)
    rc, out, _ = feedcheck(ns, "http://feeds.test/missing.xml")
    assert rc == 1
    assert out == "result: 404\nverdict: document not found - URL changed? [http://feeds.test/missing.xml]\n"
    srv = ns.listen_tcp(port=0)
    port = srv.getsockname()[1]
    srv.close()
    url = "http://feeds.test:%d/feed.xml" % port
    rc, out, _ = feedcheck(ns, url)
    assert rc == 1
    assert out == "result: 1\nverdict: no connection to server [%s]\n" % url
