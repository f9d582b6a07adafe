"""kelp-httpget against hostile servers: broken status lines, absurd chunk
sizes, endless headers and bodies, NUL bytes. The client must answer with a
result code, never crash, and never hold more than the size bound."""
import socket
import struct

from test_http import OK, answer, httpget, result_code

LIMIT = 196608 + 1560


def fetch(ns, raw_or_handler, *opts):
    handler = raw_or_handler if callable(raw_or_handler) else answer(raw_or_handler)
    srv = ns.serve_http(handler)
    rc, body, err = httpget(ns, "http://feeds.test:%d/" % srv.port, *opts)
    return rc, body, result_code(err), err


def test_no_status_line(ns):
    assert fetch(ns, b"<rss><channel/></rss>\r\n\r\n")[:3] == (1, b"<rss><channel/></rss>\r\n\r\n", 1)


def test_lowercase_protocol_is_no_status_line(ns):
    assert fetch(ns, b"http/1.1 200 OK\r\n\r\nx")[2] == 1


def test_status_without_blank(ns):
    rc, body, code, err = fetch(ns, b"HTTP/1.1\r\nLocation: /x\r\n\r\nbody")
    assert (rc, code) == (1, 1)
    assert "Location" not in err


def test_status_without_digits_is_zero(ns):
    assert fetch(ns, b"HTTP/1.1 OK\r\n\r\nbody")[:3] == (1, b"body", 0)


def test_fewer_than_four_bytes(ns):
    assert fetch(ns, b"HTT")[:3] == (1, b"HTT", 1)


def test_absurd_chunk_sizes(ns):
    raw = OK + b"Transfer-Encoding: chunked\r\n\r\nffffffffffffffffffffffffffff\r\nsome data"
    assert fetch(ns, raw)[:3] == (0, b"some data", 200)


def test_chunk_announcing_more_than_sent(ns):
    raw = OK + b"Transfer-Encoding: chunked\r\n\r\n4\r\nabcd\r\n7fffffff\r\nrest"
    assert fetch(ns, raw)[:3] == (0, b"abcdrest", 200)


def test_chunked_headers_ending_at_data_end(ns):
    assert fetch(ns, OK + b"Transfer-Encoding: chunked\r\n\r\n")[:3] == (0, b"", 200)


def test_headers_without_end(ns):
    rc, body, code, err = fetch(ns, OK + b"Content-Type: text/xml\r\nX-Half: no end")
    assert (rc, body, code) == (0, b"", 200)
    assert "Content-Type: text/xml\n" in err


def test_endless_header_line(ns):
    def handler(req, conn):
        conn.sendall(OK + b"X-Long: ")
        while True:
            conn.sendall(b"a" * 65536)
    rc, body, code, _ = fetch(ns, handler)
    assert (rc, body, code) == (1, b"", 2)


def test_nul_bytes_in_headers_and_body(ns):
    raw = OK + b"Content-Type: te\0xt/xml\r\nLocation: /x\r\n\r\nbo\0dy\0"
    rc, body, code, err = fetch(ns, raw)
    assert (rc, body, code) == (0, b"bo\0dy\0", 200)
    assert "Content-Type: te\n" in err
    assert "Location: /x\n" in err


def test_never_ending_body(ns):
    def handler(req, conn):
        conn.sendall(OK + b"Content-Type: audio/mpeg\r\n\r\n")
        while True:
            conn.sendall(b"\xff\xfb" * 32768)
    rc, body, code, _ = fetch(ns, handler)
    assert (rc, code) == (1, 2)
    assert 196608 - 64 < len(body) <= LIMIT
    assert body == b"\xff\xfb" * (len(body) // 2)


def test_never_ending_chunked_body(ns):
    def handler(req, conn):
        conn.sendall(OK + b"Transfer-Encoding: chunked\r\n\r\n")
        while True:
            conn.sendall(b"1\r\nz\r\n" * 4096)
    rc, body, code, _ = fetch(ns, handler)
    assert (rc, code) == (1, 2)
    assert 0 < len(body) < LIMIT and body == b"z" * len(body)


def test_reset_after_request(ns):
    def handler(req, conn):
        conn.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    assert fetch(ns, handler)[:3] == (1, b"", 1)


def test_endless_redirect_chain_to_new_targets(ns):
    count = [0]

    def handler(req, conn):
        count[0] += 1
        if count[0] > 300:
            conn.sendall(OK + b"\r\nend of chain")
        else:
            conn.sendall(b"HTTP/1.1 302 Found\r\nLocation: /r%d\r\n\r\n" % count[0])
    assert fetch(ns, handler)[:3] == (0, b"end of chain", 200)
