// kd_fetch_child: the fetching child. Everything random or secret the TLS
// session needs is made here, after the fork (http/tls.cpp seeds a new
// generator for every session), so no two fetches share a random stream.
#include "refresh/kd_fetch_child.h"

#include <cstring>

#include "refresh/kd_fetch_wire.h"
#include "util/kd_log.h"

namespace {

// The lines the fetch logs, sent along with its outcome.
struct child_log {
    char text[KD_FETCH_LOG_MAX];
    uint32_t len;
};

child_log g_log;

void keep_line(int prio, const char *text)
{
    uint32_t head[2] = {static_cast<uint32_t>(prio), static_cast<uint32_t>(strlen(text))};
    if (head[1] > sizeof g_log.text - g_log.len - sizeof head)
        return; // the first lines tell why; later ones are dropped
    memcpy(g_log.text + g_log.len, head, sizeof head);
    memcpy(g_log.text + g_log.len + sizeof head, text, head[1]);
    g_log.len += static_cast<uint32_t>(sizeof head) + head[1];
}

} // namespace

int kd_fetch_child_main(void *arg, int wfd)
{
    auto *job = static_cast<kd_fetch_job *>(arg);
    if (job->replace)
        return job->replace(wfd, job->url);
    kd_log_set_sink(keep_line);
    httpcli_buffer resp{};
    http_result res{};
    int code = HTTPCLI_NO_CONNECTION;
    if (int err = child_drop_privileges(&job->account))
        KD_LOG(1, LOG_ERR, "unable to drop privileges to fetch %s: %s", job->url, strerror(err));
    else
        code = job->fetch(&job->ctx, job->url, &resp, &res);
    return kd_fetch_write(wfd, code, &resp, &res, g_log.text, g_log.len) ? 0 : 1;
}
