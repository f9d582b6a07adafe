// Fetches in child processes: the answer as the HTTP client gave it, the
// child's log lines written by the daemon, the child's identity and
// descriptors, at most KD_FETCH_PARALLEL side by side with the rest waiting
// in order, no fetch of a feed twice, cancelling, the deadline, and children
// that crash or write garbage, too much or too little.
#include "tests/unit/refresh/fetch_fixture.h"

#include <cstring>
#include <pwd.h>
#include <sys/prctl.h>

using namespace kelp_test;

namespace {

const char kBody[] = "<rss><channel><item><title>K</title></item></channel></rss>";

int serve_feed(httpcli_ctx *, const char *, httpcli_buffer *resp, http_result *res)
{
    resp->start = kd_strdup(kBody);
    resp->len = static_cast<uint32_t>(strlen(kBody));
    resp->size = resp->len + 1;
    res->content_type = kd_strdup("text/xml; charset=utf-8");
    res->content_encoding = kd_strdup("identity");
    return 200;
}

// The child's uid as the code; its gid, its no-new-privileges bit and its
// number of open descriptors as the three headers.
int report_identity(httpcli_ctx *, const char *, httpcli_buffer *, http_result *res)
{
    res->content_type = kd_strdup(std::to_string(getgid()).c_str());
    res->location = kd_strdup(std::to_string(prctl(PR_GET_NO_NEW_PRIVS, 0, 0, 0, 0)).c_str());
    res->content_encoding = kd_strdup(descriptors_above_2().c_str());
    return static_cast<int>(getuid());
}

int log_and_fail(httpcli_ctx *, const char *url, httpcli_buffer *, http_result *)
{
    KD_LOG(1, LOG_ERR, "TLS with %s failed: certificate expired", url);
    KD_LOG(4, LOG_DEBUG, "[kddbg] second line");
    return HTTPCLI_NO_CONNECTION;
}

int hang(httpcli_ctx *, const char *, httpcli_buffer *, http_result *)
{
    for (;;)
        pause();
}

int oversize(httpcli_ctx *, const char *, httpcli_buffer *resp, http_result *)
{
    resp->len = KD_FETCH_PART_MAX + 1;
    resp->size = resp->len + 1;
    resp->start = static_cast<char *>(kd_calloc(1, resp->size));
    return 200;
}

bool write_head(int fd, uint32_t body_len, uint32_t log_len, const char *magic = "KFR1")
{
    kd_fetch_head h;
    memcpy(h.magic, magic, 4);
    h.code = 200;
    h.len[KD_FETCH_BODY] = body_len;
    h.len[KD_FETCH_CTYPE] = h.len[KD_FETCH_LOCATION] = h.len[KD_FETCH_CENCODING] = KD_FETCH_ABSENT;
    h.len[KD_FETCH_LOG] = log_len;
    return write(fd, &h, sizeof h) == static_cast<ssize_t>(sizeof h);
}

int writes_nothing(int, const char *) { return 0; }

int writes_text(int fd, const char *)
{
    const char junk[] = "HTTP/1.1 200 OK\r\n\r\n<rss/> and some more bytes than a head";
    return write(fd, junk, sizeof junk) > 0 ? 0 : 1;
}

int writes_half_a_head(int fd, const char *)
{
    kd_fetch_head h{};
    memcpy(h.magic, "KFR1", 4);
    return write(fd, &h, sizeof h / 2) > 0 ? 0 : 1;
}

int writes_wrong_magic(int fd, const char *) { return write_head(fd, 0, 0, "KFR2") ? 0 : 1; }

int announces_too_long_a_body(int fd, const char *) { return write_head(fd, KD_FETCH_PART_MAX + 1, 0) ? 0 : 1; }

int announces_too_long_a_log(int fd, const char *) { return write_head(fd, 0, KD_FETCH_LOG_MAX + 1) ? 0 : 1; }

int absent_log(int fd, const char *) { return write_head(fd, 0, KD_FETCH_ABSENT) ? 0 : 1; }

int writes_half_the_body(int fd, const char *)
{
    return write_head(fd, 100, 0) && write(fd, kBody, 50) == 50 ? 0 : 1;
}

int writes_one_byte_too_many(int fd, const char *)
{
    return write_head(fd, 4, 0) && write(fd, "body!", 5) == 5 ? 0 : 1;
}

int writes_bad_priority(int fd, const char *)
{
    uint32_t rec[2] = {99, 0};
    return write_head(fd, 0, sizeof rec) && write(fd, rec, sizeof rec) == sizeof rec ? 0 : 1;
}

int writes_overlong_record(int fd, const char *)
{
    uint32_t rec[3] = {LOG_ERR, 5000, 0};
    return write_head(fd, 0, sizeof rec) && write(fd, rec, sizeof rec) == sizeof rec ? 0 : 1;
}

int dies_mid_body(int fd, const char *)
{
    if (write_head(fd, 100, 0) && write(fd, kBody, 20) == 20)
        kill(getpid(), SIGKILL);
    return 0;
}

int exits_without_closing(int fd, const char *)
{
    // A whole, good message: the answer counts once the pipe ends.
    return write_head(fd, 2, 0) && write(fd, "ok", 2) == 2 ? 0 : 1;
}

TEST_F(fetch_test, TheAnswerArrivesAsTheClientGaveIt)
{
    use(serve_feed);
    fetch_outcome o = fetch_once();
    EXPECT_EQ(o.feed, &feeds[0]);
    EXPECT_EQ(o.url, "http://feeds.test/a");
    EXPECT_EQ(o.code, 200);
    EXPECT_EQ(o.body, kBody);
    EXPECT_EQ(o.content_type, "text/xml; charset=utf-8");
    EXPECT_EQ(o.location, "(none)");
    EXPECT_EQ(o.content_encoding, "identity");
    EXPECT_EQ(kd_fetch_running(), 0u);
}

TEST_F(fetch_test, TheChildsLinesAreWrittenByTheDaemonBeforeThePollGoesOn)
{
    use(log_and_fail);
    fetch_outcome o = fetch_once();
    EXPECT_EQ(o.code, HTTPCLI_NO_CONNECTION);
    ASSERT_EQ(captured_log().size(), 3u);
    EXPECT_EQ(captured_log()[0].text, "TLS with http://feeds.test/a failed: certificate expired");
    EXPECT_EQ(captured_log()[0].prio, LOG_ERR);
    EXPECT_EQ(captured_log()[1].text, "[kddbg] second line");
    EXPECT_EQ(captured_log()[1].prio, LOG_DEBUG);
    EXPECT_EQ(captured_log()[2].text, "outcome of http://feeds.test/a: 1");
}

TEST_F(fetch_test, TheChildsVerbosityGatesItsLines)
{
    use(log_and_fail);
    verbosity = 1;
    fetch_once();
    ASSERT_EQ(captured_log().size(), 2u);
    EXPECT_EQ(captured_log()[0].text, "TLS with http://feeds.test/a failed: certificate expired");
}

TEST_F(fetch_test, TheChildRunsUnprivilegedWithOnlyItsPipe)
{
    use(report_identity);
    fetch_outcome o = fetch_once();
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
    use(report_identity);
    fetch_outcome o = fetch_once();
    if (geteuid() == 0) {
        EXPECT_EQ(o.code, HTTPCLI_NO_CONNECTION);
        EXPECT_TRUE(log_has_prio("no user 'no-such-user-kelp' to fetch feeds as", LOG_ERR));
    } else {
        EXPECT_EQ(o.code, static_cast<int>(getuid())); // nobody to become: nothing to drop
    }
}

TEST_F(fetch_test, AtMostFourRunAndTheRestWaitInOrder)
{
    use(hang);
    for (int i = 0; i < 6; i++)
        start(i);
    EXPECT_EQ(KD_FETCH_PARALLEL, 4u);
    EXPECT_EQ(kd_fetch_running(), 4u);
    EXPECT_EQ(kd_fetch_waiting(), 2u);
    for (int i = 0; i < 4; i++)
        EXPECT_EQ(kd_fetch_phase_of(&feeds[i]), KD_FETCH_RUNNING) << i;
    kd_fetch_cancel(&feeds[2]);
    EXPECT_EQ(kd_fetch_phase_of(&feeds[2]), KD_FETCH_NONE);
    EXPECT_EQ(kd_fetch_phase_of(&feeds[4]), KD_FETCH_RUNNING);
    EXPECT_EQ(kd_fetch_phase_of(&feeds[5]), KD_FETCH_WAITING);
    kd_fetch_cancel_all();
    await_no_children();
    EXPECT_TRUE(outcomes().empty()); // a dropped fetch reports nothing
}

TEST_F(fetch_test, AFeedIsNotFetchedTwiceAtOnce)
{
    use(serve_feed);
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
    use(hang);
    for (int i = 0; i < 4; i++)
        start(i);
    start(5, "http://feeds.test/old");
    start(5, "http://feeds.test/new");
    EXPECT_EQ(kd_fetch_waiting(), 1u);
    use(serve_feed);
    kd_fetch_cancel(&feeds[0]);
    await(1);
    EXPECT_EQ(outcomes()[0].url, "http://feeds.test/new");
}

TEST_F(fetch_test, ARunningFetchOfAnOldAddressStartsOver)
{
    use(hang);
    start(0, "http://feeds.test/old");
    use(serve_feed);
    start(0, "http://feeds.test/new");
    EXPECT_EQ(kd_fetch_running(), 1u);
    await(1);
    EXPECT_EQ(outcomes()[0].url, "http://feeds.test/new");
    EXPECT_EQ(outcomes()[0].code, 200);
}

TEST_F(fetch_test, ACancelledFetchReportsNothingAndItsChildGoes)
{
    use(hang);
    start(0);
    ASSERT_EQ(my_children().size(), 1u);
    kd_fetch_cancel(&feeds[0]);
    EXPECT_EQ(kd_fetch_running(), 0u);
    await_no_children();
    // Nothing of it is left that could fire: no pipe, no deadline.
    EXPECT_EQ(csock_count(), 0u);
    EXPECT_EQ(timeout_count(), 0u);
    EXPECT_TRUE(outcomes().empty());
}

TEST_F(fetch_test, AChildThatOutlivesTheDeadlineIsKilled)
{
    hooks.deadline_ms = 200;
    use(hang);
    fetch_outcome o = fetch_once();
    EXPECT_EQ(o.code, HTTPCLI_NO_CONNECTION);
    EXPECT_FALSE(o.has_body);
    await_no_children();
}

TEST_F(fetch_test, AnAnswerOverTheBoundIsRefused)
{
    use(oversize);
    EXPECT_EQ(fetch_once().code, HTTPCLI_NO_CONNECTION);
}

struct hostile_child {
    const char *name;
    int (*child_main)(int, const char *);
};

TEST_F(fetch_test, AChildThatWritesGarbageOrTooLittleOrTooMuchFailsThePoll)
{
    const hostile_child cases[] = {
        {"nothing", writes_nothing},
        {"text", writes_text},
        {"half a head", writes_half_a_head},
        {"wrong magic", writes_wrong_magic},
        {"too long a body", announces_too_long_a_body},
        {"too long a log", announces_too_long_a_log},
        {"no log part", absent_log},
        {"half the body", writes_half_the_body},
        {"one byte too many", writes_one_byte_too_many},
        {"bad priority", writes_bad_priority},
        {"overlong record", writes_overlong_record},
        {"killed mid-body", dies_mid_body},
    };
    for (const auto &c : cases) {
        outcomes().clear();
        use_child(c.child_main);
        fetch_outcome o = fetch_once();
        EXPECT_EQ(o.code, HTTPCLI_NO_CONNECTION) << c.name;
        EXPECT_FALSE(o.has_body) << c.name;
    }
}

TEST_F(fetch_test, AWholeMessageCountsOnceThePipeEnds)
{
    use_child(exits_without_closing);
    fetch_outcome o = fetch_once();
    EXPECT_EQ(o.code, 200);
    EXPECT_EQ(o.body, "ok");
}

TEST_F(fetch_test, AThousandFetchesLeaveNoDescriptorAndNoChild)
{
    use(serve_feed);
    fetch_once(); // the multiplexer's own descriptor comes with its first use
    size_t fds = open_descriptors();
    for (int round = 0; round < 250; round++) {
        for (int i = 0; i < 4; i++)
            start(i);
        await(static_cast<size_t>(round + 1) * 4 + 1);
    }
    EXPECT_EQ(open_descriptors(), fds);
    await_no_children();
    for (const auto &o : outcomes())
        ASSERT_EQ(o.code, 200);
}

} // namespace
