// The support-data client: finds the running daemon through its pid file,
// makes sure the pid is really kelpd, asks it for a status dump with SIGUSR2
// and waits until the dump file has been closed after writing.
#include "daemon/kd_diag.h"

#include "platform/kd_paths.h"
#include "util/kd_fd.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/select.h>
#include <unistd.h>

namespace {

// How the wait for the dump ended; failed: the signal could not be sent.
enum class kd_wait { done, timed_out, fallback, failed };

// The leading number of the pid file into `pid`; false when there is none
// to read (any number, even a negative one, goes on to the /proc check).
bool read_pid(int &pid)
{
    char path[32];
    snprintf(path, sizeof(path), "%s/%s", KD_RUN_DIR, KD_PID_FILE);
    kd_unique_fd fd(open(path, O_RDONLY));
    if (!fd) {
        fprintf(stderr, "unable to open kelpd lockfile: %s\n", strerror(errno));
        return false;
    }
    char buf[8] = "";
    ssize_t n = read(fd.get(), buf, 7);
    if (n <= 0) {
        fprintf(stderr, "unable to read kelpd pid from lockfile\n");
        return false;
    }
    pid = atoi(buf);
    return true;
}

// A pid file may outlive its daemon and the pid be reused: check the name.
bool is_kelpd(int pid)
{
    char path[64];
    snprintf(path, sizeof(path), "/proc/%d/cmdline", pid);
    kd_unique_fd fd(open(path, O_RDONLY));
    if (!fd) {
        fprintf(stderr, "unable to verify kelpd in '%s' - lockfile seems to be stale: %s\n", path, strerror(errno));
        return false;
    }
    char buf[32] = "";
    ssize_t n = read(fd.get(), buf, 31);
    const char *base = n > 0 ? strrchr(buf, '/') : nullptr;
    base = base ? base + 1 : buf;
    if (n <= 0 || strcmp(base, KD_PROGRAM_NAME) != 0) {
        fprintf(stderr, "cmdline of pid %d is not 'kelpd' - lockfile seems to be stale\n", pid);
        return false;
    }
    return true;
}

// The inotify descriptor watching the dump file; none for the fallback wait.
kd_unique_fd prepare_watch(int &wd)
{
    kd_unique_fd fd(inotify_init());
    if (!fd) {
        fprintf(stderr, "unable to initialize inotify instance: %s\n", strerror(errno));
        return fd;
    }
    int flags = fcntl(fd.get(), F_GETFL);
    if (flags < 0 || fcntl(fd.get(), F_SETFL, flags | O_NONBLOCK) < 0) {
        fprintf(stderr, "unable to set inotify instance to non-blocking : %s\n", strerror(errno));
        return kd_unique_fd();
    }
    wd = inotify_add_watch(fd.get(), KD_DUMP_FILE, IN_CLOSE_WRITE);
    if (wd < 0) {
        fprintf(stderr, "unable to add '%s' to inotify watch list: %s\n", KD_DUMP_FILE, strerror(errno));
        return kd_unique_fd();
    }
    return fd;
}

// One readable turn: true when this watch saw the file closed after writing.
bool dump_closed(int fd, int wd)
{
    inotify_event ev;
    ssize_t n = read(fd, &ev, sizeof(ev));
    return n == static_cast<ssize_t>(sizeof(ev)) && ev.wd == wd && (ev.mask & IN_CLOSE_WRITE);
}

// select() on the descriptor alone; Linux leaves the unused rest of the
// budget in the timeval, which carries it into the next wait.
int wait_readable(int fd, timeval &budget)
{
    fd_set rd;
    FD_ZERO(&rd);
    FD_SET(fd, &rd);
    return select(fd + 1, &rd, nullptr, nullptr, &budget);
}

kd_wait wait_for_dump(int fd, int wd)
{
    if (fd < 0) {
        sleep(3);
        return kd_wait::fallback;
    }
    timeval budget {3, 0};
    while (budget.tv_sec > 0 || budget.tv_usec > 0) {
        int r = wait_readable(fd, budget);
        if (r < 0 && errno == EINTR)
            continue;
        if (r < 0) {
            fprintf(stderr, "select failed, going to sleep now: %s\n", strerror(errno));
            sleep(3);
            return kd_wait::fallback;
        }
        if (r > 0 && dump_closed(fd, wd))
            return kd_wait::done;
    }
    return kd_wait::timed_out;
}

// The watch needs the file to exist before the daemon writes it.
void create_dump_file()
{
    kd_unique_fd created(open(KD_DUMP_FILE, O_CREAT | O_EXCL | O_RDONLY, 0640));
}

// Sends the signal and waits; the inotify descriptor is closed either way.
kd_wait request_dump(int pid)
{
    int wd = -1;
    kd_unique_fd fd = prepare_watch(wd);
    if (kill(pid, SIGUSR2) != 0) {
        fprintf(stderr, "unable to send SIGUSR2 to %d: %s\n", pid, strerror(errno));
        return kd_wait::failed;
    }
    return wait_for_dump(fd.get(), wd);
}

} // namespace

int create_supportdata(void)
{
    int pid = 0;
    if (!read_pid(pid) || !is_kelpd(pid))
        return 1;
    create_dump_file();
    kd_wait how = request_dump(pid);
    if (how == kd_wait::done)
        return 0;
    if (how == kd_wait::timed_out)
        fprintf(stderr, "warning: waiting for logfile timed out - data might be missing or outdated\n");
    else if (how == kd_wait::fallback)
        fprintf(stderr, "warning: nifty waiting for logfile failed - hopefully things still work out\n");
    return 1;
}
