// kelp-web's Host and Origin checks: addresses and localhost are taken,
// other names only when allowed; a POST's Origin must be the page's own.
#include "origin.h"

#include <gtest/gtest.h>

using namespace kweb;

TEST(origin, AddressesAndLocalhostAreTaken)
{
    for (std::string_view host : {"127.0.0.1", "127.0.0.1:8080", "192.168.178.1:80", "[::1]:8080", "[fe80::1]",
                                  "localhost", "LocalHost:8080"})
        EXPECT_TRUE(host_allowed(host, {})) << host;
}

TEST(origin, OtherNamesOnlyWhenAllowed)
{
    std::vector<std::string> names = {"fritz.box"};
    for (std::string_view host : {"evil.test", "evil.test:8080", "127.0.0.1.evil.test", "localhost.evil.test",
                                  "", ":8080", "[::1", "[::1]x", "[nonsense]:80", "fritz.box.evil.test"})
        EXPECT_FALSE(host_allowed(host, names)) << host;
    EXPECT_TRUE(host_allowed("fritz.box", names));
    EXPECT_TRUE(host_allowed("FRITZ.box:8080", names));
    EXPECT_FALSE(host_allowed("fritz.box", {}));
}

TEST(origin, OriginMustBeThePagesOwn)
{
    EXPECT_TRUE(origin_matches("http://127.0.0.1:8080", "127.0.0.1:8080"));
    EXPECT_TRUE(origin_matches("https://fritz.box", "fritz.box"));
    EXPECT_TRUE(origin_matches("http://Fritz.Box", "fritz.box"));
    for (std::string_view origin : {"", "null", "http://127.0.0.1:8081", "http://127.0.0.1:8080/",
                                    "ftp://127.0.0.1:8080", "http://127.0.0.1:8080.evil.test",
                                    "http://evil.test", "127.0.0.1:8080", "http://x127.0.0.1:8080"})
        EXPECT_FALSE(origin_matches(origin, "127.0.0.1:8080")) << origin;
    EXPECT_FALSE(origin_matches("http://", ""));
}
