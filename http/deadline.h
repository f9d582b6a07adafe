// httpcli fetch deadline: one fetch, with every redirect hop of it, ends once
// the hooks' fetch_deadline seconds (HTTPCLI_FETCH_DEADLINE) have passed on the monotonic clock, however a
// server paces its bytes. Private to http/.
#pragma once
#include <cstdint>

// Arms the deadline of a fetch starting now, unless an outer call (the
// redirect loop around a hop) armed it already; disarms only what it armed.
class http_fetch_clock {
  public:
    http_fetch_clock();
    ~http_fetch_clock();
    http_fetch_clock(const http_fetch_clock &) = delete;
    http_fetch_clock &operator=(const http_fetch_clock &) = delete;

  private:
    bool owner_;
};

// Nanoseconds left of the fetch under way: 0 once it has passed, INT64_MAX
// when no fetch is armed.
int64_t http_fetch_left_ns();

inline bool http_fetch_expired() { return http_fetch_left_ns() == 0; }
