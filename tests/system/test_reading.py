"""Reading items with the real kelpd, configd and a feed served by nginx:
what the reader, its profile's other connections and the other subscribing
profiles receive, the marks configd stores, and the marks after a restart of
both daemons."""
import os
import re
import signal
import subprocess

from kelpd_client import Client
from refresh_helpers import fnv

URL = "http://feeds.test/a.xml"
DOC = ('<?xml version="1.0"?>\n'
       '<pool><entry id="1" url="%s" name="News" poll="1200" /></pool>\n'
       '<profiles><profile id="1"><item entry="1" /></profile>'
       '<profile id="2"><item entry="1" /></profile></profiles>\n' % URL)
ITEMS = [
    ("Kettle recall", "<p>All kettles of series K.</p>",
     '<enclosure url="http://feeds.test/k.mp3" type="audio/mpeg" length="1" />'),
    ("Lighthouse opens", 'See <img src="http://feeds.test/l.png"> the tower.', ""),
    ("Market report", "Prices are up.", ""),
]


def rss(items):
    out = ['<?xml version="1.0" encoding="utf-8"?>\n<rss version="2.0"><channel><title>News</title>']
    for i, (title, body, extra) in enumerate(items):
        out.append("<item><title>%s</title><guid>g-%s</guid><description><![CDATA[%s]]></description>%s</item>"
                   % (title, title, body, extra))
    out.append("</channel></rss>\n")
    return "".join(out)


def serve(ns, items):
    www = os.path.join(ns.tmp, "www")
    os.makedirs(www, exist_ok=True)
    with open(os.path.join(www, "a.xml"), "w") as f:
        f.write(rss(items))
    return www


def start(ns, items=ITEMS, fresh=True):
    if fresh:
        ns.start_nginx(serve(ns, items))
        ns.start_configd()
        for domain in ("rss", "podcast"):
            assert ns.configctl("set", domain, "-", input=DOC).returncode == 0
    else:
        ns.start_configd()
    seen = ns.syslog.count("incoming config data (handle=2)")
    _, pid = ns.start_kelpd("-vvv")
    assert pid
    # A login before both documents have arrived is refused.
    ns.syslog.wait_count("incoming config data (handle=2)", seen + 1)
    return pid


def subscriptions(ns):
    cp = ns.configctl("get", "rss")
    assert cp.returncode == 0, cp.stderr
    return re.findall(r"<item [^>]*>", cp.stdout)


def stored_soon(ns, want):
    """configd's subscriptions once they equal `want` (a save travels
    asynchronously after the answer or push that follows it)."""
    box = []
    ns._wait_until(lambda: box.append(subscriptions(ns)) or box[-1] == want, 15, "stored %r" % want)
    return box[-1]


def first_overview(c, profile):
    return c.next_push("overview\tdomain:rss\tprofile_id:%d\tfeed_id:1\tnumber:" % profile)


def test_reading_marks_every_subscription_and_pushes_to_the_others(ns):
    start(ns)
    a, a2, b = Client(ns), Client(ns), Client(ns)
    for c, p in ((a, 1), (a2, 1), (b, 2)):
        assert c.login(profile=p).startswith("OK\tlogin\t")
    over = first_overview(a, 1)
    assert over == ("overview\tdomain:rss\tprofile_id:1\tfeed_id:1\tnumber:3\tnumber_new:3"
                    "\tuid:0\tstate:2\tsubject:Kettle recall\tuid:1\tstate:4\tsubject:Lighthouse opens"
                    "\tuid:2\tstate:0\tsubject:Market report")
    first_overview(a2, 1)
    first_overview(b, 2)
    assert a.item("body", 1, 1) == ("OK\tbody\tdomain:rss\tprofile_id:1\tfeed_id:1\tuid:1"
                                    "\tbody:See  the tower.\timage:http://feeds.test/l.png\toffset:4")
    assert first_overview(a2, 1).startswith(
        "overview\tdomain:rss\tprofile_id:1\tfeed_id:1\tnumber:3\tnumber_new:2\tuid:0\tstate:2\tsubject:Kettle recall"
        "\tuid:1\tstate:5\t")
    assert first_overview(b, 2).startswith(
        "overview\tdomain:rss\tprofile_id:2\tfeed_id:1\tnumber:3\tnumber_new:2")
    # The reader has its answer and is not told again.
    a.request("accounts\tdomain:rss\tprofile_id:1")
    assert not [m for m in a.pushed if m.startswith("overview")]
    first = str(fnv("Kettle recall"))
    stored_soon(ns, ['<item entry="1" read="02" first="%s" />' % first] * 2)


def test_marks_survive_a_restart_of_both_daemons_and_follow_new_items(ns):
    pid = start(ns)
    c = Client(ns)
    assert c.login().startswith("OK\t")
    first_overview(c, 1)
    assert c.item("enclosure", 1, 0) == \
        "OK\tenclosure\tdomain:rss\tprofile_id:1\tfeed_id:1\tuid:0\turl:http://feeds.test/k.mp3"
    c.close()
    ns.wait_exit(pid)
    for p in list(ns._procs):
        if "configd" in " ".join(map(str, p.args)):
            p.send_signal(signal.SIGTERM)
            p.wait(15)
    # Two new items on top while nobody watched.
    serve(ns, [("Breaking", "x", ""), ("Weather", "y", "")] + ITEMS)
    start(ns, fresh=False)
    c = Client(ns)
    assert c.login().startswith("OK\t")
    over = first_overview(c, 1)
    assert over.startswith("overview\tdomain:rss\tprofile_id:1\tfeed_id:1\tnumber:5\tnumber_new:4"
                           "\tuid:0\tstate:0\tsubject:Breaking\tuid:1\tstate:0\tsubject:Weather"
                           "\tuid:2\tstate:3\tsubject:Kettle recall\tuid:3\tstate:4\t"), over
    stored_soon(ns, ['<item entry="1" read="04" first="%s" />' % fnv("Breaking")] * 2)


def test_api_two_sees_only_the_read_state(ns):
    start(ns)
    v2, v3 = Client(ns), Client(ns)
    assert v2.login(v=2).startswith("OK\t")
    assert v3.login(profile=2, v=3).startswith("OK\t")
    assert first_overview(v2, 1).endswith(
        "\tuid:0\tstate:0\tsubject:Kettle recall\tuid:1\tstate:0\tsubject:Lighthouse opens"
        "\tuid:2\tstate:0\tsubject:Market report")
    assert first_overview(v3, 2).endswith(
        "\tuid:0\tstate:2\tsubject:Kettle recall\tuid:1\tstate:4\tsubject:Lighthouse opens"
        "\tuid:2\tstate:0\tsubject:Market report")
    assert v2.item("body", 1, 1) == \
        "OK\tbody\tdomain:rss\tprofile_id:1\tfeed_id:1\tuid:1\tbody:See  the tower."
    assert first_overview(v3, 2).startswith(
        "overview\tdomain:rss\tprofile_id:2\tfeed_id:1\tnumber:3\tnumber_new:2\tuid:0\tstate:2\t")


def test_kelpctl_reads_marks_and_watches_with_the_real_daemon(ns):
    start(ns)
    keeper = Client(ns)
    assert keeper.login(profile=2).startswith("OK\t")
    first_overview(keeper, 2)
    watcher = ns.spawn([ns.bin("kelpctl"), "-p", "2", "watch"], stdout=subprocess.PIPE, text=True)
    cp = ns.kelpctl("read", "1", "1")
    assert cp.returncode == 0, cp.stderr
    assert cp.stdout == "See  the tower.\nimage at offset 4: http://feeds.test/l.png\n"
    cp = ns.kelpctl("enclosure", "1", "0")
    assert (cp.returncode, cp.stdout) == (0, "http://feeds.test/k.mp3\n")
    cp = ns.kelpctl("image", "1", "2")
    assert cp.returncode == 1 and cp.stdout == ""
    cp = ns.kelpctl("read", "1", "99")
    assert cp.returncode == 1
    assert "12:KD_UID_NOT_FOUND" in cp.stderr
    cp = ns.kelpctl("overview", "1")
    assert cp.returncode == 0, cp.stderr
    assert cp.stdout.splitlines()[0] == "feed 1 (News): 3 items, 0 new"
    cp = ns.kelpctl("status")
    assert (cp.returncode, cp.stdout) == (0, "internet: usable\n")
    # Profile 2's watcher saw the marks arrive (all three items were asked for).
    stored_soon(ns, ['<item entry="1" read="07" first="%s" />' % fnv("Kettle recall")] * 2)
    watcher.send_signal(signal.SIGTERM)
    out, _ = watcher.communicate(timeout=15)
    assert watcher.returncode == 0
    assert "state=5(read,image) subject=\"Lighthouse opens\"" in out
