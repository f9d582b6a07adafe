// kd_log: the global verbosity, the one door to syslog (which a fetching
// child turns aside) and the assertion failure report (syslog and standard
// error, then abort, so a test or a crash dump sees the expression).
#include "util/kd_log.h"

#include <cstdio>
#include <cstdlib>

uint32_t verbosity = 0;

namespace {

kd_log_sink g_sink = nullptr;

} // namespace

void kd_log_set_sink(kd_log_sink sink)
{
    g_sink = sink;
}

void kd_log(int prio, const char *fmt, ...)
{
    char line[1024];
    va_list ap;
    va_start(ap, fmt);
    if (g_sink) {
        vsnprintf(line, sizeof line, fmt, ap);
        g_sink(prio, line);
    } else {
        vsyslog(prio, fmt, ap);
    }
    va_end(ap);
}

void kd_assert_fail(const char *expr, const char *module, int line)
{
    syslog(LOG_CRIT, "assertion \"%s\" failed in %s line %d", expr, module, line);
    fprintf(stderr, "assertion \"%s\" failed in %s line %d\n", expr, module, line);
    abort();
}
