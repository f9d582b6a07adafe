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

#include "platform/slab.h"
#include "refresh/kd_fetch_wire.h"
#include "util/kd_log.h"

namespace {

// The lines the fetch logs, sent along with its outcome.
char g_log[KD_FETCH_LOG_MAX];
uint32_t g_loglen = 0;

void keep_line(int prio, const char *text)
{
    uint32_t head[2] = {static_cast<uint32_t>(prio), static_cast<uint32_t>(strlen(text))};
    if (head[1] > sizeof g_log - g_loglen - sizeof head)
        return; // the first lines tell why; later ones are dropped
    memcpy(g_log + g_loglen, head, sizeof head);
    memcpy(g_log + g_loglen + sizeof head, text, head[1]);
    g_loglen += static_cast<uint32_t>(sizeof head) + head[1];
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

void kd_fetch_cmd_build(kd_fetch_cmd *cmd, const char *program, const kd_fetch_job &job)
{
    snprintf(cmd->timeout, sizeof cmd->timeout, "%.6g", static_cast<double>(job.ctx.timeout));
    snprintf(cmd->debug, sizeof cmd->debug, "%d", static_cast<int>(job.ctx.debug));
    snprintf(cmd->verbosity, sizeof cmd->verbosity, "%u", static_cast<unsigned>(job.verbosity));
    snprintf(cmd->parent, sizeof cmd->parent, "%d", static_cast<int>(job.parent));
    snprintf(cmd->uid, sizeof cmd->uid, job.become ? "%u" : "-", static_cast<unsigned>(job.account.uid));
    snprintf(cmd->gid, sizeof cmd->gid, job.become ? "%u" : "-", static_cast<unsigned>(job.account.gid));
    char *const argv[] = {const_cast<char *>(program), const_cast<char *>(job.url), cmd->timeout, cmd->debug,
                          cmd->verbosity, cmd->parent, cmd->uid, cmd->gid, nullptr};
    memcpy(cmd->argv, argv, sizeof argv);
}

bool kd_fetch_job_parse(int argc, char **argv, kd_fetch_job *job)
{
    long long debug, verb, parent;
    if (argc != 8 || !read_timeout(argv[2], &job->ctx.timeout) || !read_number(argv[3], INT32_MIN, INT32_MAX, &debug) ||
        !read_number(argv[4], 0, UINT32_MAX, &verb) || !read_number(argv[5], 1, INT32_MAX, &parent) ||
        !read_account(argv[6], argv[7], job))
        return false;
    job->url = argv[1];
    job->ctx.proxy = nullptr;
    job->ctx.proxy_port = 0;
    job->ctx.debug = static_cast<int32_t>(debug);
    job->verbosity = static_cast<uint32_t>(verb);
    job->parent = static_cast<pid_t>(parent);
    return true;
}

int kd_fetch_child_run(int argc, char **argv, kd_fetch_fn fetch)
{
    kd_fetch_job job{};
    if (!kd_fetch_job_parse(argc, argv, &job))
        return 2;
    kd_log_set_sink(keep_line);
    verbosity = job.verbosity;
    httpcli_buffer resp{};
    http_result res{};
    int code = HTTPCLI_NO_CONNECTION;
    int err = job.become ? child_drop_privileges(&job.account) : 0;
    if (err)
        KD_LOG(1, LOG_ERR, "unable to drop privileges to fetch %s: %s", job.url, strerror(err));
    else if (!child_confine(job.parent))
        return 1; // the daemon is gone: nobody to answer
    else
        code = fetch(&job.ctx, job.url, &resp, &res);
    bool sent = kd_fetch_write(CHILD_RESULT_FD, code, &resp, &res, g_log, g_loglen);
    kd_free(resp.start);
    kd_free(res.content_type);
    kd_free(res.location);
    kd_free(res.content_encoding);
    return sent ? 0 : 1;
}
