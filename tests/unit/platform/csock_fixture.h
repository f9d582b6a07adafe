// Shared fixture of the csock tests: socket pairs that are closed at the end,
// and a check that every csock and timer record was released.
#pragma once
#include "platform/csock.h"
#include "platform/slab.h"
#include "platform/timeout.h"

#include <gtest/gtest.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

class CsockTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        live_ = slab_live_count();
        csock_init();
        timeout_init();
    }
    void TearDown() override
    {
        timeout_exit();
        csock_exit();
        for (int fd : fds_)
            close(fd);
        EXPECT_EQ(slab_live_count(), live_);
    }
    // A connected pair of sequenced-packet sockets: [0] is registered, [1] is the peer.
    void pair(int sv[2])
    {
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, sv), 0);
        fds_.push_back(sv[0]);
        fds_.push_back(sv[1]);
    }
    void forget(int fd) { std::erase(fds_, fd); }
    size_t live_ = 0;
    std::vector<int> fds_;
};
