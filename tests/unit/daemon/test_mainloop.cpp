// The main loop's decision rule, shutdown reason and verbosity cycle.
#include "daemon/kd_mainloop.h"

#include <gtest/gtest.h>

TEST(LoopDecision, WaitsForFirstClientWhileConfigHasItems)
{
    EXPECT_TRUE(kd_loop_continue(false, false, false, false));
}

TEST(LoopDecision, ServesWhileClientsStayConnected)
{
    EXPECT_TRUE(kd_loop_continue(false, true, true, false));
}

TEST(LoopDecision, LastClientGoneEndsEvenWithItems)
{
    EXPECT_FALSE(kd_loop_continue(false, true, false, false));
}

TEST(LoopDecision, EmptyConfigurationEndsWithOrWithoutClients)
{
    EXPECT_FALSE(kd_loop_continue(false, false, false, true));
    EXPECT_FALSE(kd_loop_continue(false, true, true, true));
}

TEST(LoopDecision, TerminateAlwaysLeadsToShutdownStep)
{
    EXPECT_FALSE(kd_loop_continue(true, false, false, false));
    EXPECT_FALSE(kd_loop_continue(true, true, true, false));
}

TEST(ShutdownReason, LastClientDisconnected)
{
    EXPECT_STREQ(kd_shutdown_reason(false, true, false), "last client disconnected");
    EXPECT_STREQ(kd_shutdown_reason(true, true, false), "last client disconnected");
}

TEST(ShutdownReason, ConfigurationEmptyWhenNotTerminating)
{
    EXPECT_STREQ(kd_shutdown_reason(false, false, false), "configuration is empty");
    EXPECT_STREQ(kd_shutdown_reason(false, true, true), "configuration is empty");
}

TEST(ShutdownReason, NothingForTerminateWithClientsOrNone)
{
    EXPECT_EQ(kd_shutdown_reason(true, true, true), nullptr);
    EXPECT_EQ(kd_shutdown_reason(true, false, false), nullptr);
}

TEST(Verbosity, HangupCyclesThroughZero)
{
    uint32_t v = 0;
    uint32_t seen[6];
    for (uint32_t &s : seen)
        s = v = kd_next_verbosity(v);
    EXPECT_EQ(seen[0], 1u);
    EXPECT_EQ(seen[3], 4u);
    EXPECT_EQ(seen[4], 0u);
    EXPECT_EQ(seen[5], 1u);
}

TEST(Verbosity, UnclampedStartValueWrapsAtFirstHangup)
{
    EXPECT_EQ(kd_next_verbosity(6), 2u);
}
