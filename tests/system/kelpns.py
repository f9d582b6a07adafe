"""Private namespaces for system tests.

Each test gets a "holder" process in a new mount and network namespace. The
holder lays tmpfs over /var (with /var/run -> /run, /var/tmp, /var/rpc,
/var/lib/configd) and /run, replaces /dev with a small copy whose /dev/log is
a datagram socket read by this process, binds a generated /etc/hosts and
brings the loopback up with a default route ("internet on"). Programs run
inside through nsenter, so the fixed paths of the gateway need no relocation.

The pytest process is a child subreaper: a daemon that forks and loses its
parent is reparented here, so its real exit status can be collected.
"""
import ctypes
import os
import re
import shutil
import signal
import socket
import subprocess
import tempfile
import time
from kelpns_io import (ExitEvents, HttpServer, Record, SilentPeer, SyslogReader,  # noqa: F401
                       parse_syslog)

PR_SET_CHILD_SUBREAPER = 36
CLONE_NEWNET = 0x40000000

_libc = ctypes.CDLL(None, use_errno=True)

HOSTS = {"feeds.test": "127.0.0.1", "other.test": "127.0.0.2", "slow.test": "127.0.0.3", "v6.test": "::1"}

# Failures that any test must notice, wherever they appear.
_BAD_LOG = re.compile(r"assertion|runtime error|Sanitizer", re.I)

HOLDER_SCRIPT = r"""
set -e
T="$1"
mount -t tmpfs -o mode=755 kelp-run /run
mount -t tmpfs -o mode=755 kelp-var /var
mkdir -m 1777 /var/tmp
mkdir -p /var/rpc /var/lib/configd /var/log /var/cache
ln -s ../run /var/run
D="$T/dev"
mkdir -p "$D"
mount -t tmpfs -o mode=755 kelp-dev "$D"
for n in null zero full random urandom tty; do
  : > "$D/$n"; mount --bind "/dev/$n" "$D/$n"
done
ln -s /proc/self/fd "$D/fd"
ln -s /proc/self/fd/0 "$D/stdin"; ln -s /proc/self/fd/1 "$D/stdout"; ln -s /proc/self/fd/2 "$D/stderr"
mkdir "$D/shm" "$D/pts"
mount -t tmpfs -o mode=1777 kelp-shm "$D/shm"
mount --rbind /dev/pts "$D/pts"
ln -s pts/ptmx "$D/ptmx"
: > "$D/log"; mount --bind "$T/log.sock" "$D/log"
mount --move "$D" /dev
mount --bind "$T/hosts" /etc/hosts
if [ -e /etc/resolv.conf ]; then mount --bind "$T/resolv.conf" /etc/resolv.conf; fi
ip link set lo up
ip addr add 127.0.0.2/8 dev lo 2>/dev/null || true
ip addr add 127.0.0.3/8 dev lo 2>/dev/null || true
ip route add default dev lo
echo READY
cat > /dev/null || true
# The test process is gone (stdin closed): take the namespace's programs along.
me=$(readlink /proc/$$/ns/net)
for d in /proc/[0-9]*; do
  [ "${d#/proc/}" = "$$" ] && continue
  [ "$(readlink "$d/ns/net" 2>/dev/null)" = "$me" ] && kill -9 "${d#/proc/}" 2>/dev/null
done
exit 0
"""

def set_subreaper():
    if _libc.prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0) != 0:
        raise OSError(ctypes.get_errno(), "prctl(PR_SET_CHILD_SUBREAPER)")


def _setns(fd):
    if _libc.setns(fd, CLONE_NEWNET) != 0:
        err = ctypes.get_errno()
        raise OSError(err, "setns: " + os.strerror(err))


class Namespace:
    def __init__(self, bindir, sanitize=False):
        self.bindir = bindir
        self.sanitize = sanitize
        self.tmp = tempfile.mkdtemp(prefix="kelpns-")
        os.chmod(self.tmp, 0o755)
        self._procs = []
        self._exits = {}
        self._servers = []
        self.failed_checks = []
        with open(os.path.join(self.tmp, "hosts"), "w") as f:
            f.write("127.0.0.1\tlocalhost\n::1\tlocalhost\n")
            for name, addr in HOSTS.items():
                f.write("%s\t%s\n" % (addr, name))
        # Names outside the hosts file fail at once: nothing answers on port 53.
        with open(os.path.join(self.tmp, "resolv.conf"), "w") as f:
            f.write("nameserver 127.0.0.1\noptions timeout:1 attempts:1\n")
        self.exit_events = ExitEvents()
        self.syslog = SyslogReader(os.path.join(self.tmp, "log.sock"))
        self.holder = subprocess.Popen(
            ["unshare", "--mount", "--net", "--propagation", "private", "--",
             "/bin/sh", "-c", HOLDER_SCRIPT, "holder", self.tmp],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        line = self.holder.stdout.readline()
        if line.strip() != "READY":
            err = self.holder.stderr.read() if self.holder.poll() is not None else ""
            self.close()
            raise RuntimeError("namespace setup failed: %r %s" % (line, err))
        self.pid = self.holder.pid
        self._netns = os.readlink("/proc/%d/ns/net" % self.pid)

    # --- programs ---------------------------------------------------------
    def bin(self, name):
        return os.path.join(self.bindir, name)

    def env(self, extra=None):
        env = dict(os.environ)
        env["ASAN_OPTIONS"] = "log_path=%s/asan:detect_leaks=1:abort_on_error=0" % self.tmp
        env["UBSAN_OPTIONS"] = "print_stacktrace=1:log_path=%s/ubsan:halt_on_error=1" % self.tmp
        if extra:
            env.update(extra)
        return env

    def _argv(self, argv):
        return ["nsenter", "--target", str(self.pid), "--mount", "--net", "--"] + [str(a) for a in argv]

    def run(self, argv, input=None, timeout=30, env=None, check=False, text=True):
        return subprocess.run(self._argv(argv), input=input, timeout=timeout, env=self.env(env),
                              check=check, text=text, capture_output=True, cwd="/")

    def spawn(self, argv, env=None, **kw):
        kw.setdefault("stdout", subprocess.DEVNULL)
        kw.setdefault("stderr", subprocess.DEVNULL)
        kw.setdefault("stdin", subprocess.DEVNULL)
        p = subprocess.Popen(self._argv(argv), env=self.env(env), cwd="/", **kw)
        self._procs.append(p)
        return p

    def path(self, p):
        return "/proc/%d/root%s" % (self.pid, p)

    # --- network ----------------------------------------------------------
    def in_net(self, fn):
        """Runs fn() on this thread inside the namespace's network."""
        own = os.open("/proc/thread-self/ns/net", os.O_RDONLY)
        target = os.open("/proc/%d/ns/net" % self.pid, os.O_RDONLY)
        try:
            _setns(target)
            try:
                return fn()
            finally:
                _setns(own)
        finally:
            os.close(own)
            os.close(target)

    def connect_unix(self, path, kind=socket.SOCK_SEQPACKET):
        s = socket.socket(socket.AF_UNIX, kind)
        s.connect(self.path(path))
        return s

    def listen_tcp(self, host="127.0.0.1", port=0):
        family = socket.AF_INET6 if ":" in host else socket.AF_INET

        def make():
            s = socket.socket(family, socket.SOCK_STREAM)
            s.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
            s.bind((host, port))
            s.listen(16)
            return s
        return self.in_net(make)

    def connect_tcp(self, host, port, timeout=10):
        s = self.in_net(lambda: socket.socket(socket.AF_INET, socket.SOCK_STREAM))
        s.settimeout(timeout)
        s.connect((host, port))
        return s

    def serve_http(self, handler, host="127.0.0.1", port=0):
        srv = HttpServer(self.listen_tcp(host, port), handler)
        self._servers.append(srv)
        return srv

    def internet(self, on):
        verb = "replace" if on else "del"
        self.run(["ip", "route", verb, "default", "dev", "lo"], check=on)

    def serve_https(self, handler, context, host="127.0.0.1", port=0):
        """A scripted server behind TLS (context: a server ssl.SSLContext)."""
        srv = HttpServer(self.listen_tcp(host, port), handler, tls=context)
        self._servers.append(srv)
        return srv

    def start_nginx(self, root_dir, port=80, host="127.0.0.1"):
        server = "server { listen %s:%d; server_name _; root %s; }" % (host, port, root_dir)
        return self.start_nginx_servers("nginx-%s-%d" % (host, port), server, [(host, port)])

    def start_nginx_servers(self, name, servers, listens):
        """nginx with the given server blocks (configuration text); returns
        once every (host, port) of listens accepts connections."""
        d = os.path.join(self.tmp, name)
        os.makedirs(os.path.join(d, "tmp"), exist_ok=True)
        conf = os.path.join(d, "nginx.conf")
        temps = "".join("%s_temp_path %s/tmp/%s;\n" % (k, d, k)
                        for k in ("client_body", "proxy", "fastcgi", "uwsgi", "scgi"))
        with open(conf, "w") as f:
            f.write("""user root;
worker_processes 1;
pid %(d)s/nginx.pid;
error_log %(d)s/error.log;
events { worker_connections 64; }
http {
  access_log %(d)s/access.log;
  %(temps)s
  types { application/rss+xml rss; application/atom+xml atom; text/xml xml;
          audio/mpeg mp3; image/png png; image/jpeg jpg; text/html html; text/plain txt; }
  default_type application/octet-stream;
  %(servers)s
}
""" % dict(d=d, temps=temps, servers=servers))
        p = self.spawn(["nginx", "-p", d, "-c", conf, "-e", d + "/error.log", "-g", "daemon off;"])
        for host, port in listens:
            self._wait_until(lambda: self._tcp_open(host, port), 15, "nginx on %s:%d" % (host, port), p)
        return p

    def _tcp_open(self, host, port):
        try:
            self.connect_tcp(host, port, timeout=1).close()
            return True
        except OSError:
            return False

    # --- configd ------------------------------------------------------------
    def start_configd(self, statedir="/var/lib/configd", args=(), prefix=()):
        """configd (behind `prefix`, a command that runs it); returns once it
        serves. The socket file alone is not enough: it exists between bind
        and listen, and a socket left by a killed configd exists all along."""
        serving = re.compile("^serving ")
        seen = self.syslog.count(serving, ident="configd")
        p = self.spawn(list(prefix) + [self.bin("configd"), "--state-dir", statedir] + list(args))
        self._wait_until(lambda: self.syslog.count(serving, ident="configd") > seen, 15, "configd", p)
        return p

    def silent_configd(self):
        """Listens on /var/rpc/configd but never answers (see SilentPeer)."""
        peer = SilentPeer(self.path("/var/rpc/configd"))
        self._servers.append(peer)
        return peer

    def configctl(self, *args, input=None):
        return self.run([self.bin("configctl")] + list(args), input=input)

    def kelpctl(self, *args, input=None, timeout=30):
        return self.run([self.bin("kelpctl")] + list(args), input=input, timeout=timeout)

    # --- kelpd --------------------------------------------------------------
    def start_kelpd(self, *args, prog=None, env=None, wait_pidfile=True, timeout=15):
        """Runs kelpd; returns (parent's CompletedProcess, daemon pid or None).
        Returns once the pid file names the daemon, or the daemon has ended."""
        # kelpd counts every 'v' of its arguments, its own path included, into
        # the start verbosity: the build tree's path (a checkout anywhere) must
        # not count, so the built daemon runs with the plain name "kelpd".
        argv = [prog] if prog else ["bash", "-c", 'exec -a kelpd "$0" "$@"', self.bin("kelpd")]
        cp = self.run(argv + list(args), env=env, timeout=timeout)
        m = re.search(r"kelpd started with pid \[(\d+)\]", cp.stdout or "")
        if not m:
            return cp, None
        pid = int(m.group(1))
        if wait_pidfile:
            self._wait_until(lambda: self.pidfile_pid() == pid or self._reap(pid) is not None,
                             timeout, "pid file of %d" % pid)
            # The pid file is written just before the handlers are installed:
            # a test's first signal must not meet the default action.
            self._wait_until(lambda: self._catches_signals(pid) or self._reap(pid) is not None,
                             timeout, "signal handlers of %d" % pid)
        return cp, pid

    def _catches_signals(self, pid):
        try:
            with open(self.path("/proc/%d/status" % pid)) as f:
                m = re.search(r"^SigCgt:\s*([0-9a-f]+)$", f.read(), re.M)
        except OSError:
            return False
        served = (signal.SIGHUP, signal.SIGTERM, signal.SIGUSR2)
        return bool(m) and all(int(m.group(1), 16) & (1 << (sig - 1)) for sig in served)

    def pidfile_pid(self):
        try:
            with open(self.path("/var/run/kelpd.pid"), "rb") as f:
                m = re.match(rb"(\d+)", f.read())
        except OSError:
            return None
        return int(m.group(1)) if m else None

    def _reap(self, pid):
        """Exit status if the process has ended, else None. A daemon is our
        child once its parent exited (subreaper); one that ended before that
        was reaped by the kernel (kelpd ignores SIGCHLD before it forks), and
        its status comes from the kernel's process exit events."""
        if pid in self._exits:
            return self._exits[pid]
        try:
            got, status = os.waitpid(pid, os.WNOHANG)
        except ChildProcessError:
            got, status = 0, None
        if got:
            self._exits[pid] = os.waitstatus_to_exitcode(status)
        elif pid in self.exit_events.codes:
            self._exits[pid] = os.waitstatus_to_exitcode(self.exit_events.codes[pid])
        return self._exits.get(pid)

    def wait_exit(self, pid, timeout=15):
        """Exit status of a daemon (negative: killed by that signal)."""
        self._wait_until(lambda: self._reap(pid) is not None, timeout, "exit of %d" % pid)
        # Everything the daemon logged is in the socket queue by now.
        self.syslog.sync()
        return self._exits[pid]

    def alive(self, pid):
        if self._reap(pid) is not None:
            return False
        try:
            os.kill(pid, 0)
        except ProcessLookupError:
            return False
        return True

    def signal(self, pid, sig):
        os.kill(pid, sig)

    @staticmethod
    def _wait_until(cond, timeout, what, proc=None):
        deadline = time.monotonic() + timeout
        while not cond():
            if proc is not None and proc.poll() is not None:
                raise RuntimeError("%s: process ended with %s" % (what, proc.returncode))
            if time.monotonic() > deadline:
                raise TimeoutError("timed out waiting for " + what)
            time.sleep(0.02)

    # --- teardown -----------------------------------------------------------
    def _members(self):
        pids = []
        for d in os.listdir("/proc"):
            if not d.isdigit() or int(d) == self.pid:
                continue
            try:
                if os.readlink("/proc/%s/ns/net" % d) == self._netns:
                    pids.append(int(d))
            except OSError:
                pass
        return pids

    def close(self):
        # Kill first: a daemon that saw its configd peer vanish would start
        # exiting, and a kill in the middle of its leak check is our doing.
        self._killed = set()
        if getattr(self, "holder", None) is not None and getattr(self, "_netns", None):
            for pid in self._members():
                try:
                    os.kill(pid, signal.SIGKILL)
                    self._killed.add(pid)
                except ProcessLookupError:
                    pass
        for srv in self._servers:
            srv.close()
        for p in self._procs:
            if p.poll() is None:
                p.kill()
            p.wait()
        if getattr(self, "holder", None) is not None:
            if self.holder.poll() is None:
                self.holder.kill()
            self.holder.wait()
        self._reap_strays()
        self.syslog.close()
        self.exit_events.close()

    def _reap_strays(self):
        while True:
            try:
                pid, status = os.waitpid(-1, os.WNOHANG)
            except ChildProcessError:
                return
            if pid == 0:
                return
            self._exits.setdefault(pid, os.waitstatus_to_exitcode(status))

    def problems(self):
        """Sanitizer reports and alarming syslog lines seen during the test."""
        found = []
        for name in sorted(os.listdir(self.tmp)):
            if name.startswith("asan") or name.startswith("ubsan"):
                with open(os.path.join(self.tmp, name), errors="replace") as f:
                    text = f.read()
                if not self._killed_in_leak_check(name, text):
                    found.append("%s:\n%s" % (name, text))
        for r in self.syslog.records():
            if _BAD_LOG.search(r.text):
                found.append("syslog %s[%s]: %s" % (r.ident, r.pid, r.text))
        return found

    def _killed_in_leak_check(self, name, text):
        """True for the only report a process leaves when our teardown kill
        lands while it is checking for leaks on its way out."""
        m = re.fullmatch(r"asan\.(\d+)", name)
        if not m or int(m.group(1)) not in getattr(self, "_killed", ()):
            return False
        return re.fullmatch(r"(==\d+==Unable to get registers from thread \d+\.\n)+", text) is not None

    def remove(self):
        shutil.rmtree(self.tmp, ignore_errors=True)
