// kelp-test-clock.so: a time() for tests, preloaded into kelpd so that the
// status dump's countdown can be checked exactly. The file named by
// KELP_TEST_CLOCK holds the seconds since the epoch that time() returns;
// without it (or with an unreadable one) time() is the real clock. Only
// time() is replaced: timers run on the monotonic clock and stay real.
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <unistd.h>

namespace {

// The file's number, or -1 when there is none.
long long clock_file_seconds()
{
    const char *path = getenv("KELP_TEST_CLOCK");
    if (!path)
        return -1;
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return -1;
    char buf[32];
    ssize_t n = read(fd, buf, sizeof(buf) - 1);
    close(fd);
    if (n <= 0)
        return -1;
    buf[n] = '\0';
    char *end;
    long long s = strtoll(buf, &end, 10);
    return end == buf ? -1 : s;
}

} // namespace

extern "C" time_t time(time_t *out)
{
    long long s = clock_file_seconds();
    if (s < 0) {
        timespec ts{};
        clock_gettime(CLOCK_REALTIME, &ts);
        s = ts.tv_sec;
    }
    if (out)
        *out = static_cast<time_t>(s);
    return static_cast<time_t>(s);
}
