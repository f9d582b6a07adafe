// kelp-bench-echo: the baseline of the client protocol benchmark. The least
// a control-socket server can do: one thread, one epoll set, a listening
// AF_UNIX SOCK_SEQPACKET socket, and for each block received one answer
// block of a fixed size beginning with "OK\t" and the request's first word,
// as kelpd's answers do (the rest zeros, as kelpd pads its blocks).
//
//   kelp-bench-echo SOCKET_PATH REPLY_BYTES
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

[[noreturn]] void die(const char *what)
{
    fprintf(stderr, "kelp-bench-echo: %s: %s\n", what, strerror(errno));
    exit(1);
}

int listen_on(const char *path)
{
    int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0)
        die("socket");
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    if (strlen(path) >= sizeof a.sun_path)
        die("socket path too long");
    strcpy(a.sun_path, path);
    unlink(path);
    if (bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0 || listen(fd, 128) != 0)
        die("bind/listen");
    return fd;
}

void watch(int ep, int fd)
{
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.fd = fd;
    if (epoll_ctl(ep, EPOLL_CTL_ADD, fd, &ev) != 0)
        die("epoll_ctl");
}

// Answers one request with "OK\t<word>\t" padded to the reply size.
void answer(int fd, const char *req, ssize_t n, std::vector<char> &reply)
{
    ssize_t w = 0;
    while (w < n && w < 64 && req[w] != ' ' && req[w] != '\t' && req[w] != '\n' && req[w] != '\0')
        w++;
    snprintf(reply.data(), reply.size(), "OK\t%.*s\t", static_cast<int>(w), req);
    if (send(fd, reply.data(), reply.size(), MSG_NOSIGNAL | MSG_DONTWAIT) < 0 && errno != EAGAIN)
        close(fd);
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 3) {
        fprintf(stderr, "usage: kelp-bench-echo SOCKET_PATH REPLY_BYTES\n");
        return 2;
    }
    size_t size = strtoul(argv[2], nullptr, 10);
    std::vector<char> reply(size < 16 ? 16 : size, '\0');
    std::vector<char> buf(8192);
    int lfd = listen_on(argv[1]);
    int ep = epoll_create1(EPOLL_CLOEXEC);
    watch(ep, lfd);
    printf("ready\n");
    fflush(stdout);
    epoll_event ev[256];
    for (;;) {
        int n = epoll_wait(ep, ev, 256, -1);
        for (int i = 0; i < n; i++) {
            int fd = ev[i].data.fd;
            if (fd == lfd) {
                int c = accept4(lfd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
                if (c >= 0)
                    watch(ep, c);
                continue;
            }
            ssize_t got = recv(fd, buf.data(), buf.size(), 0);
            if (got <= 0) {
                close(fd);
                continue;
            }
            answer(fd, buf.data(), got, reply);
        }
    }
}
