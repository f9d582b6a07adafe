// perf_fetch_child: what perf_fetch starts in kelp-fetch's place. The real
// child's work (job on standard input, the drop to the unprivileged account
// when started as root, confinement, the answer on the pipe) around a fetch
// that does no network work: the URL "bench:N" is answered with N bytes.
#include "refresh/kd_fetch_child.h"
#include "platform/slab.h"

#include <cstdlib>
#include <cstring>
#include <unistd.h>

namespace {

int canned(httpcli_ctx *, const char *url, httpcli_buffer *resp, http_result *)
{
    if (strncmp(url, "bench:", 6) != 0)
        return HTTPCLI_NO_CONNECTION;
    uint32_t len = static_cast<uint32_t>(strtoul(url + 6, nullptr, 10));
    resp->size = len + 1;
    resp->start = static_cast<char *>(kd_calloc(1, resp->size));
    if (!resp->start)
        return HTTPCLI_NO_CONNECTION;
    memset(resp->start, 'x', len);
    resp->len = len;
    return 200;
}

} // namespace

int main()
{
    _exit(kd_fetch_child_main(canned));
}
