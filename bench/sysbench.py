"""Shared steps of the benchmark suites that run the real programs: the
suite command line, the private namespace of the system tests (with the
arrival time of every syslog line kept), and the JSON the runner reads."""
import argparse
import json
import os
import statistics
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


_plain_ready = kelpns_io.SyslogReader._ready


def _stamped_ready(self, s):
    """Keeps, beside each record, the monotonic time it arrived."""
    t = time.monotonic()
    n = len(self._recs)
    r = _plain_ready(self, s)
    if len(self._recs) > n:
        if not hasattr(self, "stamps"):
            self.stamps = []
        self.stamps.extend([t] * (len(self._recs) - n))
    return r


def namespace(bindir):
    """A private namespace as the system tests have it; ns.syslog.stamps[i]
    is the arrival time of ns.syslog.records()[i]."""
    kelpns_io.SyslogReader._ready = _stamped_ready
    kelpns.set_subreaper()
    return kelpns.Namespace(bindir)


def finish(ns):
    """Closes the namespace; sanitizer reports or alarming log lines of the
    programs fail the suite, as they fail a system test."""
    ns.close()
    problems = ns.problems()
    if problems:
        sys.exit("problems found while the suite ran:\n" + "\n".join(problems))
    ns.remove()


def stamp_of(ns, text, start, ident="kelpd", timeout=15):
    """Arrival time of the first record at or after index `start` (of all
    records) from `ident` whose text is `text`."""
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        recs = ns.syslog.records()
        for i in range(start, len(recs)):
            if recs[i].ident == ident and recs[i].text == text:
                return ns.syslog.stamps[i]
        time.sleep(0.005)
    raise TimeoutError("syslog line %r not seen" % text)


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
