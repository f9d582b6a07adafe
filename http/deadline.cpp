// httpcli fetch deadline: the end of the fetch under way on the monotonic
// clock (a wall-clock step must neither cut a fetch short nor stretch it).
#include "http/deadline.h"

#include <ctime>

#include "http/httpcli.h"

namespace {

// End of the armed fetch in nanoseconds of CLOCK_MONOTONIC; 0: none armed.
int64_t fetch_end_ns = 0;

int64_t monotonic_ns()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

// A negative, NaN or absurd setting must not make the conversion undefined;
// anything not positive leaves no time at all.
int64_t deadline_ns()
{
    float s = httpcli_current_hooks().fetch_deadline;
    if (!(s > 0.0f))
        return 0;
    return static_cast<int64_t>(static_cast<double>(s < 1e8f ? s : 1e8f) * 1e9);
}

} // namespace

http_fetch_clock::http_fetch_clock() : owner_(fetch_end_ns == 0)
{
    if (owner_)
        fetch_end_ns = monotonic_ns() + deadline_ns();
}

http_fetch_clock::~http_fetch_clock()
{
    if (owner_)
        fetch_end_ns = 0;
}

int64_t http_fetch_left_ns()
{
    if (fetch_end_ns == 0)
        return INT64_MAX;
    int64_t left = fetch_end_ns - monotonic_ns();
    return left > 0 ? left : 0;
}
