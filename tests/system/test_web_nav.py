"""The page's addresses and comfort, against a stand-in kelpd: a link opens
a profile, feed and item, the address follows what is open (reload and
back/forward work), the browser remembers the last profile, the picker
lists configd's profiles; the reader's title wraps in full, switching feeds
clears the reader, a phone gets a one-row header and 44 px touch targets,
colours follow the system's dark mode and keyboard focus is visible."""
import re

from selenium.webdriver.common.action_chains import ActionChains
from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys
from selenium.webdriver.support.ui import Select

from web_helpers import Item
from web_page import (NEWS, browser, chrome, feed_row, item_row, news_items, news_stub, open_profile,  # noqa: F401
                      stub, wait, web)


def body_text(b):
    return b.find_element(By.ID, "body").text


def address(b):
    return b.current_url.split("?", 1)[1] if "?" in b.current_url else ""


def test_a_link_opens_the_item_and_the_address_follows(ns, web, stub, browser):
    news_stub(stub)
    b = browser
    b.get(web.url + "?domain=rss&profile=1&feed=4&item=18")
    wait(b, lambda d: body_text(d) == "Music and talk.")
    assert b.find_element(By.ID, "panes").get_attribute("data-view") == "reader"
    assert "selected" in feed_row(b, 4).get_attribute("class").split()
    item_row(b, 19).click()
    wait(b, lambda d: body_text(d) == "Short outage.")
    assert address(b) == "domain=rss&profile=1&feed=4&item=19"
    feed_row(b, 9).click()
    wait(b, lambda d: address(d) == "domain=rss&profile=1&feed=9")
    b.back()
    wait(b, lambda d: body_text(d) == "Short outage." and address(d) == "domain=rss&profile=1&feed=4&item=19")
    b.back()
    wait(b, lambda d: body_text(d) == "Music and talk.")
    b.forward()
    wait(b, lambda d: body_text(d) == "Short outage.")
    b.refresh()
    wait(b, lambda d: body_text(d) == "Short outage.")
    assert b.find_element(By.ID, "item-title").text == "Maintenance tonight"


def test_the_browser_remembers_the_last_profile(ns, web, stub, browser):
    stub({NEWS: [(4, "Gateway news")], ("podcast", 3): [(7, "Radio")]}, news_items())
    b = browser
    open_profile(b, web, "podcast", 3, feeds=1)
    b.get(web.url)
    wait(b, lambda d: address(d) == "domain=podcast&profile=3")
    wait(b, lambda d: [e.text for e in d.find_elements(By.CSS_SELECTOR, "#feeds .name")] == ["Radio"])


PROFILES = {"rss": ("1", "2", "5"), "podcast": ("7",)}


def test_the_picker_lists_the_profiles_configd_holds(ns, web, stub, browser):
    ns.start_configd()
    for domain, ids in PROFILES.items():
        doc = ('<?xml version="1.0"?>\n<pool />\n<profiles>%s</profiles>\n'
               % "".join('<profile id="%s" />' % i for i in ids))
        assert ns.configctl("set", domain, "-", input=doc).returncode == 0
    d = stub({NEWS: [(4, "Gateway news")], ("rss", 5): [(4, "Gateway news"), (9, "Weather")],
              ("podcast", 7): [(7, "Radio")]}, news_items())
    b = browser
    open_profile(b, web, feeds=1)
    options = lambda: [o.text for o in b.find_elements(By.CSS_SELECTOR, "#profile option")]  # noqa: E731
    wait(b, lambda _: options() == ["Profile 1", "Profile 2", "Profile 5"])
    Select(b.find_element(By.ID, "profile")).select_by_visible_text("Profile 5")
    wait(b, lambda _: address(b) == "domain=rss&profile=5")
    wait(b, lambda x: len(x.find_elements(By.CSS_SELECTOR, "#feeds li")) == 2)
    assert d.logged_in(("rss", 5))
    Select(b.find_element(By.ID, "domain")).select_by_value("podcast")
    wait(b, lambda _: address(b) == "domain=podcast&profile=7")
    wait(b, lambda _: options() == ["Profile 7"])
    wait(b, lambda x: [e.text for e in x.find_elements(By.CSS_SELECTOR, "#feeds .name")] == ["Radio"])
    # A profile configd lacks (a bookmark of an old one) is still offered.
    b.get(web.url + "?domain=rss&profile=9")
    wait(b, lambda _: options() == ["Profile 1", "Profile 2", "Profile 5", "Profile 9 (not configured)"])


LONG = "A very long title " * 12


def test_reader_title_wraps_in_full_and_another_feed_clears_the_reader(ns, web, stub, browser):
    items = news_items()
    items[4].insert(0, Item(30, LONG.strip(), "Long read."))
    stub({NEWS: [(4, "Gateway news"), (9, "Local weather")]}, items)
    b = browser
    open_profile(b, web)
    feed_row(b, 4).click()
    item_row(b, 30).click()
    wait(b, lambda d: body_text(d) == "Long read.")
    title = b.find_element(By.ID, "item-title")
    assert title.text == LONG.strip()
    line = float(b.execute_script("return parseFloat(getComputedStyle(arguments[0]).lineHeight)", title))
    assert title.size["height"] > 2 * line
    assert b.execute_script("return arguments[0].scrollWidth <= arguments[0].clientWidth", title)
    feed_row(b, 9).click()
    wait(b, lambda d: b.find_element(By.ID, "item-title").text == "" and
         b.find_element(By.ID, "body").get_attribute("textContent") == "")


def viewport(b, w, h):
    b.set_window_size(w, h)
    iw, ih = b.execute_script("return [window.innerWidth, window.innerHeight]")
    b.set_window_size(w + w - iw, h + h - ih)


def test_a_phone_gets_a_one_row_header_and_44px_touch_targets(ns, web, stub, browser):
    news_stub(stub)
    b = browser
    viewport(b, 390, 844)
    open_profile(b, web)
    header = b.find_element(By.ID, "top")
    assert header.size["height"] <= 60
    tops = {round(e.location["y"] + e.size["height"] / 2) for e in header.find_elements(By.CSS_SELECTOR, "h1, select, button")}
    assert max(tops) - min(tops) <= 4  # one row
    assert b.execute_script("return document.documentElement.scrollWidth <= window.innerWidth")

    def big(e):
        return e.size["height"] >= 44 and e.size["width"] >= 44
    assert all(big(e) for e in header.find_elements(By.CSS_SELECTOR, "select, button"))
    assert all(e.size["height"] >= 44 for e in b.find_elements(By.CSS_SELECTOR, "#feeds li"))
    feed_row(b, 4).click()
    wait(b, lambda d: d.find_element(By.ID, "back-feeds").is_displayed())
    assert big(b.find_element(By.ID, "back-feeds"))
    assert all(e.size["height"] >= 44 for e in b.find_elements(By.CSS_SELECTOR, "#items li"))
    item_row(b, 19).click()
    wait(b, lambda d: d.find_element(By.ID, "back-items").is_displayed())
    assert big(b.find_element(By.ID, "back-items"))
    b.find_element(By.ID, "manage").click()
    wait(b, lambda d: d.find_element(By.ID, "subs").is_displayed())
    assert big(b.find_element(By.ID, "subs-close"))


def luminance(b, element):
    rgb = b.execute_script("return getComputedStyle(arguments[0]).backgroundColor", element)
    r, g, bl = (int(x) for x in re.findall(r"\d+", rgb)[:3])
    return (0.2126 * r + 0.7152 * g + 0.0722 * bl) / 255


def test_colours_follow_the_systems_dark_mode(ns, web, stub, browser):
    news_stub(stub)
    b = browser
    open_profile(b, web)
    light = (luminance(b, b.find_element(By.TAG_NAME, "body")), luminance(b, b.find_element(By.ID, "feeds-pane")))
    b.execute_cdp_cmd("Emulation.setEmulatedMedia", {"features": [{"name": "prefers-color-scheme", "value": "dark"}]})
    dark = (luminance(b, b.find_element(By.TAG_NAME, "body")), luminance(b, b.find_element(By.ID, "feeds-pane")))
    assert min(light) > 0.9 and max(dark) < 0.15
    colour = b.execute_script("return getComputedStyle(document.querySelector('#feeds .name')).color")
    assert sum(int(x) for x in re.findall(r"\d+", colour)[:3]) > 3 * 180  # light text on the dark panes


def test_keyboard_focus_is_visible(ns, web, stub, browser):
    news_stub(stub)
    b = browser
    open_profile(b, web)
    ActionChains(b).send_keys(Keys.TAB).perform()
    focused = b.switch_to.active_element
    assert focused.get_attribute("id") == "domain"
    style = b.execute_script("const s = getComputedStyle(document.activeElement);"
                             "return [s.outlineStyle, parseFloat(s.outlineWidth)]")
    assert style[0] != "none" and style[1] >= 2
