// kelp-fetch: one poll's fetch, in a process of its own that kelpd starts
// with the job on standard input (refresh/kd_fetch_child.h). Not meant to be
// run by hand; kelp-httpget is.
#include "refresh/kd_fetch_child.h"

#include <unistd.h>

// _exit: nothing is left to flush, and a leak checker run at exit could not
// look into a process that has given up root.
int main()
{
    _exit(kd_fetch_child_main(httpcli_get));
}
