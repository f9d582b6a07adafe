// timeout: one-shot and repeating timers on CLOCK_MONOTONIC with positive
// identifiers. Callbacks run from csock_select(). A delay of 0 means "at the
// next turn of the loop". Deleting any timer from any callback, its own
// included, is safe.
#pragma once
#include <cstdint>

typedef void (*timeout_cb)(void *param, int id);

int timeout_init(void);
void timeout_exit(void);

// Returns the timer's identifier (> 0), or -1 when no memory is left.
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
