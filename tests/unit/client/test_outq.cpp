// The output queue of a connection: blocks the socket cannot take now wait
// in order, a reader that comes back gets every one of them, and one that
// never does is cut off at the cap without holding up anyone else.
#include "session_fixture.h"

#include <cerrno>

using namespace kelp_test;

namespace {

class outq : public session_test {
protected:
    static void shrink_send_buffer(kd_client *c)
    {
        int sz = 4096;
        setsockopt(csock_fileno(c->handle), SOL_SOCKET, SO_SNDBUF, &sz, sizeof sz);
    }

    static std::string block(int i, size_t len = 512)
    {
        std::string b = "block " + std::to_string(i) + " ";
        b.resize(len, 'x');
        return b;
    }

    // Reads and pumps until n blocks arrived or nothing more comes.
    std::vector<std::string> read_all(int peer, size_t n)
    {
        std::vector<std::string> got;
        for (int idle = 0; got.size() < n && idle < 50;) {
            pump();
            char buf[8192];
            ssize_t r = recv(peer, buf, sizeof buf, MSG_DONTWAIT);
            if (r <= 0) {
                idle++;
                continue;
            }
            got.emplace_back(buf, static_cast<size_t>(r));
        }
        return got;
    }
};

TEST_F(outq, BlocksTheSocketCannotTakeWaitAndArriveInOrder)
{
    int peer = connect_client();
    kd_client *c = head;
    shrink_send_buffer(c);
    for (int i = 0; i < 200; i++)
        ASSERT_EQ(client_send(c, block(i).data(), 512), 1) << i;
    EXPECT_NE(c->outq.head, nullptr);
    EXPECT_GT(c->outq.bytes, 0u);
    auto got = read_all(peer, 200);
    ASSERT_EQ(got.size(), 200u);
    for (int i = 0; i < 200; i++)
        EXPECT_EQ(got[static_cast<size_t>(i)], block(i)) << i;
    EXPECT_EQ(c->outq.head, nullptr);
    EXPECT_EQ(c->outq.bytes, 0u);
    EXPECT_FALSE(log_has("send failed with 11"));
}

TEST_F(outq, AReaderThatNeverReadsIsCutOffAtTheCap)
{
    connect_client();
    kd_client *c = head;
    shrink_send_buffer(c);
    int i = 0, ok = 1;
    for (; ok && i < 1000; i++)
        ok = client_send(c, block(i, 4096).data(), 4096);
    EXPECT_EQ(ok, 0);
    EXPECT_LT(i, 1000);
    EXPECT_TRUE(log_has_prio("send failed with 11", LOG_ERR));
    EXPECT_EQ(c->broken, 1);
    EXPECT_EQ(c->outq.head, nullptr);
    pump();
    EXPECT_TRUE(log_has("client gone"));
    EXPECT_EQ(head, nullptr);
    EXPECT_EQ(slab_live_count_for("kd_outq.cpp"), 0u);
}

TEST_F(outq, AStalledReaderDoesNotHoldUpTheOthers)
{
    int stalled = connect_client();
    (void)stalled;
    kd_client *slow = head;
    int active = connect_client();
    kd_client *fast = head;
    shrink_send_buffer(slow);
    size_t got = 0;
    for (int i = 0; i < 300; i++) {
        client_send(slow, block(i).data(), 512);
        ASSERT_EQ(client_send(fast, block(i).data(), 512), 1);
        char buf[1024];
        ssize_t r = recv(active, buf, sizeof buf, MSG_DONTWAIT);
        ASSERT_EQ(r, 512) << i;
        EXPECT_EQ(std::string(buf, 512), block(i));
        got++;
    }
    EXPECT_EQ(got, 300u);
    EXPECT_NE(slow->outq.head, nullptr);
    EXPECT_EQ(fast->outq.head, nullptr);
}

TEST_F(outq, TeardownDropsWhatWaits)
{
    connect_client();
    kd_client *c = head;
    shrink_send_buffer(c);
    for (int i = 0; i < 50; i++)
        client_send(c, block(i).data(), 512);
    ASSERT_NE(c->outq.head, nullptr);
    kd_disconnect_client(c);
    EXPECT_EQ(head, nullptr);
    EXPECT_EQ(slab_live_count_for("kd_outq.cpp"), 0u);
}

TEST_F(outq, NoMemoryForAWaitingBlockDropsItOnly)
{
    int peer = connect_client();
    kd_client *c = head;
    shrink_send_buffer(c);
    int i = 0;
    while (c->outq.head == nullptr && i < 200)
        client_send(c, block(i++).data(), 512);
    slab_fail_after(0);
    EXPECT_EQ(client_send(c, block(i).data(), 512), 0);
    slab_fail_after(-1);
    EXPECT_TRUE(log_has("send failed with " + std::to_string(ENOMEM)));
    EXPECT_EQ(c->broken, 0);
    auto got = read_all(peer, static_cast<size_t>(i));
    EXPECT_EQ(got.size(), static_cast<size_t>(i));
    EXPECT_EQ(got.back(), block(i - 1));
}

} // namespace
