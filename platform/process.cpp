// Process services: owns the registered program name and the crash handlers
// with their alternate signal stack. The crash handler writes "crash: signal
// N" and one line per backtrace frame to syslog (and to an optional echo
// descriptor), then lets the signal kill the process with its default action.
#include "platform/process.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <execinfo.h>
#include <fcntl.h>
#include <initializer_list>
#include <syslog.h>
#include <unistd.h>

namespace {

// The registered program name and where crash reports are echoed (-1: only
// to syslog).
struct process_state {
    char pgmname[64];
    int echo_fd = -1;
};

process_state g_process;

#if !defined(__SANITIZE_ADDRESS__)
constexpr int kMaxFrames = 48;
// The stack the crash handler runs on, so a stack overflow is reported too.
alignas(16) char g_altstack[64 * 1024];

void report_line(const char *line, size_t len)
{
    syslog(LOG_CRIT, "%.*s", static_cast<int>(len), line);
    if (g_process.echo_fd < 0)
        return;
    ssize_t w1 = write(g_process.echo_fd, line, len);
    ssize_t w2 = write(g_process.echo_fd, "\n", 1);
    (void)w1;
    (void)w2;
}

// Reads the symbolised frames back out of the pipe, one report line each.
void report_frames(int rfd)
{
    char buf[4096];
    size_t used = 0;
    ssize_t n;
    while ((n = read(rfd, buf + used, sizeof(buf) - 1 - used)) > 0) {
        used += static_cast<size_t>(n);
        char *start = buf;
        char *nl;
        while ((nl = static_cast<char *>(memchr(start, '\n', used - (start - buf))))) {
            report_line(start, static_cast<size_t>(nl - start));
            start = nl + 1;
        }
        used -= static_cast<size_t>(start - buf);
        memmove(buf, start, used);
        if (used == sizeof(buf) - 1) { // an overlong frame line: cut it
            report_line(buf, used);
            used = 0;
        }
    }
    if (used)
        report_line(buf, used);
}

// Without a spare descriptor for the symbolised frames, bare addresses.
void report_addresses(void *const *frames, int n)
{
    for (int i = 0; i < n; i++) {
        char line[48];
        int len = snprintf(line, sizeof(line), "#%d [%p]", i, frames[i]);
        report_line(line, static_cast<size_t>(len));
    }
}

void report_backtrace()
{
    void *frames[kMaxFrames];
    int n = backtrace(frames, kMaxFrames);
    int fds[2];
    if (n <= 0)
        return;
    if (pipe2(fds, O_CLOEXEC) != 0) {
        report_addresses(frames, n);
        return;
    }
    // The frames fit into the pipe's buffer, so the writer never blocks.
    backtrace_symbols_fd(frames, n, fds[1]);
    close(fds[1]);
    report_frames(fds[0]);
    close(fds[0]);
}

void crash_handler(int sig)
{
    int saved = errno;
    // Should the report itself hang (a crash inside syslog), end it anyway.
    alarm(5);
    char head[48];
    int len = snprintf(head, sizeof(head), "crash: signal %d", sig);
    report_line(head, static_cast<size_t>(len));
    report_backtrace();
    errno = saved;
    // The handler was reset to the default action on entry: the raised
    // signal is delivered when the handler returns and ends the process.
    raise(sig);
}
#endif

} // namespace

void setpgmname(const char *name)
{
    snprintf(g_process.pgmname, sizeof(g_process.pgmname), "%s", name ? name : "");
}

const char *getpgmname(void)
{
    return g_process.pgmname;
}

void crashdump_set_echo_fd(int fd)
{
    g_process.echo_fd = fd;
}

void crashdump_init(const char *argv0)
{
    if (argv0 && !g_process.pgmname[0])
        setpgmname(argv0);
#if defined(__SANITIZE_ADDRESS__)
    // The sanitizer's own fault reports are the better crash dump.
    return;
#else
    // backtrace() loads its unwinder on first use; do that now, not in the handler.
    void *frame[1];
    backtrace(frame, 1);
    stack_t ss{};
    ss.ss_sp = g_altstack;
    ss.ss_size = sizeof(g_altstack);
    sigaltstack(&ss, nullptr);
    struct sigaction sa{};
    sa.sa_handler = crash_handler;
    sa.sa_flags = SA_RESETHAND | SA_ONSTACK;
    sigemptyset(&sa.sa_mask);
    for (int sig : {SIGSEGV, SIGBUS, SIGFPE, SIGABRT})
        sigaction(sig, &sa, nullptr);
#endif
}
