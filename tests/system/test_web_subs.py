"""Subscriptions in the page, through configd with configctl's conditional
saves: a feed added shows in `configctl get` and in the reader's feed list
(kelpd pushes it), renamed, moved, unsubscribed, subscribed and removed; a
profile added; a feed that someone else changed meanwhile refused with
words; bad URLs, configd away and bad OPML files refused with words and
nothing changed; OPML imported and downloaded."""
import os
import re

from selenium.webdriver.common.by import By

from web_helpers import configure, serve_feeds
from web_page import browser, chrome, feed_row, open_profile, wait, web  # noqa: F401

FEED = ('<?xml version="1.0" encoding="utf-8"?>\n<rss version="2.0"><channel><title>%s</title>\n'
        '<item><title>First</title><guid>a</guid><description>Text.</description></item>\n'
        '</channel></rss>\n')
DOC = ('<?xml version="1.0"?>\n<pool>\n  <entry id="1" url="http://feeds.test/a.xml" name="News" poll="600" />\n'
       '</pool>\n<profiles>\n  <profile id="1">\n    <item entry="1" />\n  </profile>\n</profiles>\n')


def prepare(ns, doc=DOC):
    """A feed server with a.xml and b.xml, and configd with doc; returns
    configd's process."""
    serve_feeds(ns, {"a.xml": FEED % "News", "b.xml": FEED % "Radio"})
    return configure(ns, doc)


def stored(ns):
    cp = ns.configctl("get", "rss")
    assert cp.returncode == 0, cp.stderr
    return cp.stdout


def open_dialog(b, feeds):
    b.find_element(By.ID, "manage").click()
    wait(b, lambda d: len(d.find_elements(By.CSS_SELECTOR, "#subs-feeds li")) == feeds)


def status(b):
    return b.find_element(By.ID, "subs-status").text


def wait_status(b, text):
    wait(b, lambda d: status(d) == text)
    assert "bad" not in b.find_element(By.ID, "subs-status").get_attribute("class").split()


def wait_refusal(b, text):
    wait(b, lambda d: status(d) == text)
    assert "bad" in b.find_element(By.ID, "subs-status").get_attribute("class").split()


def sub_row(b, feed_id):
    return b.find_element(By.CSS_SELECTOR, "#subs-feeds li[data-feed-id='%s']" % feed_id)


def add_feed(b, url, name=""):
    form = b.find_element(By.ID, "add-feed")
    form.find_element(By.NAME, "url").send_keys(url)
    if name:
        form.find_element(By.NAME, "name").send_keys(name)
    form.find_element(By.CSS_SELECTOR, "button").click()


def names(b):
    return [e.text for e in b.find_elements(By.CSS_SELECTOR, "#feeds .name")]


def test_a_feed_added_in_the_page_is_in_configd_and_in_the_feed_list(ns, web, browser):
    prepare(ns)
    b = browser
    open_profile(b, web, feeds=1)
    open_dialog(b, 1)
    add_feed(b, "http://feeds.test/b.xml", "Radio")
    wait_status(b, "Added feed 2.")
    doc = stored(ns)
    assert '<entry id="2" url="http://feeds.test/b.xml" name="Radio" />' in doc
    assert re.search(r'<profile id="1">\s*<item entry="1"[^>]*/>\s*<item entry="2" />', doc)
    wait(b, lambda d: len(d.find_elements(By.CSS_SELECTOR, "#subs-feeds li")) == 2)
    # kelpd saw the change and pushed the profile's new feed list.
    wait(b, lambda d: names(d) == ["News", "Radio"])


def test_rename_move_unsubscribe_subscribe_and_remove(ns, web, browser):
    prepare(ns, DOC.replace('</pool>', '  <entry id="2" url="http://feeds.test/b.xml" name="Radio" />\n</pool>')
               .replace('<item entry="1" />', '<item entry="1" />\n    <item entry="2" />'))
    b = browser
    open_profile(b, web, feeds=2)
    open_dialog(b, 2)
    sub_row(b, "2").find_element(By.CLASS_NAME, "edit-feed").click()
    form = sub_row(b, "2").find_element(By.TAG_NAME, "form")
    form.find_element(By.NAME, "name").clear()
    form.find_element(By.NAME, "name").send_keys("Radio one")
    form.find_element(By.NAME, "poll").send_keys("900")
    form.find_element(By.CLASS_NAME, "primary").click()
    wait_status(b, "Changed feed 2.")
    assert '<entry id="2" url="http://feeds.test/b.xml" name="Radio one" poll="900" />' in stored(ns)
    wait(b, lambda d: names(d) == ["News", "Radio one"])
    # Unsubscribed: gone from the reader's list; subscribed: back.
    sub_row(b, "2").find_element(By.CSS_SELECTOR, "input[type=checkbox]").click()
    wait_status(b, "Profile 1 no longer subscribes feed 2.")
    wait(b, lambda d: names(d) == ["News"])
    assert '<item entry="2"' not in stored(ns)
    wait(b, lambda d: not sub_row(d, "2").find_element(By.CSS_SELECTOR, "input[type=checkbox]").is_selected())
    sub_row(b, "2").find_element(By.CSS_SELECTOR, "input[type=checkbox]").click()
    wait_status(b, "Profile 1 subscribes feed 2.")
    wait(b, lambda d: names(d) == ["News", "Radio one"])
    # Removing asks once more before it is done.
    sub_row(b, "2").find_element(By.CLASS_NAME, "rm-feed").click()
    sub_row(b, "2").find_element(By.CLASS_NAME, "danger").click()
    wait_status(b, "Removed feed 2.")
    assert 'id="2"' not in stored(ns)
    wait(b, lambda d: names(d) == ["News"])
    wait(b, lambda d: len(d.find_elements(By.CSS_SELECTOR, "#subs-feeds li")) == 1)


def test_a_profile_added_in_the_page_is_opened(ns, web, browser):
    prepare(ns)
    b = browser
    open_profile(b, web, feeds=1)
    open_dialog(b, 1)
    form = b.find_element(By.ID, "add-profile")
    form.find_element(By.NAME, "profile").send_keys("3")
    form.find_element(By.TAG_NAME, "button").click()
    wait(b, lambda d: "profile=3" in d.current_url)
    assert '<profile id="3" />' in stored(ns)
    wait(b, lambda d: [o.text for o in d.find_elements(By.CSS_SELECTOR, "#profile option")] ==
         ["Profile 1", "Profile 3"])
    wait(b, lambda d: d.find_element(By.ID, "feeds-empty").text ==
         "This profile subscribes no feed yet: add one under Subscriptions.")


def test_a_feed_changed_meanwhile_is_refused_with_words(ns, web, browser):
    prepare(ns)
    b = browser
    open_profile(b, web, feeds=1)
    open_dialog(b, 1)
    sub_row(b, "1").find_element(By.CLASS_NAME, "edit-feed").click()
    # Someone else renames the feed while the form is open.
    cp = ns.configctl("feed", "set", "rss", "1", "--name", "Their name")
    assert cp.returncode == 0, cp.stderr
    form = sub_row(b, "1").find_element(By.TAG_NAME, "form")
    form.find_element(By.NAME, "name").clear()
    form.find_element(By.NAME, "name").send_keys("My name")
    form.find_element(By.CLASS_NAME, "primary").click()
    wait_refusal(b, "Cannot change the feed: someone else changed feed 1 meanwhile: reload and try again.")
    assert 'name="Their name"' in stored(ns)
    # Removing what someone else moved is refused alike.
    cp = ns.configctl("feed", "set", "rss", "1", "--url", "http://feeds.test/moved.xml")
    assert cp.returncode == 0, cp.stderr
    b.find_element(By.CSS_SELECTOR, "#subs-feeds li form button:not(.primary)").click()  # Cancel
    sub_row(b, "1").find_element(By.CLASS_NAME, "rm-feed").click()
    sub_row(b, "1").find_element(By.CLASS_NAME, "danger").click()
    wait_refusal(b, "Cannot remove the feed: someone else changed feed 1 meanwhile: reload and try again.")
    assert 'url="http://feeds.test/moved.xml"' in stored(ns)


def test_bad_urls_and_configd_away_are_refused_with_words(ns, web, browser):
    configd = prepare(ns)
    b = browser
    open_profile(b, web, feeds=1)
    open_dialog(b, 1)
    before = stored(ns)
    for url, why in (("javascript:alert(1)", "not an http or https URL: 'javascript:alert(1)'"),
                     ("ftp://feeds.test/x.xml", "not an http or https URL: 'ftp://feeds.test/x.xml'"),
                     ("http:///x.xml", "URL has no host: 'http:///x.xml'")):
        b.find_element(By.CSS_SELECTOR, "#add-feed input[name=url]").clear()
        add_feed(b, url)
        wait_refusal(b, "Cannot add the feed: %s." % why)
    b.find_element(By.CSS_SELECTOR, "#add-feed input[name=url]").clear()
    add_feed(b, "http://feeds.test/a.xml")
    wait_refusal(b, "Cannot add the feed: feed 1 has that URL already.")
    assert stored(ns) == before
    configd.terminate()
    configd.wait(15)
    b.find_element(By.CSS_SELECTOR, "#add-feed input[name=url]").clear()
    add_feed(b, "http://feeds.test/b.xml")
    wait_refusal(b, "Cannot add the feed: configd is not running (cannot connect to configd at /var/rpc/configd: "
                    "No such file or directory).")


OPML = ('<?xml version="1.0"?>\n<opml version="2.0"><head><title>Mine</title></head><body>\n'
        '<outline text="Radio" xmlUrl="http://feeds.test/b.xml" />\n'
        '<outline text="Again" xmlUrl="http://feeds.test/a.xml" />\n</body></opml>\n')


def opml_file(ns, name, text):
    path = os.path.join(ns.tmp, name)
    with open(path, "w") as f:
        f.write(text)
    os.chmod(path, 0o644)
    return path


def import_file(b, path):
    b.find_element(By.ID, "opml-file").send_keys(path)


def test_opml_import_refuses_bad_files_whole_and_takes_good_ones(ns, web, browser):
    prepare(ns)
    b = browser
    open_profile(b, web, feeds=1)
    open_dialog(b, 1)
    before = stored(ns)
    import_file(b, opml_file(ns, "page.html", "<html><body><p>not OPML</p></body></html>"))
    wait_refusal(b, "Cannot import page.html (nothing was imported): not an OPML document (no <opml> element).")
    bad = OPML.replace("http://feeds.test/a.xml", "file:///etc/passwd")
    import_file(b, opml_file(ns, "bad.opml", bad))
    wait_refusal(b, "Cannot import bad.opml (nothing was imported): "
                    "outline 2: not an http or https URL: 'file:///etc/passwd'.")
    import_file(b, opml_file(ns, "big.opml", OPML + " " * (1 << 20)))
    wait_refusal(b, "Cannot import big.opml: the file is larger than 1 MiB. Nothing was imported.")
    assert stored(ns) == before
    import_file(b, opml_file(ns, "mine.opml", OPML))
    wait_status(b, "Added feed 2: Radio <http://feeds.test/b.xml>\n"
                   "skipped http://feeds.test/a.xml (already in the pool as feed 1)\n"
                   "1 feeds added, 1 skipped")
    assert '<entry id="2" url="http://feeds.test/b.xml" name="Radio" />' in stored(ns)
    wait(b, lambda d: names(d) == ["News", "Radio"])


def test_an_oversized_opml_is_refused_by_kelp_web_too(ns, web):
    prepare(ns)
    before = stored(ns)
    status, body = web.post("/api/config/opml-import", {"domain": "rss", "opml": OPML + " " * (1 << 20)})
    assert (status, body) == (413, {"error": "the OPML file is larger than 1 MiB"})
    assert stored(ns) == before


def test_the_profiles_opml_is_downloaded(ns, web, browser):
    prepare(ns)
    b = browser
    where = os.path.join(ns.tmp, "downloads")
    os.makedirs(where)
    b.execute_cdp_cmd("Browser.setDownloadBehavior", {"behavior": "allow", "downloadPath": where})
    open_profile(b, web, feeds=1)
    open_dialog(b, 1)
    b.find_element(By.ID, "opml-export").click()
    path = os.path.join(where, "kelp-rss-profile-1.opml")
    wait(b, lambda d: os.path.exists(path) and os.path.getsize(path) > 0)
    with open(path) as f:
        got = f.read()
    cp = ns.configctl("opml", "export", "rss", "--profile", "1")
    assert got == cp.stdout
    assert 'xmlUrl="http://feeds.test/a.xml"' in got
    r, data = web.request("POST", "/api/config/opml-export", '{"domain":"rss","profile":1}',
                          {"Content-Type": "application/json", "Origin": web.origin})
    assert r.getheader("Content-Type") == "text/x-opml; charset=utf-8"
    assert r.getheader("Content-Disposition") == 'attachment; filename="kelp-rss-profile-1.opml"'
    assert data.decode() == cp.stdout


def test_texts_from_configd_are_shown_inert(ns, web, browser):
    name = '<img src=x onerror="window.pwned = 1">'
    prepare(ns, DOC.replace('name="News"', 'name="&lt;img src=x onerror=&quot;window.pwned = 1&quot;&gt;"'))
    b = browser
    open_profile(b, web, feeds=1)
    assert feed_row(b, 1).find_element(By.CLASS_NAME, "name").text == name
    open_dialog(b, 1)
    assert sub_row(b, "1").find_element(By.CLASS_NAME, "name").text == name
    assert b.execute_script("return document.querySelectorAll('#subs img, #feeds img').length") == 0
    assert b.execute_script("return typeof window.pwned") == "undefined"
