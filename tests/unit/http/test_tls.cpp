// The TLS transport's failure paths against servers on loopback that speak
// no TLS: every one ends as "no connection" with its reason reported, within
// the per-wait time-out, and leaves no record behind. Real handshakes with
// certificates are exercised by the system tests (tests/system/test_tls*.py).
#include <gtest/gtest.h>

#if KELP_TLS
#include <arpa/inet.h>
#include <atomic>
#include <functional>
#include <netinet/in.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "http/httpcli.h"
#include "http/tls.h"
#include "platform/slab.h"
#include "tests/unit/http/loopback.h"

namespace {

// Serves each connection with `serve` (given the socket); closes it after.
class raw_server {
  public:
    explicit raw_server(std::function<void(int)> serve) : serve_(std::move(serve))
    {
        lfd_ = kelp_test::loopback_listener(&port_);
        thread_ = std::thread([this] { run(); });
    }
    ~raw_server()
    {
        stop_ = true;
        thread_.join();
        close(lfd_);
    }
    std::string url() const { return "https://127.0.0.1:" + std::to_string(port_) + "/feed"; }
    int connections() const { return connections_; }

  private:
    void run()
    {
        for (int fd; (fd = kelp_test::next_connection(lfd_, stop_)) >= 0;) {
            connections_++;
            serve_(fd);
            close(fd);
        }
    }
    std::function<void(int)> serve_;
    int lfd_;
    int port_;
    std::atomic<bool> stop_{false};
    std::atomic<int> connections_{0};
    std::thread thread_;
};

// Reads until the client leaves.
void drain(int fd)
{
    char buf[4096];
    while (recv(fd, buf, sizeof buf, 0) > 0) {
    }
}

std::vector<std::string> reports; // "server|error" or "server|version"

void record(const http_tls_report *r)
{
    reports.push_back(std::string(r->server) + "|" + (r->error ? r->error : r->version));
}

struct TlsTest : ::testing::Test {
    httpcli_ctx ctx = {nullptr, 0, 0, 2.0f};
    httpcli_buffer resp = {};
    http_result res = {};
    size_t live = slab_live_count();
    void SetUp() override
    {
        reports.clear();
        observe(HTTPCLI_FETCH_DEADLINE);
    }
    void TearDown() override
    {
        httpcli_set_hooks(nullptr);
        slab_fail_after(-1);
        kd_free(resp.start);
        kd_free(res.location);
        kd_free(res.content_type);
        kd_free(res.content_encoding);
        EXPECT_EQ(slab_live_count(), live);
    }
    int get(const std::string &url) { return httpcli_get(&ctx, url.c_str(), &resp, &res); }
    // Every handshake reported to record(), every fetch given `deadline` seconds.
    static void observe(float deadline)
    {
        httpcli_hooks hooks = httpcli_default_hooks();
        hooks.tls_observer = record;
        hooks.fetch_deadline = deadline;
        httpcli_set_hooks(&hooks);
    }
};

TEST(TlsChoice, HttpsDirectOnlyInAnyCase)
{
    httpcli_ctx ctx = {nullptr, 0, 0, 1.0f};
    http_uri uri = {};
    http_parse_uri(&ctx, "HTTPS://a/b", &uri);
    EXPECT_TRUE(http_tls_wanted(&ctx, &uri));
    ctx.proxy = "";
    EXPECT_TRUE(http_tls_wanted(&ctx, &uri));
    ctx.proxy = "proxy.test";
    EXPECT_FALSE(http_tls_wanted(&ctx, &uri));
    ctx.proxy = nullptr;
    http_parse_uri(&ctx, "http://a:443/b", &uri);
    EXPECT_FALSE(http_tls_wanted(&ctx, &uri));
    http_parse_uri(&ctx, "httpsx://a/b", &uri);
    EXPECT_FALSE(http_tls_wanted(&ctx, &uri));
    http_free_uri(&ctx, &uri);
    EXPECT_EQ(http_default_port("https"), 443);
    EXPECT_EQ(http_default_port("http"), 80);
}

TEST_F(TlsTest, PlainHttpAnswerToTheHelloIsNoConnection)
{
    raw_server srv([](int fd) {
        char buf[4096];
        recv(fd, buf, sizeof buf, 0);
        const char answer[] = "HTTP/1.1 400 Bad Request\r\n\r\nplain";
        send(fd, answer, sizeof answer - 1, MSG_NOSIGNAL);
    });
    EXPECT_EQ(get(srv.url()), HTTPCLI_NO_CONNECTION);
    EXPECT_EQ(resp.len, 0u);
    ASSERT_EQ(reports.size(), 1u);
    EXPECT_TRUE(reports[0].starts_with("127.0.0.1:")) << reports[0];
    EXPECT_NE(reports[0].find("|handshake: "), std::string::npos) << reports[0];
}

TEST_F(TlsTest, ServerClosingAtOnceIsNoConnection)
{
    raw_server srv([](int) {});
    EXPECT_EQ(get(srv.url()), HTTPCLI_NO_CONNECTION);
    ASSERT_EQ(reports.size(), 1u);
    EXPECT_NE(reports[0].find("|handshake: "), std::string::npos) << reports[0];
}

TEST_F(TlsTest, SilentServerEndsTheHandshakeAfterOneWait)
{
    ctx.timeout = 0.2f;
    raw_server srv(drain);
    EXPECT_EQ(get(srv.url()), HTTPCLI_NO_CONNECTION);
    ASSERT_EQ(reports.size(), 1u);
    EXPECT_NE(reports[0].find("|handshake: no answer within the time-out"), std::string::npos) << reports[0];
}

TEST_F(TlsTest, TricklingHandshakeEndsAtTheFetchDeadline)
{
    observe(0.4f);
    raw_server srv([](int fd) {
        char buf[4096];
        recv(fd, buf, sizeof buf, 0); // the client's hello
        // A handshake record announcing 1 KiB, then a byte every 20 ms: each
        // wait is served, the record never completes before the deadline.
        const unsigned char head[] = {0x16, 0x03, 0x03, 0x04, 0x00};
        send(fd, head, sizeof head, MSG_NOSIGNAL);
        for (int i = 0; i < 400; i++) {
            pollfd p = {fd, POLLIN, 0};
            if (poll(&p, 1, 20) != 0)
                return; // the client has gone
            send(fd, "", 1, MSG_NOSIGNAL);
        }
    });
    EXPECT_EQ(get(srv.url()), HTTPCLI_NO_CONNECTION);
    observe(HTTPCLI_FETCH_DEADLINE);
    ASSERT_EQ(reports.size(), 1u);
    EXPECT_NE(reports[0].find("|handshake: the fetch's deadline passed"), std::string::npos) << reports[0];
}

TEST_F(TlsTest, RefusedPortIsNoConnectionWithoutReport)
{
    int s = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in sa = {};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(s, reinterpret_cast<sockaddr *>(&sa), sizeof sa);
    socklen_t l = sizeof sa;
    getsockname(s, reinterpret_cast<sockaddr *>(&sa), &l);
    close(s);
    EXPECT_EQ(get("https://127.0.0.1:" + std::to_string(ntohs(sa.sin_port)) + "/"), HTTPCLI_NO_CONNECTION);
    EXPECT_TRUE(reports.empty());
}

TEST_F(TlsTest, FailedAllocationsLeaveNothingBehind)
{
    raw_server srv([](int) {});
    int nomem = 0;
    for (long k = 0; k < 16; k++) {
        slab_fail_after(k);
        int rc = get(srv.url());
        slab_fail_after(-1);
        EXPECT_TRUE(rc == HTTPCLI_NO_CONNECTION || rc == HTTPCLI_NO_MEMORY) << "k=" << k << " rc=" << rc;
        nomem += rc == HTTPCLI_NO_MEMORY;
        kd_free(resp.start);
        resp = {};
        EXPECT_EQ(slab_live_count(), live) << "k=" << k;
    }
    EXPECT_GT(nomem, 0);
}

} // namespace
#endif
