// Pushes: overviews queued at login, their drop when the connection goes
// first, fresh views after merges and renames, the internet status and the
// retry wait while the internet is down.
#include "command_fixture.h"

using namespace kelp_test;

namespace {

class notify : public command_test {
protected:
    // The login answer and, one turn later, what the login queued.
    std::vector<std::string> login_all(int peer, int id)
    {
        std::vector<std::string> all{request(peer, "login v:3 domain:rss profile_id:" + std::to_string(id))};
        for (const auto &a : drain(peer))
            all.push_back(a);
        return all;
    }
};

const char kAccountsP1[] = "OK\taccounts\tdomain:rss\tprofile_id:1\tname:News\tfeed_id:1\tname:Radio\tfeed_id:2";

TEST_F(notify, LoginQueuesOverviewsOnlyForFeedsWithItems)
{
    merge_rss(kTwoProfiles);
    fill_klm();
    int peer = connect_client();
    auto all = login_all(peer, 1);
    ASSERT_EQ(all.size(), 2u);
    EXPECT_EQ(all[0], "OK\tlogin\tdomain:rss\tprofile_id:1\tname:News\tfeed_id:1\tname:Radio\tfeed_id:2");
    EXPECT_EQ(all[1], "overview\tdomain:rss\tprofile_id:1\tfeed_id:1\tnumber:3\tnumber_new:3"
                      "\tuid:10\tstate:0\tsubject:K\tuid:11\tstate:0\tsubject:L\tuid:12\tstate:0\tsubject:M");
}

TEST_F(notify, OverviewOfAFeedWithoutItemsReportsZero)
{
    merge_rss(kTwoProfiles);
    int a = login(1);
    kd_send_overview(subscription("1", "2"), nullptr);
    EXPECT_EQ(answer(a), "overview\tdomain:rss\tprofile_id:1\tfeed_id:2\tnumber:0\tnumber_new:0");
}

TEST_F(notify, SendOverviewSkipsTheExceptedConnection)
{
    merge_rss(kTwoProfiles);
    fill_klm();
    int a = login(1), a2 = login(1);
    kd_send_overview(subscription("1", "1"), client_at(1));
    EXPECT_EQ(answer(a), "");
    EXPECT_EQ(answer(a2).rfind("overview\tdomain:rss\tprofile_id:1\tfeed_id:1\t", 0), 0u);
    kd_send_overview(nullptr, nullptr);
    kd_send_overview(subscription("1", "1"), nullptr);
    EXPECT_NE(answer(a), "");
    EXPECT_NE(answer(a2), "");
}

TEST_F(notify, QueuedOverviewsOfATornDownConnectionAreDropped)
{
    merge_rss(kTwoProfiles);
    fill_klm();
    int peer = connect_client();
    send_raw(peer, "login v:3 domain:rss profile_id:1", 34);
    pump(); // served: the overview waits for the next turn
    kd_disconnect_client(head);
    EXPECT_EQ(slab_live_count_for("kd_notify.cpp"), 0u);
    int reused = connect_client(); // likely the same descriptor number
    pump();
    EXPECT_EQ(answer(reused), "");
}

TEST_F(notify, QueuedOverviewAfterLogoutIsDropped)
{
    merge_rss(kTwoProfiles);
    fill_klm();
    int peer = connect_client();
    send_raw(peer, "login v:3 domain:rss profile_id:1", 34);
    pump();
    EXPECT_EQ(answer(peer).rfind("OK\tlogin\t", 0), 0u);
    send_raw(peer, "logout domain:rss profile_id:1", 30);
    pump(); // the logout and the queued overview in one turn: the logout is first
    auto rest = drain(peer);
    for (const auto &a : rest)
        EXPECT_NE(a.rfind("overview", 0), 0u) << a;
}

TEST_F(notify, RenamedFeedPushesAccountsAndOverviewsToEverySubscriber)
{
    merge_rss(kTwoProfiles);
    fill_klm();
    int a = login(1), b = login(2);
    std::string renamed(kTwoProfiles);
    renamed.replace(renamed.find("News"), 4, "Daily");
    merge_rss(renamed.c_str());
    auto to_a = drain(a), to_b = drain(b);
    ASSERT_GE(to_a.size(), 2u);
    EXPECT_EQ(to_a[0], "OK\taccounts\tdomain:rss\tprofile_id:1\tname:Daily\tfeed_id:1\tname:Radio\tfeed_id:2");
    EXPECT_EQ(to_a[1].rfind("overview\tdomain:rss\tprofile_id:1\tfeed_id:1\t", 0), 0u);
    ASSERT_GE(to_b.size(), 2u);
    EXPECT_EQ(to_b[0], "OK\taccounts\tdomain:rss\tprofile_id:2\tname:Daily\tfeed_id:1");
    EXPECT_EQ(to_b[1].rfind("overview\tdomain:rss\tprofile_id:2\tfeed_id:1\t", 0), 0u);
}

TEST_F(notify, EntryUpdatedRefreshesEachReferenceOnce)
{
    merge_rss(kTwoProfiles);
    fill_klm();
    int a = login(1), b = login(2);
    kd_entry_updated(mxmlFindElement(g_rssdomain, g_rssdomain, "entry", "id", "1", MXML_DESCEND));
    auto to_a = drain(a), to_b = drain(b);
    // Profile 1's view is all of its overviews: feed 2 has no items.
    ASSERT_EQ(to_a.size(), 2u);
    EXPECT_EQ(to_a[0], kAccountsP1);
    ASSERT_EQ(to_b.size(), 2u);
    EXPECT_EQ(to_b[0], "OK\taccounts\tdomain:rss\tprofile_id:2\tname:News\tfeed_id:1");
    kd_entry_updated(nullptr);
    kd_entry_updated(mxmlFindElement(g_rssdomain, g_rssdomain, "pool", nullptr, nullptr, MXML_DESCEND));
    EXPECT_EQ(drain(a).size(), 0u);
}

TEST_F(notify, IdenticalSubscriptionsPushNothingReorderedOnesDo)
{
    merge_rss(kTwoProfiles);
    int a = login(1);
    merge_rss(kTwoProfiles);
    EXPECT_EQ(drain(a).size(), 0u);
    std::string swapped(kTwoProfiles);
    swapped.replace(swapped.find("<item entry=\"1\"/><item entry=\"2\"/>"), 34,
                    "<item entry=\"2\"/><item entry=\"1\"/>");
    merge_rss(swapped.c_str());
    auto all = drain(a);
    ASSERT_EQ(all.size(), 1u);
    EXPECT_EQ(all[0], "OK\taccounts\tdomain:rss\tprofile_id:1\tname:Radio\tfeed_id:2\tname:News\tfeed_id:1");
}

TEST_F(notify, LostSubscriptionIsAChange)
{
    merge_rss(kTwoProfiles);
    int a = login(1);
    std::string fewer(kTwoProfiles);
    fewer.erase(fewer.find("<item entry=\"2\"/>"), 17);
    merge_rss(fewer.c_str());
    auto all = drain(a);
    ASSERT_EQ(all.size(), 1u);
    EXPECT_EQ(all[0], "OK\taccounts\tdomain:rss\tprofile_id:1\tname:News\tfeed_id:1");
}

TEST_F(notify, MissingNamesAndIdsCompareAsEmpty)
{
    merge_rss("<config><pool><entry id=\"1\"/></pool><profiles><profile id=\"1\"><item entry=\"1\"/>"
              "</profile></profiles></config>");
    int a = login(1);
    merge_rss("<config><pool><entry id=\"1\" name=\"\"/></pool><profiles><profile id=\"1\"><item entry=\"1\"/>"
              "</profile></profiles></config>");
    EXPECT_EQ(drain(a).size(), 0u);
}

TEST_F(notify, CheckProfupdateWithNeitherElementDoesNothing)
{
    merge_rss(kTwoProfiles);
    int a = login(1);
    kd_check_profupdate(nullptr, nullptr);
    EXPECT_EQ(drain(a).size(), 0u);
}

TEST_F(notify, NewClientViewNeedsAProfile)
{
    EXPECT_DEATH(new_client_view(nullptr), "p!=\\(\\(void \\*\\)0\\)");
    EXPECT_DEATH(status_update(nullptr, 0), "param!=\\(\\(void \\*\\)0\\)");
}

TEST_F(notify, StatusUpdateTellsEveryConnectionAndSetsWasOnline)
{
    merge_rss(kTwoProfiles);
    int a = login(1), a2 = login(1);
    kd_profile *p = profile_in(g_rssproflist, 1);
    g_internet_up = false;
    status_update(p, 0);
    EXPECT_EQ(answer(a), "ERROR\tstatus\t20:KD_NO_INTERNET\tdomain:rss\tprofile_id:1");
    EXPECT_EQ(answer(a2), "ERROR\tstatus\t20:KD_NO_INTERNET\tdomain:rss\tprofile_id:1");
    EXPECT_EQ(p->was_online, 0);
    g_internet_up = true;
    status_update(p, 0);
    EXPECT_EQ(answer(a), "OK\tstatus\tdomain:rss\tprofile_id:1");
    EXPECT_EQ(p->was_online, 1);
}

TEST_F(notify, LoginWhileOfflineIsAnsweredThenToldAndStartsTheRetryWait)
{
    merge_rss(kTwoProfiles);
    g_internet_up = false;
    int peer = connect_client();
    auto all = login_all(peer, 1);
    ASSERT_EQ(all.size(), 2u);
    EXPECT_EQ(all[0], "OK\tlogin\tdomain:rss\tprofile_id:1\tname:News\tfeed_id:1\tname:Radio\tfeed_id:2");
    EXPECT_EQ(all[1], "ERROR\tstatus\t20:KD_NO_INTERNET\tdomain:rss\tprofile_id:1");
    EXPECT_GT(kd_internet_retry_timer(), 0);
    EXPECT_EQ(kd_internet_retry_wait(), 30);
    int first = kd_internet_retry_timer();
    login(2);
    EXPECT_EQ(kd_internet_retry_timer(), first);
}

TEST_F(notify, RetryWaitDoublesUpToTenMinutes)
{
    merge_rss(kTwoProfiles);
    g_internet_up = false;
    login(1);
    std::vector<int> waits{kd_internet_retry_wait()};
    for (int i = 0; i < 6; i++) {
        advance(waits.back());
        pump();
        waits.push_back(kd_internet_retry_wait());
        EXPECT_TRUE(log_has_prio("still no internet - waiting another " + std::to_string(kd_internet_retry_wait()) + " seconds",
                                 LOG_NOTICE));
    }
    EXPECT_EQ(waits, (std::vector<int>{30, 60, 120, 240, 480, 600, 600}));
}

TEST_F(notify, RetryLinesNeedVerbosityTwo)
{
    merge_rss(kTwoProfiles);
    g_internet_up = false;
    login(1);
    verbosity = 1;
    captured_log().clear();
    advance(30);
    pump();
    EXPECT_EQ(kd_internet_retry_wait(), 60);
    EXPECT_FALSE(log_has("still no internet - waiting another 60 seconds"));
    g_internet_up = true;
    advance(60);
    pump();
    EXPECT_FALSE(log_has("the internet is back, hooray!"));
    EXPECT_EQ(kd_internet_retry_timer(), 0);
}

TEST_F(notify, InternetBackTellsProfilesNotYetToldAndRestartsPolls)
{
    merge_rss(kTwoProfiles);
    g_internet_up = false;
    int a = login(1), b = login(2);
    kd_profile *p2 = profile_in(g_rssproflist, 2);
    p2->was_online = 1; // told before: not told again
    EXPECT_EQ(feed_of(g_rssdomain, "1")->timer, 0);
    g_internet_up = true;
    advance(30);
    pump();
    EXPECT_TRUE(log_has_prio("the internet is back, hooray!", LOG_NOTICE));
    EXPECT_EQ(kd_internet_retry_timer(), 0);
    EXPECT_EQ(answer(a), "OK\tstatus\tdomain:rss\tprofile_id:1");
    EXPECT_EQ(answer(b), "");
    EXPECT_EQ(profile_in(g_rssproflist, 1)->was_online, 1);
    EXPECT_GT(feed_of(g_rssdomain, "1")->timer, 0);
}

TEST_F(notify, ProfileWithoutConnectionsIsNotToldWhenTheInternetReturns)
{
    merge_rss(kTwoProfiles);
    g_internet_up = false;
    int a = login(1);
    login(2);
    hang_up(a);
    pump();
    ASSERT_EQ(profile_in(g_rssproflist, 1)->nconns, 0u);
    g_internet_up = true;
    advance(30);
    pump();
    EXPECT_EQ(profile_in(g_rssproflist, 1)->was_online, 0);
    EXPECT_EQ(profile_in(g_rssproflist, 2)->was_online, 1);
    // Not told then, profile 1 is still to be told: its next client, come
    // during the next outage, hears of the internet's return.
    g_internet_up = false;
    int again = login(1);
    g_internet_up = true;
    advance(30);
    pump();
    EXPECT_EQ(answer(again), "OK\tstatus\tdomain:rss\tprofile_id:1");
    EXPECT_EQ(profile_in(g_rssproflist, 1)->was_online, 1);
}

TEST_F(notify, StatusQueuedForAProfileFreedMeanwhileIsDropped)
{
    merge_rss(kTwoProfiles);
    g_internet_up = false;
    int peer = connect_client();
    send_raw(peer, "login v:3 domain:rss profile_id:1", 34);
    pump();
    answer(peer);
    kd_configd_closed(nullptr, nullptr); // unlinks and frees every profile
    pump();
    EXPECT_EQ(answer(peer), "");
}

// A login's overviews that find the connection's socket still full wait
// until it has drained, instead of piling up behind it towards the cap.
class held : public notify {
protected:
    int peer = -1;
    kd_client *c = nullptr;

    // Logs in to profile 1 (feeds 1 and 2 with items) with a tiny send
    // buffer, and fills the socket before the login's overviews are due.
    void login_into_full_socket()
    {
        merge_rss(kTwoProfiles);
        fill_klm();
        fill("2", {item(20, "R", "body R")});
        peer = connect_client();
        c = head;
        int sz = 4096;
        setsockopt(csock_fileno(c->handle), SOL_SOCKET, SO_SNDBUF, &sz, sizeof sz);
        EXPECT_EQ(request(peer, "login v:3 domain:rss profile_id:1").rfind("OK\tlogin\t", 0), 0u);
        std::string filler(1024, 'f');
        for (int i = 0; i < 64 && !c->outq.head; i++)
            ASSERT_EQ(client_send(c, filler.data(), filler.size()), 1);
        ASSERT_NE(c->outq.head, nullptr);
        client_send(c, filler.data(), filler.size());
        pump(); // the overviews' turn: both are held
    }

    // Everything the peer gets, reading as a slow but steady client does.
    std::vector<std::string> read_on()
    {
        std::vector<std::string> got;
        for (int idle = 0; idle < 20;) {
            pump();
            std::string a = answer(peer);
            if (a.empty()) {
                idle++;
                continue;
            }
            idle = 0;
            got.push_back(a);
        }
        return got;
    }
};

TEST_F(held, OverviewsWaitForAFullSocketAndFollowItsBlocksInOrder)
{
    login_into_full_socket();
    EXPECT_GT(slab_live_count_for("kd_notify.cpp"), 0u);
    auto got = read_on();
    std::vector<std::string> overviews;
    for (const auto &g : got) {
        if (g[0] == 'f') {
            EXPECT_TRUE(overviews.empty()) << "a held overview overtook a block queued before it";
            continue;
        }
        overviews.push_back(g);
    }
    ASSERT_EQ(overviews.size(), 2u);
    EXPECT_EQ(overviews[0].rfind("overview\tdomain:rss\tprofile_id:1\tfeed_id:1\tnumber:3\t", 0), 0u) << overviews[0];
    EXPECT_EQ(overviews[1].rfind("overview\tdomain:rss\tprofile_id:1\tfeed_id:2\tnumber:1\t", 0), 0u) << overviews[1];
    EXPECT_EQ(slab_live_count_for("kd_notify.cpp"), 0u);
    EXPECT_FALSE(log_has("send failed with 11"));
    EXPECT_FALSE(c->broken);
}

TEST_F(held, HeldOverviewsOfATornDownConnectionAreDropped)
{
    login_into_full_socket();
    ASSERT_GT(slab_live_count_for("kd_notify.cpp"), 0u);
    kd_disconnect_client(head);
    EXPECT_EQ(slab_live_count_for("kd_notify.cpp"), 0u);
    pump();
}

TEST_F(held, AHeldOverviewOfAFeedUnsubscribedMeanwhileIsNotSent)
{
    login_into_full_socket();
    merge_rss("<config><pool><entry id=\"1\" name=\"News\"/></pool><profiles>"
              "<profile id=\"1\"><item entry=\"1\"/></profile></profiles></config>");
    for (const auto &g : read_on())
        EXPECT_NE(g.rfind("overview\tdomain:rss\tprofile_id:1\tfeed_id:2\t", 0), 0u) << g;
    EXPECT_EQ(slab_live_count_for("kd_notify.cpp"), 0u);
}

} // namespace
