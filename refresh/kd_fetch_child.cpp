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
#include <malloc.h>
#include <netdb.h>
#include <poll.h>
#include <unistd.h>

#include "refresh/kd_fetch_wire.h"
#include "util/kd_log.h"

namespace {

// PARENT, UID, GID; then URL, TIMEOUT, DEBUG, VERBOSITY.
constexpr size_t kWhoFields = 3;
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

// The fields of text, each ended by a NUL, into field[]: their count, or
// SIZE_MAX when there are more than max.
size_t split(const char *text, size_t len, const char **field, size_t max)
{
    size_t n = 0;
    for (size_t start = 0, i = 0; i < len; i++) {
        if (text[i] != '\0')
            continue;
        if (n == max)
            return SIZE_MAX;
        field[n++] = text + start;
        start = i + 1;
    }
    return n;
}

bool read_who(const char *const *field, kd_fetch_job *job)
{
    long long parent;
    if (!read_number(field[0], 1, INT32_MAX, &parent) || !read_account(field[1], field[2], job))
        return false;
    job->parent = static_cast<pid_t>(parent);
    return true;
}

size_t written(int n, size_t size)
{
    return n > 0 && static_cast<size_t>(n) < size ? static_cast<size_t>(n) : 0;
}

// The job's bytes read so far from standard input.
struct intake {
    char *buf;
    size_t len;
};

// One read of whatever has come; *ended at the end of the input.
bool read_some(intake *in, bool *ended)
{
    for (;;) {
        ssize_t n = read(0, in->buf + in->len, KD_FETCH_JOB_MAX - in->len);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return false;
        *ended = n == 0;
        in->len += static_cast<size_t>(n);
        return true;
    }
}

// Reads until the first `fields` fields have ended.
bool read_fields(intake *in, size_t fields)
{
    const char *field[kJobFields];
    bool ended = false;
    while (split(in->buf, in->len, field, kJobFields) < fields)
        if (ended || in->len == KD_FETCH_JOB_MAX || !read_some(in, &ended))
            return false;
    return true;
}

// Reads until the daemon ends the input; false when it holds more than a job.
bool read_to_end(intake *in)
{
    bool ended = false;
    while (!ended) {
        char more;
        if (in->len == KD_FETCH_JOB_MAX)
            return read(0, &more, 1) <= 0;
        if (!read_some(in, &ended))
            return false;
    }
    return true;
}

// True when the rest of the job (or the end of the input) is there to read.
bool job_has_come()
{
    pollfd in = {0, POLLIN, 0};
    return poll(&in, 1, 0) != 0;
}

// The body's buffer (up to 256 KiB as it grows) comes from heap pages
// touched beforehand; a first touch of a page can cost more than the bytes
// it receives. The heap keeps them: smaller blocks than this are not mapped
// apart and free memory up to this is not given back.
constexpr size_t kReadyHeap = 256 * 1024;

// What a process's first fetch pays for, done by a child started ahead of
// need while it waits: the name service's and the resolver's configuration
// (half a millisecond and more; nothing goes on the network) and the heap.
void get_ready()
{
    sethostent(0);
    endhostent();
#ifdef M_MMAP_THRESHOLD
    mallopt(M_MMAP_THRESHOLD, 2 * kReadyHeap);
    mallopt(M_TRIM_THRESHOLD, 4 * kReadyHeap);
#endif
    auto *heap = static_cast<volatile char *>(malloc(kReadyHeap));
    for (size_t i = 0; heap && i < kReadyHeap; i += 4096)
        heap[i] = 0;
    free(const_cast<char *>(heap));
}

} // namespace

size_t kd_fetch_who_write(const kd_fetch_job &job, char *buf, size_t size)
{
    char uid[16] = "-", gid[16] = "-";
    if (job.become) {
        snprintf(uid, sizeof uid, "%u", static_cast<unsigned>(job.account.uid));
        snprintf(gid, sizeof gid, "%u", static_cast<unsigned>(job.account.gid));
    }
    return written(snprintf(buf, size, "%d%c%s%c%s%c", static_cast<int>(job.parent), 0, uid, 0, gid, 0), size);
}

size_t kd_fetch_what_write(const kd_fetch_job &job, char *buf, size_t size)
{
    return written(snprintf(buf, size, "%s%c%.6g%c%d%c%u%c", job.url, 0, static_cast<double>(job.ctx.timeout), 0,
                            static_cast<int>(job.ctx.debug), 0, static_cast<unsigned>(job.verbosity), 0),
                   size);
}

bool kd_fetch_job_read(const char *text, size_t len, kd_fetch_job *job)
{
    const char *field[kJobFields];
    if (split(text, len, field, kJobFields) != kJobFields || text[len - 1] != '\0')
        return false;
    long long debug, verb;
    if (!read_who(field, job) || !read_timeout(field[4], &job->ctx.timeout) ||
        !read_number(field[5], INT32_MIN, INT32_MAX, &debug) || !read_number(field[6], 0, UINT32_MAX, &verb))
        return false;
    job->url = field[3];
    job->ctx.proxy = nullptr;
    job->ctx.proxy_port = 0;
    job->ctx.debug = static_cast<int32_t>(debug);
    job->verbosity = static_cast<uint32_t>(verb);
    return true;
}

int kd_fetch_child_start(char *buf, kd_fetch_job *job, int *dropped)
{
    intake in{buf, 0};
    const char *field[kJobFields];
    if (!read_fields(&in, kWhoFields) || split(in.buf, in.len, field, kJobFields) == SIZE_MAX ||
        !read_who(field, job))
        return 2;
    *dropped = job->become ? child_drop_privileges(&job->account) : 0;
    if (*dropped == 0 && !child_confine(job->parent))
        return 1; // the daemon is gone: nobody to answer
    if (*dropped == 0 && !job_has_come())
        get_ready();
    if (!read_to_end(&in) || !kd_fetch_job_read(buf, in.len, job))
        return 2;
    return 0;
}

int kd_fetch_child_run(const kd_fetch_job &job, int dropped, kd_fetch_fn fetch)
{
    kd_log_set_sink(keep_line);
    verbosity = job.verbosity;
    httpcli_buffer resp{};
    http_result res{};
    httpcli_ctx ctx = job.ctx;
    int code = HTTPCLI_NO_CONNECTION;
    if (dropped)
        KD_LOG(1, LOG_ERR, "unable to drop privileges to fetch %s: %s", job.url, strerror(dropped));
    else
        code = fetch(&ctx, job.url, &resp, &res);
    bool sent = kd_fetch_write(CHILD_RESULT_FD, code, &resp, &res, g_log.text, g_log.len);
    // The pipe's end is the daemon's mark that the answer is whole: not
    // delayed by the tearing down of this process.
    close(CHILD_RESULT_FD);
    kd_fetch_release(&resp, &res);
    return sent ? 0 : 1;
}

int kd_fetch_child_main(kd_fetch_fn fetch)
{
    char text[KD_FETCH_JOB_MAX];
    kd_fetch_job job{};
    int dropped = 0;
    if (int status = kd_fetch_child_start(text, &job, &dropped))
        return status;
    return kd_fetch_child_run(job, dropped, fetch);
}
