// Feed records: release functions and the comparison that decides whether a
// parsed item is unchanged (0), updated (1) or a different item (2).
#include <gtest/gtest.h>

#include "feed/kd_node.h"
#include "platform/slab.h"

namespace {

kd_item *make_item(const char *title, const char *guid = nullptr, const char *body = nullptr)
{
    auto *it = static_cast<kd_item *>(kd_calloc(1, sizeof(kd_item)));
    it->title = kd_strdup(title);
    it->guid = guid ? kd_strdup(guid) : nullptr;
    it->body = body ? kd_strdup(body) : nullptr;
    return it;
}

kd_attachment *make_att(const char *type, const char *url, kd_attachment *next)
{
    auto *a = static_cast<kd_attachment *>(kd_calloc(1, sizeof(kd_attachment)));
    a->type = type ? kd_strdup(type) : nullptr;
    a->url = url ? kd_strdup(url) : nullptr;
    a->next = next;
    return a;
}

class Node : public ::testing::Test {
protected:
    void SetUp() override { base_ = slab_live_count(); }
    void TearDown() override { EXPECT_EQ(slab_live_count(), base_); }
    // kdn_compare of two fresh items, released afterwards.
    static uint32_t compare(const char *old_title, const char *old_guid, const char *new_title,
                            const char *new_guid)
    {
        kd_item *o = make_item(old_title, old_guid);
        kd_item *n = make_item(new_title, new_guid);
        uint32_t r = kdn_compare(o, n);
        kdn_free_item(o);
        kdn_free_item(n);
        return r;
    }
    size_t base_ = 0;
};

TEST_F(Node, CompareWithNullOldIsDifferent)
{
    kd_item *n = make_item("News");
    EXPECT_EQ(kdn_compare(nullptr, n), 2u);
    kdn_free_item(n);
}

TEST_F(Node, CompareWithItselfIsUnchanged)
{
    kd_item *n = make_item("News", "g1");
    EXPECT_EQ(kdn_compare(n, n), 0u);
    kd_item *m = make_item("News");
    EXPECT_EQ(kdn_compare(m, m), 0u);
    kdn_free_item(n);
    kdn_free_item(m);
}

TEST_F(Node, OldTitlePrefixOfNewIsUpdated)
{
    EXPECT_EQ(compare("News", nullptr, "News update", nullptr), 1u);
    // The other way round the new title ended first: a different item.
    EXPECT_EQ(compare("News update", nullptr, "News", nullptr), 2u);
    EXPECT_EQ(compare("", nullptr, "x", nullptr), 1u);
}

TEST_F(Node, EqualGuidsDifferentTitlesIsUpdated)
{
    EXPECT_EQ(compare("x", "a", "y", "a"), 1u);
    EXPECT_EQ(compare("News", "a", "News update", "a"), 1u);
}

TEST_F(Node, EqualGuidsNewTitleShorterIsUpdated)
{
    EXPECT_EQ(compare("News update", "a", "News", "a"), 1u);
}

TEST_F(Node, DifferentGuidsAreDifferentItems)
{
    EXPECT_EQ(compare("x", "a", "x", "b"), 2u);
    // Guids decide before titles: a prefix title does not help.
    EXPECT_EQ(compare("x", "a", "xy", "b"), 2u);
}

TEST_F(Node, GuidOnOneSideOnlyIsDifferent)
{
    EXPECT_EQ(compare("x", nullptr, "x", "a"), 2u);
    EXPECT_EQ(compare("x", "a", "x", nullptr), 2u);
}

TEST_F(Node, EmptyGuidCountsAsNone)
{
    EXPECT_EQ(compare("x", "", "x", nullptr), 0u);
    EXPECT_EQ(compare("x", nullptr, "x", ""), 0u);
    EXPECT_EQ(compare("x", "a", "x", ""), 2u);
    EXPECT_EQ(compare("x", "", "x", "a"), 2u);
}

TEST_F(Node, DifferentTitlesWithoutGuidAreDifferent)
{
    EXPECT_EQ(compare("Alpha", nullptr, "Beta", nullptr), 2u);
}

TEST(NodeDeath, CompareNeedsNewItem)
{
    EXPECT_DEATH(kdn_compare(nullptr, nullptr), "newitem!=\\(\\(void \\*\\)0\\)");
}

TEST_F(Node, FreeChildrenKeepsOtherFields)
{
    auto *feed = static_cast<kd_node *>(kd_calloc(1, sizeof(kd_node)));
    feed->refs = static_cast<mxml_node_t **>(kd_calloc(2, sizeof(mxml_node_t *)));
    feed->nrefs = 2;
    feed->children = make_item("one", "g", "b");
    feed->children->next = make_item("two");
    feed->children->images = make_att(nullptr, "/a.png", make_att("image/png", "x", nullptr));
    feed->children->enclosures = make_att("audio/mpeg", "http://h/a.mp3", nullptr);
    feed->nchildren = 2;
    feed->nextuid = 7;
    feed->timer = 3;
    feed->poll = 600;
    feed->lasterror = 200;
    feed->lastpoll = 12345;
    kdn_free_children(feed);
    EXPECT_EQ(feed->children, nullptr);
    EXPECT_EQ(feed->nchildren, 0u);
    EXPECT_NE(feed->refs, nullptr);
    EXPECT_EQ(feed->nrefs, 2u);
    EXPECT_EQ(feed->nextuid, 7u);
    EXPECT_EQ(feed->timer, 3);
    EXPECT_EQ(feed->poll, 600);
    EXPECT_EQ(feed->lasterror, 200);
    EXPECT_EQ(feed->lastpoll, 12345);
    kdn_free_feed(feed);
}

TEST_F(Node, FreeItemWithOnlyTitle)
{
    size_t before = slab_live_count();
    kd_item *it = make_item("only");
    EXPECT_EQ(it->body, nullptr);
    EXPECT_EQ(it->guid, nullptr);
    EXPECT_EQ(slab_live_count(), before + 2);
    kdn_free_item(it);
    EXPECT_EQ(slab_live_count(), before);
}

TEST_F(Node, FreeItemDoesNotFollowNext)
{
    kd_item *a = make_item("a");
    kd_item *b = make_item("b");
    a->next = b;
    kdn_free_item(a);
    EXPECT_STREQ(b->title, "b");
    kdn_free_item(b);
}

TEST_F(Node, ReleaseFunctionsAcceptNull)
{
    free_attachement(nullptr);
    kdn_free_item(nullptr);
    kdn_free_children(nullptr);
    kdn_free_feed(nullptr);
}

TEST_F(Node, FreeAttachmentWithoutTypeOrUrl)
{
    free_attachement(make_att(nullptr, nullptr, nullptr));
    free_attachement(make_att("t", nullptr, nullptr));
}

TEST_F(Node, FreeFeedWithoutRefsOrChildren)
{
    kdn_free_feed(static_cast<kd_node *>(kd_calloc(1, sizeof(kd_node))));
}

} // namespace
