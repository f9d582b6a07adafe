// URL splitting and the exact request text.
#include <gtest/gtest.h>

#include <string>

#include "http/httpcli.h"
#include "platform/slab.h"

namespace {

struct UriTest : ::testing::Test {
    httpcli_ctx ctx = {nullptr, 0, 0, 1.0f};
    http_uri uri = {};
    httpcli_buffer b = {};
    size_t live = slab_live_count();
    void TearDown() override
    {
        slab_fail_after(-1);
        http_free_uri(&ctx, &uri);
        kd_free(b.start);
        EXPECT_EQ(slab_live_count(), live);
    }
    std::string request(const char *url)
    {
        http_parse_uri(&ctx, url, &uri);
        b.len = 0;
        build_request(&ctx, &uri, &b);
        return std::string(b.start, b.len);
    }
};

TEST_F(UriTest, NoSchemeDefaultsToHttp)
{
    http_parse_uri(&ctx, "example/feed", &uri);
    EXPECT_STREQ(uri.scheme, "http");
    EXPECT_STREQ(uri.host, "example");
    EXPECT_EQ(uri.port, 80);
    EXPECT_STREQ(uri.path, "/feed");
}

TEST_F(UriTest, PortWithoutPath)
{
    http_parse_uri(&ctx, "example:8080", &uri);
    EXPECT_STREQ(uri.host, "example");
    EXPECT_EQ(uri.port, 8080);
    EXPECT_STREQ(uri.path, "/");
}

TEST_F(UriTest, ColonWithoutDigitsGivesPortZero)
{
    http_parse_uri(&ctx, "example:", &uri);
    EXPECT_STREQ(uri.host, "example");
    EXPECT_EQ(uri.port, 0);
}

TEST_F(UriTest, PortDigitsStopAtNonDigit)
{
    http_parse_uri(&ctx, "example:80x", &uri);
    EXPECT_EQ(uri.port, 80);
    http_parse_uri(&ctx, "http://example:81x/a", &uri);
    EXPECT_EQ(uri.port, 81);
    EXPECT_STREQ(uri.path, "/a");
}

TEST_F(UriTest, SchemeKeptVerbatimAndQueryInPath)
{
    http_parse_uri(&ctx, "FTP://Ex.Ample/a%20b?q=1#frag", &uri);
    EXPECT_STREQ(uri.scheme, "FTP");
    EXPECT_STREQ(uri.host, "Ex.Ample");
    EXPECT_EQ(uri.port, 80);
    EXPECT_STREQ(uri.path, "/a%20b?q=1#frag");
}

TEST_F(UriTest, UserInfoStaysInHost)
{
    http_parse_uri(&ctx, "http://user@host/x", &uri);
    EXPECT_STREQ(uri.host, "user@host");
}

TEST_F(UriTest, ColonInPathIsNotAPort)
{
    http_parse_uri(&ctx, "http://host/a:b", &uri);
    EXPECT_STREQ(uri.host, "host");
    EXPECT_EQ(uri.port, 80);
    EXPECT_STREQ(uri.path, "/a:b");
}

TEST_F(UriTest, ReparseReleasesOldContents)
{
    http_parse_uri(&ctx, "http://a/b", &uri);
    http_parse_uri(&ctx, "c", &uri);
    EXPECT_STREQ(uri.host, "c");
    EXPECT_STREQ(uri.path, "/");
}

TEST_F(UriTest, FreeClearsFields)
{
    http_parse_uri(&ctx, "http://a/b", &uri);
    http_free_uri(&ctx, &uri);
    EXPECT_EQ(uri.scheme, nullptr);
    EXPECT_EQ(uri.host, nullptr);
    EXPECT_EQ(uri.path, nullptr);
}

TEST_F(UriTest, DirectRequestPort80)
{
    EXPECT_EQ(request("http://feeds.test/rss.xml"),
              "GET /rss.xml HTTP/1.1\r\n"
              "Host: feeds.test\r\n"
              "Connection: close\r\n"
              "Accept-Encoding: \r\n"
              "User-Agent: Lumora FeedReader\r\n"
              "\r\n");
}

TEST_F(UriTest, HostHeaderCarriesNonDefaultPort)
{
    EXPECT_EQ(request("feeds.test:8080/a?b=c"),
              "GET /a?b=c HTTP/1.1\r\n"
              "Host: feeds.test:8080\r\n"
              "Connection: close\r\n"
              "Accept-Encoding: \r\n"
              "User-Agent: Lumora FeedReader\r\n"
              "\r\n");
}

#if KELP_TLS
TEST_F(UriTest, HttpsSchemeDefaultsToPort443InAnyCase)
{
    http_parse_uri(&ctx, "https://secure.test/x", &uri);
    EXPECT_EQ(uri.port, 443);
    http_parse_uri(&ctx, "HTTPS://Secure.Test", &uri);
    EXPECT_STREQ(uri.scheme, "HTTPS");
    EXPECT_EQ(uri.port, 443);
    http_parse_uri(&ctx, "https://secure.test:80/x", &uri);
    EXPECT_EQ(uri.port, 80);
}

TEST_F(UriTest, HttpsRequestTextIsThatOfPlainHttp)
{
    std::string plain = request("http://secure.test/x?a=1");
    EXPECT_EQ(request("https://secure.test/x?a=1"), plain);
    EXPECT_EQ(request("https://secure.test:443/x?a=1"), plain);
    EXPECT_EQ(request("https://secure.test:8443/x"), request("http://secure.test:8443/x"));
    EXPECT_TRUE(request("https://secure.test:80/x").starts_with("GET /x HTTP/1.1\r\nHost: secure.test:80\r\n"));
}

TEST_F(UriTest, HttpsThroughProxyNamesPort443Nowhere)
{
    ctx.proxy = "proxy.test";
    EXPECT_TRUE(request("https://feeds.test/a").starts_with("GET https://feeds.test/a HTTP/1.1\r\nHost: feeds.test\r\n"));
}
#else
TEST_F(UriTest, HttpsSchemeIsFetchedPlainOnPort80)
{
    http_parse_uri(&ctx, "https://secure.test/x", &uri);
    EXPECT_EQ(uri.port, 80);
    EXPECT_TRUE(request("https://secure.test/x").starts_with("GET /x HTTP/1.1\r\nHost: secure.test\r\n"));
}
#endif

TEST_F(UriTest, ProxyUsesAbsoluteForm)
{
    ctx.proxy = "proxy.test";
    ctx.proxy_port = 3128;
    EXPECT_EQ(request("https://feeds.test:8080/a"),
              "GET https://feeds.test:8080/a HTTP/1.1\r\n"
              "Host: feeds.test:8080\r\n"
              "Connection: close\r\n"
              "Accept-Encoding: \r\n"
              "User-Agent: Lumora FeedReader\r\n"
              "\r\n");
    EXPECT_TRUE(request("feeds.test/a").starts_with("GET http://feeds.test/a HTTP/1.1\r\nHost: feeds.test\r\n"));
}

TEST_F(UriTest, EmptyProxyMeansDirect)
{
    ctx.proxy = "";
    EXPECT_TRUE(request("feeds.test/a").starts_with("GET /a HTTP/1.1\r\nHost: feeds.test\r\n"));
}

TEST_F(UriTest, NoExtraHeadersEndsWithOneEmptyLine)
{
    const char *saved = http_extra_headers;
    http_extra_headers = nullptr;
    std::string r = request("h/p");
    http_extra_headers = saved;
    EXPECT_EQ(r, "GET /p HTTP/1.1\r\nHost: h\r\nConnection: close\r\nAccept-Encoding: \r\n\r\n");
}

TEST_F(UriTest, ExtraHeadersWithoutLineFeedGetOneMoreLineEnd)
{
    const char *saved = http_extra_headers;
    http_extra_headers = "X-A: 1\r\nX-B: 2";
    std::string r = request("h/p");
    http_extra_headers = saved;
    EXPECT_EQ(r, "GET /p HTTP/1.1\r\nHost: h\r\nConnection: close\r\nAccept-Encoding: \r\n"
                 "X-A: 1\r\nX-B: 2\r\n\r\n");
}

TEST_F(UriTest, EmptyExtraHeadersGiveTwoLineEnds)
{
    const char *saved = http_extra_headers;
    http_extra_headers = "";
    std::string r = request("h/p");
    http_extra_headers = saved;
    EXPECT_EQ(r, "GET /p HTTP/1.1\r\nHost: h\r\nConnection: close\r\nAccept-Encoding: \r\n\r\n\r\n");
}

TEST_F(UriTest, ExtraHeadersEndingInBareLineFeedGetOneLineEnd)
{
    const char *saved = http_extra_headers;
    http_extra_headers = "X-A: 1\n";
    std::string r = request("h/p");
    http_extra_headers = saved;
    EXPECT_EQ(r, "GET /p HTTP/1.1\r\nHost: h\r\nConnection: close\r\nAccept-Encoding: \r\n"
                 "X-A: 1\n\r\n");
}

TEST_F(UriTest, ExplicitPort80IsLeftOutEvenThroughProxy)
{
    ctx.proxy = "proxy.test";
    EXPECT_EQ(request("ftp://h:80/p"),
              "GET ftp://h/p HTTP/1.1\r\nHost: h\r\nConnection: close\r\nAccept-Encoding: \r\n"
              "User-Agent: Lumora FeedReader\r\n\r\n");
}

TEST_F(UriTest, PortZeroIsWrittenOut)
{
    EXPECT_TRUE(request("h:/p").starts_with("GET /p HTTP/1.1\r\nHost: h:0\r\n"));
}

TEST_F(UriTest, FailedGrowthOfRequestLeavesNoData)
{
    http_parse_uri(&ctx, "h/p", &uri);
    slab_fail_after(0);
    build_request(&ctx, &uri, &b);
    EXPECT_EQ(b.start, nullptr);
}

TEST(UriDeath, NullTextAsserts)
{
    http_uri uri = {};
    httpcli_ctx ctx = http_default_context;
    EXPECT_DEATH(http_parse_uri(&ctx, nullptr, &uri), "text!=\\(\\(void \\*\\)0\\)");
}

} // namespace
