// csock_fit_packets: a local packet socket is made to take packets of the
// asked size whole, and one that already does is left as it is.
#include "platform/csock.h"

#include <gtest/gtest.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

namespace {

struct packet_pair {
    int sv[2] = {-1, -1};
    packet_pair() { EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, sv), 0); }
    ~packet_pair()
    {
        close(sv[0]);
        close(sv[1]);
    }
    int sndbuf() const
    {
        int v = 0;
        socklen_t len = sizeof v;
        getsockopt(sv[0], SOL_SOCKET, SO_SNDBUF, &v, &len);
        return v;
    }
};

TEST(CsockFitPackets, ASocketTakesThePacketSizeItWasFittedFor)
{
    packet_pair p;
    const uint32_t want = 1024 * 1024;
    int fits = csock_fit_packets(p.sv[0], want);
    ASSERT_GE(fits, static_cast<int>(want));
    std::string packet(want, 'p');
    ASSERT_EQ(send(p.sv[0], packet.data(), packet.size(), MSG_DONTWAIT), static_cast<ssize_t>(want));
    std::string got(want + 1, '\0');
    ASSERT_EQ(recv(p.sv[1], got.data(), got.size(), 0), static_cast<ssize_t>(want));
    got.resize(want);
    EXPECT_EQ(got, packet);
}

TEST(CsockFitPackets, ASocketThatAlreadyTakesThePacketIsLeftAlone)
{
    packet_pair p;
    int before = p.sndbuf();
    int fits = csock_fit_packets(p.sv[0], 1024);
    EXPECT_EQ(p.sndbuf(), before);
    EXPECT_GE(fits, 1024);
}

TEST(CsockFitPackets, AReportedSizeIsWhatTheSocketTakes)
{
    packet_pair p;
    int fits = csock_fit_packets(p.sv[0], 100 * 1024);
    ASSERT_GT(fits, 0);
    std::string packet(static_cast<size_t>(fits), 'q');
    EXPECT_EQ(send(p.sv[0], packet.data(), packet.size(), MSG_DONTWAIT), fits);
    packet.push_back('q');
    EXPECT_EQ(send(p.sv[0], packet.data(), packet.size(), MSG_DONTWAIT), -1);
    EXPECT_EQ(errno, EMSGSIZE);
}

TEST(CsockFitPackets, AClosedDescriptorReportsFailure)
{
    EXPECT_EQ(csock_fit_packets(-1, 1024), -1);
}

} // namespace
