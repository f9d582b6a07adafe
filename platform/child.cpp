// child: workers started as programs of their own, with one pipe back,
// their signals at their defaults and their privileges given up first.
#include "platform/child.h"
#include "platform/fdio.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <climits>
#include <fcntl.h>
#include <initializer_list>
#include <grp.h>
#include <pwd.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

extern char **environ;

namespace {

// Descriptors below this are the worker's own numbers: 0-2 and the pipe.
constexpr int kFirstFree = CHILD_RESULT_FD + 1;

// The daemon ignores SIGCHLD and job-control signals and handles others;
// an ignored signal would stay ignored across exec.
void default_signals(posix_spawnattr_t *attr)
{
    sigset_t all;
    sigfillset(&all);
    posix_spawnattr_setsigdefault(attr, &all);
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_setsigmask(attr, &none);
    posix_spawnattr_setflags(attr, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
}

// A pipe already holding the job: the worker's input. Its write end is
// closed behind the job, or kept in *more for the rest.
int job_pipe(const void *job, size_t n, int *more)
{
    if (n > PIPE_BUF) {
        errno = E2BIG;
        return -1;
    }
    int p[2];
    if (pipe2(p, O_CLOEXEC) != 0)
        return -1;
    ssize_t w = write(p[1], job, n);
    int err = errno;
    if (w != static_cast<ssize_t>(n) || !more)
        close(p[1]);
    if (w != static_cast<ssize_t>(n)) {
        close(p[0]);
        errno = w < 0 ? err : EIO;
        return -1;
    }
    if (more)
        *more = p[1];
    return p[0];
}

// A write to a pipe whose reader has gone raises SIGPIPE; held back here and
// taken if it came, the write just fails with EPIPE.
ssize_t write_quietly(int fd, const void *data, size_t n)
{
    sigset_t pipe_only, old;
    sigemptyset(&pipe_only);
    sigaddset(&pipe_only, SIGPIPE);
    sigprocmask(SIG_BLOCK, &pipe_only, &old);
    ssize_t w = write(fd, data, n);
    int err = errno;
    const timespec now = {0, 0};
    if (w < 0 && err == EPIPE)
        while (sigtimedwait(&pipe_only, nullptr, &now) < 0 && errno == EINTR) {
        }
    sigprocmask(SIG_SETMASK, &old, nullptr);
    errno = err;
    return w;
}

// Only the two pipes go along: no client, listener, configd session or the
// pid file's lock. Both are moved clear of the numbers they take first.
int spawn_with_pipes(const char *path, int in, int out, pid_t *pid)
{
    int high_in = fcntl(in, F_DUPFD_CLOEXEC, kFirstFree);
    int high_out = fcntl(out, F_DUPFD_CLOEXEC, kFirstFree);
    int err = high_in < 0 || high_out < 0 ? errno : 0;
    if (!err) {
        posix_spawn_file_actions_t actions;
        posix_spawnattr_t attr;
        posix_spawn_file_actions_init(&actions);
        posix_spawnattr_init(&attr);
        posix_spawn_file_actions_adddup2(&actions, high_in, 0);
        posix_spawn_file_actions_adddup2(&actions, high_out, CHILD_RESULT_FD);
        posix_spawn_file_actions_addclosefrom_np(&actions, kFirstFree);
        default_signals(&attr);
        char *const argv[] = {const_cast<char *>(path), nullptr};
        err = posix_spawn(pid, path, &actions, &attr, argv, environ);
        posix_spawnattr_destroy(&attr);
        posix_spawn_file_actions_destroy(&actions);
    }
    for (int fd : {high_in, high_out})
        if (fd >= 0)
            close(fd);
    return err;
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

bool child_beside_self(const char *name, char *buf, size_t size)
{
    ssize_t n = readlink("/proc/self/exe", buf, size);
    if (n <= 0 || static_cast<size_t>(n) >= size)
        return false;
    buf[n] = '\0';
    char *slash = strrchr(buf, '/');
    if (!slash || static_cast<size_t>(slash + 1 - buf) + strlen(name) >= size)
        return false;
    strcpy(slash + 1, name);
    return true;
}

pid_t child_spawn(const char *path, const void *job, size_t n, int *rfd, int *more)
{
    // Not every posix_spawn reports a failed exec (emulators, old kernels
    // run it in a child of its own): a missing program is named here.
    if (access(path, X_OK) != 0)
        return -1;
    int rest = -1;
    int in = job_pipe(job, n, more ? &rest : nullptr);
    if (in < 0)
        return -1;
    int p[2] = {-1, -1};
    pid_t pid = -1;
    int err = pipe2(p, O_CLOEXEC) != 0 ? errno : spawn_with_pipes(path, in, p[1], &pid);
    close(in);
    if (p[1] >= 0)
        close(p[1]);
    if (err != 0) {
        if (p[0] >= 0)
            close(p[0]);
        if (rest >= 0)
            close(rest);
        errno = err;
        return -1;
    }
    fcntl(p[0], F_SETFL, O_NONBLOCK);
    *rfd = p[0];
    if (more)
        *more = rest;
    return pid;
}

bool child_send_rest(int more, const void *rest, size_t n)
{
    bool sent = n <= PIPE_BUF && write_quietly(more, rest, n) == static_cast<ssize_t>(n);
    close(more);
    return sent;
}

void child_end(pid_t pid)
{
    if (pid <= 0)
        return;
    // Skips a child that has already ended. SIGCHLD is ignored, so the
    // kernel reaps a child the moment it exits: one that exits between this
    // check and the kill leaves its pid free for a few microseconds, and only
    // a whole turn of the pid space in that span could misdirect the signal.
    if (waitpid(pid, nullptr, WNOHANG) != 0)
        return; // reaped just now, or already gone
    kill(pid, SIGKILL);
    while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
    }
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
    return 0;
}

bool child_confine(pid_t parent)
{
    prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    return getppid() == parent;
}

bool child_write_all(int fd, const void *data, size_t n)
{
    return fdio_write_all(fd, static_cast<const char *>(data), n);
}
