// Configuration merge and poll timers: feed and profile records carried over
// to a new document, polls started and stopped by clients and the internet.
#define KELP_LOG_CAPTURE_IMPL
#include "tests/unit/config/merge_fixture.h"

using namespace kelp_test;

namespace {

TEST_F(merge_test, DocumentWithoutPoolIsRefused)
{
    merge_rss(kBase);
    mxml_node_t *old = g_rssdomain;
    mxml_node_t *bad = load_doc("<config><profiles/></config>");
    kd_config_merge(&g_rssdomain, &g_rssproflist, bad);
    EXPECT_EQ(g_rssdomain, old);
    EXPECT_TRUE(log_has_prio("missing <pool>-node in config", LOG_CRIT));
    mxmlDelete(bad);
    bad = load_doc("<config><pool/></config>");
    kd_config_merge(&g_rssdomain, &g_rssproflist, bad);
    EXPECT_EQ(g_rssdomain, old);
    EXPECT_TRUE(log_has_prio("missing <profiles>-node in config", LOG_CRIT));
    mxmlDelete(bad);
    EXPECT_NE(feed_of(g_rssdomain, "1"), nullptr);
}

TEST_F(merge_test, ItemsLinkToEntriesAndProfilesGetRecords)
{
    merge_rss(kBase);
    mxml_node_t *it = mxmlFindElement(g_rssdomain, g_rssdomain, "item", nullptr, nullptr, MXML_DESCEND);
    EXPECT_EQ(mxmlGetUserData(it), entry_el("1"));
    kd_node *n = feed_of(g_rssdomain, "1");
    ASSERT_NE(n, nullptr);
    EXPECT_EQ(n->entry, entry_el("1"));
    ASSERT_EQ(n->nrefs, 1u);
    EXPECT_EQ(n->refs[0], it);
    EXPECT_EQ(n->timer, 0);
    kd_profile *p1 = profile_in(g_rssproflist, 1), *p2 = profile_in(g_rssproflist, 2);
    ASSERT_NE(p1, nullptr);
    ASSERT_NE(p2, nullptr);
    EXPECT_EQ(g_rssproflist, p2); // later profiles end up at the head
    EXPECT_EQ(mxmlGetUserData(p1->profile), p1);
    EXPECT_EQ(kd_get_profile_from_item(it), p1);
}

TEST_F(merge_test, MovedRecordGetsItsReferencesFromTheNewDocument)
{
    merge_rss(kBase);
    kd_node *n = feed_of(g_rssdomain, "1");
    size_t live = slab_live_count_for("kd_merge.cpp");
    merge_rss(kBase);
    EXPECT_EQ(feed_of(g_rssdomain, "1"), n);
    EXPECT_EQ(n->entry, entry_el("1"));
    ASSERT_EQ(n->nrefs, 1u); // rebuilt, not appended to the old ones
    EXPECT_EQ(n->refs[0], mxmlFindElement(g_rssdomain, g_rssdomain, "item", "entry", "1", MXML_DESCEND));
    EXPECT_EQ(slab_live_count_for("kd_merge.cpp"), live); // the old reference array is gone
}

TEST_F(merge_test, LaterItemsOfAMergeShareTheRecordInDocumentOrder)
{
    merge_rss(doc_with(entry("1", kUrlA), profile("1", item("1")) + profile("2", item("1"))));
    kd_node *n = feed_of(g_rssdomain, "1");
    ASSERT_EQ(n->nrefs, 2u);
    EXPECT_EQ(kd_get_profile_from_item(n->refs[0]), profile_in(g_rssproflist, 1));
    EXPECT_EQ(kd_get_profile_from_item(n->refs[1]), profile_in(g_rssproflist, 2));
}

TEST_F(merge_test, ProfilesMoveToTheirNewElements)
{
    merge_rss(kBase);
    int peer = login("rss", 1);
    kd_profile *p1 = profile_in(g_rssproflist, 1);
    merge_rss(kBase);
    EXPECT_EQ(profile_in(g_rssproflist, 1), p1);
    EXPECT_EQ(p1->profile, profile_el("1"));
    EXPECT_EQ(mxmlGetUserData(p1->profile), p1);
    // The same subscriptions again: the client is told nothing.
    pump();
    EXPECT_EQ(answer(peer), "");
}

TEST_F(merge_test, NewProfileRecordsGoToTheHeadOfTheList)
{
    merge_rss(doc_with("", profile("1", "") + profile("2", "") + profile("3", "")));
    kd_profile *p1 = profile_in(g_rssproflist, 1), *p2 = profile_in(g_rssproflist, 2);
    kd_profile *p3 = profile_in(g_rssproflist, 3);
    EXPECT_EQ(g_rssproflist, p3);
    EXPECT_EQ(p3->prev, nullptr);
    EXPECT_EQ(p3->next, p2);
    EXPECT_EQ(p2->prev, p3);
    EXPECT_EQ(p2->next, p1);
    EXPECT_EQ(p1->prev, p2);
    EXPECT_EQ(p1->next, nullptr);
    EXPECT_EQ(p1->nconns, 0u);
    EXPECT_EQ(p1->was_online, 0);
}

TEST_F(merge_test, ReferenceWithoutMemoryLeavesTheRestMerged)
{
    mxml_node_t *doc = load_doc(kBase.c_str());
    slab_fail_after(1); // the record of entry 1 is made, its reference array is not
    kd_config_merge(&g_rssdomain, &g_rssproflist, doc);
    slab_fail_after(-1);
    EXPECT_TRUE(log_has_prio("no memory for reference - feed will stay empty", LOG_CRIT));
    EXPECT_EQ(g_rssdomain, doc);
    ASSERT_NE(feed_of(g_rssdomain, "1"), nullptr);
    EXPECT_EQ(feed_of(g_rssdomain, "1")->nrefs, 0u);
    EXPECT_EQ(feed_of(g_rssdomain, "2")->nrefs, 1u);
    EXPECT_NE(profile_in(g_rssproflist, 2), nullptr);
    login("rss", 1);
    EXPECT_EQ(feed_of(g_rssdomain, "1")->timer, 0); // no subscriber left to poll for
}

TEST_F(merge_test, StaleAndDanglingItemsAreSkipped)
{
    merge_rss(doc_with(entry("1", kUrlA), profile("1", "<item/>" + item("9") + item("1"))));
    EXPECT_TRUE(log_has_prio("found stale item node without entry reference", LOG_INFO));
    EXPECT_TRUE(log_has_prio("found item referencing non-existing entry '9'", LOG_INFO));
    ASSERT_NE(feed_of(g_rssdomain, "1"), nullptr);
    EXPECT_EQ(feed_of(g_rssdomain, "1")->nrefs, 1u);
}

// A pool of a hundred entries, out of order, with a repeated id and an entry
// without one; profile 1 subscribes four of them and one that does not exist.
std::string big_pool_doc()
{
    std::string pool;
    for (int i = 100; i >= 1; i--)
        pool += entry(("e" + std::to_string(i)).c_str(), ("http://feeds.test/" + std::to_string(i)).c_str());
    pool += entry("e50", "http://feeds.test/second-50") + "<entry url=\"http://feeds.test/no-id\"/>";
    return doc_with(pool, profile("1", item("e100") + item("e50") + item("e1") + item("e77") + item("nope")));
}

void expect_big_pool_merged()
{
    mxml_node_t *prof = mxmlFindElement(g_rssdomain, g_rssdomain, "profile", nullptr, nullptr, MXML_DESCEND);
    const char *want[] = {"http://feeds.test/100", "http://feeds.test/50", "http://feeds.test/1",
                          "http://feeds.test/77"};
    mxml_node_t *it = prof;
    for (const char *url : want) {
        it = mxmlFindElement(it, prof, "item", nullptr, nullptr, MXML_DESCEND);
        auto *e = static_cast<mxml_node_t *>(mxmlGetUserData(it));
        ASSERT_NE(e, nullptr) << url;
        EXPECT_STREQ(mxmlElementGetAttr(e, "url"), url);
        ASSERT_NE(mxmlGetUserData(e), nullptr) << url;
        EXPECT_EQ(static_cast<kd_node *>(mxmlGetUserData(e))->nrefs, 1u);
    }
    EXPECT_TRUE(log_has_prio("found item referencing non-existing entry 'nope'", LOG_INFO));
    mxml_node_t *second = mxmlFindElement(g_rssdomain, g_rssdomain, "entry", "url", "http://feeds.test/second-50",
                                          MXML_DESCEND);
    EXPECT_EQ(mxmlGetUserData(second), nullptr); // the first entry with an id wins
}

TEST_F(merge_test, LargePoolFindsEachSubscribedEntryByIdFirstOneWins)
{
    merge_rss(big_pool_doc());
    expect_big_pool_merged();
    kd_node *n77 = feed_of(g_rssdomain, "e77");
    merge_rss(big_pool_doc()); // the records move to the new document's entries
    expect_big_pool_merged();
    EXPECT_EQ(feed_of(g_rssdomain, "e77"), n77);
}

TEST_F(merge_test, LargePoolWithoutMemoryForItsIndexIsMergedAllTheSame)
{
    mxml_node_t *doc = load_doc(big_pool_doc().c_str());
    slab_fail_after(0); // the index of the new pool
    kd_config_merge(&g_rssdomain, &g_rssproflist, doc);
    slab_fail_after(-1);
    expect_big_pool_merged();
}

TEST_F(merge_test, PollsStartOnlyWithSubscriberAndInternet)
{
    merge_rss(kBase);
    EXPECT_EQ(feed_of(g_rssdomain, "1")->timer, 0);
    g_internet_up = false;
    login("rss", 1);
    EXPECT_EQ(feed_of(g_rssdomain, "1")->timer, 0);
    g_internet_up = true;
    size_t runs = fetched_urls().size();
    kd_refresh_timers();
    kd_node *n = feed_of(g_rssdomain, "1");
    EXPECT_GT(n->timer, 0);
    EXPECT_EQ(n->poll, 1200);
    EXPECT_TRUE(log_has_prio("start 1200s poll on: http://feeds.test/a", LOG_DEBUG));
    EXPECT_EQ(feed_of(g_rssdomain, "2")->timer, 0);
    pump();
    EXPECT_EQ(fetched_urls().size(), runs + 1);
    EXPECT_EQ(fetched_urls().back(), "http://feeds.test/a");
    EXPECT_TRUE(log_has_prio("no connection to server [http://feeds.test/a]", LOG_ERR));
    g_internet_up = false;
    kd_refresh_timers();
    EXPECT_TRUE(log_has_prio("stop poll on: http://feeds.test/a", LOG_DEBUG));
    EXPECT_EQ(n->timer, 0);
    EXPECT_EQ(n->poll, 0);
}

TEST_F(merge_test, PollMessagesNeedVerbosityThree)
{
    verbosity = 2;
    merge_rss(kBase);
    login("rss", 1);
    EXPECT_GT(feed_of(g_rssdomain, "1")->timer, 0);
    EXPECT_FALSE(log_has("start 1200s poll on: http://feeds.test/a"));
}

TEST_F(merge_test, LoginStartsPollsOfItsFeeds)
{
    merge_rss(kBase);
    login("rss", 2);
    EXPECT_TRUE(log_has("start 1200s poll on: http://feeds.test/b"));
    EXPECT_GT(feed_of(g_rssdomain, "2")->timer, 0);
    EXPECT_EQ(feed_of(g_rssdomain, "1")->timer, 0);
}

TEST_F(merge_test, TwoItemsOfOneProfileShareOneRecordAndTimer)
{
    merge_rss(doc_with(entry("1", kUrlA), profile("1", item("1") + "<group>" + item("1") + "</group>")));
    login("rss", 1);
    kd_node *n = feed_of(g_rssdomain, "1");
    EXPECT_EQ(n->nrefs, 2u);
    EXPECT_EQ(log_count("start 1200s poll on: http://feeds.test/a"), 1u);
    EXPECT_GT(n->timer, 0);
}

TEST_F(merge_test, PollChangeRestartsTheRunningTimer)
{
    kd_node *n = polled_feed();
    int timer = n->timer;
    auto *it = static_cast<kd_item *>(kd_calloc(1, sizeof(kd_item)));
    it->title = kd_strdup("kept");
    n->children = it;
    n->nchildren = 1;
    n->nextuid = 5;
    size_t runs = fetched_urls().size();
    advance(100);
    merge_rss(doc_with(entry("1", kUrlA, "600") + entry("2", "http://feeds.test/b"),
                       profile("1", "<item entry=\"1\" read=\"01\"/>") + profile("2", item("2"))));
    EXPECT_TRUE(log_has_prio("restart with new poll-time 600 on: http://feeds.test/a", LOG_DEBUG));
    EXPECT_EQ(feed_of(g_rssdomain, "1"), n);
    EXPECT_EQ(n->entry, entry_el("1"));
    EXPECT_EQ(n->timer, timer);
    EXPECT_EQ(n->poll, 600);
    EXPECT_EQ(n->children, it);
    EXPECT_EQ(n->nextuid, 5u);
    EXPECT_STREQ(mxmlElementGetAttr(n->refs[0], "read"), "01");
    EXPECT_EQ(timeout_next_ms(), 600000); // counted afresh from the merge
    pump();
    EXPECT_EQ(fetched_urls().size(), runs); // no immediate refresh for a poll change
    advance(600);
    pump();
    EXPECT_EQ(fetched_urls().size(), runs + 1);
}

TEST_F(merge_test, UnchangedPollKeepsTheTimerAsItIs)
{
    merge_rss(kBase);
    login("rss", 1);
    int timer = feed_of(g_rssdomain, "1")->timer;
    merge_rss(kBase);
    EXPECT_FALSE(log_has("restart with new poll-time 1200 on: http://feeds.test/a"));
    EXPECT_EQ(feed_of(g_rssdomain, "1")->timer, timer);
}

TEST_F(merge_test, UrlChangeRefreshesOnceAndKeepsThePeriodicTimer)
{
    merge_rss(doc_with(entry("1", kUrlA), profile("1", item("1") + item("1"))));
    login("rss", 1);
    pump();
    kd_node *n = feed_of(g_rssdomain, "1");
    int timer = n->timer;
    size_t runs = fetched_urls().size();
    merge_rss(doc_with(entry("1", "http://other.test/a"), profile("1", item("1") + item("1"))));
    pump();
    EXPECT_EQ(fetched_urls().size(), runs + 1);
    EXPECT_EQ(fetched_urls().back(), "http://other.test/a");
    EXPECT_EQ(n->timer, timer);
    EXPECT_EQ(timeout_del(timer), 0); // still registered
    n->timer = 0;
}

TEST_F(merge_test, UrlChangeOfUnpolledFeedDoesNotRefresh)
{
    merge_rss(kBase);
    size_t runs = fetched_urls().size();
    merge_rss(doc_with(entry("1", "http://other.test/a"), profile("1", item("1"))));
    pump();
    EXPECT_EQ(fetched_urls().size(), runs);
}

TEST_F(merge_test, RemovingTheLastReferenceFreesRecordAndTimer)
{
    merge_rss(kBase);
    login("rss", 1);
    int timer = feed_of(g_rssdomain, "1")->timer;
    ASSERT_GT(timer, 0);
    size_t records = slab_live_count_for("kd_merge.cpp");
    merge_rss(doc_with(entry("1", kUrlA) + entry("2", "http://feeds.test/b"), profile("1", "") + profile("2", item("2"))));
    EXPECT_EQ(feed_of(g_rssdomain, "1"), nullptr);
    EXPECT_EQ(timeout_del(timer), -1);
    EXPECT_EQ(slab_live_count_for("kd_merge.cpp"), records - 2); // record and its reference array
}

TEST_F(merge_test, QueuedRefreshOfAFreedRecordIsDropped)
{
    merge_rss(kBase);
    login("rss", 1); // queues the immediate first refresh
    size_t runs = fetched_urls().size();
    merge_rss(doc_with(entry("1", kUrlA), profile("1", "")));
    pump();
    EXPECT_EQ(fetched_urls().size(), runs);
}

TEST_F(merge_test, VanishedProfileBecomesPlaceholderWithItsConnections)
{
    merge_rss(kBase);
    int peer = login("rss", 1);
    kd_profile *p = profile_in(g_rssproflist, 1);
    captured_log().clear();
    merge_rss(doc_with(entry("1", kUrlA), profile("2", "")));
    EXPECT_EQ(profile_in(g_rssproflist, 1), p);
    EXPECT_EQ(p->profile, nullptr);
    EXPECT_EQ(p->nconns, 1u);
    // The vanished profile's client gets its now empty feed list.
    EXPECT_EQ(answer(peer), "OK\taccounts\tdomain:rss\tprofile_id:1");
    EXPECT_TRUE(log_has("stop poll on: http://feeds.test/a") || feed_of(g_rssdomain, "1") == nullptr);
    captured_log().clear();
    kd_trace_client(head);
    EXPECT_TRUE(log_has("  [rss] profile 1 [placeholder]"));
}

TEST_F(merge_test, PlaceholderTakesTheElementWhenItAppears)
{
    merge_rss(kBase);
    int peer = login("rss", 3);
    kd_profile *p = profile_in(g_rssproflist, 3);
    ASSERT_EQ(p->profile, nullptr);
    merge_rss(doc_with(entry("1", kUrlA), profile("3", item("1"))));
    EXPECT_EQ(profile_in(g_rssproflist, 3), p);
    ASSERT_NE(p->profile, nullptr);
    EXPECT_EQ(mxmlGetUserData(p->profile), p);
    EXPECT_EQ(answer(peer), "OK\taccounts\tdomain:rss\tprofile_id:3\tname:http://feeds.test/a\tfeed_id:1");
    EXPECT_TRUE(log_has("start 1200s poll on: http://feeds.test/a"));
}

TEST_F(merge_test, LogoutOfTheOnlySubscriberStopsThePoll)
{
    merge_rss(kBase);
    int peer = login("rss", 1);
    ASSERT_GT(feed_of(g_rssdomain, "1")->timer, 0);
    EXPECT_EQ(request(peer, "logout domain:rss profile_id:1").rfind("OK\tlogout", 0), 0u);
    EXPECT_TRUE(log_has_prio("stop poll on: http://feeds.test/a", LOG_DEBUG));
    EXPECT_EQ(feed_of(g_rssdomain, "1")->timer, 0);
}

TEST_F(merge_test, PollContinuesWhileAnotherSubscriberIsConnected)
{
    merge_rss(doc_with(entry("1", kUrlA), profile("1", item("1")) + profile("2", item("1"))));
    int a = login("rss", 1);
    login("rss", 2);
    request(a, "logout domain:rss profile_id:1");
    EXPECT_FALSE(log_has("stop poll on: http://feeds.test/a"));
    EXPECT_GT(feed_of(g_rssdomain, "1")->timer, 0);
}

TEST_F(merge_test, ClientGoneStopsThePoll)
{
    merge_rss(kBase);
    int peer = login("rss", 1);
    hang_up(peer);
    pump();
    EXPECT_TRUE(log_has("stop poll on: http://feeds.test/a"));
    EXPECT_EQ(feed_of(g_rssdomain, "1")->timer, 0);
}

TEST_F(merge_test, UnlinkLogsAndIgnoresMissingArguments)
{
    login("rss", 1);
    kd_profile *p = profile_in(g_rssproflist, 1);
    kd_unlink_profile(nullptr, p);
    kd_unlink_profile(head, nullptr);
    EXPECT_EQ(p->nconns, 1u);
    int sd = csock_fileno(head->handle);
    kd_unlink_profile(head, p);
    char line[96];
    snprintf(line, sizeof line, "unlinking profile 1 from connection on sd %d", sd);
    EXPECT_TRUE(log_has_prio(line, LOG_DEBUG));
    EXPECT_EQ(p->nconns, 0u);
    EXPECT_EQ(head->nprofiles, 0u);
    kd_unlink_profile(head, p); // not linked any more: nothing happens
    EXPECT_EQ(p->nconns, 0u);
}

TEST_F(merge_test, DuplicateIdsUseTheFirstElement)
{
    merge_rss(doc_with(entry("1", kUrlA) + entry("1", "http://feeds.test/dup"),
                       profile("1", item("1")) + profile("1", item("1"))));
    mxml_node_t *first = entry_el("1");
    mxml_node_t *second = mxmlFindElement(first, g_rssdomain, "entry", "id", "1", MXML_DESCEND);
    EXPECT_NE(mxmlGetUserData(first), nullptr);
    EXPECT_EQ(mxmlGetUserData(second), nullptr);
    EXPECT_EQ(feed_of(g_rssdomain, "1")->nrefs, 2u);
    int records = 0;
    for (kd_profile *p = g_rssproflist; p; p = p->next)
        records++;
    EXPECT_EQ(records, 1);
    mxml_node_t *pf = mxmlFindElement(g_rssdomain, g_rssdomain, "profile", nullptr, nullptr, MXML_DESCEND);
    EXPECT_EQ(g_rssproflist->profile, pf);
}

TEST_F(merge_test, ProfileWithoutIdIsSkipped)
{
    merge_rss(doc_with(entry("1", kUrlA), "<profile>" + item("1") + "</profile>" + profile("4", "")));
    EXPECT_TRUE(log_has_prio("found profile node without id - ignored", LOG_INFO));
    ASSERT_NE(g_rssproflist, nullptr);
    EXPECT_EQ(g_rssproflist->profile_id, 4u);
    EXPECT_EQ(g_rssproflist->next, nullptr);
    EXPECT_EQ(feed_of(g_rssdomain, "1")->nrefs, 1u); // its subscriptions are still merged
    merge_rss(doc_with("", profile("3", "") + "<profile/>" + profile("5", "")));
    EXPECT_NE(profile_in(g_rssproflist, 3), nullptr);
    EXPECT_NE(profile_in(g_rssproflist, 5), nullptr); // the scan goes on past it
}

TEST_F(merge_test, DeeplyNestedItemsAreFound)
{
    std::string nest;
    for (int i = 0; i < 300; i++)
        nest += "<g>";
    nest += item("1");
    for (int i = 0; i < 300; i++)
        nest += "</g>";
    merge_rss(doc_with(entry("1", kUrlA), profile("1", nest)));
    EXPECT_EQ(feed_of(g_rssdomain, "1")->nrefs, 1u);
    login("rss", 1);
    EXPECT_GT(feed_of(g_rssdomain, "1")->timer, 0);
}

TEST_F(merge_test, RecordsMoveOnlyWithinTheirDomain)
{
    merge_rss(kBase);
    merge(&g_poddomain, &g_podproflist, kBase.c_str());
    EXPECT_NE(feed_of(g_rssdomain, "1"), feed_of(g_poddomain, "1"));
    EXPECT_NE(profile_in(g_rssproflist, 1), profile_in(g_podproflist, 1));
    EXPECT_STREQ(kd_get_domainname_from_profile(profile_in(g_podproflist, 2)), "podcast");
}

TEST_F(merge_test, MergingTheRunningDocumentAgainChangesNothing)
{
    merge_rss(kBase);
    mxml_node_t *doc = g_rssdomain;
    kd_config_merge(&g_rssdomain, &g_rssproflist, doc);
    EXPECT_EQ(g_rssdomain, doc);
    EXPECT_EQ(feed_of(g_rssdomain, "1")->nrefs, 1u);
}

TEST_F(merge_test, AllocationFailuresAreLoggedAndLeakNothing)
{
    bool saw_ref = false, saw_profile = false;
    for (long n = 0; n < 12; n++) {
        captured_log().clear();
        mxml_node_t *doc = load_doc(kBase.c_str());
        slab_fail_after(n);
        kd_config_merge(&g_rssdomain, &g_rssproflist, doc);
        slab_fail_after(-1);
        EXPECT_EQ(g_rssdomain, doc) << n; // adopted whatever could not be recorded
        saw_ref |= log_has_prio("no memory for reference - feed will stay empty", LOG_CRIT);
        saw_profile |= log_has_prio("no memory for profile structure", LOG_CRIT);
        free_profile_list(&g_rssproflist);
        free_domain(&g_rssdomain);
        ASSERT_EQ(slab_live_count(), baseline) << n;
    }
    EXPECT_TRUE(saw_ref);
    EXPECT_TRUE(saw_profile);
}

TEST_F(merge_test, ConfigurationIsEmptyOnlyWhenCompleteWithoutItems)
{
    const std::string empty = doc_with(entry("1", kUrlA), profile("1", ""));
    merge_rss(empty);
    merge(&g_poddomain, &g_podproflist, empty.c_str());
    EXPECT_EQ(kd_config_empty(), 1);
    EXPECT_TRUE(log_has_prio("config has no items", LOG_INFO));
    kd_config_set_received(1);
    EXPECT_EQ(kd_config_empty(), 0);
    kd_config_set_received(3);
    g_configstate = 1;
    EXPECT_EQ(kd_config_empty(), 0);
    g_configstate = 2;
    merge(&g_poddomain, &g_podproflist, doc_with("", "<item/>").c_str());
    EXPECT_EQ(kd_config_empty(), 0);
}

TEST_F(merge_test, EntriesWithoutAttributesAreMergedAndPolled)
{
    merge_rss(doc_with("<entry id=\"1\"/><entry url=\"http://feeds.test/x\"/>",
                       profile("1", item("1") + item(""))));
    EXPECT_TRUE(log_has("found item referencing non-existing entry ''"));
    login("rss", 1);
    kd_node *n = feed_of(g_rssdomain, "1");
    ASSERT_NE(n, nullptr);
    EXPECT_EQ(n->poll, 1200);
    EXPECT_TRUE(log_has("start 1200s poll on: "));
    merge_rss(doc_with("<entry id=\"1\" url=\"http://feeds.test/new\" poll=\"x\"/>", profile("1", item("1"))));
    EXPECT_TRUE(log_has("restart with new poll-time 30 on: http://feeds.test/new"));
}

} // namespace
