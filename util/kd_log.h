// Logging and assertions shared by every module of kelpd. Each message has a
// fixed syslog priority and is written only when `verbosity` reaches its
// threshold (1 errors, 2 lifecycle and clients, 3 configd and polls, 4 debug).
#pragma once
#include <cstdarg>
#include <cstdint>
#include <syslog.h>

extern uint32_t verbosity;

// One line to syslog, or to the sink a fetching child has set (the daemon
// writes the child's lines itself, under its own name and pid).
void kd_log(int prio, const char *fmt, ...) __attribute__((format(printf, 2, 3)));

// Where a fetching child's lines go instead of syslog; null: syslog again.
typedef void (*kd_log_sink)(int prio, const char *text);
void kd_log_set_sink(kd_log_sink sink);

#define KD_LOG(min, prio, ...)                                                                     \
    do {                                                                                           \
        if (verbosity >= static_cast<uint32_t>(min))                                               \
            kd_log((prio), __VA_ARGS__);                                                           \
    } while (0)

// A broken invariant or a required pointer that is null: abort with the
// expression exactly as written, the module and the line.
[[noreturn]] void kd_assert_fail(const char *expr, const char *module, int line);

#define KD_ASSERT(e) ((e) ? static_cast<void>(0) : kd_assert_fail(#e, __FILE_NAME__, __LINE__))
