// Connections and sessions: connection records, receive and teardown,
// login and logout with their links between connections and profiles.
#define KELP_LOG_CAPTURE_IMPL
#include "session_fixture.h"

#include <cerrno>

using namespace kelp_test;

namespace {

const char kLoginRss1[] = "login\tv:3\tdomain:rss\tprofile_id:1";

class session : public session_test {};

TEST_F(session, NewConnectionsGoToTheHeadOfTheList)
{
    connect_client();
    kd_client *first = head;
    connect_client();
    ASSERT_NE(head, first);
    EXPECT_EQ(head->next, first);
    EXPECT_EQ(first->prev, head);
    EXPECT_EQ(head->prev, nullptr);
    EXPECT_EQ(head->api, 0);
    EXPECT_EQ(head->nprofiles, 0u);
    EXPECT_TRUE(log_has_prio("new client connected", LOG_NOTICE));
}

TEST_F(session, PeerCloseTearsTheConnectionDown)
{
    int peer = connect_client();
    EXPECT_EQ(request(peer, kLoginRss1).rfind("OK\tlogin\t", 0), 0u);
    kd_profile *p = profile_in(g_rssproflist, 1);
    ASSERT_NE(p, nullptr);
    ASSERT_EQ(p->nconns, 1u);
    hang_up(peer);
    pump();
    EXPECT_TRUE(log_has_prio("received 0 bytes", LOG_DEBUG));
    EXPECT_TRUE(log_has_prio("client gone", LOG_NOTICE));
    EXPECT_TRUE(log_has("client connection closed"));
    EXPECT_EQ(head, nullptr);
    EXPECT_EQ(p->nconns, 0u);
    EXPECT_EQ(slab_live_count_for("kd_client.cpp"), 0u);
}

TEST_F(session, ClosingTheMiddleConnectionBridgesTheList)
{
    connect_client();
    int middle = connect_client();
    connect_client();
    kd_client *last = client_at(2), *first = client_at(0);
    hang_up(middle);
    pump();
    EXPECT_EQ(head, first);
    EXPECT_EQ(first->next, last);
    EXPECT_EQ(last->prev, first);
}

TEST_F(session, PeerGoneIsQuietBelowVerbosityTwo)
{
    verbosity = 1;
    int peer = connect_client();
    hang_up(peer);
    pump();
    EXPECT_EQ(head, nullptr);
    EXPECT_FALSE(log_has("client gone"));
    EXPECT_FALSE(log_has("received 0 bytes"));
}

TEST_F(session, RepeatedLoginIsOneLinkAndBothAnswersOk)
{
    int peer = connect_client();
    EXPECT_EQ(request(peer, kLoginRss1), "OK\tlogin\tdomain:rss\tprofile_id:1");
    EXPECT_EQ(request(peer, kLoginRss1), "OK\tlogin\tdomain:rss\tprofile_id:1");
    EXPECT_EQ(head->nprofiles, 1u);
    EXPECT_EQ(profile_in(g_rssproflist, 1)->nconns, 1u);
    EXPECT_EQ(head->api, 3);
}

TEST_F(session, SameProfileIdInBothDomainsIsTwoLinks)
{
    int peer = connect_client();
    EXPECT_EQ(request(peer, kLoginRss1).rfind("OK\t", 0), 0u);
    EXPECT_EQ(request(peer, "login v:2 domain:podcast profile_id:1").rfind("OK\t", 0), 0u);
    ASSERT_EQ(head->nprofiles, 2u);
    EXPECT_EQ(head->profiles[0], profile_in(g_rssproflist, 1));
    EXPECT_EQ(head->profiles[1], profile_in(g_podproflist, 1));
    EXPECT_EQ(head->api, 2);
    EXPECT_EQ(find_client_profile(head, "podcast", 1), head->profiles[1]);
    EXPECT_EQ(find_client_profile(head, "rss", 1), head->profiles[0]);
    EXPECT_EQ(find_client_profile(head, nullptr, 1), nullptr);
}

TEST_F(session, UnknownProfileBecomesPlaceholderShownByTrace)
{
    int peer = connect_client();
    EXPECT_EQ(request(peer, "login v:3 domain:rss profile_id:7").rfind("OK\tlogin\t", 0), 0u);
    kd_profile *p = profile_in(g_rssproflist, 7);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p->profile, nullptr);
    EXPECT_EQ(g_rssproflist, p);
    captured_log().clear();
    verbosity = 0; // the trace logs whatever the level
    kd_trace_client(head);
    char first[64];
    snprintf(first, sizeof first, "client connection on sd=%d [API=3]", csock_fileno(head->handle));
    EXPECT_TRUE(log_has_prio(first, LOG_DEBUG));
    EXPECT_TRUE(log_has_prio("  [rss] profile 7 [placeholder]", LOG_DEBUG));
}

TEST_F(session, TraceShowsConfiguredProfileById)
{
    merge(&g_poddomain, &g_podproflist,
          "<config><pool><entry id=\"1\" url=\"http://feeds.test/a\"/></pool>"
          "<profiles><profile id=\"4\"><item entry=\"1\"/></profile></profiles></config>");
    int peer = connect_client();
    EXPECT_EQ(request(peer, "login v:3 domain:podcast profile_id:4").rfind("OK\tlogin\t", 0), 0u);
    captured_log().clear();
    kd_trace_client(head);
    EXPECT_TRUE(log_has("  [podcast] profile 4"));
}

TEST_F(session, UnsupportedVersionLeavesApiUnchanged)
{
    int peer = connect_client();
    const char *expect = "ERROR\tlogin\t7:KD_VERSION_NOT_SUPPORTED\tdomain:rss\tprofile_id:1";
    EXPECT_EQ(request(peer, "login v:1 domain:rss profile_id:1"), expect);
    EXPECT_EQ(head->api, 0);
    EXPECT_EQ(request(peer, "login v:3 domain:rss profile_id:1").rfind("OK\t", 0), 0u);
    EXPECT_EQ(request(peer, "login v:4 domain:rss profile_id:1"), expect);
    EXPECT_EQ(head->api, 3);
    EXPECT_EQ(request(peer, "login domain:rss profile_id:1"),
              "ERROR\tlogin\t7:KD_VERSION_NOT_SUPPORTED\tdomain:\tprofile_id:0");
    EXPECT_EQ(head->nprofiles, 1u);
}

TEST_F(session, LoginErrors)
{
    int peer = connect_client();
    EXPECT_EQ(request(peer, "login v:3 domain:news profile_id:1"),
              "ERROR\tlogin\t14:KD_DOMAIN_NOT_FOUND\tdomain:news\tprofile_id:1");
    EXPECT_EQ(request(peer, "login v:3"), "ERROR\tlogin\t13:KD_MISSING_DOMAIN\tdomain:\tprofile_id:0");
    g_configstate = 1;
    EXPECT_EQ(request(peer, kLoginRss1), "ERROR\tlogin\t19:KD_NO_CONFIG\tdomain:rss\tprofile_id:1");
    EXPECT_EQ(head->nprofiles, 0u);
    EXPECT_EQ(g_rssproflist, nullptr);
    EXPECT_EQ(head->api, 3);
}

TEST_F(session, LoginBeforeConfigWorksWhenDomainHasRecords)
{
    int peer = connect_client();
    EXPECT_EQ(request(peer, kLoginRss1).rfind("OK\t", 0), 0u);
    g_configstate = 1;
    EXPECT_EQ(request(peer, "login v:3 domain:rss profile_id:2"), "OK\tlogin\tdomain:rss\tprofile_id:2");
    EXPECT_EQ(head->nprofiles, 2u);
}

TEST_F(session, MissingProfileIdLogsInProfileZeroWithTheParseError)
{
    int peer = connect_client();
    EXPECT_EQ(request(peer, "login v:3 domain:rss"), "ERROR\tlogin\t15:KD_MISSING_PROFILE\tdomain:rss\tprofile_id:0");
    ASSERT_EQ(head->nprofiles, 1u);
    EXPECT_EQ(head->profiles[0]->profile_id, 0u);
}

TEST_F(session, LoginIsLoggedWithItsFields)
{
    int peer = connect_client();
    request(peer, "login v:2 domain:podcast profile_id:9");
    char line[160];
    snprintf(line, sizeof line, "instance with api-version 2 logging in for profile 9 in domain podcast [sd=%d]",
             csock_fileno(head->handle));
    EXPECT_TRUE(log_has_prio(line, LOG_NOTICE));
}

TEST_F(session, LogoutOfProfileNotLoggedIn)
{
    int peer = connect_client();
    EXPECT_EQ(request(peer, "logout domain:rss profile_id:2"),
              "ERROR\tlogout\t9:KD_NOT_LOGGED_IN\tdomain:rss\tprofile_id:2");
    request(peer, kLoginRss1);
    EXPECT_EQ(request(peer, "logout domain:podcast profile_id:1"),
              "ERROR\tlogout\t9:KD_NOT_LOGGED_IN\tdomain:podcast\tprofile_id:1");
    EXPECT_EQ(head->nprofiles, 1u);
}

TEST_F(session, LogoutRemovesBothLinksAndKeepsTheConnection)
{
    int a = connect_client();
    int b = connect_client();
    request(a, kLoginRss1);
    request(b, kLoginRss1);
    kd_profile *p = profile_in(g_rssproflist, 1);
    ASSERT_EQ(p->nconns, 2u);
    kd_client *ca = p->connections[0], *cb = p->connections[1];
    EXPECT_EQ(request(a, "logout domain:rss profile_id:1"), "OK\tlogout\tdomain:rss\tprofile_id:1");
    EXPECT_EQ(ca->nprofiles, 0u);
    ASSERT_EQ(p->nconns, 1u);
    EXPECT_EQ(p->connections[0], cb);
    EXPECT_EQ(client_at(0)->next, client_at(1));
    EXPECT_NE(client_at(1), nullptr);
    EXPECT_EQ(request(a, "logout domain:rss profile_id:1").rfind("ERROR\tlogout\t9:", 0), 0u);
}

TEST_F(session, AProfileGivesItsConnectionsBackWhenTheLastOneLeaves)
{
    int a = connect_client();
    int b = connect_client();
    request(a, kLoginRss1);
    request(b, kLoginRss1);
    kd_profile *p = profile_in(g_rssproflist, 1);
    ASSERT_NE(p->connections, nullptr);
    request(a, "logout domain:rss profile_id:1");
    EXPECT_NE(p->connections, nullptr);
    request(b, "logout domain:rss profile_id:1");
    EXPECT_EQ(p->nconns, 0u);
    EXPECT_EQ(p->connections, nullptr);
    // A later login makes a new array.
    EXPECT_EQ(request(a, kLoginRss1).rfind("OK\tlogin\t", 0), 0u);
    ASSERT_EQ(p->nconns, 1u);
    EXPECT_EQ(p->connections[0], head->next);
    hang_up(a);
    pump();
    EXPECT_EQ(p->connections, nullptr);
}

TEST_F(session, UnhandledCommandsGetNoAnswer)
{
    int peer = connect_client();
    request(peer, kLoginRss1);
    for (const char *cmd : {"overview", "OK", "ERROR", "nonsense"}) {
        captured_log().clear();
        EXPECT_EQ(request(peer, cmd), "") << cmd;
    }
    EXPECT_TRUE(log_has_prio("unhandled command 0", LOG_NOTICE));
    request(peer, "overview");
    EXPECT_TRUE(log_has("unhandled command 10"));
    request(peer, "zzz");
    EXPECT_TRUE(log_has("unhandled command 0"));
    EXPECT_NE(head, nullptr);
}

TEST_F(session, AccountsNeedsALogin)
{
    int peer = connect_client();
    EXPECT_EQ(request(peer, "accounts domain:rss profile_id:1"),
              "ERROR\taccounts\t9:KD_NOT_LOGGED_IN\tdomain:rss\tprofile_id:1");
    request(peer, kLoginRss1);
    EXPECT_EQ(request(peer, "accounts domain:rss profile_id:1"), "OK\taccounts\tdomain:rss\tprofile_id:1");
}

TEST_F(session, RequestsKeepTheirPacketBoundaries)
{
    int peer = connect_client();
    send_raw(peer, kLoginRss1, strlen(kLoginRss1));
    const char second[] = "login v:3 domain:rss profile_id:2";
    send_raw(peer, second, strlen(second));
    pump();
    EXPECT_EQ(answer(peer), "OK\tlogin\tdomain:rss\tprofile_id:1");
    EXPECT_EQ(answer(peer), "");
    pump();
    EXPECT_EQ(answer(peer), "OK\tlogin\tdomain:rss\tprofile_id:2");
}

TEST_F(session, EmptyPacketIsIgnoredAndConnectionStays)
{
    int peer = connect_client();
    send_raw(peer, "", 0);
    pump();
    EXPECT_NE(head, nullptr);
    EXPECT_FALSE(log_has("client gone"));
    EXPECT_EQ(request(peer, kLoginRss1).rfind("OK\t", 0), 0u);
}

TEST_F(session, OversizedPacketIsCutAndServed)
{
    int peer = connect_client();
    std::string big = kLoginRss1;
    big += std::string(20000, 'x');
    int sz = 65536;
    setsockopt(peer, SOL_SOCKET, SO_SNDBUF, &sz, sizeof sz);
    EXPECT_EQ(request(peer, big), "OK\tlogin\tdomain:rss\tprofile_id:1");
    EXPECT_NE(head, nullptr);
}

TEST_F(session, ArbitraryBytesNeverCloseTheConnection)
{
    int peer = connect_client();
    unsigned seed = 12345;
    std::string pkt;
    for (int round = 0; round < 300; round++) {
        seed = seed * 1103515245u + 12345u;
        size_t len = (seed >> 8) % 8193;
        if (round < 3)
            len = round == 0 ? 8192 : round;
        pkt.resize(len);
        for (auto &ch : pkt) {
            seed = seed * 1103515245u + 12345u;
            ch = static_cast<char>(seed >> 16);
        }
        if (round % 5 == 0 && len > 6)
            memcpy(pkt.data(), "logout", 6);
        send_raw(peer, pkt.data(), pkt.size());
        pump();
        while (!answer(peer).empty()) {
        }
        ASSERT_NE(head, nullptr) << "round " << round;
    }
    EXPECT_FALSE(log_has("client gone"));
}

TEST_F(session, ClientVanishingWithPendingRequestLeavesNothing)
{
    int peer = connect_client();
    send_raw(peer, kLoginRss1, strlen(kLoginRss1));
    hang_up(peer);
    pump();
    EXPECT_TRUE(log_has("send failed with 32"));
    EXPECT_TRUE(log_has_prio("connection is broken", LOG_INFO));
    pump();
    EXPECT_TRUE(log_has("client gone"));
    EXPECT_EQ(head, nullptr);
    EXPECT_EQ(profile_in(g_rssproflist, 1)->nconns, 0u);
    EXPECT_EQ(slab_live_count_for("kd_client.cpp"), 0u);
}

TEST_F(session, LogoutOnVanishedClientDisconnectsAtOnce)
{
    int peer = connect_client();
    request(peer, kLoginRss1);
    const char logout[] = "logout domain:rss profile_id:1";
    send_raw(peer, logout, strlen(logout));
    hang_up(peer);
    pump();
    EXPECT_TRUE(log_has_prio("oops, client seems to be gone already", LOG_NOTICE));
    EXPECT_FALSE(log_has("client gone"));
    EXPECT_EQ(head, nullptr);
}

TEST_F(session, RequestOnBrokenConnectionIsNotServed)
{
    int peer = connect_client();
    head->broken = 1;
    send_raw(peer, kLoginRss1, strlen(kLoginRss1));
    pump();
    EXPECT_TRUE(log_has("client gone"));
    EXPECT_EQ(head, nullptr);
    EXPECT_EQ(g_rssproflist, nullptr);
    char buf[64];
    EXPECT_EQ(recv(peer, buf, sizeof buf, MSG_DONTWAIT), 0); // closed, no answer
}

TEST_F(session, FloodFromManyClientsLeavesNoRecords)
{
    std::vector<int> ps;
    for (int i = 0; i < 8; i++)
        ps.push_back(connect_client());
    for (int round = 0; round < 50; round++)
        for (int p : ps)
            send_raw(p, "overview", 8);
    for (int p : ps)
        hang_up(p);
    for (int i = 0; i < 1000 && head; i++)
        pump();
    EXPECT_EQ(head, nullptr);
    EXPECT_EQ(slab_live_count_for("kd_client.cpp"), 0u);
}

TEST_F(session, RegistrationFailureRefusesTheConnection)
{
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, sv), 0);
    slab_fail_after(0);
    EXPECT_EQ(kd_new_connection(sv[0], &head), -2);
    slab_fail_after(-1);
    EXPECT_TRUE(log_has_prio("unable to register new client", LOG_ERR));
    EXPECT_EQ(head, nullptr);
    slab_fail_after(1);
    EXPECT_EQ(kd_new_connection(sv[0], &head), -2);
    slab_fail_after(-1);
    EXPECT_EQ(slab_live_count(), baseline);
    close(sv[0]);
    close(sv[1]);
}

TEST_F(session, NoMemoryForRequestLeavesItInTheSocket)
{
    int peer = connect_client();
    send_raw(peer, kLoginRss1, strlen(kLoginRss1));
    timeout_add(noop_timer, 0, nullptr, 0);
    slab_fail_after(0);
    csock_select();
    slab_fail_after(-1);
    EXPECT_EQ(answer(peer), "");
    pump();
    EXPECT_EQ(answer(peer), "OK\tlogin\tdomain:rss\tprofile_id:1");
}

TEST_F(session, LoginOutOfMemoryAnswersErrorFiveAndLeaksNothing)
{
    int peer = connect_client();
    bool saw_profile_log = false, saw_error = false;
    for (long n = 0; n < 12; n++) {
        captured_log().clear();
        send_raw(peer, kLoginRss1, strlen(kLoginRss1));
        timeout_add(noop_timer, 0, nullptr, 0);
        slab_fail_after(n);
        csock_select();
        slab_fail_after(-1);
        std::string a = answer(peer);
        if (a.empty())
            pump(), a = answer(peer);
        saw_error |= a.rfind("ERROR\tlogin\t5:KD_NO_MEMORY", 0) == 0;
        saw_profile_log |= log_has_prio("no memory for profile structure", LOG_CRIT);
        ASSERT_NE(head, nullptr);
        // A failed login links nothing; a successful one links once.
        EXPECT_LE(head->nprofiles, 1u);
        kd_profile *p = profile_in(g_rssproflist, 1);
        EXPECT_EQ(p ? p->nconns : 0u, head->nprofiles);
        request(peer, "logout domain:rss profile_id:1");
        free_profile_list(&g_rssproflist);
    }
    EXPECT_TRUE(saw_error);
    EXPECT_TRUE(saw_profile_log);
}

TEST_F(session, SendOfZeroBytesSucceeds)
{
    connect_client();
    EXPECT_EQ(client_send(head, "", 0), 1);
}

TEST_F(session, SendOnClosedPeerMarksBroken)
{
    int peer = connect_client();
    hang_up(peer);
    EXPECT_EQ(client_send(head, "abc", 3), 0);
    EXPECT_EQ(head->broken, 1);
    EXPECT_TRUE(log_has_prio("send failed with 32", LOG_ERR));
}

TEST_F(session, UnbuildableResponseIsNotSent)
{
    int peer = connect_client();
    kd_msg m{};
    m.cmd = KD_CMD_LOGIN;
    slab_fail_after(0);
    EXPECT_EQ(send_response(head, &m, nullptr), 0);
    slab_fail_after(0);
    EXPECT_EQ(send_request(head, KD_CMD_OVERVIEW, nullptr), 0);
    slab_fail_after(-1);
    EXPECT_TRUE(log_has_prio("unable to prepare response", LOG_ERR));
    EXPECT_TRUE(log_has_prio("unable to prepare request - too much data", LOG_ERR));
    EXPECT_EQ(answer(peer), "");
    EXPECT_EQ(send_request(head, KD_CMD_OVERVIEW, nullptr), 1);
    EXPECT_EQ(answer(peer), "overview\t");
}

TEST_F(session, DisconnectOutsideTheLoopFreesAtOnce)
{
    connect_client();
    connect_client();
    request(peers[0], kLoginRss1);
    kd_disconnect_client(head->next);
    EXPECT_EQ(head->next, nullptr);
    kd_disconnect_client(head);
    EXPECT_EQ(head, nullptr);
    EXPECT_EQ(profile_in(g_rssproflist, 1)->nconns, 0u);
    char buf[8];
    EXPECT_EQ(recv(peers[1], buf, sizeof buf, MSG_DONTWAIT), 0);
}

TEST_F(session, NewProfileGoesToTheHeadOfItsDomainList)
{
    kd_profile *a = new_profile(1, "rss");
    kd_profile *b = new_profile(2, "rss");
    kd_profile *c = new_profile(3, "podcast");
    EXPECT_EQ(g_rssproflist, b);
    EXPECT_EQ(b->next, a);
    EXPECT_EQ(a->prev, b);
    EXPECT_EQ(g_podproflist, c);
    EXPECT_EQ(b->profile_id, 2u);
    EXPECT_EQ(b->profile, nullptr);
    EXPECT_EQ(b->nconns, 0u);
}

} // namespace
