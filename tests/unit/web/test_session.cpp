// kelp-web's sessions over socket pairs standing in for kelpd: the login
// and its repetition while kelpd has no configuration, events queued and
// taken, the wake-ups of a waiting stream, a session that outlives kelpd,
// and every way a session ends closing its control connection.
#include "session.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cstring>

using namespace kweb;

namespace {

std::vector<void *> g_woken;

void record_wake(void *stream)
{
    g_woken.push_back(stream);
}

// A daemon block: the text, its NUL and zero padding to a power of two.
std::string frame(std::string_view text)
{
    size_t cap = 32;
    while (cap < text.size() + 2)
        cap *= 2;
    std::string block(text);
    block.resize(cap, '\0');
    return block;
}

class web_session : public ::testing::Test {
protected:
    session_table table;
    int kelpd = -1; // our end of the control connection

    void SetUp() override
    {
        g_woken.clear();
        table.wake = record_wake;
    }
    void TearDown() override
    {
        if (kelpd >= 0)
            close(kelpd);
    }

    session *open(std::string_view domain = "rss", uint32_t profile = 1, time_t now = 1000)
    {
        int sv[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, sv), 0);
        if (kelpd >= 0)
            close(kelpd);
        kelpd = sv[1];
        session *s = nullptr;
        EXPECT_EQ(session_open(&table, domain, profile, now, &s), open_result::ok);
        EXPECT_EQ(s->state, link::waiting);
        EXPECT_TRUE(session_attach(s, kd_unique_fd(sv[0])));
        return s;
    }

    std::string next_request()
    {
        char buf[512];
        ssize_t n = recv(kelpd, buf, sizeof(buf), MSG_DONTWAIT);
        return n > 0 ? std::string(buf, static_cast<size_t>(n)) : std::string();
    }

    void say(std::string_view text)
    {
        std::string block = frame(text);
        ASSERT_EQ(send(kelpd, block.data(), block.size(), 0), static_cast<ssize_t>(block.size()));
    }

    // True when the session's side of the control connection is closed
    // (after the requests still queued for kelpd).
    bool control_closed()
    {
        char buf[512];
        ssize_t n;
        while ((n = recv(kelpd, buf, sizeof(buf), MSG_DONTWAIT)) > 0)
            continue;
        return n == 0;
    }

    static std::string take_all(session *s)
    {
        std::string out;
        char buf[7]; // small on purpose: events are taken in pieces
        size_t n;
        while ((n = session_take(s, buf, sizeof(buf))) > 0)
            out.append(buf, n);
        return out;
    }
};

} // namespace

TEST_F(web_session, OpenSendsTheLoginAndKeepsAToken)
{
    session *s = open("podcast", 7);
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(next_request(), "login\tv:3\tdomain:podcast\tprofile_id:7");
    EXPECT_EQ(s->token.size(), 32u);
    EXPECT_EQ(s->token.find_first_not_of("0123456789abcdef"), std::string::npos);
    EXPECT_EQ(session_find(&table, s->token), s);
    EXPECT_EQ(session_find(&table, "0123"), nullptr);
    session *other = open();
    EXPECT_NE(other->token, s->token);
}

TEST_F(web_session, DaemonMessagesBecomeEventsTakenInPieces)
{
    session *s = open();
    say("OK\tlogin\tdomain:rss\tprofile_id:1\tname:News\tfeed_id:4");
    EXPECT_TRUE(session_receive(&table, s, 0));
    say("overview\tdomain:rss\tprofile_id:1\tfeed_id:4\tnumber:0\tnumber_new:0");
    EXPECT_TRUE(session_receive(&table, s, 0));
    EXPECT_EQ(take_all(s),
              "data: {\"type\":\"answer\",\"ok\":true,\"cmd\":\"login\",\"domain\":\"rss\",\"profile_id\":1,"
              "\"feeds\":[{\"name\":\"News\",\"feed_id\":4}]}\n\n"
              "data: {\"type\":\"overview\",\"domain\":\"rss\",\"profile_id\":1,\"feed_id\":4,\"number\":0,"
              "\"number_new\":0,\"items\":[]}\n\n");
    EXPECT_EQ(s->queued, 0u);
    EXPECT_TRUE(s->queue.empty());
}

TEST_F(web_session, MessagesNotUnderstoodAreNotQueued)
{
    session *s = open();
    say("hello\tworld");
    EXPECT_TRUE(session_receive(&table, s, 0));
    EXPECT_EQ(s->queued, 0u);
}

TEST_F(web_session, RequestsGoUpAsOnePacket)
{
    session *s = open();
    next_request();
    EXPECT_TRUE(session_send(s, "body\tdomain:rss\tprofile_id:1\tfeed_id:4\tuid:17"));
    EXPECT_EQ(next_request(), "body\tdomain:rss\tprofile_id:1\tfeed_id:4\tuid:17");
}

TEST_F(web_session, AStreamIsWokenForEachEvent)
{
    session *s = open();
    EXPECT_TRUE(session_push(&table, s, "{}"));
    EXPECT_TRUE(g_woken.empty()); // no stream yet: the event waits
    int stream;
    s->stream = &stream;
    EXPECT_TRUE(session_push(&table, s, "{\"a\":1}"));
    ASSERT_EQ(g_woken.size(), 1u);
    EXPECT_EQ(g_woken[0], &stream);
    EXPECT_EQ(take_all(s), "data: {}\n\ndata: {\"a\":1}\n\n");
}

TEST_F(web_session, KeepaliveIsACommentOnlyWhenIdle)
{
    session *s = open();
    session_keepalive(&table, s);
    EXPECT_EQ(take_all(s), ":\n\n");
    session_push(&table, s, "{}");
    session_keepalive(&table, s);
    EXPECT_EQ(take_all(s), "data: {}\n\n");
}

TEST_F(web_session, BrowserGoneClosesTheControlConnection)
{
    session *s = open();
    int stream;
    s->stream = &stream;
    std::string token = s->token;
    session_stream_ended(&table, token);
    EXPECT_TRUE(table.all.empty());
    EXPECT_TRUE(control_closed());
    session_stream_ended(&table, token); // a second end finds nothing
}

TEST_F(web_session, KillWithoutStreamRemovesAtOnce)
{
    session *s = open();
    session_kill(&table, s);
    EXPECT_TRUE(table.all.empty());
    EXPECT_TRUE(control_closed());
}

TEST_F(web_session, KillWithStreamEndsTheStreamFirst)
{
    session *s = open();
    int stream;
    s->stream = &stream;
    session_push(&table, s, "{}");
    g_woken.clear();
    session_kill(&table, s);
    EXPECT_TRUE(control_closed());
    ASSERT_EQ(table.all.size(), 1u);
    EXPECT_TRUE(s->dead);
    EXPECT_EQ(s->queued, 0u);
    EXPECT_EQ(g_woken.size(), 1u);
    EXPECT_FALSE(session_push(&table, s, "{}"));
    session_stream_ended(&table, s->token);
    EXPECT_TRUE(table.all.empty());
}

TEST_F(web_session, ABrowserThatStopsReadingIsDroppedAtTheCap)
{
    session *s = open();
    int stream;
    s->stream = &stream;
    std::string big(64 * 1024, 'x');
    size_t pushed = 0;
    while (session_push(&table, s, big))
        pushed++;
    EXPECT_EQ(pushed, kMaxQueueBytes / (big.size() + 8));
    EXPECT_TRUE(s->dead);
    EXPECT_EQ(s->queued, 0u);
    EXPECT_TRUE(control_closed());
}

TEST_F(web_session, DroppedAtTheCapWithoutStreamIsRemoved)
{
    session *s = open();
    std::string big(kMaxQueueBytes, 'x');
    EXPECT_FALSE(session_push(&table, s, big));
    EXPECT_TRUE(table.all.empty());
    EXPECT_TRUE(control_closed());
}

TEST_F(web_session, KelpdClosingLeavesTheSessionWaiting)
{
    session *s = open();
    int stream;
    s->stream = &stream;
    say("OK\tlogin\tdomain:rss\tprofile_id:1");
    EXPECT_TRUE(session_receive(&table, s, 0));
    EXPECT_EQ(s->state, link::live);
    say("OK\tstatus\tdomain:rss\tprofile_id:1");
    next_request(); // kelpd has read the login before it goes
    close(kelpd);
    kelpd = -1;
    EXPECT_TRUE(session_receive(&table, s, 0));
    EXPECT_FALSE(session_receive(&table, s, 0));
    EXPECT_EQ(s->state, link::waiting);
    EXPECT_FALSE(s->ctl);
    EXPECT_FALSE(s->dead);
    EXPECT_EQ(session_find(&table, s->token), s);
    EXPECT_EQ(take_all(s), "data: {\"type\":\"answer\",\"ok\":true,\"cmd\":\"login\",\"domain\":\"rss\","
                           "\"profile_id\":1,\"feeds\":[]}\n\n"
                           "data: {\"type\":\"answer\",\"ok\":true,\"cmd\":\"status\",\"domain\":\"rss\","
                           "\"profile_id\":1}\n\n");
    EXPECT_FALSE(session_send(s, "status"));
    // kelpd is back: the same session logs in again on a new connection.
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, sv), 0);
    kelpd = sv[1];
    EXPECT_TRUE(session_attach(s, kd_unique_fd(sv[0])));
    EXPECT_EQ(s->state, link::login);
    EXPECT_EQ(next_request(), "login\tv:3\tdomain:rss\tprofile_id:1");
}

TEST_F(web_session, LoginRefusedForWantOfConfigurationIsSentAgain)
{
    session *s = open();
    EXPECT_EQ(next_request(), "login\tv:3\tdomain:rss\tprofile_id:1");
    say("ERROR\tlogin\t19:KD_NO_CONFIG\tdomain:rss\tprofile_id:1");
    EXPECT_TRUE(session_receive(&table, s, 5000));
    EXPECT_EQ(s->queued, 0u); // the page is not told
    EXPECT_EQ(s->state, link::login);
    EXPECT_EQ(s->relogin_at, 5000 + kReloginMs);
    session_relogin(&table, 5000 + kReloginMs - 1);
    EXPECT_EQ(next_request(), "");
    session_relogin(&table, 5000 + kReloginMs);
    EXPECT_EQ(next_request(), "login\tv:3\tdomain:rss\tprofile_id:1");
    EXPECT_EQ(s->relogin_at, 0);
    say("ERROR\tlogin\t14:KD_DOMAIN_NOT_FOUND\tdomain:rss\tprofile_id:1");
    EXPECT_TRUE(session_receive(&table, s, 6000));
    EXPECT_EQ(s->state, link::live); // any other answer is the page's
    EXPECT_NE(take_all(s).find("KD_DOMAIN_NOT_FOUND"), std::string::npos);
}

TEST_F(web_session, OnlyTheLoginAnswerMakesTheSessionLive)
{
    session *s = open();
    say("overview\tdomain:rss\tprofile_id:1\tfeed_id:4\tnumber:0\tnumber_new:0");
    EXPECT_TRUE(session_receive(&table, s, 0));
    EXPECT_EQ(s->state, link::login);
    say("OK\tlogin\tdomain:rss\tprofile_id:1");
    EXPECT_TRUE(session_receive(&table, s, 0));
    EXPECT_EQ(s->state, link::live);
    // A later refusal for want of configuration is passed on as it is.
    say("ERROR\tlogin\t19:KD_NO_CONFIG\tdomain:rss\tprofile_id:1");
    EXPECT_TRUE(session_receive(&table, s, 0));
    EXPECT_NE(take_all(s).find("KD_NO_CONFIG"), std::string::npos);
}

TEST_F(web_session, OversizedMessageIsDroppedAndTheNextOneArrives)
{
    table.max_packet = 4096;
    session *s = open();
    std::string huge = "overview\tdomain:rss\tsubject:" + std::string(4096, 'x');
    say(huge);
    say("OK\tstatus\tdomain:rss\tprofile_id:1");
    EXPECT_TRUE(session_receive(&table, s, 0));
    EXPECT_TRUE(session_receive(&table, s, 0));
    EXPECT_EQ(take_all(s), "data: {\"type\":\"error\",\"text\":\"a message from kelpd was too large and was "
                           "dropped\"}\n\ndata: {\"type\":\"answer\",\"ok\":true,\"cmd\":\"status\","
                           "\"domain\":\"rss\",\"profile_id\":1}\n\n");
}

TEST_F(web_session, ALargeMessageUnderTheLimitArrivesWhole)
{
    session *s = open();
    std::string subject(100000, 's');
    say("overview\tdomain:rss\tprofile_id:1\tfeed_id:4\tnumber:1\tnumber_new:1\tuid:1\tstate:0\tsubject:" + subject);
    EXPECT_TRUE(session_receive(&table, s, 0));
    EXPECT_NE(take_all(s).find("\"subject\":\"" + subject + "\"}]}\n\n"), std::string::npos);
}

TEST_F(web_session, ASessionWithoutStreamExpires)
{
    session *s = open("rss", 1, 1000);
    session_expire(&table, 1000 + kAttachSeconds);
    ASSERT_EQ(table.all.size(), 1u);
    session_expire(&table, 1000 + kAttachSeconds + 1);
    EXPECT_TRUE(table.all.empty());
    EXPECT_TRUE(control_closed());
    (void)s;
}

TEST_F(web_session, ASessionWithStreamDoesNotExpire)
{
    session *s = open("rss", 1, 1000);
    int stream;
    s->stream = &stream;
    session_expire(&table, 1000 + 10 * kAttachSeconds);
    EXPECT_EQ(table.all.size(), 1u);
}

TEST_F(web_session, SessionsAreLimited)
{
    for (size_t i = 0; i < kMaxSessions; i++)
        open();
    session *s = nullptr;
    EXPECT_EQ(session_open(&table, "rss", 1, 0, &s), open_result::too_many);
    EXPECT_EQ(s, nullptr);
    EXPECT_EQ(table.all.size(), kMaxSessions);
}

TEST_F(web_session, ASessionWaitsForKelpdAndTakesNoRequests)
{
    session *s = nullptr;
    ASSERT_EQ(session_open(&table, "rss", 1, 0, &s), open_result::ok);
    EXPECT_EQ(s->state, link::waiting);
    EXPECT_FALSE(session_send(s, "status"));
    EXPECT_FALSE(session_receive(&table, s, 0));
    EXPECT_EQ(ctl_connect("/nonexistent/kelpd.ctl"), -1);
}
