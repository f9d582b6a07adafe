"""kelp-web: the page and its headers, the JSON API and its origin check,
sessions that end with their browser, the per-session queue cap, and the
page itself in headless Chromium against a stand-in kelpd and the real one.

kelp-web runs in each test's mount namespace (it finds the control socket
there) but listens on the host's loopback, so that one Chromium, started
once for the file, can visit every test's kelp-web."""
import re
import socket

from selenium.webdriver.common.action_chains import ActionChains
from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys

from web_helpers import CTL, Item, configure, read_event, serve_feeds
from web_page import (NEWS, browser, chrome, feed_row, is_read, item_row, news_stub, open_profile,  # noqa: F401
                      stub, unread_count, wait, web)

SESSION_CLOSED = re.compile(r"^session [0-9a-f]{8} closed$")
CSP = ("default-src 'none'; script-src 'self'; style-src 'self'; connect-src 'self'; "
       "img-src http: https:; media-src http: https:; base-uri 'none'; form-action 'none'; "
       "frame-ancestors 'none'")


# --- HTTP ----------------------------------------------------------------------------

def test_a_port_in_use_is_named_with_the_reason(ns):
    taken = ns.listen_tcp("127.0.0.1")
    port = taken.getsockname()[1]
    cp = ns.run([ns.bin("kelp-web"), "--listen", "127.0.0.1:%d" % port])
    assert (cp.returncode, cp.stdout) == (1, "")
    assert cp.stderr == "kelp-web: cannot listen on 127.0.0.1:%d: Address already in use\n" % port
    taken.close()


def test_page_is_small_self_contained_and_locked_down(ns, web):
    r, page = web.request("GET", "/")
    assert r.status == 200
    assert r.getheader("Content-Type") == "text/html; charset=utf-8"
    assert r.getheader("Content-Security-Policy") == CSP
    assert r.getheader("X-Content-Type-Options") == "nosniff"
    assert r.getheader("Referrer-Policy") == "no-referrer"
    html = page.decode()
    assert re.findall(r"<script[^>]*>", html) == ['<script type="module" src="/app.js">']
    assert " on" not in re.sub(r">[^<]*<", "><", html)  # no inline event handlers
    assert not re.search(r"(src|href)=\"(https?:)?//", html)  # nothing fetched from elsewhere
    total = len(page)
    for path, ctype in (("/app.js", "text/javascript; charset=utf-8"), ("/subs.js", "text/javascript; charset=utf-8"),
                        ("/util.js", "text/javascript; charset=utf-8"), ("/app.css", "text/css; charset=utf-8"),
                        ("/favicon.svg", "image/svg+xml")):
        r, data = web.request("GET", path)
        assert r.status == 200 and r.getheader("Content-Type") == ctype
        total += len(data)
    assert total < 64 * 1024
    r, _ = web.request("GET", "/../etc/passwd")
    assert r.status == 404
    r, _ = web.request("DELETE", "/")
    assert r.status == 405


def test_posts_are_taken_only_from_the_page_origin(ns, web, stub):
    d = news_stub(stub)
    login = {"domain": "rss", "profile": 1}
    assert web.post("/api/session", login, origin=False) == (403, {"error": "requests are accepted from this page only"})
    assert web.post("/api/session", login, origin="http://evil.test")[0] == 403
    assert web.post("/api/session", login, origin="null")[0] == 403
    assert web.post("/api/session", login, origin=web.origin + ".evil.test")[0] == 403
    assert web.post("/api/session", login, ctype="text/plain")[0] == 415
    assert d.requests == []
    # The requests that change the configuration are guarded alike; they
    # are refused before configd (not running here) is asked.
    add = {"domain": "rss", "url": "http://feeds.test/x.xml"}
    for path in ("/api/config/feed-add", "/api/config/opml-import", "/api/config/list"):
        assert web.post(path, add, origin="http://evil.test") == \
            (403, {"error": "requests are accepted from this page only"})
        assert web.post(path, add, origin=False)[0] == 403
        assert web.post(path, add, ctype="text/plain")[0] == 415
    assert web.post("/api/config/feed-add", add)[0] == 503  # the page's own: configd is asked
    status, body = web.post("/api/session", login)
    assert status == 200 and re.fullmatch(r"[0-9a-f]{32}", body["session"])


def test_requests_for_foreign_host_names_are_refused(ns, web, stub):
    d = news_stub(stub)
    evil = "evil.test:%d" % web.port  # a name pointed at the loopback by its owner
    r, _ = web.request("GET", "/", headers={"Host": evil})
    assert r.status == 421
    r, _ = web.request("POST", "/api/session", '{"domain":"rss","profile":1}',
                       {"Host": evil, "Origin": "http://" + evil, "Content-Type": "application/json"})
    assert r.status == 421
    r, _ = web.request("GET", "/", headers={"Host": "localhost:%d" % web.port})
    assert r.status == 200
    assert d.requests == []


def test_malformed_requests_are_refused(ns, web, stub):
    d = news_stub(stub)
    assert web.post("/api/session", {"domain": "news", "profile": 1})[0] == 400
    assert web.post("/api/session", {"domain": "rss", "profile": -1})[0] == 400
    assert web.post("/api/session", {"domain": "rss", "profile": 4294967296})[0] == 400
    assert web.post("/api/session", "{\"domain\":\"rss\",")[0] == 400
    assert web.post("/api/session", "x" * 5000)[0] == 413
    token = web.open_session()
    d.wait_requests(1)  # the login went up; nothing else may
    for bad in ({"session": token, "cmd": "login"}, {"session": token, "cmd": "body", "feed_id": 4},
                {"session": token, "cmd": "body\tdomain:podcast", "feed_id": 4, "uid": 1},
                {"session": token, "cmd": "body", "feed_id": "4 uid:1", "uid": 1}):
        assert web.post("/api/request", bad)[0] == 400
    assert web.post("/api/request", {"session": "0" * 32, "cmd": "status"})[0] == 404
    r, _ = web.request("GET", "/api/events?session=" + "0" * 32)
    assert r.status == 404
    assert [req.split(b"\t")[0] for req in d.requests] == [b"login"]


def test_events_carry_kelpd_messages_and_requests_go_up(ns, web, stub):
    d = news_stub(stub)
    token = web.open_session()
    sock, head = web.events(token)
    assert head.startswith("HTTP/1.1 200 ")
    assert "Content-Type: text/event-stream" in head
    buf = [b""]
    login = read_event(sock, buf)
    assert login == {"type": "answer", "ok": True, "cmd": "login", "domain": "rss", "profile_id": 1,
                     "feeds": [{"name": "Gateway news", "feed_id": 4}, {"name": "Local weather", "feed_id": 9}]}
    assert read_event(sock, buf)["feed_id"] == 4
    assert read_event(sock, buf)["items"] == [{"uid": 1, "state": 0, "subject": "Sunny"}]
    assert web.post("/api/request", {"session": token, "cmd": "body", "feed_id": 4, "uid": 17}) == (202, {})
    assert read_event(sock, buf) == {"type": "answer", "ok": True, "cmd": "body", "domain": "rss", "profile_id": 1,
                                     "feed_id": 4, "uid": 17, "body": "Before image.After image.",
                                     "images": [{"url": "http://127.0.0.1:1/pic.png", "offset": 13}]}
    assert d.requests == [b"login\tv:3\tdomain:rss\tprofile_id:1", b"body\tdomain:rss\tprofile_id:1\tfeed_id:4\tuid:17"]
    # One stream per session.
    r, _ = web.request("GET", "/api/events?session=" + token)
    assert r.status == 409
    sock.close()


def test_a_browser_that_goes_away_closes_its_control_connection(ns, web, stub):
    d = news_stub(stub)
    token = web.open_session()
    sock, _ = web.events(token)
    read_event(sock, [b""])
    assert d.connection_count() == 1
    sock.close()
    assert d.closed.acquire(timeout=15)
    ns.syslog.wait_for(SESSION_CLOSED, ident="kelp-web")
    assert web.post("/api/request", {"session": token, "cmd": "status"})[0] == 404


def test_logout_closes_the_control_connection(ns, web, stub):
    d = news_stub(stub)
    token = web.open_session()
    sock, _ = web.events(token)
    assert web.post("/api/logout", {"session": token}) == (200, {})
    assert d.closed.acquire(timeout=15)
    sock.settimeout(15)
    rest = b""
    while True:  # the stream ends too
        chunk = sock.recv(65536)
        if not chunk:
            break
        rest += chunk
    sock.close()


def test_a_browser_that_stops_reading_is_dropped(ns, web, stub):
    d = news_stub(stub)
    token = web.open_session()
    # The session's login reaches the stub on its own; until then the
    # pushes below would have no one to go to.
    ns._wait_until(lambda: d.logged_in(NEWS), 15, "the session's login")
    sock, _ = web.events(token)  # and never read again
    sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
    big = d.overview(NEWS, 4) + "\tuid:99\tstate:0\tsubject:" + "x" * 100000  # one 128 KiB packet
    for _ in range(1000):  # far more than the queue cap and the socket buffers hold
        if d.connection_count() == 0:
            break
        d.send_all(NEWS, big)
    ns.syslog.wait_for(re.compile(r"^session [0-9a-f]{8} dropped: its browser does not keep up$"), ident="kelp-web")
    assert d.closed.acquire(timeout=15)
    sock.close()
    ns.syslog.wait_for(SESSION_CLOSED, ident="kelp-web")


# --- the page in Chromium ---------------------------------------------------------------

def test_read_an_item_and_a_second_browser_sees_it_read(ns, web, stub, browser):
    news_stub(stub)
    b = browser
    open_profile(b, web)
    first = b.current_window_handle
    b.switch_to.new_window("window")
    open_profile(b, web)
    feed_row(b, 4).click()
    wait(b, lambda d: len(d.find_elements(By.CSS_SELECTOR, "#items li")) == 3)
    assert not is_read(b, 17)
    b.switch_to.window(first)
    assert unread_count(b, 4) == "3" and unread_count(b, 9) == "1"
    feed_row(b, 4).click()
    wait(b, lambda d: len(d.find_elements(By.CSS_SELECTOR, "#items li")) == 3)
    marks = [[m.text for m in li.find_elements(By.CLASS_NAME, "mark")]
             for li in b.find_elements(By.CSS_SELECTOR, "#items li")]
    assert marks == [["img"], ["audio"], []]
    item_row(b, 17).click()
    wait(b, lambda d: "After image." in d.find_element(By.ID, "body").text)
    # The image stands at its offset, between the two texts.
    nodes = b.execute_script("return Array.from(document.getElementById('body').childNodes)"
                             ".map(n => n.nodeType === 3 ? n.textContent : n.tagName + ' ' + n.src)")
    assert nodes == ["Before image.", "IMG http://127.0.0.1:1/pic.png", "After image."]
    wait(b, lambda d: is_read(d, 17) and unread_count(d, 4) == "2")
    # The other browser is told by kelpd, without reloading.
    b.switch_to.window(b.window_handles[1])
    wait(b, lambda d: is_read(d, 17))
    assert unread_count(b, 4) == "2" and not is_read(b, 18)
    # Keyboard: the next item opens with Enter; its enclosure gets a player.
    b.switch_to.window(first)
    body = b.find_element(By.TAG_NAME, "body")
    body.send_keys("j")
    wait(b, lambda d: "cursor" in item_row(d, 18).get_attribute("class"))
    body.send_keys(Keys.ENTER)
    audio = wait(b, lambda d: d.find_elements(By.CSS_SELECTOR, "#enclosure audio"))
    assert audio[0].get_attribute("src") == "http://127.0.0.1:1/ep12.mp3"
    wait(b, lambda d: is_read(d, 18) and unread_count(d, 4) == "1")


def test_keyboard_alone_reads_an_item(ns, web, stub, browser):
    news_stub(stub)
    b = browser
    open_profile(b, web)
    keys = ActionChains(b)
    keys.send_keys("j").perform()  # straight after the page opened: the keys go to the lists
    wait(b, lambda d: "cursor" in feed_row(d, 4).get_attribute("class"))
    keys.send_keys("j").send_keys("k").send_keys(Keys.ENTER).perform()
    wait(b, lambda d: d.find_element(By.ID, "feed-title").text == "Gateway news")
    keys.send_keys("j").send_keys("j").send_keys("j").send_keys(Keys.ENTER).perform()
    wait(b, lambda d: d.find_element(By.ID, "body").text == "Short outage.")
    wait(b, lambda d: is_read(d, 19))
    keys.send_keys("k").perform()  # in the reader, k opens the previous item
    wait(b, lambda d: d.find_element(By.ID, "body").text == "Music and talk.")
    keys.send_keys(Keys.ESCAPE).send_keys(Keys.ESCAPE).perform()
    wait(b, lambda d: d.find_element(By.ID, "panes").get_attribute("data-view") == "feeds")


def test_hostile_feed_texts_are_shown_inert(ns, web, stub, browser):
    huge = "W" * 30000
    items = {4: [Item(1, "<script>window.pwned = 2</script>", "<b>bold</b><script>window.pwned = 3</script>",
                      enclosure="javascript:window.pwned = 5",
                      images=[("javascript:window.pwned = 4", 0), ("data:image/png;base64,AAAA", 3),
                              ("//127.0.0.1:1/relative.png", 4), ("http://127.0.0.1:1/ok.png", 11)]),
                 Item(2, huge, "x")]}
    name = '<img src=x onerror="window.pwned = 1">'
    stub({NEWS: [(4, name)]}, items)
    b = browser
    open_profile(b, web, feeds=1)
    assert feed_row(b, 4).find_element(By.CLASS_NAME, "name").text == name
    feed_row(b, 4).click()
    wait(b, lambda d: len(d.find_elements(By.CSS_SELECTOR, "#items li")) == 2)
    assert item_row(b, 1).find_element(By.CLASS_NAME, "subject").text == "<script>window.pwned = 2</script>"
    assert item_row(b, 2).find_element(By.CLASS_NAME, "subject").get_attribute("textContent") == huge
    item_row(b, 1).click()
    wait(b, lambda d: "bold" in d.find_element(By.ID, "body").text)
    wait(b, lambda d: is_read(d, 1))
    note = wait(b, lambda d: d.find_elements(By.CSS_SELECTOR, "#enclosure .unsafe"))
    assert "not http(s)" in note[0].text
    assert b.find_element(By.ID, "body").get_attribute("textContent") == \
        "<b>bold</b><script>window.pwned = 3</script>"
    imgs = b.find_elements(By.CSS_SELECTOR, "#body img")
    assert [i.get_attribute("src") for i in imgs] == ["http://127.0.0.1:1/ok.png"]
    assert b.find_elements(By.CSS_SELECTOR, "#enclosure audio, #enclosure a") == []
    assert b.execute_script("return document.querySelectorAll('script').length") == 1
    assert b.execute_script("return document.querySelectorAll('#panes img:not(#body img), #panes b').length") == 0
    assert b.execute_script("return typeof window.pwned") == "undefined"
    # The huge title does not push the page wider than the window.
    item_row(b, 2).click()
    wait(b, lambda d: d.find_element(By.ID, "body").text == "x")
    assert b.execute_script("return document.documentElement.scrollWidth <= window.innerWidth")


def test_internet_banner_follows_kelpd(ns, web, stub, browser):
    d = news_stub(stub, online=False)
    b = browser
    open_profile(b, web)
    banner = b.find_element(By.ID, "offline")
    wait(b, lambda _: banner.is_displayed())
    assert "internet connection is down" in banner.text
    d.set_online(True)
    wait(b, lambda _: not banner.is_displayed())
    d.set_online(False)
    wait(b, lambda _: banner.is_displayed())


def test_renames_and_new_items_appear_without_reloading(ns, web, stub, browser):
    d = news_stub(stub)
    b = browser
    open_profile(b, web)
    feed_row(b, 9).click()
    wait(b, lambda d: len(d.find_elements(By.CSS_SELECTOR, "#items li")) == 1)
    d.feeds[NEWS] = [(4, "Gateway news"), (9, "Weather in town")]
    d.items[9].insert(0, Item(2, "Storm warning", "Wind."))
    d.send_all(NEWS, d.accounts(NEWS))
    d.send_all(NEWS, d.overview(NEWS, 9))
    wait(b, lambda d: feed_row(d, 9).find_element(By.CLASS_NAME, "name").text == "Weather in town")
    wait(b, lambda d: len(d.find_elements(By.CSS_SELECTOR, "#items li")) == 2)
    assert b.find_element(By.ID, "feed-title").text == "Weather in town"
    assert unread_count(b, 9) == "2"
    assert item_row(b, 2).find_element(By.CLASS_NAME, "subject").text == "Storm warning"


def test_phone_sized_screen_shows_one_pane_at_a_time(ns, web, stub, browser):
    news_stub(stub)
    b = browser
    b.set_window_size(390, 800)
    open_profile(b, web)
    panes = {p: b.find_element(By.ID, p + "-pane") for p in ("feeds", "items", "reader")}

    def shown():
        return [p for p, e in panes.items() if e.is_displayed()]
    assert shown() == ["feeds"]
    feed_row(b, 4).click()
    wait(b, lambda _: shown() == ["items"])
    item_row(b, 19).click()
    wait(b, lambda _: shown() == ["reader"])
    wait(b, lambda d: d.find_element(By.ID, "body").text == "Short outage.")
    b.find_element(By.ID, "back-items").click()
    wait(b, lambda _: shown() == ["items"])
    assert b.execute_script("return document.documentElement.scrollWidth <= window.innerWidth")


def test_kelp_web_ends_cleanly_while_a_page_is_open(ns, web, stub, browser):
    d = news_stub(stub)
    open_profile(browser, web)
    web.stop()  # exit status 0, its streams ended first
    assert d.closed.acquire(timeout=15)
    ns.syslog.wait_for("stopped", ident="kelp-web")


# --- against the real kelpd ------------------------------------------------------------

DOC = ('<?xml version="1.0"?>\n'
       '<pool><entry id="1" url="http://feeds.test/a.xml" name="News" />'
       '<entry id="12" url="http://feeds.test/b.xml" name="Caf\u00e9 Radio" /></pool>\n'
       '<profiles><profile id="1"><item entry="1" /><item entry="12" /></profile></profiles>\n')


def test_real_kelpd_lists_the_feeds_and_reports_no_internet(ns, web, browser):
    configure(ns, DOC)
    ns.internet(False)
    _, pid = ns.start_kelpd("-vvv")
    assert pid
    ns.syslog.wait_for("incoming config data (handle=1)")
    ns.syslog.wait_for("incoming config data (handle=2)")
    keeper = ns.connect_unix(CTL)  # the daemon stays while a client is there
    b = browser
    open_profile(b, web)
    names = [e.text for e in b.find_elements(By.CSS_SELECTOR, "#feeds .name")]
    assert names == ["News", "Caf\u00e9 Radio"]
    wait(b, lambda d: d.find_element(By.ID, "offline").is_displayed())
    ns.syslog.wait_for(re.compile(r"^instance with api-version 3 logging in for profile 1 in domain rss"))
    keeper.close()


FEED = ('<?xml version="1.0" encoding="utf-8"?>\n<rss version="2.0"><channel><title>Kelp News</title>\n'
        '<item><title>Firmware &lt;script&gt;window.pwned = 1&lt;/script&gt;</title><guid>a</guid>'
        '<description>New firmware for your gateway.</description></item>\n'
        '<item><title>Episode 12</title><guid>b</guid><description>Music and talk.</description>'
        '<enclosure url="http://feeds.test/ep12.mp3" type="audio/mpeg" length="1" /></item>\n'
        '</channel></rss>\n')
POLLED = ('<?xml version="1.0"?>\n<pool><entry id="1" url="http://feeds.test/a.xml" poll="600" /></pool>\n'
          '<profiles><profile id="1"><item entry="1" /></profile></profiles>\n')


def test_real_kelpd_polls_and_a_read_reaches_the_second_browser(ns, web, browser):
    serve_feeds(ns, {"a.xml": FEED})
    configure(ns, POLLED)
    _, pid = ns.start_kelpd("-vvv")
    assert pid
    ns.syslog.wait_for("incoming config data (handle=1)")
    ns.syslog.wait_for("incoming config data (handle=2)")
    keeper = ns.connect_unix(CTL)
    b = browser
    open_profile(b, web, feeds=1)
    first = b.current_window_handle
    # The first poll names the feed after its title and brings its items.
    wait(b, lambda d: feed_row(d, 1).find_element(By.CLASS_NAME, "name").text == "Kelp News")
    wait(b, lambda d: unread_count(d, 1) == "2")
    b.switch_to.new_window("window")
    open_profile(b, web, feeds=1)
    feed_row(b, 1).click()
    wait(b, lambda d: len(d.find_elements(By.CSS_SELECTOR, "#items li")) == 2)
    b.switch_to.window(first)
    feed_row(b, 1).click()
    rows = wait(b, lambda d: d.find_elements(By.CSS_SELECTOR, "#items li"))
    subject = rows[0].find_element(By.CLASS_NAME, "subject").text
    assert "window.pwned" in subject
    assert [m.text for m in rows[1].find_elements(By.CLASS_NAME, "mark")] == ["audio"]
    rows[1].click()
    audio = wait(b, lambda d: d.find_elements(By.CSS_SELECTOR, "#enclosure audio"))
    assert audio[0].get_attribute("src") == "http://feeds.test/ep12.mp3"
    wait(b, lambda d: "Music and talk." in d.find_element(By.ID, "body").text)
    wait(b, lambda d: unread_count(d, 1) == "1")
    b.switch_to.window(b.window_handles[1])
    wait(b, lambda d: "read" in d.find_elements(By.CSS_SELECTOR, "#items li")[1].get_attribute("class").split())
    assert unread_count(b, 1) == "1"
    assert b.execute_script("return typeof window.pwned") == "undefined"
    keeper.close()
