// timeout: owns every timer record. Timers live in one list sorted by due
// time and then by arming sequence, so timers due together run in the order
// they were added. A dispatch round remembers the arming sequence at its start
// and runs only timers armed before it: a timer added or re-armed during the
// round waits for the next one.
#include "platform/timeout.h"

#include "platform/slab.h"

#include <climits>
#include <ctime>

namespace {

struct timer_rec {
    timer_rec *next;
    timer_rec *prev;
    int id;
    int repeating;
    int64_t interval_ns;
    int64_t due_ns;
    uint64_t armseq;
    timeout_cb cb;
    void *param;
};

constexpr int64_t kNsPerMs = 1000000;
constexpr int64_t kNsPerSec = 1000000000;

// The timers in due order, the identifier and arming counters, the dispatch
// round under way and the clock (a test's, or null for CLOCK_MONOTONIC).
struct timeout_state {
    timer_rec *head;
    int last_id;
    uint64_t armseq = 1;
    uint64_t round_cutoff;
    bool round_open;
    int64_t (*clock)(void);
};

timeout_state g_timeout;

int64_t now_ns()
{
    if (g_timeout.clock)
        return g_timeout.clock();
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * kNsPerSec + ts.tv_nsec;
}

// Due times saturate, so that the longest interval counted from a late clock
// never wraps into the past and fires at once.
int64_t later(int64_t base, int64_t delta)
{
    return base > INT64_MAX - delta ? INT64_MAX : base + delta;
}

timer_rec *find(int id)
{
    for (timer_rec *t = g_timeout.head; t; t = t->next) {
        if (t->id == id)
            return t;
    }
    return nullptr;
}

void unlink_timer(timer_rec *t)
{
    if (t->prev)
        t->prev->next = t->next;
    else
        g_timeout.head = t->next;
    if (t->next)
        t->next->prev = t->prev;
    t->next = t->prev = nullptr;
}

bool runs_before(const timer_rec *a, const timer_rec *b)
{
    if (a->due_ns != b->due_ns)
        return a->due_ns < b->due_ns;
    return a->armseq < b->armseq;
}

// (Re)arms a timer: a new sequence number and its place in the sorted list.
void insert_timer(timer_rec *t, int64_t due_ns)
{
    t->due_ns = due_ns;
    t->armseq = g_timeout.armseq++;
    timer_rec *prev = nullptr;
    timer_rec *cur = g_timeout.head;
    while (cur && !runs_before(t, cur)) {
        prev = cur;
        cur = cur->next;
    }
    t->prev = prev;
    t->next = cur;
    if (cur)
        cur->prev = t;
    if (prev)
        prev->next = t;
    else
        g_timeout.head = t;
}

// Identifiers count up and wrap to 1, skipping any still in use.
int next_id()
{
    for (;;) {
        g_timeout.last_id = (g_timeout.last_id >= INT_MAX) ? 1 : g_timeout.last_id + 1;
        if (!find(g_timeout.last_id))
            return g_timeout.last_id;
    }
}

int add_ns(timeout_cb cb, int64_t delay_ns, void *param, int repeating)
{
    if (!cb)
        return -1;
    auto *t = static_cast<timer_rec *>(kd_calloc(1, sizeof(timer_rec)));
    if (!t)
        return -1;
    t->id = next_id();
    t->repeating = repeating;
    t->interval_ns = delay_ns;
    t->cb = cb;
    t->param = param;
    insert_timer(t, later(now_ns(), delay_ns));
    return t->id;
}

// The first timer that may run now in this round, or null.
timer_rec *first_runnable(int64_t now, uint64_t cutoff)
{
    for (timer_rec *t = g_timeout.head; t && t->due_ns <= now; t = t->next) {
        if (t->armseq < cutoff)
            return t;
    }
    return nullptr;
}

// A repeating timer keeps its phase unless the loop fell a whole interval behind.
void rearm(timer_rec *t, int64_t now)
{
    int64_t due = later(t->due_ns, t->interval_ns);
    if (due <= now)
        due = later(now, t->interval_ns);
    unlink_timer(t);
    insert_timer(t, due);
}

} // namespace

int timeout_init(void)
{
    return 0;
}

void timeout_exit(void)
{
    while (g_timeout.head) {
        timer_rec *t = g_timeout.head;
        unlink_timer(t);
        kd_free(t);
    }
    g_timeout.round_open = false;
}

int timeout_add(timeout_cb cb, uint32_t seconds, void *param, int repeating)
{
    return add_ns(cb, static_cast<int64_t>(seconds) * kNsPerSec, param, repeating);
}

int timeout_add_ms(timeout_cb cb, uint32_t msec, void *param, int repeating)
{
    return add_ns(cb, static_cast<int64_t>(msec) * kNsPerMs, param, repeating);
}

int timeout_del(int id)
{
    timer_rec *t = id > 0 ? find(id) : nullptr;
    if (!t)
        return -1;
    unlink_timer(t);
    kd_free(t);
    return 0;
}

int timeout_restartex(int id, uint32_t seconds)
{
    timer_rec *t = id > 0 ? find(id) : nullptr;
    if (!t)
        return -1;
    t->interval_ns = static_cast<int64_t>(seconds) * kNsPerSec;
    unlink_timer(t);
    insert_timer(t, later(now_ns(), t->interval_ns));
    return 0;
}

int timeout_next_ms(void)
{
    if (!g_timeout.head)
        return -1;
    int64_t left = g_timeout.head->due_ns - now_ns();
    if (left <= 0)
        return 0;
    // Rounded up, so that the wait never ends before the timer is due.
    int64_t ms = (left + kNsPerMs - 1) / kNsPerMs;
    return ms > INT_MAX ? INT_MAX : static_cast<int>(ms);
}

void timeout_round_begin(void)
{
    g_timeout.round_cutoff = g_timeout.armseq;
    g_timeout.round_open = true;
}

int timeout_run_due(void)
{
    return timeout_run_due_hook(nullptr);
}

int timeout_run_due_hook(void (*after_each)(void))
{
    uint64_t cutoff = g_timeout.round_open ? g_timeout.round_cutoff : g_timeout.armseq;
    g_timeout.round_open = false;
    int ran = 0;
    int64_t now = now_ns();
    while (timer_rec *t = first_runnable(now, cutoff)) {
        timeout_cb cb = t->cb;
        void *param = t->param;
        int id = t->id;
        // A one-shot timer is gone before its callback runs; a repeating one
        // is re-armed first, so the callback may delete or restart it.
        if (t->repeating) {
            rearm(t, now);
        } else {
            unlink_timer(t);
            kd_free(t);
        }
        cb(param, id);
        ran++;
        if (after_each)
            after_each();
    }
    return ran;
}

size_t timeout_count(void)
{
    size_t n = 0;
    for (timer_rec *t = g_timeout.head; t; t = t->next)
        n++;
    return n;
}

void timeout_set_clock(int64_t (*now_ns)(void))
{
    g_timeout.clock = now_ns;
}

void timeout_set_last_id(int id)
{
    g_timeout.last_id = id;
}
