// kd_fetch_child: the fetching child's side. Everything random or secret
// the TLS session needs is made here, in a new process (http/tls.cpp seeds a
// new generator for every session), so no two fetches share a random stream.
#include "refresh/kd_fetch_child.h"

#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

#include "refresh/kd_fetch_wire.h"
#include "util/kd_log.h"

namespace {

// URL, TIMEOUT, DEBUG, VERBOSITY, PARENT, UID, GID.
constexpr size_t kJobFields = 7;

// The lines the fetch logs, sent along with its outcome.
struct child_log {
    char text[KD_FETCH_LOG_MAX];
    uint32_t len;
};

child_log g_log;

void keep_line(int prio, const char *text)
{
    uint32_t head[2] = {static_cast<uint32_t>(prio), static_cast<uint32_t>(strlen(text))};
    if (head[1] > sizeof g_log.text - g_log.len - sizeof head)
        return; // the first lines tell why; later ones are dropped
    memcpy(g_log.text + g_log.len, head, sizeof head);
    memcpy(g_log.text + g_log.len + sizeof head, text, head[1]);
    g_log.len += static_cast<uint32_t>(sizeof head) + head[1];
}

// A whole decimal number within [lo, hi] (long long: 32-bit targets have a
// long too short for a uid).
bool read_number(const char *s, long long lo, long long hi, long long *out)
{
    char *end = nullptr;
    errno = 0;
    long long v = strtoll(s, &end, 10);
    if (errno || end == s || *end || v < lo || v > hi)
        return false;
    *out = v;
    return true;
}

bool read_timeout(const char *s, float *out)
{
    char *end = nullptr;
    float v = strtof(s, &end);
    if (end == s || *end || !std::isfinite(v) || v < 0)
        return false;
    *out = v;
    return true;
}

bool read_account(const char *uid, const char *gid, kd_fetch_job *job)
{
    job->become = strcmp(uid, "-") != 0;
    if (!job->become)
        return strcmp(gid, "-") == 0;
    long long u, g;
    if (!read_number(uid, 0, UINT32_MAX - 1LL, &u) || !read_number(gid, 0, UINT32_MAX - 1LL, &g))
        return false;
    job->account = child_account{static_cast<uid_t>(u), static_cast<gid_t>(g)};
    return true;
}

} // namespace

size_t kd_fetch_job_write(const kd_fetch_job &job, char *buf, size_t size)
{
    char uid[16] = "-", gid[16] = "-";
    if (job.become) {
        snprintf(uid, sizeof uid, "%u", static_cast<unsigned>(job.account.uid));
        snprintf(gid, sizeof gid, "%u", static_cast<unsigned>(job.account.gid));
    }
    int n = snprintf(buf, size, "%s%c%.6g%c%d%c%u%c%d%c%s%c%s%c", job.url, 0, static_cast<double>(job.ctx.timeout),
                     0, static_cast<int>(job.ctx.debug), 0, static_cast<unsigned>(job.verbosity), 0,
                     static_cast<int>(job.parent), 0, uid, 0, gid, 0);
    return n > 0 && static_cast<size_t>(n) < size ? static_cast<size_t>(n) : 0;
}

bool kd_fetch_job_read(const char *text, size_t len, kd_fetch_job *job)
{
    const char *field[kJobFields];
    size_t n = 0;
    for (size_t start = 0, i = 0; i < len; i++) {
        if (text[i] != '\0')
            continue;
        if (n == kJobFields)
            return false; // more than a job
        field[n++] = text + start;
        start = i + 1;
    }
    if (n != kJobFields || len == 0 || text[len - 1] != '\0')
        return false;
    long long debug, verb, parent;
    if (!read_timeout(field[1], &job->ctx.timeout) || !read_number(field[2], INT32_MIN, INT32_MAX, &debug) ||
        !read_number(field[3], 0, UINT32_MAX, &verb) || !read_number(field[4], 1, INT32_MAX, &parent) ||
        !read_account(field[5], field[6], job))
        return false;
    job->url = field[0];
    job->ctx.proxy = nullptr;
    job->ctx.proxy_port = 0;
    job->ctx.debug = static_cast<int32_t>(debug);
    job->verbosity = static_cast<uint32_t>(verb);
    job->parent = static_cast<pid_t>(parent);
    return true;
}

bool kd_fetch_job_receive(char *buf, kd_fetch_job *job)
{
    size_t len = 0;
    for (ssize_t n; len < KD_FETCH_JOB_MAX && (n = read(0, buf + len, KD_FETCH_JOB_MAX - len)) != 0; ) {
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return false;
        len += static_cast<size_t>(n);
    }
    char more;
    if (len == KD_FETCH_JOB_MAX && read(0, &more, 1) > 0)
        return false; // longer than any job
    return kd_fetch_job_read(buf, len, job);
}

int kd_fetch_child_run(const kd_fetch_job &job, kd_fetch_fn fetch)
{
    kd_log_set_sink(keep_line);
    verbosity = job.verbosity;
    httpcli_buffer resp{};
    http_result res{};
    httpcli_ctx ctx = job.ctx;
    int code = HTTPCLI_NO_CONNECTION;
    int err = job.become ? child_drop_privileges(&job.account) : 0;
    if (err)
        KD_LOG(1, LOG_ERR, "unable to drop privileges to fetch %s: %s", job.url, strerror(err));
    else if (!child_confine(job.parent))
        return 1; // the daemon is gone: nobody to answer
    else
        code = fetch(&ctx, job.url, &resp, &res);
    bool sent = kd_fetch_write(CHILD_RESULT_FD, code, &resp, &res, g_log.text, g_log.len);
    kd_fetch_release(&resp, &res);
    return sent ? 0 : 1;
}

int kd_fetch_child_main(kd_fetch_fn fetch)
{
    char text[KD_FETCH_JOB_MAX];
    kd_fetch_job job{};
    if (!kd_fetch_job_receive(text, &job))
        return 2;
    return kd_fetch_child_run(job, fetch);
}
