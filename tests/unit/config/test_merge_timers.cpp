// Poll timers: the immediate and the repeating refresh of a started poll, the
// internet asked only for feeds in use, polls kept, stopped and restarted,
// queued refreshes of freed records, unlinking profiles, the empty
// configuration, and the verbosity each message needs.
#include "tests/unit/config/merge_fixture.h"

using namespace kelp_test;

namespace {

int g_internet_calls;
int counting_internet(void)
{
    g_internet_calls++;
    return g_internet_up ? 1 : 0;
}

using timers_test = merge_test;

TEST_F(timers_test, StartedPollRefreshesAtOnceAndThenEveryInterval)
{
    merge_rss(kBase);
    size_t runs = fetched_urls().size();
    login("rss", 1);
    kd_node *n = feed_of(g_rssdomain, "1");
    int timer = n->timer;
    ASSERT_GT(timer, 0);
    EXPECT_EQ(n->poll, 1200);
    pump();
    EXPECT_EQ(fetched_urls().size(), runs + 1); // the immediate first refresh
    advance(1199);
    pump();
    EXPECT_EQ(fetched_urls().size(), runs + 1);
    advance(1);
    pump();
    EXPECT_EQ(fetched_urls().size(), runs + 2);
    advance(1200);
    pump();
    EXPECT_EQ(fetched_urls().size(), runs + 3);
    EXPECT_EQ(n->timer, timer); // the stored timer is the repeating one
}

TEST_F(timers_test, InternetIsAskedOnlyForFeedsInUse)
{
    merge_rss(kBase);
    use_internet(counting_internet);
    g_internet_calls = 0;
    kd_refresh_timers();
    EXPECT_EQ(g_internet_calls, 0); // nobody connected: no feed in use
    login("rss", 1);
    ASSERT_GT(feed_of(g_rssdomain, "1")->timer, 0);
    g_internet_calls = 0;
    kd_refresh_timers();
    EXPECT_EQ(g_internet_calls, 1); // the running poll of feed 1 only
    g_internet_calls = 0;
    kd_unlink_profile(head, profile_in(g_rssproflist, 1));
    EXPECT_EQ(g_internet_calls, 0); // out of use stops without asking
    EXPECT_TRUE(log_has_prio("stop poll on: http://feeds.test/a", LOG_DEBUG));
    EXPECT_EQ(feed_of(g_rssdomain, "1")->timer, 0);
    EXPECT_EQ(feed_of(g_rssdomain, "1")->poll, 0);
}

TEST_F(timers_test, RunningPollInUseAndOnlineKeepsItsPhase)
{
    kd_node *n = polled_feed();
    int timer = n->timer;
    size_t runs = fetched_urls().size();
    advance(600);
    kd_refresh_timers();
    merge_rss(kBase);
    EXPECT_EQ(n->timer, timer);
    EXPECT_EQ(log_count("start 1200s poll on: http://feeds.test/a"), 1u);
    EXPECT_FALSE(log_has("stop poll on: http://feeds.test/a"));
    EXPECT_EQ(timeout_next_ms(), 600000);
    pump();
    EXPECT_EQ(fetched_urls().size(), runs); // no second immediate refresh
}

TEST_F(timers_test, InternetLossStopsPollsAndItsReturnRestartsThemAtOnce)
{
    kd_node *n = polled_feed();
    g_internet_up = false;
    kd_refresh_timers();
    EXPECT_EQ(n->timer, 0);
    EXPECT_EQ(n->poll, 0);
    size_t runs = fetched_urls().size();
    advance(5000);
    pump();
    EXPECT_EQ(fetched_urls().size(), runs);
    g_internet_up = true;
    kd_refresh_timers();
    EXPECT_EQ(log_count("start 1200s poll on: http://feeds.test/a"), 2u);
    EXPECT_GT(n->timer, 0);
    pump();
    EXPECT_EQ(fetched_urls().size(), runs + 1);
}

TEST_F(timers_test, PollChangeOfAnUnpolledFeedWaitsForItsStart)
{
    merge_rss(kBase);
    merge_rss(doc_with(entry("1", kUrlA, "600"), profile("1", item("1"))));
    EXPECT_FALSE(log_has("restart with new poll-time 600 on: http://feeds.test/a"));
    EXPECT_EQ(feed_of(g_rssdomain, "1")->poll, 0);
    login("rss", 1);
    EXPECT_TRUE(log_has("start 600s poll on: http://feeds.test/a"));
    EXPECT_EQ(feed_of(g_rssdomain, "1")->poll, 600);
}

TEST_F(timers_test, QueuedUrlChangeRefreshOfAFreedRecordIsDropped)
{
    const std::string moved = doc_with(entry("1", "http://other.test/a"), profile("1", item("1")));
    merge_rss(kBase);
    login("rss", 1);
    pump();
    size_t runs = fetched_urls().size();
    merge_rss(moved); // queues the refresh of the new address
    merge_rss(doc_with(entry("1", "http://other.test/a"), profile("1", ""))); // frees the record
    EXPECT_EQ(feed_of(g_rssdomain, "1"), nullptr);
    pump();
    EXPECT_EQ(fetched_urls().size(), runs);
}

TEST_F(timers_test, QueuedRefreshIsDroppedWhenConfigdGoesAway)
{
    merge_rss(doc_with(entry("1", kUrlA), profile("1", item("1"))));
    login("rss", 1); // queues the immediate first refresh
    size_t runs = fetched_urls().size();
    kd_configd_closed(nullptr, nullptr);
    pump();
    EXPECT_EQ(fetched_urls().size(), runs);
}

TEST_F(timers_test, UnlinkRemovesTheFirstEqualConnectionAndKeepsTheOrder)
{
    merge_rss(kBase);
    login("rss", 1);
    login("rss", 1);
    login("rss", 1);
    kd_profile *p = profile_in(g_rssproflist, 1);
    ASSERT_EQ(p->nconns, 3u);
    kd_client *c0 = p->connections[0], *c1 = p->connections[1], *c2 = p->connections[2];
    kd_unlink_profile(c1, p);
    ASSERT_EQ(p->nconns, 2u);
    EXPECT_EQ(p->connections[0], c0);
    EXPECT_EQ(p->connections[1], c2);
    EXPECT_EQ(c1->nprofiles, 0u);
    EXPECT_GT(feed_of(g_rssdomain, "1")->timer, 0); // still in use
}

TEST_F(timers_test, UnlinkRemovesTheProfileFromTheClientKeepingTheOrder)
{
    merge_rss(kBase);
    int peer = login("rss", 1);
    login_on(peer, "rss", 2);
    login_on(peer, "rss", 3);
    kd_profile *p1 = profile_in(g_rssproflist, 1), *p2 = profile_in(g_rssproflist, 2);
    kd_profile *p3 = profile_in(g_rssproflist, 3);
    ASSERT_EQ(head->nprofiles, 3u);
    kd_unlink_profile(head, p2);
    ASSERT_EQ(head->nprofiles, 2u);
    EXPECT_EQ(head->profiles[0], p1);
    EXPECT_EQ(head->profiles[1], p3);
    EXPECT_EQ(p2->nconns, 0u);
    EXPECT_TRUE(log_has("stop poll on: http://feeds.test/b"));
}

TEST_F(timers_test, EmptyOnlyWithoutAnyItemAnywhere)
{
    g_rssdomain = load_doc(doc_with(entry("1", kUrlA) + "<item entry=\"1\"/>", "").c_str());
    g_poddomain = load_doc(doc_with("", "").c_str());
    EXPECT_EQ(kd_config_empty(), 0); // an item outside the profiles counts too
    EXPECT_FALSE(log_has("config has no items"));
    free_domain(&g_rssdomain);
    EXPECT_EQ(kd_config_empty(), 1);
    free_domain(&g_poddomain);
    EXPECT_EQ(kd_config_empty(), 1); // no documents hold no items either
    g_configstate = 3;
    EXPECT_EQ(kd_config_empty(), 0);
}

TEST_F(timers_test, PollMessagesNeedVerbosityThree)
{
    merge_rss(kBase);
    login("rss", 1);
    auto cycle = [] {
        g_internet_up = false;
        kd_refresh_timers();
        g_internet_up = true;
        kd_refresh_timers();
    };
    expect_threshold("stop poll on: http://feeds.test/a", LOG_DEBUG, 3, cycle);
    expect_threshold("start 1200s poll on: http://feeds.test/a", LOG_DEBUG, 3, cycle);
    expect_threshold("restart with new poll-time 600 on: http://feeds.test/a", LOG_DEBUG, 3, [this] {
        merge_rss(kBase);
        merge_rss(doc_with(entry("1", kUrlA, "600"), profile("1", item("1"))));
    });
}

TEST_F(timers_test, UnlinkMessageNeedsVerbosityFour)
{
    merge_rss(kBase);
    int peer = login("rss", 1);
    char line[96];
    snprintf(line, sizeof line, "unlinking profile 1 from connection on sd %d", csock_fileno(head->handle));
    expect_threshold(line, LOG_DEBUG, 4, [&] {
        login_on(peer, "rss", 1);
        kd_unlink_profile(head, profile_in(g_rssproflist, 1));
    });
}

TEST_F(timers_test, MergeMessagesNeedTheirVerbosity)
{
    expect_threshold("config has no items", LOG_INFO, 2, [] { kd_config_empty(); });
    auto refused = [](const char *xml) {
        mxml_node_t *doc = load_doc(xml);
        kd_config_merge(&g_rssdomain, &g_rssproflist, doc);
        mxmlDelete(doc);
    };
    expect_threshold("missing <pool>-node in config", LOG_CRIT, 1, [&] { refused("<c><profiles/></c>"); });
    expect_threshold("missing <profiles>-node in config", LOG_CRIT, 1, [&] { refused("<c><pool/></c>"); });
    const std::string bad = doc_with(entry("1", kUrlA), profile("1", "<item/>" + item("9")));
    expect_threshold("found stale item node without entry reference", LOG_INFO, 2, [&] { merge_rss(bad); });
    expect_threshold("found item referencing non-existing entry '9'", LOG_INFO, 2, [&] { merge_rss(bad); });
}

TEST_F(timers_test, NoMemoryMessagesNeedVerbosityOne)
{
    auto starved = [](const std::string &xml) {
        mxml_node_t *doc = load_doc(xml.c_str());
        slab_fail_after(0);
        kd_config_merge(&g_rssdomain, &g_rssproflist, doc);
        slab_fail_after(-1);
    };
    expect_threshold("no memory for profile structure", LOG_CRIT, 1,
                     [&] { starved(doc_with(entry("1", kUrlA), profile("7", ""))); });
    expect_threshold("no memory for reference - feed will stay empty", LOG_CRIT, 1,
                     [&] { starved(doc_with(entry("1", kUrlA), profile("7", item("1")))); });
}

} // namespace
