// Connections and sessions, continued: receive failures and half-closed
// peers, log thresholds, login version order and the logout's answer.
#include "session_fixture.h"

#include <cerrno>

using namespace kelp_test;

namespace {

const char kLoginRss1[] = "login\tv:3\tdomain:rss\tprofile_id:1";

class session_io : public session_test {};

} // namespace
namespace {

TEST_F(session_io, PeerResetIsOneRecvFailureThenGone)
{
    int peer = connect_client();
    request(peer, kLoginRss1);
    send_raw(peer, kLoginRss1, strlen(kLoginRss1));
    pump(); // the second answer stays unread in the peer's queue
    captured_log().clear();
    hang_up(peer); // closing with unread data resets the daemon's end
    pump();
    char line[40];
    snprintf(line, sizeof line, "recv failed with %d", ECONNRESET);
    EXPECT_EQ(log_count(line), 1u);
    EXPECT_TRUE(log_has_prio(line, LOG_ERR));
    EXPECT_FALSE(log_has("received 0 bytes"));
    EXPECT_TRUE(log_has("client gone"));
    EXPECT_EQ(head, nullptr);
    EXPECT_EQ(profile_in(g_rssproflist, 1)->nconns, 0u);
}

TEST_F(session_io, UnexpectedRecvErrorIsLoggedTwice)
{
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    ASSERT_EQ(kd_new_connection(fds[0], &head), 0); // recv on a pipe: ENOTSOCK
    ASSERT_EQ(write(fds[1], "x", 1), 1);
    pump();
    char line[40];
    snprintf(line, sizeof line, "recv failed with %d", ENOTSOCK);
    EXPECT_EQ(log_count(line), 2u);
    EXPECT_TRUE(log_has("client gone"));
    EXPECT_EQ(head, nullptr);
    close(fds[1]);
}

TEST_F(session_io, RecvFailureIsQuietAtVerbosityZero)
{
    verbosity = 0;
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    ASSERT_EQ(kd_new_connection(fds[0], &head), 0);
    ASSERT_EQ(write(fds[1], "x", 1), 1);
    pump();
    EXPECT_EQ(head, nullptr);
    EXPECT_TRUE(captured_log().empty());
    close(fds[1]);
}

TEST_F(session_io, HalfClosedPeerIsGone)
{
    int peer = connect_client();
    ASSERT_EQ(shutdown(peer, SHUT_WR), 0);
    pump();
    EXPECT_TRUE(log_has_prio("received 0 bytes", LOG_DEBUG));
    EXPECT_TRUE(log_has("client gone"));
    EXPECT_EQ(head, nullptr);
}

TEST_F(session_io, EmptyPacketThenCloseIsOneTeardown)
{
    int peer = connect_client();
    send_raw(peer, "", 0);
    pump();
    EXPECT_FALSE(log_has("received 0 bytes"));
    ASSERT_NE(head, nullptr);
    hang_up(peer);
    pump();
    EXPECT_EQ(log_count("received 0 bytes"), 1u);
    EXPECT_EQ(log_count("client gone"), 1u);
    EXPECT_EQ(head, nullptr);
}

TEST_F(session_io, LogLinesKeepTheirThresholds)
{
    verbosity = 1;
    int peer = connect_client();
    EXPECT_FALSE(log_has("new client connected"));
    request(peer, kLoginRss1);
    EXPECT_TRUE(captured_log().empty()); // the login line needs 2
    verbosity = 2;
    hang_up(peer);
    EXPECT_EQ(client_send(head, "abc", 3), 0);
    EXPECT_TRUE(log_has("send failed with 32"));
    EXPECT_FALSE(log_has("connection is broken")); // needs 3
    pump();
    EXPECT_TRUE(log_has("client gone"));
    EXPECT_FALSE(log_has("received 0 bytes"));        // needs 4
    EXPECT_FALSE(log_has("client connection closed")); // needs 4
    EXPECT_EQ(head, nullptr);
}

TEST_F(session_io, VersionIsCheckedBeforeTheDomain)
{
    int peer = connect_client();
    EXPECT_EQ(request(peer, "login v:5 domain:news profile_id:1"),
              "ERROR\tlogin\t7:KD_VERSION_NOT_SUPPORTED\tdomain:news\tprofile_id:1");
    EXPECT_EQ(head->api, 0);
    EXPECT_EQ(request(peer, "login v:2 domain:news profile_id:1").rfind("ERROR\tlogin\t14:", 0), 0u);
    EXPECT_EQ(head->api, 2); // taken although the login failed
}

TEST_F(session_io, LogoutAnswerCarriesNoFeedList)
{
    merge(&g_rssdomain, &g_rssproflist,
          "<config><pool><entry id=\"1\" url=\"http://feeds.test/a\" name=\"News\"/></pool>"
          "<profiles><profile id=\"1\"><item entry=\"1\"/></profile></profiles></config>");
    int peer = connect_client();
    EXPECT_EQ(request(peer, kLoginRss1), "OK\tlogin\tdomain:rss\tprofile_id:1\tname:News\tfeed_id:1");
    while (!answer(peer).empty()) {
    }
    EXPECT_EQ(request(peer, "logout domain:rss profile_id:1"), "OK\tlogout\tdomain:rss\tprofile_id:1");
    EXPECT_EQ(head->nprofiles, 0u);
    EXPECT_EQ(profile_in(g_rssproflist, 1)->nconns, 0u);
}

TEST_F(session_io, RepeatedLoginAnswersWithTheFeedListAndKeepsConfigState)
{
    merge(&g_rssdomain, &g_rssproflist,
          "<config><pool><entry id=\"3\" url=\"http://feeds.test/a\"/></pool>"
          "<profiles><profile id=\"1\"><item entry=\"3\"/></profile></profiles></config>");
    int peer = connect_client();
    request(peer, kLoginRss1);
    g_configstate = 1; // a repeated login never reaches the list checks
    EXPECT_EQ(request(peer, kLoginRss1), "OK\tlogin\tdomain:rss\tprofile_id:1\tname:http://feeds.test/a\tfeed_id:3");
    EXPECT_EQ(head->nprofiles, 1u);
}

} // namespace

namespace {

size_t first_index(const std::string &prefix)
{
    const auto &lines = captured_log();
    for (size_t i = 0; i < lines.size(); i++)
        if (lines[i].text.rfind(prefix, 0) == 0)
            return i;
    return lines.size();
}

TEST_F(session_io, LogoutAnswerIsSentBeforeTheProfileIsUnlinked)
{
    int peer = connect_client();
    request(peer, kLoginRss1);
    const char logout[] = "logout domain:rss profile_id:1";
    send_raw(peer, logout, strlen(logout));
    hang_up(peer);
    captured_log().clear();
    pump();
    size_t sent = first_index("send failed with");
    size_t unlinked = first_index("unlinking profile 1 from connection");
    size_t oops = first_index("oops, client seems to be gone already");
    ASSERT_LT(oops, captured_log().size());
    EXPECT_LT(sent, unlinked);
    EXPECT_LT(unlinked, oops);
}

} // namespace
