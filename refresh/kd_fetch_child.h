// kd_fetch_child: the fetching child, kelp-fetch. The daemon starts it with
// one poll's job on its command line; it gives up root, confines itself,
// fetches with the HTTP client exactly as a poll always has, and writes the
// outcome, with the lines it logged, to its pipe (platform/child.h).
//
// Command line: kelp-fetch URL TIMEOUT DEBUG VERBOSITY PARENT UID GID
// TIMEOUT is the poll's per-wait time-out in seconds, DEBUG the context's
// debug level, VERBOSITY the daemon's, PARENT the daemon's pid; UID and GID
// the account to become, or "-" for both when the daemon is not root.
#pragma once
#include <cstdint>
#include <sys/types.h>

#include "http/httpcli.h"
#include "platform/child.h"

struct kd_fetch_job {
    const char *url;
    httpcli_ctx ctx;
    uint32_t verbosity;
    pid_t parent;
    bool become;            // take `account` (the daemon runs as root)
    child_account account;
};

typedef int (*kd_fetch_fn)(httpcli_ctx *ctx, const char *url, httpcli_buffer *resp, http_result *res);

// The command line of one job, built by the daemon: its texts and argv.
struct kd_fetch_cmd {
    char timeout[24], debug[16], verbosity[16], parent[16], uid[16], gid[16];
    char *argv[9];
};
void kd_fetch_cmd_build(kd_fetch_cmd *cmd, const char *program, const kd_fetch_job &job);

// Reads a job from the child's command line; false when it is not one.
bool kd_fetch_job_parse(int argc, char **argv, kd_fetch_job *job);

// The child's whole work with `fetch` (httpcli_get in kelp-fetch); its
// exit status. 2: not a job; 1: the daemon's pipe was gone.
int kd_fetch_child_run(int argc, char **argv, kd_fetch_fn fetch);
