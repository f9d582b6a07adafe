"""https:// URLs: kelp-httpget and kelp-feedcheck against nginx and scripted
TLS servers on loopback, with certificates made by a test CA at test time.

The client reads the system CA bundle (/etc/ssl/certs/ca-certificates.crt)
as shipped; inside the test's private mount namespace the test CA's bundle is
bind-mounted over that path, so the binaries under test are the ones built
for real use and nothing on the host changes."""
import os
import re
import ssl
import threading

import pytest

import tls_certs
from test_feedcheck import feedcheck, verdict
from test_http import OK, answer, expected_request, httpget, result_code

CA_BUNDLE = tls_certs.CA_BUNDLE
FEED = (b'<?xml version="1.0" encoding="utf-8"?>\n<rss version="2.0"><channel><title>Secure</title>'
        b'<item><title>One</title><guid>g1</guid><description>first</description></item>'
        b'</channel></rss>\n')

NOT_TRUSTED = "The certificate is not correctly signed by the trusted CA"
# Port of the nginx server presenting each unacceptable certificate, and the
# reason the client gives for refusing it.
REFUSED = {
    "wrong_host_name": (8443, "wronghost", "The certificate Common Name (CN) does not match with the expected CN"),
    "expired": (8444, "expired", "The certificate validity has expired"),
    "self_signed": (8445, "selfsigned", NOT_TRUSTED),
    "untrusted_ca": (8446, "untrusted", NOT_TRUSTED),
}


@pytest.fixture(scope="module")
def certs(tmp_path_factory):
    d = tmp_path_factory.mktemp("tls-certs")
    os.chmod(d, 0o755)
    return tls_certs.make_certs(str(d))


@pytest.fixture
def tls(ns, certs):
    """The namespace with the test CA as the system's only trusted CA."""
    ns.run(["mount", "--bind", os.path.join(certs, "bundle.crt"), CA_BUNDLE], check=True)
    return certs


def tls_server(certs, name):
    c = os.path.join(certs, name)
    return "ssl_certificate %s.crt; ssl_certificate_key %s.key;" % (c, c)


def sites(ns, certs, tmp_path):
    """nginx: plain HTTP on 80, TLS on 443 (valid certificate) and on the
    ports of REFUSED, each serving /feed.xml, plus redirects between them."""
    root = tmp_path / "www"
    os.makedirs(root)
    (root / "feed.xml").write_bytes(FEED)
    os.chmod(tmp_path, 0o755)
    os.chmod(root, 0o755)
    common = "server_name _; root %s; absolute_redirect off;" % root
    servers = ["""server { listen 127.0.0.1:80; %s
      location = /to-tls { return 301 https://feeds.test/feed.xml; }
      location = /loop { return 301 https://feeds.test/loop; } }""" % common,
               """server { listen 127.0.0.1:443 ssl; %s %s
      location = /to-plain { return 302 http://feeds.test/feed.xml; }
      location = /relative { return 301 /feed.xml; }
      location = /loop { return 301 http://feeds.test/loop; } }""" % (common, tls_server(certs, "server"))]
    for port, cert, _ in REFUSED.values():
        servers.append("server { listen 127.0.0.1:%d ssl; %s %s }" % (port, common, tls_server(certs, cert)))
    ports = [80, 443] + [p for p, _, _ in REFUSED.values()]
    ns.start_nginx_servers("nginx-tls", "\n".join(servers), [("127.0.0.1", p) for p in ports])


def server_context(certs, name="server"):
    ctx = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    ctx.load_cert_chain(os.path.join(certs, name + ".crt"), os.path.join(certs, name + ".key"))
    return ctx


def handshakes(err):
    return re.findall(r"^tls-server: (.*)$", err, re.M)


def test_valid_chain_fetched_with_what_was_negotiated(ns, tls, tmp_path):
    sites(ns, tls, tmp_path)
    rc, body, err = httpget(ns, "https://feeds.test/feed.xml", "--show-tls")
    assert (rc, body, result_code(err)) == (0, FEED, 200)
    assert handshakes(err) == ["feeds.test:443"]
    assert re.search(r"^tls-version: TLSv1\.[23]$", err, re.M), err
    assert re.search(r"^tls-cipher: TLS\S+$", err, re.M), err
    assert "tls-subject: CN=feeds.test\n" in err
    assert "Content-Type: text/xml\n" in err


def test_feedcheck_reads_an_https_feed(ns, tls, tmp_path):
    sites(ns, tls, tmp_path)
    rc, out, _ = feedcheck(ns, "https://feeds.test/feed.xml")
    assert rc == 0
    assert "result: 200\n" in out and "feed title: Secure\n" in out
    assert verdict(out) == "1 item"


@pytest.mark.parametrize("case", sorted(REFUSED))
def test_refused_certificate_is_no_connection(ns, tls, tmp_path, case):
    port, _, reason = REFUSED[case]
    sites(ns, tls, tmp_path)
    url = "https://feeds.test:%d/feed.xml" % port
    rc, body, err = httpget(ns, url, "--show-tls")
    assert (rc, body, result_code(err)) == (1, b"", 1)
    assert handshakes(err) == ["feeds.test:%d" % port]
    assert re.search(r"^tls-error: certificate not accepted: .*%s" % re.escape(reason), err, re.M), err


@pytest.mark.parametrize("case", ["expired", "wrong_host_name"])
def test_refusal_reason_logged_at_the_error_verbosity(ns, tls, tmp_path, case):
    port, _, reason = REFUSED[case]
    sites(ns, tls, tmp_path)
    url = "https://feeds.test:%d/feed.xml" % port
    rc, out, _ = feedcheck(ns, "-v", url)
    assert rc == 1
    assert verdict(out) == "no connection to server [%s]" % url
    rec = ns.syslog.wait_for(re.compile(r"^TLS with "), ident="kelp-feedcheck")
    assert rec.prio == 3  # LOG_ERR
    assert rec.text == "TLS with feeds.test:%d failed: certificate not accepted: %s" % (port, reason)


def test_refusal_not_logged_below_the_error_verbosity(ns, tls, tmp_path):
    sites(ns, tls, tmp_path)
    rc, out, _ = feedcheck(ns, "https://feeds.test:8444/feed.xml")
    assert rc == 1 and verdict(out).startswith("no connection to server")
    ns.syslog.sync()
    assert ns.syslog.records("kelp-feedcheck") == []


def test_redirect_from_http_to_https(ns, tls, tmp_path):
    sites(ns, tls, tmp_path)
    rc, body, err = httpget(ns, "http://feeds.test/to-tls", "--show-tls")
    assert (rc, body, result_code(err)) == (0, FEED, 200)
    assert handshakes(err) == ["feeds.test:443"]


def test_redirect_from_https_to_http(ns, tls, tmp_path):
    sites(ns, tls, tmp_path)
    rc, body, err = httpget(ns, "https://feeds.test/to-plain", "--show-tls")
    assert (rc, body, result_code(err)) == (0, FEED, 200)
    assert handshakes(err) == ["feeds.test:443"]


def test_site_relative_redirect_stays_on_https(ns, tls, tmp_path):
    sites(ns, tls, tmp_path)
    rc, body, err = httpget(ns, "https://feeds.test/relative", "--show-tls")
    assert (rc, body, result_code(err)) == (0, FEED, 200)
    assert handshakes(err) == ["feeds.test:443", "feeds.test:443"]


def test_redirect_loop_across_schemes_ends_with_the_redirect_code(ns, tls, tmp_path):
    sites(ns, tls, tmp_path)
    rc, body, err = httpget(ns, "http://feeds.test/loop", "--show-tls")
    # http, https, http again (the start is followed back once), then the
    # https target is known: the chain ends with nginx's 301 page.
    assert (rc, result_code(err)) == (1, 301)
    assert b"301" in body
    assert handshakes(err) == ["feeds.test:443"]
    assert "Location: https://feeds.test/loop\n" in err


def test_request_over_tls_is_that_of_plain_http(ns, tls):
    reply = answer(OK + b"Content-Type: text/xml\r\n\r\n<rss/>")
    plain = ns.serve_http(reply, port=80)
    secure = ns.serve_https(reply, server_context(tls), port=443)
    for url in ("http://feeds.test/feed.xml?id=7&x=%20", "https://feeds.test/feed.xml?id=7&x=%20"):
        rc, body, shown = httpget(ns, url, "--show-request")
        assert (rc, body, result_code(shown)) == (0, b"<rss/>", 200)
    want = expected_request("/feed.xml?id=7&x=%20", "feeds.test")
    assert plain.requests == [want]
    assert secure.requests == [want]
    assert shown.encode("latin-1").startswith(want)


def test_request_over_tls_on_another_port_names_it(ns, tls):
    secure = ns.serve_https(answer(OK + b"\r\nok"), server_context(tls))
    rc, body, _ = httpget(ns, "https://feeds.test:%d/a" % secure.port)
    assert (rc, body) == (0, b"ok")
    assert secure.requests == [expected_request("/a", "feeds.test:%d" % secure.port)]


def test_chunked_body_over_tls(ns, tls):
    raw = OK + b"Transfer-Encoding: chunked\r\n\r\n5\r\nhello\r\n6;x=1\r\n world\r\n0\r\n\r\n"
    secure = ns.serve_https(answer(raw), server_context(tls))
    rc, body, _ = httpget(ns, "https://feeds.test:%d/" % secure.port)
    assert (rc, body) == (0, b"hello world")


def test_body_cut_off_by_the_server_keeps_what_arrived(ns, tls):
    raw = OK + b"Transfer-Encoding: chunked\r\n\r\n4\r\nabcd\r\n40\r\nonly part"
    secure = ns.serve_https(answer(raw), server_context(tls))
    rc, body, err = httpget(ns, "https://feeds.test:%d/" % secure.port)
    assert (rc, body, result_code(err)) == (0, b"abcdonly part", 200)


def test_oversized_body_over_tls_is_truncated(ns, tls):
    payload = bytes(range(256)) * 782  # 200192 bytes
    secure = ns.serve_https(answer(OK + b"\r\n" + payload), server_context(tls))
    rc, body, err = httpget(ns, "https://feeds.test:%d/" % secure.port)
    assert (rc, result_code(err)) == (1, 2)
    assert 196608 - 19 <= len(body) < len(payload)
    assert body == payload[:len(body)]


def stalling_server(ns, first_bytes):
    """Accepts one connection, reads the client's hello, sends first_bytes
    and then nothing until the client goes away."""
    lsock = ns.listen_tcp()

    def run():
        conn, _ = lsock.accept()
        with conn:
            conn.settimeout(60)
            conn.recv(4096)
            conn.sendall(first_bytes)
            try:
                while conn.recv(4096):
                    pass
            except OSError:
                pass
    t = threading.Thread(target=run, daemon=True)
    t.start()
    return lsock, t


@pytest.mark.parametrize("first_bytes", [b"", b"\x16\x03\x03\x00\x40\x02"], ids=["silent", "half_record"])
def test_stalled_handshake_ends_after_one_wait(ns, tls, first_bytes):
    lsock, t = stalling_server(ns, first_bytes)
    port = lsock.getsockname()[1]
    rc, body, err = httpget(ns, "https://feeds.test:%d/" % port, "--timeout", "0.5", "--show-tls")
    assert (rc, body, result_code(err)) == (1, b"", 1)
    assert "tls-error: handshake: no answer within the time-out\n" in err
    t.join(30)
    assert not t.is_alive(), "the server still holds the connection kelp-httpget left"
    lsock.close()


def test_plain_http_answer_to_the_hello_is_no_connection(ns, tls):
    lsock, t = stalling_server(ns, b"HTTP/1.1 400 Bad Request\r\n\r\nplain")
    rc, body, err = httpget(ns, "https://feeds.test:%d/" % lsock.getsockname()[1], "--show-tls")
    assert (rc, body, result_code(err)) == (1, b"", 1)
    assert re.search(r"^tls-error: handshake: ", err, re.M), err
    assert "no answer within the time-out" not in err
    t.join(30)
    assert not t.is_alive(), "the server still holds the connection kelp-httpget left"
    lsock.close()


def test_refused_port_reports_no_handshake(ns, tls):
    s = ns.listen_tcp()
    port = s.getsockname()[1]
    s.close()
    rc, body, err = httpget(ns, "https://feeds.test:%d/" % port, "--show-tls")
    assert (rc, body, result_code(err)) == (1, b"", 1)
    assert handshakes(err) == []


def test_unusable_ca_bundle_refuses_every_server(ns, certs, tmp_path):
    tls_certs.trust(ns, tmp_path, b"-----BEGIN CERTIFICATE-----\nnot base64\n-----END CERTIFICATE-----\n",
                    "bad-bundle.crt")
    secure = ns.serve_https(answer(OK + b"\r\nok"), server_context(certs))
    url = "https://feeds.test:%d/" % secure.port
    rc, out, _ = feedcheck(ns, "-v", url)
    assert rc == 1 and verdict(out) == "no connection to server [%s]" % url
    rec = ns.syslog.wait_for(re.compile(r"^TLS with "), ident="kelp-feedcheck")
    assert rec.text.startswith("TLS with feeds.test:%d failed: CA certificates in %s: " % (secure.port, CA_BUNDLE))
    assert secure.requests == []


def test_without_the_test_ca_nothing_is_trusted(ns, certs):
    secure = ns.serve_https(answer(OK + b"\r\nok"), server_context(certs))
    rc, _, err = httpget(ns, "https://feeds.test:%d/" % secure.port, "--show-tls")
    assert (rc, result_code(err)) == (1, 1)
    assert re.search(r"^tls-error: certificate not accepted: .*%s" % re.escape(NOT_TRUSTED), err, re.M), err

