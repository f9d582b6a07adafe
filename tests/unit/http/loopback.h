// The HTTP tests' servers: a listener on 127.0.0.1 at a port the kernel
// picks, and the accept loop of their threads.
#pragma once
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <atomic>

namespace kelp_test {

// A listening TCP socket on loopback; its port goes to *port.
inline int loopback_listener(int *port)
{
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in sa = {};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(fd, reinterpret_cast<sockaddr *>(&sa), sizeof sa);
    listen(fd, 8);
    socklen_t l = sizeof sa;
    getsockname(fd, reinterpret_cast<sockaddr *>(&sa), &l);
    *port = ntohs(sa.sin_port);
    return fd;
}

// The next connection on a listener, looking at stop every 20 ms so that
// the server thread ends soon after it is set; -1 once it is.
inline int next_connection(int lfd, const std::atomic<bool> &stop)
{
    while (!stop) {
        pollfd p = {lfd, POLLIN, 0};
        if (poll(&p, 1, 20) <= 0)
            continue;
        int fd = accept(lfd, nullptr, nullptr);
        if (fd >= 0)
            return fd;
    }
    return -1;
}

} // namespace kelp_test
