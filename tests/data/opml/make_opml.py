#!/usr/bin/env python3
"""Writes the generated OPML fixtures: thousand.opml (1,000 feeds in ten
categories, as a reader with a large subscription list exports it), and on
request the hostile files the import must refuse (too many outlines, too
deep), which are too large to keep in the repository.

    make_opml.py                 # rewrites thousand.opml next to this script
    make_opml.py many FILE [N]   # N outlines (default 100000)
    make_opml.py deep FILE [N]   # N nested outlines (default 10000)
"""
import os
import sys

HEAD = '<?xml version="1.0" encoding="UTF-8"?>\n<opml version="2.0">\n  <head>\n    <title>%s</title>\n  </head>\n  <body>\n'
TAIL = '  </body>\n</opml>\n'


def thousand():
    out = [HEAD % "A thousand feeds"]
    for c in range(10):
        out.append('    <outline text="Category %d" title="Category %d">\n' % (c, c))
        for i in range(c * 100, c * 100 + 100):
            out.append('      <outline type="rss" text="Feed %04d" title="Feed %04d" xmlUrl="http://feeds.test/many/%04d.xml" '
                       'htmlUrl="http://feeds.test/many/%04d/"/>\n' % (i, i, i, i))
        out.append('    </outline>\n')
    out.append(TAIL)
    return "".join(out)


def many(n=100000):
    rows = ('    <outline type="rss" text="F%d" xmlUrl="http://feeds.test/m/%d.xml"/>\n' % (i, i) for i in range(n))
    return HEAD % "Too many" + "".join(rows) + TAIL


def deep(n=10000):
    return (HEAD % "Too deep" + '<outline text="level">' * n + '<outline type="rss" text="Deep" '
            'xmlUrl="http://feeds.test/deep.xml"/>' + "</outline>" * n + "\n" + TAIL)


def main(argv):
    if len(argv) == 1:
        with open(os.path.join(os.path.dirname(os.path.abspath(__file__)), "thousand.opml"), "w") as f:
            f.write(thousand())
        return 0
    make = {"many": many, "deep": deep}[argv[1]]
    with open(argv[2], "w") as f:
        f.write(make(*[int(a) for a in argv[3:]]))
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
