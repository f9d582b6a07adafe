// perf_fetch: what a poll's child costs beside the fetch itself. Runs the
// daemon's own fetch path (kd_fetch_start: the spawn of the fetching
// program, the job on its input, its drop to the unprivileged account when
// run as root, the result on the pipe read by the loop, the wait for the
// child) with perf_fetch_child in kelp-fetch's place, which does no network
// work and hands back a body of BODY bytes, in a process whose heap has
// first been grown to about RSS bytes, as the daemon's is (so that a start
// that copied the parent's page tables would show).
//
//   perf_fetch REPS ROUNDS RSS BODY [spare]
//
// One line per repetition, each the mean over ROUNDS fetches one after the
// other: "<wall us> <parent cpu us> <child cpu us>" -- the time from the
// start of the fetch to its outcome on the loop, the CPU time this process
// spent in that span, and the CPU time the child spent (from the kernel's
// accounting once the child is waited for). Without "spare" every fetch
// starts its program (no spare child); with it, each fetch is handed to the
// spare child, which has had time to get ready before the fetch starts
// (that wait is not counted; the spare's start is in the child's CPU time).
#include "feed/kd_node.h"
#include "platform/csock.h"
#include "platform/timeout.h"
#include "refresh/kd_fetch.h"
#include "refresh/kd_fetch_spare.h"

#include <sys/resource.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

namespace {

size_t g_body;
char g_url[32];
bool g_done;
int g_code;

void done(kd_node *, const char *, int code, httpcli_buffer *resp, http_result *)
{
    g_code = resp->len == g_body ? code : -1;
    g_done = true;
}

double clock_us(clockid_t id)
{
    timespec ts;
    clock_gettime(id, &ts);
    return static_cast<double>(ts.tv_sec) * 1e6 + static_cast<double>(ts.tv_nsec) / 1e3;
}

double children_cpu_us()
{
    rusage ru;
    getrusage(RUSAGE_CHILDREN, &ru);
    auto us = [](const timeval &t) { return static_cast<double>(t.tv_sec) * 1e6 + static_cast<double>(t.tv_usec); };
    return us(ru.ru_utime) + us(ru.ru_stime);
}

// Small heap blocks, each written, like the daemon's records and trees.
std::vector<char *> grow_heap(size_t bytes)
{
    std::vector<char *> blocks;
    for (size_t got = 0; got < bytes; got += 2048) {
        blocks.push_back(static_cast<char *>(malloc(2048)));
        memset(blocks.back(), 0x5a, 2048);
    }
    return blocks;
}

// Turns the loop for `ms` milliseconds.
void turn_for(uint32_t ms)
{
    bool over = false;
    timeout_add_ms([](void *p, int) { *static_cast<bool *>(p) = true; }, ms, &over);
    while (!over)
        csock_select();
}

// Until the spare asked for by the last fetch is there and ready: it has
// given up its privileges and read its configuration long before 20 ms.
void await_spare()
{
    while (kd_spare_pid() == 0)
        turn_for(1);
    turn_for(20);
}

bool one_fetch(kd_node *feed)
{
    g_done = false;
    kd_fetch_start(feed, g_url, httpcli_ctx{nullptr, 0, 0, 3.0f}, done);
    while (!g_done)
        csock_select();
    return g_code == 200;
}

} // namespace

int main(int argc, char **argv)
{
    bool spare = argc == 6 && strcmp(argv[5], "spare") == 0;
    if (argc != 5 && !spare) {
        fprintf(stderr, "usage: %s REPS ROUNDS RSS BODY [spare]\n", argv[0]);
        return 2;
    }
    int reps = atoi(argv[1]), rounds = atoi(argv[2]);
    std::vector<char *> heap = grow_heap(strtoull(argv[3], nullptr, 10));
    g_body = strtoull(argv[4], nullptr, 10);
    snprintf(g_url, sizeof g_url, "bench:%zu", g_body);
    // The default disposition: the children's CPU time is counted when they
    // are waited for, which the daemon's ignored SIGCHLD would skip.
    signal(SIGCHLD, SIG_DFL);
    if (csock_init() != 0 || timeout_init() != 0)
        return 1;
    kd_fetch_hooks hooks = kd_fetch_default_hooks();
    std::string child = argv[0];
    child = child.substr(0, child.rfind('/') + 1) + "perf_fetch_child";
    hooks.program = child.c_str();
    if (!spare)
        hooks.spare_idle_ms = 0;
    kd_fetch_set_hooks(&hooks);
    kd_node feed{};
    if (!one_fetch(&feed)) // warms the account lookup and the allocator
        return 1;
    for (int r = 0; r < reps; r++) {
        double wall = 0, parent = 0, c0 = children_cpu_us();
        for (int i = 0; i < rounds; i++) {
            if (spare)
                await_spare();
            double w0 = clock_us(CLOCK_MONOTONIC), p0 = clock_us(CLOCK_PROCESS_CPUTIME_ID);
            if (!one_fetch(&feed))
                return 1;
            wall += clock_us(CLOCK_MONOTONIC) - w0;
            parent += clock_us(CLOCK_PROCESS_CPUTIME_ID) - p0;
        }
        double n = rounds;
        printf("%.1f %.1f %.1f\n", wall / n, parent / n, (children_cpu_us() - c0) / n);
    }
    kd_fetch_cancel_all();
    return 0;
}
