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

TEST(MsgParse, WhiteSpaceOnlyIsUnknownWithoutError)
{
    parsed p(" \t\r\n\v\f ");
    EXPECT_EQ(p.msg.cmd, KD_CMD_UNKNOWN);
    EXPECT_EQ(p.msg.error, KD_NO_ERROR);
}

TEST(MsgParse, UnknownWordIsUnknownWithoutError)
{
    parsed p("hello\tdomain:rss");
    EXPECT_EQ(p.msg.cmd, KD_CMD_UNKNOWN);
    EXPECT_EQ(p.msg.error, KD_NO_ERROR);
    EXPECT_EQ(p.msg.domain, nullptr);
}

TEST(MsgParse, FullLogin)
{
    parsed p("login\tv:3\tdomain:rss\tprofile_id:1");
    EXPECT_EQ(p.msg.cmd, KD_CMD_LOGIN);
    EXPECT_EQ(p.msg.version, 3u);
    EXPECT_EQ(p.domain(), "rss");
    EXPECT_EQ(p.msg.profile_id, 1u);
    EXPECT_EQ(p.msg.error, KD_NO_ERROR);
}

TEST(MsgParse, AnyWhiteSpaceSeparatesAndLeadsAndTrailingBytesAreIgnored)
{
    parsed p("\r\n  login v:2\n\ndomain:podcast \v profile_id:42\n\0garbage"s);
    EXPECT_EQ(p.msg.cmd, KD_CMD_LOGIN);
    EXPECT_EQ(p.msg.version, 2u);
    EXPECT_EQ(p.domain(), "podcast");
    EXPECT_EQ(p.msg.profile_id, 42u);
    EXPECT_EQ(p.msg.error, KD_NO_ERROR);
}

TEST(MsgParse, TrailingNulAfterLastFieldIsIgnored)
{
    parsed p("logout\tdomain:rss\tprofile_id:7\0"s);
    EXPECT_EQ(p.msg.cmd, KD_CMD_LOGOUT);
    EXPECT_EQ(p.msg.profile_id, 7u);
    EXPECT_EQ(p.msg.error, KD_NO_ERROR);
}

TEST(MsgParse, LoginWithoutProfileKeepsVersionAndDomain)
{
    parsed p("login\tv:3\tdomain:rss");
    EXPECT_EQ(p.msg.version, 3u);
    EXPECT_EQ(p.domain(), "rss");
    EXPECT_EQ(p.msg.profile_id, 0u);
    EXPECT_EQ(p.msg.error, KD_MISSING_PROFILE);
}

TEST(MsgParse, LoginWithoutVersionStopsAtOnce)
{
    parsed p("login\tdomain:rss\tprofile_id:1");
    EXPECT_EQ(p.msg.cmd, KD_CMD_LOGIN);
    EXPECT_EQ(p.msg.error, KD_MISSING_VERSION);
    EXPECT_EQ(p.msg.domain, nullptr); // later fields stay unread
    EXPECT_EQ(p.msg.profile_id, 0u);
}

TEST(MsgParse, LoginWithoutDomain)
{
    parsed p("login\tv:3\tprofile_id:1");
    EXPECT_EQ(p.msg.error, KD_MISSING_DOMAIN);
    EXPECT_EQ(p.msg.profile_id, 0u);
}

TEST(MsgParse, AccountsFields)
{
    parsed p("accounts\tdomain:podcast\tprofile_id:2");
    EXPECT_EQ(p.msg.cmd, KD_CMD_ACCOUNTS);
    EXPECT_EQ(p.domain(), "podcast");
    EXPECT_EQ(p.msg.profile_id, 2u);
    EXPECT_EQ(p.msg.error, KD_NO_ERROR);
}

TEST(MsgParse, LogoutWithoutProfile)
{
    parsed p("logout\tdomain:podcast");
    EXPECT_EQ(p.msg.cmd, KD_CMD_LOGOUT);
    EXPECT_EQ(p.msg.error, KD_MISSING_PROFILE);
}

TEST(MsgParse, BodyAllFields)
{
    parsed p("body\tdomain:rss\tprofile_id:1\tfeed_id:4\tuid:17");
    EXPECT_EQ(p.msg.cmd, KD_CMD_BODY);
    EXPECT_EQ(p.msg.feed_id, 4u);
    EXPECT_EQ(p.msg.uid, 17u);
    EXPECT_EQ(p.msg.error, KD_NO_ERROR);
}

TEST(MsgParse, BodyWithoutUid)
{
    parsed p("body\tdomain:rss\tprofile_id:1\tfeed_id:4");
    EXPECT_EQ(p.msg.feed_id, 4u);
    EXPECT_EQ(p.msg.uid, 0u);
    EXPECT_EQ(p.msg.error, KD_MISSING_UID);
}

TEST(MsgParse, ItemRequestsMissingFeedIdAndDomain)
{
    parsed e("enclosure\tdomain:rss\tprofile_id:1\tuid:3");
    EXPECT_EQ(e.msg.cmd, KD_CMD_ENCLOSURE);
    EXPECT_EQ(e.msg.error, KD_MISSING_FEEDID);
    EXPECT_EQ(e.msg.uid, 0u);
    parsed i("image\tprofile_id:1\tfeed_id:4\tuid:3");
    EXPECT_EQ(i.msg.cmd, KD_CMD_IMAGE);
    EXPECT_EQ(i.msg.error, KD_MISSING_DOMAIN);
    EXPECT_EQ(i.msg.profile_id, 0u);
}

TEST(MsgParse, FieldsInAnotherOrderFail)
{
    parsed p("logout\tprofile_id:1\tdomain:rss");
    EXPECT_EQ(p.msg.error, KD_MISSING_DOMAIN);
}

TEST(MsgParse, ElevenNinesWrap)
{
    parsed p("logout\tdomain:rss\tprofile_id:99999999999");
    EXPECT_EQ(p.msg.profile_id, 1215752191u);
    EXPECT_EQ(p.msg.error, KD_NO_ERROR);
}

TEST(MsgParse, MinusSignFailsTheField)
{
    parsed p("logout\tdomain:rss\tprofile_id:-1");
    EXPECT_EQ(p.msg.error, KD_MISSING_PROFILE);
    EXPECT_EQ(p.msg.profile_id, 0u);
    parsed q("logout\tdomain:rss\tprofile_id:+1");
    EXPECT_EQ(q.msg.error, KD_MISSING_PROFILE);
}

TEST(MsgParse, NumberStopsAtFirstNonDigit)
{
    parsed p("logout\tdomain:rss\tprofile_id:12abc");
    EXPECT_EQ(p.msg.profile_id, 12u);
    EXPECT_EQ(p.msg.error, KD_NO_ERROR);
}

TEST(MsgParse, NumberRunningToTheEndOfTheBlock)
{
    parsed p("body domain:rss profile_id:1 feed_id:4 uid:4294967295");
    EXPECT_EQ(p.msg.uid, 4294967295u);
    EXPECT_EQ(p.msg.error, KD_NO_ERROR);
}

TEST(MsgParse, KeyAtTheVeryEndFailsTheField)
{
    parsed p("logout\tdomain:");
    EXPECT_EQ(p.msg.error, KD_MISSING_DOMAIN);
    EXPECT_EQ(p.msg.domain, nullptr);
    parsed q("logout\tdomain:rss\tprofile_id:");
    EXPECT_EQ(q.msg.error, KD_MISSING_PROFILE);
}

TEST(MsgParse, KeyCutShortByTheEndFailsTheField)
{
    parsed p("logout\tdom");
    EXPECT_EQ(p.msg.error, KD_MISSING_DOMAIN);
    parsed q("logout\tdomain:rss\tprofile_i");
    EXPECT_EQ(q.msg.error, KD_MISSING_PROFILE);
}

TEST(MsgParse, KeyFollowedByWhiteSpaceFailsTheField)
{
    parsed p("logout\tdomain: rss\tprofile_id:1");
    EXPECT_EQ(p.msg.error, KD_MISSING_DOMAIN);
    EXPECT_EQ(p.msg.domain, nullptr);
}

TEST(MsgParse, KeysAreCaseSensitive)
{
    parsed p("logout\tDomain:rss\tprofile_id:1");
    EXPECT_EQ(p.msg.error, KD_MISSING_DOMAIN);
}

TEST(MsgParse, StringRunsToTheEndOfTheBlock)
{
    parsed p("logout\tdomain:podcast");
    EXPECT_EQ(p.domain(), "podcast");
    EXPECT_EQ(p.msg.error, KD_MISSING_PROFILE);
}

TEST(MsgParse, StringStopsAtAnyWhiteSpace)
{
    parsed p("logout domain:rss\rprofile_id:5");
    EXPECT_EQ(p.domain(), "rss");
    EXPECT_EQ(p.msg.profile_id, 5u);
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
