"""https:// chains of more than one certificate, judged against CA bundles of
several certificates: the client reads the bundle only once the server's
chain has arrived and keeps the CAs that could have signed it, so these
cases check that every chain a whole loaded bundle would accept is still
accepted, and every one it would refuse still refused, with the same
reason. The bundle is bind-mounted over the system's path inside the
test's namespace, as in test_tls.py."""
import os
import re
import ssl

import pytest

import tls_certs
from test_http import OK, answer, httpget, result_code
from test_tls import CA_BUNDLE, NOT_TRUSTED, handshakes

BROKEN = b"-----BEGIN CERTIFICATE-----\nnot base64 !\n-----END CERTIFICATE-----\n"


@pytest.fixture(scope="module")
def certs(tmp_path_factory):
    d = tmp_path_factory.mktemp("tls-chain-certs")
    os.chmod(d, 0o755)
    return tls_certs.make_certs(str(d))


def pem(certs, *names):
    out = b""
    for n in names:
        with open(os.path.join(certs, n + ".crt"), "rb") as f:
            out += f.read()
    return out


def serve(ns, certs, tmp_path, key, *chain):
    """A TLS server presenting the certificates `chain` (leaf first)."""
    path = tmp_path / "chain.pem"
    path.write_bytes(pem(certs, *chain))
    ctx = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    ctx.load_cert_chain(str(path), os.path.join(certs, key + ".key"))
    return ns.serve_https(answer(OK + b"\r\nsecure"), ctx)


def fetch(ns, srv):
    rc, body, err = httpget(ns, "https://feeds.test:%d/" % srv.port, "--show-tls")
    assert handshakes(err) == ["feeds.test:%d" % srv.port]
    return rc, body, err


def accepted(ns, srv):
    rc, body, err = fetch(ns, srv)
    assert (rc, body, result_code(err)) == (0, b"secure", 200), err
    assert "tls-subject: CN=feeds.test\n" in err
    return True


def refused(ns, srv, reason=NOT_TRUSTED):
    rc, body, err = fetch(ns, srv)
    assert (rc, body, result_code(err)) == (1, b"", 1)
    assert re.search(r"^tls-error: certificate not accepted: .*%s" % re.escape(reason), err, re.M), err
    assert srv.requests == []
    return True


def test_chain_through_an_intermediate_sent_by_the_server(ns, certs, tmp_path):
    tls_certs.trust(ns, tmp_path, pem(certs, "ca"))
    assert accepted(ns, serve(ns, certs, tmp_path, "chained", "chained", "inter"))


def test_chain_that_ends_in_the_trusted_root_itself(ns, certs, tmp_path):
    tls_certs.trust(ns, tmp_path, pem(certs, "ca"))
    assert accepted(ns, serve(ns, certs, tmp_path, "chained", "chained", "inter", "ca"))


def test_intermediate_not_sent_and_not_trusted_is_refused(ns, certs, tmp_path):
    tls_certs.trust(ns, tmp_path, pem(certs, "ca"))
    assert refused(ns, serve(ns, certs, tmp_path, "chained", "chained"))


def test_intermediate_held_by_the_bundle_need_not_be_sent(ns, certs, tmp_path):
    tls_certs.trust(ns, tmp_path, pem(certs, "other_ca", "inter"))
    assert accepted(ns, serve(ns, certs, tmp_path, "chained", "chained"))


def test_test_ca_amid_a_large_bundle_with_unusable_blocks(ns, certs, tmp_path):
    # Where the host has no bundle, the test CA sits among the project's own.
    big = tls_certs.system_bundle()
    tls_certs.trust(ns, tmp_path, big[:len(big) // 2] + BROKEN + pem(certs, "other_ca", "ca") + big[len(big) // 2:])
    assert accepted(ns, serve(ns, certs, tmp_path, "chained", "chained", "inter"))


def test_cross_signed_ca_sent_does_not_hide_the_trusted_root(ns, certs, tmp_path):
    # The server sends ca's cross-certificate from other_ca, whom the bundle
    # does not trust; the leaf's issuer by name, ca, is trusted all the same.
    tls_certs.trust(ns, tmp_path, pem(certs, "ca"))
    assert accepted(ns, serve(ns, certs, tmp_path, "server", "server", "cross"))


def test_cross_signed_ca_leads_to_its_signer(ns, certs, tmp_path):
    tls_certs.trust(ns, tmp_path, pem(certs, "other_ca"))
    assert accepted(ns, serve(ns, certs, tmp_path, "server", "server", "cross"))


def test_ca_of_the_same_name_with_another_key_vouches_for_nothing(ns, certs, tmp_path):
    tls_certs.trust(ns, tmp_path, pem(certs, "impostor"))
    assert refused(ns, serve(ns, certs, tmp_path, "chained", "chained", "inter"))


def test_every_ca_of_the_issuers_name_is_tried(ns, certs, tmp_path):
    tls_certs.trust(ns, tmp_path, pem(certs, "impostor", "ca"))
    assert accepted(ns, serve(ns, certs, tmp_path, "chained", "chained", "inter"))


def test_wrong_host_through_an_intermediate_is_named(ns, certs, tmp_path):
    tls_certs.trust(ns, tmp_path, pem(certs, "ca"))
    srv = serve(ns, certs, tmp_path, "chained", "chained", "inter")
    rc, body, err = httpget(ns, "https://127.0.0.1:%d/" % srv.port, "--show-tls")
    assert (rc, body, result_code(err)) == (1, b"", 1)
    assert "tls-error: certificate not accepted: The certificate Common Name (CN) does not match with the " \
           "expected CN\n" in err


def test_missing_ca_bundle_refuses_every_server_before_connecting(ns, certs, tmp_path):
    empty = tmp_path / "no-certs"
    os.makedirs(empty)
    os.chmod(tmp_path, 0o755)
    ns.run(["mount", "--bind", str(empty), os.path.dirname(CA_BUNDLE)], check=True)
    srv = serve(ns, certs, tmp_path, "server", "server")
    rc, _, err = httpget(ns, "https://feeds.test:%d/" % srv.port, "--show-tls")
    assert (rc, result_code(err)) == (1, 1)
    assert "tls-error: CA certificates in %s: X509 - Read/write of file failed\n" % CA_BUNDLE in err
    assert srv.requests == []
