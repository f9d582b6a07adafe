"""kelpd start-up: argument scan, detaching, the pid file lock, the control
socket, and every way these can fail."""
import fcntl
import os
import re
import signal
import socket
import stat

import pytest

from kelpd_helpers import (CTL, PIDFILE, connect, has, kelpd, kelpd_at, lines, open_fds, read,
                           settled_lines, start, start_with_config)

LOCK_MSG = ("unable to lock lockfile kelpd.pid in /var/run "
            "(Is there another kelpd instance still active?)- terminating")


def test_without_configd_runs_once_and_ends_cleanly(ns):
    pid = start(ns, "-vv")
    assert ns.wait_exit(pid) == 0
    rec = ns.syslog.wait_for("unable to connect to configd")
    assert rec.prio == 2 and rec.pid == pid
    ns.syslog.wait_for("shutting down with exit code 0")
    assert lines(ns)[0] == "kelpd starting"
    assert lines(ns)[-1] == "shutting down with exit code 0"
    # An orderly end removes the pid file.
    assert not os.path.exists(ns.path(PIDFILE))


def test_verbosity_zero_logs_nothing(ns):
    pid = start(ns)
    assert ns.wait_exit(pid) == 0
    assert settled_lines(ns) == []


def test_v_in_program_path_counts(ns):
    # One 'v' in argv[0]: errors (threshold 1) but no lifecycle lines (2).
    pid = start(ns, prog=kelpd_at(ns, "/run/v/kelpd"))
    assert ns.wait_exit(pid) == 0
    ns.syslog.wait_for("unable to connect to configd")
    assert not has(ns, "kelpd starting")
    assert not has(ns, "shutting down with exit code 0")


def test_three_vs_in_program_path_reach_lifecycle_level(ns):
    pid = start(ns, prog=kelpd_at(ns, "/var/tmp/vv/kelpd"))
    assert ns.wait_exit(pid) == 0
    ns.syslog.wait_for("shutting down with exit code 0")
    assert has(ns, "kelpd starting")


def test_word_verbose_counts_one(ns):
    pid = start(ns, "-verbose")
    assert ns.wait_exit(pid) == 0
    ns.syslog.wait_for("unable to connect to configd")
    assert not has(ns, "kelpd starting")


def test_two_single_v_arguments_count_two(ns):
    pid = start(ns, "-v", "-v")
    assert ns.wait_exit(pid) == 0
    ns.syslog.wait_for("shutting down with exit code 0")
    assert has(ns, "kelpd starting")


def test_create_supportdata_after_vv_starts_no_daemon(ns):
    cp = ns.run([kelpd(ns), "-vv", "--create-supportdata", "-x"])
    assert cp.returncode == 1
    assert cp.stdout == ""
    assert cp.stderr == "unable to open kelpd lockfile: No such file or directory\n"
    assert not os.path.exists(ns.path(PIDFILE))
    assert not os.path.exists(ns.path(CTL))
    assert settled_lines(ns) == []


def test_second_instance_fails_while_first_keeps_pid_file(ns):
    ns.silent_configd()
    first = start(ns, "-v")
    cp, second = ns.start_kelpd("-v", prog="/run/k/kelpd")
    assert cp.returncode == 0
    assert cp.stdout == "kelpd started with pid [%d]\n" % second
    assert ns.wait_exit(second) == 255
    rec = ns.syslog.wait_for(LOCK_MSG)
    assert rec.pid == second and rec.prio == 2
    assert ns.alive(first)
    assert read(ns, PIDFILE) == "%d\n" % first


def test_lock_held_by_someone_else(ns):
    path = ns.path(PIDFILE)
    with open(path, "w") as f:
        f.write("123\n")
        f.flush()
        fcntl.flock(f, fcntl.LOCK_EX)
        pid = start(ns, "-vv")
        assert ns.wait_exit(pid) == 255
    ns.syslog.wait_for(LOCK_MSG)
    # A failed start never touches the pid file, nor removes it.
    assert read(ns, PIDFILE) == "123\n"
    ns.syslog.wait_for("shutting down with exit code -1")
    assert not os.path.exists(ns.path(CTL))


def test_lock_failure_at_verbosity_zero_is_silent(ns):
    with open(ns.path(PIDFILE), "w") as f:
        fcntl.flock(f, fcntl.LOCK_EX)
        pid = start(ns)
        assert ns.wait_exit(pid) == 255
    assert settled_lines(ns) == []


def test_pid_file_overwritten_without_truncation(ns):
    old = "99999999999999\n"
    with open(ns.path(PIDFILE), "w") as f:
        f.write(old)
    ns.silent_configd()
    pid = start(ns)
    new = "%d\n" % pid
    assert read(ns, PIDFILE) == new + old[len(new):]


def test_pid_file_created_with_mode_0640(ns):
    ns.silent_configd()
    pid = start(ns)
    st = os.stat(ns.path(PIDFILE))
    assert stat.S_IMODE(st.st_mode) == 0o640
    assert read(ns, PIDFILE) == "%d\n" % pid


def test_missing_run_directory(ns):
    os.unlink(ns.path("/var/run"))
    pid = start(ns, "-v")
    assert ns.wait_exit(pid) == 255
    rec = ns.syslog.wait_for("unable to change directory to /var/run - terminating")
    assert rec.prio == 2


def test_pid_file_that_cannot_be_opened(ns):
    os.mkdir(ns.path(PIDFILE))
    pid = start(ns, "-v")
    assert ns.wait_exit(pid) == 255
    ns.syslog.wait_for("unable to open lockfile kelpd.pid in /var/run (Do you have write access?) - terminating")
    assert os.path.isdir(ns.path(PIDFILE))


def test_stale_control_socket_is_replaced(ns):
    stale = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
    stale.bind(ns.path(CTL))
    stale.close()
    old_ino = os.stat(ns.path(CTL)).st_ino
    ns.silent_configd()
    pid = start(ns, "-vv")
    def replaced():
        try:
            return os.stat(ns.path(CTL)).st_ino != old_ino
        except FileNotFoundError:
            return False
    ns._wait_until(replaced, 15, "new control socket")
    assert stat.S_ISSOCK(os.stat(ns.path(CTL)).st_mode)
    assert ns.alive(pid)
    connect(ns).close()
    assert not has(ns, re.compile("error .*"))


def test_directory_at_control_socket_path(ns):
    os.mkdir(ns.path(CTL))
    pid = start(ns, "-vv")
    assert ns.wait_exit(pid) == 254
    rec = ns.syslog.wait_for("error unlink()ing local socket (/var/tmp/me_kelpd_daemon.ctl): Is a directory")
    assert rec.prio == 2
    ns.syslog.wait_for("shutting down with exit code -2")
    # The loop ran, so the pid file goes as after any end of the loop.
    assert not os.path.exists(ns.path(PIDFILE))


def test_control_socket_directory_missing(ns):
    os.rmdir(ns.path("/var/tmp"))
    pid = start(ns, "-v")
    assert ns.wait_exit(pid) == 254
    ns.syslog.wait_for("error bind()ing local socket (/var/tmp/me_kelpd_daemon.ctl): No such file or directory")


def test_daemon_detached_with_null_stdio_and_own_session(ns):
    ns.silent_configd()
    pid = start(ns, "-v")
    for fd in ("0", "1", "2"):
        assert os.readlink(ns.path("/proc/%d/fd/%s" % (pid, fd))) == "/dev/null"
    assert os.getsid(pid) == pid
    assert os.readlink(ns.path("/proc/%d/cwd" % pid)) == "/run"
    with open(ns.path("/proc/%d/status" % pid)) as f:
        status = dict(line.split(":\t", 1) for line in f.read().splitlines() if ":\t" in line)
    # SIGCHLD, SIGTSTP, SIGTTIN, SIGTTOU ignored.
    ignored = int(status["SigIgn"], 16)
    for sig in (signal.SIGCHLD, signal.SIGTSTP, signal.SIGTTIN, signal.SIGTTOU):
        assert ignored & (1 << (sig - 1))
    # SIGHUP, SIGTERM and SIGUSR2 are caught; SIGUSR1 and SIGPIPE keep their default.
    caught = int(status["SigCgt"], 16)
    for sig in (signal.SIGHUP, signal.SIGTERM, signal.SIGUSR2):
        assert caught & (1 << (sig - 1))
    for sig in (signal.SIGUSR1, signal.SIGPIPE):
        assert not (ignored | caught) & (1 << (sig - 1))


def test_lock_survives_heavy_logging(ns):
    ns.silent_configd()
    pid = start(ns, "-vvvv")
    for n in range(1, 26):
        ns.signal(pid, signal.SIGUSR2)
        ns.syslog.wait_count("SIGUSR2 usage courtesy of jov :)", n)
        ns.signal(pid, signal.SIGHUP)
        ns.syslog.wait_count(re.compile("^verbosity set to: "), n)
    assert "/run/kelpd.pid" in open_fds(ns, pid)
    cp, second = ns.start_kelpd("-v", prog="/run/k/kelpd")
    assert ns.wait_exit(second) == 255
    ns.syslog.wait_for(LOCK_MSG)
    assert ns.alive(pid)
    assert read(ns, PIDFILE) == "%d\n" % pid


def test_second_instance_beside_a_configured_daemon(ns):
    start_with_config(ns)
    first = start(ns, "-vvv")
    ns.syslog.wait_for("incoming config data (handle=2)")
    cp, second = ns.start_kelpd("-v", prog="/run/k/kelpd")
    assert (cp.returncode, cp.stdout) == (0, "kelpd started with pid [%d]\n" % second)
    assert ns.wait_exit(second) == 255
    ns.syslog.wait_for(LOCK_MSG)
    assert ns.alive(first)
    assert read(ns, PIDFILE) == "%d\n" % first
    ns.signal(first, signal.SIGTERM)
    assert ns.wait_exit(first) == 0
    assert not os.path.exists(ns.path(PIDFILE))


def without_leak_check(ns):
    """The leak checker needs descriptors and a thread of its own: under the
    limits these tests set it would hang or fail instead of the daemon."""
    return {"ASAN_OPTIONS": "log_path=%s/asan:detect_leaks=0" % ns.tmp}


def test_inherited_descriptors_are_closed_up_to_the_table_size(ns):
    import resource
    import subprocess
    ns.silent_configd()
    path = os.path.join(ns.tmp, "inherited")
    low = os.open(path, os.O_CREAT | os.O_RDWR)
    top = resource.getrlimit(resource.RLIMIT_NOFILE)[0] - 1
    os.dup2(low, top, inheritable=True)
    try:
        p = ns.spawn([kelpd(ns), "-v"], pass_fds=(low, top), stdout=subprocess.PIPE, text=True)
        out = p.communicate(timeout=15)[0]
    finally:
        os.close(top)
        os.close(low)
    pid = int(re.fullmatch(r"kelpd started with pid \[(\d+)\]\n", out).group(1))
    ns._wait_until(lambda: ns.pidfile_pid() == pid, 15, "pid file")
    assert path not in open_fds(ns, pid)
    assert ns.alive(pid)


def test_fork_failure_is_reported_on_stderr(ns):
    # One process allowed for this user: the daemon's own fork fails.
    cp = ns.run(["prlimit", "--nproc=1:1", "setpriv", "--reuid=54321", "--regid=54321", "--clear-groups",
                 kelpd(ns), "-vv"], env=without_leak_check(ns))
    assert (cp.returncode, cp.stdout) == (255, "")
    assert cp.stderr == "unable to fork(): Resource temporarily unavailable\n"
    ns.syslog.wait_for("shutting down with exit code -1")
    assert not has(ns, "kelpd starting")
    assert not os.path.exists(ns.path(PIDFILE))


# Five descriptors: /dev/null three times, the log and the pid file; with a
# sixth, the socket is made but the multiplexer gets none for itself.
@pytest.mark.parametrize("limit,message", [
    (5, "error getting socket(): Too many open files"),
    (6, "error listening on local socket (/var/tmp/me_kelpd_daemon.ctl)"),
])
def test_descriptor_limit_at_the_control_socket(ns, limit, message):
    cp = ns.run(["prlimit", "--nofile=%d:%d" % (limit, limit), kelpd(ns), "-v"], env=without_leak_check(ns))
    pid = int(re.fullmatch(r"kelpd started with pid \[(\d+)\]\n", cp.stdout).group(1))
    assert ns.wait_exit(pid) == 254
    rec = ns.syslog.wait_for(message)
    assert rec.prio == 2 and rec.pid == pid


def test_missing_dev_null_is_no_obstacle(ns):
    os.unlink(ns.path("/dev/null"))
    ns.silent_configd()
    pid = start(ns, "-vv")
    connect(ns).close()
    assert ns.wait_exit(pid) == 0
    ns.syslog.wait_for("shutting down with exit code 0")
    assert has(ns, "last client disconnected")
    assert not has(ns, re.compile("error .*|unable .*"))
