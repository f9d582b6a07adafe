"""Shared steps of the kelpd system tests."""
import errno
import os
import re

PIDFILE = "/var/run/kelpd.pid"
CTL = "/var/tmp/me_kelpd_daemon.ctl"
DUMP = "/var/tmp/kelpd.log"

# Both domains with one subscribed feed: a configuration that is not empty.
DOC = ('<?xml version="1.0"?>\n<pool><entry id="1" url="http://feeds.test/a.xml" name="A" poll="600" />'
       '<entry id="2" url="http://feeds.test/b.xml" name="B" poll="600" /></pool>\n'
       '<profiles><profile id="1"><item entry="1" /></profile></profiles>\n')


def kelpd_at(ns, path):
    """A link to the kelpd binary at `path` inside the namespace, so that the
    'v' characters of argv[0] are known (every 'v' in it raises verbosity)."""
    host = ns.path(path)
    if not os.path.islink(host):
        os.makedirs(os.path.dirname(host), exist_ok=True)
        os.symlink(ns.bin("kelpd"), host)
    return path


def kelpd(ns):
    """kelpd under a path without any 'v'."""
    return kelpd_at(ns, "/run/k/kelpd")


def start(ns, *args, prog=None):
    """Starts kelpd through the v-free link; returns the daemon pid."""
    cp, pid = ns.start_kelpd(*args, prog=prog or kelpd(ns))
    assert cp.returncode == 0, cp
    assert cp.stdout == "kelpd started with pid [%d]\n" % pid
    return pid


def start_with_config(ns, doc=DOC):
    """configd holding `doc` for both domains."""
    for domain in ("rss", "podcast"):
        with open(ns.path("/var/lib/configd/%s.xml" % domain), "w") as f:
            f.write(doc)
    return ns.start_configd()


def read(ns, path, mode="r"):
    with open(ns.path(path), mode) as f:
        return f.read()


def open_fds(ns, pid):
    d = ns.path("/proc/%d/fd" % pid)
    return [os.readlink(os.path.join(d, fd)) for fd in os.listdir(d)]


def lines(ns, ident="kelpd"):
    return ns.syslog.texts(ident)


def settled_lines(ns, ident="kelpd"):
    """Every line logged so far: a marker logged now arrives after them."""
    ns.run(["logger", "-u", "/dev/log", "-t", "marker", "end"])
    ns.syslog.wait_for("end", ident="marker")
    return lines(ns, ident)


def has(ns, text):
    return any(re.fullmatch(text, t) if isinstance(text, re.Pattern) else t == text for t in lines(ns))


def connect(ns, timeout=15):
    """A client connection to the control socket, once the daemon listens on
    it (the pid file is written before the socket exists)."""
    box = []

    def attempt():
        try:
            box.append(ns.connect_unix(CTL))
        except OSError as e:
            if e.errno not in (errno.ENOENT, errno.ECONNREFUSED):
                raise
        return bool(box)
    ns._wait_until(attempt, timeout, "control socket")
    return box[0]
