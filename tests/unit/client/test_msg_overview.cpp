// Overview messages: read state per item, new-item counts, the tail of a
// feed never fetched, API 2 and 3 state numbers, and the bare word cases.
#include "msg_fixture.h"

#include <gtest/gtest.h>

using namespace kelp_test;

namespace {

struct MsgOverview : ::testing::Test {
    size_t live = slab_live_count();
    void TearDown() override { EXPECT_EQ(slab_live_count(), live); }
};

std::string config(const char *read)
{
    return std::string("<rss><pool><entry id=\"4\" url=\"http://news.test/feed\" name=\"News\"/></pool>"
                       "<profiles><profile id=\"1\"><item entry=\"4\"") +
           (read ? std::string(" read=\"") + read + "\"" : std::string()) +
           "/></profile></profiles></rss>";
}

struct overview_case {
    config_tree tree;
    kd_profile prof;
    kd_overview_desc desc;
    explicit overview_case(const char *read) : tree(config(read).c_str())
    {
        prof = make_profile(tree.profile("1"), 1);
        desc = {tree.subscription(prof.profile, 0), &prof, "rss"};
    }
    mxml_node_t *entry() const { return tree.entry("4"); }
};

TEST_F(MsgOverview, ExampleMessage)
{
    overview_case c("01");
    kd_item *second = item(18, "Second");
    second->images = attachment("i.png", 0);
    attach_feed(c.entry(), {item(17, "First"), second});
    EXPECT_EQ(bars(overview(3, &c.desc)),
              "overview|domain:rss|profile_id:1|feed_id:4|number:2|number_new:1"
              "|uid:17|state:1|subject:First|uid:18|state:4|subject:Second");
}

TEST_F(MsgOverview, StatesForApi3AddEnclosureAndImage)
{
    overview_case c("05");
    kd_item *a = item(1, "A");
    a->enclosures = attachment("a.mp3", 0);
    a->images = attachment("a.png", 0);
    kd_item *b = item(2, "B");
    b->enclosures = attachment("b.mp3", 0);
    kd_item *d = item(3, "D");
    d->images = attachment("d.png", 0, attachment("e.png", 0));
    attach_feed(c.entry(), {a, b, d});
    EXPECT_EQ(bars(overview(3, &c.desc)),
              "overview|domain:rss|profile_id:1|feed_id:4|number:3|number_new:1"
              "|uid:1|state:7|subject:A|uid:2|state:2|subject:B|uid:3|state:5|subject:D");
    EXPECT_EQ(bars(overview(2, &c.desc)),
              "overview|domain:rss|profile_id:1|feed_id:4|number:3|number_new:1"
              "|uid:1|state:1|subject:A|uid:2|state:0|subject:B|uid:3|state:1|subject:D");
}

TEST_F(MsgOverview, NeverFetchedFeedEndsWithZeroCounts)
{
    overview_case c("ff");
    std::string text = overview(3, &c.desc);
    EXPECT_EQ(bars(text), "overview|domain:rss|profile_id:1|feed_id:4|number:0|number_new:0");
    EXPECT_EQ(text.substr(text.size() - 22), "\tnumber:0\tnumber_new:0");
}

TEST_F(MsgOverview, FeedWithoutItemsReportsZero)
{
    overview_case c(nullptr);
    attach_feed(c.entry(), {});
    EXPECT_EQ(bars(overview(3, &c.desc)), "overview|domain:rss|profile_id:1|feed_id:4|number:0|number_new:0");
}

TEST_F(MsgOverview, MoreReadBitsThanItemsGiveNoNewItems)
{
    overview_case c("1f"); // five bits for three items
    attach_feed(c.entry(), {item(1, "A"), item(2, "B"), item(3, "C")});
    EXPECT_EQ(bars(overview(2, &c.desc)),
              "overview|domain:rss|profile_id:1|feed_id:4|number:3|number_new:0"
              "|uid:1|state:1|subject:A|uid:2|state:1|subject:B|uid:3|state:1|subject:C");
}

TEST_F(MsgOverview, WithoutReadAttributeEverythingIsNew)
{
    overview_case c(nullptr);
    attach_feed(c.entry(), {item(5, "A"), item(6, "B")});
    EXPECT_EQ(bars(overview(3, &c.desc)),
              "overview|domain:rss|profile_id:1|feed_id:4|number:2|number_new:2"
              "|uid:5|state:0|subject:A|uid:6|state:0|subject:B");
}

TEST_F(MsgOverview, ReadBitsBeyondTheFirstByte)
{
    overview_case c("0002"); // bit 9
    std::vector<kd_item *> items;
    for (uint32_t i = 0; i < 10; i++)
        items.push_back(item(100 + i, "S"));
    attach_feed(c.entry(), items);
    std::string text = bars(overview(3, &c.desc));
    EXPECT_NE(text.find("|number:10|number_new:9|"), std::string::npos);
    EXPECT_NE(text.find("|uid:108|state:0|"), std::string::npos);
    EXPECT_NE(text.find("|uid:109|state:1|subject:S"), std::string::npos);
}

TEST_F(MsgOverview, SubjectsLoseTheirTabsAndAbsentSubjectsAreEmpty)
{
    overview_case c(nullptr);
    kd_item *tabbed = item(1, "a\tb");
    kd_item *untitled = item(2, nullptr);
    kd_node *feed = attach_feed(c.entry(), {tabbed, untitled});
    EXPECT_EQ(bars(overview(3, &c.desc)),
              "overview|domain:rss|profile_id:1|feed_id:4|number:2|number_new:2"
              "|uid:1|state:0|subject:a b|uid:2|state:0|subject:");
    EXPECT_STREQ(feed->children->title, "a b");
}

TEST_F(MsgOverview, DomainAndProfileComeFromTheDescriptor)
{
    overview_case c(nullptr);
    c.prof.profile_id = 4294967295u;
    c.desc.domain = "podcast";
    EXPECT_EQ(bars(overview(3, &c.desc)),
              "overview|domain:podcast|profile_id:4294967295|feed_id:4|number:0|number_new:0");
}

TEST_F(MsgOverview, MissingPartsGiveTheBareWord)
{
    overview_case c("01");
    EXPECT_EQ(overview(3, nullptr), "overview\t");
    kd_overview_desc no_sub = {nullptr, &c.prof, "rss"};
    EXPECT_EQ(overview(3, &no_sub), "overview\t");
    kd_overview_desc no_prof = {c.desc.subscription, nullptr, "rss"};
    EXPECT_EQ(overview(3, &no_prof), "overview\t");
    mxmlSetUserData(c.desc.subscription, nullptr); // not linked to its entry
    EXPECT_EQ(overview(3, &c.desc), "overview\t");
}

TEST_F(MsgOverview, OtherCommandsAreTheirWordAlone)
{
    overview_case c("01");
    for (uint32_t cmd : {0u, 1u, 6u, 11u, 13u, 1000u}) {
        char *buf = nullptr;
        uint32_t size = 0;
        ASSERT_EQ(kd_msg_request(&buf, &size, cmd, 3, &c.desc), 1);
        EXPECT_EQ(frame_text(buf, size), cmd2str(cmd));
    }
}

TEST_F(MsgOverview, HundredItemFeedGrowsTheBuffer)
{
    overview_case c("ffff");
    std::vector<kd_item *> items;
    for (uint32_t i = 0; i < 100; i++)
        items.push_back(item(i + 1, "A subject line of moderate length"));
    attach_feed(c.entry(), items);
    std::string text = overview(3, &c.desc); // frame_text checks the capacity
    EXPECT_NE(text.find("\tnumber:100\tnumber_new:84\t"), std::string::npos);
    EXPECT_NE(text.find("\tuid:100\tstate:0\tsubject:A subject line of moderate length"), std::string::npos);
}

TEST_F(MsgOverview, ReadMarksThatCannotBeLoadedFailTheMessage)
{
    overview_case c("01");
    attach_feed(c.entry(), {item(17, "First")});
    char *buf = nullptr;
    uint32_t size = 0;
    slab_fail_after(1); // the buffer is made, the bitfield is not
    EXPECT_EQ(kd_msg_request(&buf, &size, KD_CMD_OVERVIEW, 3, &c.desc), 0);
    slab_fail_after(-1);
    kd_free(buf);
}

TEST_F(MsgOverview, FailureAtEveryAllocationLeavesNothingBehind)
{
    overview_case c("ff");
    std::vector<kd_item *> items;
    for (uint32_t i = 0; i < 20; i++)
        items.push_back(item(i + 1, "Subject"));
    attach_feed(c.entry(), items);
    for (long n = 0;; n++) {
        char *buf = nullptr;
        uint32_t size = 0;
        slab_fail_after(n);
        int ok = kd_msg_request(&buf, &size, KD_CMD_OVERVIEW, 3, &c.desc);
        slab_fail_after(-1);
        if (ok) {
            EXPECT_GT(n, 3); // buffer, bitfield and several doublings came first
            frame_text(buf, size);
            break;
        }
        kd_free(buf);
    }
}

} // namespace
