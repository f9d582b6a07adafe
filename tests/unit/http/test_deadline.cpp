// The fetch deadline: a server that trickles, stalls after its headers or
// spreads a redirect chain over many slow hops is cut off by the one
// deadline of the whole fetch, which then ends like a lost connection; the
// next fetch starts with a deadline of its own. The deadline is shortened
// here so that the servers below would outlast it many times over.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <atomic>
#include <chrono>
#include <functional>
#include <limits>
#include <netinet/in.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

#include "http/httpcli.h"
#include "platform/slab.h"
#include "tests/unit/http/loopback.h"

namespace {

// Serves connections one after another with `serve` (request already read,
// connection number from 0) until destroyed.
class pacing_server {
  public:
    using serve_fn = std::function<void(int fd, int n)>;
    explicit pacing_server(serve_fn serve) : serve_(std::move(serve))
    {
        lfd_ = kelp_test::loopback_listener(&port_);
        thread_ = std::thread([this] { run(); });
    }
    ~pacing_server()
    {
        stop_ = true;
        thread_.join();
        close(lfd_);
    }
    std::string url(const std::string &path = "/") const
    {
        return "http://127.0.0.1:" + std::to_string(port_) + path;
    }
    int connections() const { return count_; }
    bool stopping() const { return stop_; }

  private:
    void run()
    {
        for (int fd; (fd = kelp_test::next_connection(lfd_, stop_)) >= 0;) {
            std::string req;
            char buf[4096];
            for (ssize_t r; req.find("\r\n\r\n") == std::string::npos && (r = recv(fd, buf, sizeof buf, 0)) > 0;)
                req.append(buf, static_cast<size_t>(r));
            serve_(fd, count_++);
            close(fd);
        }
    }
    int lfd_;
    int port_;
    serve_fn serve_;
    std::atomic<int> count_{0};
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

void say(int fd, const std::string &text)
{
    send(fd, text.data(), text.size(), MSG_NOSIGNAL);
}

// Pauses for `ms`, ending early when the client has hung up (or sent
// anything); false then.
bool pause_while_connected(int fd, int ms)
{
    pollfd p = {fd, POLLIN, 0};
    return poll(&p, 1, ms) == 0;
}

struct DeadlineTest : ::testing::Test {
    httpcli_ctx ctx = {nullptr, 0, 0, 2.0f};
    httpcli_buffer resp = {};
    http_result res = {};
    size_t live = slab_live_count();
    void SetUp() override { deadline(0.4f); }
    static void deadline(float seconds)
    {
        httpcli_hooks hooks = httpcli_default_hooks();
        hooks.fetch_deadline = seconds;
        httpcli_set_hooks(&hooks);
    }
    void release()
    {
        kd_free(resp.start);
        kd_free(res.location);
        kd_free(res.content_type);
        kd_free(res.content_encoding);
        resp = {};
        res = {};
    }
    void TearDown() override
    {
        httpcli_set_hooks(nullptr);
        release();
        EXPECT_EQ(slab_live_count(), live);
    }
    int get(const std::string &url) { return httpcli_get(&ctx, url.c_str(), &resp, &res); }
};

TEST(FetchDeadline, DefaultIsTheNamedBound)
{
    EXPECT_EQ(httpcli_current_hooks().fetch_deadline, HTTPCLI_FETCH_DEADLINE);
    EXPECT_EQ(HTTPCLI_FETCH_DEADLINE, 20.0f);
}

TEST_F(DeadlineTest, TricklingBodyEndsAsNoConnectionWithoutBody)
{
    // One byte every 20 ms, far inside each wait's time-out, for 8 seconds:
    // only the deadline can end the fetch before the server does.
    pacing_server srv([&](int fd, int) {
        say(fd, "HTTP/1.1 200 OK\r\nContent-Type: text/xml\r\n\r\n");
        for (int i = 0; i < 400 && pause_while_connected(fd, 20); i++)
            say(fd, "x");
    });
    EXPECT_EQ(get(srv.url()), HTTPCLI_NO_CONNECTION);
    EXPECT_EQ(resp.len, 0u);
}

TEST_F(DeadlineTest, TricklingHeadersEndAsNoConnection)
{
    pacing_server srv([&](int fd, int) {
        say(fd, "HTTP/1.1 200 OK\r\n");
        for (int i = 0; i < 400 && pause_while_connected(fd, 20); i++)
            say(fd, "X-Slow: y\r\n");
    });
    EXPECT_EQ(get(srv.url()), HTTPCLI_NO_CONNECTION);
    EXPECT_EQ(resp.len, 0u);
}

TEST_F(DeadlineTest, StallAfterTheHeadersEndsAsNoConnection)
{
    // The wait's own time-out (2 s) would end the body with what came and
    // call it a 200; the deadline comes first.
    pacing_server srv([&](int fd, int) {
        say(fd, "HTTP/1.1 200 OK\r\n\r\n<rss>");
        pause_while_connected(fd, 8000);
    });
    EXPECT_EQ(get(srv.url()), HTTPCLI_NO_CONNECTION);
    EXPECT_EQ(resp.len, 0u);
}

TEST_F(DeadlineTest, OneDeadlineCoversEveryRedirectHop)
{
    // Each hop alone ends well inside the deadline; twenty of them do not.
    pacing_server srv([&](int fd, int n) {
        pause_while_connected(fd, 100);
        if (n < 20)
            say(fd, "HTTP/1.1 302 Found\r\nLocation: /hop" + std::to_string(n + 1) + "\r\n\r\n");
        else
            say(fd, "HTTP/1.1 200 OK\r\n\r\nend of chain");
    });
    EXPECT_EQ(get(srv.url("/hop0")), HTTPCLI_NO_CONNECTION);
    EXPECT_LT(srv.connections(), 21);
}

TEST_F(DeadlineTest, NextFetchHasADeadlineOfItsOwn)
{
    pacing_server srv([&](int fd, int n) {
        if (n > 0) {
            say(fd, "HTTP/1.1 200 OK\r\n\r\nfine");
            return;
        }
        say(fd, "HTTP/1.1 200 OK\r\n\r\n");
        pause_while_connected(fd, 8000);
    });
    EXPECT_EQ(get(srv.url()), HTTPCLI_NO_CONNECTION);
    release();
    EXPECT_EQ(get(srv.url()), 200);
    EXPECT_EQ(std::string(resp.start, resp.len), "fine");
}

TEST_F(DeadlineTest, NoTimeLeftSendsNothing)
{
    pacing_server srv([&](int fd, int) { say(fd, "HTTP/1.1 200 OK\r\n\r\nunused"); });
    for (float d : {0.0f, -1.0f, std::numeric_limits<float>::quiet_NaN()}) {
        deadline(d);
        EXPECT_EQ(get(srv.url()), HTTPCLI_NO_CONNECTION) << d;
        EXPECT_EQ(http_request(&ctx, srv.url().c_str(), &resp, &res), HTTPCLI_NO_CONNECTION) << d;
        release();
    }
    EXPECT_EQ(srv.connections(), 0);
}

TEST_F(DeadlineTest, SingleExchangeRunsOnItsOwnDeadline)
{
    pacing_server srv([&](int fd, int) {
        say(fd, "HTTP/1.1 200 OK\r\n\r\n");
        pause_while_connected(fd, 8000);
    });
    EXPECT_EQ(http_request(&ctx, srv.url().c_str(), &resp, &res), HTTPCLI_NO_CONNECTION);
    EXPECT_EQ(resp.len, 0u);
}

TEST_F(DeadlineTest, FetchWithinTheDeadlineIsUntouched)
{
    deadline(HTTPCLI_FETCH_DEADLINE);
    pacing_server srv([&](int fd, int) {
        say(fd, "HTTP/1.1 200 OK\r\n\r\nslow");
        pause_while_connected(fd, 50);
        say(fd, " but done");
    });
    EXPECT_EQ(get(srv.url()), 200);
    EXPECT_EQ(std::string(resp.start, resp.len), "slow but done");
}

} // namespace
