"""kelp-httpget against scripted servers on loopback: the exact request,
chunked bodies, header folding, redirects, size bound and time-outs."""
import os
import re
import time

from kelpns_io import wait_read_by_peer

# Whether this build speaks TLS (CMake's KELP_TLS, passed by CTest).
TLS_BUILT = os.environ.get("KELP_TLS", "ON").upper() in ("ON", "1", "TRUE", "YES")


def httpget(ns, url, *opts, timeout=60):
    """Runs kelp-httpget; returns (exit status, body bytes, stderr text)."""
    p = ns.run([ns.bin("kelp-httpget"), *opts, url], timeout=timeout, text=False)
    return p.returncode, p.stdout, p.stderr.decode("latin-1")


def result_code(stderr):
    m = re.search(r"^result: (-?\d+)$", stderr, re.M)
    assert m, stderr
    return int(m.group(1))


def expected_request(target, host):
    return ("GET %s HTTP/1.1\r\nHost: %s\r\nConnection: close\r\nAccept-Encoding: \r\n"
            "User-Agent: Lumora FeedReader\r\n\r\n" % (target, host)).encode()


def answer(raw):
    """A handler that sends raw bytes and closes."""
    return lambda req, conn: conn.sendall(raw)


def wait_closed(conn):
    """Reads until the client goes away (for servers that never answer)."""
    conn.settimeout(60)
    try:
        while conn.recv(4096):
            pass
    except OSError:
        pass


OK = b"HTTP/1.1 200 OK\r\n"


def test_request_text_byte_for_byte_direct(ns):
    srv = ns.serve_http(answer(OK + b"Content-Type: text/xml\r\n\r\n<rss/>"))
    url = "http://feeds.test:%d/feed.xml?id=7&x=%%20" % srv.port
    rc, body, err = httpget(ns, url, "--show-request")
    assert (rc, body, result_code(err)) == (0, b"<rss/>", 200)
    want = expected_request("/feed.xml?id=7&x=%20", "feeds.test:%d" % srv.port)
    assert srv.requests == [want]
    assert err.encode("latin-1").startswith(want)
    assert "Content-Type: text/xml\n" in err


def test_https_url_without_port(ns):
    """Built without TLS, an https URL is fetched with plain HTTP on port 80;
    with TLS the client opens a TLS session on port 443 instead."""
    if TLS_BUILT:
        srv = ns.serve_http(lambda req, conn: None, port=443)
        rc, body, err = httpget(ns, "https://feeds.test/x", "--timeout", "0.5")
        assert (rc, body, result_code(err)) == (1, b"", 1)
        # The server records what it read only once the client has hung up.
        ns._wait_until(lambda: srv.requests, 15, "the ClientHello")
        hello = srv.requests[0]
        assert len(srv.requests) == 1 and hello[0] == 0x16 and hello[5] == 0x01  # a TLS ClientHello
        return
    srv = ns.serve_http(answer(OK + b"\r\nplain"), port=80)
    rc, body, err = httpget(ns, "https://feeds.test/x")
    assert (rc, body, result_code(err)) == (0, b"plain", 200)
    assert srv.requests == [expected_request("/x", "feeds.test")]


def test_request_text_byte_for_byte_through_proxy(ns):
    proxy = ns.serve_http(answer(OK + b"\r\nfrom proxy"))
    rc, body, err = httpget(ns, "https://origin.invalid/feed", "--proxy", "feeds.test:%d" % proxy.port)
    assert (rc, body) == (0, b"from proxy")
    assert proxy.requests == [expected_request("https://origin.invalid/feed", "origin.invalid")]


def test_proxy_request_keeps_origin_port(ns):
    proxy = ns.serve_http(answer(OK + b"\r\nx"), host="127.0.0.2")
    rc, _, _ = httpget(ns, "feeds.test:8080/a", "--proxy", "other.test:%d" % proxy.port)
    assert rc == 0
    assert proxy.requests == [expected_request("http://feeds.test:8080/a", "feeds.test:8080")]


def test_chunked_with_extensions_and_many_small_chunks(ns):
    parts, want = [], b""
    for i in range(600):
        piece = bytes([65 + i % 26]) * (1 + i % 9)
        ext = b";n=%d" % i if i % 3 == 0 else b""
        parts.append(b"%x%s\r\n%s\r\n" % (len(piece), ext, piece))
        want += piece
    raw = OK + b"Transfer-Encoding: chunked\r\n\r\n" + b"".join(parts) + b"0\r\nX-Trailer: t\r\n\r\n"
    srv = ns.serve_http(answer(raw))
    rc, body, err = httpget(ns, "http://feeds.test:%d/" % srv.port)
    assert (rc, result_code(err)) == (0, 200)
    assert body == want


def test_chunk_split_across_reads(ns):
    pieces = [OK + b"Transfer-Encoding: chu", b"nked\r\n\r\n1", b"a;q=1\r\n0123456789",
              b"abcdefghijklmnop\r", b"\n4\r\nwxyz\r\n0", b"\r\n\r\n"]

    def handler(req, conn):
        # Each piece is read before the next is sent: every split is one read.
        for p in pieces:
            conn.sendall(p)
            wait_read_by_peer(conn, ns.pid)
    srv = ns.serve_http(handler)
    rc, body, _ = httpget(ns, "http://feeds.test:%d/" % srv.port)
    assert (rc, body) == (0, b"0123456789abcdefghijklmnopwxyz")


def test_bare_lf_response_is_one_status_line(ns):
    srv = ns.serve_http(answer(b"HTTP/1.1 200 OK\nContent-Type: text/xml\n\n<rss/>"))
    rc, body, err = httpget(ns, "http://feeds.test:%d/" % srv.port)
    assert (rc, body, result_code(err)) == (0, b"", 200)
    assert "Content-Type" not in err


def test_folded_header_value_kept(ns):
    srv = ns.serve_http(answer(OK + b"Content-Type: text/xml;\r\n\tcharset=utf-8\r\nX: y\r\n\r\nB"))
    rc, body, err = httpget(ns, "http://feeds.test:%d/" % srv.port)
    assert (rc, body) == (0, b"B")
    assert "Content-Type: text/xml;\r\n\tcharset=utf-8\n" in err


def test_redirect_chain_absolute_and_site_relative_on_other_port(ns):
    final = ns.serve_http(answer(OK + b"Content-Type: application/rss+xml\r\n\r\nfinal body"),
                          host="127.0.0.2")
    script = {
        b"/a": b"HTTP/1.1 301 Moved Permanently\r\nLocation: /b\r\n\r\n",
        b"/b": b"HTTP/1.1 302 Found\r\nLocation: http://other.test:%d/c\r\n\r\n" % final.port,
    }

    def first(req, conn):
        conn.sendall(script[req.split(b" ")[1]])
    srv = ns.serve_http(first)
    final._handler = lambda req, conn: conn.sendall(
        b"HTTP/1.1 307 Temporary\r\nLocation: /d\r\n\r\n" if b" /c " in req
        else OK + b"Content-Type: application/rss+xml\r\n\r\nfinal body")
    rc, body, err = httpget(ns, "http://feeds.test:%d/a" % srv.port)
    assert (rc, body, result_code(err)) == (0, b"final body", 200)
    assert srv.requests == [expected_request("/a", "feeds.test:%d" % srv.port),
                            expected_request("/b", "feeds.test:%d" % srv.port)]
    other = "other.test:%d" % final.port
    assert final.requests == [expected_request("/c", other), expected_request("/d", other)]
    assert "Location" not in err


def test_site_relative_redirect_on_port_80_names_no_port(ns):
    def handler(req, conn):
        if b" /a " in req:
            conn.sendall(b"HTTP/1.1 301 Moved\r\nLocation: /b?x=1\r\n\r\n")
        else:
            conn.sendall(OK + b"\r\nfrom b")
    srv = ns.serve_http(handler, port=80)
    rc, body, err = httpget(ns, "feeds.test/a")
    assert (rc, body, result_code(err)) == (0, b"from b", 200)
    assert srv.requests == [expected_request("/a", "feeds.test"),
                            expected_request("/b?x=1", "feeds.test")]


def test_location_matching_the_tail_of_a_followed_target_ends_the_chain(ns):
    def handler(req, conn):
        target = b"http://feeds.test/b" if b" /a " in req else b"feeds.test/b"
        conn.sendall(b"HTTP/1.1 302 Found\r\nLocation: %s\r\n\r\nstop" % target)
    srv = ns.serve_http(handler, port=80)
    rc, body, err = httpget(ns, "http://feeds.test/a")
    assert (body, result_code(err)) == (b"stop", 302)
    # "feeds.test/b" ends the target "http://feeds.test/b" already followed.
    assert [r.split(b" ")[1] for r in srv.requests] == [b"/a", b"/b"]
    assert "Location: feeds.test/b\n" in err


def test_redirect_loop_ends_with_the_redirect_code(ns):
    def handler(req, conn):
        target = b"/b" if b" /a " in req else b"/a"
        conn.sendall(b"HTTP/1.1 302 Found\r\nLocation: %s\r\n\r\nloop" % target)
    srv = ns.serve_http(handler)
    rc, body, err = httpget(ns, "http://feeds.test:%d/a" % srv.port)
    assert (rc, body, result_code(err)) == (1, b"loop", 302)
    assert "Location: feeds.test:%d/b\n" % srv.port in err
    assert [r.split(b" ")[1] for r in srv.requests] == [b"/a", b"/b", b"/a"]


def test_not_modified_with_location_is_not_followed(ns):
    srv = ns.serve_http(answer(b"HTTP/1.1 304 Not Modified\r\nLocation: /other\r\n\r\n"))
    rc, body, err = httpget(ns, "http://feeds.test:%d/" % srv.port)
    assert (rc, body, result_code(err)) == (1, b"", 304)
    assert "Location: /other\n" in err
    assert len(srv.requests) == 1


def test_oversized_body_is_truncated(ns):
    payload = bytes(range(256)) * 782  # 200192 bytes
    srv = ns.serve_http(answer(OK + b"\r\n" + payload))
    rc, body, err = httpget(ns, "http://feeds.test:%d/" % srv.port)
    assert (rc, result_code(err)) == (1, 2)
    assert 196608 - 19 <= len(body) < len(payload)
    assert body == payload[:len(body)]


def test_slow_body_within_time_out(ns):
    pieces = [b"<item>%d</item>" % i for i in range(8)]

    def handler(req, conn):
        conn.sendall(OK + b"\r\n")
        for p in pieces:
            time.sleep(0.3)
            conn.sendall(p)
    srv = ns.serve_http(handler)
    rc, body, _ = httpget(ns, "http://feeds.test:%d/" % srv.port, "--timeout", "2")
    assert (rc, body) == (0, b"".join(pieces))


def test_silent_server_gives_no_connection(ns):
    srv = ns.serve_http(lambda req, conn: wait_closed(conn))
    rc, body, err = httpget(ns, "http://feeds.test:%d/" % srv.port, "--timeout", "0.5")
    assert (rc, body, result_code(err)) == (1, b"", 1)
    assert len(srv.requests) == 1


def test_refused_port(ns):
    s = ns.listen_tcp()
    port = s.getsockname()[1]
    s.close()
    rc, body, err = httpget(ns, "http://feeds.test:%d/" % port)
    assert (rc, body, result_code(err)) == (1, b"", 1)


def test_unresolvable_host(ns):
    rc, body, err = httpget(ns, "http://no-such-host.invalid/feed")
    assert (rc, body, result_code(err)) == (1, b"", 1)


def test_status_other_than_200_exits_one_with_body(ns):
    srv = ns.serve_http(answer(b"HTTP/1.1 404 Not Found\r\nContent-Type: text/html\r\n\r\nmissing"))
    rc, body, err = httpget(ns, "http://feeds.test:%d/" % srv.port)
    assert (rc, body, result_code(err)) == (1, b"missing", 404)


def test_usage_errors(ns):
    for argv in ([], ["--timeout", "x", "http://a/"], ["--proxy", "nohost", "http://a/"], ["a", "b"]):
        p = ns.run([ns.bin("kelp-httpget"), *argv])
        assert p.returncode == 2 and p.stderr.startswith("usage: kelp-httpget")
