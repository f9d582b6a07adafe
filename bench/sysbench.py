"""Shared steps of the benchmark suites that run the real programs: the
suite command line, the private namespace of the system tests (with the
arrival time of every syslog line kept), and the JSON the runner reads."""
import argparse
import json
import os
import socket
import statistics
import struct
import sys
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(0, os.path.join(ROOT, "tests", "system"))
sys.path.insert(0, os.path.join(ROOT, "bench"))

import kelpns  # noqa: E402
import kelpns_io  # noqa: E402


def args():
    ap = argparse.ArgumentParser()
    ap.add_argument("--build", default="build-bench")
    ap.add_argument("--out", required=True)
    ap.add_argument("--reps", type=int, default=5)
    a = ap.parse_args()
    a.build = os.path.abspath(os.path.join(ROOT, a.build))
    a.bin = os.path.join(a.build, "bin")
    return a


def require(bindir, *names):
    missing = [n for n in names if not os.access(os.path.join(bindir, n), os.X_OK)]
    if missing:
        sys.exit("missing in %s: %s (build them first)" % (bindir, " ".join(missing)))


SO_TIMESTAMPNS = 35  # Linux; the socket module does not name it


def kernel_stamp(sock, size=1 << 20):
    """(bytes, the time the kernel queued them): one receive with the
    socket's SO_TIMESTAMPNS stamp, so that a reader woken late still knows
    when the block arrived. Without a stamp, the time now."""
    data, anc, _, _ = sock.recvmsg(size, socket.CMSG_SPACE(16))
    for level, kind, raw in anc:
        if level == socket.SOL_SOCKET and kind == SO_TIMESTAMPNS and len(raw) >= 16:
            sec, nsec = struct.unpack("qq", raw[:16])
            return data, sec + nsec / 1e9
    return data, time.time()


def stamp_arrivals(sock):
    sock.setsockopt(socket.SOL_SOCKET, SO_TIMESTAMPNS, 1)


def _stamped_ready(self, s):
    """The syslog reader's step, keeping beside each record the time the
    kernel queued its datagram (ns.syslog.stamps[i] for records()[i])."""
    try:
        data, t = kernel_stamp(s, 65536)
    except OSError:
        return False
    with self._cond:
        if data.startswith(self._SYNC):
            self._synced = int(data[len(self._SYNC):])
        else:
            self._recs.append(kelpns_io.parse_syslog(data))
            if not hasattr(self, "stamps"):
                self.stamps = []
            self.stamps.append(t)
        self._cond.notify_all()


def namespace(bindir):
    """A private namespace as the system tests have it, whose syslog reader
    keeps the arrival time of every line (see _stamped_ready)."""
    kelpns_io.SyslogReader._ready = _stamped_ready
    kelpns.set_subreaper()
    ns = kelpns.Namespace(bindir)
    stamp_arrivals(ns.syslog.sock)
    return ns


def finish(ns):
    """Closes the namespace; sanitizer reports or alarming log lines of the
    programs fail the suite, as they fail a system test."""
    ns.close()
    problems = ns.problems()
    if problems:
        sys.exit("problems found while the suite ran:\n" + "\n".join(problems))
    ns.remove()


def stamp_of(ns, text, start, ident="kelpd", timeout=15):
    """Arrival time (time.time() scale) of the first record at or after index `start` (of all
    records) from `ident` whose text is `text`."""
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        recs = ns.syslog.records()
        for i in range(start, len(recs)):
            if recs[i].ident == ident and recs[i].text == text:
                return ns.syslog.stamps[i]
        time.sleep(0.005)
    raise TimeoutError("syslog line %r not seen" % text)


def daemon_usage(pid):
    """(CPU seconds so far, minor page faults so far) of a process, from /proc: the
    scheduler's precise run time, not the clock-tick counts of stat."""
    with open("/proc/%d/schedstat" % pid) as f:
        cpu = int(f.read().split()[0]) / 1e9
    with open("/proc/%d/stat" % pid) as f:
        minflt = int(f.read().rsplit(")", 1)[1].split()[7])
    return cpu, minflt


def figure(name, unit, values, baseline=None, target=None, lower_is_better=True, note=""):
    return {"name": name, "unit": unit, "values": [round(v, 4) for v in values], "baseline": baseline,
            "target": target, "lower_is_better": lower_is_better, "note": note}


def write(out, figures, series=()):
    with open(out, "w") as f:
        json.dump({"figures": list(figures), "series": list(series)}, f, indent=1)
    for fig in figures:
        med = statistics.median(fig["values"]) if fig["values"] else float("nan")
        print("%-28s %10.3f %s  (%d values)" % (fig["name"], med, fig["unit"], len(fig["values"])))
    for s in series:
        print("%-28s %s -> %s %s" % (s["name"], s["x"], s["y"], s["unit"]))
