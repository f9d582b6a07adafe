// The RPC connections over socket pairs: every message format both ways,
// events only from the loop, large documents, bad peers, no leaks.
#include <sys/socket.h>
#include <syslog.h>
#include <unistd.h>
#include <algorithm>
#include <cstring>
#include <string>
#include <vector>
#include "platform/rpc.h"
#include "platform/rpc_configd.h"
#include "platform/rpc_wire.h"
#include "rpc_fixture.h"
#include "tests/unit/log_capture.h"

using namespace kelp_test;

namespace {

struct seen {
    std::vector<uint32_t> events;   // ids in order of delivery
    std::vector<uint32_t> tags;
    std::vector<int32_t> codes;
    std::string s, error, xml;
    std::vector<std::string> list;
    rpc_conn *conn = nullptr;
};
seen g_cli, g_srv;

void record(seen &w, rpc_conn *c, rpc_msg *m)
{
    w.conn = c;
    w.events.push_back(m->id);
    w.tags.push_back(m->tag);
    w.codes.push_back(m->code);
    if (m->s)
        w.s = m->s;
    if (m->error)
        w.error = m->error;
    if (m->x)
        w.xml = render(m->x);
    w.list.assign(m->list, m->list + m->nlist);
}

void cli_cb(rpc_conn *c, rpc_msg *m) { record(g_cli, c, m); }
void srv_cb(rpc_conn *c, rpc_msg *m) { record(g_srv, c, m); }

// The server answers a get with a document named after the domain.
void srv_get(rpc_conn *c, rpc_msg *m)
{
    record(g_srv, c, m);
    mxml_node_t *doc = mxmlLoadString(nullptr, ("<" + std::string(m->s) + "/>").c_str(), MXML_OPAQUE_CALLBACK);
    rpc_send_reply(c, m->id, m->tag, doc);
    mxmlDelete(doc);
}

mxml_node_t *g_kept;
void cli_keep(rpc_conn *c, rpc_msg *m)
{
    record(g_cli, c, m);
    g_kept = m->x;
    m->x = nullptr;
}

const rpc_callback cli_table[] = {{1, cli_cb}, {2, cli_cb}, {0x10, cli_cb}, {0x10000002, cli_cb},
                                  {0x10000003, cli_cb}, {0x20000000, cli_cb}, {0, nullptr}};
const rpc_callback srv_table[] = {{1, srv_cb}, {2, srv_cb}, {0x10, srv_cb}, {0x10000001, srv_cb},
                                  {0x10000002, srv_get}, {0x10000003, srv_cb}, {0x20000000, srv_cb},
                                  {0, nullptr}};

bool has(const seen &w, uint32_t id)
{
    for (uint32_t e : w.events)
        if (e == id)
            return true;
    return false;
}

struct RpcTest : LoopTest {
    int fds[2];
    rpc_conn *cli = nullptr, *srv = nullptr;
    void SetUp() override
    {
        LoopTest::SetUp();
        g_cli = seen{};
        g_srv = seen{};
        g_kept = nullptr;
        ASSERT_EQ(rpc_addiface(&g_ConfigD_IfaceInfo, g_ConfigD_ParamsList, 0, 0), 0);
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
    }
    void pair()
    {
        cli = rpc_adopt_fd(fds[0], &g_ConfigD_IfaceInfo, cli_table, 0);
        srv = rpc_adopt_fd(fds[1], &g_ConfigD_IfaceInfo, srv_table, 1);
        ASSERT_TRUE(cli && srv);
        ASSERT_TRUE(pump_until([] { return has(g_cli, 2) && has(g_srv, 2); }));
    }
    // Only the client side is an rpc connection; the test writes raw bytes.
    void half()
    {
        cli = rpc_adopt_fd(fds[0], &g_ConfigD_IfaceInfo, cli_table, 0);
        ASSERT_TRUE(cli);
    }
    void close_all()
    {
        if (cli && !has(g_cli, 1)) {
            rpc_close(cli);
            ASSERT_TRUE(pump_until([] { return has(g_cli, 1); }));
        }
        if (srv && !has(g_srv, 1)) {
            rpc_close(srv);
            ASSERT_TRUE(pump_until([] { return has(g_srv, 1); }));
        }
        if (g_kept)
            mxmlDelete(g_kept);
        g_kept = nullptr;
        EXPECT_TRUE(rpc_isempty());
    }
};

TEST_F(RpcTest, EstablishedComesFromTheLoopNotFromSetup)
{
    half();
    EXPECT_TRUE(g_cli.events.empty());
    EXPECT_EQ(rpc_send_req(cli, 0x10000002, 1, "rss"), 0);
    EXPECT_TRUE(g_cli.events.empty());
    EXPECT_FALSE(rpc_isempty());
    ASSERT_TRUE(pump_until([] { return has(g_cli, 2); }));
    EXPECT_EQ(g_cli.events.front(), 2u);
    close(fds[1]);
    ASSERT_TRUE(pump_until([] { return has(g_cli, 1); }));
    close_all();
}

TEST_F(RpcTest, GetRepliesCarryTheTagAndATree)
{
    pair();
    ASSERT_EQ(rpc_send_req(cli, 0x10000002, 1, "rss"), 0);
    ASSERT_EQ(rpc_send_req(cli, 0x10000002, 2, "podcast"), 0);
    ASSERT_TRUE(pump_until([] { return g_cli.tags.size() >= 3; }));
    EXPECT_EQ(g_cli.events[1], 0x10000002u);
    EXPECT_EQ(g_cli.tags[1], 1u);
    EXPECT_EQ(g_cli.tags[2], 2u);
    EXPECT_EQ(g_cli.xml, "<podcast />\n");
    close_all();
}

TEST_F(RpcTest, HandlerMayKeepTheTree)
{
    pair();
    static const rpc_callback keep[] = {{1, cli_cb}, {0x10000002, cli_keep}, {0, nullptr}};
    rpc_close(cli);
    ASSERT_TRUE(pump_until([] { return has(g_cli, 1) && has(g_srv, 1); }));
    int f[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, f), 0);
    g_cli = seen{};
    g_srv = seen{};
    cli = rpc_adopt_fd(f[0], &g_ConfigD_IfaceInfo, keep, 0);
    srv = rpc_adopt_fd(f[1], &g_ConfigD_IfaceInfo, srv_table, 1);
    rpc_send_req(cli, 0x10000002, 1, "kept");
    ASSERT_TRUE(pump_until([] { return g_kept != nullptr; }));
    EXPECT_STREQ(mxmlGetElement(g_kept), "kept");
    close_all();
}

TEST_F(RpcTest, ArrayTextAndTreeAndIndicationAndVoidReply)
{
    pair();
    static const char *const names[] = {"rss", "", "podcast", nullptr};
    ASSERT_EQ(rpc_send_req(cli, 0x10000001, 0, names), 0);
    ASSERT_TRUE(pump_until([] { return has(g_srv, 0x10000001); }));
    EXPECT_EQ(g_srv.list, (std::vector<std::string>{"rss", "", "podcast"}));

    mxml_node_t *doc = mxmlLoadString(nullptr, "<?xml version=\"1.0\"?><pool a=\"&amp;\"/>\n<profiles>t</profiles>",
                                      MXML_OPAQUE_CALLBACK);
    ASSERT_EQ(rpc_send_req(cli, 0x10000003, 5, "rss", doc), 0);
    ASSERT_TRUE(pump_until([] { return has(g_srv, 0x10000003); }));
    EXPECT_EQ(g_srv.s, "rss");
    EXPECT_EQ(g_srv.xml, render(doc));
    EXPECT_EQ(g_srv.tags.back(), 5u);
    mxmlDelete(doc);

    ASSERT_EQ(rpc_send_ind(srv, 0x20000000, "podcast"), 0);
    ASSERT_TRUE(pump_until([] { return has(g_cli, 0x20000000); }));
    EXPECT_EQ(g_cli.s, "podcast");

    ASSERT_EQ(rpc_send_reply(srv, 0x20000000, 9), 0);   // "v": an empty reply
    ASSERT_TRUE(pump_until([] { return g_cli.events.size() >= 3; }));
    EXPECT_EQ(g_cli.events.back(), 0x20000000u);
    EXPECT_EQ(g_cli.tags.back(), 9u);
    close_all();
}

TEST_F(RpcTest, ErrorReplyReachesTheHandlerWithItsReason)
{
    pair();
    ASSERT_EQ(rpc_send_error(srv, 0x10000003, 4, "no such domain"), 0);
    ASSERT_TRUE(pump_until([] { return has(g_cli, 0x10000003); }));
    EXPECT_EQ(g_cli.error, "no such domain");
    EXPECT_EQ(g_cli.tags.back(), 4u);
    close_all();
}

// An owner without a handler for a refusal (kelpd has none for its saves)
// still gets the reason into the log instead of losing it.
TEST_F(RpcTest, ErrorReplyWithoutAHandlerIsLogged)
{
    static const rpc_callback no_save_table[] = {{1, cli_cb}, {2, cli_cb}, {0x10, cli_cb},
                                                 {0x20000000, cli_cb}, {0, nullptr}};
    cli = rpc_adopt_fd(fds[0], &g_ConfigD_IfaceInfo, no_save_table, 0);
    srv = rpc_adopt_fd(fds[1], &g_ConfigD_IfaceInfo, srv_table, 1);
    ASSERT_TRUE(cli && srv);
    ASSERT_TRUE(pump_until([] { return has(g_cli, 2) && has(g_srv, 2); }));
    captured_log().clear();
    ASSERT_EQ(rpc_send_error(srv, 0x10000003, 0, "cannot store document: No space left on device"), 0);
    rpc_send_error(srv, 0x20000000, 0, "a refusal the owner handles");
    ASSERT_TRUE(pump_until([] { return has(g_cli, 0x20000000); }));
    EXPECT_TRUE(log_has_prio("rpc: request 0x10000003 refused: cannot store document: No space left on device",
                             LOG_ERR));
    EXPECT_EQ(captured_log().size(), 1u);
    close_all();
}

TEST_F(RpcTest, DocumentOverTwoMebibytesRoundTrips)
{
    pair();
    mxml_node_t *root = mxmlNewXML("1.0");
    mxml_node_t *pool = mxmlNewElement(root, "pool");
    for (int i = 0; i < 40000; i++) {
        mxml_node_t *e = mxmlNewElement(pool, "entry");
        mxmlElementSetAttr(e, "id", std::to_string(i).c_str());
        mxmlElementSetAttr(e, "url", "http://feeds.test/a/rather/long/path/to/the/feed.xml");
    }
    std::string want = render(root);
    ASSERT_GT(want.size(), 2u * 1024 * 1024);
    ASSERT_EQ(rpc_send_req(cli, 0x10000003, 0, "rss", root), 0);
    mxmlDelete(root);
    ASSERT_TRUE(pump_until([] { return has(g_srv, 0x10000003); }));
    EXPECT_EQ(g_srv.xml, want);
    close_all();
}

TEST_F(RpcTest, ABufferOfSentFramesIsGivenBackOnceDrained)
{
    half();
    ASSERT_TRUE(pump_until([] { return has(g_cli, 2); }));
    size_t before = slab_live_bytes();
    mxml_node_t *root = mxmlNewXML("1.0");
    mxmlElementSetAttr(mxmlNewElement(root, "pool"), "text", std::string(100000, 'x').c_str());
    ASSERT_EQ(rpc_send_req(cli, 0x10000003, 0, "rss", root), 0);
    mxmlDelete(root);
    // The peer reads the frame; what the client kept for it is released.
    std::vector<char> got(200000);
    size_t n = 0;
    ASSERT_TRUE(pump_until([&] {
        ssize_t r = recv(fds[1], got.data() + n, got.size() - n, MSG_DONTWAIT);
        n += r > 0 ? size_t(r) : 0;
        return n > 100000;
    }));
    EXPECT_EQ(slab_live_bytes(), before);
    close_all();
}

TEST_F(RpcTest, RefusedSends)
{
    pair();
    EXPECT_EQ(rpc_send_req(cli, 0x12345678, 0, "x"), -1);
    EXPECT_EQ(rpc_send_req(cli, 0x10000002, 0, static_cast<const char *>(nullptr)), -1);
    EXPECT_EQ(rpc_send_req(nullptr, 0x10000002, 0, "x"), -1);
    rpc_close(cli);
    EXPECT_EQ(rpc_send_req(cli, 0x10000002, 0, "x"), -1);
    rpc_close(cli);   // twice is harmless
    EXPECT_FALSE(has(g_cli, 1));
    ASSERT_TRUE(pump_until([] { return has(g_cli, 1) && has(g_srv, 1); }));
    EXPECT_EQ(std::count(g_cli.events.begin(), g_cli.events.end(), 1u), 1);
    close_all();
}

TEST_F(RpcTest, CloseSendsQueuedFramesFirst)
{
    pair();
    mxml_node_t *doc = mxmlLoadString(nullptr, "<a/>", MXML_OPAQUE_CALLBACK);
    rpc_send_req(cli, 0x10000003, 0, "rss", doc);
    mxmlDelete(doc);
    rpc_close(cli);
    ASSERT_TRUE(pump_until([] { return has(g_srv, 1); }));
    EXPECT_TRUE(has(g_srv, 0x10000003));
    close_all();
}

void write_raw(int fd, const std::string &bytes)
{
    ASSERT_EQ(write(fd, bytes.data(), bytes.size()), ssize_t(bytes.size()));
}

std::string be32(uint32_t v)
{
    return std::string{char(v >> 24), char(v >> 16), char(v >> 8), char(v)};
}

std::string raw_frame(uint8_t kind, uint32_t id, uint32_t tag, const std::string &body)
{
    std::string p = std::string(1, char(kind)) + be32(id) + be32(tag) + body;
    return be32(uint32_t(p.size())) + p;
}

struct Garbage {
    std::string bytes;
    int32_t code;
};

class RpcGarbage : public RpcTest, public ::testing::WithParamInterface<Garbage> {};

TEST_P(RpcGarbage, GivesErrorThenClosed)
{
    half();
    write_raw(fds[1], GetParam().bytes);
    ASSERT_TRUE(pump_until([] { return has(g_cli, 1); }));
    ASSERT_GE(g_cli.events.size(), 3u);
    EXPECT_EQ(g_cli.events[g_cli.events.size() - 2], 0x10u);
    EXPECT_EQ(g_cli.codes[g_cli.events.size() - 2], GetParam().code);
    EXPECT_EQ(g_cli.events.back(), 1u);
    EXPECT_TRUE(rpc_isempty());
    close(fds[1]);
    close_all();
}

INSTANTIATE_TEST_SUITE_P(
    Frames, RpcGarbage,
    ::testing::Values(Garbage{be32(0x01000001) + "xxxx", RPC_ERR_TOOBIG}, Garbage{be32(0xffffffff), RPC_ERR_TOOBIG},
                      Garbage{be32(3) + "abc", RPC_ERR_MALFORMED},
                      Garbage{raw_frame(7, 0x10000002, 1, be32(1) + "a"), RPC_ERR_MALFORMED},
                      Garbage{raw_frame(2, 0x10000002, 1, be32(100) + "<a/>"), RPC_ERR_MALFORMED},
                      Garbage{raw_frame(2, 0x10000002, 1, be32(4) + "<a/>zz"), RPC_ERR_MALFORMED},
                      Garbage{raw_frame(2, 0x10000002, 1, be32(4) + "<a>\0"), RPC_ERR_MALFORMED},
                      Garbage{raw_frame(2, 0x10000002, 1, be32(5) + "<a><b"), RPC_ERR_MALFORMED},
                      Garbage{raw_frame(2, 0x10000002, 1, be32(3) + "<a>"), RPC_ERR_MALFORMED},
                      Garbage{raw_frame(3, 0x10000001, 0, be32(0x40000000)), RPC_ERR_MALFORMED},
                      Garbage{raw_frame(1, 0x10000002, 1, be32(3) + "rss"), RPC_ERR_MALFORMED}));

TEST_F(RpcTest, ServerTakesARepliedFrameAsMalformed)
{
    srv = rpc_adopt_fd(fds[1], &g_ConfigD_IfaceInfo, srv_table, 1);
    write_raw(fds[0], raw_frame(2, 0x10000002, 1, be32(4) + "<a/>") + raw_frame(1, 0x10000002, 2, be32(3) + "rss"));
    ASSERT_TRUE(pump_until([] { return has(g_srv, 1); }));
    EXPECT_FALSE(has(g_srv, 0x10000002));
    ASSERT_GE(g_srv.events.size(), 2u);
    EXPECT_EQ(g_srv.events[g_srv.events.size() - 2], 0x10u);
    EXPECT_EQ(g_srv.codes[g_srv.events.size() - 2], RPC_ERR_MALFORMED);
    close(fds[0]);
    close_all();
}

TEST_F(RpcTest, PeerClosingMidFrameGivesTruncatedThenClosed)
{
    half();
    std::string f = raw_frame(2, 0x10000002, 1, be32(4) + "<a/>");
    write_raw(fds[1], f.substr(0, f.size() - 2));
    close(fds[1]);
    ASSERT_TRUE(pump_until([] { return has(g_cli, 1); }));
    EXPECT_EQ(g_cli.events[g_cli.events.size() - 2], 0x10u);
    EXPECT_EQ(g_cli.codes[g_cli.events.size() - 2], RPC_ERR_TRUNCATED);
    close_all();
}

// A peer closing with our requests still unread resets the stream.
TEST_F(RpcTest, PeerResettingMidFrameGivesTruncatedThenClosed)
{
    half();
    ASSERT_EQ(rpc_send_req(cli, 0x10000002, 1, "rss"), 0);
    ASSERT_TRUE(pump_until([] { return has(g_cli, 2); }));
    std::string f = raw_frame(2, 0x10000002, 1, be32(4) + "<a/>");
    write_raw(fds[1], f.substr(0, 10));
    close(fds[1]);
    ASSERT_TRUE(pump_until([] { return has(g_cli, 1); }));
    ASSERT_GE(g_cli.events.size(), 3u);
    EXPECT_EQ(g_cli.events[g_cli.events.size() - 2], 0x10u);
    EXPECT_EQ(g_cli.codes[g_cli.events.size() - 2], RPC_ERR_TRUNCATED);
    close_all();
}

// The main loop may still hold the connection after the peer closed it.
TEST_F(RpcTest, ClosingAConnectionThePeerAlreadyClosedDoesNothing)
{
    half();
    rpc_conn *stale = cli;
    close(fds[1]);
    ASSERT_TRUE(pump_until([] { return has(g_cli, 1); }));
    EXPECT_TRUE(rpc_isempty());
    rpc_close(stale);
    EXPECT_TRUE(rpc_isempty());
    close_all();
}

TEST_F(RpcTest, FramesBeforeTheEndAreStillDelivered)
{
    half();
    write_raw(fds[1], raw_frame(2, 0x10000002, 1, be32(4) + "<a/>") + raw_frame(3, 0x20000000, 0, be32(3) + "rss"));
    close(fds[1]);
    ASSERT_TRUE(pump_until([] { return has(g_cli, 1); }));
    EXPECT_TRUE(has(g_cli, 0x10000002));
    EXPECT_EQ(g_cli.s, "rss");
    EXPECT_FALSE(has(g_cli, 0x10));
    close_all();
}

TEST_F(RpcTest, UnknownMessageIsSkipped)
{
    half();
    write_raw(fds[1], raw_frame(3, 0x29999999, 0, "junk") + raw_frame(3, 0x20000000, 0, be32(3) + "rss"));
    ASSERT_TRUE(pump_until([] { return has(g_cli, 0x20000000); }));
    EXPECT_FALSE(has(g_cli, 0x10));
    close(fds[1]);
    ASSERT_TRUE(pump_until([] { return has(g_cli, 1); }));
    close_all();
}

TEST_F(RpcTest, ServerAnswersBrokenXmlWithErrorReplyAndStaysOpen)
{
    srv = rpc_adopt_fd(fds[1], &g_ConfigD_IfaceInfo, srv_table, 1);
    write_raw(fds[0], raw_frame(1, 0x10000003, 6, be32(3) + "rss" + be32(10) + "<a><b></a>"));
    std::string got;
    ASSERT_TRUE(pump_until([&] {
        char buf[256];
        ssize_t n = recv(fds[0], buf, sizeof buf, MSG_DONTWAIT);
        if (n > 0)
            got.append(buf, size_t(n));
        return got.size() >= 13;
    }));
    EXPECT_EQ(got[4], 4);   // error reply
    EXPECT_EQ(got.substr(9, 4), be32(6));
    EXPECT_FALSE(has(g_srv, 0x10));
    close(fds[0]);
    ASSERT_TRUE(pump_until([] { return has(g_srv, 1); }));
    close_all();
}

TEST_F(RpcTest, ConnectToMissingServerFails)
{
    close(fds[0]);
    close(fds[1]);
    sockaddr_un a;
    csock_sockaddr_set_unix(&a, "/nonexistent/rpc/socket");
    EXPECT_EQ(rpc_connect(&a, &g_ConfigD_IfaceInfo, cli_table), nullptr);
    EXPECT_TRUE(rpc_isempty());
}

TEST_F(RpcTest, ListenAndConnect)
{
    close(fds[0]);
    close(fds[1]);
    std::string path = testing::TempDir() + "rpc_test.sock";
    ASSERT_GT(rpc_listen(path.c_str(), &g_ConfigD_IfaceInfo, srv_table), 0);
    sockaddr_un a;
    csock_sockaddr_set_unix(&a, path.c_str());
    cli = rpc_connect(&a, &g_ConfigD_IfaceInfo, cli_table);
    ASSERT_NE(cli, nullptr);
    EXPECT_TRUE(g_cli.events.empty());
    rpc_send_req(cli, 0x10000002, 2, "served");
    ASSERT_TRUE(pump_until([] { return has(g_cli, 0x10000002); }));
    EXPECT_EQ(g_cli.events.front(), 2u);
    EXPECT_EQ(g_cli.xml, "<served />\n");
    rpc_close(cli);
    ASSERT_TRUE(pump_until([] { return has(g_cli, 1) && has(g_srv, 1); }));
    rpc_shutdown();
    unlink(path.c_str());
    EXPECT_TRUE(rpc_isempty());
}

TEST_F(RpcTest, NoMemoryForAnOutgoingFrameRefusesTheSend)
{
    pair();
    slab_fail_after(0);
    EXPECT_EQ(rpc_send_req(cli, 0x10000002, 1, "rss"), -1);
    slab_fail_after(-1);
    EXPECT_EQ(rpc_send_req(cli, 0x10000002, 1, "rss"), 0);
    ASSERT_TRUE(pump_until([] { return has(g_cli, 0x10000002); }));
    close_all();
}

TEST_F(RpcTest, NoMemoryForAnIncomingFrameGivesErrorThenClosed)
{
    half();
    write_raw(fds[1], raw_frame(3, 0x20000000, 0, be32(3) + "rss"));
    // The watchdog is set up before allocations start failing.
    static bool expired;
    expired = false;
    int wd = timeout_add([](void *, int) { expired = true; }, 10, nullptr);
    slab_fail_after(0);
    while (!has(g_cli, 1) && !expired)
        csock_select();
    slab_fail_after(-1);
    timeout_del(wd);
    ASSERT_TRUE(has(g_cli, 1));
    EXPECT_TRUE(has(g_cli, 0x10));
    EXPECT_EQ(g_cli.codes[g_cli.events.size() - 2], RPC_ERR_NOMEM);
    close(fds[1]);
    close_all();
}

TEST_F(RpcTest, NoMemoryForAConnectionRecord)
{
    slab_fail_after(0);
    EXPECT_EQ(rpc_adopt_fd(fds[0], &g_ConfigD_IfaceInfo, cli_table, 0), nullptr);
    slab_fail_after(-1);
    EXPECT_TRUE(rpc_isempty());
    close(fds[0]);
    close(fds[1]);
}

} // namespace
