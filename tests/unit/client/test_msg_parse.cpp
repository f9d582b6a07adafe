// Request parsing: command words, field order and error codes, number
// wrapping, and the rule that nothing past the received count is read.
#include "client/kd_msg.h"

#include "platform/slab.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

using namespace std::string_literals;

namespace {

// Parses a copy placed at the very end of a heap block, so that ASan catches
// any read past the count.
struct parsed {
    kd_msg msg{};
    explicit parsed(const std::string &text)
    {
        char *block = new char[text.size()];
        memcpy(block, text.data(), text.size());
        kd_msg_parse(&msg, block, text.size());
        delete[] block;
    }
    ~parsed() { kd_free(msg.domain); }
    std::string domain() const { return msg.domain ? msg.domain : "(none)"; }
};

// One request and every field it parses to; "(none)" for no domain.
struct parse_case {
    const char *name;
    std::string text;
    uint32_t cmd, version;
    const char *domain;
    uint32_t profile_id, feed_id, uid, error;
};

const parse_case kCases[] = {
    {"white space only is unknown", " \t\r\n\v\f ", KD_CMD_UNKNOWN, 0, "(none)", 0, 0, 0, KD_NO_ERROR},
    {"an unknown word is unknown", "hello\tdomain:rss", KD_CMD_UNKNOWN, 0, "(none)", 0, 0, 0, KD_NO_ERROR},
    {"full login", "login\tv:3\tdomain:rss\tprofile_id:1", KD_CMD_LOGIN, 3, "rss", 1, 0, 0, KD_NO_ERROR},
    {"any white space separates, leads and trails",
     "\r\n  login v:2\n\ndomain:podcast \v profile_id:42\n\0garbage"s, KD_CMD_LOGIN, 2, "podcast", 42, 0, 0,
     KD_NO_ERROR},
    {"a NUL after the last field", "logout\tdomain:rss\tprofile_id:7\0"s, KD_CMD_LOGOUT, 0, "rss", 7, 0, 0,
     KD_NO_ERROR},
    {"login without profile keeps version and domain", "login\tv:3\tdomain:rss", KD_CMD_LOGIN, 3, "rss", 0, 0, 0,
     KD_MISSING_PROFILE},
    {"login without version stops at once", "login\tdomain:rss\tprofile_id:1", KD_CMD_LOGIN, 0, "(none)", 0, 0, 0,
     KD_MISSING_VERSION},
    {"login without domain", "login\tv:3\tprofile_id:1", KD_CMD_LOGIN, 3, "(none)", 0, 0, 0, KD_MISSING_DOMAIN},
    {"accounts", "accounts\tdomain:podcast\tprofile_id:2", KD_CMD_ACCOUNTS, 0, "podcast", 2, 0, 0, KD_NO_ERROR},
    {"logout without profile", "logout\tdomain:podcast", KD_CMD_LOGOUT, 0, "podcast", 0, 0, 0, KD_MISSING_PROFILE},
    {"body with every field", "body\tdomain:rss\tprofile_id:1\tfeed_id:4\tuid:17", KD_CMD_BODY, 0, "rss", 1, 4, 17,
     KD_NO_ERROR},
    {"body without uid", "body\tdomain:rss\tprofile_id:1\tfeed_id:4", KD_CMD_BODY, 0, "rss", 1, 4, 0,
     KD_MISSING_UID},
    {"enclosure without feed id", "enclosure\tdomain:rss\tprofile_id:1\tuid:3", KD_CMD_ENCLOSURE, 0, "rss", 1, 0, 0,
     KD_MISSING_FEEDID},
    {"image without domain", "image\tprofile_id:1\tfeed_id:4\tuid:3", KD_CMD_IMAGE, 0, "(none)", 0, 0, 0,
     KD_MISSING_DOMAIN},
    {"fields in another order", "logout\tprofile_id:1\tdomain:rss", KD_CMD_LOGOUT, 0, "(none)", 0, 0, 0,
     KD_MISSING_DOMAIN},
    {"eleven nines wrap", "logout\tdomain:rss\tprofile_id:99999999999", KD_CMD_LOGOUT, 0, "rss", 1215752191u, 0, 0,
     KD_NO_ERROR},
    {"a minus sign fails the field", "logout\tdomain:rss\tprofile_id:-1", KD_CMD_LOGOUT, 0, "rss", 0, 0, 0,
     KD_MISSING_PROFILE},
    {"a plus sign fails the field", "logout\tdomain:rss\tprofile_id:+1", KD_CMD_LOGOUT, 0, "rss", 0, 0, 0,
     KD_MISSING_PROFILE},
    {"a number stops at the first non-digit", "logout\tdomain:rss\tprofile_id:12abc", KD_CMD_LOGOUT, 0, "rss", 12, 0,
     0, KD_NO_ERROR},
    {"a number running to the end of the block", "body domain:rss profile_id:1 feed_id:4 uid:4294967295", KD_CMD_BODY,
     0, "rss", 1, 4, 4294967295u, KD_NO_ERROR},
    {"a key at the very end fails the field", "logout\tdomain:", KD_CMD_LOGOUT, 0, "(none)", 0, 0, 0,
     KD_MISSING_DOMAIN},
    {"a number key at the very end fails the field", "logout\tdomain:rss\tprofile_id:", KD_CMD_LOGOUT, 0, "rss", 0, 0,
     0, KD_MISSING_PROFILE},
    {"a key cut short by the end", "logout\tdom", KD_CMD_LOGOUT, 0, "(none)", 0, 0, 0, KD_MISSING_DOMAIN},
    {"a number key cut short by the end", "logout\tdomain:rss\tprofile_i", KD_CMD_LOGOUT, 0, "rss", 0, 0, 0,
     KD_MISSING_PROFILE},
    {"a key followed by white space", "logout\tdomain: rss\tprofile_id:1", KD_CMD_LOGOUT, 0, "(none)", 0, 0, 0,
     KD_MISSING_DOMAIN},
    {"keys are case-sensitive", "logout\tDomain:rss\tprofile_id:1", KD_CMD_LOGOUT, 0, "(none)", 0, 0, 0,
     KD_MISSING_DOMAIN},
    {"a string runs to the end of the block", "logout\tdomain:podcast", KD_CMD_LOGOUT, 0, "podcast", 0, 0, 0,
     KD_MISSING_PROFILE},
    {"a string stops at any white space", "logout domain:rss\rprofile_id:5", KD_CMD_LOGOUT, 0, "rss", 5, 0, 0,
     KD_NO_ERROR},
};

TEST(MsgParse, EveryRequestParsesToItsFields)
{
    for (const parse_case &c : kCases) {
        SCOPED_TRACE(c.name);
        parsed p(c.text);
        EXPECT_EQ(p.msg.cmd, c.cmd);
        EXPECT_EQ(p.msg.version, c.version);
        EXPECT_EQ(p.domain(), c.domain);
        EXPECT_EQ(p.msg.profile_id, c.profile_id);
        EXPECT_EQ(p.msg.feed_id, c.feed_id);
        EXPECT_EQ(p.msg.uid, c.uid);
        EXPECT_EQ(p.msg.error, c.error);
    }
}

TEST(MsgParse, DomainCopyFailureIsNoMemory)
{
    size_t live = slab_live_count();
    slab_fail_after(0);
    parsed p("logout\tdomain:rss\tprofile_id:1");
    slab_fail_after(-1);
    EXPECT_EQ(p.msg.error, KD_NO_MEMORY);
    EXPECT_EQ(p.msg.domain, nullptr);
    EXPECT_EQ(p.msg.profile_id, 0u);
    EXPECT_EQ(slab_live_count(), live);
}

TEST(MsgParse, CommandWordsArePrefixMatches)
{
    struct {
        const char *text;
        uint32_t cmd;
    } cases[] = {
        {"loginfoo", KD_CMD_LOGIN},    {"logout", KD_CMD_LOGOUT},   {"body", KD_CMD_BODY},
        {"accounts", KD_CMD_ACCOUNTS}, {"enclosure", KD_CMD_ENCLOSURE}, {"OK", KD_CMD_OK},
        {"ERROR", KD_CMD_ERROR},       {"overview", KD_CMD_OVERVIEW}, {"status", KD_CMD_STATUS},
        {"image", KD_CMD_IMAGE},       {"statusxyz", KD_CMD_STATUS}, {"OKAY", KD_CMD_OK},
    };
    for (const auto &c : cases) {
        parsed p(c.text);
        EXPECT_EQ(p.msg.cmd, c.cmd) << c.text;
    }
}

TEST(MsgParse, CommandWordsAreCaseSensitive)
{
    for (const char *text : {"Login", "LOGIN", "ok", "Error", "Status", "BODY", "x"}) {
        parsed p(text);
        EXPECT_EQ(p.msg.cmd, KD_CMD_UNKNOWN) << text;
    }
}

TEST(MsgParse, WordLongerThanTheBlockIsUnknown)
{
    for (const char *text : {"logi", "logou", "enclosur", "ERRO", "O", "statu", "imag", "bod"}) {
        parsed p(text);
        EXPECT_EQ(p.msg.cmd, KD_CMD_UNKNOWN) << text;
    }
}

TEST(MsgParse, LogoutIsTriedAfterLogin)
{
    parsed p("logout domain:rss profile_id:3");
    EXPECT_EQ(p.msg.cmd, KD_CMD_LOGOUT);
    parsed q("logo");
    EXPECT_EQ(q.msg.cmd, KD_CMD_UNKNOWN);
}

TEST(MsgParse, LoginWithoutFieldsReportsVersion)
{
    parsed p("login");
    EXPECT_EQ(p.msg.cmd, KD_CMD_LOGIN);
    EXPECT_EQ(p.msg.error, KD_MISSING_VERSION);
}

TEST(MsgParse, CommandsWithoutFieldsIgnoreTheRest)
{
    parsed p("status\tdomain:rss\tprofile_id:9");
    EXPECT_EQ(p.msg.cmd, KD_CMD_STATUS);
    EXPECT_EQ(p.msg.domain, nullptr);
    EXPECT_EQ(p.msg.profile_id, 0u);
    EXPECT_EQ(p.msg.error, KD_NO_ERROR);
}

TEST(MsgParse, OneByteBlocks)
{
    for (int c = 0; c < 256; c++) {
        parsed p(std::string(1, static_cast<char>(c)));
        EXPECT_EQ(p.msg.cmd, KD_CMD_UNKNOWN);
        EXPECT_EQ(p.msg.error, KD_NO_ERROR);
    }
}

TEST(MsgParseDeath, EmptyBlockIsAProgrammingError)
{
    kd_msg msg{};
    EXPECT_DEATH(kd_msg_parse(&msg, "x", 0), "count>0");
    EXPECT_DEATH(kd_msg_parse(&msg, nullptr, 1), "buf!=\\(\\(void \\*\\)0\\)");
    EXPECT_DEATH(kd_msg_parse(nullptr, "x", 1), "msg!=\\(\\(void \\*\\)0\\)");
}

} // namespace

namespace {

TEST(MsgParse, WordLengthCountsFromBehindLeadingWhiteSpace)
{
    parsed a(" \tlogin");
    EXPECT_EQ(a.msg.cmd, KD_CMD_LOGIN);
    parsed b("\n logou");
    EXPECT_EQ(b.msg.cmd, KD_CMD_UNKNOWN);
    parsed c("  logout");
    EXPECT_EQ(c.msg.cmd, KD_CMD_LOGOUT);
    EXPECT_EQ(c.msg.error, KD_MISSING_DOMAIN);
    parsed d("\tOK");
    EXPECT_EQ(d.msg.cmd, KD_CMD_OK);
}

TEST(MsgParse, LoginFollowedByLettersIsLoginAndTheFieldsFollow)
{
    parsed p("loginx v:2 domain:rss profile_id:4");
    EXPECT_EQ(p.msg.cmd, KD_CMD_LOGIN);
    EXPECT_EQ(p.msg.error, KD_MISSING_VERSION); // "x" stands where "v:" belongs
    parsed q("login\tv:2\tdomain:rss\tprofile_id:4");
    EXPECT_EQ(q.msg.version, 2u);
    EXPECT_EQ(q.msg.profile_id, 4u);
}

TEST(MsgParse, KeyThatDoesNotFitIsNotComparedAndFails)
{
    // Fewer bytes than the key remain: the field fails at the end, whatever they are.
    parsed p("body domain:rss profile_id:1 feed_id:2 xyz");
    EXPECT_EQ(p.msg.error, KD_MISSING_UID);
    EXPECT_EQ(p.msg.feed_id, 2u);
    parsed q("body domain:rss profile_id:1 feed_id:2 uid");
    EXPECT_EQ(q.msg.error, KD_MISSING_UID);
    parsed r("body domain:rss profile_id:1 feed_id:2 uid:");
    EXPECT_EQ(r.msg.error, KD_MISSING_UID);
}

TEST(MsgParse, ExactlyKeyPlusOneByteIsCompared)
{
    parsed p("body domain:rss profile_id:1 feed_id:2 uid:7");
    EXPECT_EQ(p.msg.uid, 7u);
    EXPECT_EQ(p.msg.error, KD_NO_ERROR);
    parsed q("body domain:rss profile_id:1 feed_id:2 uix:7");
    EXPECT_EQ(q.msg.error, KD_MISSING_UID);
    EXPECT_EQ(q.msg.uid, 0u);
}

} // namespace
