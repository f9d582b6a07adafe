// kelp-web's kelpd on demand: finding, starting and probing kelpd, and the
// growing pauses between tries (see keeper.h).
#include "keeper.h"

#include "session.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>

namespace kweb {

namespace {

constexpr size_t kMaxSaid = 4096;

bool executable(const std::string &path)
{
    return access(path.c_str(), X_OK) == 0;
}

std::string self_program()
{
    char buf[4096];
    ssize_t n = readlink("/proc/self/exe", buf, sizeof(buf) - 1);
    return n > 0 ? std::string(buf, static_cast<size_t>(n)) : std::string();
}

// The child's side: kelpd gets a clean start (default signal handling,
// nothing blocked, no descriptor of ours) and prints into `out`.
[[noreturn]] void run_kelpd(const std::string &path, int out)
{
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    signal(SIGPIPE, SIG_DFL);
    int null = open("/dev/null", O_RDWR);
    dup2(null >= 0 ? null : out, 0);
    dup2(out, 1);
    close_range(3, ~0u, 0);
    // kelpd counts every 'v' of its arguments, its own path included: it
    // runs under its plain name.
    execl(path.c_str(), "kelpd", static_cast<char *>(nullptr));
    dprintf(1, "cannot run %s: %s\n", path.c_str(), strerror(errno));
    _exit(127);
}

// What the launcher printed so far (it prints one line and exits).
void read_said(kelpd_keeper *k)
{
    char buf[512];
    ssize_t n;
    while (k->out && (n = read(k->out.get(), buf, sizeof(buf))) != 0) {
        if (n < 0) {
            if (errno == EINTR)
                continue;
            if (errno != EAGAIN)
                k->out = kd_unique_fd();
            return;
        }
        k->said.append(buf, std::min(static_cast<size_t>(n), kMaxSaid - std::min(kMaxSaid, k->said.size())));
    }
    k->out = kd_unique_fd(); // end of file
}

// "kelpd started with pid [N]" names the daemon.
void find_daemon(kelpd_keeper *k)
{
    const char *line = strstr(k->said.c_str(), "kelpd started with pid [");
    if (k->daemon > 0 || !line)
        return;
    char *end = nullptr;
    long pid = strtol(line + 24, &end, 10);
    if (end && *end == ']' && pid > 0) {
        k->daemon = static_cast<pid_t>(pid);
        syslog(LOG_INFO, "kelpd started with pid %d", k->daemon);
    }
}

// Whether a process runs (a zombie does not).
bool running(pid_t pid)
{
    std::ifstream f("/proc/" + std::to_string(pid) + "/stat");
    std::string stat;
    if (!std::getline(f, stat))
        return false;
    size_t paren = stat.rfind(')');
    return paren != std::string::npos && paren + 2 < stat.size() && stat[paren + 2] != 'Z' &&
           stat[paren + 2] != 'X';
}

std::string first_line(const std::string &text)
{
    return text.substr(0, text.find('\n'));
}

bool start_failed(kelpd_keeper *k, std::string why)
{
    k->why = std::move(why);
    return false;
}

} // namespace

int64_t mono_ms()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

bool keeper_find_program(const std::string &given, const std::string &self, const char *path, std::string *out,
                         std::string *why)
{
    if (!given.empty()) {
        *out = given;
        return true;
    }
    std::string dir = self.substr(0, self.rfind('/') == std::string::npos ? 0 : self.rfind('/'));
    if (!dir.empty() && executable(dir + "/kelpd")) {
        *out = dir + "/kelpd";
        return true;
    }
    std::string list = path ? path : "";
    for (size_t start = 0; start <= list.size();) {
        size_t colon = std::min(list.find(':', start), list.size());
        std::string d = list.substr(start, colon - start);
        if (!d.empty() && executable(d + "/kelpd")) {
            *out = d + "/kelpd";
            return true;
        }
        start = colon + 1;
    }
    *why = "no kelpd found beside kelp-web (" + (dir.empty() ? std::string("?") : dir) + ") or on PATH";
    return false;
}

int keeper_connect(const kelpd_keeper *k)
{
    return ctl_connect(k->ctl_path.c_str());
}

bool keeper_start(kelpd_keeper *k, int64_t now)
{
    std::string path;
    if (!keeper_find_program(k->program, self_program(), getenv("PATH"), &path, &k->why))
        return false;
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0)
        return start_failed(k, std::string("cannot start kelpd: ") + strerror(errno));
    kd_unique_fd rd(fds[0]), wr(fds[1]);
    pid_t pid = fork();
    if (pid < 0)
        return start_failed(k, std::string("cannot start kelpd: ") + strerror(errno));
    if (pid == 0)
        run_kelpd(path, wr.get());
    fcntl(rd.get(), F_SETFL, O_NONBLOCK);
    syslog(LOG_INFO, "starting kelpd (%s)", path.c_str());
    k->launcher = pid;
    k->out = std::move(rd);
    k->said.clear();
    k->daemon = -1;
    k->phase = keeper_phase::starting;
    k->deadline = now + kStartMs;
    k->next_probe = now;
    return true;
}

void keeper_reap(kelpd_keeper *k)
{
    if (k->launcher <= 0)
        return;
    read_said(k);
    int status = 0;
    if (waitpid(k->launcher, &status, WNOHANG) != k->launcher)
        return;
    k->launcher = -1;
    read_said(k);
    find_daemon(k);
    if (k->phase == keeper_phase::starting && !(WIFEXITED(status) && WEXITSTATUS(status) == 0)) {
        std::string line = first_line(k->said);
        k->why = !line.empty() ? line
                 : WIFEXITED(status) ? "kelpd exited with status " + std::to_string(WEXITSTATUS(status))
                                     : "kelpd was killed by signal " + std::to_string(WTERMSIG(status));
        k->deadline = 0; // the start has failed
    }
}

bool keeper_check_start(kelpd_keeper *k, int64_t now)
{
    keeper_reap(k);
    find_daemon(k);
    if (k->deadline == 0)
        return false;
    if (k->daemon > 0 && !running(k->daemon))
        return start_failed(k, "kelpd ended right after it started (is configd running? see the system log)");
    if (now < k->deadline)
        return true;
    if (k->launcher > 0) {
        kill(k->launcher, SIGKILL);
        keeper_reap(k);
    }
    return start_failed(k, "kelpd did not answer on " + k->ctl_path + " within " + std::to_string(kStartMs / 1000) +
                               " s");
}

void keeper_served(kelpd_keeper *k, int64_t now)
{
    k->phase = keeper_phase::idle;
    k->why.clear();
    if (k->served_since < 0)
        k->served_since = now;
}

int keeper_pause(kelpd_keeper *k, int64_t now)
{
    int ms = k->pause_ms;
    k->phase = keeper_phase::pausing;
    k->deadline = now + ms;
    k->pause_ms = std::min(ms * 2, kLongestPauseMs);
    return ms;
}

int keeper_lost(kelpd_keeper *k, int64_t now)
{
    if (k->phase != keeper_phase::idle)
        return static_cast<int>(std::max<int64_t>(k->deadline - now, 0));
    if (k->served_since >= 0 && now - k->served_since >= kSteadyMs)
        k->pause_ms = kFirstPauseMs;
    k->served_since = -1;
    k->why = "kelpd has stopped (it stops by itself when no profile reads a feed)";
    return keeper_pause(k, now);
}

int keeper_wait_ms(const kelpd_keeper *k, int64_t now)
{
    if (k->phase == keeper_phase::idle)
        return k->launcher > 0 ? kProbeMs : -1;
    int64_t at = k->phase == keeper_phase::starting ? k->next_probe : k->deadline;
    return static_cast<int>(std::clamp<int64_t>(at - now, 0, kLongestPauseMs));
}

} // namespace kweb
