"""Shared pieces of the fetching-children system tests: a feed server that
holds each request until the test lets it answer (noting the order of
arrivals and answers), a DNS server that listens and never answers, and
readers of kelpd's children in /proc."""
import os
import re
import select
import socket
import threading

from refresh_helpers import feed

HEAD = b"HTTP/1.1 200 OK\r\nContent-Type: text/xml\r\n\r\n"


def hung_up(conn):
    """True once the peer has closed (or reset) the connection."""
    if not select.select([conn], [], [], 0)[0]:
        return False
    try:
        return conn.recv(1, socket.MSG_PEEK) == b""
    except OSError:
        return True


class HeldServer:
    """A feed server whose answers wait for `release`. `arrivals` lists each
    request's path with the number of answers sent before it came."""

    def __init__(self, ns, host="127.0.0.2", port=8080):
        self.cond = threading.Condition()
        self.arrivals = []
        self.answered = []
        self.released = set()
        self.all_released = False
        self.srv = ns.serve_http(self.handle, host=host, port=port)

    def _free(self, path):
        return self.all_released or path in self.released

    def handle(self, data, conn):
        path = data.split(b" ", 2)[1].decode()
        with self.cond:
            self.arrivals.append((path, len(self.answered)))
            self.cond.notify_all()
            while not self._free(path):
                self.cond.wait(0.1)
                if hung_up(conn):
                    return
        conn.sendall(HEAD + feed("K " + path, "L " + path).encode("latin-1"))
        with self.cond:
            self.answered.append(path)
            self.cond.notify_all()

    def release(self, path=None):
        with self.cond:
            if path is None:
                self.all_released = True
            else:
                self.released.add(path)
            self.cond.notify_all()

    def wait_arrivals(self, n, timeout=30):
        with self.cond:
            assert self.cond.wait_for(lambda: len(self.arrivals) >= n, timeout), self.arrivals
            return list(self.arrivals)

    def paths(self):
        with self.cond:
            return [p for p, _ in self.arrivals]


class SilentDns:
    """Port 53 of 127.0.0.1 (UDP and TCP) inside the namespace: reads every
    query and never answers; `asked` is set by the first query."""

    def __init__(self, ns):
        self.asked = threading.Event()
        self.udp = ns.in_net(lambda: socket.socket(socket.AF_INET, socket.SOCK_DGRAM))
        self.udp.bind(("127.0.0.1", 53))
        self.tcp = ns.listen_tcp("127.0.0.1", 53)
        self.conns = []
        self.stop = False
        self.thread = threading.Thread(target=self._run, daemon=True)
        self.thread.start()

    def _run(self):
        while not self.stop:
            ready = select.select([self.udp, self.tcp] + self.conns, [], [], 0.1)[0]
            for s in ready:
                if s is self.tcp:
                    self.conns.append(self.tcp.accept()[0])
                else:
                    s.recv(4096)
                self.asked.set()

    def close(self):
        self.stop = True
        self.thread.join(5)
        for s in [self.udp, self.tcp] + self.conns:
            s.close()


def use_dns(ns, options):
    """Points the namespace's resolver at 127.0.0.1 with these options (the
    file is a bind mount: it is rewritten in place)."""
    with open(os.path.join(ns.tmp, "resolv.conf"), "w") as f:
        f.write("nameserver 127.0.0.1\noptions %s\n" % options)


def children(pid):
    """The pids of a process's children."""
    out = []
    for task in os.listdir("/proc/%d/task" % pid):
        try:
            with open("/proc/%d/task/%s/children" % (pid, task)) as f:
                out += [int(p) for p in f.read().split()]
        except OSError:
            pass
    return out


def fds_of(pid):
    """What each of a process's descriptors refers to (empty once it has gone)."""
    out = {}
    try:
        for fd in os.listdir("/proc/%d/fd" % pid):
            out[fd] = os.readlink("/proc/%d/fd/%s" % (pid, fd))
    except OSError:
        pass
    return out


def spare_of(pid):
    """The fetching child kelpd started ahead of need, or None: the child
    whose job input (its descriptor 0) kelpd still holds open."""
    held = set(fds_of(pid).values())
    for child in children(pid):
        if fds_of(child).get("0") in held:
            return child
    return None


def fetchers(pid):
    """kelpd's children that run fetches: all but the spare."""
    spare = spare_of(pid)
    return [c for c in children(pid) if c != spare]


def status(pid):
    """/proc/PID/status as a dict of its fields."""
    with open("/proc/%d/status" % pid) as f:
        return dict(re.findall(r"^(\w+):\s*(.*)$", f.read(), re.M))


def open_fds(pid):
    return len(os.listdir("/proc/%d/fd" % pid))
