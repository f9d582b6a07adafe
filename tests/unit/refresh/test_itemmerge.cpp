// Item merge: uids kept while an item is found again, read marks carried
// only for unchanged items, the first fetch shifting saved marks, which
// subscriptions are told, the save of rewritten marks, and the two memory
// failures that leave everything as it was.
#define KELP_LOG_CAPTURE_IMPL
#include "tests/unit/refresh/refresh_fixture.h"

using namespace kelp_test;

namespace {

using merge_items_test = refresh_test;

const std::string kKLM = rss_feed(rss_titles({"K", "L", "M"}));

TEST_F(merge_items_test, FirstFetchNumbersTheItemsAndTellsEverySubscription)
{
    kd_node *n = setup();
    merge_doc(kKLM);
    EXPECT_EQ(uids(n), (std::vector<uint32_t>{0, 1, 2}));
    EXPECT_EQ(n->nextuid, 3u);
    EXPECT_EQ(n->nchildren, 3u);
    EXPECT_TRUE(log_has_prio("[kddbg] 3 items are new", LOG_DEBUG));
    EXPECT_FALSE(log_has("[kddbg] new item: K")); // no per-item lines on a first fetch
    EXPECT_EQ(drain(peer1), (std::vector<std::string>{overview_text(1, {{0, 0, "K"}, {1, 0, "L"}, {2, 0, "M"}})}));
    EXPECT_EQ(drain(peer2), (std::vector<std::string>{overview_text(2, {{0, 0, "K"}, {1, 0, "L"}, {2, 0, "M"}})}));
    EXPECT_TRUE(saves().empty()); // nothing was read: no mark to keep
}

TEST_F(merge_items_test, NewItemOnTopKeepsTheUidsAndMovesTheReadMark)
{
    kd_node *n = setup();
    merge_doc(kKLM);
    kd_mark_read(sub(1), 1); // L read by profile 1
    drain(peer1);
    drain(peer2);
    captured_log().clear();
    merge_doc(rss_feed(rss_titles({"X", "K", "L", "M"})));
    EXPECT_EQ(uids(n), (std::vector<uint32_t>{3, 0, 1, 2}));
    EXPECT_EQ(n->nextuid, 4u);
    EXPECT_EQ(attr(sub(1), "read"), "04");
    EXPECT_EQ(attr(sub(1), "first"), hash_text("X"));
    EXPECT_EQ(attr(sub(2), "read"), "(none)");
    EXPECT_EQ(attr(sub(2), "first"), "(none)");
    EXPECT_TRUE(log_has_prio("[kddbg] new item: X", LOG_DEBUG));
    EXPECT_TRUE(log_has_prio("[kddbg] 1 items are new", LOG_DEBUG));
    EXPECT_EQ(drain(peer1), (std::vector<std::string>{overview_text(
                                1, {{3, 0, "X"}, {0, 0, "K"}, {1, 1, "L"}, {2, 0, "M"}})}));
    EXPECT_EQ(drain(peer2), (std::vector<std::string>{overview_text(
                                2, {{3, 0, "X"}, {0, 0, "K"}, {1, 0, "L"}, {2, 0, "M"}})}));
    auto saved = saves();
    ASSERT_EQ(saved.size(), 1u);
    EXPECT_NE(saved[0].find("read=\"04\""), std::string::npos) << saved[0];
    EXPECT_NE(saved[0].find("first=\"" + hash_text("X") + "\""), std::string::npos) << saved[0];
}

TEST_F(merge_items_test, ChangedTitleKeepsTheUidButLosesTheMark)
{
    kd_node *n = setup();
    merge_doc(rss_feed(rss_item("K", "k") + rss_item("L", "l") + rss_item("M", "m")));
    kd_mark_read(sub(1), 1);
    kd_mark_read(sub(1), 2);
    drain(peer1);
    drain(peer2);
    captured_log().clear();
    merge_doc(rss_feed(rss_item("K", "k") + rss_item("L corrected", "l") + rss_item("M", "m")));
    EXPECT_EQ(uids(n), (std::vector<uint32_t>{0, 1, 2}));
    EXPECT_EQ(attr(sub(1), "read"), "04"); // M's mark stays, L's is gone
    EXPECT_TRUE(log_has_prio("[kddbg] updated item: L corrected", LOG_DEBUG));
    EXPECT_FALSE(log_has("[kddbg] new item: L corrected"));
    EXPECT_TRUE(log_has("[kddbg] 0 items are new"));
    // Fewer marks than before: the view changed.
    EXPECT_EQ(drain(peer1), (std::vector<std::string>{overview_text(
                                1, {{0, 0, "K"}, {1, 0, "L corrected"}, {2, 1, "M"}})}));
    EXPECT_TRUE(drain(peer2).empty());
    EXPECT_EQ(saves().size(), 1u);
}

TEST_F(merge_items_test, ChangedOnlyReadItemLeavesNoMarkAndNoFirst)
{
    kd_node *n = setup();
    merge_doc(rss_feed(rss_item("K", "k")));
    kd_mark_read(sub(1), 0);
    merge_doc(rss_feed(rss_item("K2", "k")));
    EXPECT_EQ(uids(n), (std::vector<uint32_t>{0}));
    EXPECT_EQ(attr(sub(1), "read"), "(none)");
    EXPECT_EQ(attr(sub(1), "first"), "(none)");
}

TEST_F(merge_items_test, ItemsGoneBetweenMatchesTellTheClients)
{
    kd_node *n = setup();
    merge_doc(rss_feed(rss_titles({"K", "L", "M", "N"})));
    drain(peer1);
    drain(peer2);
    captured_log().clear();
    merge_doc(rss_feed(rss_titles({"K", "N"})));
    EXPECT_EQ(uids(n), (std::vector<uint32_t>{0, 3}));
    EXPECT_TRUE(log_has("[kddbg] 0 items are new"));
    // N was found at old position 3, beyond the 2 items now listed.
    EXPECT_EQ(drain(peer1), (std::vector<std::string>{overview_text(1, {{0, 0, "K"}, {3, 0, "N"}})}));
    EXPECT_EQ(drain(peer2), (std::vector<std::string>{overview_text(2, {{0, 0, "K"}, {3, 0, "N"}})}));
    EXPECT_TRUE(saves().empty());
}

TEST_F(merge_items_test, CutTailTellsOnlyTheSubscriptionThatLostAMark)
{
    kd_node *n = setup();
    merge_doc(kKLM);
    kd_mark_read(sub(2), 2); // M read by profile 2
    drain(peer1);
    drain(peer2);
    captured_log().clear();
    merge_doc(rss_feed(rss_titles({"K", "L"})));
    EXPECT_EQ(uids(n), (std::vector<uint32_t>{0, 1}));
    EXPECT_TRUE(drain(peer1).empty());
    EXPECT_EQ(drain(peer2), (std::vector<std::string>{overview_text(2, {{0, 0, "K"}, {1, 0, "L"}})}));
    EXPECT_EQ(attr(sub(2), "read"), "(none)");
    EXPECT_EQ(attr(sub(2), "first"), "(none)");
    EXPECT_EQ(saves().size(), 1u);
}

TEST_F(merge_items_test, UnchangedFeedTellsNobodyAndSavesNothing)
{
    kd_node *n = setup();
    merge_doc(kKLM);
    kd_mark_read(sub(1), 0);
    drain(peer1);
    drain(peer2);
    captured_log().clear();
    merge_doc(kKLM);
    EXPECT_EQ(uids(n), (std::vector<uint32_t>{0, 1, 2}));
    EXPECT_EQ(attr(sub(1), "read"), "01");
    EXPECT_EQ(attr(sub(1), "first"), hash_text("K"));
    EXPECT_TRUE(drain(peer1).empty());
    EXPECT_TRUE(drain(peer2).empty());
    EXPECT_TRUE(saves().empty());
}

TEST_F(merge_items_test, RestartShiftsSavedMarksByThePositionOfTheFormerFirstItem)
{
    // Saved before the restart: K and L read while K stood first.
    kd_node *n = setup(" name=\"A\"", " read=\"03\" first=\"" + hash_text("K") + "\"", " read=\"03\"");
    merge_doc(rss_feed(rss_titles({"X", "Y", "K", "L", "M"})));
    EXPECT_EQ(uids(n), (std::vector<uint32_t>{0, 1, 2, 3, 4}));
    EXPECT_TRUE(log_has_prio("read flags matching at item 2 [Hash: " + hash_text("K") + "]", LOG_DEBUG));
    EXPECT_EQ(attr(sub(1), "read"), "0c");
    EXPECT_EQ(attr(sub(1), "first"), hash_text("X"));
    // Without "first" the saved marks cannot be placed.
    EXPECT_EQ(attr(sub(2), "read"), "(none)");
    EXPECT_EQ(attr(sub(2), "first"), "(none)");
    EXPECT_EQ(drain(peer1), (std::vector<std::string>{overview_text(
                                1, {{0, 0, "X"}, {1, 0, "Y"}, {2, 1, "K"}, {3, 1, "L"}, {4, 0, "M"}})}));
    EXPECT_EQ(drain(peer2).size(), 1u);
    auto saved = saves();
    ASSERT_EQ(saved.size(), 1u); // once for both subscriptions
    EXPECT_NE(saved[0].find("read=\"0c\""), std::string::npos) << saved[0];
}

TEST_F(merge_items_test, RestartWithTheFormerFirstItemStillFirstKeepsTheMarks)
{
    kd_node *n = setup(" name=\"A\"", " read=\"05\" first=\"" + hash_text("K") + "\"");
    merge_doc(kKLM);
    EXPECT_EQ(n->nchildren, 3u);
    EXPECT_TRUE(log_has("read flags matching at item 0 [Hash: " + hash_text("K") + "]"));
    EXPECT_EQ(attr(sub(1), "read"), "05");
    EXPECT_EQ(attr(sub(1), "first"), hash_text("K"));
    EXPECT_TRUE(saves().empty()); // nothing to write back
}

TEST_F(merge_items_test, RestartWithoutTheFormerFirstItemDropsTheMarks)
{
    setup(" name=\"A\"", " read=\"01\" first=\"" + hash_text("gone") + "\"",
          " read=\"01\" first=\"not a number\"");
    merge_doc(kKLM);
    for (int p : {1, 2}) {
        EXPECT_EQ(attr(sub(p), "read"), "(none)");
        EXPECT_EQ(attr(sub(p), "first"), "(none)");
    }
    EXPECT_EQ(saves().size(), 1u);
}

TEST_F(merge_items_test, RestartShiftCutsMarksBeyondTheNewItemCount)
{
    // Marks on K and the two items after it; only one item follows K now.
    setup(" name=\"A\"", " read=\"07\" first=\"" + hash_text("K") + "\"");
    merge_doc(rss_feed(rss_titles({"X", "K", "L"})));
    EXPECT_EQ(attr(sub(1), "read"), "06");
    EXPECT_EQ(attr(sub(1), "first"), hash_text("X"));
}

TEST_F(merge_items_test, DuplicateItemsShareTheUidAndTheMark)
{
    kd_node *n = setup();
    merge_doc(rss_feed(rss_item("K", "k") + rss_item("L", "l")));
    kd_mark_read(sub(1), 0);
    merge_doc(rss_feed(rss_item("K", "k") + rss_item("K", "k") + rss_item("L", "l")));
    EXPECT_EQ(uids(n), (std::vector<uint32_t>{0, 0, 1}));
    EXPECT_EQ(n->nextuid, 2u);
    EXPECT_EQ(attr(sub(1), "read"), "03");
}

TEST_F(merge_items_test, ReorderedItemsKeepUidsAndMarks)
{
    kd_node *n = setup();
    merge_doc(kKLM);
    kd_mark_read(sub(1), 0);
    kd_mark_read(sub(2), 2);
    merge_doc(rss_feed(rss_titles({"M", "K", "L"})));
    EXPECT_EQ(uids(n), (std::vector<uint32_t>{2, 0, 1}));
    EXPECT_EQ(attr(sub(1), "read"), "02");
    EXPECT_EQ(attr(sub(1), "first"), hash_text("M"));
    EXPECT_EQ(attr(sub(2), "read"), "01");
}

TEST_F(merge_items_test, AllItemsReplacedGetNewUidsAndNoMarks)
{
    kd_node *n = setup();
    merge_doc(kKLM);
    kd_mark_read(sub(1), 1);
    drain(peer1);
    merge_doc(rss_feed(rss_titles({"P", "Q"})));
    EXPECT_EQ(uids(n), (std::vector<uint32_t>{3, 4}));
    EXPECT_EQ(attr(sub(1), "read"), "(none)");
    EXPECT_EQ(attr(sub(1), "first"), "(none)");
    EXPECT_EQ(drain(peer1), (std::vector<std::string>{overview_text(1, {{3, 0, "P"}, {4, 0, "Q"}})}));
}

TEST_F(merge_items_test, EntryWithoutRecordGetsOne)
{
    merge_rss(doc_with(entry("1", kUrlA), ""));
    EXPECT_EQ(feed_of(g_rssdomain, "1"), nullptr);
    merge_doc(kKLM);
    kd_node *n = feed_of(g_rssdomain, "1");
    ASSERT_NE(n, nullptr);
    EXPECT_EQ(n->entry, entry_el("1"));
    EXPECT_EQ(uids(n), (std::vector<uint32_t>{0, 1, 2}));
    EXPECT_EQ(n->nrefs, 0u);
}

TEST_F(merge_items_test, NoMemoryForTheRecordLeavesTheEntryWithout)
{
    merge_rss(doc_with(entry("1", kUrlA), ""));
    char *text = kd_strdup(kKLM.c_str());
    kd_node *parsed = kdx_parse_feed(200, kUrlA, nullptr, &text, nullptr);
    kd_free(text);
    ASSERT_NE(parsed, nullptr);
    slab_fail_after(0);
    merge_feed(entry_el("1"), parsed);
    slab_fail_after(-1);
    EXPECT_TRUE(log_has_prio("internal memory exhausted (create job feed node)", LOG_ERR));
    EXPECT_EQ(feed_of(g_rssdomain, "1"), nullptr);
    EXPECT_EQ(parsed->children, nullptr); // released by the merge
    kdn_free_feed(parsed);
}

TEST_F(merge_items_test, NoMemoryForTheOldMarksChangesNothing)
{
    kd_node *n = setup();
    merge_doc(kKLM);
    kd_mark_read(sub(1), 1);
    drain(peer1);
    const kd_item *before = n->children;
    char *text = kd_strdup(rss_feed(rss_titles({"X", "K", "L", "M"})).c_str());
    kd_node *parsed = kdx_parse_feed(200, kUrlA, nullptr, &text, nullptr);
    kd_free(text);
    captured_log().clear();
    slab_fail_after(0);
    merge_feed(entry_el("1"), parsed);
    slab_fail_after(-1);
    EXPECT_TRUE(log_has_prio("internal memory exhausted (unread bitfields)", LOG_ERR));
    EXPECT_EQ(n->children, before);
    EXPECT_EQ(uids(n), (std::vector<uint32_t>{0, 1, 2}));
    EXPECT_EQ(n->nextuid, 3u);
    EXPECT_EQ(attr(sub(1), "read"), "02");
    EXPECT_EQ(attr(sub(1), "first"), hash_text("K"));
    EXPECT_TRUE(drain(peer1).empty());
    EXPECT_TRUE(saves().empty());
    kdn_free_feed(parsed);
}

TEST_F(merge_items_test, MessagesNeedTheirVerbosity)
{
    setup();
    merge_doc(kKLM);
    expect_threshold("[kddbg] new item: X", LOG_DEBUG, 4, [this] {
        merge_doc(kKLM);
        merge_doc(rss_feed(rss_titles({"X", "K", "L", "M"})));
    });
    expect_threshold("[kddbg] updated item: K2", LOG_DEBUG, 4, [this] {
        merge_doc(rss_feed(rss_item("K", "k")));
        merge_doc(rss_feed(rss_item("K2", "k")));
    });
    expect_threshold("[kddbg] 0 items are new", LOG_DEBUG, 4, [this] { merge_doc(rss_feed(rss_item("K2", "k"))); });
}

TEST_F(merge_items_test, RestartMessageNeedsVerbosityFour)
{
    setup(" name=\"A\"", " read=\"01\" first=\"" + hash_text("K") + "\"");
    kd_node *n = feed_of(g_rssdomain, "1");
    expect_threshold("read flags matching at item 1 [Hash: " + hash_text("K") + "]", LOG_DEBUG, 4, [&] {
        kdn_free_children(n); // every run is a first fetch
        mxmlElementSetAttr(sub(1), "read", "01");
        mxmlElementSetAttr(sub(1), "first", hash_text("K").c_str());
        merge_doc(kKLM.substr(0, 0) + rss_feed(rss_titles({"X", "K"})));
    });
}

TEST_F(merge_items_test, MemoryMessagesNeedVerbosityOne)
{
    merge_rss(doc_with(entry("1", kUrlA), ""));
    expect_threshold("internal memory exhausted (create job feed node)", LOG_ERR, 1, [this] {
        char *text = kd_strdup(kKLM.c_str());
        kd_node *parsed = kdx_parse_feed(200, kUrlA, nullptr, &text, nullptr);
        kd_free(text);
        slab_fail_after(0);
        merge_feed(entry_el("1"), parsed);
        slab_fail_after(-1);
        kdn_free_feed(parsed);
    });
}

TEST_F(merge_items_test, NullEntryIsAProgrammingError)
{
    EXPECT_DEATH(merge_feed(nullptr, nullptr), "entry != \\(\\(void \\*\\)0\\)");
}

} // namespace
