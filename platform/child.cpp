// child: forked workers with one pipe back to the parent, their descriptors,
// signals and privileges made safe before they run anything.
#include "platform/child.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <initializer_list>
#include <pwd.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

namespace {

// The descriptor the worker writes its result to.
constexpr int kChildFd = 3;

// In a worker: the daemon that forked it.
pid_t g_parent = 0;

// Every descriptor above `last` is closed, by the one call where the kernel
// has it, else one by one as /proc lists them (older kernels, emulators).
void close_above(int last)
{
    if (close_range(static_cast<unsigned>(last) + 1, ~0U, 0) == 0)
        return;
    DIR *d = opendir("/proc/self/fd");
    if (!d)
        return;
    for (dirent *e; (e = readdir(d));) {
        int fd = atoi(e->d_name);
        if (fd > last && fd != dirfd(d))
            close(fd);
    }
    closedir(d);
}

// Only the pipe survives: a worker must not hold the daemon's clients, its
// configd session, its listener or the pid file's lock.
void keep_only(int wfd)
{
    closelog(); // glibc would otherwise write to whatever reuses its number
    if (wfd != kChildFd) {
        dup2(wfd, kChildFd);
        close(wfd);
    }
    close_above(kChildFd);
}

// The daemon's handlers and blocked signals are the daemon's business.
void default_signals()
{
    for (int sig : {SIGHUP, SIGTERM, SIGUSR2, SIGPIPE, SIGCHLD})
        signal(sig, SIG_DFL);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
}

// A worker never outlives the daemon (the signal is armed again after a
// change of credentials, which clears it).
void die_with_parent()
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != g_parent)
        _exit(1);
}

} // namespace

bool child_lookup_account(const char *name, child_account *out)
{
    const passwd *pw = getpwnam(name);
    if (!pw)
        return false;
    out->uid = pw->pw_uid;
    out->gid = pw->pw_gid;
    return true;
}

pid_t child_spawn(int (*fn)(void *arg, int wfd), void *arg, int *rfd)
{
    int p[2];
    if (pipe2(p, O_CLOEXEC) != 0)
        return -1;
    pid_t parent = getpid();
    pid_t pid = fork();
    if (pid == 0) {
        g_parent = parent;
        keep_only(p[1]);
        default_signals();
        die_with_parent();
        prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
        _exit(fn(arg, kChildFd));
    }
    close(p[1]);
    if (pid < 0) {
        close(p[0]);
        return -1;
    }
    fcntl(p[0], F_SETFL, O_NONBLOCK);
    *rfd = p[0];
    return pid;
}

int child_drop_privileges(const child_account *account)
{
    if (geteuid() != 0)
        return 0;
    gid_t gid = account->gid;
    if (setgroups(1, &gid) != 0 || setresgid(gid, gid, gid) != 0 ||
        setresuid(account->uid, account->uid, account->uid) != 0)
        return errno;
    if (account->uid == 0 || setuid(0) == 0)
        return EPERM; // root could be taken back
    die_with_parent();
    return 0;
}

void child_kill(pid_t pid)
{
    if (pid > 0)
        kill(pid, SIGKILL);
}

void child_wait_gone(pid_t pid)
{
    while (pid > 0 && waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
    }
}

bool child_write_all(int fd, const void *data, size_t n)
{
    const char *p = static_cast<const char *>(data);
    while (n > 0) {
        ssize_t w = write(fd, p, n);
        if (w < 0 && errno == EINTR)
            continue;
        if (w <= 0)
            return false;
        p += w;
        n -= static_cast<size_t>(w);
    }
    return true;
}
