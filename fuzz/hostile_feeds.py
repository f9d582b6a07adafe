#!/usr/bin/env python3
"""Writes pathological feed documents and a manifest of what parsing each
must give, for hostile_replay.

    hostile_feeds.py OUTDIR [--seed N]

Every document is written whole; one larger than the download bound also
gets a "cut" variant holding only its first HTTPCLI_MAX_RESPONSE bytes, which
is what the HTTP client hands over (with the truncated status). The same
seed always gives the same documents. The manifest has one line per parse:

    name file status expect items title peak_kb

expect is "parsed" or "refused" (no node); items the number of items; title
the length of the feed title, -1 for none; peak_kb the bound on the growth of
the resident set during the parse (plain build).
"""
import argparse
import html
import os
import random

BOUND = 196608  # HTTPCLI_MAX_RESPONSE: a download is cut after this many bytes
COPY_LIMIT = 4096  # kdx_copy_limit: longest string copied out of a document
HEAD = '<?xml version="1.0"?><rss version="2.0"><channel><title>Chan</title>'
TAIL = '</channel></rss>'


def item(title, rest=''):
    return '<item><title>%s</title>%s</item>' % (title, rest)


def deep_nesting(rng):
    """100,000 nested elements inside the second of three items."""
    depth = 100000
    names = [rng.choice('abcdefgh') for _ in range(depth)]
    nest = ''.join('<%s>' % n for n in names) + 'x' + ''.join('</%s>' % n for n in reversed(names))
    return HEAD + item('A') + item('B', nest) + item('C') + TAIL


def entities(rng):
    """About 190 KB of character and named references in titles, bodies and
    an inline-HTML block: decoded once by Mini-XML, once more by the stripper."""
    units = ['&amp;', '&lt;b&gt;', '&quot;', '&apos;', '&#233;', '&#x41;', '&#8212;',
             '&#8364;', '&#0065;', '&amp;amp;', '&amp;eacute;', '&amp;#233;', '&amp;bogus;',
             '&amp;#x41;', '&eacute;', '&nbsp;', '&copy;', '&#1114111;']
    def run(n):
        return ''.join(rng.choice(units) for _ in range(n))
    items = [item(run(400), '<description>%s</description>' % run(1700)) for _ in range(10)]
    encoded = '<content:encoded><![CDATA[%s<img src="/e.png">]]></content:encoded>' % run(3000)
    items.append(item('E', encoded))
    title = ''.join(rng.choice(TITLE_UNITS) for _ in range(300))
    # The channel title is copied as Mini-XML decoded it.
    global entity_title_length
    entity_title_length = min(len(html.unescape(title).encode('utf-8')), COPY_LIMIT)
    return HEAD.replace('Chan', title) + ''.join(items) + TAIL


entity_title_length = 0
TITLE_UNITS = ['&amp;', '&lt;', '&gt;', '&quot;', '&apos;', '&#233;', '&#x41;', '&#8212;',
               '&eacute;', '&copy;']


def attr_names(n):
    alphabet = 'abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ'
    out = []
    for i in range(n):
        s = ''
        i += len(alphabet)  # at least two letters
        while i:
            s = alphabet[i % len(alphabet)] + s
            i //= len(alphabet)
        out.append(s)
    return out


def attribute_storm(rng):
    """After one plain item, an enclosure with 24,000 attributes."""
    names = attr_names(24000)
    attrs = ''.join(' %s="%d"' % (n, rng.randrange(10)) for n in names)
    enclosure = '<enclosure%s url="/storm.mp3"/>' % attrs
    return HEAD + item('plain') + item('storm', enclosure) + TAIL


def attribute_forest(rng):
    """120 items whose elements carry 40 attributes each."""
    names = attr_names(40)
    def attrs():
        return ''.join(' %s="%d"' % (n, rng.randrange(100)) for n in names)
    items = []
    for i in range(120):
        rest = '<guid%s>g%d</guid><enclosure%s url="/f%d.mp3"/>' % (attrs(), i, attrs(), i)
        items.append('<item%s><title%s>t%d</title>%s</item>' % (attrs(), attrs(), i, rest))
    return HEAD + ''.join(items) + TAIL


def big_title(rng):
    """A channel title of 4 MB, then three items."""
    text = ''.join(rng.choice('abcdefghij ') for _ in range(4 << 20))
    return HEAD.replace('Chan', 'T' + text) + item('1') + item('2') + item('3') + TAIL


def tiny_items(rng):
    """10,000 items of one-letter titles."""
    return HEAD + ''.join(item(rng.choice('abc')) for _ in range(10000)) + TAIL


def image_storm(rng):
    """12,000 inline images in one item's content:encoded."""
    imgs = ''.join('<img src=%d>' % rng.randrange(10 ** 6) for _ in range(12000))
    return HEAD + item('img', '<content:encoded><![CDATA[%s]]></content:encoded>' % imgs) + TAIL


KB = 1
MB = 1024
# name, generator, variants: (suffix, cut at the bound?, status, expect,
# items (None: the items completed before the cut), title length (None: the
# entity title's), peak bound in kB). The bounds are about 1.5 times what a
# plain build measured.
CASES = [
    ('deep_nesting', deep_nesting, [('', False, 200, 'parsed', 3, 4, 20 * MB),
                                    ('.cut', True, 2, 'parsed', None, 4, 12 * MB)]),
    ('entities', entities, [('', False, 200, 'parsed', 11, None, 2 * MB)]),
    # One crowded element: slow in the XML library, but read like any other.
    ('attribute_storm', attribute_storm, [('', False, 200, 'parsed', 2, 4, 4 * MB)]),
    ('attribute_forest', attribute_forest, [('', False, 200, 'parsed', 120, 4, 4 * MB)]),
    ('image_storm', image_storm, [('', False, 200, 'parsed', 1, 4, 4 * MB)]),
    # A channel title cut short is never closed, so it is never reported.
    ('big_title', big_title, [('', False, 200, 'parsed', 3, COPY_LIMIT, 16 * MB),
                              ('.cut', True, 2, 'parsed', 0, -1, 2 * MB)]),
    ('tiny_items', tiny_items, [('', False, 200, 'parsed', 10000, 4, 10 * MB),
                                ('.cut', True, 2, 'parsed', None, 4, 8 * MB)]),
]


def complete_items(doc):
    return doc.count(b'</item>')


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument('outdir')
    ap.add_argument('--seed', type=int, default=20261123)
    args = ap.parse_args()
    os.makedirs(args.outdir, exist_ok=True)
    lines = []
    for name, gen, variants in CASES:
        rng = random.Random('%d-%s' % (args.seed, name))
        doc = gen(rng).encode('utf-8')
        for suffix, cut, status, expect, items, title, peak in variants:
            body = doc[:BOUND] if cut else doc
            assert cut or len(doc) <= BOUND or status == 200
            fname = name + ('.cut' if cut else '') + '.xml'
            with open(os.path.join(args.outdir, fname), 'wb') as f:
                f.write(body)
            if items is None:
                items = complete_items(body)
            if title is None:
                title = entity_title_length
            lines.append('%s%s %s %d %s %d %d %d' %
                         (name, suffix, fname, status, expect, items, title, peak))
    with open(os.path.join(args.outdir, 'manifest'), 'w') as f:
        f.write('\n'.join(lines) + '\n')


if __name__ == '__main__':
    main()
