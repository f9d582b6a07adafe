#!/usr/bin/env python3
"""cross_summary.py TREE CORPUS [NOT_RUN]: the counts of one emulated test run, on one
line: unit tests passed/total (every GoogleTest case, from the XML reports
the test binaries wrote into TREE/gtest-xml) and fuzz corpus inputs
replayed/total (every file under CORPUS/<target>, from the replay programs'
output in CTest's log). Cases that skipped themselves are counted apart. A binary that died before writing its report counts
none of its cases as passed, and a replay that stopped early counts only the
inputs it finished. NOT_RUN: how many unit tests the run left out by name."""
import glob
import os
import re
import sys
import xml.etree.ElementTree as ET


def unit_counts(tree):
    """(passed, total, skipped): a case that skipped itself (the corpus
    sweeps, when the real-world corpus is absent) counts in neither."""
    passed = total = skipped = 0
    for path in glob.glob(os.path.join(tree, "gtest-xml", "*.xml")):
        for case in ET.parse(path).getroot().iter("testcase"):
            if case.get("result", "completed") == "suppressed" or case.get("status") == "notrun":
                continue
            if case.find("skipped") is not None:
                skipped += 1
                continue
            total += 1
            if case.find("failure") is None:
                passed += 1
    return passed, total, skipped


def replay_counts(tree, corpus):
    total = sum(len([f for f in os.listdir(d) if not f.startswith(".")])
                for d in glob.glob(os.path.join(corpus, "fuzz_*")) if os.path.isdir(d))
    log = os.path.join(tree, "Testing", "Temporary", "LastTest.log")
    text = open(log, errors="replace").read() if os.path.exists(log) else ""
    passed = 0
    # One block per test in the log; a replay that stopped early finished
    # every input it started but the last.
    for block in re.split(r"(?m)^(?=\d+/\d+ Testing: )", text):
        if not re.match(r"\d+/\d+ Testing: fuzz_replay_", block):
            continue
        done = re.search(r"replay: (\d+) inputs passed", block)
        started = len(re.findall(r"^replay: .* \(\d+ bytes\)$", block, re.M))
        passed += int(done.group(1)) if done else max(started - 1, 0)
    return passed, total


def main():
    tree, corpus = sys.argv[1], sys.argv[2]
    not_run = int(sys.argv[3]) if len(sys.argv) > 3 else 0
    up, ut, skipped = unit_counts(tree)
    rp, rt = replay_counts(tree, corpus)
    absent = "; %d skipped themselves: the real-world corpus is absent" % skipped if skipped else ""
    print("unit tests %d/%d passed (%d not run under qemu-user%s); fuzz replays %d/%d passed"
          % (up, ut, not_run, absent, rp, rt))


if __name__ == "__main__":
    main()
