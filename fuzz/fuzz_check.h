// fuzz_check: what every fuzz target shares. A broken expectation aborts, so
// that libFuzzer and the replay programs report it like a crash, with the
// failing expression.
#pragma once
#include <cstdio>
#include <cstdlib>

#include "platform/slab.h"

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
