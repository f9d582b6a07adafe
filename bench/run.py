#!/usr/bin/env python3
"""Runs every benchmark suite (bench/suite_*), prints one table of figures
and the growth series, and writes bench/results.json.

Each suite is an executable run as
    bench/suite_X --build <dir> --out <file.json> --reps <N>
from the repository root; it writes {"figures": [...], "series": [...]}
(see bench/README.md). A suite that exits non-zero or writes no readable
file is reported as FAILED; the others still run. Ratios are taken against
the baseline figure's median from the same run, whichever suite measured it.

Exit status: 0 when every suite ran, 1 when one FAILED. A missed target is
reported in the table and in results.json, not as a failure of the run.
"""
import argparse
import datetime
import json
import math
import os
import platform
import statistics
import subprocess
import sys
import tempfile
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
BENCH = os.path.join(ROOT, "bench")
SUITE_TIMEOUT = 3600


def discover():
    names = sorted(n for n in os.listdir(BENCH) if n.startswith("suite_"))
    return [os.path.join(BENCH, n) for n in names
            if os.path.isfile(os.path.join(BENCH, n)) and os.access(os.path.join(BENCH, n), os.X_OK)
            and not n.endswith("~")]


def run_suite(path, build, reps, logdir):
    """Runs one suite; returns (status, detail, data or None, seconds)."""
    name = os.path.basename(path)
    fd, out = tempfile.mkstemp(prefix=name + "-", suffix=".json")
    os.close(fd)
    os.unlink(out)
    log = os.path.join(logdir, name + ".log")
    start = time.monotonic()
    print("== %s" % name, flush=True)
    try:
        with open(log, "w") as lf:
            cp = subprocess.run([path, "--build", build, "--out", out, "--reps", str(reps)], cwd=ROOT,
                                stdout=lf, stderr=subprocess.STDOUT, timeout=SUITE_TIMEOUT)
        rc = cp.returncode
    except subprocess.TimeoutExpired:
        rc = "timeout"
    except OSError as e:
        rc = str(e)
    secs = time.monotonic() - start
    tail = last_lines(log, 3)
    if rc != 0:
        return "FAILED", "exit %s: %s (log %s)" % (rc, tail, log), None, secs
    try:
        with open(out) as f:
            data = json.load(f)
        os.unlink(out)
    except (OSError, ValueError) as e:
        return "FAILED", "no readable output: %s (log %s)" % (e, log), None, secs
    return "ok", "", data, secs


def last_lines(path, n):
    try:
        with open(path, errors="replace") as f:
            lines = [l.strip() for l in f if l.strip()]
    except OSError:
        return ""
    return " | ".join(lines[-n:])


def summarize(fig):
    vals = [float(v) for v in fig.get("values") or []]
    fig["median"] = statistics.median(vals) if vals else None
    fig["min"] = min(vals) if vals else None
    fig["max"] = max(vals) if vals else None


def judge(fig, by_name):
    """Fills ratio and met: met is None without a target, False when the
    target cannot be checked (no values, no baseline)."""
    fig["ratio"] = None
    base = fig.get("baseline")
    if base:
        b = by_name.get(base)
        if b and b.get("median") and fig["median"] is not None:
            fig["ratio"] = fig["median"] / b["median"]
    target = fig.get("target")
    if not target:
        fig["met"] = None
        return
    med, ratio = fig["median"], fig["ratio"]
    checks = []
    if "max_ratio" in target:
        checks.append(ratio is not None and ratio <= target["max_ratio"])
    if "min_ratio" in target:
        checks.append(ratio is not None and ratio >= target["min_ratio"])
    if "max" in target:
        checks.append(med is not None and med <= target["max"])
    if "min" in target:
        checks.append(med is not None and med >= target["min"])
    fig["met"] = all(checks) if checks else None


def fit_order(xs, ys):
    """Least-squares slope of log y over log x, and its reading."""
    pts = [(math.log(x), math.log(y)) for x, y in zip(xs, ys) if x and y and x > 0 and y > 0]
    if len(pts) < 2:
        return None, "too few points"
    mx = sum(p[0] for p in pts) / len(pts)
    my = sum(p[1] for p in pts) / len(pts)
    sxx = sum((p[0] - mx) ** 2 for p in pts)
    if sxx == 0:
        return None, "one x only"
    slope = sum((p[0] - mx) * (p[1] - my) for p in pts) / sxx
    if slope < 0.5:
        reading = "sublinear"
    elif slope < 1.25:
        reading = "linear"
    elif slope < 1.6:
        reading = "n log n or worse"
    elif slope < 2.4:
        reading = "quadratic"
    else:
        reading = "worse than quadratic"
    return slope, reading


def fmt(v):
    if v is None:
        return "-"
    if isinstance(v, str):
        return v
    a = abs(v)
    if a == 0:
        return "0"
    if a >= 1e6:
        return "%.4g" % v
    if a >= 100:
        return "%.0f" % v
    if a >= 1:
        return "%.2f" % v
    return "%.3g" % v


def target_text(t):
    if not t:
        return "-"
    parts = []
    for k, op in (("max_ratio", "ratio<="), ("min_ratio", "ratio>="), ("max", "<="), ("min", ">=")):
        if k in t:
            parts.append("%s%s" % (op, fmt(t[k])))
    return " ".join(parts)


def status_of(fig):
    if fig["median"] is None:
        return "SKIPPED"
    if fig["met"] is None:
        return "-"
    return "ok" if fig["met"] else "MISSED"


def print_table(suites, figures, series):
    head = ("figure", "unit", "median", "min", "max", "baseline", "ratio", "target", "status")
    rows = []
    for f in figures:
        rows.append((f["name"], f.get("unit", ""), fmt(f["median"]), fmt(f["min"]), fmt(f["max"]),
                     f.get("baseline") or "-", fmt(f["ratio"]), target_text(f.get("target")), status_of(f)))
    for s in suites:
        if s["status"] != "ok":
            rows.append((s["name"], "", "", "", "", "", "", "", "FAILED"))
    widths = [max(len(str(r[i])) for r in rows + [head]) for i in range(len(head))]
    line = "  ".join("%%-%ds" % w for w in widths)
    print()
    print(line % head)
    print(line % tuple("-" * w for w in widths))
    for r in rows:
        print(line % r)
    notes = [(f["name"], f["note"]) for f in figures if f.get("note") and status_of(f) in ("MISSED", "SKIPPED")]
    for s in suites:
        if s["status"] != "ok":
            notes.append((s["name"], s["detail"]))
    if notes:
        print()
        for n, t in notes:
            print("%s: %s" % (n, t))
    if series:
        print()
        print("growth series (fitted slope of log y over log x: 1 linear, 2 quadratic)")
        for s in series:
            pts = ", ".join("%s:%s" % (fmt(x), fmt(y)) for x, y in zip(s["x"], s["y"]))
            print("  %-28s %s [%s]  slope %s (%s)%s" % (
                s["name"], pts, s.get("unit", ""), fmt(s["slope"]), s["fitted"],
                "; suite says: %s" % s["order"] if s.get("order") else ""))


def machine():
    cpu = "?"
    try:
        with open("/proc/cpuinfo") as f:
            for line in f:
                if line.startswith("model name"):
                    cpu = line.split(":", 1)[1].strip()
                    break
    except OSError:
        pass
    uname = subprocess.run(["uname", "-a"], capture_output=True, text=True).stdout.strip()
    return {"uname": uname, "cpu": cpu, "nproc": os.cpu_count(), "kernel": platform.release()}


def commit():
    sha = subprocess.run(["git", "rev-parse", "HEAD"], cwd=ROOT, capture_output=True, text=True).stdout.strip()
    dirty = subprocess.run(["git", "status", "--porcelain", "--untracked-files=no"], cwd=ROOT,
                           capture_output=True, text=True).stdout.strip() != ""
    return {"sha": sha or None, "dirty": dirty}


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    ap.add_argument("--build", default="build-bench", help="build tree with the benchmark programs")
    ap.add_argument("--reps", type=int, default=int(os.environ.get("BENCH_REPS", "5")))
    ap.add_argument("--only", action="append", default=[], help="run only suites whose name contains this")
    ap.add_argument("--out", default=os.path.join(BENCH, "results.json"))
    args = ap.parse_args()
    build = os.path.abspath(args.build)
    logdir = tempfile.mkdtemp(prefix="kelp-bench-logs-")
    suites, figures, series = [], [], []
    for path in discover():
        name = os.path.basename(path)
        if args.only and not any(o in name for o in args.only):
            continue
        status, detail, data, secs = run_suite(path, build, args.reps, logdir)
        suites.append({"name": name, "status": status, "detail": detail, "seconds": round(secs, 1)})
        for f in (data or {}).get("figures", []):
            f["suite"] = name
            summarize(f)
            figures.append(f)
        for s in (data or {}).get("series", []):
            s["suite"] = name
            s["slope"], s["fitted"] = fit_order(s.get("x", []), s.get("y", []))
            series.append(s)
    by_name = {f["name"]: f for f in figures}
    for f in figures:
        judge(f, by_name)
    print_table(suites, figures, series)
    result = {"machine": machine(), "commit": commit(),
              "date": datetime.datetime.now(datetime.timezone.utc).isoformat(timespec="seconds"),
              "reps": args.reps, "build": build, "logs": logdir,
              "suites": suites, "figures": figures, "series": series}
    with open(args.out, "w") as f:
        json.dump(result, f, indent=1)
    print("\nwrote %s (suite logs in %s)" % (os.path.relpath(args.out, ROOT), logdir))
    return 1 if any(s["status"] != "ok" for s in suites) else 0


if __name__ == "__main__":
    sys.exit(main())
