// fake_fetcher: a stand-in for kelp-fetch in the tests of the fetching
// children. Its URL picks what it does. Through the real child's work
// (privileges, confinement, the answer): "serve" a small feed, "pid" (its
// pid as the code), "identity" (the uid as the code; gid, no-new-privileges
// bit and the descriptors above 2 as the headers), "log" two lines and
// fail, "hang", "oversize" a body over the bound. Hostile, writing its pipe
// itself: "raw:<what>".
#include "refresh/kd_fetch_child.h"
#include "refresh/kd_fetch_wire.h"
#include "platform/slab.h"
#include "util/kd_log.h"
#include "tests/unit/refresh/descriptors.h"

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/prctl.h>
#include <unistd.h>

namespace {

const char kBody[] = "<rss><channel><item><title>K</title></item></channel></rss>";

int serve(httpcli_buffer *resp, http_result *res)
{
    resp->start = kd_strdup(kBody);
    resp->len = static_cast<uint32_t>(strlen(kBody));
    resp->size = resp->len + 1;
    res->content_type = kd_strdup("text/xml; charset=utf-8");
    res->content_encoding = kd_strdup("identity");
    return 200;
}

int identity(http_result *res)
{
    res->content_type = kd_strdup(std::to_string(getgid()).c_str());
    res->location = kd_strdup(std::to_string(prctl(PR_GET_NO_NEW_PRIVS, 0, 0, 0, 0)).c_str());
    res->content_encoding = kd_strdup(descriptors_above_2().c_str());
    return static_cast<int>(getuid());
}

int scripted(httpcli_ctx *, const char *url, httpcli_buffer *resp, http_result *res)
{
    std::string what = url;
    if (what == "serve")
        return serve(resp, res);
    if (what == "identity")
        return identity(res);
    if (what == "pid")
        return static_cast<int>(getpid());
    if (what == "log") {
        KD_LOG(1, LOG_ERR, "TLS with %s failed: certificate expired", url);
        KD_LOG(4, LOG_DEBUG, "[kddbg] second line");
        return HTTPCLI_NO_CONNECTION;
    }
    if (what == "oversize") {
        resp->len = KD_FETCH_PART_MAX + 1;
        resp->size = resp->len + 1;
        resp->start = static_cast<char *>(kd_calloc(1, resp->size));
        return 200;
    }
    for (;;) // "hang"
        pause();
}

bool head(uint32_t body_len, uint32_t log_len, const char *magic = "KFR1")
{
    kd_fetch_head h;
    memcpy(h.magic, magic, 4);
    h.code = 200;
    h.len[KD_FETCH_BODY] = body_len;
    h.len[KD_FETCH_CTYPE] = h.len[KD_FETCH_LOCATION] = h.len[KD_FETCH_CENCODING] = KD_FETCH_ABSENT;
    h.len[KD_FETCH_LOG] = log_len;
    return child_write_all(CHILD_RESULT_FD, &h, sizeof h);
}

bool put(const void *data, size_t n) { return child_write_all(CHILD_RESULT_FD, data, n); }

// What a broken or hostile child may write; false when the write failed.
bool raw(const std::string &what)
{
    const char text[] = "HTTP/1.1 200 OK\r\n\r\n<rss/> and some more bytes than a head";
    uint32_t bad_prio[2] = {99, 0};
    uint32_t long_record[3] = {LOG_ERR, 5000, 0};
    if (what == "nothing")
        return true;
    if (what == "text")
        return put(text, sizeof text);
    if (what == "half-head")
        return put("KFR1\0\0\0\0\0\0", 10);
    if (what == "magic")
        return head(0, 0, "KFR2");
    if (what == "long-body")
        return head(KD_FETCH_PART_MAX + 1, 0);
    if (what == "long-log")
        return head(0, KD_FETCH_LOG_MAX + 1);
    if (what == "absent-log")
        return head(0, KD_FETCH_ABSENT);
    if (what == "half-body")
        return head(100, 0) && put(kBody, 50);
    if (what == "extra")
        return head(4, 0) && put("body!", 5);
    if (what == "bad-prio")
        return head(0, sizeof bad_prio) && put(bad_prio, sizeof bad_prio);
    if (what == "long-record")
        return head(0, sizeof long_record) && put(long_record, sizeof long_record);
    if (what == "killed-mid-body") {
        if (head(100, 0) && put(kBody, 20))
            kill(getpid(), SIGKILL);
        return false;
    }
    if (what == "whole")
        return head(2, 0) && put("ok", 2);
    if (what == "answer-and-run") { // a whole answer, then goes on
        if (!head(2, 0) || !put("ok", 2))
            return false;
        close(CHILD_RESULT_FD);
        for (;;)
            pause();
    }
    if (what == "close-and-run") { // ends its pipe and goes on
        close(CHILD_RESULT_FD);
        for (;;)
            pause();
    }
    return false;
}

} // namespace

int main()
{
    char text[KD_FETCH_JOB_MAX];
    kd_fetch_job job{};
    int dropped = 0;
    if (int status = kd_fetch_child_start(text, &job, &dropped))
        _exit(status);
    if (strncmp(job.url, "raw:", 4) == 0)
        _exit(raw(job.url + 4) ? 0 : 1);
    _exit(kd_fetch_child_run(job, dropped, scripted)); // as kelp-fetch does

}
