#!/usr/bin/env python3
"""Seeded feed documents for the benchmarks: an RSS 2.0 podcast feed or an
Atom feed whose items look like what gateways really fetch (HTML bodies with
entities and img tags, enclosures, CDATA sections, non-ASCII text).

    gen_feeds.py rss  --bytes 190000 > podcast.xml   # as many items as fit
    gen_feeds.py atom --bytes 190000 > atom.xml
    gen_feeds.py rss  --items 150 --lean [--new 10] > feed.xml

Item i is the same text for the same seed whatever else is asked, so a feed
with --new K is the --items feed with K new items on top (a poll that found
K new episodes). Output is UTF-8 bytes.
"""
import argparse
import random
import sys

WORDS = ("gateway router firmware update podcast episode weather news market city council "
         "music science river festival interview football election school garden recipe "
         "train bridge library summer winter report").split()
ACCENTED = ("Café", "déjà vu", "Größe", "naïve", "São Paulo", "Zürich", "crème brûlée",
            "Ærø", "señor", "Kraków", "Москва", "東京", "“quoted”", "20 °C", "5 €")


def sentence(rng, n):
    words = [rng.choice(WORDS) for _ in range(n)]
    if rng.random() < 0.5:
        words.insert(rng.randrange(len(words)), rng.choice(ACCENTED))
    return " ".join(words).capitalize()


def html_body(rng, i):
    """An HTML paragraph or two with entities, a link, a line break and images."""
    parts = ["<p>%s &amp; %s&nbsp;&#8212; %s.</p>" % (sentence(rng, 8), sentence(rng, 5), sentence(rng, 12)),
             '<p><img src="/images/%d.jpg" alt="episode %d" width="300"> %s<br>%s &eacute;t&eacute; '
             '&#233;&#8230; <a href="http://example.org/ep/%d">more</a></p>' % (i, i, sentence(rng, 10),
                                                                                  sentence(rng, 6), i)]
    if rng.random() < 0.3:
        parts.append('<p><img src="http://cdn.example.org/%d/wide.png"> &lt;tag&gt; &quot;%s&quot;</p>'
                     % (i, sentence(rng, 4)))
    return "".join(parts)


def escape(text):
    return text.replace("&", "&amp;").replace("<", "&lt;").replace(">", "&gt;").replace('"', "&quot;")


def rss_item(seed, i, lean=False):
    rng = random.Random("%s/rss/%d" % (seed, i))
    title = "Episode %d: %s" % (i, sentence(rng, 5))
    body = html_body(rng, i)
    # Every third item carries its body as CDATA, the others escaped once.
    desc = "<![CDATA[%s]]>" % body if i % 3 == 0 else escape(body)
    day = 1 + i % 28
    if lean:
        body = ""
    return ("<item><title>%s</title><link>http://example.org/ep/%d</link>"
            "<description>%s</description>"
            "%s"
            "<enclosure url=\"http://media.example.org/podcast/ep%d.mp3\" length=\"%d\" type=\"audio/mpeg\"/>"
            "<guid isPermaLink=\"false\">urn:uuid:%08x-%04x-4000-8000-%012x</guid>"
            "<pubDate>Tue, %02d Jun 2025 %02d:%02d:00 GMT</pubDate>"
            "<itunes:duration>00:%02d:%02d</itunes:duration><itunes:explicit>no</itunes:explicit>"
            "</item>\n" % (escape(title), i, desc, encoded(body, i), i, 1000000 + i * 1234, rng.getrandbits(32),
                           rng.getrandbits(16), rng.getrandbits(48), day, i % 24, i % 60, i % 60, (i * 7) % 60))


def encoded(body, i):
    """The full-text copy podcast feeds carry; empty in lean feeds."""
    if not body:
        return ""
    return '<content:encoded><![CDATA[%s<p><img src="/images/%d-large.jpg"></p>]]></content:encoded>' % (body, i)


def atom_entry(seed, i, lean=False):
    rng = random.Random("%s/atom/%d" % (seed, i))
    title = "Post %d — %s" % (i, sentence(rng, 6))
    body = html_body(rng, i)
    summary = escape(body) if i % 3 else "<![CDATA[%s]]>" % body
    return ('<entry><title type="html">%s</title><id>tag:example.org,2025:post-%d</id>'
            '<updated>2025-06-%02dT10:00:00Z</updated><author><name>%s</name></author>'
            '<link rel="alternate" href="http://example.org/posts/%d"/>'
            '<link rel="enclosure" type="audio/mpeg" href="http://media.example.org/p/%d.mp3"/>'
            '<summary type="html">%s</summary>'
            '<content type="html">%s</content></entry>\n'
            % (escape(title), i, 1 + i % 28, sentence(rng, 2), i, i, summary,
               "" if lean else escape(html_body(rng, i + 1))))


RSS_HEAD = ('<?xml version="1.0" encoding="UTF-8"?>\n'
            '<rss version="2.0" xmlns:itunes="http://www.itunes.com/dtds/podcast-1.0.dtd" '
            'xmlns:content="http://purl.org/rss/1.0/modules/content/">\n<channel>'
            '<title>Kelp Bench Podcast — Café Stories</title><link>http://example.org/</link>'
            '<description>A generated podcast for benchmarks</description><language>en</language>'
            '<image><url>http://example.org/logo.png</url><title>logo</title></image>\n')
RSS_TAIL = "</channel></rss>\n"
ATOM_HEAD = ('<?xml version="1.0" encoding="utf-8"?>\n<feed xmlns="http://www.w3.org/2005/Atom">'
             '<title>Kelp Bench Blog — Größe</title><id>tag:example.org,2025:blog</id>'
             '<updated>2025-06-30T10:00:00Z</updated><link href="http://example.org/"/>\n')
ATOM_TAIL = "</feed>\n"


def build(kind, seed, nbytes=None, items=None, new=0, lean=False):
    head, tail, one = (RSS_HEAD, RSS_TAIL, rss_item) if kind == "rss" else (ATOM_HEAD, ATOM_TAIL, atom_entry)
    parts = [head] + [one(seed, -k, lean) for k in range(new, 0, -1)]
    size = sum(len(p.encode()) for p in parts) + len(tail.encode())
    i = 1
    while True:
        if items is not None and i > items:
            break
        text = one(seed, i, lean)
        if nbytes is not None and size + len(text.encode()) > nbytes:
            break
        parts.append(text)
        size += len(text.encode())
        i += 1
    return ("".join(parts) + tail).encode()


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    ap.add_argument("kind", choices=("rss", "atom"))
    ap.add_argument("--bytes", type=int, help="fill up to this size")
    ap.add_argument("--items", type=int, help="exactly this many items")
    ap.add_argument("--new", type=int, default=0, help="new items on top of the others")
    ap.add_argument("--seed", default="kelp")
    ap.add_argument("--lean", action="store_true",
                    help="no full-text copy of each body (150 items stay below the download bound)")
    a = ap.parse_args()
    if (a.bytes is None) == (a.items is None):
        ap.error("give exactly one of --bytes and --items")
    sys.stdout.buffer.write(build(a.kind, a.seed, a.bytes, a.items, a.new, a.lean))


if __name__ == "__main__":
    main()
