"""The page of kelp-web in the system tests: the fixtures (kelp-web, the
stand-in kelpd, one headless Chromium per test file and a window per test)
and the helpers that read the page."""
import shutil
import tempfile

import pytest
from selenium.common.exceptions import NoSuchElementException, StaleElementReferenceException
from selenium.webdriver.common.by import By
from selenium.webdriver.support.ui import WebDriverWait

from web_helpers import Item, KelpWeb, StubKelpd, chromium

NEWS = ("rss", 1)


@pytest.fixture
def web(ns):
    w = KelpWeb(ns)
    yield w
    w.stop()


@pytest.fixture
def stub(ns):
    made = []

    def start(feeds, items, online=True):
        d = StubKelpd(ns, feeds, items, online)
        made.append(d)
        return d
    yield start
    for d in made:
        d.close()


@pytest.fixture(scope="module")
def chrome():
    profile = tempfile.mkdtemp(prefix="kelp-chromium-")
    driver = chromium(profile)
    yield driver
    driver.quit()
    shutil.rmtree(profile, ignore_errors=True)


@pytest.fixture
def browser(chrome):
    """The shared Chromium with one window at the desktop size and the
    system's light colours; a test that needs a second browser opens a
    second window (its own page, its own session)."""
    yield chrome
    first = chrome.window_handles[0]
    for h in chrome.window_handles[1:]:
        chrome.switch_to.window(h)
        chrome.close()
    chrome.switch_to.window(first)
    chrome.execute_cdp_cmd("Emulation.setEmulatedMedia", {"features": []})
    chrome.set_window_size(1200, 800)
    chrome.get("about:blank")


def news_items():
    return {4: [Item(17, "Firmware 7.58 released", "Before image.After image.",
                     images=[("http://127.0.0.1:1/pic.png", 13)]),
                Item(18, "Episode 12", "Music and talk.", enclosure="http://127.0.0.1:1/ep12.mp3"),
                Item(19, "Maintenance tonight", "Short outage.")],
            9: [Item(1, "Sunny", "Clear skies.")]}


def news_stub(stub, online=True):
    return stub({NEWS: [(4, "Gateway news"), (9, "Local weather")]}, news_items(), online)


def wait(b, cond, timeout=15):
    """Until cond(b) holds; the page re-renders lists, so an element found a
    moment ago may have been replaced: that counts as not yet."""
    ignored = (NoSuchElementException, StaleElementReferenceException)
    return WebDriverWait(b, timeout, ignored_exceptions=ignored).until(lambda d: cond(d))


def click(b, find):
    """Clicks what find(b) returns; a list re-rendered between the find and
    the click is found again."""
    wait(b, lambda d: find(d).click() or True)


def open_profile(b, web, domain="rss", profile=1, feeds=2):
    """The page opened on a profile by its address, as a bookmark does."""
    b.get("%s?domain=%s&profile=%d" % (web.url, domain, profile))
    wait(b, lambda d: len(d.find_elements(By.CSS_SELECTOR, "#feeds li")) == feeds)
    wait(b, lambda d: not is_inert(d))


def is_inert(b):
    """Whether the panes take no clicks (kelpd is away)."""
    return b.execute_script("return document.getElementById('panes').inert")


def feed_row(b, feed_id):
    return b.find_element(By.CSS_SELECTOR, "#feeds li[data-feed-id='%d']" % feed_id)


def item_row(b, uid):
    return b.find_element(By.CSS_SELECTOR, "#items li[data-uid='%d']" % uid)


def unread_count(b, feed_id):
    return feed_row(b, feed_id).find_element(By.CLASS_NAME, "count").text


def is_read(b, uid):
    return "read" in item_row(b, uid).get_attribute("class").split()
