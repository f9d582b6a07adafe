// kd_log: the global verbosity and the assertion failure report (syslog and
// standard error, then abort, so a test or a crash dump sees the expression).
#include "util/kd_log.h"

#include <cstdio>
#include <cstdlib>

uint32_t verbosity = 0;

void kd_assert_fail(const char *expr, const char *module, int line)
{
    syslog(LOG_CRIT, "assertion \"%s\" failed in %s line %d", expr, module, line);
    fprintf(stderr, "assertion \"%s\" failed in %s line %d\n", expr, module, line);
    abort();
}
