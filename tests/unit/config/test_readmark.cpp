// Read markers: "read" and "first" of a subscription after marking an item
// and after the marks were rewritten.
#include "tests/unit/client/msg_fixture.h"
#include "util/bitfield.h"

#include <gtest/gtest.h>

using namespace kelp_test;

namespace {

const char kDoc[] = "<rss><pool><entry id=\"4\" url=\"http://news.test/feed\"/></pool>"
                    "<profiles><profile id=\"1\"><item entry=\"4\"/></profile></profiles></rss>";

struct ReadMark : ::testing::Test {
    config_tree tree{kDoc};
    mxml_node_t *sub = tree.subscription(tree.profile("1"), 0);

    void fetched(std::vector<kd_item *> items) { attach_feed(tree.entry("4"), std::move(items)); }
    std::string attr(const char *name) const
    {
        const char *v = mxmlElementGetAttr(sub, name);
        return v ? v : "(none)";
    }
};

std::string hash_text(const char *title) { return std::to_string(fnv_hash(title)); }

TEST_F(ReadMark, FirstMarkSetsReadAndFirst)
{
    fetched({item(7, "Top story"), item(8, "Older")});
    EXPECT_EQ(kd_mark_read(sub, 0), 1);
    EXPECT_EQ(attr("read"), "01");
    EXPECT_EQ(attr("first"), hash_text("Top story"));
}

TEST_F(ReadMark, MarkingAgainChangesNothing)
{
    fetched({item(7, "Top story"), item(8, "Older")});
    ASSERT_EQ(kd_mark_read(sub, 1), 1);
    std::string read = attr("read"), first = attr("first");
    EXPECT_EQ(kd_mark_read(sub, 1), 0);
    EXPECT_EQ(attr("read"), read);
    EXPECT_EQ(attr("first"), first);
}

TEST_F(ReadMark, MarksAddUpInTheHexText)
{
    fetched({item(1, "a")});
    kd_mark_read(sub, 0);
    kd_mark_read(sub, 3);
    EXPECT_EQ(kd_mark_read(sub, 9), 1);
    EXPECT_EQ(attr("read"), "0902");
    EXPECT_EQ(attr("first"), "97");
}

TEST_F(ReadMark, FeedNeverFetchedGetsReadButNoFirst)
{
    EXPECT_EQ(kd_mark_read(sub, 2), 1);
    EXPECT_EQ(attr("read"), "04");
    EXPECT_EQ(attr("first"), "(none)");
}

TEST_F(ReadMark, FeedRecordWithoutItemsGetsNoFirst)
{
    fetched({});
    EXPECT_EQ(kd_mark_read(sub, 0), 1);
    EXPECT_EQ(attr("read"), "01");
    EXPECT_EQ(attr("first"), "(none)");
}

TEST_F(ReadMark, SubscriptionWithoutEntryGetsNoFirst)
{
    mxmlSetUserData(sub, nullptr);
    EXPECT_EQ(kd_mark_read(sub, 0), 1);
    EXPECT_EQ(attr("first"), "(none)");
}

TEST_F(ReadMark, EmptyReadRemovesFirst)
{
    fetched({item(1, "a")});
    mxmlElementSetAttr(sub, "first", "123");
    mxmlElementSetAttr(sub, "read", "");
    kd_fix_readmarkers(sub);
    EXPECT_EQ(attr("first"), "(none)");
}

TEST_F(ReadMark, MissingReadRemovesFirst)
{
    fetched({item(1, "a")});
    mxmlElementSetAttr(sub, "first", "123");
    kd_fix_readmarkers(sub);
    EXPECT_EQ(attr("first"), "(none)");
}

TEST_F(ReadMark, FixFollowsTheCurrentFirstItem)
{
    fetched({item(1, "new on top"), item(2, "a")});
    mxmlElementSetAttr(sub, "read", "02");
    mxmlElementSetAttr(sub, "first", "97");
    kd_fix_readmarkers(sub);
    EXPECT_EQ(attr("first"), hash_text("new on top"));
    EXPECT_EQ(attr("read"), "02");
}

TEST_F(ReadMark, UnfetchedFeedKeepsAStaleFirst)
{
    mxmlElementSetAttr(sub, "first", "123");
    kd_fix_readmarkers(sub);
    EXPECT_EQ(attr("first"), "123");
}

TEST_F(ReadMark, NullSubscriptionAborts)
{
    EXPECT_DEATH(kd_fix_readmarkers(nullptr), "item!=\\(\\(void \\*\\)0\\)");
    EXPECT_DEATH(kd_mark_read(nullptr, 0), "item!=\\(\\(void \\*\\)0\\)");
}

TEST_F(ReadMark, NothingIsLeftAllocated)
{
    fetched({item(1, "a")});
    size_t before = slab_live_count();
    kd_mark_read(sub, 40);
    kd_mark_read(sub, 40);
    EXPECT_EQ(slab_live_count(), before);
}

} // namespace
