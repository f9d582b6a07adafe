// Answers and overview messages, byte for byte, built from real
// configuration trees and feed records; API 2 and 3 differences; framing.
#include "msg_fixture.h"

#include <gtest/gtest.h>

using namespace kelp_test;

namespace {

constexpr char kConfig[] =
    "<rss><pool>"
    "<entry id=\"4\" url=\"http://news.test/feed\" name=\"News\" poll=\"60\"/>"
    "<entry id=\"9\" url=\"http://radio.test/rss\" name=\"Radio\"/>"
    "</pool><profiles>"
    "<profile id=\"1\"><item entry=\"4\" read=\"01\"/><item entry=\"9\"/></profile>"
    "<profile id=\"2\"/>"
    "</profiles></rss>";

struct MsgBuild : ::testing::Test {
    size_t live = slab_live_count();
    void TearDown() override { EXPECT_EQ(slab_live_count(), live); }
};

kd_msg request(uint32_t cmd, const char *domain, uint32_t profile, uint32_t error = 0)
{
    kd_msg m{};
    m.cmd = cmd;
    m.domain = const_cast<char *>(domain);
    m.profile_id = profile;
    m.error = error;
    return m;
}

kd_msg item_request(uint32_t cmd, uint32_t feed, uint32_t uid)
{
    kd_msg m = request(cmd, "rss", 1);
    m.feed_id = feed;
    m.uid = uid;
    return m;
}

TEST_F(MsgBuild, LoginAnswerListsTheProfilesFeeds)
{
    config_tree t(kConfig);
    kd_profile p = make_profile(t.profile("1"), 1);
    EXPECT_EQ(bars(response(request(KD_CMD_LOGIN, "rss", 1), 3, &p)),
              "OK|login|domain:rss|profile_id:1|name:News|feed_id:4|name:Radio|feed_id:9");
}

TEST_F(MsgBuild, AccountsAnswerListsTheFeedsToo)
{
    config_tree t(kConfig);
    kd_profile p = make_profile(t.profile("1"), 1);
    EXPECT_EQ(bars(response(request(KD_CMD_ACCOUNTS, "rss", 1), 2, &p)),
              "OK|accounts|domain:rss|profile_id:1|name:News|feed_id:4|name:Radio|feed_id:9");
}

TEST_F(MsgBuild, LogoutErrorAnswer)
{
    EXPECT_EQ(bars(response(request(KD_CMD_LOGOUT, "rss", 7, KD_NOT_LOGGED_IN), 3, nullptr)),
              "ERROR|logout|9:KD_NOT_LOGGED_IN|domain:rss|profile_id:7");
}

TEST_F(MsgBuild, BodyAnswerWithImageForApi3)
{
    kd_item *it = item(17, "Subject", "Some text");
    it->images = attachment("pic.jpg", 12);
    EXPECT_EQ(bars(response(item_request(KD_CMD_BODY, 4, 17), 3, it)),
              "OK|body|domain:rss|profile_id:1|feed_id:4|uid:17|body:Some text|image:pic.jpg|offset:12");
    kdn_free_item(it);
}

TEST_F(MsgBuild, BodyAnswerWithoutImagesForApi2)
{
    kd_item *it = item(17, "Subject", "Some text");
    it->images = attachment("pic.jpg", 12);
    EXPECT_EQ(bars(response(item_request(KD_CMD_BODY, 4, 17), 2, it)),
              "OK|body|domain:rss|profile_id:1|feed_id:4|uid:17|body:Some text");
    kdn_free_item(it);
}

TEST_F(MsgBuild, StatusNoInternetAnswer)
{
    kd_profile p{};
    p.profile_id = 2;
    EXPECT_EQ(bars(response(request(KD_CMD_STATUS, "podcast", 2, KD_NO_INTERNET), 3, &p)),
              "ERROR|status|20:KD_NO_INTERNET|domain:podcast|profile_id:2");
    EXPECT_EQ(p.was_online, 0);
}

TEST_F(MsgBuild, SuccessfulStatusSetsWasOnline)
{
    kd_profile p{};
    p.profile_id = 2;
    EXPECT_EQ(bars(response(request(KD_CMD_STATUS, "podcast", 2), 3, &p)),
              "OK|status|domain:podcast|profile_id:2");
    EXPECT_EQ(p.was_online, 1);
}

TEST_F(MsgBuild, StatusWithoutProfileObject)
{
    EXPECT_EQ(bars(response(request(KD_CMD_STATUS, nullptr, 0, KD_NOT_LOGGED_IN), 3, nullptr)),
              "ERROR|status|9:KD_NOT_LOGGED_IN|domain:|profile_id:0");
}

TEST_F(MsgBuild, MissingDomainGivesAnEmptyDomainField)
{
    EXPECT_EQ(bars(response(request(KD_CMD_LOGIN, nullptr, 0, KD_MISSING_DOMAIN), 3, nullptr)),
              "ERROR|login|13:KD_MISSING_DOMAIN|domain:|profile_id:0");
}

TEST_F(MsgBuild, LoginWithParseErrorStillListsTheFeeds)
{
    config_tree t(kConfig);
    kd_profile p = make_profile(t.profile("1"), 0);
    EXPECT_EQ(bars(response(request(KD_CMD_LOGIN, "rss", 0, KD_MISSING_PROFILE), 3, &p)),
              "ERROR|login|15:KD_MISSING_PROFILE|domain:rss|profile_id:0"
              "|name:News|feed_id:4|name:Radio|feed_id:9");
}

TEST_F(MsgBuild, PlaceholderProfileHasNoFeeds)
{
    kd_profile p{};
    p.profile_id = 5;
    EXPECT_EQ(bars(response(request(KD_CMD_LOGIN, "rss", 5), 3, &p)), "OK|login|domain:rss|profile_id:5");
}

TEST_F(MsgBuild, ProfileWithoutSubscriptions)
{
    config_tree t(kConfig);
    kd_profile p = make_profile(t.profile("2"), 2);
    EXPECT_EQ(bars(response(request(KD_CMD_ACCOUNTS, "rss", 2), 3, &p)),
              "OK|accounts|domain:rss|profile_id:2");
}

TEST_F(MsgBuild, FeedNamesAreConvertedToLatin1)
{
    config_tree t("<rss><pool><entry id=\"3\" url=\"u\" name=\"Caf\xc3\xa9 \xe2\x82\xac\"/></pool>"
                  "<profiles><profile id=\"1\"><item entry=\"3\"/></profile></profiles></rss>");
    kd_profile p = make_profile(t.profile("1"), 1);
    EXPECT_EQ(bars(response(request(KD_CMD_LOGIN, "rss", 1), 3, &p)),
              "OK|login|domain:rss|profile_id:1|name:Caf\xe9 .|feed_id:3");
    // The configuration keeps its UTF-8 name: the conversion works on a copy.
    EXPECT_STREQ(mxmlElementGetAttr(t.entry("3"), "name"), "Caf\xc3\xa9 \xe2\x82\xac");
}

TEST_F(MsgBuild, FeedWithoutNameShowsItsUrl)
{
    config_tree t("<rss><pool><entry id=\"3\" url=\"http://a.test/x\"/>"
                  "<entry id=\"5\" url=\"http://b.test/y\" name=\"\"/></pool>"
                  "<profiles><profile id=\"1\"><item entry=\"3\"/><item entry=\"5\"/></profile></profiles></rss>");
    kd_profile p = make_profile(t.profile("1"), 1);
    EXPECT_EQ(bars(response(request(KD_CMD_LOGIN, "rss", 1), 3, &p)),
              "OK|login|domain:rss|profile_id:1|name:http://a.test/x|feed_id:3|name:http://b.test/y|feed_id:5");
}

TEST_F(MsgBuild, FeedsWithoutNameOrUrlOrLinkAreSkipped)
{
    config_tree t("<rss><pool><entry id=\"3\"/><entry id=\"5\" url=\"\" name=\"\"/>"
                  "<entry id=\"6\" name=\"Six\"/><entry id=\"7\" name=\"Seven\"/></pool>"
                  "<profiles><profile id=\"1\"><item entry=\"3\"/><item entry=\"5\"/><item entry=\"8\"/>"
                  "<item/><group><item entry=\"7\"/></group><item entry=\"6\"/></profile></profiles></rss>");
    kd_profile p = make_profile(t.profile("1"), 1);
    // Only direct children with an entry link count; 7 is nested, 8 has no entry.
    EXPECT_EQ(bars(response(request(KD_CMD_ACCOUNTS, "rss", 1), 3, &p)),
              "OK|accounts|domain:rss|profile_id:1|name:Six|feed_id:6");
}

TEST_F(MsgBuild, SubscriptionWithoutEntryAttributeIsSkippedEvenWhenLinked)
{
    config_tree t("<rss><pool><entry id=\"6\" name=\"Six\"/></pool>"
                  "<profiles><profile id=\"1\"><item/></profile></profiles></rss>");
    mxml_node_t *sub = t.subscription(t.profile("1"), 0);
    mxmlSetUserData(sub, t.entry("6"));
    kd_profile p = make_profile(t.profile("1"), 1);
    EXPECT_EQ(bars(response(request(KD_CMD_ACCOUNTS, "rss", 1), 3, &p)), "OK|accounts|domain:rss|profile_id:1");
}

TEST_F(MsgBuild, ItemAnswersWithoutItemEndAfterTheUid)
{
    EXPECT_EQ(bars(response(item_request(KD_CMD_IMAGE, 4, 99), 3, nullptr)),
              "OK|image|domain:rss|profile_id:1|feed_id:4|uid:99");
    kd_msg m = item_request(KD_CMD_BODY, 4, 0);
    m.error = KD_MISSING_UID;
    EXPECT_EQ(bars(response(m, 3, nullptr)), "ERROR|body|6:KD_MISSING_UID|domain:rss|profile_id:1|feed_id:4|uid:0");
    m.error = KD_UID_NOT_FOUND;
    m.uid = 5;
    m.cmd = KD_CMD_ENCLOSURE;
    EXPECT_EQ(bars(response(m, 3, nullptr)),
              "ERROR|enclosure|12:KD_UID_NOT_FOUND|domain:rss|profile_id:1|feed_id:4|uid:5");
}

TEST_F(MsgBuild, BodyFallsBackToTheSubject)
{
    kd_item *absent = item(1, "Only a title");
    kd_item *empty = item(2, "Title two", "");
    EXPECT_EQ(bars(response(item_request(KD_CMD_BODY, 4, 1), 3, absent)),
              "OK|body|domain:rss|profile_id:1|feed_id:4|uid:1|body:Only a title");
    EXPECT_EQ(bars(response(item_request(KD_CMD_BODY, 4, 2), 3, empty)),
              "OK|body|domain:rss|profile_id:1|feed_id:4|uid:2|body:Title two");
    kdn_free_item(absent);
    kdn_free_item(empty);
}

TEST_F(MsgBuild, BodyImagesInListOrderSkippingEmptyUrls)
{
    kd_item *it = item(3, "T", "B");
    it->images = attachment("a.png", 0, attachment("", 4, attachment(nullptr, 5, attachment("b.png", 9))));
    EXPECT_EQ(bars(response(item_request(KD_CMD_BODY, 4, 3), 3, it)),
              "OK|body|domain:rss|profile_id:1|feed_id:4|uid:3|body:B|image:a.png|offset:0|image:b.png|offset:9");
    kdn_free_item(it);
}

TEST_F(MsgBuild, StoredTextsLoseTheirTabs)
{
    kd_item *it = item(3, "T", "one\ttwo\t\tthree");
    it->images = attachment("x\ty.png", 1);
    EXPECT_EQ(bars(response(item_request(KD_CMD_BODY, 4, 3), 3, it)),
              "OK|body|domain:rss|profile_id:1|feed_id:4|uid:3|body:one two  three|image:x y.png|offset:1");
    EXPECT_STREQ(it->body, "one two  three");
    EXPECT_STREQ(it->images->url, "x y.png");
    kdn_free_item(it);
}

TEST_F(MsgBuild, EnclosureAnswer)
{
    kd_item *it = item(3, "T", "B");
    it->enclosures = attachment("http://x.test/a\tb.mp3", 0, attachment("second.mp3", 0));
    EXPECT_EQ(bars(response(item_request(KD_CMD_ENCLOSURE, 4, 3), 3, it)),
              "OK|enclosure|domain:rss|profile_id:1|feed_id:4|uid:3|url:http://x.test/a b.mp3");
    kdn_free_item(it);
}

TEST_F(MsgBuild, EnclosureAndImageAnswersWithoutUrl)
{
    kd_item *it = item(3, "T", "B");
    EXPECT_EQ(bars(response(item_request(KD_CMD_ENCLOSURE, 4, 3), 3, it)),
              "OK|enclosure|domain:rss|profile_id:1|feed_id:4|uid:3|url:");
    EXPECT_EQ(bars(response(item_request(KD_CMD_IMAGE, 4, 3), 3, it)),
              "OK|image|domain:rss|profile_id:1|feed_id:4|uid:3|url:");
    it->images = attachment("", 0, attachment("later.png", 0));
    EXPECT_EQ(bars(response(item_request(KD_CMD_IMAGE, 4, 3), 3, it)),
              "OK|image|domain:rss|profile_id:1|feed_id:4|uid:3|url:");
    kdn_free_item(it);
}

TEST_F(MsgBuild, ImageAnswerTakesTheFirstImage)
{
    kd_item *it = item(3, "T", "B");
    it->images = attachment("first.png", 2, attachment("second.png", 0));
    EXPECT_EQ(bars(response(item_request(KD_CMD_IMAGE, 4, 3), 2, it)),
              "OK|image|domain:rss|profile_id:1|feed_id:4|uid:3|url:first.png");
    kdn_free_item(it);
}

TEST_F(MsgBuild, OtherCommandsAnswerWithTheirWord)
{
    EXPECT_EQ(bars(response(request(KD_CMD_UNKNOWN, nullptr, 0), 3, nullptr)), "OK|unknown|domain:|profile_id:0");
    EXPECT_EQ(bars(response(request(13, "rss", 1), 3, nullptr)), "OK|unknown|domain:rss|profile_id:1");
}

TEST_F(MsgBuild, BuilderFailsWhenTheFirstBufferCannotBeMade)
{
    char *buf = nullptr;
    uint32_t size = 0;
    kd_msg m = request(KD_CMD_LOGOUT, "rss", 1);
    slab_fail_after(0);
    EXPECT_EQ(kd_msg_response(&buf, &size, &m, 3, nullptr), 0);
    slab_fail_after(-1);
    EXPECT_EQ(buf, nullptr);
}

TEST_F(MsgBuild, BuilderFailsWhenTheBufferCannotGrow)
{
    config_tree t(kConfig);
    kd_profile p = make_profile(t.profile("1"), 1);
    kd_msg m = request(KD_CMD_LOGIN, "rss", 1);
    char *buf = nullptr;
    uint32_t size = 0;
    slab_fail_after(1); // the first buffer, then the first doubling fails
    EXPECT_EQ(kd_msg_response(&buf, &size, &m, 3, &p), 0);
    slab_fail_after(-1);
    ASSERT_NE(buf, nullptr); // the caller frees what was made
    kd_free(buf);
}

TEST_F(MsgBuild, BuilderFailsWhenANameCopyCannotBeMade)
{
    config_tree t(kConfig);
    kd_profile p = make_profile(t.profile("1"), 1);
    kd_msg m = request(KD_CMD_LOGIN, "rss", 1);
    // First buffer, the doubling to 64, then the copy of "News" fails.
    for (long n = 0; n < 4; n++) {
        char *buf = nullptr;
        uint32_t size = 0;
        slab_fail_after(n);
        int ok = kd_msg_response(&buf, &size, &m, 3, &p);
        slab_fail_after(-1);
        EXPECT_EQ(ok, 0) << n;
        kd_free(buf);
    }
}

TEST_F(MsgBuild, ResponseAsserstAnEmptyBufferSlot)
{
    char other = 0;
    char *buf = &other;
    uint32_t size = 0;
    kd_msg m = request(KD_CMD_LOGOUT, "rss", 1);
    EXPECT_DEATH(kd_msg_response(&buf, &size, &m, 3, nullptr), "\\*buf==\\(\\(void \\*\\)0\\)");
}

} // namespace
