"""A scripted stand-in for kelpd on the control socket inside a test's
namespace, for testing kelpctl's side of the protocol."""
import socket
import threading

import pytest

CTL = "/var/tmp/me_kelpd_daemon.ctl"
USAGE_ERROR = 2
REFUSED = 1
NO_DAEMON = 3


def frame(text):
    """A daemon block: the text, its NUL, zeros up to the capacity."""
    data = text.encode("latin-1")
    cap = 32
    while cap < len(data) + 2:
        cap *= 2
    return data + b"\0" * (cap - len(data))


class FakeDaemon:
    """Accepts one connection, records each request, answers from a script.

    script: for each request, the list of messages to send back; a str is
    framed as the daemon frames its messages, bytes go out as they are. After
    the script, the connection is closed when close_after is set, else held
    open until the test ends."""

    def __init__(self, ns, script, close_after=False):
        self.requests = []
        self.script = list(script)
        self.close_after = close_after
        self.sock = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        self.sock.bind(ns.path(CTL))
        self.sock.listen(4)
        self.done = threading.Event()
        self.conn = None
        self.thread = threading.Thread(target=self._run, daemon=True)
        self.thread.start()

    def _run(self):
        try:
            self.conn, _ = self.sock.accept()
            for answers in self.script:
                self.requests.append(self.conn.recv(8192))
                for msg in answers:
                    self.conn.send(msg if isinstance(msg, bytes) else frame(msg))
            if self.close_after:
                self.conn.close()
        except (BrokenPipeError, ConnectionResetError):
            pass  # kelpctl had what it needed and went before the script ended
        finally:
            self.done.set()

    def close(self):
        if self.conn:
            self.conn.close()
        self.sock.close()


@pytest.fixture
def fake(ns):
    made = []

    def start(script, close_after=False):
        d = FakeDaemon(ns, script, close_after)
        made.append(d)
        return d
    yield start
    for d in made:
        d.close()


def one_line_error(cp):
    lines = cp.stderr.splitlines()
    assert len(lines) == 1, cp.stderr
    assert lines[0].startswith("kelpctl: ")
    return lines[0]
