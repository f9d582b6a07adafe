// kd_fetch_spare: one fetching child started ahead of need. Starting a
// program costs milliseconds (the kernel's exec, the dynamic loader, the
// name service's configuration), which a poll would otherwise wait for after
// it fell due. While fetches come, the fetch module keeps one spare: a
// kelp-fetch that has been given the first part of its job (who to be), has
// given up root and confined itself, and waits for the rest. A spare that no
// poll takes within KD_FETCH_SPARE_IDLE_MS ends, so that a quiet daemon
// keeps no child.
#pragma once
#include <cstddef>
#include <cstdint>
#include <sys/types.h>

// Polls that fall due together (a login, feeds of the same interval) come
// within seconds of each other; polls apart by more start their own child.
inline constexpr uint32_t KD_FETCH_SPARE_IDLE_MS = 10000;

// Asks for a spare of `program` with the job's first part `who` (n bytes):
// it is started on the loop's next turn, unless one lives or is on its way.
// idle_ms: how long it waits for a poll before it ends; 0 asks for none.
void kd_spare_want(const char *program, const char *who, size_t n, uint32_t idle_ms);

// Hands the rest of a job (`what`, n bytes) to the spare of `program`: true,
// with its pid and the read end of its result pipe, when a live spare took
// it; false when there was none or it had died (it is then gone).
bool kd_spare_take(const char *program, const char *what, size_t n, pid_t *pid, int *rfd);

// The spare, and the one on its way, go: killed and reaped.
void kd_spare_end(void);

// The spare's pid, 0 when there is none (tests, diagnostics).
pid_t kd_spare_pid(void);
