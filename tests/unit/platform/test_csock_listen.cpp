// csock listener helper (listen, accept with close-on-exec, refusal) and the
// daemon's order of start-up: initialise, fork, close every descriptor, run.
#include "csock_fixture.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/wait.h>
#include <sys/un.h>

namespace {

struct accept_ctx {
    int result;    // what the accept callback answers
    int accepted;  // descriptor it was given
    int cloexec;   // FD_CLOEXEC seen on it
    int closes;
};

int on_accept(int fd, void *ctx)
{
    auto *a = static_cast<accept_ctx *>(ctx);
    a->accepted = fd;
    a->cloexec = fcntl(fd, F_GETFD) & FD_CLOEXEC;
    return a->result;
}

void on_listener_closed(int, void *ctx) { static_cast<accept_ctx *>(ctx)->closes++; }

class Listen : public CsockTest {
protected:
    // A bound, not yet listening socket in the abstract namespace.
    int bound_socket(struct sockaddr_un *addr, socklen_t *len)
    {
        int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
        fds_.push_back(fd);
        memset(addr, 0, sizeof(*addr));
        addr->sun_family = AF_UNIX;
        int n = snprintf(addr->sun_path + 1, sizeof(addr->sun_path) - 1, "kelp-test-%d", getpid());
        *len = static_cast<socklen_t>(offsetof(struct sockaddr_un, sun_path) + 1 + n);
        EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr *>(addr), *len), 0);
        return fd;
    }
    int connect_to(const struct sockaddr_un *addr, socklen_t len)
    {
        int c = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
        fds_.push_back(c);
        EXPECT_EQ(connect(c, reinterpret_cast<const sockaddr *>(addr), len), 0);
        return c;
    }
};

TEST_F(Listen, ListensAndHandsAcceptedDescriptorToTheCallback)
{
    struct sockaddr_un addr;
    socklen_t len;
    int lfd = bound_socket(&addr, &len);
    accept_ctx a{0, -1, 0, 0};
    int h = csock_add_listenfd(lfd, "listener", on_accept, on_listener_closed, &a);
    ASSERT_GT(h, 0);
    EXPECT_TRUE(fcntl(lfd, F_GETFL) & O_NONBLOCK); // a vanished connection never blocks accept
    int c = connect_to(&addr, len); // works only once the socket listens
    EXPECT_EQ(csock_select(), 1);
    ASSERT_GE(a.accepted, 0);
    fds_.push_back(a.accepted);
    EXPECT_TRUE(a.cloexec);
    ASSERT_EQ(send(c, "ping", 4, 0), 4);
    char buf[8];
    EXPECT_EQ(recv(a.accepted, buf, sizeof(buf), 0), 4); // accepted one is ours and open
    csock_close(h, 0);
    EXPECT_EQ(a.closes, 1);
    EXPECT_NE(fcntl(lfd, F_GETFD), -1);
}

TEST_F(Listen, RefusedConnectionIsClosedByCsock)
{
    struct sockaddr_un addr;
    socklen_t len;
    int lfd = bound_socket(&addr, &len);
    accept_ctx a{-2, -1, 0, 0};
    ASSERT_GT(csock_add_listenfd(lfd, "listener", on_accept, nullptr, &a), 0);
    int c = connect_to(&addr, len);
    EXPECT_EQ(csock_select(), 1);
    EXPECT_GE(a.accepted, 0);
    char buf[8];
    EXPECT_EQ(recv(c, buf, sizeof(buf), 0), 0); // the peer sees the close
}

TEST_F(Listen, FastcloseOfTheListenerRunsNoCallback)
{
    struct sockaddr_un addr;
    socklen_t len;
    int lfd = bound_socket(&addr, &len);
    accept_ctx a{0, -1, 0, 0};
    int h = csock_add_listenfd(lfd, "listener", on_accept, on_listener_closed, &a);
    csock_fastclose(h);
    EXPECT_EQ(a.closes, 0);
    EXPECT_EQ(csock_count(), 0u);
}

TEST_F(Listen, SocketThatCannotListenIsRefused)
{
    accept_ctx a{0, -1, 0, 0};
    int s = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    fds_.push_back(s);
    EXPECT_EQ(csock_add_listenfd(s, "dgram", on_accept, nullptr, &a), -1);
    EXPECT_EQ(csock_add_listenfd(-1, "none", on_accept, nullptr, &a), -1);
}

// The daemon initialises csock and then forks and closes every descriptor
// before its first csock call: nothing csock made before may be needed.
int after_fork_and_close()
{
    int sv[2];
    csock_init();
    timeout_init();
    if (socketpair(AF_UNIX, SOCK_SEQPACKET, 0, sv) != 0)
        return 2;
    pid_t pid = fork();
    if (pid != 0)
        return pid > 0 ? 0 : 3;
    for (int fd = getdtablesize(); fd >= 0; fd--) {
        if (fd != sv[0] && fd != sv[1])
            close(fd);
    }
    static int hits;
    int h = csock_add_fd(sv[0], "x", +[](int, void *) { hits++; }, nullptr, nullptr, nullptr, nullptr, nullptr);
    if (h <= 0)
        _exit(4);
    send(sv[1], "x", 1, 0);
    _exit(csock_select() == 1 && hits == 1 ? 0 : 5);
}

TEST_F(Listen, WorksAfterForkAndClosingEveryDescriptor)
{
    // Parent side: make csock used (epoll created) before forking, as a
    // worst case for the child.
    int sv[2];
    pair(sv);
    csock_add_fd(sv[0], "pre", nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
    EXPECT_EXIT(
        {
            int r = after_fork_and_close();
            if (r)
                _exit(r);
            int status = 0;
            wait(&status);
            _exit(WIFEXITED(status) ? WEXITSTATUS(status) : 9);
        },
        ::testing::ExitedWithCode(0), "");
}

} // namespace
