// kelpctl's transport: the sequenced-packet connection to the control
// socket, whole-message receive with a deadline, and display helpers.
#include "kelpctl.h"

#include "platform/csock.h"
#include "platform/kd_paths.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>

namespace kelpctl {

namespace {

volatile sig_atomic_t g_interrupted = 0;

void on_interrupt(int)
{
    g_interrupted = 1;
}

// Waits until a message is there; 1 ready, 0 timed out, -1 interrupted or
// failed. The interrupt signals stay blocked except inside ppoll, so one
// that arrives just before the wait cannot be missed.
int wait_readable(int fd, int timeout_ms)
{
    sigset_t block, old;
    sigemptyset(&block);
    sigaddset(&block, SIGINT);
    sigaddset(&block, SIGTERM);
    sigprocmask(SIG_BLOCK, &block, &old);
    pollfd p = {fd, POLLIN, 0};
    timespec ts = {timeout_ms / 1000, (timeout_ms % 1000) * 1000000L};
    int r = -1;
    while (!g_interrupted) {
        r = ppoll(&p, 1, timeout_ms < 0 ? nullptr : &ts, &old);
        if (r >= 0 || errno != EINTR)
            break;
    }
    sigprocmask(SIG_SETMASK, &old, nullptr);
    return g_interrupted ? -1 : r;
}

// A receive of 0 bytes is either the end or an empty packet: only the end
// comes with a hang-up.
bool peer_gone(int fd)
{
    pollfd p = {fd, POLLIN | POLLRDHUP, 0};
    return poll(&p, 1, 0) != 1 || (p.revents & (POLLHUP | POLLRDHUP)) != 0;
}

} // namespace

int fail(int status, const std::string &text)
{
    fprintf(stderr, "kelpctl: %s\n", text.c_str());
    return status;
}

int open_connection(connection *c)
{
    std::string why = std::string("kelpd is not running (cannot connect to ") + KD_CTL_SOCKET + ": ";
    c->sock = kd_unique_fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    if (!c->sock)
        return fail(kExitNoDaemon, why + strerror(errno) + ")");
    sockaddr_un sa;
    csock_sockaddr_set_unix(&sa, KD_CTL_SOCKET);
    if (connect(c->fd(), reinterpret_cast<sockaddr *>(&sa), sizeof(sa)) != 0)
        return fail(kExitNoDaemon, why + strerror(errno) + ")");
    return 0;
}

int send_text(const connection &c, const std::string &text)
{
    // One request is one packet; a peer gone is an error, not a SIGPIPE.
    ssize_t n = send(c.fd(), text.data(), text.size(), MSG_NOSIGNAL);
    if (n == static_cast<ssize_t>(text.size()))
        return 0;
    return fail(kExitNoDaemon, std::string("cannot send to kelpd: ") + strerror(errno));
}

int receive_within(const connection &c, int timeout_ms, std::string *text)
{
    int ready = wait_readable(c.fd(), timeout_ms);
    if (ready < 0)
        return g_interrupted ? kExitOk : fail(kExitNoDaemon, std::string("poll failed: ") + strerror(errno));
    if (ready == 0)
        return kTimedOut;
    // Messages are up to 256 KiB long: ask the packet's length before taking it.
    char probe;
    ssize_t len = recv(c.fd(), &probe, 1, MSG_PEEK | MSG_TRUNC);
    if (len < 0)
        return fail(kExitNoDaemon, std::string("cannot receive from kelpd: ") + strerror(errno));
    if (len == 0 && peer_gone(c.fd()))
        return fail(kExitNoDaemon, "kelpd closed the connection");
    std::string block(static_cast<size_t>(len), '\0');
    ssize_t got = recv(c.fd(), block.data(), block.size(), 0);
    if (got < 0 || (got == 0 && len > 0))
        return fail(kExitNoDaemon, "kelpd closed the connection");
    block.resize(static_cast<size_t>(got));
    *text = block.substr(0, block.find('\0'));
    return 0;
}

int receive(const connection &c, int timeout_ms, std::string *text)
{
    int st = receive_within(c, timeout_ms, text);
    if (st != kTimedOut)
        return st;
    return fail(kExitNoDaemon, "no answer from kelpd within " + std::to_string(timeout_ms / 1000) + " seconds");
}

int64_t now_ms()
{
    timespec ts = {};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

int left_ms(int64_t deadline)
{
    int64_t left = deadline - now_ms();
    return left > 0 ? static_cast<int>(left) : 0;
}

std::vector<std::string> split_fields(const std::string &text)
{
    std::vector<std::string> out;
    size_t start = 0;
    for (;;) {
        size_t tab = text.find('\t', start);
        out.push_back(text.substr(start, tab - start));
        if (tab == std::string::npos)
            return out;
        start = tab + 1;
    }
}

bool interrupted()
{
    return g_interrupted != 0;
}

void catch_interrupts()
{
    struct sigaction sa = {};
    sa.sa_handler = on_interrupt;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
}

int follow_messages(const connection &c)
{
    for (;;) {
        std::string text;
        int st = receive(c, -1, &text);
        if (st != 0 || interrupted())
            return st;
        printf("%s\n", visible(text).c_str());
        fflush(stdout);
    }
}

} // namespace kelpctl
