// kd_daemon: argument scan, signal handler, and the detach into the
// background with the pid-file lock.
#include "daemon/kd_daemon.h"

#include "platform/kd_paths.h"
#include "util/kd_fd.h"
#include "util/kd_log.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

volatile sig_atomic_t g_hangup;
volatile sig_atomic_t g_terminate;
volatile sig_atomic_t g_dump;
const char *cmd = KD_PROGRAM_NAME;

namespace {

// The served signals that arrived and whose line is not written yet: set by
// the handler, cleared by kd_log_received_signals.
struct signals_seen {
    volatile sig_atomic_t term;
    volatile sig_atomic_t hup;
    volatile sig_atomic_t usr2;
};

signals_seen g_seen;

} // namespace

int kd_scan_args(int argc, char **argv)
{
    for (int i = 0; i < argc; i++) {
        for (const char *p = argv[i]; *p; p++)
            if (*p == 'v')
                verbosity++;
        if (strcmp(argv[i], "--create-supportdata") == 0)
            return 1;
    }
    return 0;
}

void signal_handler(int32_t sig)
{
    switch (sig) {
    case SIGTERM:
        g_terminate = 1;
        g_seen.term = 1;
        break;
    case SIGHUP:
        g_hangup = sig;
        g_seen.hup = 1;
        break;
    case SIGUSR2:
        g_dump = 1;
        g_seen.usr2 = 1;
        break;
    default:
        break;
    }
}

namespace {

void log_once(volatile sig_atomic_t &seen, const char *line)
{
    if (!seen)
        return;
    KD_LOG(2, LOG_INFO, "%s", line);
    seen = 0;
}

} // namespace

void kd_log_received_signals(void)
{
    log_once(g_seen.term, "received terminate signal");
    log_once(g_seen.hup, "received hangup signal");
    log_once(g_seen.usr2, "received user2 signal");
}

namespace {

void open_log()
{
    openlog(KD_PROGRAM_NAME, LOG_PID | LOG_CONS | LOG_NDELAY, LOG_USER);
}

// Every descriptor goes, the syslog connection's included; glibc must then
// forget that number, or its next message would go to (and close) whatever
// file reuses it, such as the pid file that holds the lock.
void close_all_descriptors()
{
    for (int fd = getdtablesize(); fd >= 0; fd--)
        close(fd);
    closelog();
    int null = open(KD_DEV_NULL, O_RDWR);
    if (null >= 0) {
        int out = dup(null);
        int err = dup(null);
        (void)out;
        (void)err;
    }
    open_log();
}

// The signals served by the loop are blocked except while csock_select
// sleeps, so the handler never interrupts a callback and a signal that
// arrives before the wait ends it at once.
void install_signals()
{
    signal(SIGCHLD, SIG_IGN);
    signal(SIGTSTP, SIG_IGN);
    signal(SIGTTOU, SIG_IGN);
    signal(SIGTTIN, SIG_IGN);
    sigset_t served;
    sigemptyset(&served);
    sigaddset(&served, SIGHUP);
    sigaddset(&served, SIGTERM);
    sigaddset(&served, SIGUSR2);
    sigprocmask(SIG_BLOCK, &served, nullptr);
    struct sigaction sa {};
    sa.sa_handler = signal_handler;
    sa.sa_mask = served;
    sigaction(SIGHUP, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    sigaction(SIGUSR2, &sa, nullptr);
}

// The lock lives as long as the process: the descriptor is never closed.
int32_t take_lock()
{
    kd_unique_fd fd(open(KD_PID_FILE, O_RDWR | O_CREAT, 0640));
    if (!fd) {
        KD_LOG(1, LOG_CRIT, "unable to open lockfile %s in %s (Do you have write access?) - terminating",
               KD_PID_FILE, KD_RUN_DIR);
        return -1;
    }
    if (flock(fd.get(), LOCK_EX | LOCK_NB) != 0) {
        KD_LOG(1, LOG_CRIT,
               "unable to lock lockfile %s in %s (Is there another kelpd instance still active?)- terminating",
               KD_PID_FILE, KD_RUN_DIR);
        return -1;
    }
    // Not truncated: readers take only the leading number.
    char buf[10];
    int len = snprintf(buf, sizeof(buf), "%d\n", static_cast<int>(getpid()));
    if (pwrite(fd.get(), buf, static_cast<size_t>(len), 0) != len)
        KD_LOG(1, LOG_ERR, "unable to write pid to lockfile %s: %s", KD_PID_FILE, strerror(errno));
    fd.release();
    return 0;
}

// 0 in the child; the invoking parent reports the child's pid and exits.
int32_t fork_away()
{
    pid_t pid = fork();
    if (pid < 0) {
        fprintf(stderr, "unable to fork(): %s\n", strerror(errno));
        return -1;
    }
    if (pid > 0) {
        printf("kelpd started with pid [%d]\n", static_cast<int>(pid));
        exit(0);
    }
    return 0;
}

// Leaves the invoker's session and descriptors behind, logging from here on.
int32_t detach()
{
    open_log();
    KD_LOG(2, LOG_INFO, "kelpd starting");
    umask(027);
    if (setsid() < 0) {
        KD_LOG(1, LOG_CRIT, "unable to start new process group: %s", strerror(errno));
        return -1;
    }
    close_all_descriptors();
    return 0;
}

} // namespace

int32_t daemonize(void)
{
    signal(SIGCHLD, SIG_IGN);
    if (fork_away() != 0 || detach() != 0)
        return -1;
    if (chdir(KD_RUN_DIR) != 0) {
        KD_LOG(1, LOG_CRIT, "unable to change directory to %s - terminating", KD_RUN_DIR);
        return -1;
    }
    if (take_lock() != 0)
        return -1;
    install_signals();
    return 0;
}
