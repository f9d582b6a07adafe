"""Screenshots of kelp-web for people to look at (`make screenshots`): the
page against configd, the real kelpd and a local feed server in a private
namespace, in headless Chromium at 1280x800 and 390x844, light and dark:
the feeds, a feed's items, an item, the subscriptions dialog and kelpd
away. Not a test: it asserts nothing beyond the page coming up.

Usage: web_screenshots.py BINDIR OUTDIR   (as root)"""
import os
import sys
import tempfile
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import kelpns  # noqa: E402
from selenium.webdriver.common.by import By  # noqa: E402
from selenium.webdriver.support.ui import WebDriverWait  # noqa: E402
from web_helpers import KelpWeb, chromium, configure, serve_feeds  # noqa: E402

SIZES = {"desktop": (1280, 800), "phone": (390, 844)}

NEWS = ("Gateway news", [
    ("Caf\u00e9 \u2014 \u201cbest coffee\u201d \u2026 3 \u20ac: the new firmware brings a much longer title that "
     "wraps over several lines in the reader", "Firmware 7.58 is out. It brings faster Wi-Fi roaming, "
     "a new parental control page and many small fixes.\n\nUpdate from the gateway's own page."),
    ("Maintenance tonight \U0001F527", "Short outage between 2 and 3 am."),
    ("\u65e5\u672c\u8a9e\u306e\u30cb\u30e5\u30fc\u30b9", "CJK text as the feed wrote it."),
])
RADIO = ("Weekly radio show", [("Episode 12", "Music and talk.")])


def rss(title, items, enclosure=None):
    out = ['<?xml version="1.0" encoding="utf-8"?>\n<rss version="2.0"><channel><title>%s</title>' % title]
    for n, (t, body) in enumerate(items):
        encl = '<enclosure url="%s" type="audio/mpeg" length="1" />' % enclosure if enclosure else ""
        out.append("<item><title>%s</title><guid>i%d</guid><description>%s</description>%s</item>"
                   % (t, n, body, encl))
    out.append("</channel></rss>\n")
    return "\n".join(out)


DOC = ('<?xml version="1.0" encoding="utf-8"?>\n<pool>\n'
       '  <entry id="1" url="http://feeds.test/news.xml" name="http://feeds.test/news.xml" poll="600" />\n'
       '  <entry id="2" url="http://feeds.test/radio.xml" name="http://feeds.test/radio.xml" />\n'
       '  <entry id="3" url="http://feeds.test/none.xml" name="Caf\u00e9 \u2615 Bar" />\n</pool>\n'
       '<profiles>\n  <profile id="1">\n    <item entry="1" />\n    <item entry="2" />\n    <item entry="3" />\n'
       '  </profile>\n  <profile id="2">\n    <item entry="2" />\n  </profile>\n</profiles>\n')


def setup(ns):
    serve_feeds(ns, {"news.xml": rss(*NEWS), "radio.xml": rss(*RADIO, enclosure="http://feeds.test/ep.mp3")})
    return configure(ns, DOC)


def until(b, cond, timeout=30):
    return WebDriverWait(b, timeout).until(lambda d: cond(d))


def shoot(b, out, name):
    time.sleep(0.3)  # let the last paint settle; the picture is for people
    b.save_screenshot(os.path.join(out, name + ".png"))
    print(os.path.join(out, name + ".png"))


def viewport(b, w, h):
    """The page's viewport, not the window, at w x h."""
    b.set_window_size(w, h)
    iw, ih = b.execute_script("return [window.innerWidth, window.innerHeight]")
    b.set_window_size(w + w - iw, h + h - ih)


def series(b, web, out, tag):
    b.get(web.url + "?domain=rss&profile=1")
    until(b, lambda d: "Gateway news" in d.find_element(By.ID, "feeds").text)
    shoot(b, out, tag + "-feeds")
    b.find_element(By.CSS_SELECTOR, "#feeds li[data-feed-id='1']").click()
    until(b, lambda d: len(d.find_elements(By.CSS_SELECTOR, "#items li")) == 3)
    shoot(b, out, tag + "-items")
    b.find_elements(By.CSS_SELECTOR, "#items li")[0].click()
    until(b, lambda d: "Firmware" in d.find_element(By.ID, "body").text)
    shoot(b, out, tag + "-reader")
    b.find_element(By.ID, "manage").click()
    until(b, lambda d: len(d.find_elements(By.CSS_SELECTOR, "#subs-feeds li")) == 3)
    shoot(b, out, tag + "-subscriptions")


def main(bindir, out):
    os.makedirs(out, exist_ok=True)
    kelpns.set_subreaper()
    ns = kelpns.Namespace(os.path.abspath(bindir))
    b = None
    try:
        configd = setup(ns)
        web = KelpWeb(ns)
        b = chromium(tempfile.mkdtemp(prefix="kelp-shots-"))
        for scheme in ("light", "dark"):
            b.execute_cdp_cmd("Emulation.setEmulatedMedia",
                              {"features": [{"name": "prefers-color-scheme", "value": scheme}]})
            for size, (w, h) in SIZES.items():
                viewport(b, w, h)
                series(b, web, out, "%s-%s" % (size, scheme))
        # kelpd away: configd stopped, kelp-web cannot start kelpd again.
        b.execute_cdp_cmd("Emulation.setEmulatedMedia", {"features": []})
        viewport(b, 1280, 800)
        b.get(web.url + "?domain=rss&profile=1")
        until(b, lambda d: "Gateway news" in d.find_element(By.ID, "feeds").text)
        configd.terminate()
        until(b, lambda d: "Trying again" in d.find_element(By.ID, "kelpd").text)
        shoot(b, out, "desktop-light-kelpd-away")
        web.stop()
    finally:
        if b is not None:
            b.quit()
        ns.close()


if __name__ == "__main__":
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    main(sys.argv[1], sys.argv[2])
