// The spare fetching child: the poll after a fetch takes it; it has given up
// root before its job came; none while the first fetches run, one at most;
// it ends unused after its idle time, with the daemon's fetches cancelled or
// with new hooks; none when asked for none; and a spare that died is
// replaced by a child of the poll's own.
#include "tests/unit/refresh/fetch_fixture.h"

#include <csignal>
#include <fstream>
#include <pwd.h>
#include <string>

using namespace kelp_test;

namespace {

// A field of /proc/PID/status ("" once the process has gone).
std::string status_field(pid_t pid, const std::string &name)
{
    std::ifstream f("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(f, line);)
        if (line.rfind(name + ":", 0) == 0)
            return line.substr(name.size() + 1);
    return "";
}

class spare_test : public fetch_test {
protected:
    // A fetch run to its end, then the spare it asked for: its pid.
    pid_t spare_after_a_fetch()
    {
        fetch_once("serve");
        turn_until([] { return kd_spare_pid() != 0; });
        return kd_spare_pid();
    }
};

TEST_F(spare_test, ThePollAfterAFetchTakesTheSpareAndAsksForTheNext)
{
    pid_t spare = spare_after_a_fetch();
    start(1, "pid");
    await(2);
    EXPECT_EQ(outcomes()[1].code, spare);
    turn_until([&] { return kd_spare_pid() != 0 && kd_spare_pid() != spare; });
    EXPECT_EQ(my_children().size(), 1u); // the new spare alone
}

TEST_F(spare_test, TheSpareHasGivenUpRootBeforeItsJobCame)
{
    pid_t spare = spare_after_a_fetch();
    // It confines itself last: once no new privileges hold, so does the rest.
    turn_until([&] { return status_field(spare, "NoNewPrivs").find('1') != std::string::npos; });
    if (geteuid() == 0) {
        const passwd *nobody = getpwnam("nobody");
        ASSERT_NE(nobody, nullptr);
        std::string uid = std::to_string(nobody->pw_uid);
        EXPECT_EQ(status_field(spare, "Uid"), "\t" + uid + "\t" + uid + "\t" + uid + "\t" + uid);
    }
    start(1, "identity");
    await(2);
    EXPECT_EQ(outcomes()[1].code, static_cast<int>(geteuid() == 0 ? getpwnam("nobody")->pw_uid : getuid()));
    EXPECT_EQ(outcomes()[1].location, "1");
    EXPECT_EQ(outcomes()[1].content_encoding, "3"); // its pipe back, nothing of the daemon's
}

TEST_F(spare_test, NoSpareIsStartedWhileTheFirstFetchesRun)
{
    for (int i = 0; i < 4; i++)
        start(i, "hang");
    turn_for(100);
    EXPECT_EQ(kd_spare_pid(), 0);
    EXPECT_EQ(my_children().size(), 4u);
}

TEST_F(spare_test, ThereIsOneSpareAtMost)
{
    pid_t first = spare_after_a_fetch();
    start(1, "serve"); // takes the spare and ends soon
    for (int i = 2; i < 6; i++)
        start(i, "hang"); // the last waits for the first to end
    await(2);
    turn_until([&] { return kd_spare_pid() != 0 && kd_spare_pid() != first; });
    turn_for(25); // a few more turns of the loop
    EXPECT_EQ(my_children().size(), 5u); // four fetches and the spare
    EXPECT_EQ(fetchers().size(), 4u);
}

TEST_F(spare_test, AnUnusedSpareEndsAfterItsIdleTime)
{
    hooks.spare_idle_ms = 50;
    apply();
    spare_after_a_fetch();
    turn_until([] { return kd_spare_pid() == 0 && my_children().empty(); });
    EXPECT_EQ(timeout_count(), 0u);
    EXPECT_EQ(csock_count(), 0u);
}

TEST_F(spare_test, NoSpareWhenAskedForNone)
{
    hooks.spare_idle_ms = 0;
    apply();
    fetch_once("serve");
    turn_for(100);
    EXPECT_EQ(kd_spare_pid(), 0);
    EXPECT_TRUE(my_children().empty());
}

TEST_F(spare_test, CancellingEveryFetchEndsTheSpare)
{
    spare_after_a_fetch();
    kd_fetch_cancel_all();
    EXPECT_EQ(kd_spare_pid(), 0);
    EXPECT_TRUE(my_children().empty());
    EXPECT_EQ(timeout_count(), 0u);
    EXPECT_EQ(csock_count(), 0u);
}

TEST_F(spare_test, NewHooksEndTheSpare)
{
    spare_after_a_fetch();
    apply();
    EXPECT_EQ(kd_spare_pid(), 0);
    EXPECT_TRUE(my_children().empty());
}

TEST_F(spare_test, ASpareThatDiedIsReplacedByAChildOfThePollsOwn)
{
    pid_t spare = spare_after_a_fetch();
    kill(spare, SIGKILL);
    turn_until([&] { return status_field(spare, "State").empty(); }); // reaped by the kernel
    start(1, "pid");
    await(2);
    EXPECT_GT(outcomes()[1].code, 0);
    EXPECT_NE(outcomes()[1].code, spare);
}

} // namespace
