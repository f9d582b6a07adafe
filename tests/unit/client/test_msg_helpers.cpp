// The codec's small helpers: wire words of commands and errors, the shared
// number buffer, tab replacement, and the message buffer's growth rule.
#include "client/kd_msg_limits.h"
#include "msg_fixture.h"
#include "util/kd_text.h"

#include <gtest/gtest.h>

#include <string>

using namespace kelp_test;

namespace {

TEST(MsgHelpers, CommandWords)
{
    const char *want[] = {"unknown\t", "login\t",    "logout\t",    "unknown\t", "unknown\t",
                          "body\t",    "accounts\t", "enclosure\t", "OK\t",      "ERROR\t",
                          "overview\t", "status\t",  "image\t",     "unknown\t", "unknown\t"};
    for (uint32_t c = 0; c < std::size(want); c++)
        EXPECT_STREQ(cmd2str(c), want[c]) << c;
    EXPECT_STREQ(cmd2str(UINT32_MAX), "unknown\t");
}

TEST(MsgHelpers, ErrorNames)
{
    const char *want[] = {
        "0:KD_NO_ERROR",           "1:KD_UNKOWN_COMMAND",       "2:KD_MISSING_VERSION",
        "3:KD_MISSING_URL",        "4:KD_MISSING_POLL_FREQ",    "5:KD_NO_MEMORY",
        "6:KD_MISSING_UID",        "7:KD_VERSION_NOT_SUPPORTED", "8:KD_ALREADY_LOGGED_IN",
        "9:KD_NOT_LOGGED_IN",      "10:KD_ALREADY_REGISTERED",  "11:KD_ACCOUNT_NOT_FOUND",
        "12:KD_UID_NOT_FOUND",     "13:KD_MISSING_DOMAIN",      "14:KD_DOMAIN_NOT_FOUND",
        "15:KD_MISSING_PROFILE",   "16:KD_PROFILE_NOT_FOUND",   "17:KD_MISSING_FEEDID",
        "18:KD_FEED_NOT_FOUND",    "19:KD_NO_CONFIG",           "20:KD_NO_INTERNET",
    };
    for (uint32_t e = 0; e < std::size(want); e++)
        EXPECT_STREQ(err2str(e), want[e]) << e;
    EXPECT_STREQ(err2str(21), "21:KD_UNKNOWN_ERROR");
}

TEST(MsgHelpers, NumbersShareOneBuffer)
{
    const char *a = uint2str(0);
    EXPECT_STREQ(a, "0");
    const char *b = err2str(KD_NO_INTERNET);
    EXPECT_EQ(a, b); // the next call overwrites the previous result
    EXPECT_STREQ(uint2str(4294967295u), "4294967295");
    EXPECT_STREQ(a, "4294967295");
}

TEST(MsgHelpers, Tab2SpaceWorksInPlace)
{
    char text[] = "\ta\t\tb\t";
    EXPECT_EQ(tab2space(text), text);
    EXPECT_STREQ(text, " a  b ");
    EXPECT_EQ(tab2space(nullptr), nullptr);
    char empty[] = "";
    EXPECT_STREQ(tab2space(empty), "");
}

// Appends one text to a fresh 32-byte buffer and returns the capacity.
uint32_t capacity_after(size_t len)
{
    char *buf = static_cast<char *>(kd_malloc(32));
    buf[0] = '\0';
    uint32_t cap = 32, used = 0;
    std::string text(len, 'x');
    EXPECT_EQ(msg_append(&buf, &cap, &used, text.c_str()), 1);
    EXPECT_EQ(used, len);
    EXPECT_EQ(std::string(buf), text);
    kd_free(buf);
    return cap;
}

TEST(MsgHelpers, FramingSizes)
{
    EXPECT_EQ(capacity_after(0), 32u);
    EXPECT_EQ(capacity_after(30), 32u);
    EXPECT_EQ(capacity_after(31), 64u);
    EXPECT_EQ(capacity_after(62), 64u);
    EXPECT_EQ(capacity_after(63), 128u);
    EXPECT_EQ(capacity_after(1000), 1024u);
    EXPECT_EQ(capacity_after(1023), 2048u);
}

TEST(MsgHelpers, GrowsUpToTheLargestBlockAndNoFurther)
{
    EXPECT_EQ(capacity_after(KD_MSG_MAX_BLOCK - 2), KD_MSG_MAX_BLOCK);
    size_t live = slab_live_count();
    char *buf = static_cast<char *>(kd_malloc(32));
    buf[0] = '\0';
    uint32_t cap = 32, used = 0;
    std::string most(KD_MSG_MAX_BLOCK - 2, 'm');
    ASSERT_EQ(msg_append(&buf, &cap, &used, most.c_str()), 1);
    EXPECT_EQ(msg_append(&buf, &cap, &used, "x"), 0);
    EXPECT_EQ(cap, KD_MSG_MAX_BLOCK);
    EXPECT_EQ(used, most.size());
    EXPECT_EQ(std::string(buf), most);
    kd_free(buf);
    EXPECT_EQ(slab_live_count(), live);
}

TEST(MsgHelpers, AppendsAccumulateAndKeepTwoSpareBytes)
{
    size_t live = slab_live_count();
    char *buf = static_cast<char *>(kd_malloc(32));
    buf[0] = '\0';
    uint32_t cap = 32, used = 0;
    std::string all;
    for (int i = 0; i < 50; i++) {
        std::string piece(static_cast<size_t>(i % 7 + 1), static_cast<char>('a' + i % 26));
        ASSERT_EQ(msg_append(&buf, &cap, &used, piece.c_str()), 1);
        all += piece;
        EXPECT_GE(cap, used + 2);
    }
    EXPECT_EQ(std::string(buf), all);
    EXPECT_EQ(used, all.size());
    kd_free(buf);
    EXPECT_EQ(slab_live_count(), live);
}

TEST(MsgHelpers, AbsentTextAppendsNothing)
{
    char *buf = static_cast<char *>(kd_malloc(32));
    buf[0] = '\0';
    uint32_t cap = 32, used = 0;
    EXPECT_EQ(msg_append(&buf, &cap, &used, nullptr), 1);
    EXPECT_EQ(used, 0u);
    EXPECT_EQ(cap, 32u);
    kd_free(buf);
}

TEST(MsgHelpers, FailedGrowthKeepsTheOldBuffer)
{
    size_t live = slab_live_count();
    char *buf = static_cast<char *>(kd_malloc(32));
    memcpy(buf, "abc", 4);
    uint32_t cap = 32, used = 3;
    std::string big(100, 'y');
    slab_fail_after(0);
    EXPECT_EQ(msg_append(&buf, &cap, &used, big.c_str()), 0);
    slab_fail_after(-1);
    EXPECT_EQ(cap, 32u);
    EXPECT_EQ(used, 3u);
    EXPECT_STREQ(buf, "abc");
    kd_free(buf);
    EXPECT_EQ(slab_live_count(), live);
}

} // namespace
