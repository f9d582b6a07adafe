"""A small peer of the configd RPC wire format (docs/rpc.md) for tests:
frame encoding/decoding, a client for configd and a scripted fake configd."""
import socket
import struct
import threading

REQUEST, REPLY, INDICATION, ERROR_REPLY = 1, 2, 3, 4
SUBSCRIBE, GET_CONFIG, SAVE_CONFIG, CHANGE_IND = 0x10000001, 0x10000002, 0x10000003, 0x20000000
# configd's own: a fetch with the document's generation, a conditional save.
GET_GENERATION, SAVE_IF = 0x10000100, 0x10000101

# Argument and reply formats of the messages used here.
FORMATS = {SUBSCRIBE: ("A{s}", None), GET_CONFIG: ("s", "x"), SAVE_CONFIG: ("sx", None),
           CHANGE_IND: ("s", "v"), GET_GENERATION: ("s", "sx"), SAVE_IF: ("sx", "s")}


def text(b):
    if isinstance(b, str):
        b = b.encode()
    return struct.pack(">I", len(b)) + b


def body(fmt, args):
    if fmt in (None, "v"):
        return b""
    if fmt in ("s", "x"):
        return text(args[0])
    if fmt == "sx":
        return text(args[0]) + text(args[1])
    if fmt == "A{s}":
        return struct.pack(">I", len(args[0])) + b"".join(text(s) for s in args[0])
    raise ValueError(fmt)


def frame(kind, msgid, tag, payload=b""):
    p = struct.pack(">BII", kind, msgid, tag) + payload
    return struct.pack(">I", len(p)) + p


def request(msgid, tag, *args):
    return frame(REQUEST, msgid, tag, body(FORMATS[msgid][0], args))


def reply(msgid, tag, *args):
    return frame(REPLY, msgid, tag, body(FORMATS[msgid][1], args))


def indication(msgid, *args):
    return frame(INDICATION, msgid, 0, body(FORMATS[msgid][0], args))


def parse_texts(p, n):
    out = []
    for _ in range(n):
        (ln,) = struct.unpack(">I", p[:4])
        out.append(p[4:4 + ln].decode("latin-1"))
        p = p[4 + ln:]
    return out, p


def decode(payload):
    """(kind, id, tag, values) of one payload; values as a list of texts,
    a list of lists for A{s}."""
    kind, msgid, tag = struct.unpack(">BII", payload[:9])
    rest = payload[9:]
    if kind == ERROR_REPLY:
        return kind, msgid, tag, parse_texts(rest, 1)[0]
    fmt = FORMATS.get(msgid, ("", ""))[1 if kind == REPLY else 0]
    if fmt == "A{s}":
        (n,) = struct.unpack(">I", rest[:4])
        return kind, msgid, tag, [parse_texts(rest[4:], n)[0]]
    n = {"s": 1, "x": 1, "sx": 2}.get(fmt or "", 0)
    return kind, msgid, tag, parse_texts(rest, n)[0]


def recv_exact(sock, n):
    data = b""
    while len(data) < n:
        chunk = sock.recv(n - len(data))
        if not chunk:
            return None
        data += chunk
    return data


def recv_frame(sock):
    """The next decoded frame, or None at the end of the stream."""
    head = recv_exact(sock, 4)
    if head is None:
        return None
    (ln,) = struct.unpack(">I", head)
    payload = recv_exact(sock, ln)
    return None if payload is None else decode(payload)


class Client:
    """Blocking client of a running configd."""

    def __init__(self, ns, timeout=10):
        self.sock = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.sock.settimeout(timeout)
        self.sock.connect(ns.path("/var/rpc/configd"))

    def send(self, data):
        self.sock.sendall(data)

    def recv(self):
        return recv_frame(self.sock)

    def get(self, domain, tag=7):
        self.send(request(GET_CONFIG, tag, domain))
        return self.recv()

    def close(self):
        self.sock.close()


class FakeConfigd:
    """A scripted configd listening inside the namespace: serves documents
    from a dict (None: never answers that domain) and records requests."""

    def __init__(self, ns, docs):
        self.docs = docs
        self.requests = []
        self.conn = None
        self.connected = threading.Event()
        self.lock = threading.Condition()
        self.srv = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.srv.bind(ns.path("/var/rpc/configd"))
        self.srv.listen(4)
        self.thread = threading.Thread(target=self._run, daemon=True)
        self.thread.start()

    def _run(self):
        try:
            self.conn, _ = self.srv.accept()
        except OSError:
            return
        self.connected.set()
        while True:
            try:
                f = recv_frame(self.conn)
            except OSError:
                return
            if f is None:
                return
            with self.lock:
                self.requests.append(f)
                self.lock.notify_all()
            kind, msgid, tag, vals = f
            if msgid == GET_CONFIG and self.docs.get(vals[0]) is not None:
                self.send(reply(GET_CONFIG, tag, self.docs[vals[0]]))

    def send(self, data):
        self.conn.sendall(data)

    def got(self, msgid):
        with self.lock:
            return [f for f in self.requests if f[1] == msgid]

    def wait_requests(self, count, timeout=15):
        """Wait until `count` frames have been read off the connection."""
        with self.lock:
            if not self.lock.wait_for(lambda: len(self.requests) >= count, timeout):
                raise TimeoutError("%d requests expected, got %r" % (count, self.requests))

    def close(self):
        for s in (self.conn, self.srv):
            if s is not None:
                try:
                    s.shutdown(socket.SHUT_RDWR)
                except OSError:
                    pass
                s.close()
