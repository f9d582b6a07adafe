// Fetches in child processes: the answer as the HTTP client gave it, the
// child's log lines written by the daemon, the child's identity and
// descriptors, at most KD_FETCH_PARALLEL side by side with the rest waiting
// in order, no fetch of a feed twice, cancelling, the deadline, children that
// crash, write garbage, too much or too little, or end their pipe and go on,
// and kelp-fetch's own command line.
#include "tests/unit/refresh/fetch_fixture.h"

#include "refresh/kd_fetch_child.h"

#include <cstring>
#include <pwd.h>
#include <sys/wait.h>

using namespace kelp_test;

namespace {

const char kBody[] = "<rss><channel><item><title>K</title></item></channel></rss>";

TEST_F(fetch_test, TheAnswerArrivesAsTheClientGaveIt)
{
    fetch_outcome o = fetch_once("serve");
    EXPECT_EQ(o.feed, &feeds[0]);
    EXPECT_EQ(o.url, "serve");
    EXPECT_EQ(o.code, 200);
    EXPECT_EQ(o.body, kBody);
    EXPECT_EQ(o.content_type, "text/xml; charset=utf-8");
    EXPECT_EQ(o.location, "(none)");
    EXPECT_EQ(o.content_encoding, "identity");
    EXPECT_EQ(kd_fetch_running(), 0u);
}

TEST_F(fetch_test, TheChildsLinesAreWrittenByTheDaemonBeforeThePollGoesOn)
{
    fetch_outcome o = fetch_once("log");
    EXPECT_EQ(o.code, HTTPCLI_NO_CONNECTION);
    ASSERT_EQ(captured_log().size(), 3u);
    EXPECT_EQ(captured_log()[0].text, "TLS with log failed: certificate expired");
    EXPECT_EQ(captured_log()[0].prio, LOG_ERR);
    EXPECT_EQ(captured_log()[1].text, "[kddbg] second line");
    EXPECT_EQ(captured_log()[1].prio, LOG_DEBUG);
    EXPECT_EQ(captured_log()[2].text, "outcome of log: 1");
}

TEST_F(fetch_test, TheDaemonsVerbosityGatesTheChildsLines)
{
    verbosity = 1;
    fetch_once("log");
    ASSERT_EQ(captured_log().size(), 2u);
    EXPECT_EQ(captured_log()[0].text, "TLS with log failed: certificate expired");
}

TEST_F(fetch_test, TheChildRunsUnprivilegedWithOnlyItsPipe)
{
    fetch_outcome o = fetch_once("identity");
    if (geteuid() == 0) {
        const passwd *nobody = getpwnam("nobody");
        ASSERT_NE(nobody, nullptr);
        EXPECT_EQ(o.code, static_cast<int>(nobody->pw_uid));
        EXPECT_EQ(o.content_type, std::to_string(nobody->pw_gid));
        EXPECT_NE(o.code, 0);
    } else {
        EXPECT_EQ(o.code, static_cast<int>(getuid()));
    }
    EXPECT_EQ(o.location, "1"); // no new privileges, ever
    EXPECT_EQ(o.content_encoding, "3"); // the pipe, nothing of the daemon's
}

TEST_F(fetch_test, AMissingAccountMeansNoFetchAtAll)
{
    hooks.account = "no-such-user-kelp";
    apply();
    fetch_outcome o = fetch_once("identity");
    if (geteuid() == 0) {
        EXPECT_EQ(o.code, HTTPCLI_NO_CONNECTION);
        EXPECT_TRUE(log_has_prio("no user 'no-such-user-kelp' to fetch feeds as", LOG_ERR));
    } else {
        EXPECT_EQ(o.code, static_cast<int>(getuid())); // nobody to become: nothing to drop
    }
}

TEST_F(fetch_test, AMissingProgramFailsThePollWithItsReason)
{
    hooks.program = "/nonexistent/kelp-fetch";
    apply();
    EXPECT_EQ(fetch_once().code, HTTPCLI_NO_CONNECTION);
    EXPECT_TRUE(log_has_prio("unable to start /nonexistent/kelp-fetch: No such file or directory", LOG_ERR));
}

TEST_F(fetch_test, AtMostFourRunAndTheRestWaitInOrder)
{
    for (int i = 0; i < 6; i++)
        start(i, "hang");
    EXPECT_EQ(KD_FETCH_PARALLEL, 4u);
    EXPECT_EQ(kd_fetch_running(), 4u);
    EXPECT_EQ(kd_fetch_waiting(), 2u);
    for (int i = 0; i < 4; i++)
        EXPECT_EQ(kd_fetch_phase_of(&feeds[i]), KD_FETCH_RUNNING) << i;
    kd_fetch_cancel(&feeds[2]);
    EXPECT_EQ(kd_fetch_phase_of(&feeds[2]), KD_FETCH_NONE);
    EXPECT_EQ(kd_fetch_phase_of(&feeds[4]), KD_FETCH_RUNNING);
    EXPECT_EQ(kd_fetch_phase_of(&feeds[5]), KD_FETCH_WAITING);
    EXPECT_EQ(my_children().size(), 4u); // the cancelled one is gone already
    kd_fetch_cancel_all();
    EXPECT_TRUE(my_children().empty());
    EXPECT_TRUE(outcomes().empty()); // a dropped fetch reports nothing
}

TEST_F(fetch_test, AFeedIsNotFetchedTwiceAtOnce)
{
    start(0);
    start(0);
    EXPECT_EQ(kd_fetch_running(), 1u);
    EXPECT_EQ(kd_fetch_waiting(), 0u);
    await(1);
    // Once ended, the next poll fetches again.
    start(0);
    await(2);
}

TEST_F(fetch_test, AWaitingFetchTakesTheEntrysNewAddress)
{
    for (int i = 0; i < 4; i++)
        start(i, "hang");
    start(5, "hang");
    start(5, "serve");
    EXPECT_EQ(kd_fetch_waiting(), 1u);
    kd_fetch_cancel(&feeds[0]);
    await(1);
    EXPECT_EQ(outcomes()[0].url, "serve");
    EXPECT_EQ(outcomes()[0].code, 200);
}

TEST_F(fetch_test, ARunningFetchOfAnOldAddressStartsOver)
{
    start(0, "hang");
    start(0, "serve");
    EXPECT_EQ(kd_fetch_running(), 1u);
    await(1);
    EXPECT_EQ(outcomes()[0].url, "serve");
    EXPECT_EQ(outcomes()[0].code, 200);
}

TEST_F(fetch_test, ACancelledFetchReportsNothingAndItsChildIsGone)
{
    hooks.spare_idle_ms = 0; // the spare has timers and a child of its own
    apply();
    start(0, "hang");
    ASSERT_EQ(my_children().size(), 1u);
    kd_fetch_cancel(&feeds[0]);
    EXPECT_EQ(kd_fetch_running(), 0u);
    EXPECT_TRUE(fetchers().empty());
    // Nothing of it is left that could fire: no pipe, no deadline.
    EXPECT_EQ(csock_count(), 0u);
    EXPECT_EQ(timeout_count(), 0u);
    EXPECT_TRUE(outcomes().empty());
}

TEST_F(fetch_test, AChildThatOutlivesTheDeadlineIsKilled)
{
    hooks.deadline_ms = 200;
    apply();
    fetch_outcome o = fetch_once("hang");
    EXPECT_EQ(o.code, HTTPCLI_NO_CONNECTION);
    EXPECT_FALSE(o.has_body);
    EXPECT_TRUE(fetchers().empty());
}

TEST_F(fetch_test, AChildThatEndsItsPipeAndGoesOnIsKilledAtOnce)
{
    // Its pipe's end fails the poll; the loop does not wait for it to exit.
    hooks.deadline_ms = 600000;
    apply();
    fetch_outcome o = fetch_once("raw:close-and-run");
    EXPECT_EQ(o.code, HTTPCLI_NO_CONNECTION);
    EXPECT_TRUE(fetchers().empty());
}

TEST_F(fetch_test, AnAnswerOverTheBoundIsRefused)
{
    EXPECT_EQ(fetch_once("oversize").code, HTTPCLI_NO_CONNECTION);
}

TEST_F(fetch_test, AChildThatWritesGarbageOrTooLittleOrTooMuchFailsThePoll)
{
    const char *cases[] = {"raw:nothing",   "raw:text",       "raw:half-head", "raw:magic",
                           "raw:long-body", "raw:long-log",   "raw:absent-log", "raw:half-body",
                           "raw:extra",     "raw:bad-prio",   "raw:long-record", "raw:killed-mid-body"};
    for (const char *c : cases) {
        outcomes().clear();
        fetch_outcome o = fetch_once(c);
        EXPECT_EQ(o.code, HTTPCLI_NO_CONNECTION) << c;
        EXPECT_FALSE(o.has_body) << c;
        EXPECT_TRUE(fetchers().empty()) << c;
    }
}

TEST_F(fetch_test, AWholeMessageCountsOnceThePipeEnds)
{
    fetch_outcome o = fetch_once("raw:whole");
    EXPECT_EQ(o.code, 200);
    EXPECT_EQ(o.body, "ok");
}

// The poll goes on before the child that answered is waited for; one that
// does not exit is killed then, and its place comes free only after that.
TEST_F(fetch_test, AChildThatAnswersAndGoesOnIsKilledAfterThePollsSecondHalf)
{
    hooks.deadline_ms = 600000;
    apply();
    for (int i = 0; i < 5; i++)
        start(i, i == 0 ? "raw:answer-and-run" : "hang");
    EXPECT_EQ(kd_fetch_waiting(), 1u);
    await(1);
    EXPECT_EQ(outcomes()[0].code, 200);
    EXPECT_EQ(outcomes()[0].body, "ok");
    // Its place went to the fifth feed: four children fetch, none more.
    EXPECT_EQ(kd_fetch_running(), 4u);
    EXPECT_EQ(kd_fetch_phase_of(&feeds[4]), KD_FETCH_RUNNING);
    EXPECT_EQ(fetchers().size(), 4u);
}

TEST_F(fetch_test, AThousandFetchesLeaveNoDescriptorAndNoChild)
{
    fetch_once(); // the multiplexer's own descriptor comes with its first use
    turn_until([] { return kd_spare_pid() != 0; });
    size_t fds = open_descriptors();
    for (int round = 0; round < 250; round++) {
        for (int i = 0; i < 4; i++)
            start(i);
        await(static_cast<size_t>(round + 1) * 4 + 1);
    }
    // The spare holds two: the rest of its job's input and its result pipe.
    turn_until([] { return kd_spare_pid() != 0; });
    EXPECT_EQ(open_descriptors(), fds);
    EXPECT_TRUE(fetchers().empty());
    for (const auto &o : outcomes())
        ASSERT_EQ(o.code, 200);
}

// kelp-fetch itself: an input that is not a job is refused without a word
// on its pipe, which the daemon takes as no connection.
TEST_F(fetch_test, KelpFetchRefusesWhatIsNotAJob)
{
    signal(SIGCHLD, SIG_DFL); // its exit status is what is looked at
    std::string real = launchable(KELP_FETCH_PROGRAM_PATH);
    const char not_a_job[] = "not-a-pid\0-\0-\0" "http://127.0.0.1:9/\0" "3\0" "0\0" "0";
    int fd = -1;
    pid_t pid = child_spawn(real.c_str(), not_a_job, sizeof not_a_job, &fd);
    ASSERT_GT(pid, 0);
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_EQ(WEXITSTATUS(status), 2);
    char byte;
    EXPECT_EQ(read(fd, &byte, 1), 0);
    close(fd);
    if (real != KELP_FETCH_PROGRAM_PATH)
        unlink(real.c_str());
}

// kelp-fetch against a port nobody listens on: its real fetch, as a poll.
TEST_F(fetch_test, KelpFetchAnswersAsTheHttpClientDoes)
{
    std::string real = launchable(KELP_FETCH_PROGRAM_PATH);
    hooks.program = real.c_str();
    apply();
    EXPECT_EQ(fetch_once("http://127.0.0.1:9/feed.xml").code, HTTPCLI_NO_CONNECTION);
    EXPECT_TRUE(fetchers().empty());
    if (real != KELP_FETCH_PROGRAM_PATH)
        unlink(real.c_str());
}

TEST_F(fetch_test, AJobThatCannotBeHandedOverFailsThePoll)
{
    std::string url(KD_FETCH_JOB_MAX, 'u');
    EXPECT_EQ(fetch_once(url.c_str()).code, HTTPCLI_NO_CONNECTION);
    EXPECT_TRUE(log_has_prio("unable to start " + fake + ": Argument list too long", LOG_ERR));
}

std::string job_text(std::initializer_list<const char *> fields)
{
    std::string t;
    for (const char *f : fields)
        t += std::string(f) + '\0';
    return t;
}

// The daemon's two parts of a job, one after the other.
size_t write_job(const kd_fetch_job &job, char *text, size_t size)
{
    size_t who = kd_fetch_who_write(job, text, size);
    size_t what = who ? kd_fetch_what_write(job, text + who, size - who) : 0;
    return what ? who + what : 0;
}

TEST(FetchJob, ReadsBackWhatTheDaemonWrites)
{
    kd_fetch_job job{"http://feeds.test/a?x=1 y", httpcli_ctx{nullptr, 0, 2, 3.0f}, 3, 4242, true, {65534, 65533}};
    char text[KD_FETCH_JOB_MAX];
    size_t who = kd_fetch_who_write(job, text, sizeof text);
    EXPECT_EQ(std::string(text, who), job_text({"4242", "65534", "65533"}));
    size_t len = write_job(job, text, sizeof text);
    ASSERT_GT(len, 0u);
    EXPECT_EQ(std::string(text, len),
              job_text({"4242", "65534", "65533", "http://feeds.test/a?x=1 y", "3", "2", "3"}));
    kd_fetch_job back{};
    ASSERT_TRUE(kd_fetch_job_read(text, len, &back));
    EXPECT_STREQ(back.url, "http://feeds.test/a?x=1 y");
    EXPECT_FLOAT_EQ(back.ctx.timeout, 3.0f);
    EXPECT_EQ(back.ctx.debug, 2);
    EXPECT_EQ(back.ctx.proxy, nullptr);
    EXPECT_EQ(back.verbosity, 3u);
    EXPECT_EQ(back.parent, 4242);
    EXPECT_TRUE(back.become);
    EXPECT_EQ(back.account.uid, 65534u);
    EXPECT_EQ(back.account.gid, 65533u);
}

TEST(FetchJob, AnUrlThatDoesNotFitIsNotWritten)
{
    std::string url(KD_FETCH_JOB_MAX, 'u');
    kd_fetch_job job{url.c_str(), httpcli_ctx{nullptr, 0, 2, 3.0f}, 3, 4242, false, {}};
    char text[KD_FETCH_JOB_MAX];
    EXPECT_EQ(kd_fetch_what_write(job, text, sizeof text), 0u);
    EXPECT_EQ(write_job(job, text, sizeof text), 0u);
}

struct job_case {
    std::string text;
    bool job;
};

TEST(FetchJob, RefusesEverythingElse)
{
    const job_case cases[] = {
        {job_text({"42", "-", "-", "u", "3", "2", "3"}), true},
        {job_text({"42", "1", "2", "u", "3", "2", "3"}), true},
        {job_text({"42", "-", "2", "u", "3", "2", "3"}), false},
        {job_text({"42", "1", "-", "u", "3", "2", "3"}), false},
        {job_text({"42", "-", "-", "u", "x", "2", "3"}), false},
        {job_text({"42", "-", "-", "u", "-1", "2", "3"}), false},
        {job_text({"42", "-", "-", "u", "nan", "2", "3"}), false},
        {job_text({"42", "-", "-", "u", "3", "2x", "3"}), false},
        {job_text({"42", "-", "-", "u", "3", "2", "-3"}), false},
        {job_text({"0", "-", "-", "u", "3", "2", "3"}), false},
        {job_text({"42", "4294967295", "2", "u", "3", "2", "3"}), false},
        {job_text({"42", "-", "-", "u", "3", "2", "3", "extra"}), false},
        {job_text({"42", "-", "-", "u", "3", "2"}), false},
        {job_text({"42", "-", "-", "u", "3", "2", "3"}).substr(0, 14), false}, // no end
        {"", false},
    };
    for (const auto &c : cases) {
        kd_fetch_job job{};
        EXPECT_EQ(kd_fetch_job_read(c.text.data(), c.text.size(), &job), c.job) << testing::PrintToString(c.text);
    }
}

} // namespace
