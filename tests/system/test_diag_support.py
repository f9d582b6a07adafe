"""kelpd --create-supportdata against stand-ins for the daemon: how the pid
file is read, which process counts as kelpd, and how the wait for the dump
file ends when the daemon does not write it."""
import os
import textwrap

import pytest

from kelpd_helpers import DUMP, PIDFILE, kelpd

TIMED_OUT = "warning: waiting for logfile timed out - data might be missing or outdated\n"
FALLBACK = "warning: nifty waiting for logfile failed - hopefully things still work out\n"

# A process named kelpd that answers SIGUSR2 with the given action and
# notes each signal in a file, so that tests see whether one was sent.
FAKE = textwrap.dedent("""\
    import os, signal, sys, time
    mark, action = sys.argv[1], sys.argv[2]
    def usr2(sig, frame):
        if action == "read":
            os.close(os.open("/var/tmp/kelpd.log", os.O_RDONLY))
        with open(mark, "a") as f:
            f.write("usr2\\n")
    signal.signal(signal.SIGUSR2, usr2)
    open(mark + ".ready", "w").close()
    while True:
        time.sleep(60)
    """)


def fake_kelpd(ns, action="note"):
    """Starts the stand-in with argv[0] "/run/k/kelpd" and writes its pid file."""
    script = os.path.join(ns.tmp, "fake_kelpd.py")
    with open(script, "w") as f:
        f.write(FAKE)
    mark = os.path.join(ns.tmp, "usr2")
    p = ns.spawn(["bash", "-c", 'exec -a /run/k/kelpd /usr/bin/python3 "$0" "$1" "$2"', script, mark, action])
    ns._wait_until(lambda: os.path.exists(mark + ".ready"), 15, "stand-in ready")
    with open(ns.path(PIDFILE), "w") as f:
        f.write("%d\n" % p.pid)
    os.chmod(ns.path(PIDFILE), 0o644)
    return p, mark


def signals_seen(mark):
    try:
        with open(mark) as f:
            return f.read().count("usr2")
    except FileNotFoundError:
        return 0


def supportdata(ns):
    return ns.run([kelpd(ns), "--create-supportdata"])


def test_only_a_close_after_writing_ends_the_wait(ns):
    # Opening and closing the file for reading is not a finished dump.
    p, mark = fake_kelpd(ns, "read")
    cp = supportdata(ns)
    assert (cp.returncode, cp.stdout, cp.stderr) == (1, "", TIMED_OUT)
    assert signals_seen(mark) == 1
    assert p.poll() is None


def test_dump_file_created_for_the_watch(ns):
    p, mark = fake_kelpd(ns)
    cp = supportdata(ns)
    assert (cp.returncode, cp.stderr) == (1, TIMED_OUT)
    assert os.path.isfile(ns.path(DUMP))
    assert os.path.getsize(ns.path(DUMP)) == 0


def test_unwatchable_dump_file_falls_back_to_sleeping(ns):
    # Without /var/tmp the file cannot be created, nor watched.
    os.rmdir(ns.path("/var/tmp"))
    p, mark = fake_kelpd(ns)
    cp = supportdata(ns)
    assert cp.returncode == 1
    assert cp.stderr == ("unable to add '/var/tmp/kelpd.log' to inotify watch list: No such file or directory\n"
                         + FALLBACK)
    # The signal goes out all the same.
    assert signals_seen(mark) == 1


def test_signal_that_cannot_be_sent(ns):
    p, mark = fake_kelpd(ns)
    with open(ns.path(DUMP), "w"):
        pass
    os.chmod(ns.path(DUMP), 0o644)
    cp = ns.run(["setpriv", "--reuid=54321", "--regid=54321", "--clear-groups", kelpd(ns),
                 "--create-supportdata"])
    assert cp.returncode == 1
    assert cp.stderr == "unable to send SIGUSR2 to %d: Operation not permitted\n" % p.pid
    assert signals_seen(mark) == 0


# Only 7 bytes are read, and whatever number starts them (none reads as 0)
# is checked in /proc, even one that no process can have.
@pytest.mark.parametrize("content,pid", [("1234567890\n", "1234567"), ("-1\n", "-1"), ("kelpd\n", "0")])
def test_leading_number_of_the_pid_file_is_checked(ns, content, pid):
    with open(ns.path(PIDFILE), "w") as f:
        f.write(content)
    cp = supportdata(ns)
    assert cp.returncode == 1
    assert cp.stderr == ("unable to verify kelpd in '/proc/%s/cmdline' - lockfile seems to be stale: "
                         "No such file or directory\n" % pid)


def test_program_whose_name_only_starts_with_kelpd(ns):
    other = ns.spawn(["bash", "-c", "exec -a /run/k/kelpdx sleep 1000"])
    ns._wait_until(lambda: open(ns.path("/proc/%d/cmdline" % other.pid), "rb").read().startswith(b"/run/k/kelpdx"),
                   15, "renamed sleep")
    with open(ns.path(PIDFILE), "w") as f:
        f.write("%d\n" % other.pid)
    cp = supportdata(ns)
    assert cp.returncode == 1
    assert cp.stderr == "cmdline of pid %d is not 'kelpd' - lockfile seems to be stale\n" % other.pid
    assert other.poll() is None


def test_unreadable_pid_file(ns):
    os.mkdir(ns.path(PIDFILE))
    cp = supportdata(ns)
    assert cp.returncode == 1
    assert cp.stderr == "unable to read kelpd pid from lockfile\n"
