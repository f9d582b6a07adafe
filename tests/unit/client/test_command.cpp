// Commands: accounts, status and the item requests with their read marks,
// saves and pushes, and the answers to requests that find nothing.
#include "command_fixture.h"

using namespace kelp_test;

namespace {

class command : public command_test {};

const char kOverviewP1[] = "overview\tdomain:rss\tprofile_id:1\tfeed_id:1\tnumber:3\t";
const char kOverviewP2[] = "overview\tdomain:rss\tprofile_id:2\tfeed_id:1\tnumber:3\t";

TEST_F(command, AccountsListsTheLoggedInProfilesFeeds)
{
    merge_rss(kTwoProfiles);
    int peer = login(1);
    EXPECT_EQ(request(peer, "accounts domain:rss profile_id:1"),
              "OK\taccounts\tdomain:rss\tprofile_id:1\tname:News\tfeed_id:1\tname:Radio\tfeed_id:2");
    EXPECT_EQ(request(peer, "accounts domain:rss profile_id:2"),
              "ERROR\taccounts\t9:KD_NOT_LOGGED_IN\tdomain:rss\tprofile_id:2");
}

TEST_F(command, StatusNamesNoProfileSoItIsNeverLoggedIn)
{
    merge_rss(kTwoProfiles);
    int peer = connect_client();
    request(peer, "login v:3 domain:rss profile_id:0");
    EXPECT_EQ(request(peer, "status"), "ERROR\tstatus\t9:KD_NOT_LOGGED_IN\tdomain:\tprofile_id:0");
    EXPECT_EQ(profile_in(g_rssproflist, 0)->was_online, 0);
}

TEST_F(command, FirstUnreadItemIsMarkedForBothProfilesSavedOnceAndPushed)
{
    merge_rss(kTwoProfiles);
    fill_klm();
    int a = login(1), a2 = login(1), b = login(2);
    captured_log().clear();
    EXPECT_EQ(request(a, "body domain:rss profile_id:1 feed_id:1 uid:10"),
              "OK\tbody\tdomain:rss\tprofile_id:1\tfeed_id:1\tuid:10\tbody:body K");
    EXPECT_EQ(read_of("1", "1"), "01");
    EXPECT_EQ(read_of("2", "1"), "01");
    EXPECT_EQ(saves(), 1u);
    EXPECT_EQ(answer(a), "");
    std::string to_a2 = answer(a2), to_b = answer(b);
    EXPECT_EQ(to_a2.rfind(std::string(kOverviewP1) + "number_new:2\tuid:10\tstate:1\tsubject:K", 0), 0u) << to_a2;
    EXPECT_EQ(to_b.rfind(std::string(kOverviewP2) + "number_new:2\tuid:10\tstate:1\tsubject:K", 0), 0u) << to_b;
    EXPECT_EQ(answer(a2), "");
    EXPECT_EQ(answer(b), "");
}

TEST_F(command, ReadItemIsAnsweredUnsavedAndStillPushedToOtherProfiles)
{
    merge_rss(kTwoProfiles);
    fill_klm();
    int a = login(1), a2 = login(1), b = login(2);
    request(a, "body domain:rss profile_id:1 feed_id:1 uid:11");
    drain(a2);
    drain(b);
    captured_log().clear();
    EXPECT_EQ(request(a, "body domain:rss profile_id:1 feed_id:1 uid:11"),
              "OK\tbody\tdomain:rss\tprofile_id:1\tfeed_id:1\tuid:11\tbody:body L");
    EXPECT_EQ(saves(), 0u);
    EXPECT_EQ(answer(a2), "");
    EXPECT_EQ(answer(b).rfind(kOverviewP2, 0), 0u);
    EXPECT_EQ(read_of("1", "1"), "02");
}

TEST_F(command, ImageOfAnItemWithoutImagesIsAnEmptyUrlAndMarksIt)
{
    merge_rss(kTwoProfiles);
    fill_klm();
    int a = login(1);
    EXPECT_EQ(request(a, "image domain:rss profile_id:1 feed_id:1 uid:12"),
              "OK\timage\tdomain:rss\tprofile_id:1\tfeed_id:1\tuid:12\turl:");
    EXPECT_EQ(read_of("1", "1"), "04");
}

TEST_F(command, EnclosureAnswersItsUrlAndMarksLikeABody)
{
    merge_rss(kTwoProfiles);
    kd_item *k = item(10, "K");
    k->enclosures = attachment("http://x.test/k.mp3", 0);
    fill("1", {k});
    int a = login(1);
    EXPECT_EQ(request(a, "enclosure domain:rss profile_id:1 feed_id:1 uid:10"),
              "OK\tenclosure\tdomain:rss\tprofile_id:1\tfeed_id:1\tuid:10\turl:http://x.test/k.mp3");
    EXPECT_EQ(read_of("1", "1"), "01");
    EXPECT_EQ(read_of("2", "1"), "01");
}

TEST_F(command, BodyCarriesImagesOnlyForApiThree)
{
    merge_rss(kTwoProfiles);
    kd_item *k = item(10, "K", "text");
    k->images = attachment("http://x.test/p.jpg", 2);
    fill("1", {k});
    int v3 = login(1, 3), v2 = login(2, 2);
    EXPECT_EQ(request(v3, "body domain:rss profile_id:1 feed_id:1 uid:10"),
              "OK\tbody\tdomain:rss\tprofile_id:1\tfeed_id:1\tuid:10\tbody:text\timage:http://x.test/p.jpg\toffset:2");
    drain(v2);
    EXPECT_EQ(request(v2, "body domain:rss profile_id:2 feed_id:1 uid:10"),
              "OK\tbody\tdomain:rss\tprofile_id:2\tfeed_id:1\tuid:10\tbody:text");
}

TEST_F(command, UnknownUidIsAnErrorThatMarksNothingButTellsOtherProfiles)
{
    merge_rss(kTwoProfiles);
    fill_klm();
    int a = login(1), a2 = login(1), b = login(2);
    captured_log().clear();
    EXPECT_EQ(request(a, "body domain:rss profile_id:1 feed_id:1 uid:99"),
              "ERROR\tbody\t12:KD_UID_NOT_FOUND\tdomain:rss\tprofile_id:1\tfeed_id:1\tuid:99");
    EXPECT_EQ(read_of("1", "1"), "(none)");
    EXPECT_EQ(saves(), 0u);
    EXPECT_EQ(answer(a2), "");
    EXPECT_EQ(answer(b).rfind(std::string(kOverviewP2) + "number_new:3\t", 0), 0u);
}

TEST_F(command, FeedTheProfileDoesNotSubscribeIsOkWithTheRequestFields)
{
    merge_rss(kTwoProfiles);
    fill_klm();
    int b = login(2);
    EXPECT_EQ(request(b, "body domain:rss profile_id:2 feed_id:2 uid:10"),
              "OK\tbody\tdomain:rss\tprofile_id:2\tfeed_id:2\tuid:10");
    EXPECT_EQ(request(b, "body domain:rss profile_id:2 feed_id:77 uid:10"),
              "OK\tbody\tdomain:rss\tprofile_id:2\tfeed_id:77\tuid:10");
    EXPECT_EQ(read_of("2", "1"), "(none)");
}

TEST_F(command, PlaceholderProfileFindsNoSubscription)
{
    merge_rss(kTwoProfiles);
    fill_klm();
    int p = login(9);
    EXPECT_EQ(request(p, "body domain:rss profile_id:9 feed_id:1 uid:10"),
              "OK\tbody\tdomain:rss\tprofile_id:9\tfeed_id:1\tuid:10");
    EXPECT_EQ(read_of("1", "1"), "(none)");
}

TEST_F(command, SubscriptionWithoutPoolEntryIsFeedNotFoundAndTellsNobody)
{
    merge_rss("<config><pool><entry id=\"1\" name=\"News\"/></pool><profiles>"
              "<profile id=\"1\"><item entry=\"5\"/><item entry=\"1\"/></profile>"
              "<profile id=\"2\"><item entry=\"1\"/></profile></profiles></config>");
    int a = login(1), b = login(2);
    EXPECT_EQ(request(a, "body domain:rss profile_id:1 feed_id:5 uid:1"),
              "ERROR\tbody\t18:KD_FEED_NOT_FOUND\tdomain:rss\tprofile_id:1\tfeed_id:5\tuid:1");
    EXPECT_EQ(drain(b).size(), 0u);
}

TEST_F(command, ItemRequestsNeedALogin)
{
    merge_rss(kTwoProfiles);
    fill_klm();
    int a = login(1);
    EXPECT_EQ(request(a, "body domain:rss profile_id:2 feed_id:1 uid:10"),
              "ERROR\tbody\t9:KD_NOT_LOGGED_IN\tdomain:rss\tprofile_id:2\tfeed_id:1\tuid:10");
    EXPECT_EQ(request(a, "image domain:podcast profile_id:1 feed_id:1 uid:10"),
              "ERROR\timage\t9:KD_NOT_LOGGED_IN\tdomain:podcast\tprofile_id:1\tfeed_id:1\tuid:10");
    EXPECT_EQ(read_of("2", "1"), "(none)");
}

TEST_F(command, MalformedItemRequestsAreAnsweredWithTheirParseError)
{
    merge_rss(kTwoProfiles);
    fill_klm();
    int a = login(1);
    captured_log().clear();
    EXPECT_EQ(request(a, "body domain:rss profile_id:1 feed_id:1"),
              "ERROR\tbody\t6:KD_MISSING_UID\tdomain:rss\tprofile_id:1\tfeed_id:1\tuid:0");
    EXPECT_EQ(request(a, "enclosure domain:rss profile_id:1"),
              "ERROR\tenclosure\t17:KD_MISSING_FEEDID\tdomain:rss\tprofile_id:1\tfeed_id:0\tuid:0");
    EXPECT_EQ(request(a, "image domain:rss"),
              "ERROR\timage\t15:KD_MISSING_PROFILE\tdomain:rss\tprofile_id:0\tfeed_id:0\tuid:0");
    EXPECT_EQ(request(a, "body"), "ERROR\tbody\t13:KD_MISSING_DOMAIN\tdomain:\tprofile_id:0\tfeed_id:0\tuid:0");
    EXPECT_EQ(request(a, "body domain:rss profile_id:1 feed_id:1 uid:-1"),
              "ERROR\tbody\t6:KD_MISSING_UID\tdomain:rss\tprofile_id:1\tfeed_id:1\tuid:0");
    EXPECT_EQ(read_of("1", "1"), "(none)");
    EXPECT_EQ(saves(), 0u);
}

TEST_F(command, ReadingOnOneConnectionIsNotPushedBackToIt)
{
    merge_rss(kTwoProfiles);
    fill_klm();
    int a = login(1), a2 = login(1);
    request(a, "body domain:rss profile_id:1 feed_id:1 uid:10");
    EXPECT_EQ(answer(a), "");
    EXPECT_EQ(answer(a2).rfind(kOverviewP1, 0), 0u);
}

TEST_F(command, ApiTwoOverviewsShowOnlyTheReadState)
{
    merge_rss(kTwoProfiles);
    kd_item *k = item(10, "K");
    k->enclosures = attachment("http://x.test/k.mp3", 0);
    fill("1", {k});
    int a = login(1), v2 = login(1, 2);
    request(a, "body domain:rss profile_id:1 feed_id:1 uid:10");
    EXPECT_EQ(answer(v2), "overview\tdomain:rss\tprofile_id:1\tfeed_id:1\tnumber:1\tnumber_new:0\tuid:10\tstate:1\tsubject:K");
}

TEST_F(command, UnhandledCommandsAreLoggedAtNoticeFromVerbosityTwo)
{
    merge_rss(kTwoProfiles);
    int a = login(1);
    verbosity = 1;
    captured_log().clear();
    EXPECT_EQ(request(a, "overview"), "");
    EXPECT_FALSE(log_has("unhandled command 10"));
    verbosity = 2;
    EXPECT_EQ(request(a, "overview"), "");
    EXPECT_TRUE(log_has_prio("unhandled command 10", LOG_NOTICE));
    EXPECT_EQ(request(a, "OK"), "");
    EXPECT_TRUE(log_has("unhandled command 8"));
    EXPECT_EQ(request(a, "ERROR"), "");
    EXPECT_TRUE(log_has("unhandled command 9"));
}

} // namespace
