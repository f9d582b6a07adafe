// timeout: one-shot and repeating timers on CLOCK_MONOTONIC with positive
// identifiers. Callbacks run from csock_select(). A delay of 0 means "at the
// next turn of the loop". Deleting any timer from any callback, its own
// included, is safe.
#pragma once
#include <cstddef>
#include <cstdint>

typedef void (*timeout_cb)(void *param, int id);

int timeout_init(void);
void timeout_exit(void);

// Returns the timer's identifier (> 0), or -1 without a callback or memory.
// Due times saturate at the end of the clock instead of wrapping.
int timeout_add(timeout_cb cb, uint32_t seconds, void *param, int repeating = 0);
int timeout_add_ms(timeout_cb cb, uint32_t msec, void *param, int repeating = 0);
// 0 when the timer existed, -1 otherwise.
int timeout_del(int id);
// Restarts a timer with a new interval counted from now; 0 or -1 as above.
int timeout_restartex(int id, uint32_t seconds);

// Used by csock_select(): milliseconds until the next timer is due (-1 when
// none), and running every timer that is due now, each once.
int timeout_next_ms(void);
int timeout_run_due(void);

// A one-shot timer is removed before its callback runs (deleting it from
// there returns -1); a repeating one is re-armed first (next due = previous
// due + interval, or now + interval when the loop fell behind), so its
// callback may delete or restart it. Identifiers count up to INT_MAX and wrap
// to 1, skipping identifiers in use.
//
// Marks the start of a dispatch round: timers added or re-armed from now on
// wait for the next round. csock_select() calls it once the wait is over.
void timeout_round_begin(void);
// timeout_run_due() that calls after_each (if given) after every callback.
int timeout_run_due_hook(void (*after_each)(void));
// Number of timers, for tests and diagnostics.
size_t timeout_count(void);
// Test hooks: a replacement clock in nanoseconds (null: CLOCK_MONOTONIC), and
// the identifier handed out last (the next one follows it).
void timeout_set_clock(int64_t (*now_ns)(void));
void timeout_set_last_id(int id);
