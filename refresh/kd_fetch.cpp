// kd_fetch: polls' fetches in unprivileged children (kelp-fetch), side by
// side, bounded in number and in time; the loop reads each answer as it comes.
#include "refresh/kd_fetch.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <unistd.h>

#include "platform/child.h"
#include "platform/csock.h"
#include "platform/slab.h"
#include "platform/timeout.h"
#include "refresh/kd_fetch_child.h"
#include "refresh/kd_fetch_spare.h"
#include "refresh/kd_fetch_wire.h"
#include "util/kd_log.h"

#ifndef KELP_FETCH_USER
#define KELP_FETCH_USER "nobody"
#endif

// The fetching program, looked for beside the daemon's own.
#define KELP_FETCH_PROGRAM "kelp-fetch"

namespace {

// One fetch, running (pid > 0) or waiting for a free place.
struct kd_fetch {
    kd_fetch *next;
    kd_node *feed;
    char *url;
    httpcli_ctx ctx;
    kd_fetch_done done;
    pid_t pid;
    int fd;      // read end of the child's pipe
    int handle;  // its csock handle
    int timer;   // the deadline
    kd_fetch_reader reader;
};

struct fetch_state {
    kd_fetch *running;
    kd_fetch *waiting; // in the order the polls fell due
    unsigned nrunning;
    kd_fetch_hooks hooks;
    child_account account;
    bool have_account;
    char program[PATH_MAX]; // empty until first needed
};

fetch_state g_fetch = {nullptr, nullptr, 0, kd_fetch_default_hooks(), {}, false, {}};

void unlink_from(kd_fetch **list, kd_fetch *f)
{
    for (kd_fetch **p = list; *p; p = &(*p)->next)
        if (*p == f) {
            *p = f->next;
            f->next = nullptr;
            return;
        }
}

kd_fetch *find_in(kd_fetch *list, const kd_node *feed)
{
    for (kd_fetch *f = list; f; f = f->next)
        if (f->feed == feed)
            return f;
    return nullptr;
}

void append(kd_fetch **list, kd_fetch *f)
{
    while (*list)
        list = &(*list)->next;
    *list = f;
}

void free_fetch(kd_fetch *f)
{
    kd_fetch_reader_free(&f->reader);
    kd_free(f->url);
    kd_free(f);
}

// The pipe and the deadline go; the child stays until end_child.
void drop_pipe(kd_fetch *f)
{
    csock_fastclose(f->handle);
    if (f->fd >= 0)
        close(f->fd);
    timeout_del(f->timer);
    f->fd = -1;
    f->timer = 0;
}

void end_child(kd_fetch *f)
{
    child_end(f->pid);
    f->pid = 0;
}

// The child, its pipe and its deadline go; the record stays with the caller.
void stop_child(kd_fetch *f)
{
    drop_pipe(f);
    end_child(f);
}

// The child's log lines, written now under the daemon's own name.
void relay_line(int prio, const char *text)
{
    kd_log(prio, "%s", text);
}

void start_waiting();
void want_spare();

// The fetch has ended, well (a complete answer) or not: the poll goes on.
// A child that answered has closed its pipe and is exiting: the poll's
// second half runs meanwhile and the child is waited for after it, by when
// the kernel has usually reaped it. One that did not is killed first. Either
// counts as running until it has gone, so that no more than
// KD_FETCH_PARALLEL children ever fetch at once.
void finish(kd_fetch *f, bool answered)
{
    unlink_from(&g_fetch.running, f);
    drop_pipe(f);
    if (!answered)
        end_child(f);
    httpcli_buffer resp{};
    http_result res{};
    int code = HTTPCLI_NO_CONNECTION;
    if (answered) {
        kd_fetch_each_log(&f->reader, relay_line);
        code = kd_fetch_take(&f->reader, &resp, &res);
    }
    f->done(f->feed, f->url, code, &resp, &res);
    kd_fetch_release(&resp, &res);
    end_child(f);
    g_fetch.nrunning--;
    free_fetch(f);
    start_waiting();
    want_spare();
}

// Reads what the pipe holds; the answer counts once the child has closed
// it after exactly one whole message.
void on_readable(int, void *ctx)
{
    auto *f = static_cast<kd_fetch *>(ctx);
    for (;;) {
        char *dst, extra;
        size_t want = kd_fetch_want(&f->reader, &dst);
        if (want == 0)
            dst = &extra, want = 1;
        ssize_t n = read(f->fd, dst, want);
        if (n < 0 && (errno == EAGAIN || errno == EINTR))
            return;
        if (n == 0)
            return finish(f, kd_fetch_complete(&f->reader));
        if (n < 0 || dst == &extra || !kd_fetch_got(&f->reader, static_cast<size_t>(n)))
            return finish(f, false);
    }
}

// A child that has not answered by now never will in time.
void on_deadline(void *ctx, int)
{
    auto *f = static_cast<kd_fetch *>(ctx);
    f->timer = 0;
    finish(f, false);
}

// The account is looked up once; false when root has no one to become.
bool account_ready()
{
    if (geteuid() != 0 || g_fetch.have_account)
        return true;
    g_fetch.have_account = child_lookup_account(g_fetch.hooks.account, &g_fetch.account);
    if (!g_fetch.have_account)
        KD_LOG(1, LOG_ERR, "no user '%s' to fetch feeds as", g_fetch.hooks.account);
    return g_fetch.have_account;
}

// The fetching program: the hooks' one, else the one beside the daemon.
const char *program()
{
    if (g_fetch.hooks.program)
        return g_fetch.hooks.program;
    if (!g_fetch.program[0] && !child_beside_self(KELP_FETCH_PROGRAM, g_fetch.program, sizeof g_fetch.program))
        return nullptr;
    return g_fetch.program;
}

// A job as this daemon hands it out: to be fetched as its account, for it.
kd_fetch_job job_of(const char *url, const httpcli_ctx &ctx)
{
    return kd_fetch_job{url, ctx, verbosity, getpid(), geteuid() == 0, g_fetch.account};
}

// Hands f's job to the spare, or starts a child for it; 0, or the reason
// no child could be started.
int start_child(kd_fetch *f, const char *prog)
{
    if (!prog)
        return ENOENT;
    kd_fetch_job job = job_of(f->url, f->ctx);
    char text[KD_FETCH_JOB_MAX];
    size_t who = kd_fetch_who_write(job, text, sizeof text);
    size_t what = who ? kd_fetch_what_write(job, text + who, sizeof text - who) : 0;
    if (what == 0)
        return E2BIG; // an absurdly long URL
    if (!kd_spare_take(prog, text + who, what, &f->pid, &f->fd))
        f->pid = child_spawn(prog, text, who + what, &f->fd);
    return f->pid < 0 ? errno : 0;
}

// Asks for a spare child once a fetch has ended: started while fetches run,
// its start would take the processors from them.
void want_spare()
{
    const char *prog = program();
    if (!prog || g_fetch.hooks.inline_fetch || (geteuid() == 0 && !g_fetch.have_account))
        return;
    char who[64];
    if (size_t n = kd_fetch_who_write(job_of(nullptr, httpcli_ctx{}), who, sizeof who))
        kd_spare_want(prog, who, n, g_fetch.hooks.spare_idle_ms);
}

bool spawn(kd_fetch *f)
{
    if (!account_ready())
        return false;
    const char *prog = program();
    if (int err = start_child(f, prog)) {
        KD_LOG(1, LOG_ERR, "unable to start %s: %s", prog ? prog : KELP_FETCH_PROGRAM, strerror(err));
        return false;
    }
    f->handle = csock_add_fd(f->fd, "fetch", on_readable, nullptr, nullptr, nullptr, nullptr, f);
    f->timer = timeout_add_ms(on_deadline, g_fetch.hooks.deadline_ms, f, 0);
    return f->handle > 0 && f->timer > 0;
}

// On the loop itself, as a poll always ran before children (tests only).
void run_inline(kd_fetch *f)
{
    httpcli_buffer resp{};
    http_result res{};
    int code = g_fetch.hooks.fetch(&f->ctx, f->url, &resp, &res);
    f->done(f->feed, f->url, code, &resp, &res);
    kd_fetch_release(&resp, &res);
    free_fetch(f);
}

void run(kd_fetch *f)
{
    if (g_fetch.hooks.inline_fetch)
        return run_inline(f);
    append(&g_fetch.running, f);
    g_fetch.nrunning++;
    if (!spawn(f))
        finish(f, false);
}

void start_waiting()
{
    while (g_fetch.waiting && g_fetch.nrunning < KD_FETCH_PARALLEL) {
        kd_fetch *f = g_fetch.waiting;
        unlink_from(&g_fetch.waiting, f);
        run(f);
    }
}

kd_fetch *new_fetch(kd_node *feed, const char *url, const httpcli_ctx &ctx, kd_fetch_done done)
{
    auto *f = static_cast<kd_fetch *>(kd_calloc(1, sizeof(kd_fetch)));
    if (!f)
        return nullptr;
    f->url = kd_strdup(url);
    if (!f->url) {
        kd_free(f);
        return nullptr;
    }
    f->feed = feed;
    f->ctx = ctx;
    f->done = done;
    f->fd = -1;
    f->handle = -1;
    return f;
}

// A waiting fetch takes the entry's new address; a running one of an old
// address is dropped. True when the feed's fetch is already under way.
bool already_under_way(const kd_node *feed, const char *url)
{
    kd_fetch *w = find_in(g_fetch.waiting, feed);
    if (w && strcmp(w->url, url) != 0) {
        char *moved = kd_strdup(url);
        if (moved) {
            kd_free(w->url);
            w->url = moved;
        }
    }
    if (w)
        return true;
    kd_fetch *r = find_in(g_fetch.running, feed);
    if (r && strcmp(r->url, url) != 0) {
        kd_fetch_cancel(feed);
        return false;
    }
    return r != nullptr;
}

} // namespace

kd_fetch_hooks kd_fetch_default_hooks(void)
{
    return kd_fetch_hooks{nullptr, nullptr, false, static_cast<uint32_t>(HTTPCLI_FETCH_DEADLINE * 1000),
                          KELP_FETCH_USER, KD_FETCH_SPARE_IDLE_MS};
}

void kd_fetch_set_hooks(const kd_fetch_hooks *hooks)
{
    kd_spare_end(); // started for the program and account of the old hooks
    g_fetch.hooks = hooks ? *hooks : kd_fetch_default_hooks();
    g_fetch.have_account = false;
}

void kd_fetch_start(kd_node *feed, const char *url, const httpcli_ctx &ctx, kd_fetch_done done)
{
    if (already_under_way(feed, url))
        return;
    kd_fetch *f = new_fetch(feed, url, ctx, done);
    if (!f) {
        httpcli_buffer resp{};
        http_result res{};
        done(feed, url, HTTPCLI_NO_MEMORY, &resp, &res);
        return;
    }
    append(&g_fetch.waiting, f);
    start_waiting();
}

void kd_fetch_cancel(const kd_node *feed)
{
    if (kd_fetch *w = find_in(g_fetch.waiting, feed)) {
        unlink_from(&g_fetch.waiting, w);
        free_fetch(w);
    }
    kd_fetch *r = find_in(g_fetch.running, feed);
    if (!r)
        return;
    unlink_from(&g_fetch.running, r);
    g_fetch.nrunning--;
    stop_child(r);
    free_fetch(r);
    start_waiting();
}

void kd_fetch_cancel_all(void)
{
    kd_spare_end();
    while (kd_fetch *w = g_fetch.waiting) {
        unlink_from(&g_fetch.waiting, w);
        free_fetch(w);
    }
    while (kd_fetch *r = g_fetch.running) {
        unlink_from(&g_fetch.running, r);
        g_fetch.nrunning--;
        stop_child(r);
        free_fetch(r);
    }
}

kd_fetch_phase kd_fetch_phase_of(const kd_node *feed)
{
    if (find_in(g_fetch.running, feed))
        return KD_FETCH_RUNNING;
    return find_in(g_fetch.waiting, feed) ? KD_FETCH_WAITING : KD_FETCH_NONE;
}

unsigned kd_fetch_running(void)
{
    return g_fetch.nrunning;
}

unsigned kd_fetch_waiting(void)
{
    unsigned n = 0;
    for (kd_fetch *f = g_fetch.waiting; f; f = f->next)
        n++;
    return n;
}
