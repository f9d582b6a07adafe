"""A client of kelpd's control socket for the system tests: requests with
their answers, and the messages the daemon pushes in between."""
import socket
import time

import kelpd_helpers

CTL = "/var/tmp/me_kelpd_daemon.ctl"


def fields(text):
    """The fields of a daemon message after its words, as (key, value) pairs."""
    out = []
    for part in text.split("\t"):
        key, sep, value = part.partition(":")
        if sep and key.isidentifier():
            out.append((key, value))
    return out


class Client:
    def __init__(self, ns, timeout=15):
        self.sock = kelpd_helpers.connect(ns)
        self.sock.settimeout(timeout)
        self.pushed = []

    def send(self, data):
        self.sock.send(data if isinstance(data, bytes) else data.encode("latin-1"))

    def message(self, timeout=None):
        """The text of the next block, up to its NUL."""
        old = self.sock.gettimeout()
        if timeout is not None:
            self.sock.settimeout(timeout)
        try:
            data = self.sock.recv(1 << 20)
        finally:
            self.sock.settimeout(old)
        return data.split(b"\0", 1)[0].decode("latin-1")

    def answer(self, word):
        """The next answer to `word`; messages pushed before it are kept in `pushed`."""
        while True:
            text = self.message()
            if text.startswith("OK\t%s\t" % word) or text.startswith("ERROR\t%s\t" % word):
                return text
            self.pushed.append(text)

    def request(self, text):
        self.send(text)
        return self.answer(text.split()[0])

    def login(self, domain="rss", profile=1, v=3):
        return self.request("login\tv:%d\tdomain:%s\tprofile_id:%d" % (v, domain, profile))

    def login_configured(self, domain="rss", profile=1, timeout=15):
        """A login, repeated while kelpd still waits for its configuration
        (kelpd takes clients before configd's documents have arrived)."""
        deadline = time.monotonic() + timeout
        while True:
            answer = self.login(domain=domain, profile=profile)
            if not answer.startswith("ERROR\tlogin\t19:") or time.monotonic() > deadline:
                return answer
            time.sleep(0.05)

    def logout(self, profile=1, domain="rss"):
        return self.request("logout\tdomain:%s\tprofile_id:%d" % (domain, profile))

    def item(self, cmd, feed, uid, domain="rss", profile=1):
        return self.request("%s\tdomain:%s\tprofile_id:%d\tfeed_id:%d\tuid:%d" % (cmd, domain, profile, feed, uid))

    def next_push(self, prefix):
        """The first pushed message (kept or arriving) that starts with prefix;
        earlier pushes of other kinds are passed over."""
        for i, text in enumerate(self.pushed):
            if text.startswith(prefix):
                del self.pushed[:i + 1]
                return text
        self.pushed.clear()
        while True:
            text = self.message()
            if text.startswith(prefix):
                return text

    def quiet(self):
        """True when nothing is waiting on the socket now (after a request
        answered later than anything that could have been pushed)."""
        if self.pushed:
            return False
        try:
            self.sock.recv(1 << 20, socket.MSG_DONTWAIT)
        except BlockingIOError:
            return True
        return False

    def close(self):
        self.sock.close()
