// kelp-fetch: one poll's fetch, in a process of its own that kelpd starts
// with the job on standard input (refresh/kd_fetch_child.h). Not meant to be
// run by hand; kelp-httpget is.
#include "refresh/kd_fetch_child.h"

#include <unistd.h>

// _exit: nothing is left to flush, and a leak checker run at exit could not
// look into a process that has given up root. Status 2: no job on the input.
int main()
{
    char text[KD_FETCH_JOB_MAX];
    kd_fetch_job job{};
    if (!kd_fetch_job_receive(text, &job))
        _exit(2);
    _exit(kd_fetch_child_run(job, httpcli_get));
}
