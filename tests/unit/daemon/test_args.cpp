// Counting of 'v' characters and the support-data switch in the arguments.
#include "daemon/kd_daemon.h"
#include "util/kd_log.h"

#include <gtest/gtest.h>

namespace {

uint32_t scan(std::initializer_list<const char *> args, int *support = nullptr)
{
    std::vector<char *> argv;
    for (const char *a : args)
        argv.push_back(const_cast<char *>(a));
    verbosity = 0;
    int r = kd_scan_args(static_cast<int>(argv.size()), argv.data());
    if (support)
        *support = r;
    return verbosity;
}

} // namespace

TEST(Args, EveryVCountsIncludingProgramPath)
{
    EXPECT_EQ(scan({"kelpd", "-vv"}), 2u);
    EXPECT_EQ(scan({"kelpd", "-v", "-v"}), 2u);
    EXPECT_EQ(scan({"/var/tmp/vv/kelpd", "-vvvvvv"}), 9u); // "var" counts too
    EXPECT_EQ(scan({"kelpd", "-verbose"}), 1u);
    EXPECT_EQ(scan({"kelpd", "x", "-V"}), 0u);
}

TEST(Args, SupportDataStopsTheScan)
{
    int support = 0;
    EXPECT_EQ(scan({"kelpd", "-vv", "--create-supportdata", "-vvv"}, &support), 2u);
    EXPECT_EQ(support, 1);
    EXPECT_EQ(scan({"kelpd", "--create-supportdata=x"}, &support), 0u);
    EXPECT_EQ(support, 0);
}

TEST(SignalHandler, SetsTheFlagOfEachServedSignal)
{
    verbosity = 0;
    g_hangup = 0;
    g_terminate = 0;
    g_dump = 0;
    signal_handler(SIGUSR1);
    EXPECT_EQ(g_hangup + g_terminate + g_dump, 0);
    signal_handler(SIGHUP);
    EXPECT_EQ(g_hangup, SIGHUP);
    signal_handler(SIGUSR2);
    EXPECT_EQ(g_dump, 1);
    EXPECT_EQ(g_terminate, 0);
    signal_handler(SIGTERM);
    EXPECT_EQ(g_terminate, 1);
    g_hangup = 0;
    g_terminate = 0;
    g_dump = 0;
}
