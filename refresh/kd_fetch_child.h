// kd_fetch_child: the fetching child, kelp-fetch. The daemon starts it with
// the job on its standard input, in two parts: who the child is to be, then
// what it is to fetch. It gives up root and confines itself as soon as it
// knows the first, fetches with the HTTP client exactly as a poll always
// has, and writes the outcome, with the lines it logged, to its pipe
// (platform/child.h). The daemon sends both parts at once, or the first when
// it starts a spare child ahead of need and the second when a poll falls due.
//
// The job is seven fields, each ended by a NUL byte: PARENT (the daemon's
// pid), UID and GID (the account to become, or "-" for both when the daemon
// is not root); then URL, TIMEOUT (the poll's per-wait time-out in seconds),
// DEBUG (the context's debug level) and VERBOSITY (the daemon's). It comes
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

// The daemon's side: the job's first part (PARENT, UID, GID) or its second
// (URL to VERBOSITY) into buf; the count of bytes, or 0 when it does not fit
// (an absurdly long URL).
size_t kd_fetch_who_write(const kd_fetch_job &job, char *buf, size_t size);
size_t kd_fetch_what_write(const kd_fetch_job &job, char *buf, size_t size);

// The child's side: a whole job from its bytes (the URL then points into
// text); false when they are not one.
bool kd_fetch_job_read(const char *text, size_t len, kd_fetch_job *job);

// The child's start, from standard input into buf (KD_FETCH_JOB_MAX bytes):
// the first part of the job, root given up (*dropped: 0, or the errno value
// of the failure), confinement, the name service and the heap made ready
// while the rest has not come, then the rest. 0 when the job is whole, else the exit
// status: 2 when no job came, 1 when the daemon is gone.
int kd_fetch_child_start(char *buf, kd_fetch_job *job, int *dropped);

// The child's work on its job with `fetch` (httpcli_get in kelp-fetch);
// its exit status, 1 when the daemon's pipe was gone.
int kd_fetch_child_run(const kd_fetch_job &job, int dropped, kd_fetch_fn fetch);

// A fetching program's whole life: kd_fetch_child_start, then
// kd_fetch_child_run; the exit status.
int kd_fetch_child_main(kd_fetch_fn fetch);
