// The configd session callbacks, driven directly with trees; what they send
// is read from the far end of a socket pair.
#include <sys/socket.h>
#include "platform/rpc.h"
#include "platform/rpc_configd.h"
#include "platform/rpc_wire.h"
#include "tests/unit/client/session_fixture.h"

using namespace kelp_test;

namespace {

const char kDoc[] = "<?xml version=\"1.0\"?><pool><entry id=\"1\" url=\"http://feeds.test/a\"/></pool>"
                    "<profiles><profile id=\"1\"><item entry=\"1\"/></profile></profiles>";
const char kEmpty[] = "<?xml version=\"1.0\"?><pool/><profiles><profile id=\"1\"/></profiles>";

struct sent {
    uint32_t id, tag;
    std::string s, xml;
    std::vector<std::string> list;
};

class configd_session_test : public session_test {
protected:
    int fds[2] = {-1, -1};
    rpc_conn *conn = nullptr;
    std::string pending;

    void SetUp() override
    {
        session_test::SetUp();
        g_configstate = 1;
        kd_config_set_received(0);
        ASSERT_EQ(rpc_addiface(&g_ConfigD_IfaceInfo, g_ConfigD_ParamsList, 0, 0), 0);
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
        conn = rpc_adopt_fd(fds[0], &g_ConfigD_IfaceInfo, nullptr, 0);
        ASSERT_NE(conn, nullptr);
    }
    void TearDown() override
    {
        // Forgets the remembered connection so that no test sees another's.
        rpc_msg ev{};
        kd_configd_closed(conn, &ev);
        if (!rpc_isempty())
            rpc_close(conn);
        for (int i = 0; i < 10 && !rpc_isempty(); i++)
            pump();
        EXPECT_TRUE(rpc_isempty());
        close(fds[1]);
        session_test::TearDown();
    }
    // Everything the session has sent so far, decoded.
    std::vector<sent> sent_frames()
    {
        for (int i = 0; i < 3; i++)
            pump();
        char buf[65536];
        ssize_t n;
        while ((n = recv(fds[1], buf, sizeof buf, MSG_DONTWAIT)) > 0)
            pending.append(buf, size_t(n));
        std::vector<sent> out;
        uint32_t len;
        while (rpcw_frame_ready(reinterpret_cast<const uint8_t *>(pending.data()), pending.size(), &len) == 1) {
            rpc_msg m;
            EXPECT_EQ(rpcw_decode(reinterpret_cast<const uint8_t *>(pending.data()) + 4, len, g_ConfigD_ParamsList, &m), 1);
            sent f{m.id, m.tag, m.s ? m.s : "", m.x ? render(m.x) : "", {}};
            f.list.assign(m.list, m.list + m.nlist);
            out.push_back(f);
            rpcw_msg_clear(&m);
            pending.erase(0, 4 + len);
        }
        return out;
    }
    static std::string render(mxml_node_t *x)
    {
        char *t = mxmlSaveAllocString(x, MXML_NO_CALLBACK);
        std::string s = t;
        free(t);
        return s;
    }
    // configd's reply to a fetch: a tree, or an error reply with its reason.
    rpc_msg reply(uint32_t tag, mxml_node_t *x, const char *reason)
    {
        rpc_msg m{};
        m.id = RPC_CONFIGD_GET_CONFIG;
        m.tag = tag;
        m.is_reply = 1;
        m.x = x;
        m.error = const_cast<char *>(reason);
        kd_configd_data(conn, &m);
        return m;
    }
    rpc_msg deliver(uint32_t tag, const char *xml) { return reply(tag, load_doc(xml), nullptr); }
    void refuse(uint32_t tag, const char *reason) { reply(tag, nullptr, reason); }
    // The connection as the session remembers it once established.
    void establish()
    {
        rpc_msg ev{};
        kd_configd_established(conn, &ev);
        sent_frames();
        captured_log().clear();
    }
    void indicate(const char *domain)
    {
        rpc_msg m{};
        m.id = RPC_CONFIGD_CHANGE_IND;
        m.s = const_cast<char *>(domain);
        kd_configd_change(conn, &m);
    }
};

TEST_F(configd_session_test, EstablishedSubscribesAndFetchesBothDomains)
{
    g_configstate = 0;
    rpc_msg ev{};
    ev.id = 2;
    kd_configd_established(conn, &ev);
    EXPECT_TRUE(log_has_prio("configd connection established", LOG_INFO));
    EXPECT_EQ(g_configstate, 1);
    auto f = sent_frames();
    ASSERT_EQ(f.size(), 3u);
    EXPECT_EQ(f[0].id, RPC_CONFIGD_SUBSCRIBE);
    EXPECT_EQ(f[0].tag, 0u);
    EXPECT_EQ(f[0].list, (std::vector<std::string>{"rss", "podcast"}));
    EXPECT_EQ(f[1].id, RPC_CONFIGD_GET_CONFIG);
    EXPECT_EQ(f[1].tag, 1u);
    EXPECT_EQ(f[1].s, "rss");
    EXPECT_EQ(f[2].tag, 2u);
    EXPECT_EQ(f[2].s, "podcast");
}

TEST_F(configd_session_test, RssDocumentIsTakenAndAdopted)
{
    rpc_msg m = deliver(1, kDoc);
    EXPECT_EQ(m.x, nullptr);
    ASSERT_NE(g_rssdomain, nullptr);
    EXPECT_NE(mxmlFindElement(g_rssdomain, g_rssdomain, "pool", nullptr, nullptr, MXML_DESCEND_FIRST), nullptr);
    EXPECT_EQ(kd_config_received(), 1u);
    EXPECT_EQ(g_configstate, 2);
    EXPECT_TRUE(log_has_prio("incoming config data (handle=1)", LOG_INFO));
}

TEST_F(configd_session_test, PodcastOnlyIsNotYetComplete)
{
    deliver(2, kEmpty);
    EXPECT_EQ(kd_config_received(), 2u);
    EXPECT_NE(g_poddomain, nullptr);
    EXPECT_EQ(g_rssdomain, nullptr);
    EXPECT_EQ(kd_config_empty(), 0);
    EXPECT_FALSE(log_has("config has no items"));
    deliver(1, kEmpty);
    EXPECT_EQ(kd_config_received(), 3u);
    EXPECT_EQ(kd_config_empty(), 1);
    EXPECT_TRUE(log_has("config has no items"));
}

TEST_F(configd_session_test, UnknownHandleIsLoggedAndLeftWithTheLibrary)
{
    rpc_msg m = deliver(0, kDoc);
    EXPECT_TRUE(log_has_prio("received config for unknown handle 0 - ignored", LOG_ERR));
    ASSERT_NE(m.x, nullptr);
    mxmlDelete(m.x);
    EXPECT_EQ(g_rssdomain, nullptr);
    EXPECT_EQ(kd_config_received(), 0u);
    EXPECT_EQ(g_configstate, 2);
}

TEST_F(configd_session_test, DocumentWithoutPoolIsTakenButNotAdopted)
{
    deliver(1, kDoc);
    mxml_node_t *running = g_rssdomain;
    rpc_msg m = deliver(1, "<?xml version=\"1.0\"?><profiles/>");
    EXPECT_EQ(m.x, nullptr);
    EXPECT_EQ(g_rssdomain, running);
    EXPECT_TRUE(log_has_prio("missing <pool>-node in config", LOG_CRIT));
    EXPECT_EQ(g_configstate, 2);
    deliver(2, "<?xml version=\"1.0\"?><pool/>");
    EXPECT_TRUE(log_has_prio("missing <profiles>-node in config", LOG_CRIT));
    EXPECT_EQ(g_poddomain, nullptr);
    EXPECT_EQ(kd_config_received(), 3u);
}

TEST_F(configd_session_test, ErrorReplyToAFetchIsLoggedAndAnswersTheRequest)
{
    establish();
    deliver(1, kDoc);
    mxml_node_t *running = g_rssdomain;
    indicate("rss");
    sent_frames();
    refuse(1, "cannot read stored document");
    EXPECT_TRUE(log_has_prio("configd refused config request (handle=1): cannot read stored document", LOG_ERR));
    EXPECT_EQ(g_configstate, 2);
    EXPECT_EQ(kd_config_received(), 1u);
    EXPECT_EQ(g_rssdomain, running);
    // Read marks made since go out again.
    kd_save_config(g_rssdomain);
    EXPECT_EQ(sent_frames().size(), 1u);
}

TEST_F(configd_session_test, ErrorReplyBeforeAnyDocumentAddsNoReceivedBit)
{
    refuse(2, "invalid domain name");
    EXPECT_TRUE(log_has("configd refused config request (handle=2): invalid domain name"));
    EXPECT_EQ(kd_config_received(), 0u);
    EXPECT_EQ(g_poddomain, nullptr);
    EXPECT_EQ(kd_config_empty(), 0);
}

// Without the declaration line the single top-level element is the root.
TEST_F(configd_session_test, WrapperElementIsTheRootOfADocument)
{
    deliver(1, "<config><pool><entry id=\"1\" url=\"http://feeds.test/a\"/></pool>"
               "<profiles><profile id=\"4\"><item entry=\"1\"/></profile></profiles></config>");
    ASSERT_NE(g_rssdomain, nullptr);
    EXPECT_STREQ(mxmlGetElement(g_rssdomain), "config");
    EXPECT_NE(profile_in(g_rssproflist, 4), nullptr);
    EXPECT_NE(feed_of(g_rssdomain, "1"), nullptr);
}

TEST_F(configd_session_test, PoolBelowAWrapperUnderTheDeclarationIsNotFound)
{
    rpc_msg m = deliver(1, "<?xml version=\"1.0\"?><config><pool/><profiles/></config>");
    EXPECT_EQ(m.x, nullptr);
    EXPECT_TRUE(log_has_prio("missing <pool>-node in config", LOG_CRIT));
    EXPECT_EQ(g_rssdomain, nullptr);
}

TEST_F(configd_session_test, TrafficLinesNeedVerbosityThree)
{
    verbosity = 2;
    g_configstate = 0;
    rpc_msg ev{};
    kd_configd_established(conn, &ev);
    deliver(1, kEmpty);
    indicate("rss");
    kd_config_close(conn);
    kd_configd_closed(conn, &ev);
    EXPECT_TRUE(captured_log().empty());
    EXPECT_EQ(sent_frames().size(), 4u);
    EXPECT_EQ(g_configstate, -1);
}

TEST_F(configd_session_test, ErrorLinesNeedVerbosityOne)
{
    verbosity = 0;
    rpc_msg m = deliver(0, kDoc);
    mxmlDelete(m.x);
    rpc_msg err{};
    err.code = 5;
    kd_configd_error(conn, &err);
    kd_save_config(nullptr);
    EXPECT_TRUE(captured_log().empty());
    verbosity = 1;
    kd_save_config(nullptr);
    EXPECT_TRUE(log_has_prio("unable to save config, non-matching domain node", LOG_CRIT));
}

TEST_F(configd_session_test, ChangeIndicationFetchesTheDomainAgain)
{
    g_configstate = 2;
    indicate("rss");
    EXPECT_TRUE(log_has_prio("config change on domain 'rss' indicated", LOG_INFO));
    EXPECT_EQ(g_configstate, 1);
    indicate("podcast");
    auto f = sent_frames();
    ASSERT_EQ(f.size(), 2u);
    EXPECT_EQ(f[0].id, RPC_CONFIGD_GET_CONFIG);
    EXPECT_EQ(f[0].tag, 1u);
    EXPECT_EQ(f[0].s, "rss");
    EXPECT_EQ(f[1].tag, 2u);
}

TEST_F(configd_session_test, ChangeOfAnotherDomainUsesTagZeroAndItsReplyIsDropped)
{
    indicate("weather");
    auto f = sent_frames();
    ASSERT_EQ(f.size(), 1u);
    EXPECT_EQ(f[0].tag, 0u);
    EXPECT_EQ(f[0].s, "weather");
    rpc_msg m = deliver(0, kDoc);
    EXPECT_TRUE(log_has("received config for unknown handle 0 - ignored"));
    mxmlDelete(m.x);
}

TEST_F(configd_session_test, SavesWaitWhileAChangedDocumentIsPending)
{
    establish();
    deliver(1, kDoc);
    indicate("rss");
    ASSERT_EQ(sent_frames().size(), 1u);
    EXPECT_EQ(g_configstate, 1);
    kd_save_config(g_rssdomain);
    EXPECT_TRUE(sent_frames().empty());
    deliver(1, kDoc);
    EXPECT_EQ(g_configstate, 2);
    kd_save_config(g_rssdomain);
    auto f = sent_frames();
    ASSERT_EQ(f.size(), 1u);
    EXPECT_EQ(f[0].id, RPC_CONFIGD_SAVE_CONFIG);
    EXPECT_EQ(f[0].tag, 0u);
    EXPECT_EQ(f[0].s, "rss");
    EXPECT_EQ(f[0].xml, render(g_rssdomain));
}

TEST_F(configd_session_test, SavesGoOutOnlyOnceTheDocumentHasArrived)
{
    establish();
    deliver(1, kDoc);
    for (int32_t state : {-1, 0, 1, 3}) {
        g_configstate = state;
        kd_save_config(g_rssdomain);
        EXPECT_TRUE(sent_frames().empty()) << "state " << state;
    }
    g_configstate = 2;
    kd_save_config(g_rssdomain);
    EXPECT_EQ(sent_frames().size(), 1u);
}

TEST_F(configd_session_test, SaveNamesTheDomainOrRefusesAForeignNode)
{
    establish();
    deliver(2, kDoc);
    captured_log().clear();
    kd_save_config(g_poddomain);
    auto f = sent_frames();

    ASSERT_EQ(f.size(), 1u);
    EXPECT_EQ(f[0].s, "podcast");
    EXPECT_TRUE(log_has_prio(render(g_poddomain), LOG_DEBUG));   // the document at verbosity 4
    mxml_node_t *pool = mxmlFindElement(g_poddomain, g_poddomain, "pool", nullptr, nullptr, MXML_DESCEND);
    kd_save_config(pool);
    kd_save_config(nullptr);
    EXPECT_EQ(log_count("unable to save config, non-matching domain node"), 2u);
    verbosity = 3;
    captured_log().clear();
    kd_save_config(g_poddomain);
    EXPECT_TRUE(captured_log().empty());
    EXPECT_EQ(sent_frames().size(), 1u);
}

TEST_F(configd_session_test, ErrorLogsTheLowByteAndCloses)
{
    rpc_msg m{};
    m.id = 0x10;
    m.code = 0x103;
    kd_configd_error(conn, &m);
    EXPECT_TRUE(log_has_prio("configd error 3", LOG_CRIT));
    EXPECT_EQ(g_configstate, 3);
    for (int i = 0; i < 10 && !rpc_isempty(); i++)
        pump();
    EXPECT_TRUE(rpc_isempty());
}

void dummy_timer(void *, int) {}

TEST_F(configd_session_test, ClosedFreesProfilesFeedsAndDocuments)
{
    establish();
    deliver(1, kDoc);
    deliver(2, kDoc);
    ASSERT_NE(g_rssproflist, nullptr);
    kd_node *feed = feed_of(g_poddomain, "1");
    ASSERT_NE(feed, nullptr);
    feed->timer = timeout_add(dummy_timer, 100, feed, 1);
    int timer = feed->timer;
    rpc_msg ev{};
    ev.id = 1;
    kd_configd_closed(conn, &ev);
    EXPECT_TRUE(log_has_prio("configd connection closed", LOG_INFO));
    EXPECT_EQ(g_configstate, -1);
    EXPECT_EQ(g_rssproflist, nullptr);
    EXPECT_EQ(g_podproflist, nullptr);
    EXPECT_EQ(g_rssdomain, nullptr);
    EXPECT_EQ(g_poddomain, nullptr);
    EXPECT_EQ(timeout_del(timer), -1);
    EXPECT_EQ(kd_config_received(), 3u);   // received bits are never cleared
    // The connection is forgotten: a later save has nowhere to go.
    deliver(1, kDoc);
    kd_save_config(g_rssdomain);
    EXPECT_TRUE(sent_frames().empty());
}

// Connections are unlinked (rss profiles first) before any feed record goes,
// since unlinking stops the polls of those records.
TEST_F(configd_session_test, ClosedUnlinksEveryConnectionBeforeFreeingFeeds)
{
    establish();
    deliver(1, kDoc);
    deliver(2, kDoc);
    int a = connect_client(), b = connect_client();
    ASSERT_EQ(request(a, "login\tv:3\tdomain:podcast\tprofile_id:1").rfind("OK\tlogin", 0), 0u);
    ASSERT_EQ(request(b, "login\tv:3\tdomain:rss\tprofile_id:1").rfind("OK\tlogin", 0), 0u);
    ASSERT_EQ(request(a, "login\tv:3\tdomain:rss\tprofile_id:1").rfind("OK\tlogin", 0), 0u);
    EXPECT_GT(feed_of(g_rssdomain, "1")->timer, 0);
    kd_profile *rss = profile_in(g_rssproflist, 1);
    ASSERT_EQ(rss->nconns, 2u);
    std::string first = "unlinking profile 1 from connection on sd " + std::to_string(csock_fileno(rss->connections[0]->handle));
    std::string second = "unlinking profile 1 from connection on sd " + std::to_string(csock_fileno(rss->connections[1]->handle));
    captured_log().clear();
    rpc_msg ev{};
    kd_configd_closed(conn, &ev);
    std::vector<std::string> unlinks;
    for (const auto &l : captured_log())
        if (l.text.rfind("unlinking profile", 0) == 0 || l.text.rfind("stop poll on", 0) == 0)
            unlinks.push_back(l.text);
    ASSERT_EQ(unlinks.size(), 5u);
    EXPECT_EQ(unlinks[0], first);
    EXPECT_EQ(unlinks[1], second);
    EXPECT_EQ(unlinks[2], "stop poll on: http://feeds.test/a");
    EXPECT_EQ(unlinks[3], second);
    EXPECT_EQ(unlinks[4], "stop poll on: http://feeds.test/a");
    EXPECT_EQ(client_at(0)->nprofiles, 0u);
    EXPECT_EQ(client_at(1)->nprofiles, 0u);
    EXPECT_EQ(g_rssproflist, nullptr);
    EXPECT_EQ(g_podproflist, nullptr);
}

TEST_F(configd_session_test, CloseLogsAndEndsTheConnectionFromTheLoop)
{
    kd_config_close(conn);
    EXPECT_TRUE(log_has_prio("disconnecting from configd ...", LOG_INFO));
    EXPECT_EQ(g_configstate, 3);
    EXPECT_FALSE(rpc_isempty());
    for (int i = 0; i < 10 && !rpc_isempty(); i++)
        pump();
    EXPECT_TRUE(rpc_isempty());
}

TEST_F(configd_session_test, InitStateFollowsTheConnection)
{
    rpc_conn *c = kd_config_init();
    EXPECT_TRUE(log_has_prio("connecting to configd ...", LOG_INFO));
    EXPECT_EQ(g_configstate, c ? 0 : -1);
    if (c)
        rpc_close(c);
}

} // namespace
