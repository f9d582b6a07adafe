"""kelp-httpget against nginx serving feed files: the body is byte for byte
what curl receives for the same URL."""
import os
import shutil

from feed_files import big_feed, own
from test_http import httpget, result_code

FEEDS = ["atom.xml", "rss091.xml", "rss092.xml", "podcast.xml", "latin1.xml"]
BIG = "big.xml"  # larger than the response bound


def serve(ns, tmp_path, port=80):
    root = tmp_path / "www"
    os.makedirs(root / "dir")
    for name in FEEDS:
        shutil.copy(own(name), root / name)
    (root / BIG).write_bytes(big_feed())
    (root / "dir" / "index.html").write_bytes(b"<html>index</html>\n")
    (root / "blob.mp3").write_bytes(bytes(range(256)) * 300 + b"\0\r\n\n")
    os.chmod(tmp_path, 0o755)
    for d, _, files in os.walk(root):
        os.chmod(d, 0o755)
    ns.start_nginx(str(root), port=port)
    return root


def curl(ns, url, *opts):
    return ns.run(["curl", "-s", *opts, url], text=False).stdout


def test_feeds_identical_to_curl(ns, tmp_path):
    root = serve(ns, tmp_path)
    for name in FEEDS:
        url = "http://feeds.test/" + name
        rc, body, err = httpget(ns, url)
        assert (rc, result_code(err)) == (0, 200), name
        assert body == curl(ns, url) == (root / name).read_bytes(), name
        assert "Content-Type: text/xml\n" in err


def test_binary_file_identical_on_other_port(ns, tmp_path):
    root = serve(ns, tmp_path, port=8081)
    url = "http://feeds.test:8081/blob.mp3"
    rc, body, err = httpget(ns, url)
    assert rc == 0 and "Content-Type: audio/mpeg\n" in err
    assert body == curl(ns, url) == (root / "blob.mp3").read_bytes()


def test_directory_redirect_followed_like_curl(ns, tmp_path):
    serve(ns, tmp_path)
    url = "http://feeds.test/dir"
    rc, body, err = httpget(ns, url)
    assert (rc, result_code(err)) == (0, 200)
    assert body == curl(ns, url, "-L") == b"<html>index</html>\n"


def test_missing_file_status_and_body(ns, tmp_path):
    serve(ns, tmp_path)
    url = "http://feeds.test/missing.xml"
    rc, body, err = httpget(ns, url)
    assert (rc, result_code(err)) == (1, 404)
    assert body == curl(ns, url) and b"404" in body


def test_feed_larger_than_bound_is_truncated(ns, tmp_path):
    root = serve(ns, tmp_path)
    rc, body, err = httpget(ns, "http://feeds.test/" + BIG)
    assert (rc, result_code(err)) == (1, 2)
    whole = (root / BIG).read_bytes()
    assert len(whole) > 196608 and 196608 - 400 < len(body) < len(whole)
    assert body == whole[:len(body)]
