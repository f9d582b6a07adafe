// csock dispatch: read, write interest, hang-up, closing during dispatch,
// close callbacks, signals ending the wait, timers run from the loop.
#include "csock_fixture.h"

#include <csignal>
#include <cstring>
#include <fcntl.h>

namespace {

std::vector<std::string> g_log;
void logit(const std::string &s) { g_log.push_back(s); }

struct peer {
    const char *name;
    int handle;
    int closes;
    peer *other;
};

void read_cb(int h, void *ctx)
{
    auto *p = static_cast<peer *>(ctx);
    EXPECT_EQ(h, p->handle);
    char buf[64];
    ssize_t n = recv(csock_fileno(h), buf, sizeof(buf), MSG_DONTWAIT);
    logit(std::string(p->name) + ":read:" + (n > 0 ? std::string(buf, n) : std::to_string(n)));
}

void close_cb(int h, void *ctx)
{
    auto *p = static_cast<peer *>(ctx);
    EXPECT_EQ(h, p->handle);
    p->closes++;
    logit(std::string(p->name) + ":closed");
}

void err_cb(int, void *ctx) { logit(std::string(static_cast<peer *>(ctx)->name) + ":err"); }
void write_cb(int, void *ctx) { logit(std::string(static_cast<peer *>(ctx)->name) + ":write"); }

class Csock : public CsockTest {
protected:
    void SetUp() override
    {
        CsockTest::SetUp();
        g_log.clear();
    }
    int add(int fd, peer *p, csock_cb rd = read_cb, csock_cb wr = nullptr, csock_cb err = nullptr)
    {
        p->handle = csock_add_fd(fd, p->name, rd, wr, nullptr, err, close_cb, p);
        return p->handle;
    }
};

TEST_F(Csock, InitOpensNoDescriptor)
{
    csock_exit();
    int probe = dup(0);
    close(probe);
    csock_init();
    timeout_init();
    int again = dup(0);
    close(again);
    EXPECT_EQ(again, probe); // the lowest free descriptor is still free
}

TEST_F(Csock, ReadableHandleGetsItsReadCallback)
{
    int sv[2];
    pair(sv);
    peer a{"a", 0, 0, nullptr};
    ASSERT_GT(add(sv[0], &a), 0);
    EXPECT_EQ(csock_fileno(a.handle), sv[0]);
    ASSERT_EQ(send(sv[1], "hello", 5, 0), 5);
    EXPECT_EQ(csock_select(), 1);
    EXPECT_EQ(g_log, (std::vector<std::string>{"a:read:hello"}));
}

TEST_F(Csock, HangUpRunsReadThenError)
{
    int sv[2];
    pair(sv);
    peer a{"a", 0, 0, nullptr};
    add(sv[0], &a, read_cb, nullptr, err_cb);
    close(sv[1]);
    forget(sv[1]);
    EXPECT_EQ(csock_select(), 2);
    EXPECT_EQ(g_log, (std::vector<std::string>{"a:read:0", "a:err"}));
}

TEST_F(Csock, HungUpHandleWithoutReadCallbackIsNotReportedForever)
{
    int sv[2];
    pair(sv);
    peer a{"a", 0, 0, nullptr};
    add(sv[0], &a, nullptr, nullptr, err_cb);
    close(sv[1]);
    forget(sv[1]);
    EXPECT_EQ(csock_select(), 1);
    timeout_add(+[](void *, int) { logit("timer"); }, 0, nullptr);
    EXPECT_EQ(csock_select(), 1);
    EXPECT_EQ(g_log, (std::vector<std::string>{"a:err", "timer"}));
    EXPECT_EQ(csock_fileno(a.handle), sv[0]); // still registered until its owner closes it
    csock_close(a.handle, 0);
    EXPECT_EQ(a.closes, 1);
}

TEST_F(Csock, CallsOnUnknownHandlesDoNothing)
{
    csock_want_write(12345, 1);
    csock_close(12345, 0);
    csock_fastclose(-1);
    EXPECT_EQ(csock_count(), 0u);
}

void close_self(int h, void *ctx)
{
    auto *p = static_cast<peer *>(ctx);
    logit(std::string(p->name) + ":read-begin");
    csock_close(h, 0);
    EXPECT_EQ(csock_fileno(h), -1);
    // The close callback waits until this callback has returned.
    logit(std::string(p->name) + ":read-end");
}

TEST_F(Csock, CallbackClosingItsOwnHandleGetsCloseCallbackAfterReturning)
{
    int sv[2];
    pair(sv);
    peer a{"a", 0, 0, nullptr};
    add(sv[0], &a, close_self, nullptr, err_cb);
    close(sv[1]); // readable and hung up: the error callback would follow
    forget(sv[1]);
    csock_select();
    EXPECT_EQ(g_log, (std::vector<std::string>{"a:read-begin", "a:read-end", "a:closed"}));
    EXPECT_EQ(a.closes, 1);
    EXPECT_EQ(csock_count(), 0u);
    EXPECT_NE(fcntl(sv[0], F_GETFD), -1); // the owner's descriptor stays open
}

void close_other(int, void *ctx)
{
    auto *p = static_cast<peer *>(ctx);
    logit(std::string(p->name) + ":read");
    csock_close(p->other->handle, 0);
}

TEST_F(Csock, HandleClosedByAnotherInTheSameRoundGetsNoCallback)
{
    int s1[2], s2[2];
    pair(s1);
    pair(s2);
    peer a{"a", 0, 0, nullptr}, b{"b", 0, 0, nullptr};
    a.other = &b;
    b.other = &a;
    add(s1[0], &a, close_other);
    add(s2[0], &b, close_other);
    send(s1[1], "x", 1, 0);
    send(s2[1], "y", 1, 0);
    EXPECT_EQ(csock_select(), 1);
    // Whichever ran first closed the other, which then was never called.
    ASSERT_EQ(g_log.size(), 2u);
    if (g_log[0] == "a:read")
        EXPECT_EQ(g_log, (std::vector<std::string>{"a:read", "b:closed"}));
    else
        EXPECT_EQ(g_log, (std::vector<std::string>{"b:read", "a:closed"}));
    EXPECT_EQ(a.closes + b.closes, 1);
    EXPECT_EQ(csock_count(), 1u);
}

void close_chain(int, void *ctx)
{
    auto *p = static_cast<peer *>(ctx);
    p->closes++;
    logit(std::string(p->name) + ":closed");
    if (p->other)
        csock_close(p->other->handle, 0);
}

void close_first(int, void *ctx) { csock_close(static_cast<peer *>(ctx)->other->handle, 0); }

TEST_F(Csock, CloseCallbackMayCloseFurtherHandlesEachOnce)
{
    int s1[2], s2[2], s3[2];
    pair(s1);
    pair(s2);
    pair(s3);
    peer b{"b", 0, 0, nullptr}, c{"c", 0, 0, nullptr}, trig{"t", 0, 0, nullptr};
    b.other = &c;
    c.other = &b; // closing b again from c's close callback does nothing
    trig.other = &b;
    b.handle = csock_add_fd(s1[0], "b", read_cb, nullptr, nullptr, nullptr, close_chain, &b);
    c.handle = csock_add_fd(s2[0], "c", read_cb, nullptr, nullptr, nullptr, close_chain, &c);
    trig.handle = csock_add_fd(s3[0], "t", close_first, nullptr, nullptr, nullptr, nullptr, &trig);
    send(s3[1], "go", 2, 0);
    csock_select();
    EXPECT_EQ(b.closes, 1);
    EXPECT_EQ(c.closes, 1);
    EXPECT_EQ(g_log, (std::vector<std::string>{"b:closed", "c:closed"}));
    EXPECT_EQ(csock_count(), 1u);
}

TEST_F(Csock, CloseOutsideDispatchRunsCloseCallbackAtOnceAndOnlyOnce)
{
    int sv[2];
    pair(sv);
    peer a{"a", 0, 0, nullptr};
    add(sv[0], &a);
    csock_close(a.handle, 0);
    EXPECT_EQ(a.closes, 1);
    csock_close(a.handle, 0);
    csock_fastclose(a.handle);
    EXPECT_EQ(a.closes, 1);
    EXPECT_EQ(csock_fileno(a.handle), -1);
    EXPECT_EQ(csock_count(), 0u);
}

TEST_F(Csock, FastcloseRunsNoCallbackAndStopsEvents)
{
    int sv[2];
    pair(sv);
    peer a{"a", 0, 0, nullptr};
    add(sv[0], &a);
    send(sv[1], "x", 1, 0);
    csock_fastclose(a.handle);
    EXPECT_EQ(a.closes, 0);
    EXPECT_EQ(csock_fileno(a.handle), -1);
    timeout_add(+[](void *, int) { logit("timer"); }, 0, nullptr);
    EXPECT_EQ(csock_select(), 1);
    EXPECT_EQ(g_log, (std::vector<std::string>{"timer"}));
}

TEST_F(Csock, StaleHandleNeverReachesANewerRecord)
{
    int sv[2];
    pair(sv);
    peer a{"a", 0, 0, nullptr}, b{"b", 0, 0, nullptr};
    int old = add(sv[0], &a);
    csock_fastclose(old);
    for (int i = 0; i < 40; i++) { // cycles through and reuses the slots
        int h = add(sv[0], &b);
        ASSERT_GT(h, 0);
        EXPECT_NE(h, old);
        EXPECT_EQ(csock_fileno(old), -1);
        csock_fastclose(h);
    }
    EXPECT_EQ(csock_fileno(0), -1);
    EXPECT_EQ(csock_fileno(-5), -1);
}

TEST_F(Csock, OwnerClosingTheDescriptorFirstThenCsockClose)
{
    // The client teardown closes its socket and then the handle, inside a callback.
    int sv[2];
    pair(sv);
    peer a{"a", 0, 0, nullptr};
    add(sv[0], &a, +[](int h, void *) {
        close(csock_fileno(h));
        csock_close(h, 0);
    });
    forget(sv[0]);
    send(sv[1], "x", 1, 0);
    EXPECT_EQ(csock_select(), 1);
    EXPECT_EQ(a.closes, 1);
}

void want_write_off(int h, void *ctx)
{
    write_cb(h, ctx);
    csock_want_write(h, 0);
}

TEST_F(Csock, WriteInterestIsOnWithAWriteCallbackAndCanBeToggled)
{
    int sv[2];
    pair(sv);
    peer a{"a", 0, 0, nullptr};
    add(sv[0], &a, read_cb, want_write_off);
    EXPECT_EQ(csock_select(), 1);
    EXPECT_EQ(g_log, (std::vector<std::string>{"a:write"}));
    send(sv[1], "r", 1, 0);
    EXPECT_EQ(csock_select(), 1);
    EXPECT_EQ(g_log.back(), "a:read:r");
    csock_want_write(a.handle, 1);
    EXPECT_EQ(csock_select(), 1);
    EXPECT_EQ(g_log.back(), "a:write");
    EXPECT_EQ(g_log.size(), 3u);
}

TEST_F(Csock, NoWriteCallbackMeansNoWriteInterest)
{
    int sv[2];
    pair(sv);
    peer a{"a", 0, 0, nullptr};
    add(sv[0], &a);
    timeout_add(+[](void *, int) { logit("timer"); }, 0, nullptr);
    EXPECT_EQ(csock_select(), 1);
    EXPECT_EQ(g_log, (std::vector<std::string>{"timer"}));
}

TEST_F(Csock, RegistrationFailures)
{
    peer a{"a", 0, 0, nullptr};
    EXPECT_EQ(csock_add_fd(-1, "bad", read_cb, nullptr, nullptr, nullptr, nullptr, &a), -1);
    int devnull = open("/dev/null", O_RDONLY | O_CLOEXEC); // epoll refuses regular files
    fds_.push_back(devnull);
    EXPECT_EQ(csock_add_fd(devnull, "file", read_cb, nullptr, nullptr, nullptr, nullptr, &a), -1);
    int sv[2];
    pair(sv);
    slab_fail_after(0);
    EXPECT_EQ(csock_add_fd(sv[0], "nomem", read_cb, nullptr, nullptr, nullptr, nullptr, &a), -1);
    slab_fail_after(-1);
    EXPECT_EQ(csock_count(), 0u);
}

TEST_F(Csock, ExitFreesEverythingWithoutCallbacks)
{
    int s1[2], s2[2];
    pair(s1);
    pair(s2);
    peer a{"a", 0, 0, nullptr}, b{"b", 0, 0, nullptr};
    add(s1[0], &a);
    add(s2[0], &b);
    csock_exit();
    EXPECT_EQ(a.closes + b.closes, 0);
    EXPECT_EQ(slab_live_count(), live_);
    csock_init();
    EXPECT_GT(add(s1[0], &a), 0); // usable again
}

void close_from_timer(void *ctx, int)
{
    auto *p = static_cast<peer *>(ctx);
    csock_close(p->handle, 0);
    logit("timer-end");
}

TEST_F(Csock, CloseFromATimerCallbackRunsCloseCallbackAfterIt)
{
    int sv[2];
    pair(sv);
    peer a{"a", 0, 0, nullptr};
    add(sv[0], &a);
    timeout_add(close_from_timer, 0, &a);
    csock_select();
    EXPECT_EQ(g_log, (std::vector<std::string>{"timer-end", "a:closed"}));
}

void add_timer_from_read(int h, void *ctx)
{
    read_cb(h, ctx);
    timeout_add(+[](void *, int) { logit("timer"); }, 0, nullptr);
}

TEST_F(Csock, TimerAddedBySocketCallbackRunsInTheNextRound)
{
    int sv[2];
    pair(sv);
    peer a{"a", 0, 0, nullptr};
    add(sv[0], &a, add_timer_from_read);
    send(sv[1], "x", 1, 0);
    EXPECT_EQ(csock_select(), 1);
    EXPECT_EQ(g_log, (std::vector<std::string>{"a:read:x"}));
    EXPECT_EQ(csock_select(), 1);
    EXPECT_EQ(g_log.back(), "timer");
}

TEST_F(Csock, SocketsAndDueTimersRunInOneRound)
{
    int sv[2];
    pair(sv);
    peer a{"a", 0, 0, nullptr};
    add(sv[0], &a);
    timeout_add(+[](void *, int) { logit("timer"); }, 0, nullptr);
    send(sv[1], "x", 1, 0);
    EXPECT_EQ(csock_select(), 2);
    EXPECT_EQ(g_log, (std::vector<std::string>{"a:read:x", "timer"}));
}

TEST_F(Csock, WaitsForTheNextTimer)
{
    timeout_add_ms(+[](void *, int) { logit("late"); }, 30, nullptr);
    timeout_add_ms(+[](void *, int) { logit("soon"); }, 10, nullptr);
    while (g_log.size() < 2)
        ASSERT_GE(csock_select(), 0);
    EXPECT_EQ(g_log, (std::vector<std::string>{"soon", "late"}));
}

volatile sig_atomic_t g_got_signal;

TEST_F(Csock, SignalPendingBeforeTheWaitEndsIt)
{
    sigset_t block, old;
    sigemptyset(&block);
    sigaddset(&block, SIGUSR1);
    ASSERT_EQ(sigprocmask(SIG_BLOCK, &block, &old), 0);
    struct sigaction sa{}, oldsa{};
    sa.sa_handler = +[](int) { g_got_signal = 1; };
    sigemptyset(&sa.sa_mask);
    sigaction(SIGUSR1, &sa, &oldsa);
    g_got_signal = 0;
    raise(SIGUSR1); // pending: blocked outside the wait
    EXPECT_EQ(g_got_signal, 0);
    // Nothing registered: only the signal can end this wait.
    EXPECT_EQ(csock_select(), 0);
    EXPECT_EQ(g_got_signal, 1);
    sigaction(SIGUSR1, &oldsa, nullptr);
    sigprocmask(SIG_SETMASK, &old, nullptr);
}

TEST_F(Csock, SockaddrSetUnix)
{
    struct sockaddr_un addr;
    EXPECT_EQ(csock_sockaddr_set_unix(&addr, "/var/rpc/configd"),
              static_cast<int>(offsetof(struct sockaddr_un, sun_path) + 17));
    EXPECT_EQ(addr.sun_family, AF_UNIX);
    EXPECT_STREQ(addr.sun_path, "/var/rpc/configd");
    std::string longest(sizeof(addr.sun_path) - 1, 'x');
    EXPECT_GT(csock_sockaddr_set_unix(&addr, longest.c_str()), 0);
    std::string toolong(sizeof(addr.sun_path), 'x');
    EXPECT_EQ(csock_sockaddr_set_unix(&addr, toolong.c_str()), -1);
}

} // namespace
