// Process services: program name and crash reports.
#include "platform/process.h"

#include <csignal>
#include <gtest/gtest.h>
#include <string>
#include <sys/resource.h>
#include <unistd.h>

namespace {

TEST(Process, ProgramName)
{
    setpgmname("kelpd");
    EXPECT_STREQ(getpgmname(), "kelpd");
    std::string longname(200, 'n');
    setpgmname(longname.c_str());
    EXPECT_EQ(std::string(getpgmname()), longname.substr(0, 63));
    setpgmname(nullptr);
    EXPECT_STREQ(getpgmname(), "");
    setpgmname("kelpd");
    crashdump_init("/usr/bin/other"); // a name set before stays
    EXPECT_STREQ(getpgmname(), "kelpd");
}

#if defined(__SANITIZE_ADDRESS__)

TEST(Process, CrashHandlersStayTheSanitizers)
{
    struct sigaction before{}, after{};
    sigaction(SIGSEGV, nullptr, &before);
    crashdump_init("test_platform");
    sigaction(SIGSEGV, nullptr, &after);
    EXPECT_EQ(before.sa_handler, after.sa_handler);
}

#else

int *volatile g_null;

TEST(ProcessDeathTest, SegfaultIsReportedAndKillsWithSigsegv)
{
    EXPECT_EXIT(
        {
            crashdump_set_echo_fd(2);
            crashdump_init("test_platform");
            *g_null = 1;
        },
        ::testing::KilledBySignal(SIGSEGV), "crash: signal 11\n.*\\[0x[0-9a-f]+\\]");
}

TEST(ProcessDeathTest, WithoutAFreeDescriptorTheFramesAreBareAddresses)
{
    EXPECT_EXIT(
        {
            crashdump_set_echo_fd(2);
            crashdump_init("test_platform");
            int lowest = dup(2); // every number below it is taken
            rlimit rl{};
            getrlimit(RLIMIT_NOFILE, &rl);
            rl.rlim_cur = static_cast<rlim_t>(lowest) + 1;
            setrlimit(RLIMIT_NOFILE, &rl);
            *g_null = 1;
        },
        ::testing::KilledBySignal(SIGSEGV), "crash: signal 11\n#0 \\[0x[0-9a-f]+\\]");
}

TEST(ProcessDeathTest, AbortIsReportedAndKillsWithSigabrt)
{
    EXPECT_EXIT(
        {
            crashdump_set_echo_fd(2);
            crashdump_init("test_platform");
            abort();
        },
        ::testing::KilledBySignal(SIGABRT), "crash: signal 6");
}

TEST(ProcessDeathTest, RaisedSignalsEndTheProcessWithThatSignal)
{
    for (int sig : {SIGBUS, SIGFPE}) {
        EXPECT_EXIT(
            {
                crashdump_set_echo_fd(2);
                crashdump_init("test_platform");
                raise(sig);
            },
            ::testing::KilledBySignal(sig), "crash: signal " + std::to_string(sig));
    }
}

TEST(Process, HandlersAreInstalledWithResetAndAltStack)
{
    struct sigaction sa{};
    crashdump_init("test_platform");
    for (int sig : {SIGSEGV, SIGBUS, SIGFPE, SIGABRT}) {
        sigaction(sig, nullptr, &sa);
        EXPECT_NE(sa.sa_handler, SIG_DFL) << sig;
        EXPECT_TRUE(sa.sa_flags & SA_RESETHAND) << sig;
        EXPECT_TRUE(sa.sa_flags & SA_ONSTACK) << sig;
    }
    stack_t ss{};
    sigaltstack(nullptr, &ss);
    EXPECT_FALSE(ss.ss_flags & SS_DISABLE);
    signal(SIGSEGV, SIG_DFL);
    signal(SIGBUS, SIG_DFL);
    signal(SIGFPE, SIG_DFL);
    signal(SIGABRT, SIG_DFL);
}

#endif

} // namespace
