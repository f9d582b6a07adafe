// The HTTP tests' servers listen on 127.0.0.1 at a port the kernel picks.
#pragma once
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

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

} // namespace kelp_test
