"""configd failing under a running kelpd: killed and restarted (kelpd idle,
and with clients logged in), killed with a save on its way or in the middle
of storing it, and its state directory full or read-only while saving.
Asserted: how kelpd ends or carries on (its exact log lines and exit
status), that every read mark stored before the fault is still in configd's
document afterwards, whole, and that configd keeps serving after a failed
save and stores the next one."""
import os
import re
import signal

import pytest

from kelpd_client import Client
from kelpd_helpers import start
from refresh_helpers import fnv

STATE = "/var/lib/configd"
RSS = STATE + "/rss.xml"
TEMP = STATE + "/.rss.xml.tmp"
URL = "http://feeds.test/a.xml"
DOC = ('<?xml version="1.0"?>\n'
       '<pool><entry id="1" url="%s" name="News" poll="1200" /></pool>\n'
       '<profiles><profile id="1"><item entry="1" /></profile>'
       '<profile id="2"><item entry="1" /></profile></profiles>\n' % URL)
TITLES = ["Kettle recall", "Lighthouse opens", "Market report"]
FEED = ('<?xml version="1.0" encoding="utf-8"?>\n<rss version="2.0"><channel><title>News</title>'
        + "".join("<item><title>%s</title><guid>g%d</guid><description>text %d</description></item>"
                  % (t, i, i) for i, t in enumerate(TITLES))
        + "</channel></rss>\n").encode()
SAVED = "domain 'rss' saved"
ERR = 3


def item(read):
    return '<item entry="1" read="%s" first="%d" />' % (read, fnv(TITLES[0]))


def serve_feed(ns):
    def answer(req, conn):
        conn.sendall(b"HTTP/1.1 200 OK\r\nContent-Type: text/xml\r\nContent-Length: %d\r\n"
                     b"Connection: close\r\n\r\n" % len(FEED) + FEED)
    ns.serve_http(answer, port=80)


def put_documents(ns, doc=DOC):
    """Both domains' state files, written before configd starts (no save is
    counted before the test's own)."""
    for domain in ("rss", "podcast"):
        with open(ns.path("%s/%s.xml" % (STATE, domain)), "w") as f:
            f.write(doc)


def start_all(ns, verbosity="-vvv", prefix=()):
    """Feed server, configd and kelpd with both documents; returns
    (configd process, kelpd pid)."""
    serve_feed(ns)
    put_documents(ns)
    configd = ns.start_configd(STATE, prefix=prefix)
    pid = start(ns, verbosity)
    ns.syslog.wait_for("incoming config data (handle=2)")
    return configd, pid


def reader(ns, profile=1):
    """A client logged in for a profile, once the feed has been fetched."""
    c = Client(ns)
    assert c.login(profile=profile).startswith("OK\tlogin\t")
    c.next_push("overview\tdomain:rss\tprofile_id:%d\tfeed_id:1\tnumber:3\t" % profile)
    return c


def read_item(c, uid):
    assert c.item("body", 1, uid).startswith("OK\tbody\tdomain:rss\tprofile_id:1\tfeed_id:1\tuid:%d\t" % uid)


def stored(ns):
    with open(ns.path(RSS), "rb") as f:
        return f.read()


def stored_marks(ns):
    return re.findall(r"<item [^>]*>", stored(ns).decode())


def wait_saves(ns, n):
    ns.syslog.wait_count(SAVED, n, ident="configd")


def fetched_marks(ns):
    """The marks configd serves (through configctl)."""
    cp = ns.configctl("get", "rss")
    assert cp.returncode == 0, cp.stderr
    return re.findall(r"<item [^>]*>", cp.stdout)


def after(ns, line):
    """kelpd's lines after `line` (which must have been logged once)."""
    texts = ns.syslog.texts("kelpd")
    assert texts.count(line) == 1, texts
    return texts[texts.index(line) + 1:]


def ended_on_lost_configd(ns, pid):
    """kelpd saw the connection close (no RPC error: a killed peer just ends
    the stream) and ended with 0."""
    ns.syslog.wait_for("configd connection closed")
    assert ns.wait_exit(pid) == 0
    assert ns.syslog.count(re.compile("^configd error")) == 0


# --- configd killed and restarted -----------------------------------------------

def test_killed_while_kelpd_idles_ends_kelpd_and_the_marks_stay(ns):
    serve_feed(ns)
    put_documents(ns, DOC.replace('<item entry="1" />', item("05"), 1))
    before = stored(ns)
    configd = ns.start_configd(STATE)
    pid = start(ns, "-vvv")
    ns.syslog.wait_for("incoming config data (handle=2)")
    configd.kill()
    ended_on_lost_configd(ns, pid)
    assert after(ns, "configd connection closed") == ["shutting down with exit code 0"]
    assert stored(ns) == before
    ns.start_configd(STATE)
    assert fetched_marks(ns) == [item("05"), '<item entry="1" />']
    # A fresh kelpd finds the marks on the items.
    pid = start(ns, "-vvv")
    ns.syslog.wait_count("incoming config data (handle=2)", 2)
    c = Client(ns)
    assert c.login().startswith("OK\t")
    over = c.next_push("overview\tdomain:rss\tprofile_id:1\tfeed_id:1\tnumber:3\t")
    assert over.endswith("\tuid:0\tstate:1\tsubject:Kettle recall\tuid:1\tstate:0\tsubject:Lighthouse opens"
                         "\tuid:2\tstate:1\tsubject:Market report"), over


def test_killed_with_clients_logged_in_ends_kelpd_and_every_saved_mark_stays(ns):
    configd, pid = start_all(ns)
    a, b = reader(ns, 1), reader(ns, 2)
    read_item(a, 1)
    wait_saves(ns, 1)
    read_item(a, 2)
    wait_saves(ns, 2)
    assert stored_marks(ns) == [item("06")] * 2
    configd.kill()
    ended_on_lost_configd(ns, pid)
    assert after(ns, "configd connection closed") == [
        "stop poll on: %s" % URL, "shutting down with exit code 0"]
    # Both clients were let go (after the pushes of the other's reads).
    for c in (a, b):
        while c.sock.recv(1 << 20):
            pass
    ns.start_configd(STATE)
    assert fetched_marks(ns) == [item("06")] * 2


# --- configd killed with a save on its way --------------------------------------

def unread_bytes(ns, pid):
    """Bytes waiting in the receive queues of a process's stream sockets."""
    out = ns.run(["ss", "-xnpH"]).stdout
    return sum(int(line.split()[2]) for line in out.splitlines() if "pid=%d," % pid in line)


def test_killed_with_a_save_on_its_way_ends_kelpd_and_the_earlier_marks_stay(ns):
    configd, pid = start_all(ns, "-vvvv")
    c = reader(ns)
    read_item(c, 0)
    wait_saves(ns, 1)
    before = stored(ns)
    configd.send_signal(signal.SIGSTOP)
    read_item(c, 1)
    # kelpd has sent the document with both marks; configd never reads it.
    ns.syslog.wait_for(re.compile(r'<item entry="1" read="03" first="%d" />' % fnv(TITLES[0])))
    ns._wait_until(lambda: unread_bytes(ns, configd.pid) > 0, 15, "the save in configd's socket")
    configd.kill()
    ended_on_lost_configd(ns, pid)
    assert stored(ns) == before
    ns.start_configd(STATE)
    assert fetched_marks(ns) == [item("01")] * 2


# The second save's steps (the first save stores one mark): the temporary
# file's fsync is the third fsync (each save also syncs the directory), its
# rename the second rename. strace kills configd as it enters that call.
@pytest.mark.parametrize("step", ["fsync:when=3", "rename:when=2"], ids=["fsync", "rename"])
def test_killed_in_the_middle_of_storing_leaves_the_old_document_whole(ns, step):
    call = step.split(":")[0]
    kill_there = ["strace", "-f", "-o", "/dev/null", "-e", "trace=" + call,
                  "-e", "inject=%s:signal=KILL:%s" % (call, step.split(":")[1])]
    configd, pid = start_all(ns, prefix=kill_there)
    c = reader(ns)
    read_item(c, 0)
    wait_saves(ns, 1)
    before = stored(ns)
    read_item(c, 2)
    ended_on_lost_configd(ns, pid)
    assert ns.syslog.count(SAVED, ident="configd") == 1
    # The new text got no further than the temporary file.
    assert stored(ns) == before
    with open(ns.path(TEMP), "rb") as f:
        assert f.read().count(item("05").encode()) == 2
    ns.start_configd(STATE)
    assert fetched_marks(ns) == [item("01")] * 2
    # The leftover of the interrupted save is gone.
    assert not os.path.exists(ns.path(TEMP))
    ns.syslog.wait_for("removed %s, left by an interrupted save" % TEMP, ident="configd")


# --- configd's state directory full or read-only while saving ---------------------

def small_state_dir(ns):
    """A 64 KiB file system of its own as configd's state directory."""
    ns.run(["mount", "-t", "tmpfs", "-o", "size=64k,mode=755", "cfgstate", STATE], check=True)


def read_only(ns, on):
    ns.run(["mount", "-o", "remount,%s" % ("ro" if on else "rw"), STATE], check=True)


def full(ns, on):
    if on:
        cp = ns.run(["dd", "if=/dev/zero", "of=%s/filler" % STATE, "bs=4096"])
        assert "No space left on device" in cp.stderr, cp.stderr
    else:
        os.unlink(ns.path(STATE + "/filler"))


@pytest.mark.parametrize("fault, reason", [(full, "No space left on device"),
                                           (read_only, "Read-only file system")], ids=["full", "read-only"])
def test_save_configd_cannot_store_is_refused_and_the_next_one_stores_every_mark(ns, fault, reason):
    small_state_dir(ns)
    configd, pid = start_all(ns)
    c = reader(ns)
    read_item(c, 0)
    wait_saves(ns, 1)
    before = stored(ns)
    fault(ns, True)
    read_item(c, 1)
    # Refused with the reason, in configd's log and to kelpd, which logs it.
    rec = ns.syslog.wait_for("domain 'rss': cannot store document: " + reason, ident="configd")
    assert rec.prio == ERR
    rec = ns.syslog.wait_for("rpc: request 0x10000003 refused: cannot store document: " + reason)
    assert rec.prio == ERR
    assert stored(ns) == before
    assert not os.path.exists(ns.path(TEMP))
    # configd serves the next requests: a get, with the document it still
    # has, and a save from configctl, refused the same way.
    assert fetched_marks(ns) == [item("01")] * 2
    cp = ns.configctl("set", "rss", "-", input=DOC)
    assert cp.returncode == 1
    assert "cannot store document: " + reason in cp.stderr, cp.stderr
    assert stored(ns) == before
    assert ns.alive(pid) and configd.poll() is None
    fault(ns, False)
    read_item(c, 2)
    wait_saves(ns, 2)
    # The mark whose save was refused was kept in kelpd's memory.
    assert stored_marks(ns) == [item("07")] * 2
    assert ns.syslog.count("rpc: request 0x10000003 refused: cannot store document: " + reason) == 1
    assert ns.syslog.count(re.compile("^configd error")) == 0
    assert ns.alive(pid)


def test_file_size_limit_refuses_the_save_and_configd_stays(ns):
    put_documents(ns)
    before = stored(ns)
    configd = ns.start_configd(STATE, prefix=["prlimit", "--fsize=4096"])
    big = DOC.replace('name="News"', 'name="%s"' % ("N" * 5000))
    cp = ns.configctl("set", "rss", "-", input=big)
    assert cp.returncode == 1
    assert "cannot store document: File too large" in cp.stderr, cp.stderr
    rec = ns.syslog.wait_for("domain 'rss': cannot store document: File too large", ident="configd")
    assert rec.prio == ERR
    assert stored(ns) == before
    assert not os.path.exists(ns.path(TEMP))
    assert configd.poll() is None
    assert fetched_marks(ns) == ['<item entry="1" />'] * 2
