// kd_fetch: the fetches of polls, each in a child process of its own, the
// program kelp-fetch, which drops root before it resolves a name or
// connects, so that the loop never waits for a feed server and the code
// facing the internet never runs as root (nor in the daemon at all). At most
// KD_FETCH_PARALLEL fetches run at once; polls that fall due beyond that wait
// in the order they fell due. The loop reads a child's answer without
// blocking, kills a child that has not answered within the fetch's deadline,
// and then hands the outcome to the poll's second half. While polls come, a
// spare child waits for the next one (refresh/kd_fetch_spare.h).
#pragma once
#include <cstdint>

#include "http/httpcli.h"

struct kd_node;

// Fetches side by side. Most polls wait for a server's first byte, not for
// the gateway: four overlap those waits (a login to 40 feeds at 1 s each
// takes 10 s, not 40) while a small gateway holds at most four children and
// four downloads (under 1 MiB each) at a time, and a feed host is not hit by
// a burst.
inline constexpr unsigned KD_FETCH_PARALLEL = 4;

// What finishes a poll once its fetch has ended: the HTTP client's result
// code (HTTPCLI_NO_CONNECTION when the child failed or ran out of time), the
// body and the headers. The fetch module releases resp->start and the
// result's strings after the call.
typedef void (*kd_fetch_done)(kd_node *feed, const char *url, int code, httpcli_buffer *resp, http_result *res);

// Seams for tests; kd_fetch_set_hooks(nullptr) puts the defaults back.
struct kd_fetch_hooks {
    // With inline_fetch: the fetch, run on the loop itself with no child
    // (tests of the poll's second half).
    int (*fetch)(httpcli_ctx *ctx, const char *url, httpcli_buffer *resp, http_result *res);
    // The fetching program; null: kelp-fetch beside the daemon's program.
    const char *program;
    bool inline_fetch;
    // The deadline of a fetch, from its start.
    uint32_t deadline_ms;
    // The unprivileged account fetches run as when the daemon is root: the
    // build's KELP_FETCH_USER, "nobody" unless it names another.
    const char *account;
    // How long a spare child waits for a poll (KD_FETCH_SPARE_IDLE_MS); 0:
    // no spare, every fetch starts its own child.
    uint32_t spare_idle_ms;
};
void kd_fetch_set_hooks(const kd_fetch_hooks *hooks);
kd_fetch_hooks kd_fetch_default_hooks(void);

// Starts the fetch of `url` for the feed, or queues it when KD_FETCH_PARALLEL
// run already. A feed whose fetch of the same url runs or waits is left
// alone; one whose fetch is for another url (the entry has moved) starts
// over with the new one.
void kd_fetch_start(kd_node *feed, const char *url, const httpcli_ctx &ctx, kd_fetch_done done);

// Drops the feed's fetch, running or waiting: the child is killed, nothing is
// reported. Called before a feed record is freed or its poll stops.
void kd_fetch_cancel(const kd_node *feed);

// Drops every fetch and the spare child, and waits until every child has gone.
void kd_fetch_cancel_all(void);

// For tests and diagnostics.
enum kd_fetch_phase { KD_FETCH_NONE, KD_FETCH_WAITING, KD_FETCH_RUNNING };
kd_fetch_phase kd_fetch_phase_of(const kd_node *feed);
unsigned kd_fetch_running(void);
unsigned kd_fetch_waiting(void);
