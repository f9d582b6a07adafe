#!/usr/bin/env python3
"""Seeded RSS 2.0 feeds for the poll and protocol benchmarks.

Version k of a feed holds the items numbered k .. k+count-1, newest (highest
number) first: each version has one new item on top and loses its oldest,
the way a busy news feed moves between two polls. An item's text depends
only on its number and the seed, so every version is reproducible.

    gen_poll_feed.py OUT [--version K] [--bytes 190000] [--seed 7]
"""
import argparse
import random

WORDS = ("gateway router kelp harbour tide signal update firmware coast storm "
         "report council market river weather league podcast episode station "
         "village energy train bridge festival season network school").split()


def _sentence(rng, n):
    return " ".join(rng.choice(WORDS) for _ in range(n)).capitalize() + "."


def item(number, seed=7):
    """One item's XML text; the same number gives the same text."""
    rng = random.Random(seed * 1000003 + number)
    title = "%s (%d)" % (_sentence(rng, rng.randint(4, 9))[:-1], number)
    paras = "".join("&lt;p&gt;%s&lt;/p&gt;" % " ".join(_sentence(rng, rng.randint(8, 16))
                                                  for _ in range(rng.randint(2, 5)))
                    for _ in range(rng.randint(2, 4)))
    img = '&lt;img src="http://feeds.test/img/%d.jpg" /&gt;' % number
    day = 1 + number % 28
    return ("<item><title>%s</title><link>http://feeds.test/news/%d.html</link>"
            "<guid isPermaLink=\"false\">kelp-bench-%d</guid>"
            "<pubDate>Mon, %02d Nov 2026 08:%02d:00 +0000</pubDate>"
            "<description>%s%s</description></item>\n" % (title, number, number, day, number % 60, img, paras))


def feed(version=0, count=None, size=190000, seed=7):
    """The feed text of one version. With count None, as many items as make
    version 0 reach `size` bytes (the same count is then used for every
    version, so their sizes differ by a few hundred bytes)."""
    head = ('<?xml version="1.0" encoding="UTF-8"?>\n<rss version="2.0"><channel>'
            "<title>Kelp Bench News</title><link>http://feeds.test/</link>"
            "<description>Generated feed</description>\n")
    tail = "</channel></rss>\n"
    if count is None:
        count = items_for(size, seed)
    body = "".join(item(n, seed) for n in range(version + count - 1, version - 1, -1))
    return head + body + tail


def items_for(size, seed=7):
    total, n = 200, 0
    while total < size:
        total += len(item(n, seed))
        n += 1
    return max(n, 1)


def main():
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("out")
    ap.add_argument("--version", type=int, default=0)
    ap.add_argument("--bytes", type=int, default=190000)
    ap.add_argument("--seed", type=int, default=7)
    a = ap.parse_args()
    with open(a.out, "w") as f:
        f.write(feed(a.version, size=a.bytes, seed=a.seed))


if __name__ == "__main__":
    main()
