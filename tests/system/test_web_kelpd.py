"""kelp-web starts kelpd when a page needs it: opening a profile with no
kelpd running, kelpd ended by SIGTERM while a page is open (the page works
again without a reload), kelpd that cannot start while configd is away (the
page says so and takes no clicks, then comes back by itself), and no
connection held once no page is open, so that kelpd ends as it does."""
import re
import signal

from selenium.webdriver.common.action_chains import ActionChains
from selenium.webdriver.common.by import By

from web_helpers import KelpWeb, configure, serve_feeds
from web_page import browser, chrome, click, feed_row, is_inert, open_profile, wait, web  # noqa: F401

GONE = re.compile(r"^kelpd has gone; next try in (\d+) ms$")
CANNOT = re.compile(r"^kelpd could not be started: kelpd ended right after it started \(is configd running\? "
                    r"see the system log\); next try in (\d+) ms$")

FEED = ('<?xml version="1.0" encoding="utf-8"?>\n<rss version="2.0"><channel><title>Kelp News</title>\n'
        '<item><title>Firmware 7.58</title><guid>a</guid><description>New firmware.</description></item>\n'
        '<item><title>Maintenance</title><guid>b</guid><description>Short outage.</description></item>\n'
        '</channel></rss>\n')
DOC = ('<?xml version="1.0"?>\n<pool><entry id="1" url="http://feeds.test/a.xml" name="News" poll="600" /></pool>\n'
       '<profiles><profile id="1"><item entry="1" /></profile></profiles>\n')


def read_item(b, index, text):
    """Opens feed 1 and its item at index, and waits for the item's text."""
    click(b, lambda d: feed_row(d, 1))
    wait(b, lambda d: len(d.find_elements(By.CSS_SELECTOR, "#items li")) == 2)
    click(b, lambda d: d.find_elements(By.CSS_SELECTOR, "#items li")[index])
    wait(b, lambda d: d.find_element(By.ID, "body").text == text)
    wait(b, lambda d: "read" in d.find_elements(By.CSS_SELECTOR, "#items li")[index].get_attribute("class").split())


def banner(b):
    e = b.find_element(By.ID, "kelpd")
    return e.text if e.is_displayed() else ""


def test_opening_a_profile_starts_the_kelpd_beside_kelp_web(ns, browser):
    # No --kelpd: the kelpd of the build tree, beside kelp-web. It runs in
    # the host's network, where no feed server of this test answers: the
    # feed's port 9 refuses, and the page lists the feed all the same.
    configure(ns, DOC.replace("http://feeds.test/a.xml", "http://feeds.test:9/a.xml"))
    w = KelpWeb(ns, kelpd=None)
    b = browser
    open_profile(b, w, feeds=1)
    assert feed_row(b, 1).find_element(By.CLASS_NAME, "name").text == "News"
    ns.syslog.wait_for("starting kelpd (%s)" % ns.bin("kelpd"), ident="kelp-web")
    pid = w.started()[0]
    assert ns.alive(pid)
    # The page goes: kelp-web lets its connection go, and kelpd ends.
    b.get("about:blank")
    assert ns.wait_exit(pid) == 0
    w.stop()


def test_kelpd_ended_by_sigterm_comes_back_without_a_reload(ns, web, browser):
    serve_feeds(ns, {"a.xml": FEED})
    configure(ns, DOC)
    b = browser
    open_profile(b, web, feeds=1)
    first = web.started()[0]
    ns.syslog.wait_for(re.compile(r"^instance with api-version 3 logging in for profile 1 in domain rss"))
    read_item(b, 0, "New firmware.")
    ns.signal(first, signal.SIGTERM)
    assert ns.wait_exit(first) == 0
    ns.syslog.wait_for(GONE, ident="kelp-web")
    second = web.started(2)[1]
    assert second != first
    # The same page, logged in again: the list is live and reads go up.
    wait(b, lambda d: banner(d) == "" and not is_inert(d))
    read_item(b, 1, "Short outage.")


def test_while_kelpd_cannot_start_the_page_says_so_and_takes_no_clicks(ns, web, browser):
    serve_feeds(ns, {"a.xml": FEED})
    configd = configure(ns, DOC)
    b = browser
    open_profile(b, web, feeds=1)
    pid = web.started()[0]
    # configd goes: kelpd lets its clients go and ends, and cannot start
    # again without it.
    configd.terminate()
    configd.wait(15)
    assert ns.wait_exit(pid) == 0
    ns.syslog.wait_for(CANNOT, ident="kelp-web")
    wait(b, lambda d: banner(d).startswith("kelpd ended right after it started (is configd running? "
                                           "see the system log). Trying again in "))
    panes = b.find_element(By.ID, "panes")
    assert is_inert(b)
    assert "stale" in panes.get_attribute("class").split()
    # Nothing stale can be clicked: a click on the feed goes nowhere.
    ActionChains(b).move_to_element(feed_row(b, 1)).click().perform()
    assert panes.get_attribute("data-view") == "feeds"
    assert "selected" not in feed_row(b, 1).get_attribute("class").split()
    # configd is back: kelpd starts at the next try, the page goes on.
    ns.start_configd()
    wait(b, lambda d: banner(d) == "", timeout=60)
    read_item(b, 1, "Short outage.")



NEXT_TRY = re.compile(r"; next try in (\d+) ms$")


def test_a_configuration_that_ends_kelpd_at_once_is_tried_with_growing_pauses(ns, web, browser):
    # No profile subscribes anything: kelpd ends as soon as it has the
    # configuration. kelp-web tries again, each pause twice the last.
    serve_feeds(ns, {"a.xml": FEED})
    configure(ns, '<?xml version="1.0"?>\n<pool />\n<profiles><profile id="1" /></profiles>\n')
    b = browser
    b.get(web.url + "?domain=rss&profile=1")
    ns.syslog.wait_count(NEXT_TRY, 3, ident="kelp-web", timeout=60)
    pauses = [int(NEXT_TRY.search(t).group(1)) for t in ns.syslog.texts("kelp-web") if NEXT_TRY.search(t)]
    assert pauses[:3] == [500, 1000, 2000]
    wait(b, lambda d: re.fullmatch(r"kelpd (has stopped \(it stops by itself when no profile reads a feed\)|ended right "
                                   r"after it started \(is configd running\? see the system log\))\. "
                                   r"Trying again in \d+ s\u2026", banner(d)))
    assert is_inert(b)
    # The household's first feed, added in the page, ends the pause: kelpd
    # starts and stays.
    b.find_element(By.ID, "manage").click()
    b.find_element(By.CSS_SELECTOR, "#add-feed input[name=url]").send_keys("http://feeds.test/a.xml")
    b.find_element(By.CSS_SELECTOR, "#add-feed button").click()
    wait(b, lambda d: d.find_element(By.ID, "subs-status").text == "Added feed 1.")
    b.find_element(By.ID, "subs-close").click()
    wait(b, lambda d: banner(d) == "" and not is_inert(d), timeout=30)
    wait(b, lambda d: [e.text for e in d.find_elements(By.CSS_SELECTOR, "#feeds .name")] == ["Kelp News"])
