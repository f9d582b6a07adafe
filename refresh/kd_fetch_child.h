// kd_fetch_child: what a fetching child does between its fork and its
// _exit: give up root, fetch with the HTTP client exactly as a poll always
// has, and write the outcome, with the lines it logged, to its pipe.
#pragma once
#include "http/httpcli.h"
#include "platform/child.h"

struct kd_fetch_job {
    const char *url;
    httpcli_ctx ctx;
    child_account account;
    int (*fetch)(httpcli_ctx *ctx, const char *url, httpcli_buffer *resp, http_result *res);
    int (*replace)(int wfd, const char *url); // tests: the child's whole work
};

// The child's body for child_spawn; arg is a kd_fetch_job. Its exit status.
int kd_fetch_child_main(void *arg, int wfd);
