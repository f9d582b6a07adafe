// Timers against a fake clock: ordering, re-entrancy, repeating phase, ids.
#include "platform/slab.h"
#include "platform/timeout.h"

#include <climits>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

int64_t g_now;
int64_t fake_clock() { return g_now; }
constexpr int64_t kMs = 1000000;
constexpr int64_t kSec = 1000000000;

std::vector<std::string> g_log;

void log_cb(void *param, int) { g_log.emplace_back(static_cast<const char *>(param)); }

class Timeout : public ::testing::Test {
protected:
    void SetUp() override
    {
        live_ = slab_live_count();
        g_now = 1000 * kSec;
        g_log.clear();
        timeout_set_clock(fake_clock);
        timeout_init();
    }
    void TearDown() override
    {
        timeout_exit();
        timeout_set_clock(nullptr);
        EXPECT_EQ(slab_live_count(), live_);
    }
    // One dispatch round as csock_select runs it.
    int round()
    {
        timeout_round_begin();
        return timeout_run_due();
    }
    size_t live_ = 0;
};

TEST_F(Timeout, IdsArePositiveAndDistinct)
{
    int a = timeout_add(log_cb, 1, (void *)"a");
    int b = timeout_add(log_cb, 1, (void *)"b");
    EXPECT_GT(a, 0);
    EXPECT_GT(b, 0);
    EXPECT_NE(a, b);
}

TEST_F(Timeout, IdsWrapToOneSkippingIdsInUse)
{
    timeout_set_last_id(0);
    int one = timeout_add(log_cb, 5, (void *)"one");
    EXPECT_EQ(one, 1);
    timeout_set_last_id(INT_MAX - 1);
    EXPECT_EQ(timeout_add(log_cb, 5, (void *)"max"), INT_MAX);
    EXPECT_EQ(timeout_add(log_cb, 5, (void *)"wrapped"), 2);
}

TEST_F(Timeout, NoMemoryGivesMinusOne)
{
    slab_fail_after(0);
    EXPECT_EQ(timeout_add(log_cb, 1, nullptr), -1);
    EXPECT_EQ(timeout_count(), 0u);
}

TEST_F(Timeout, SameDueTimeRunsInOrderOfAddition)
{
    timeout_add(log_cb, 2, (void *)"first");
    timeout_add(log_cb, 2, (void *)"second");
    timeout_add(log_cb, 2, (void *)"third");
    g_now += 2 * kSec;
    EXPECT_EQ(round(), 3);
    EXPECT_EQ(g_log, (std::vector<std::string>{"first", "second", "third"}));
}

TEST_F(Timeout, ShorterDelayRunsFirst)
{
    timeout_add(log_cb, 3, (void *)"three");
    timeout_add_ms(log_cb, 500, (void *)"half");
    timeout_add(log_cb, 1, (void *)"one");
    g_now += 3 * kSec;
    round();
    EXPECT_EQ(g_log, (std::vector<std::string>{"half", "one", "three"}));
}

TEST_F(Timeout, NotDueTimerWaitsAndNextMsRoundsUp)
{
    EXPECT_EQ(timeout_next_ms(), -1);
    timeout_add(log_cb, 2, (void *)"a");
    EXPECT_EQ(timeout_next_ms(), 2000);
    g_now += 1999 * kMs + 1;
    EXPECT_EQ(timeout_next_ms(), 1); // never 0 before the timer is due
    EXPECT_EQ(round(), 0);
    g_now += kMs;
    EXPECT_EQ(timeout_next_ms(), 0);
    EXPECT_EQ(round(), 1);
    EXPECT_EQ(timeout_count(), 0u);
}

int g_victim;
void delete_victim(void *, int) { g_log.push_back("killer"); EXPECT_EQ(timeout_del(g_victim), 0); }

TEST_F(Timeout, DeletingAnotherDueTimerInTheSameRoundStopsIt)
{
    timeout_add(delete_victim, 0, nullptr);
    g_victim = timeout_add(log_cb, 0, (void *)"victim");
    EXPECT_EQ(round(), 1);
    EXPECT_EQ(g_log, (std::vector<std::string>{"killer"}));
    EXPECT_EQ(timeout_count(), 0u);
}

int g_del_result;
void delete_self(void *, int id) { g_del_result = timeout_del(id); }

TEST_F(Timeout, RepeatingTimerDeletesItself)
{
    timeout_add(delete_self, 1, nullptr, 1);
    g_now += kSec;
    EXPECT_EQ(round(), 1);
    EXPECT_EQ(g_del_result, 0);
    EXPECT_EQ(timeout_count(), 0u);
    g_now += 10 * kSec;
    EXPECT_EQ(round(), 0);
}

TEST_F(Timeout, OneShotIsGoneWhenItsCallbackRuns)
{
    g_del_result = 7;
    timeout_add(delete_self, 0, nullptr);
    EXPECT_EQ(round(), 1);
    EXPECT_EQ(g_del_result, -1);
    EXPECT_EQ(timeout_count(), 0u);
}

void add_zero(void *, int) { g_log.push_back("adder"); timeout_add(log_cb, 0, (void *)"added"); }

TEST_F(Timeout, ZeroDelayTimerAddedInARoundRunsInTheNextOne)
{
    timeout_add(add_zero, 0, nullptr);
    EXPECT_EQ(round(), 1);
    EXPECT_EQ(g_log, (std::vector<std::string>{"adder"}));
    EXPECT_EQ(timeout_next_ms(), 0);
    EXPECT_EQ(round(), 1);
    EXPECT_EQ(g_log, (std::vector<std::string>{"adder", "added"}));
}

TEST_F(Timeout, TimerAddedAfterRoundBeginWaitsForTheNextRound)
{
    // As when a socket callback adds a timer before the round's timers run.
    timeout_round_begin();
    timeout_add(log_cb, 0, (void *)"late");
    EXPECT_EQ(timeout_run_due(), 0);
    EXPECT_EQ(round(), 1);
}

TEST_F(Timeout, ZeroIntervalRepeatingTimerRunsOncePerRound)
{
    timeout_add(log_cb, 0, (void *)"tick", 1);
    EXPECT_EQ(round(), 1);
    EXPECT_EQ(round(), 1);
    EXPECT_EQ(g_log.size(), 2u);
}

TEST_F(Timeout, RepeatingTimerKeepsItsPhase)
{
    timeout_add(log_cb, 10, (void *)"r", 1);
    g_now += 10 * kSec + 300 * kMs; // served 0.3 s late
    EXPECT_EQ(round(), 1);
    EXPECT_EQ(timeout_next_ms(), 9700);
    g_now += 9700 * kMs;
    EXPECT_EQ(round(), 1);
    EXPECT_EQ(timeout_next_ms(), 10000);
}

TEST_F(Timeout, RepeatingTimerRebasesWhenTheLoopFellBehind)
{
    timeout_add(log_cb, 10, (void *)"r", 1);
    g_now += 35 * kSec;
    EXPECT_EQ(round(), 1); // no burst of catch-up runs
    EXPECT_EQ(timeout_next_ms(), 10000);
    EXPECT_EQ(round(), 0);
}

TEST_F(Timeout, RestartexCountsTheNewIntervalFromNow)
{
    int id = timeout_add(log_cb, 100, (void *)"r", 1);
    g_now += 60 * kSec;
    EXPECT_EQ(timeout_restartex(id, 30), 0);
    EXPECT_EQ(timeout_next_ms(), 30000);
    g_now += 30 * kSec;
    EXPECT_EQ(round(), 1);
    EXPECT_EQ(timeout_next_ms(), 30000); // the new interval repeats
    EXPECT_EQ(timeout_restartex(id + 1000, 5), -1);
    EXPECT_EQ(timeout_restartex(-3, 5), -1);
}

int g_restart_id;
void restart_other(void *, int) { timeout_restartex(g_restart_id, 0); }

TEST_F(Timeout, RestartFromACallbackWaitsForTheNextRound)
{
    timeout_add(restart_other, 0, nullptr);
    g_restart_id = timeout_add(log_cb, 50, (void *)"restarted");
    EXPECT_EQ(round(), 1);
    EXPECT_TRUE(g_log.empty());
    EXPECT_EQ(round(), 1);
    EXPECT_EQ(g_log, (std::vector<std::string>{"restarted"}));
}

TEST_F(Timeout, DeleteUnknownOrTwice)
{
    int id = timeout_add(log_cb, 1, nullptr);
    EXPECT_EQ(timeout_del(id), 0);
    EXPECT_EQ(timeout_del(id), -1);
    EXPECT_EQ(timeout_del(0), -1);
    EXPECT_EQ(timeout_del(-1), -1);
}

TEST_F(Timeout, RecordsAreSlabAccountedAndExitFreesThem)
{
    size_t before = slab_live_count_for("timeout.cpp");
    timeout_add(log_cb, 1, nullptr);
    timeout_add(log_cb, 2, nullptr, 1);
    EXPECT_EQ(slab_live_count_for("timeout.cpp"), before + 2);
    timeout_exit();
    EXPECT_EQ(slab_live_count_for("timeout.cpp"), before);
    EXPECT_TRUE(g_log.empty());
}

int g_after_calls;
void count_after() { g_after_calls++; }

TEST_F(Timeout, HookRunsAfterEveryCallback)
{
    g_after_calls = 0;
    timeout_add(log_cb, 0, (void *)"a");
    timeout_add(log_cb, 0, (void *)"b");
    timeout_round_begin();
    EXPECT_EQ(timeout_run_due_hook(count_after), 2);
    EXPECT_EQ(g_after_calls, 2);
}

TEST_F(Timeout, LongestDelayOnALateClockDoesNotWrapIntoThePast)
{
    g_now = INT64_MAX - 2000000000 * kSec;
    timeout_add(log_cb, UINT32_MAX, (void *)"far");
    EXPECT_EQ(timeout_next_ms(), INT_MAX);
    EXPECT_EQ(round(), 0);
    int id = timeout_add(log_cb, 1, (void *)"near");
    EXPECT_EQ(timeout_restartex(id, UINT32_MAX), 0);
    EXPECT_EQ(round(), 0);
    EXPECT_TRUE(g_log.empty());
}

TEST_F(Timeout, RepeatingLongestIntervalDoesNotWrapWhenRearmed)
{
    g_now = INT64_MAX - 5000000000 * kSec;
    timeout_add(log_cb, UINT32_MAX, (void *)"r", 1);
    g_now += static_cast<int64_t>(UINT32_MAX) * kSec;
    EXPECT_EQ(round(), 1);
    EXPECT_EQ(timeout_next_ms(), INT_MAX); // re-armed into the future
    EXPECT_EQ(round(), 0);
    EXPECT_EQ(g_log.size(), 1u);
}

TEST_F(Timeout, TimerWithoutCallbackIsRefused)
{
    EXPECT_EQ(timeout_add(nullptr, 0, nullptr), -1);
    EXPECT_EQ(timeout_count(), 0u);
}

TEST_F(Timeout, RepeatingTimerRestartsItselfWithANewInterval)
{
    timeout_add(+[](void *, int id) {
        g_log.push_back("r");
        EXPECT_EQ(timeout_restartex(id, 7), 0);
    }, 1, nullptr, 1);
    g_now += kSec;
    EXPECT_EQ(round(), 1);
    EXPECT_EQ(timeout_next_ms(), 7000);
    EXPECT_EQ(round(), 0);
}

} // namespace
