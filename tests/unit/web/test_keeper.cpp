// kelp-web's kelpd on demand: which program is started, the growing pauses
// between tries, and the ways a start fails (the program cannot run, the
// daemon ends at once), each with its reason.
#include "keeper.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>

using namespace kweb;

namespace {

class web_keeper : public ::testing::Test {
protected:
    std::string dir;

    void SetUp() override
    {
        char tmpl[] = "/tmp/kelp-keeper-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir = tmpl;
    }
    void TearDown() override
    {
        std::string cmd = "rm -rf '" + dir + "'";
        ASSERT_EQ(system(cmd.c_str()), 0);
    }

    // An executable shell script at dir/name.
    std::string script(const std::string &name, const std::string &body)
    {
        std::string path = dir + "/" + name;
        mkdir(path.substr(0, path.rfind('/')).c_str(), 0755);
        std::ofstream(path) << "#!/bin/sh\n" << body << "\n";
        chmod(path.c_str(), 0755);
        return path;
    }

    // A keeper that has started the script with that body as its kelpd.
    void start_script(kelpd_keeper *k, const std::string &body)
    {
        k->program = script("kelpd", body);
        k->ctl_path = dir + "/ctl";
        ASSERT_TRUE(keeper_start(k, mono_ms()));
    }

    // Runs the start's checks until it fails (bounded: the launcher is a
    // short script, so this waits for its exit, not for time to pass).
    static bool fails(kelpd_keeper *k)
    {
        for (int i = 0; i < 5000; i++) {
            if (!keeper_check_start(k, mono_ms()))
                return true;
            timespec ts{0, 2000000};
            nanosleep(&ts, nullptr);
        }
        return false;
    }
};

} // namespace

TEST_F(web_keeper, TheGivenProgramWins)
{
    std::string out, why;
    ASSERT_TRUE(keeper_find_program("/opt/x/kelpd", "/usr/bin/kelp-web", "/bin", &out, &why));
    EXPECT_EQ(out, "/opt/x/kelpd");
}

TEST_F(web_keeper, TheKelpdBesideKelpWebComesBeforePath)
{
    script("bin/kelpd", "exit 0");
    script("path/kelpd", "exit 0");
    std::string out, why;
    ASSERT_TRUE(keeper_find_program("", dir + "/bin/kelp-web", (dir + "/path").c_str(), &out, &why));
    EXPECT_EQ(out, dir + "/bin/kelpd");
}

TEST_F(web_keeper, ElseTheFirstKelpdOnPath)
{
    script("b/kelpd", "exit 0");
    script("c/kelpd", "exit 0");
    std::string out, why;
    std::string path = "/nonexistent::" + dir + "/b:" + dir + "/c";
    ASSERT_TRUE(keeper_find_program("", dir + "/bin/kelp-web", path.c_str(), &out, &why));
    EXPECT_EQ(out, dir + "/b/kelpd");
}

TEST_F(web_keeper, NoKelpdAnywhereSaysWhere)
{
    std::string out, why;
    EXPECT_FALSE(keeper_find_program("", dir + "/bin/kelp-web", "/nonexistent", &out, &why));
    EXPECT_EQ(why, "no kelpd found beside kelp-web (" + dir + "/bin) or on PATH");
}

TEST_F(web_keeper, PausesGrowToTheLongestAndStartAgainAfterSteadyService)
{
    kelpd_keeper k;
    std::vector<int> pauses;
    for (int i = 0; i < 9; i++)
        pauses.push_back(keeper_pause(&k, 0));
    EXPECT_EQ(pauses, (std::vector<int>{500, 1000, 2000, 4000, 8000, 16000, 30000, 30000, 30000}));
    EXPECT_EQ(k.phase, keeper_phase::pausing);
    EXPECT_EQ(keeper_wait_ms(&k, 10000), 20000);
    // kelpd answered, then served a short while: the pauses keep growing.
    keeper_served(&k, 100000);
    EXPECT_EQ(keeper_lost(&k, 100000 + kSteadyMs - 1), 30000);
    // Served long enough: the first pause again.
    keeper_served(&k, 200000);
    EXPECT_EQ(keeper_lost(&k, 200000 + kSteadyMs), kFirstPauseMs);
    EXPECT_EQ(k.why, "kelpd has stopped (it stops by itself when no profile reads a feed)");
    // A second loss during the pause waits for the same try.
    EXPECT_EQ(keeper_lost(&k, 200000 + kSteadyMs + 100), kFirstPauseMs - 100);
}

TEST_F(web_keeper, AProgramThatCannotRunFailsWithItsReason)
{
    kelpd_keeper k;
    k.program = dir + "/missing/kelpd";
    k.ctl_path = dir + "/ctl";
    ASSERT_TRUE(keeper_start(&k, mono_ms()));
    EXPECT_EQ(k.phase, keeper_phase::starting);
    ASSERT_TRUE(fails(&k));
    EXPECT_EQ(k.why, "cannot run " + k.program + ": No such file or directory");
    EXPECT_EQ(k.launcher, -1);
}

TEST_F(web_keeper, ADaemonThatEndsAtOnceFails)
{
    kelpd_keeper k;
    // Prints its own pid as the daemon's, then ends.
    start_script(&k, "echo \"kelpd started with pid [$$]\"");
    ASSERT_TRUE(fails(&k));
    EXPECT_GT(k.daemon, 0);
    EXPECT_EQ(k.why, "kelpd ended right after it started (is configd running? see the system log)");
}

TEST_F(web_keeper, ALauncherThatFailsGivesItsStatus)
{
    kelpd_keeper k;
    start_script(&k, "exit 255");
    ASSERT_TRUE(fails(&k));
    EXPECT_EQ(k.why, "kelpd exited with status 255");
}

TEST_F(web_keeper, NoAnswerWithinTheBoundFails)
{
    kelpd_keeper k;
    k.program = script("kelpd", "echo \"kelpd started with pid [1]\"");
    k.ctl_path = dir + "/ctl";
    int64_t t0 = mono_ms();
    ASSERT_TRUE(keeper_start(&k, t0));
    // The launcher is done and the "daemon" (pid 1) runs; only the bound is left.
    while (k.launcher > 0)
        keeper_reap(&k);
    EXPECT_TRUE(keeper_check_start(&k, t0 + kStartMs - 1));
    EXPECT_FALSE(keeper_check_start(&k, t0 + kStartMs));
    EXPECT_EQ(k.why, "kelpd did not answer on " + k.ctl_path + " within 10 s");
}
