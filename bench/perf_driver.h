// The measuring half shared by the parse programs: each program supplies
// perf_prepare (the input as the parser receives it, made outside the timed
// part) and perf_run (one parse and the release of its result). Modes:
//   time REPS FILE...  one line per repetition: microseconds of CPU time to
//                      parse every file once (the mean of rounds worth 200 ms)
//   heap FILE          peak heap bytes above the level before one warm parse
//                      (only in the *_heap builds, which count every malloc)
//   once FILE          one warm parse, counted by callgrind: run under
//                      valgrind --tool=callgrind --collect-atstart=no
#pragma once
#if __has_include(<valgrind/callgrind.h>)
#include <valgrind/callgrind.h>
#else
#define CALLGRIND_TOGGLE_COLLECT // without valgrind's header "once" counts nothing
#endif

#include <malloc.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

void *perf_prepare(const std::string &doc);
void perf_run(void *input);

#ifdef KELP_COUNT_HEAP
// Every malloc of the process, Mini-XML's and the slab's alike, moves one
// counter; its peak over one parse is the heap the parse needed.
extern "C" {
void *__libc_malloc(size_t);
void *__libc_calloc(size_t, size_t);
void *__libc_realloc(void *, size_t);
void __libc_free(void *);
}
static long long g_heap_now, g_heap_peak;

static void heap_add(void *p)
{
    if (!p)
        return;
    g_heap_now += static_cast<long long>(malloc_usable_size(p));
    if (g_heap_now > g_heap_peak)
        g_heap_peak = g_heap_now;
}

extern "C" void *malloc(size_t n)
{
    void *p = __libc_malloc(n);
    heap_add(p);
    return p;
}

extern "C" void *calloc(size_t n, size_t s)
{
    void *p = __libc_calloc(n, s);
    heap_add(p);
    return p;
}

extern "C" void free(void *p)
{
    if (p)
        g_heap_now -= static_cast<long long>(malloc_usable_size(p));
    __libc_free(p);
}

extern "C" void *realloc(void *old, size_t n)
{
    long long before = old ? static_cast<long long>(malloc_usable_size(old)) : 0;
    void *p = __libc_realloc(old, n);
    if (p || n == 0)
        g_heap_now -= before;
    heap_add(p);
    return p;
}
#endif

namespace perf {

inline std::string read_file(const char *path)
{
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        fprintf(stderr, "cannot read %s\n", path);
        exit(2);
    }
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

// CPU time of this thread: the machines these run on are shared, and time
// spent waiting for a core is not the parser's.
inline double now_us()
{
    timespec ts;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) * 1e6 + static_cast<double>(ts.tv_nsec) / 1e3;
}

// One parse of every document; the time of the parses only.
inline double round_us(const std::vector<std::string> &docs)
{
    double spent = 0;
    for (const std::string &d : docs) {
        void *in = perf_prepare(d);
        double t0 = now_us();
        perf_run(in);
        spent += now_us() - t0;
    }
    return spent;
}

inline int time_mode(int reps, const std::vector<std::string> &docs)
{
    double first = round_us(docs); // warms caches and the allocator
    int rounds = first > 0 ? static_cast<int>(200000.0 / first) + 1 : 1;
    for (int r = 0; r < reps; r++) {
        double sum = 0;
        for (int i = 0; i < rounds; i++)
            sum += round_us(docs);
        printf("%.3f\n", sum / rounds);
    }
    return 0;
}

inline int heap_mode(const std::string &doc)
{
#ifdef KELP_COUNT_HEAP
    perf_run(perf_prepare(doc));
    void *in = perf_prepare(doc);
    long long before = g_heap_now;
    g_heap_peak = g_heap_now;
    perf_run(in);
    printf("%lld\n", g_heap_peak - before);
    return 0;
#else
    (void)doc;
    fprintf(stderr, "heap mode needs the _heap build\n");
    return 2;
#endif
}

inline int once_mode(const std::string &doc)
{
    perf_run(perf_prepare(doc));
    void *in = perf_prepare(doc);
    CALLGRIND_TOGGLE_COLLECT;
    perf_run(in);
    CALLGRIND_TOGGLE_COLLECT;
    return 0;
}

inline int main(int argc, char **argv)
{
    if (argc >= 4 && strcmp(argv[1], "time") == 0) {
        std::vector<std::string> docs;
        for (int i = 3; i < argc; i++)
            docs.push_back(read_file(argv[i]));
        return time_mode(atoi(argv[2]), docs);
    }
    if (argc == 3 && strcmp(argv[1], "heap") == 0)
        return heap_mode(read_file(argv[2]));
    if (argc == 3 && strcmp(argv[1], "once") == 0)
        return once_mode(read_file(argv[2]));
    fprintf(stderr, "usage: %s time REPS FILE... | heap FILE | once FILE\n", argv[0]);
    return 2;
}

} // namespace perf
