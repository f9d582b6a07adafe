"""Helpers shared by the kelp-httpget system tests: running the tool inside
the namespace and reading its report."""
import re


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
