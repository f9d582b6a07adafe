"""Threads of the test process that talk to programs in a namespace: the
syslog reader behind /dev/log, the kernel's process exit events, scripted
HTTP servers and a configd that never answers."""
import fcntl
import os
import re
import select
import socket
import struct
import termios
import threading
import time
from collections import namedtuple

Record = namedtuple("Record", "ident pid prio text")

_RFC3164 = re.compile(r"[A-Z][a-z]{2} [ \d]\d \d\d:\d\d:\d\d (.*)", re.S)
_IDENT = re.compile(r"([^\s\[:]+)(?:\[(\d+)\])?: ?(.*)", re.S)


def parse_syslog(data):
    """One datagram as glibc (or logger) writes it -> Record, or None."""
    text = data.decode("latin-1").rstrip("\n\x00")
    m = re.match(r"<(\d{1,3})>(.*)", text, re.S)
    if not m:
        return Record(None, None, None, text)
    prio = int(m.group(1)) & 7
    rest = m.group(2)
    ts = _RFC3164.match(rest)
    if ts:
        rest = ts.group(1)
    ident = _IDENT.match(rest)
    if not ident:
        return Record(None, None, prio, rest)
    pid = int(ident.group(2)) if ident.group(2) else None
    return Record(ident.group(1), pid, prio, ident.group(3))


class _Reader:
    """One thread that waits for its sockets to be readable and hands each
    ready one to _ready(); the one reader loop of every helper here."""

    def _start(self):
        self._stop = False
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()

    def _watched(self):
        return [self.sock]

    def _run(self):
        while not self._stop:
            r, _, _ = select.select(self._watched(), [], [], 0.2)
            for s in r:
                if self._ready(s) is False:
                    return

    def _end(self):
        self._stop = True
        self._thread.join(5)


class SyslogReader(_Reader):
    """Collects the datagrams sent to the namespace's /dev/log."""

    def __init__(self, sock_path):
        self.sock = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.sock.bind(sock_path)
        os.chmod(sock_path, 0o666)
        self._path = sock_path
        self._recs = []
        self._synced = 0
        self._cond = threading.Condition()
        self._start()

    _SYNC = b"<15>kelpns-sync "

    def _ready(self, s):
        try:
            data = s.recv(65536)
        except OSError:
            return False
        with self._cond:
            if data.startswith(self._SYNC):
                self._synced = int(data[len(self._SYNC):])
            else:
                self._recs.append(parse_syslog(data))
            self._cond.notify_all()

    def sync(self, timeout=15):
        """Returns once every datagram already sent (e.g. by a process that
        has ended) has been read: the socket queue is first in, first out."""
        with self._cond:
            n = self._synced + 1
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as s:
            s.sendto(self._SYNC + str(n).encode(), self._path)
        deadline = time.monotonic() + timeout
        with self._cond:
            while self._synced < n:
                left = deadline - time.monotonic()
                if left <= 0:
                    raise TimeoutError("syslog reader did not catch up")
                self._cond.wait(left)

    def close(self):
        self._end()
        self.sock.close()

    def records(self, ident=None):
        with self._cond:
            return [r for r in self._recs if ident is None or r.ident == ident]

    def texts(self, ident="kelpd"):
        return [r.text for r in self.records(ident)]

    def count(self, text, ident="kelpd"):
        return sum(1 for r in self.records(ident) if _matches(text, r.text))

    def wait_for(self, text, ident="kelpd", timeout=15, start=0):
        """First record (from index `start` of that ident's records) whose text
        equals `text` or matches the compiled regex `text`."""
        deadline = time.monotonic() + timeout
        with self._cond:
            while True:
                recs = [r for r in self._recs if ident is None or r.ident == ident]
                for r in recs[start:]:
                    if _matches(text, r.text):
                        return r
                left = deadline - time.monotonic()
                if left <= 0:
                    raise TimeoutError(
                        "syslog line %r not seen; %s lines: %r" % (text, ident, [r.text for r in recs]))
                self._cond.wait(left)

    def wait_count(self, text, n, ident="kelpd", timeout=15):
        """Waits until `text` was logged at least n times."""
        deadline = time.monotonic() + timeout
        with self._cond:
            while self.count_unlocked(text, ident) < n:
                left = deadline - time.monotonic()
                if left <= 0:
                    raise TimeoutError("syslog line %r not seen %d times: %r" % (text, n, self.texts_unlocked(ident)))
                self._cond.wait(left)

    def count_unlocked(self, text, ident):
        return sum(1 for r in self._recs if (ident is None or r.ident == ident) and _matches(text, r.text))

    def texts_unlocked(self, ident):
        return [r.text for r in self._recs if ident is None or r.ident == ident]


def _matches(want, text):
    if isinstance(want, re.Pattern):
        return want.search(text) is not None
    return want == text


class ExitEvents(_Reader):
    """Exit codes of every process that ends, from the kernel's process
    events connector (netlink): status even of processes reaped by others."""
    NETLINK_CONNECTOR = 11
    CN_IDX_PROC = 1
    PROC_EVENT_EXIT = 0x80000000

    def __init__(self):
        self.codes = {}
        self.sock = socket.socket(socket.AF_NETLINK, socket.SOCK_DGRAM, self.NETLINK_CONNECTOR)
        # Every process of the machine reports here: room for bursts (builds).
        self.sock.setsockopt(socket.SOL_SOCKET, getattr(socket, "SO_RCVBUFFORCE", 33), 8 << 20)
        self.sock.bind((0, self.CN_IDX_PROC))
        self._control(1)
        self._start()

    def _control(self, op):
        payload = struct.pack("I", op)
        cn = struct.pack("IIIIHH", self.CN_IDX_PROC, 1, 0, 0, len(payload), 0) + payload
        self.sock.send(struct.pack("IHHII", 16 + len(cn), 3, 0, 0, 0) + cn)

    def _ready(self, s):
        try:
            data = s.recv(65536)
        except OSError:
            return True
        # nlmsghdr (16), cn_msg (20), proc_event: what, cpu, timestamp (16)
        if len(data) < 68 or struct.unpack_from("I", data, 36)[0] != self.PROC_EVENT_EXIT:
            return True
        pid, tgid, code = struct.unpack_from("III", data, 52)
        if pid == tgid:
            self.codes[pid] = code
        return True

    def close(self):
        self._end()
        try:
            self._control(2)
        except OSError:
            pass
        self.sock.close()


def wait_acknowledged(conn, timeout=10):
    """Returns once the peer's kernel has acknowledged every byte written to
    the TCP socket `conn` (nothing left in its send queue): what was sent is
    then in the peer's receive buffer, readable there even after a reset."""
    deadline = time.monotonic() + timeout
    queued = struct.pack("i", 0)
    while struct.unpack("i", fcntl.ioctl(conn.fileno(), termios.TIOCOUTQ, queued))[0]:
        if time.monotonic() > deadline:
            raise TimeoutError("the peer did not acknowledge what was sent")
        time.sleep(0.01)


def _tcp4_name(addr):
    """("127.0.0.1", 80) as /proc/net/tcp writes it: "0100007F:0050"."""
    return "%08X:%04X" % (struct.unpack("<I", socket.inet_aton(addr[0]))[0], addr[1])


def wait_read_by_peer(conn, netns_pid, timeout=10):
    """Returns once the program at the other end of the IPv4 TCP socket
    `conn` has read everything sent to it: its socket, found in the network
    namespace of process `netns_pid`, holds no unread byte."""
    wait_acknowledged(conn, timeout)
    peer, me = _tcp4_name(conn.getpeername()), _tcp4_name(conn.getsockname())
    deadline = time.monotonic() + timeout
    while True:
        with open("/proc/%d/net/tcp" % netns_pid) as f:
            rows = [line.split() for line in f.readlines()[1:]]
        unread = [int(r[4].split(":")[1], 16) for r in rows if r[1] == peer and r[2] == me]
        if unread == [0]:
            return
        if time.monotonic() > deadline:
            raise TimeoutError("the peer did not read what was sent (%r)" % unread)
        time.sleep(0.01)


class HttpServer(_Reader):
    """A scripted HTTP server: handler(raw_request_bytes, conn) answers.
    With tls, conn is the TLS socket; closing it sends no close_notify, so a
    response simply ends with the connection, as many servers do."""

    def __init__(self, sock, handler, tls=None):
        self.sock = sock
        self.port = sock.getsockname()[1]
        self.requests = []
        self._handler = handler
        self._tls = tls  # a server ssl.SSLContext: every connection starts with a handshake
        self._start()

    def _ready(self, s):
        try:
            conn, _ = s.accept()
        except OSError:
            return False
        threading.Thread(target=self._serve, args=(conn,), daemon=True).start()
        return True

    def _serve(self, conn):
        conn.settimeout(10)
        if self._tls:
            try:
                conn = self._tls.wrap_socket(conn, server_side=True)
            except OSError:  # the client gave up on the handshake
                conn.close()
                return
        with conn:
            data = b""
            try:
                while b"\r\n\r\n" not in data:
                    chunk = conn.recv(4096)
                    if not chunk:
                        break
                    data += chunk
                self.requests.append(data)
                self._handler(data, conn)
            except OSError:
                pass

    def close(self):
        self._end()
        self.sock.close()


class SilentPeer(_Reader):
    """A unix stream listener that accepts, reads and never answers: a configd
    that has not replied yet, so a daemon keeps waiting for its documents."""

    def __init__(self, path):
        self.sock = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.sock.bind(path)
        self.sock.listen(8)
        self.conns = []
        self.received = b""
        self._start()

    def _watched(self):
        return [self.sock] + self.conns

    def _ready(self, s):
        if s is self.sock:
            self.conns.append(self.sock.accept()[0])
            return True
        try:
            data = s.recv(65536)
        except OSError:
            data = b""
        self.received += data
        if not data:
            self.conns.remove(s)
            s.close()
        return True

    def close(self):
        self._end()
        for c in self.conns:
            c.close()
        self.sock.close()
