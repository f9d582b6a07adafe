"""Text as the feed wrote it, in kelp-web and kelpctl alike: UTF-8 beyond
Latin-1 (dashes, curly quotes, euro, emoji, CJK), Latin-1 entities, a feed
in a legacy charset, and feed names that kelpd converts to Latin-1 with
"." for what Latin-1 lacks; all through the real kelpd."""
from selenium.webdriver.common.by import By

from web_helpers import configure, serve_feeds
from web_page import browser, chrome, feed_row, open_profile, wait, web  # noqa: F401

CAFE = "Caf\u00e9 \u2014 \u201cbest coffee\u201d \u2026 3 \u20ac"
WEATHER = "Rain \U0001F327 and sun \u2600"
CJK = "\u65e5\u672c\u8a9e\u306e\u30cb\u30e5\u30fc\u30b9"
CREME = "Cr\u00e8me br\u00fbl\u00e9e & <tags>"
LEGACY = "Caf\u00e9 \u201cquoted\u201d \u20ac 5"

UTF8_FEED = ('<?xml version="1.0" encoding="utf-8"?>\n<rss version="2.0"><channel><title>Utf</title>\n'
             '<item><title>%s</title><guid>a</guid><description>%s costs 3 \u20ac.</description></item>\n'
             '<item><title>%s</title><guid>b</guid><description>x</description></item>\n'
             '<item><title>%s</title><guid>c</guid><description>y</description></item>\n'
             '<item><title>Cr&#232;me br&#xFB;l&#233;e &amp; &lt;tags&gt;</title><guid>d</guid>'
             '<description>Cr&#232;me &#8364;</description></item>\n'
             '</channel></rss>\n') % (CAFE, CAFE, WEATHER, CJK)
# windows-1252: e-acute E9, curly quotes 93 94, euro 80; the title names
# the feed, and has characters Latin-1 lacks.
LEGACY_FEED = (b'<?xml version="1.0" encoding="windows-1252"?>\n<rss version="2.0"><channel>'
               b'<title>\xd6konomie \x93heute\x94</title>\n'
               b'<item><title>Caf\xe9 \x93quoted\x94 \x80 5</title><guid>a</guid>'
               b'<description>Gr\xfc\xdfe \x80</description></item>\n</channel></rss>\n')
DOC = ('<?xml version="1.0" encoding="utf-8"?>\n<pool>\n'
       '  <entry id="1" url="http://feeds.test/utf8.xml" name="Caf\u00e9 \u2615 Bar" poll="600" />\n'
       '  <entry id="2" url="http://feeds.test/legacy.xml" name="http://feeds.test/legacy.xml" poll="600" />\n'
       '</pool>\n<profiles>\n  <profile id="1">\n    <item entry="1" />\n    <item entry="2" />\n'
       '  </profile>\n</profiles>\n')


def prepare(ns):
    serve_feeds(ns, {"utf8.xml": UTF8_FEED, "legacy.xml": LEGACY_FEED})
    configure(ns, DOC)


def subjects(b):
    return [e.get_attribute("textContent") for e in b.find_elements(By.CSS_SELECTOR, "#items .subject")]


def test_texts_appear_exactly_as_the_feed_wrote_them(ns, web, browser):
    prepare(ns)
    b = browser
    open_profile(b, web, feeds=2)
    # A name from configd comes in Latin-1, with "." for what Latin-1
    # lacks. The legacy feed is named after its title at the first poll:
    # kelpd keeps that title's bytes (UTF-8 by then), and they come back
    # as they were.
    names = lambda d: [e.text for e in d.find_elements(By.CSS_SELECTOR, "#feeds .name")]  # noqa: E731
    wait(b, lambda d: names(d) == ["Caf\u00e9 . Bar", "\u00d6konomie \u201cheute\u201d"])
    feed_row(b, 1).click()
    wait(b, lambda d: subjects(d) == [CAFE, WEATHER, CJK, CREME])
    b.find_elements(By.CSS_SELECTOR, "#items li")[0].click()
    wait(b, lambda d: d.find_element(By.ID, "body").text == CAFE + " costs 3 \u20ac.")
    assert b.find_element(By.ID, "item-title").text == CAFE
    b.find_elements(By.CSS_SELECTOR, "#items li")[3].click()
    wait(b, lambda d: d.find_element(By.ID, "body").text == "Cr\u00e8me \u20ac")
    feed_row(b, 2).click()
    wait(b, lambda d: subjects(d) == [LEGACY])
    b.find_elements(By.CSS_SELECTOR, "#items li")[0].click()
    wait(b, lambda d: d.find_element(By.ID, "body").text == "Gr\u00fc\u00dfe \u20ac")
    # kelpctl shows the same texts (the page keeps kelpd running).
    cp = ns.kelpctl("login")
    assert cp.returncode == 0, cp.stderr
    assert cp.stdout == "FEED_ID  NAME\n1        Caf\u00e9 . Bar\n2        \u00d6konomie \u201cheute\u201d\n"
    cp = ns.kelpctl("overview", "1")
    assert cp.returncode == 0, cp.stderr
    lines = cp.stdout.splitlines()
    assert lines[0] == "feed 1 (Caf\u00e9 . Bar): 4 items, 2 new"
    assert [line.split(None, 4)[4] for line in lines[2:]] == [CAFE, WEATHER, CJK, CREME]
    uid = lines[3].split()[0]
    cp = ns.kelpctl("read", "1", uid)
    assert (cp.returncode, cp.stdout) == (0, "x\n")
