// kd_interweb: the refresh of one feed entry, run by its poll timers.
// Placeholder: a refresh only records that it ran; fetching comes later.
#pragma once
#include <cstdint>

// Number of refreshes run since start, for diagnostics and tests.
extern uint32_t g_refresh_count;

// Timer callback of every poll timer; param is the entry's feed record.
void kd_refresh_entry(void *param, int id);
