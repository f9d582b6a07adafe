// hostile_replay: parses the pathological documents written by
// hostile_feeds.py with kdx_parse_feed and checks each against its manifest
// line: refused or parsed, the number of items, the feed title's length, the
// slab back at its baseline, and the growth of the resident set within the
// stated bound. Each parse runs in a child process, so that a crash (a stack
// overflow, say) is reported as the failure of that document, and so that the
// peak resident set belongs to that parse alone.
//
//   hostile_replay DIR              check every document of DIR/manifest
//   hostile_replay --measure DIR    also print time and peak memory
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "feed/kd_node.h"
#include "feed/kd_xml.h"
#include "platform/slab.h"

namespace {

#if defined(__SANITIZE_ADDRESS__)
constexpr bool kSanitized = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif
#else
constexpr bool kSanitized = false;
#endif

struct expectation {
    std::string name, file;
    int status = 200;
    bool parsed = true;
    long items = 0, title = -1, peak_kb = 0;
};

// What the child saw, sent back through a pipe.
struct outcome {
    bool parsed;
    long items, title, slab_left, peak_kb;
    double seconds;
};

std::vector<expectation> read_manifest(const std::string &dir)
{
    std::vector<expectation> out;
    std::ifstream f(dir + "/manifest");
    std::string line, expect;
    while (std::getline(f, line)) {
        expectation e;
        std::istringstream in(line);
        if (in >> e.name >> e.file >> e.status >> expect >> e.items >> e.title >> e.peak_kb) {
            e.parsed = expect == "parsed";
            out.push_back(e);
        }
    }
    return out;
}

// A line of /proc/self/status, in kB.
long status_kb(const char *key)
{
    std::ifstream f("/proc/self/status");
    std::string line;
    size_t n = strlen(key);
    while (std::getline(f, line))
        if (line.compare(0, n, key) == 0 && line[n] == ':')
            return atol(line.c_str() + n + 1);
    return -1;
}

// Makes the peak resident set start again from the current one.
void reset_peak()
{
    std::ofstream("/proc/self/clear_refs") << "5";
}

double now()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec + ts.tv_nsec / 1e9;
}

// The body as the HTTP client hands it over: NUL-terminated slab memory.
char *load_body(const std::string &path)
{
    std::ifstream f(path, std::ios::binary);
    std::string doc((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
    auto *b = static_cast<char *>(kd_malloc(doc.size() + 1));
    memcpy(b, doc.data(), doc.size());
    b[doc.size()] = '\0';
    return b;
}

outcome parse_one(const std::string &dir, const expectation &e)
{
    outcome o = {};
    size_t base = slab_live_count();
    char *body = load_body(dir + "/" + e.file);
    char *title = nullptr;
    reset_peak();
    long rss = status_kb("VmRSS");
    double t0 = now();
    kd_node *feed = kdx_parse_feed(e.status, "http://hostile.test/feed", "text/xml", &body, &title);
    o.seconds = now() - t0;
    o.peak_kb = status_kb("VmHWM") - rss;
    o.parsed = feed != nullptr;
    for (kd_item *i = feed ? feed->children : nullptr; i; i = i->next)
        o.items++;
    o.title = title ? static_cast<long>(strlen(title)) : -1;
    kdn_free_feed(feed);
    kd_free(title);
    kd_free(body);
    o.slab_left = static_cast<long>(slab_live_count() - base);
    return o;
}

// Runs parse_one in a child; false (with a message) when the child died.
bool run_child(const std::string &dir, const expectation &e, outcome *o)
{
    int fds[2];
    if (pipe(fds) != 0)
        return false;
    pid_t pid = fork();
    if (pid == 0) {
        close(fds[0]);
        outcome r = parse_one(dir, e);
        ssize_t n = write(fds[1], &r, sizeof r);
        _exit(n == sizeof r ? 0 : 1);
    }
    close(fds[1]);
    ssize_t n = pid > 0 ? read(fds[0], o, sizeof *o) : -1;
    close(fds[0]);
    int st = 0;
    if (pid > 0)
        waitpid(pid, &st, 0);
    if (n == sizeof *o && WIFEXITED(st) && WEXITSTATUS(st) == 0)
        return true;
    if (WIFSIGNALED(st))
        printf("%s: parse crashed with signal %d (%s)\n", e.name.c_str(), WTERMSIG(st),
               strsignal(WTERMSIG(st)));
    else
        printf("%s: parse did not finish (exit %d)\n", e.name.c_str(), WEXITSTATUS(st));
    return false;
}

bool expect_eq(const expectation &e, const char *what, long got, long want)
{
    if (got == want)
        return true;
    printf("%s: %s is %ld, expected %ld\n", e.name.c_str(), what, got, want);
    return false;
}

// Under qemu-user (make cross sets KELP_UNDER_QEMU) the resident set read
// from /proc is the emulator's, translated code included, not the parse's.
bool under_qemu()
{
    static const bool q = getenv("KELP_UNDER_QEMU") != nullptr;
    return q;
}

// Under AddressSanitizer freed memory sits in quarantine and every block has
// red zones, so the resident set grows far more; the bound is checked on
// plain, native builds only, the rest everywhere.
bool check(const expectation &e, const outcome &o)
{
    bool ok = expect_eq(e, "parsed", o.parsed, e.parsed);
    ok = expect_eq(e, "items", o.items, e.items) && ok;
    ok = expect_eq(e, "title length", o.title, e.title) && ok;
    ok = expect_eq(e, "slab records left", o.slab_left, 0) && ok;
    if (!kSanitized && !under_qemu() && o.peak_kb > e.peak_kb) {
        printf("%s: peak resident growth %ld kB, bound %ld kB\n", e.name.c_str(), o.peak_kb,
               e.peak_kb);
        ok = false;
    }
    return ok;
}

// Mini-XML grows a text buffer 1 KB at a time; glibc's realloc mostly
// extends in place, ASan's copies every time, so a 4 MB title takes minutes
// there. Documents beyond a megabyte (never a download: those stop at the
// bound) are parsed by plain builds only.
bool too_big_for_sanitizers(const std::string &dir, const expectation &e)
{
    struct stat st;
    if (!kSanitized || stat((dir + "/" + e.file).c_str(), &st) != 0 || st.st_size <= (1 << 20))
        return false;
    printf("%s: %lld bytes, parsed by plain builds only\n", e.name.c_str(),
           static_cast<long long>(st.st_size));
    return true;
}

} // namespace

int main(int argc, char **argv)
{
    bool measure = argc > 1 && strcmp(argv[1], "--measure") == 0;
    if (argc != (measure ? 3 : 2)) {
        fprintf(stderr, "usage: hostile_replay [--measure] DIR\n");
        return 2;
    }
    std::string dir = argv[measure ? 2 : 1];
    auto cases = read_manifest(dir);
    if (cases.empty()) {
        fprintf(stderr, "hostile_replay: no documents in %s/manifest\n", dir.c_str());
        return 2;
    }
    if (under_qemu())
        printf("resident-set bounds not checked: under qemu-user /proc reports the emulator's\n");
    int failed = 0;
    for (const auto &e : cases) {
        if (too_big_for_sanitizers(dir, e))
            continue;
        outcome o = {};
        bool ok = run_child(dir, e, &o) && check(e, o);
        failed += !ok;
        if (measure)
            printf("%-22s %-7s items %-6ld title %-5ld %8.3f s  peak +%ld kB (bound %ld)\n",
                   e.name.c_str(), o.parsed ? "parsed" : "refused", o.items, o.title, o.seconds,
                   o.peak_kb, e.peak_kb);
        else
            printf("%s: %s\n", e.name.c_str(), ok ? "ok" : "FAILED");
    }
    return failed ? 1 : 0;
}
