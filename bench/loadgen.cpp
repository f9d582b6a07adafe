// kelp-bench-loadgen: drives a control socket (kelpd's, or the echo
// baseline's) from many SOCK_SEQPACKET connections on one epoll loop.
//
// Round trips (default): every connection logs in (when --login is given;
// one answer awaited), then keeps exactly one --request outstanding: each
// answer that begins "OK\t<word>\t" or "ERROR\t<word>\t" sends the next.
// After --warmup seconds the answers are counted for --seconds; prints
//   {"clients": N, "round_trips": C, "seconds": S, "rate": R, "reply_bytes": B,
//    "server_cpu_us_per_rt": U}
// U is the CPU time (user + system) that the process --server-pid used in
// the counted window, per round trip (0 without --server-pid).
//
// Notification (--notify ROUNDS): the N connections log in with --login
// and only listen; one more connection logs in with --trigger-login and
// sends --request, formatted with the round number plus --first-uid (a %u
// in the text). A round lasts from that send to the moment every listener
// has received a message beginning "overview\t"; prints one line of
// microseconds per round.
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "bench/seqpacket_client.h"

namespace {

using bench::connect_to;
using bench::die;
using bench::first_word;
using bench::is_answer;
using bench::send_text;

using clock_type = std::chrono::steady_clock;

struct options {
    std::string socket;
    std::string login;
    std::string trigger_login;
    std::string request;
    int clients = 1;
    double seconds = 1.0;
    double warmup = 0.3;
    int notify_rounds = 0;
    unsigned first_uid = 0;
    int server_pid = 0;
};

double since(clock_type::time_point t0)
{
    return std::chrono::duration<double>(clock_type::now() - t0).count();
}

// User plus system CPU time of a process so far, in microseconds (0 unknown).
double cpu_us(int pid)
{
    if (pid <= 0)
        return 0;
    char path[64];
    snprintf(path, sizeof path, "/proc/%d/stat", pid);
    FILE *f = fopen(path, "r");
    if (!f)
        return 0;
    char buf[1024];
    size_t n = fread(buf, 1, sizeof buf - 1, f);
    fclose(f);
    buf[n] = '\0';
    const char *p = strrchr(buf, ')');
    unsigned long utime = 0, stime = 0;
    // Fields after the command's closing parenthesis: state is the 3rd, utime the 14th.
    if (!p || sscanf(p + 2, "%*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %lu %lu", &utime, &stime) != 2)
        return 0;
    return static_cast<double>(utime + stime) * 1e6 / static_cast<double>(sysconf(_SC_CLK_TCK));
}

// One block; returns its length (0: the peer closed).
ssize_t recv_block(int fd, std::vector<char> &buf, int flags = 0)
{
    ssize_t n = recv(fd, buf.data(), buf.size() - 1, flags);
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
        return -1;
    if (n < 0)
        die("recv");
    buf[n] = '\0';
    return n;
}

// Logs a connection in and waits for the answer, passing over pushes.
void login(int fd, const std::string &text, std::vector<char> &buf)
{
    if (text.empty())
        return;
    send_text(fd, text);
    std::string word = first_word(text);
    for (;;) {
        if (recv_block(fd, buf) == 0) {
            fprintf(stderr, "kelp-bench-loadgen: closed during login\n");
            exit(1);
        }
        if (is_answer(buf.data(), word))
            return;
    }
}

// Reads everything pushed so far, until nothing came for `quiet` seconds.
void drain(int ep, std::vector<char> &buf, double quiet)
{
    epoll_event ev[64];
    for (;;) {
        int n = epoll_wait(ep, ev, 64, static_cast<int>(quiet * 1000));
        if (n <= 0)
            return;
        for (int i = 0; i < n; i++)
            recv_block(ev[i].data.fd, buf, MSG_DONTWAIT);
    }
}

int add_all(const std::vector<int> &fds)
{
    int ep = epoll_create1(EPOLL_CLOEXEC);
    if (ep < 0)
        die("epoll_create1");
    for (int fd : fds) {
        epoll_event ev{};
        ev.events = EPOLLIN;
        ev.data.fd = fd;
        if (epoll_ctl(ep, EPOLL_CTL_ADD, fd, &ev) != 0)
            die("epoll_ctl");
    }
    return ep;
}

std::vector<int> open_clients(const options &o, int n, std::vector<char> &buf)
{
    std::vector<int> fds;
    for (int i = 0; i < n; i++) {
        fds.push_back(connect_to(o.socket));
        login(fds.back(), o.login, buf);
    }
    return fds;
}

int round_trips(const options &o)
{
    std::vector<char> buf(1 << 20);
    std::vector<int> fds = open_clients(o, o.clients, buf);
    int ep = add_all(fds);
    drain(ep, buf, 0.2);
    std::string word = first_word(o.request);
    for (int fd : fds)
        send_text(fd, o.request);
    long counted = 0;
    ssize_t reply = 0;
    auto t0 = clock_type::now();
    bool measuring = false;
    clock_type::time_point m0;
    double cpu0 = 0;
    epoll_event ev[256];
    for (;;) {
        if (!measuring && since(t0) >= o.warmup) {
            measuring = true;
            m0 = clock_type::now();
            cpu0 = cpu_us(o.server_pid);
        }
        if (measuring && since(m0) >= o.seconds)
            break;
        int n = epoll_wait(ep, ev, 256, 100);
        for (int i = 0; i < n; i++) {
            int fd = ev[i].data.fd;
            ssize_t got = recv_block(fd, buf, MSG_DONTWAIT);
            if (got == 0) {
                fprintf(stderr, "kelp-bench-loadgen: a connection was closed\n");
                return 1;
            }
            if (got < 0 || !is_answer(buf.data(), word))
                continue;
            reply = got;
            if (measuring)
                counted++;
            send_text(fd, o.request);
        }
    }
    double secs = since(m0);
    double cpu = cpu_us(o.server_pid) - cpu0;
    printf("{\"clients\": %d, \"round_trips\": %ld, \"seconds\": %.4f, \"rate\": %.1f, \"reply_bytes\": %zd, "
           "\"server_cpu_us_per_rt\": %.2f}\n",
           o.clients, counted, secs, counted / secs, reply, counted ? cpu / static_cast<double>(counted) : 0.0);
    return 0;
}

// Waits until every listener has had an overview; returns the time of the last.
clock_type::time_point await_overviews(int ep, std::vector<char> &buf, std::vector<char> &seen, size_t want)
{
    size_t got = 0;
    epoll_event ev[256];
    clock_type::time_point last{};
    while (got < want) {
        int n = epoll_wait(ep, ev, 256, 15000);
        if (n <= 0) {
            fprintf(stderr, "kelp-bench-loadgen: %zu of %zu overviews after 15 s\n", got, want);
            exit(1);
        }
        for (int i = 0; i < n; i++) {
            int fd = ev[i].data.fd;
            ssize_t len;
            while ((len = recv_block(fd, buf, MSG_DONTWAIT)) > 0) {
                if (strncmp(buf.data(), "overview\t", 9) != 0 || seen[fd])
                    continue;
                seen[fd] = 1;
                got++;
                last = clock_type::now();
            }
        }
    }
    return last;
}

int notification(const options &o)
{
    std::vector<char> buf(1 << 20);
    std::vector<int> fds = open_clients(o, o.clients, buf);
    int trig = connect_to(o.socket);
    login(trig, o.trigger_login, buf);
    int ep = add_all(fds);
    drain(ep, buf, 0.3);
    std::string word = first_word(o.request);
    std::vector<char> seen(static_cast<size_t>(*std::max_element(fds.begin(), fds.end())) + 1);
    for (int r = 0; r < o.notify_rounds; r++) {
        std::fill(seen.begin(), seen.end(), 0);
        char req[512];
        snprintf(req, sizeof req, o.request.c_str(), o.first_uid + static_cast<unsigned>(r));
        auto t0 = clock_type::now();
        send_text(trig, req);
        auto t1 = await_overviews(ep, buf, seen, fds.size());
        printf("%.1f\n", std::chrono::duration<double, std::micro>(t1 - t0).count());
        fflush(stdout);
        // The trigger's own answer, then a quiet pause before the next round.
        while (recv_block(trig, buf) > 0 && !is_answer(buf.data(), word)) {
        }
        drain(ep, buf, 0.1);
    }
    return 0;
}

options parse(int argc, char **argv)
{
    options o;
    for (int i = 1; i + 1 < argc; i += 2) {
        std::string k = argv[i], v = argv[i + 1];
        if (k == "--socket") o.socket = v;
        else if (k == "--login") o.login = v;
        else if (k == "--trigger-login") o.trigger_login = v;
        else if (k == "--request") o.request = v;
        else if (k == "--clients") o.clients = atoi(v.c_str());
        else if (k == "--seconds") o.seconds = atof(v.c_str());
        else if (k == "--warmup") o.warmup = atof(v.c_str());
        else if (k == "--notify") o.notify_rounds = atoi(v.c_str());
        else if (k == "--first-uid") o.first_uid = static_cast<unsigned>(atoi(v.c_str()));
        else if (k == "--server-pid") o.server_pid = atoi(v.c_str());
        else {
            fprintf(stderr, "kelp-bench-loadgen: unknown option %s\n", k.c_str());
            exit(2);
        }
    }
    if (o.socket.empty() || o.request.empty() || o.clients < 1) {
        fprintf(stderr, "usage: kelp-bench-loadgen --socket PATH --request TEXT [--clients N] [--login TEXT]\n"
                        "       [--seconds S] [--warmup S] [--notify ROUNDS --trigger-login TEXT --first-uid U]\n");
        exit(2);
    }
    return o;
}

} // namespace

int main(int argc, char **argv)
{
    options o = parse(argc, argv);
    return o.notify_rounds > 0 ? notification(o) : round_trips(o);
}
