"""Feed documents for the system tests: the project's own (tests/data/feeds),
a generated feed larger than the HTTP client's response bound, and the
real-world corpus ($KELP_CORPUS, by default shared/corpus beside the
repository), which a clone alone does not have."""
import os

import pytest

SOURCE = os.environ.get("KELP_SOURCE", os.path.abspath(os.path.join(os.path.dirname(__file__), "..", "..")))
CORPUS = os.environ.get("KELP_CORPUS") or os.path.join(SOURCE, "..", "shared", "corpus")


def own(name):
    return os.path.join(SOURCE, "tests", "data", "feeds", name)


def corpus(name):
    """A real-world feed; skips the calling test when the corpus is missing."""
    if not os.path.isfile(os.path.join(CORPUS, "MANIFEST.tsv")):
        pytest.skip("real-world corpus not found at %s (set KELP_CORPUS): sweep skipped" % CORPUS)
    return os.path.join(CORPUS, "feeds", name)


def big_feed(size=320 * 1024):
    """An RSS document of numbered items, at least `size` bytes long."""
    parts = [b'<?xml version="1.0"?>\n<rss version="2.0"><channel><title>Big</title>\n']
    n, length = 0, len(parts[0])
    while length < size:
        n += 1
        item = ("<item><title>Item %d</title><guid>big-%d</guid><description>%s</description></item>\n"
                % (n, n, ("Line %d of a long story. " % n) * 12)).encode()
        parts.append(item)
        length += len(item)
    parts.append(b"</channel></rss>\n")
    return b"".join(parts)
