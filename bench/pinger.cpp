// kelp-bench-pinger: one client that keeps asking while something else
// happens in the daemon, and says how long each answer took.
//
//   kelp-bench-pinger --socket PATH --login TEXT --request TEXT [--interval-ms 5]
//
// Connects (SOCK_SEQPACKET), logs in and waits for the answer, prints
// "ready", then sends --request every --interval-ms (the next one leaves at
// the next tick after the answer, never two outstanding) until a line or
// the end of standard input comes. Then prints one line: every answer time
// in microseconds, in the order sent. An answer time runs from just before
// the send to the kernel's arrival stamp of the answer (SO_TIMESTAMPNS), so
// that this program being woken late on a busy machine does not count.
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "bench/seqpacket_client.h"

namespace {

using bench::connect_to;
using bench::die;
using bench::first_word;
using bench::is_answer;
using bench::send_text;

double now_us()
{
    timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    return static_cast<double>(ts.tv_sec) * 1e6 + static_cast<double>(ts.tv_nsec) / 1e3;
}

int connect_stamped(const std::string &path)
{
    int fd = connect_to(path);
    int on = 1;
    if (setsockopt(fd, SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof on) != 0)
        die("SO_TIMESTAMPNS");
    return fd;
}

// One block and the time the kernel queued it (microseconds, realtime).
ssize_t recv_stamped(int fd, std::vector<char> &buf, double *stamp)
{
    iovec iov{buf.data(), buf.size() - 1};
    alignas(cmsghdr) char ctl[CMSG_SPACE(sizeof(timespec))];
    msghdr msg{};
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    msg.msg_control = ctl;
    msg.msg_controllen = sizeof ctl;
    ssize_t n = recvmsg(fd, &msg, 0);
    if (n <= 0)
        die(n == 0 ? "connection closed" : "recvmsg");
    buf[static_cast<size_t>(n)] = '\0';
    *stamp = now_us();
    for (cmsghdr *c = CMSG_FIRSTHDR(&msg); c; c = CMSG_NXTHDR(&msg, c))
        if (c->cmsg_level == SOL_SOCKET && c->cmsg_type == SO_TIMESTAMPNS) {
            timespec ts;
            memcpy(&ts, CMSG_DATA(c), sizeof ts);
            *stamp = static_cast<double>(ts.tv_sec) * 1e6 + static_cast<double>(ts.tv_nsec) / 1e3;
        }
    return n;
}

// Sends `text` and waits for its answer, passing over pushed messages;
// returns the answer's arrival stamp.
double ask(int fd, const std::string &text, std::vector<char> &buf)
{
    std::string word = first_word(text);
    send_text(fd, text);
    double stamp = 0;
    do
        recv_stamped(fd, buf, &stamp);
    while (!is_answer(buf.data(), word));
    return stamp;
}

// True once standard input has a line or has ended; waits at most ms.
bool told_to_stop(int ms)
{
    pollfd p{0, POLLIN, 0};
    return poll(&p, 1, ms) > 0;
}

struct options {
    std::string socket, login, request;
    int interval_ms = 5;
};

options parse(int argc, char **argv)
{
    options o;
    for (int i = 1; i + 1 < argc; i += 2) {
        std::string k = argv[i], v = argv[i + 1];
        if (k == "--socket") o.socket = v;
        else if (k == "--login") o.login = v;
        else if (k == "--request") o.request = v;
        else if (k == "--interval-ms") o.interval_ms = atoi(v.c_str());
        else {
            fprintf(stderr, "kelp-bench-pinger: unknown option %s\n", k.c_str());
            exit(2);
        }
    }
    if (o.socket.empty() || o.login.empty() || o.request.empty() || o.interval_ms < 1) {
        fprintf(stderr, "usage: kelp-bench-pinger --socket PATH --login TEXT --request TEXT [--interval-ms N]\n");
        exit(2);
    }
    return o;
}

} // namespace

int main(int argc, char **argv)
{
    options o = parse(argc, argv);
    std::vector<char> buf(1 << 20);
    int fd = connect_stamped(o.socket);
    ask(fd, o.login, buf);
    printf("ready\n");
    fflush(stdout);
    std::vector<double> took;
    double next = now_us();
    for (;;) {
        double wait_ms = (next - now_us()) / 1e3;
        if (told_to_stop(wait_ms > 0 ? static_cast<int>(wait_ms) : 0))
            break;
        double sent = now_us();
        took.push_back(ask(fd, o.request, buf) - sent);
        next = sent + o.interval_ms * 1e3;
    }
    for (size_t i = 0; i < took.size(); i++)
        printf(i ? " %.1f" : "%.1f", took[i]);
    printf("\n");
    close(fd);
    return 0;
}
