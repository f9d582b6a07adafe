// csock under pressure: descriptors reused by newer handles, callbacks that
// close handles and delete timers in every combination, conditions nobody
// handles, busy handles next to quiet ones, and a listener out of descriptors.
#include "csock_fixture.h"

#include <algorithm>
#include <csignal>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/un.h>

namespace {

std::vector<std::string> g_log;

struct peer {
    const char *name;
    int handle;
    int closes;
    int timer; // timer to delete, or handle to close, depending on the test
};

void read_cb(int h, void *ctx)
{
    char buf[64];
    ssize_t n = recv(csock_fileno(h), buf, sizeof(buf), MSG_DONTWAIT);
    g_log.push_back(std::string(static_cast<peer *>(ctx)->name) + ":read:" +
                    (n > 0 ? std::string(buf, n) : std::to_string(n)));
}

void close_cb(int, void *ctx)
{
    auto *p = static_cast<peer *>(ctx);
    p->closes++;
    g_log.push_back(std::string(p->name) + ":closed");
}

void err_cb(int, void *ctx) { g_log.push_back(std::string(static_cast<peer *>(ctx)->name) + ":err"); }
void log_timer(void *param, int) { g_log.emplace_back(static_cast<const char *>(param)); }

class Hazard : public CsockTest {
protected:
    void SetUp() override
    {
        CsockTest::SetUp();
        g_log.clear();
    }
    int add(int fd, peer *p, csock_cb rd = read_cb, csock_cb err = nullptr)
    {
        p->handle = csock_add_fd(fd, p->name, rd, nullptr, nullptr, err, close_cb, p);
        return p->handle;
    }
};

TEST_F(Hazard, DataForAHandleWithoutReadCallbackDoesNotEndEveryWait)
{
    int sv[2];
    pair(sv);
    peer a{"a", 0, 0, 0};
    ASSERT_GT(add(sv[0], &a, nullptr, err_cb), 0);
    ASSERT_EQ(send(sv[1], "x", 1, 0), 1);
    timeout_add_ms(log_timer, 5, (void *)"timer");
    // Only the timer can end this wait: unread data nobody asked for must not.
    EXPECT_EQ(csock_select(), 1);
    EXPECT_EQ(g_log, (std::vector<std::string>{"timer"}));
}

TEST_F(Hazard, StaleHandleOnAReusedDescriptorLeavesTheNewerRegistrationAlone)
{
    int s1[2], s2[2];
    pair(s1);
    pair(s2);
    peer a{"a", 0, 0, 0}, b{"b", 0, 0, 0};
    int num = s1[0];
    add(num, &a);
    // The owner closes the descriptor without telling csock; the number goes
    // to a new connection registered as a new handle.
    ASSERT_EQ(dup2(s2[0], num), num);
    ASSERT_GT(add(num, &b), 0);
    csock_want_write(a.handle, 1); // must not retarget the newer registration
    send(s2[1], "one", 3, 0);
    EXPECT_EQ(csock_select(), 1);
    csock_close(a.handle, 0); // nor remove it
    send(s2[1], "two", 3, 0);
    EXPECT_EQ(csock_select(), 1);
    EXPECT_EQ(g_log, (std::vector<std::string>{"b:read:one", "a:closed", "b:read:two"}));
}

void close_and_reregister(int h, void *ctx)
{
    auto *p = static_cast<peer *>(ctx);
    int fd = csock_fileno(h);
    csock_close(h, 0);
    p->timer = csock_add_fd(fd, "again", read_cb, nullptr, nullptr, err_cb, nullptr, p);
}

TEST_F(Hazard, CallbackClosingItsHandleAndRegisteringTheDescriptorAgain)
{
    int sv[2];
    pair(sv);
    peer a{"a", 0, 0, 0};
    add(sv[0], &a, close_and_reregister, err_cb);
    close(sv[1]); // readable and hung up: the old handle's error callback is skipped
    forget(sv[1]);
    EXPECT_EQ(csock_select(), 1);
    EXPECT_EQ(g_log, (std::vector<std::string>{"a:closed"}));
    ASSERT_GT(a.timer, 0);
    EXPECT_EQ(csock_select(), 2); // the new handle gets the hang-up
    EXPECT_EQ(g_log.back(), "a:err");
    csock_close(a.timer, 0);
}

int g_peer_of_new = -1;

// As a client teardown does: the descriptor first, then the handle; the
// number then goes at once to a new connection in the same round.
void replace_connection(int h, void *ctx)
{
    auto *p = static_cast<peer *>(ctx);
    int fd = csock_fileno(h);
    close(fd);
    csock_close(h, 0);
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, sv), 0);
    if (sv[0] != fd) { // usually the lowest free number is the old one already
        ASSERT_EQ(dup2(sv[0], fd), fd);
        close(sv[0]);
    }
    g_peer_of_new = sv[1];
    p->timer = csock_add_fd(fd, "b", read_cb, nullptr, nullptr, err_cb, nullptr, p + 1);
    send(sv[1], "new", 3, 0);
}

TEST_F(Hazard, DescriptorNumberReusedInTheSameRoundByANewHandle)
{
    int sv[2];
    pair(sv);
    peer ab[2] = {{"a", 0, 0, 0}, {"b", 0, 0, 0}};
    add(sv[0], &ab[0], replace_connection, err_cb);
    send(sv[1], "x", 1, 0);
    close(sv[1]); // hung up too: the old handle's error callback must not run
    forget(sv[1]);
    EXPECT_EQ(csock_select(), 1);
    ASSERT_GT(ab[0].timer, 0);
    fds_.push_back(g_peer_of_new);
    EXPECT_EQ(csock_select(), 1);
    EXPECT_EQ(g_log, (std::vector<std::string>{"a:closed", "b:read:new"}));
    EXPECT_EQ(csock_count(), 1u);
    csock_close(ab[0].timer, 0);
}

TEST_F(Hazard, ForkedChildRegistersOnlyTheNewestHandleOfAReusedNumber)
{
    int s1[2], s2[2];
    pair(s1);
    pair(s2);
    peer a{"a", 0, 0, 0}, b{"b", 0, 0, 0};
    add(s1[0], &a);
    ASSERT_EQ(dup2(s2[0], s1[0]), s1[0]); // a's number now names b's connection
    ASSERT_GT(add(s1[0], &b), 0);
    send(s2[1], "x", 1, 0);
    // The child makes its own epoll instance from the records it inherited.
    EXPECT_EXIT(
        {
            csock_select();
            exit(g_log == std::vector<std::string>{"b:read:x"} ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
}

void delete_timer_on_read(int h, void *ctx)
{
    read_cb(h, ctx);
    EXPECT_EQ(timeout_del(static_cast<peer *>(ctx)->timer), 0);
}

TEST_F(Hazard, SocketCallbackDeletesATimerDueInTheSameRound)
{
    int sv[2];
    pair(sv);
    peer a{"a", 0, 0, 0};
    add(sv[0], &a, delete_timer_on_read);
    a.timer = timeout_add(log_timer, 0, (void *)"timer");
    send(sv[1], "x", 1, 0);
    EXPECT_EQ(csock_select(), 1);
    EXPECT_EQ(g_log, (std::vector<std::string>{"a:read:x"}));
    EXPECT_EQ(timeout_count(), 0u);
}

void close_deletes_timer(int, void *ctx)
{
    auto *p = static_cast<peer *>(ctx);
    close_cb(0, ctx);
    EXPECT_EQ(timeout_del(p->timer), 0);
}

void timer_closes_handle(void *ctx, int)
{
    g_log.push_back("closer");
    csock_close(static_cast<peer *>(ctx)->handle, 0);
}

TEST_F(Hazard, TimerClosesAHandleWhoseCloseCallbackDeletesTheNextDueTimer)
{
    int sv[2];
    pair(sv);
    peer a{"a", 0, 0, 0};
    a.handle = csock_add_fd(sv[0], "a", read_cb, nullptr, nullptr, nullptr, close_deletes_timer, &a);
    timeout_add(timer_closes_handle, 0, &a);
    a.timer = timeout_add(log_timer, 0, (void *)"victim");
    EXPECT_EQ(csock_select(), 1);
    EXPECT_EQ(g_log, (std::vector<std::string>{"closer", "a:closed"}));
    EXPECT_EQ(timeout_count(), 0u);
    EXPECT_EQ(csock_count(), 0u);
}

void repeating_closes_then_deletes_itself(void *ctx, int id)
{
    timer_closes_handle(ctx, id);
    EXPECT_EQ(timeout_del(id), 0);
}

TEST_F(Hazard, RepeatingTimerClosesAHandleAndDeletesItself)
{
    int sv[2];
    pair(sv);
    peer a{"a", 0, 0, 0};
    add(sv[0], &a);
    timeout_add(repeating_closes_then_deletes_itself, 0, &a, 1);
    send(sv[1], "x", 1, 0);
    EXPECT_EQ(csock_select(), 2);
    EXPECT_EQ(g_log, (std::vector<std::string>{"a:read:x", "closer", "a:closed"}));
    EXPECT_EQ(timeout_count(), 0u);
}

void close_chain(int, void *ctx)
{
    auto *p = static_cast<peer *>(ctx);
    close_cb(0, ctx);
    csock_close(p->timer, 0); // the next handle of the chain (or one already closed)
}

TEST_F(Hazard, CloseOutsideTheLoopRunsNestedCloseCallbacksEachOnce)
{
    int s1[2], s2[2], s3[2];
    pair(s1);
    pair(s2);
    pair(s3);
    peer a{"a", 0, 0, 0}, b{"b", 0, 0, 0}, c{"c", 0, 0, 0};
    a.handle = csock_add_fd(s1[0], "a", read_cb, nullptr, nullptr, nullptr, close_chain, &a);
    b.handle = csock_add_fd(s2[0], "b", read_cb, nullptr, nullptr, nullptr, close_chain, &b);
    c.handle = csock_add_fd(s3[0], "c", read_cb, nullptr, nullptr, nullptr, close_chain, &c);
    a.timer = b.handle;
    b.timer = c.handle;
    c.timer = a.handle; // back to the first, which is closing already
    csock_close(a.handle, 0);
    EXPECT_EQ(g_log, (std::vector<std::string>{"a:closed", "b:closed", "c:closed"}));
    EXPECT_EQ(csock_count(), 0u);
}

void never_drains(int, void *ctx) { g_log.push_back(std::string(static_cast<peer *>(ctx)->name) + ":busy"); }

TEST_F(Hazard, BusyHandleAndZeroIntervalTimerStarveNobody)
{
    int s1[2], s2[2];
    pair(s1);
    pair(s2);
    peer busy{"a", 0, 0, 0}, quiet{"b", 0, 0, 0};
    add(s1[0], &busy, never_drains);
    add(s2[0], &quiet);
    timeout_add(log_timer, 0, (void *)"tick", 1);
    send(s1[1], "x", 1, 0);
    for (int round = 0; round < 3; round++) {
        g_log.clear();
        send(s2[1], "y", 1, 0);
        EXPECT_EQ(csock_select(), 3);
        std::sort(g_log.begin(), g_log.end());
        EXPECT_EQ(g_log, (std::vector<std::string>{"a:busy", "b:read:y", "tick"}));
    }
}

volatile sig_atomic_t g_signals;

// SIGUSR1 blocked outside the wait, as the daemon does with the signals it serves.
class blocked_usr1 {
public:
    blocked_usr1()
    {
        sigset_t set;
        sigemptyset(&set);
        sigaddset(&set, SIGUSR1);
        sigprocmask(SIG_BLOCK, &set, &oldmask_);
        struct sigaction sa{};
        sa.sa_handler = +[](int) { g_signals = g_signals + 1; };
        sigemptyset(&sa.sa_mask);
        sigaction(SIGUSR1, &sa, &oldsa_);
        g_signals = 0;
    }
    ~blocked_usr1()
    {
        sigaction(SIGUSR1, &oldsa_, nullptr);
        sigprocmask(SIG_SETMASK, &oldmask_, nullptr);
    }
private:
    sigset_t oldmask_;
    struct sigaction oldsa_{};
};

TEST_F(Hazard, SignalIsLetInWhileHandlesAreBusy)
{
    int sv[2];
    pair(sv);
    peer busy{"a", 0, 0, 0};
    add(sv[0], &busy, never_drains);
    send(sv[1], "x", 1, 0);
    blocked_usr1 guard;
    raise(SIGUSR1);
    EXPECT_EQ(csock_select(), 1); // the wait returned at once with the busy handle
    EXPECT_EQ(g_signals, 1);
}

TEST_F(Hazard, SignalIsLetInWhileAZeroIntervalTimerRepeats)
{
    timeout_add(log_timer, 0, (void *)"tick", 1);
    blocked_usr1 guard;
    raise(SIGUSR1);
    EXPECT_EQ(csock_select(), 1);
    EXPECT_EQ(g_signals, 1);
    EXPECT_EQ(csock_select(), 1); // nothing pending any more: just the timer
    EXPECT_EQ(g_signals, 1);
}

void count_busy(int, void *ctx) { static_cast<peer *>(ctx)->closes++; }

TEST_F(Hazard, MoreBusyHandlesThanOneWaitReturnsAreAllServedInTurn)
{
    constexpr int kBusy = 100; // more than one wait hands over
    std::vector<peer> peers(kBusy, peer{"p", 0, 0, 0});
    for (auto &p : peers) {
        int sv[2];
        pair(sv);
        ASSERT_GT(add(sv[0], &p, count_busy), 0);
        send(sv[1], "x", 1, 0); // never read: ready in every wait
    }
    EXPECT_GT(csock_select(), 0);
    EXPECT_GT(csock_select(), 0);
    for (const auto &p : peers)
        EXPECT_GE(p.closes, 1);
}

void close_own(int h, void *) { csock_close(h, 0); }

TEST_F(Hazard, HundredsOfReadyClientsAllServedAndClosedOnce)
{
    constexpr int kClients = 200; // more than one wait returns at a time
    std::vector<peer> peers(kClients, peer{"p", 0, 0, 0});
    for (auto &p : peers) {
        int sv[2];
        pair(sv);
        ASSERT_GT(add(sv[0], &p, close_own), 0);
        send(sv[1], "x", 1, 0);
    }
    EXPECT_EQ(csock_count(), static_cast<size_t>(kClients));
    int rounds = 0;
    while (csock_count() > 0 && rounds++ < kClients)
        csock_select();
    EXPECT_EQ(csock_count(), 0u);
    for (const auto &p : peers)
        EXPECT_EQ(p.closes, 1);
}

int64_t g_now;
int64_t fake_clock() { return g_now; }

struct accepted {
    int fd = -1;
};

int keep_accepted(int fd, void *ctx)
{
    static_cast<accepted *>(ctx)->fd = fd;
    return 0;
}

// Occupies every descriptor number below a lowered limit while it lives.
class no_descriptors {
public:
    no_descriptors()
    {
        getrlimit(RLIMIT_NOFILE, &saved_);
        last_ = open("/dev/null", O_RDONLY | O_CLOEXEC); // lowest free: none below is free
        rlimit low = saved_;
        low.rlim_cur = static_cast<rlim_t>(last_) + 1;
        setrlimit(RLIMIT_NOFILE, &low);
    }
    ~no_descriptors()
    {
        setrlimit(RLIMIT_NOFILE, &saved_);
        close(last_);
    }
private:
    rlimit saved_{};
    int last_;
};

class Listener : public Hazard {
protected:
    void SetUp() override
    {
        Hazard::SetUp();
        g_now = 5000000000;
        timeout_set_clock(fake_clock);
    }
    void TearDown() override
    {
        Hazard::TearDown();
        timeout_set_clock(nullptr);
    }
    // A listener with one connection waiting that cannot be accepted.
    int refused_accept(accepted *acc)
    {
        int lfd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
        fds_.push_back(lfd);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        int n = snprintf(addr.sun_path + 1, sizeof(addr.sun_path) - 1, "kelp-hazard-%d", getpid());
        auto len = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + n);
        EXPECT_EQ(bind(lfd, reinterpret_cast<sockaddr *>(&addr), len), 0);
        int h = csock_add_listenfd(lfd, "listener", keep_accepted, nullptr, acc);
        int c = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
        fds_.push_back(c);
        EXPECT_EQ(connect(c, reinterpret_cast<sockaddr *>(&addr), len), 0);
        {
            no_descriptors full;
            EXPECT_EQ(csock_select(), 0);
        }
        EXPECT_EQ(acc->fd, -1);
        return h;
    }
};

TEST_F(Listener, RestsAfterAcceptFailsForLackOfDescriptors)
{
    accepted acc;
    refused_accept(&acc);
    // Descriptors are free again, but the listener waits out its rest.
    timeout_add(log_timer, 0, (void *)"tick");
    EXPECT_EQ(csock_select(), 1);
    EXPECT_EQ(acc.fd, -1);
    g_now += 1000000000;
    EXPECT_EQ(csock_select(), 1); // the end of the rest
    EXPECT_EQ(csock_select(), 1); // and the waiting connection
    ASSERT_GE(acc.fd, 0);
    fds_.push_back(acc.fd);
}

TEST_F(Listener, ClosingARestingListenerCancelsItsRest)
{
    accepted acc;
    int h = refused_accept(&acc);
    EXPECT_EQ(timeout_count(), 1u);
    csock_close(h, 0);
    EXPECT_EQ(timeout_count(), 0u);
}

} // namespace
