// fuzz_check: what every fuzz target shares. A broken expectation aborts, so
// that libFuzzer and the replay programs report it like a crash, with the
// failing expression.
#pragma once
#include <cstdio>
#include <cstdlib>

#include "platform/slab.h"

#if defined(__SANITIZE_ADDRESS__)
#define FUZZ_WITH_LSAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define FUZZ_WITH_LSAN 1
#endif
#endif
#ifdef FUZZ_WITH_LSAN
#include <sanitizer/lsan_interface.h>
#endif

// Brackets a call whose leaks belong to a third-party library, not to kelp.
inline void fuzz_ignore_leaks_begin()
{
#ifdef FUZZ_WITH_LSAN
    __lsan_disable();
#endif
}

inline void fuzz_ignore_leaks_end()
{
#ifdef FUZZ_WITH_LSAN
    __lsan_enable();
#endif
}

#define FUZZ_CHECK(expr)                                                                   \
    do {                                                                                   \
        if (!(expr)) {                                                                     \
            fprintf(stderr, "%s:%d: fuzz check failed: %s\n", __FILE_NAME__, __LINE__, #expr); \
            abort();                                                                       \
        }                                                                                  \
    } while (0)

// Records every input must leave behind: none. Reports how many leaked.
inline void fuzz_expect_no_leak(size_t live_at_start)
{
    size_t now = slab_live_count();
    if (now == live_at_start)
        return;
    fprintf(stderr, "fuzz: %zu slab records leaked by this input\n", now - live_at_start);
    slab_dump_for_debug("fuzz");
    abort();
}
