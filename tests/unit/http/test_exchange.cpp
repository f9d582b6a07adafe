// Whole exchanges against a scripted server on loopback inside the test
// process: the request as received, reception, size bound, time-outs and
// redirects.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <atomic>
#include <chrono>
#include <csignal>
#include <functional>
#include <limits>
#include <mutex>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "http/httpcli.h"
#include "platform/slab.h"
#include "tests/unit/http/loopback.h"

namespace {

// What the server does with one connection.
struct script {
    std::vector<std::string> pieces; // sent one after another with a pause
    bool hang = false;               // answer nothing until the client leaves
    bool endless = false;            // send the first piece forever
    std::function<void(int)> handler = nullptr; // when set, does all the answering
};

// Accepts connections one at a time; the n-th connection gets the n-th
// script (the last one repeats) and its request is recorded.
class scripted_server {
  public:
    explicit scripted_server(std::vector<script> s) : scripts_(std::move(s))
    {
        lfd_ = kelp_test::loopback_listener(&port_);
        thread_ = std::thread([this] { run(); });
    }
    ~scripted_server()
    {
        stop_ = true;
        thread_.join();
        close(lfd_);
    }
    int port() const { return port_; }
    std::string base() const { return "http://127.0.0.1:" + std::to_string(port_); }
    std::vector<std::string> requests()
    {
        std::lock_guard<std::mutex> g(mu_);
        return requests_;
    }

  private:
    void run()
    {
        size_t n = 0;
        for (int fd; (fd = kelp_test::next_connection(lfd_, stop_)) >= 0;) {
            serve(fd, scripts_[n < scripts_.size() ? n : scripts_.size() - 1]);
            n++;
            close(fd);
        }
    }
    void serve(int fd, const script &s)
    {
        std::string req;
        char buf[4096];
        while (req.find("\r\n\r\n") == std::string::npos) {
            ssize_t r = recv(fd, buf, sizeof buf, 0);
            if (r <= 0)
                break;
            req.append(buf, static_cast<size_t>(r));
        }
        {
            std::lock_guard<std::mutex> g(mu_);
            requests_.push_back(req);
        }
        if (s.handler) {
            s.handler(fd);
            return;
        }
        if (s.hang) {
            while (recv(fd, buf, sizeof buf, 0) > 0) {
            }
            return;
        }
        do {
            for (std::string piece : s.pieces) {
                for (size_t at; (at = piece.find("PORT")) != std::string::npos;)
                    piece.replace(at, 4, std::to_string(port_));
                if (send(fd, piece.data(), piece.size(), MSG_NOSIGNAL) < 0)
                    return;
                if (!s.endless)
                    std::this_thread::sleep_for(std::chrono::milliseconds(20));
            }
        } while (s.endless && !stop_);
    }
    int lfd_;
    int port_;
    std::vector<script> scripts_;
    std::vector<std::string> requests_;
    std::mutex mu_;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

struct ExchangeTest : ::testing::Test {
    httpcli_ctx ctx = {nullptr, 0, 0, 2.0f};
    httpcli_buffer resp = {};
    http_result res = {};
    size_t live = slab_live_count();
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
        slab_fail_after(-1);
        release();
        EXPECT_EQ(slab_live_count(), live);
    }
    std::string body() const { return std::string(resp.start, resp.len); }
};

std::string expected_request(const std::string &target, const std::string &host)
{
    return "GET " + target + " HTTP/1.1\r\nHost: " + host +
           "\r\nConnection: close\r\nAccept-Encoding: \r\nUser-Agent: Lumora FeedReader\r\n\r\n";
}

TEST_F(ExchangeTest, RequestArrivesByteForByte)
{
    scripted_server srv({{{"HTTP/1.1 200 OK\r\nContent-Type: text/xml\r\n\r\n<rss/>"}}});
    EXPECT_EQ(httpcli_get(&ctx, (srv.base() + "/feed.xml?x=1").c_str(), &resp, &res), 200);
    EXPECT_EQ(body(), "<rss/>");
    EXPECT_EQ(resp.start[resp.len], '\0');
    EXPECT_STREQ(res.content_type, "text/xml");
    ASSERT_EQ(srv.requests().size(), 1u);
    EXPECT_EQ(srv.requests()[0],
              expected_request("/feed.xml?x=1", "127.0.0.1:" + std::to_string(srv.port())));
}

TEST_F(ExchangeTest, ProxyGetsAbsoluteFormAndOriginHost)
{
    scripted_server srv({{{"HTTP/1.1 200 OK\r\n\r\nvia proxy"}}});
    ctx.proxy = "127.0.0.1";
    ctx.proxy_port = srv.port();
    EXPECT_EQ(httpcli_get(&ctx, "http://origin.invalid:8080/feed", &resp, &res), 200);
    EXPECT_EQ(body(), "via proxy");
    ASSERT_EQ(srv.requests().size(), 1u);
    EXPECT_EQ(srv.requests()[0],
              expected_request("http://origin.invalid:8080/feed", "origin.invalid:8080"));
}

TEST_F(ExchangeTest, NullContextUsesDefault)
{
    scripted_server srv({{{"HTTP/1.1 200 OK\r\n\r\nok"}}});
    EXPECT_EQ(httpcli_get(nullptr, (srv.base() + "/").c_str(), &resp, &res), 200);
    EXPECT_EQ(body(), "ok");
}

TEST_F(ExchangeTest, ThreeBytesIsNoConnection)
{
    scripted_server srv({{{"HTT"}}});
    EXPECT_EQ(httpcli_get(&ctx, srv.base().c_str(), &resp, &res), 1);
    EXPECT_EQ(resp.len, 3u);
}

TEST_F(ExchangeTest, ClosedWithoutAnswerIsNoConnection)
{
    scripted_server srv({script{}});
    EXPECT_EQ(httpcli_get(&ctx, srv.base().c_str(), &resp, &res), 1);
    EXPECT_EQ(resp.len, 0u);
}

TEST_F(ExchangeTest, ChunkSplitAcrossReads)
{
    scripted_server srv({{{"HTTP/1.1 200 OK\r\nTransfer-", "Encoding: chunked\r\n\r\n1", "0;x=y\r\n0123456",
                          "789abcdef\r", "\n3\r\nxyz\r\n0\r\n", "\r\n"}}});
    EXPECT_EQ(httpcli_get(&ctx, srv.base().c_str(), &resp, &res), 200);
    EXPECT_EQ(body(), "0123456789abcdefxyz");
}

TEST_F(ExchangeTest, SlowBodyWithinTimeOut)
{
    script s;
    s.pieces.push_back("HTTP/1.1 200 OK\r\n\r\n");
    std::string want;
    for (int i = 0; i < 15; i++) {
        s.pieces.push_back(std::string(100, static_cast<char>('a' + i)));
        want += s.pieces.back();
    }
    scripted_server srv({s});
    EXPECT_EQ(httpcli_get(&ctx, srv.base().c_str(), &resp, &res), 200);
    EXPECT_EQ(body(), want);
}

TEST_F(ExchangeTest, OversizedResponseIsTruncated)
{
    std::string payload;
    for (int i = 0; i < 200000; i++)
        payload += static_cast<char>('0' + i % 10);
    scripted_server srv({{{"HTTP/1.1 200 OK\r\n\r\n", payload}}});
    EXPECT_EQ(httpcli_get(&ctx, srv.base().c_str(), &resp, &res), 2);
    EXPECT_GE(resp.len, HTTPCLI_MAX_RESPONSE - 19u);
    EXPECT_LT(resp.len, 200000u);
    EXPECT_EQ(body(), payload.substr(0, resp.len));
    EXPECT_EQ(resp.start[resp.len], '\0');
}

TEST_F(ExchangeTest, EndlessBodyIsTruncated)
{
    script s;
    s.pieces = {std::string(1000, 'e')};
    s.endless = true;
    scripted_server srv({s});
    EXPECT_EQ(httpcli_get(&ctx, srv.base().c_str(), &resp, &res), 2);
    EXPECT_LE(resp.size, HTTPCLI_MAX_RESPONSE + 1560u + bufsizestep);
}

TEST_F(ExchangeTest, SilentServerTimesOut)
{
    script s;
    s.hang = true;
    scripted_server srv({s});
    ctx.timeout = 0.3f;
    EXPECT_EQ(httpcli_get(&ctx, srv.base().c_str(), &resp, &res), 1);
}

TEST_F(ExchangeTest, RefusedPortIsNoConnection)
{
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in sa = {};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(fd, reinterpret_cast<sockaddr *>(&sa), sizeof sa);
    socklen_t l = sizeof sa;
    getsockname(fd, reinterpret_cast<sockaddr *>(&sa), &l);
    close(fd);
    std::string url = "127.0.0.1:" + std::to_string(ntohs(sa.sin_port)) + "/";
    EXPECT_EQ(httpcli_get(&ctx, url.c_str(), &resp, &res), 1);
}

TEST_F(ExchangeTest, RedirectChainRelativeAndAbsolute)
{
    scripted_server srv({{{"HTTP/1.1 301 Moved\r\nLocation: /b\r\n\r\nmoved"}},
                         {{"HTTP/1.1 302 Found\r\nLocation: http://127.0.0.1:PORT/c\r\n\r\n"}},
                         {{"HTTP/1.1 307 Temp\r\nLocation: /d?q\r\n\r\n"}},
                         {{"HTTP/1.1 200 OK\r\nContent-Type: x\r\n\r\nfinal"}}});
    EXPECT_EQ(httpcli_get(&ctx, (srv.base() + "/a").c_str(), &resp, &res), 200);
    EXPECT_EQ(body(), "final");
    EXPECT_EQ(res.location, nullptr);
    EXPECT_STREQ(res.content_type, "x");
    std::string host = "127.0.0.1:" + std::to_string(srv.port());
    EXPECT_EQ(srv.requests(), (std::vector<std::string>{
                                  expected_request("/a", host), expected_request("/b", host),
                                  expected_request("/c", host), expected_request("/d?q", host)}));
}

TEST_F(ExchangeTest, RedirectLoopEndsWithTheRedirectCode)
{
    scripted_server srv({{{"HTTP/1.1 302 Found\r\nLocation: /b\r\n\r\n"}},
                         {{"HTTP/1.1 301 Moved\r\nLocation: /a\r\n\r\n"}},
                         {{"HTTP/1.1 307 Again\r\nLocation: /b\r\n\r\nloop body"}}});
    EXPECT_EQ(httpcli_get(&ctx, (srv.base() + "/a").c_str(), &resp, &res), 307);
    EXPECT_EQ(body(), "loop body");
    EXPECT_EQ(std::string(res.location), "127.0.0.1:" + std::to_string(srv.port()) + "/b");
    EXPECT_EQ(srv.requests().size(), 3u);
}

TEST_F(ExchangeTest, RedirectToItselfIsFollowedOnce)
{
    scripted_server srv({{{"HTTP/1.1 301 Moved\r\nLocation: http://127.0.0.1:PORT/\r\n\r\n"}}});
    EXPECT_EQ(httpcli_get(&ctx, (srv.base() + "/").c_str(), &resp, &res), 301);
    EXPECT_EQ(srv.requests().size(), 2u);
}

TEST_F(ExchangeTest, NotModifiedIsNotFollowed)
{
    scripted_server srv({{{"HTTP/1.1 304 Not Modified\r\nLocation: /elsewhere\r\n\r\n"}},
                         {{"HTTP/1.1 200 OK\r\n\r\nwrong"}}});
    EXPECT_EQ(httpcli_get(&ctx, srv.base().c_str(), &resp, &res), 304);
    EXPECT_STREQ(res.location, "/elsewhere");
    EXPECT_EQ(srv.requests().size(), 1u);
}

TEST_F(ExchangeTest, RedirectWithoutLocationIsReturned)
{
    scripted_server srv({{{"HTTP/1.1 301 Moved\r\nLocation:\r\n\r\nno target"}}});
    EXPECT_EQ(httpcli_get(&ctx, srv.base().c_str(), &resp, &res), 301);
    EXPECT_EQ(body(), "no target");
}

TEST_F(ExchangeTest, NoBufferOrResultPassed)
{
    scripted_server srv({{{"HTTP/1.1 201 Created\r\nLocation: /x\r\n\r\nbody"}}});
    ctx.timeout = 1.0f;
    EXPECT_EQ(http_request(&ctx, srv.base().c_str(), nullptr, nullptr), 201);
}

TEST_F(ExchangeTest, FailedAllocationsEndWithNoMemoryAndLeaveNothingBehind)
{
    std::string payload(5000, 'p');
    scripted_server srv({{{"HTTP/1.1 301 Moved\r\nLocation: /next\r\n\r\n"}},
                         {{"HTTP/1.1 200 OK\r\nContent-Type: t\r\n\r\n" + payload}}});
    ASSERT_EQ(httpcli_get(&ctx, srv.base().c_str(), &resp, &res), 200);
    ASSERT_EQ(body(), payload);
    release();
    int no_memory = 0;
    int lost_while_receiving = 0;
    for (long k = 0; k < 40; k++) {
        slab_fail_after(k);
        int rc = httpcli_get(&ctx, srv.base().c_str(), &resp, &res);
        slab_fail_after(-1);
        EXPECT_TRUE(rc == 1 || rc == 3 || rc == 200 || rc == 301) << "k=" << k << " rc=" << rc;
        if (rc == 3)
            no_memory++;
        if (rc == 3 && !resp.start && resp.len > 0)
            lost_while_receiving++; // the received data went with the failed growth
        if (rc == 200) {
            EXPECT_EQ(body(), payload);
        }
        release();
        EXPECT_EQ(slab_live_count(), live) << "k=" << k;
    }
    EXPECT_GT(no_memory, 3);
    EXPECT_GT(lost_while_receiving, 0);
}

} // namespace

namespace {

std::string digits(size_t n)
{
    std::string s;
    for (size_t i = 0; i < n; i++)
        s += static_cast<char>('0' + i % 10);
    return s;
}

// Every redirect target followed, as the stack holds them.
struct RedirTest : ExchangeTest {
    char *stack = nullptr;
    void TearDown() override
    {
        kd_free(stack);
        ExchangeTest::TearDown();
    }
    int get(const std::string &url) { return http_get_redir(&ctx, url.c_str(), &resp, &res, &stack); }
};

TEST_F(ExchangeTest, ResponseOfExactlyTheBoundIsKept)
{
    const std::string head = "HTTP/1.1 200 OK\r\n\r\n";
    std::string payload = digits(HTTPCLI_MAX_RESPONSE - head.size());
    scripted_server srv({{{head, payload}}});
    EXPECT_EQ(httpcli_get(&ctx, srv.base().c_str(), &resp, &res), 200);
    EXPECT_EQ(body(), payload);
}

TEST_F(ExchangeTest, OneByteBeyondTheBoundIsTruncated)
{
    const std::string head = "HTTP/1.1 200 OK\r\n\r\n";
    std::string payload = digits(HTTPCLI_MAX_RESPONSE + 1 - head.size());
    scripted_server srv({{{head, payload}}});
    EXPECT_EQ(httpcli_get(&ctx, srv.base().c_str(), &resp, &res), 2);
    EXPECT_EQ(body(), payload);
}

TEST_F(ExchangeTest, PortIsTakenModulo65536)
{
    scripted_server srv({{{"HTTP/1.1 200 OK\r\n\r\nwrapped"}}});
    std::string host = "127.0.0.1:" + std::to_string(srv.port() + 65536);
    EXPECT_EQ(httpcli_get(&ctx, (host + "/w").c_str(), &resp, &res), 200);
    EXPECT_EQ(body(), "wrapped");
    ASSERT_EQ(srv.requests().size(), 1u);
    EXPECT_EQ(srv.requests()[0], expected_request("/w", host));
}

TEST_F(ExchangeTest, SignalDuringTheWaitEndsReception)
{
    struct sigaction sa = {}, old = {};
    sa.sa_handler = [](int) {}; // no SA_RESTART: the wait is interrupted
    sigaction(SIGUSR1, &sa, &old);
    pthread_t client = pthread_self();
    script s;
    s.handler = [client](int fd) {
        std::string first = "HTTP/1.1 200 OK\r\n\r\nfirst";
        send(fd, first.data(), first.size(), MSG_NOSIGNAL);
        // Interrupt the client until it leaves; if it never does, the rest
        // arrives and shows in the body.
        for (int i = 0; i < 400; i++) {
            pthread_kill(client, SIGUSR1);
            pollfd p = {fd, POLLIN, 0};
            if (poll(&p, 1, 25) > 0)
                return;
        }
        send(fd, "second", 6, MSG_NOSIGNAL);
    };
    scripted_server srv({s});
    ctx.timeout = 60.0f;
    int rc = httpcli_get(&ctx, srv.base().c_str(), &resp, &res);
    sigaction(SIGUSR1, &old, nullptr);
    EXPECT_EQ(rc, 200);
    EXPECT_EQ(body(), "first");
}

TEST_F(ExchangeTest, PeerResettingDuringTheRequestIsNoConnection)
{
    // A request far larger than the socket buffers: the peer reads a little
    // and resets, and the sender must neither die of SIGPIPE nor hang.
    signal(SIGPIPE, SIG_DFL);
    std::string huge = "X-Pad: " + std::string(8u << 20, 'p') + "\r\n";
    script s;
    s.handler = [](int fd) {
        linger l = {1, 0};
        setsockopt(fd, SOL_SOCKET, SO_LINGER, &l, sizeof l);
    };
    scripted_server srv({s});
    const char *saved = http_extra_headers;
    http_extra_headers = huge.c_str();
    int rc = httpcli_get(&ctx, srv.base().c_str(), &resp, &res);
    http_extra_headers = saved;
    EXPECT_EQ(rc, 1);
}

TEST_F(ExchangeTest, BrokenTimeOutDoesNotWaitForever)
{
    script s;
    s.hang = true;
    scripted_server srv({s});
    for (float t : {-1.0f, std::numeric_limits<float>::quiet_NaN(), -std::numeric_limits<float>::infinity()}) {
        ctx.timeout = t;
        EXPECT_EQ(httpcli_get(&ctx, srv.base().c_str(), &resp, &res), 1) << t;
        release();
    }
}

TEST_F(ExchangeTest, NoMemoryForTheUriRecordEndsBeforeConnecting)
{
    scripted_server srv({{{"HTTP/1.1 200 OK\r\n\r\nunused"}}});
    slab_fail_after(0);
    int rc = http_request(&ctx, srv.base().c_str(), &resp, &res);
    slab_fail_after(-1);
    EXPECT_EQ(rc, 1);
    EXPECT_EQ(srv.requests().size(), 0u);
    EXPECT_EQ(resp.start, nullptr);
}

TEST_F(ExchangeTest, RecordsAllocatedByTheClientItselfAreReleased)
{
    scripted_server srv({{{"HTTP/1.1 302 Found\r\nLocation: /x\r\nContent-Type: t\r\n\r\nbody"}}});
    ASSERT_EQ(http_request(&ctx, srv.base().c_str(), nullptr, nullptr), 302);
    EXPECT_EQ(slab_live_count(), live);
    int failed = 0;
    for (long k = 0; k < 16; k++) {
        slab_fail_after(k);
        int rc = http_request(&ctx, srv.base().c_str(), nullptr, nullptr);
        slab_fail_after(-1);
        EXPECT_TRUE(rc == 1 || rc == 3 || rc == 302) << "k=" << k << " rc=" << rc;
        failed += rc != 302;
        EXPECT_EQ(slab_live_count(), live) << "k=" << k;
    }
    EXPECT_GT(failed, 3);
}

TEST_F(RedirTest, StackHoldsEachSiteRelativeTargetWithItsPort)
{
    scripted_server srv({{{"HTTP/1.1 301 Moved\r\nLocation: /b\r\n\r\n"}},
                         {{"HTTP/1.1 302 Found\r\nLocation: /c?x=1\r\n\r\n"}},
                         {{"HTTP/1.1 200 OK\r\n\r\ndone"}}});
    EXPECT_EQ(get(srv.base() + "/a"), 200);
    std::string host = "127.0.0.1:" + std::to_string(srv.port());
    EXPECT_STREQ(stack, (" " + host + "/b " + host + "/c?x=1").c_str());
    EXPECT_EQ(body(), "done");
}

TEST_F(RedirTest, SiteRelativeTargetOnPort80HasNoPort)
{
    scripted_server srv({{{"HTTP/1.1 301 Moved\r\nLocation: /b\r\n\r\n"}},
                         {{"HTTP/1.1 302 Found\r\nLocation: /c\r\n\r\n"}},
                         {{"HTTP/1.1 200 OK\r\n\r\ndone"}}});
    ctx.proxy = "127.0.0.1";
    ctx.proxy_port = srv.port();
    EXPECT_EQ(get(KELP_TLS ? "ftp://origin.invalid:80/a" : "https://origin.invalid:80/a"), 200);
    EXPECT_STREQ(stack, " origin.invalid/b origin.invalid/c");
    EXPECT_EQ(srv.requests(), (std::vector<std::string>{
                                  expected_request(KELP_TLS ? "ftp://origin.invalid/a" : "https://origin.invalid/a",
                                                   "origin.invalid"),
                                  expected_request("http://origin.invalid/b", "origin.invalid"),
                                  expected_request("http://origin.invalid/c", "origin.invalid")}));
}

#if KELP_TLS
// The proxy fetches for us, so the chain needs no TLS server here.
TEST_F(RedirTest, SiteRelativeTargetOfHttpsKeepsTheScheme)
{
    scripted_server srv({{{"HTTP/1.1 301 Moved\r\nLocation: /b\r\n\r\n"}},
                         {{"HTTP/1.1 302 Found\r\nLocation: https://origin.invalid:8443/x\r\n\r\n"}},
                         {{"HTTP/1.1 307 Temp\r\nLocation: /c\r\n\r\n"}},
                         {{"HTTP/1.1 200 OK\r\n\r\ndone"}}});
    ctx.proxy = "127.0.0.1";
    ctx.proxy_port = srv.port();
    EXPECT_EQ(get("https://origin.invalid/a"), 200);
    EXPECT_STREQ(stack, " https://origin.invalid/b https://origin.invalid:8443/x https://origin.invalid:8443/c");
    EXPECT_EQ(srv.requests(), (std::vector<std::string>{
                                  expected_request("https://origin.invalid/a", "origin.invalid"),
                                  expected_request("https://origin.invalid/b", "origin.invalid"),
                                  expected_request("https://origin.invalid:8443/x", "origin.invalid:8443"),
                                  expected_request("https://origin.invalid:8443/c", "origin.invalid:8443")}));
}
#endif

TEST_F(RedirTest, EarlierTargetThatMerelyStartsWithTheLocationIsNoLoop)
{
    scripted_server srv({{{"HTTP/1.1 302 Found\r\nLocation: /a\r\n\r\n"}},
                         {{"HTTP/1.1 200 OK\r\n\r\nfollowed"}}});
    std::string host = "127.0.0.1:" + std::to_string(srv.port());
    stack = kd_strdup((" " + host + "/ab " + host + "/a2").c_str());
    EXPECT_EQ(get(srv.base() + "/start"), 200);
    EXPECT_EQ(body(), "followed");
    EXPECT_STREQ(stack, (" " + host + "/ab " + host + "/a2 " + host + "/a").c_str());
}

TEST_F(RedirTest, TailOfAnEarlierTargetCountsAsLoop)
{
    scripted_server srv({{{"HTTP/1.1 302 Found\r\nLocation: /a\r\n\r\nstopped"}},
                         {{"HTTP/1.1 200 OK\r\n\r\nwrong"}}});
    std::string host = "127.0.0.1:" + std::to_string(srv.port());
    std::string before = " x" + host + "/a";
    stack = kd_strdup(before.c_str());
    EXPECT_EQ(get(srv.base() + "/start"), 302);
    EXPECT_EQ(body(), "stopped");
    EXPECT_STREQ(stack, before.c_str());
    EXPECT_EQ(srv.requests().size(), 1u);
}

TEST_F(RedirTest, TailFollowedByBlankCountsAsLoop)
{
    scripted_server srv({{{"HTTP/1.1 307 Temp\r\nLocation: /a\r\n\r\n"}},
                         {{"HTTP/1.1 200 OK\r\n\r\nwrong"}}});
    std::string host = "127.0.0.1:" + std::to_string(srv.port());
    stack = kd_strdup((" http://" + host + "/a other").c_str());
    EXPECT_EQ(get(srv.base() + "/start"), 307);
    EXPECT_EQ(srv.requests().size(), 1u);
}

} // namespace
