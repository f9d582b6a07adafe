"""Helpers of the benchmark suites: the command line every suite takes, the
figures and series it reports, the generated feeds, and running the
measuring programs of the build tree."""
import argparse
import json
import os
import subprocess
import sys
import tempfile

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))


class Suite:
    """Parses --build/--out/--reps; collects figures and series; save()
    writes them where run.py expects them."""

    def __init__(self, description):
        ap = argparse.ArgumentParser(description=description)
        ap.add_argument("--build", default=os.path.join(ROOT, "build-bench"))
        ap.add_argument("--out", required=True)
        ap.add_argument("--reps", type=int, default=5)
        self.args = ap.parse_args()
        self.bindir = os.path.join(os.path.abspath(self.args.build), "bin")
        self.reps = max(1, self.args.reps)
        self.tmp = tempfile.mkdtemp(prefix="kelp-bench-")
        self.figures = []
        self.series = []

    def figure(self, name, unit, values, baseline=None, target=None, note="", lower_is_better=True):
        self.figures.append({"name": name, "unit": unit, "values": [float(v) for v in values],
                             "baseline": baseline, "target": target,
                             "lower_is_better": lower_is_better, "note": note})
        print("%-34s %s %s" % (name, unit, " ".join("%.6g" % v for v in values)), flush=True)

    def skipped(self, name, unit, why, baseline=None, target=None):
        self.figure(name, unit, [], baseline, target, why)

    def add_series(self, name, xs, ys, unit, order=None, note=""):
        self.series.append({"name": name, "x": list(xs), "y": list(ys), "unit": unit, "order": order,
                            "note": note})
        print("%-34s %s" % (name, list(zip(xs, ys))), flush=True)

    def save(self):
        with open(self.args.out, "w") as f:
            json.dump({"figures": self.figures, "series": self.series}, f, indent=1)

    def bin(self, name):
        path = os.path.join(self.bindir, name)
        if not os.access(path, os.X_OK):
            sys.exit("%s is not built (make build-bench)" % path)
        return path

    def feed(self, name, *args):
        """A generated feed file (bench/gen_feeds.py with these arguments)."""
        path = os.path.join(self.tmp, name)
        with open(path, "wb") as f:
            subprocess.run([sys.executable, os.path.join(ROOT, "bench", "gen_feeds.py")] + list(args),
                           stdout=f, check=True)
        return path


def numbers(argv, **kw):
    """Runs a measuring program; every line of its output as a list of words."""
    cp = subprocess.run([str(a) for a in argv], capture_output=True, text=True, check=True, **kw)
    return [line.split() for line in cp.stdout.splitlines() if line.strip()]


def median(values):
    v = sorted(values)
    n = len(v)
    return v[n // 2] if n % 2 else (v[n // 2 - 1] + v[n // 2]) / 2
