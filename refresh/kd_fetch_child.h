// kd_fetch_child: the fetching child, kelp-fetch. The daemon starts it with
// one poll's job on its standard input; it gives up root, confines itself,
// fetches with the HTTP client exactly as a poll always has, and writes the
// outcome, with the lines it logged, to its pipe (platform/child.h).
//
// The job is seven fields, each ended by a NUL byte: URL, TIMEOUT (the
// poll's per-wait time-out in seconds), DEBUG (the context's debug level),
// VERBOSITY (the daemon's), PARENT (the daemon's pid), UID and GID (the
// account to become, or "-" for both when the daemon is not root). It comes
// on standard input, not on the command line, which every local user can
// read: a feed's URL may carry a private token.
#pragma once
#include <cstddef>
#include <cstdint>
#include <sys/types.h>

#include "http/httpcli.h"
#include "platform/child.h"

// The most a job may take: what a pipe holds at the least, so that the
// daemon writes it whole without waiting.
inline constexpr size_t KD_FETCH_JOB_MAX = 4096;

struct kd_fetch_job {
    const char *url;
    httpcli_ctx ctx;
    uint32_t verbosity;
    pid_t parent;
    bool become;            // take `account` (the daemon runs as root)
    child_account account;
};

typedef int (*kd_fetch_fn)(httpcli_ctx *ctx, const char *url, httpcli_buffer *resp, http_result *res);

// The daemon's side: the job's bytes into buf; their count, or 0 when the
// job does not fit (an absurdly long URL).
size_t kd_fetch_job_write(const kd_fetch_job &job, char *buf, size_t size);

// The child's side: a job from its bytes (the URL then points into text);
// false when they are not one.
bool kd_fetch_job_read(const char *text, size_t len, kd_fetch_job *job);

// Reads the job from standard input into buf (KD_FETCH_JOB_MAX bytes);
// false when there is none.
bool kd_fetch_job_receive(char *buf, kd_fetch_job *job);

// The child's whole work on its job with `fetch` (httpcli_get in
// kelp-fetch); its exit status, 1 when the daemon's pipe was gone.
int kd_fetch_child_run(const kd_fetch_job &job, kd_fetch_fn fetch);

// A fetching program's whole life: its job from standard input, then
// kd_fetch_child_run; the exit status, 2 when no job came.
int kd_fetch_child_main(kd_fetch_fn fetch);
