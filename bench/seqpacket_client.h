// The client side the load programs share (kelp-bench-loadgen,
// kelp-bench-pinger): a SOCK_SEQPACKET connection to a control socket,
// whole blocks sent, and whether a block answers a request. Every failure
// ends the program with a message naming it.
#pragma once
#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace bench {

[[noreturn]] inline void die(const char *what)
{
    fprintf(stderr, "%s: %s: %s\n", program_invocation_short_name, what, strerror(errno));
    exit(1);
}

inline int connect_to(const std::string &path)
{
    int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (fd < 0)
        die("socket");
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    if (path.size() >= sizeof a.sun_path) {
        errno = ENAMETOOLONG;
        die("socket path");
    }
    memcpy(a.sun_path, path.c_str(), path.size() + 1);
    if (connect(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0)
        die("connect");
    return fd;
}

inline void send_text(int fd, const std::string &text)
{
    if (send(fd, text.data(), text.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(text.size()))
        die("send");
}

// "OK\t<word>\t..." or "ERROR\t<word>\t...": the answer to a request of that word.
inline bool is_answer(const char *text, const std::string &word)
{
    std::string ok = "OK\t" + word + "\t", err = "ERROR\t" + word + "\t";
    return strncmp(text, ok.c_str(), ok.size()) == 0 || strncmp(text, err.c_str(), err.size()) == 0;
}

inline std::string first_word(const std::string &text)
{
    return text.substr(0, text.find_first_of(" \t\n"));
}

} // namespace bench
