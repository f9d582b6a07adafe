// Blocks as large as the daemon builds: every connection's socket takes the
// largest one whole, and a block that a socket still cannot take is logged
// and dropped alone, without the blocks behind it.
#include "client/kd_msg_limits.h"
#include "session_fixture.h"

#include <cerrno>

using namespace kelp_test;

namespace {

class outq_large : public session_test {
protected:
    static std::string block(char tag, size_t len)
    {
        std::string b(len, tag);
        b[len - 1] = '\0';
        return b;
    }

    // Waits (pumping the loop, which drains the queue) for the next packet;
    // its full length is asked first, as clients do.
    static std::string next_packet(int peer)
    {
        for (int idle = 0; idle < 200; idle++) {
            pump();
            char probe;
            ssize_t len = recv(peer, &probe, 1, MSG_PEEK | MSG_TRUNC | MSG_DONTWAIT);
            if (len <= 0)
                continue;
            std::string got(static_cast<size_t>(len), '\0');
            EXPECT_EQ(recv(peer, got.data(), got.size(), MSG_DONTWAIT), len);
            return got;
        }
        return {};
    }

    static void shrink_send_buffer(kd_client *c, int size)
    {
        setsockopt(csock_fileno(c->handle), SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
    }
};

TEST_F(outq_large, EveryConnectionTakesTheLargestBlockWhole)
{
    int peer = connect_client();
    kd_client *c = head;
    for (const auto &l : captured_log())
        EXPECT_EQ(l.text.find("takes messages of up to"), std::string::npos) << l.text;
    std::string big = block('o', KD_MSG_MAX_BLOCK);
    ASSERT_EQ(client_send(c, big.data(), big.size()), 1);
    EXPECT_EQ(c->outq.head, nullptr);
    EXPECT_EQ(next_packet(peer), big);
    EXPECT_FALSE(log_has("send failed with " + std::to_string(EMSGSIZE)));
}

TEST_F(outq_large, TwoLargestBlocksInARowArriveInOrder)
{
    int peer = connect_client();
    kd_client *c = head;
    std::string a = block('a', KD_MSG_MAX_BLOCK), b = block('b', KD_MSG_MAX_BLOCK);
    ASSERT_EQ(client_send(c, a.data(), a.size()), 1);
    ASSERT_EQ(client_send(c, b.data(), b.size()), 1);
    EXPECT_EQ(next_packet(peer), a);
    EXPECT_EQ(next_packet(peer), b);
    EXPECT_EQ(c->broken, 0);
}

TEST_F(outq_large, ABlockTheSocketCannotTakeIsLoggedAndDroppedAlone)
{
    int peer = connect_client();
    kd_client *c = head;
    shrink_send_buffer(c, 4096);
    std::string big = block('x', 64 * 1024), small = block('s', 512);
    EXPECT_EQ(client_send(c, big.data(), big.size()), 0);
    EXPECT_TRUE(log_has_prio("send failed with " + std::to_string(EMSGSIZE), LOG_ERR));
    EXPECT_TRUE(log_has_prio("message of 65536 bytes is larger than the send buffer of client sd=" +
                                 std::to_string(csock_fileno(c->handle)) + " - dropped",
                             LOG_ERR));
    EXPECT_EQ(c->broken, 0);
    ASSERT_EQ(client_send(c, small.data(), small.size()), 1);
    EXPECT_EQ(next_packet(peer), small);
}

TEST_F(outq_large, AWaitingBlockTheSocketCannotTakeIsDroppedAndTheRestFollow)
{
    int peer = connect_client();
    kd_client *c = head;
    shrink_send_buffer(c, 4096);
    // Fill the socket until blocks wait, then queue one too large and one more.
    std::vector<std::string> sent;
    for (int i = 0; c->outq.head == nullptr && i < 200; i++) {
        sent.push_back(block(static_cast<char>('A' + i % 26), 512));
        ASSERT_EQ(client_send(c, sent.back().data(), 512), 1);
    }
    ASSERT_NE(c->outq.head, nullptr);
    std::string big = block('x', 64 * 1024), after = block('z', 512);
    ASSERT_EQ(client_send(c, big.data(), big.size()), 1);
    ASSERT_EQ(client_send(c, after.data(), after.size()), 1);
    for (const std::string &want : sent)
        ASSERT_EQ(next_packet(peer), want);
    EXPECT_EQ(next_packet(peer), after);
    EXPECT_TRUE(log_has("message of 65536 bytes is larger than the send buffer of client sd=" +
                        std::to_string(csock_fileno(c->handle)) + " - dropped"));
    EXPECT_EQ(c->broken, 0);
    EXPECT_EQ(c->outq.head, nullptr);
    EXPECT_EQ(slab_live_count_for("kd_outq.cpp"), 0u);
}

} // namespace
