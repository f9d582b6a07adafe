// kelp-httpget: fetches one URL with the daemon's own HTTP client and writes
// the body to stdout unchanged, so feed servers can be checked exactly as
// kelpd sees them. The result code and the recorded headers go to stderr.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>

#include "http/httpcli.h"
#include "http/tls.h"
#include "platform/fdio.h"
#include "platform/slab.h"

namespace {

struct options {
    std::string proxy;
    int proxy_port = 0;
    float timeout = 2.0f;
    bool show_request = false;
    bool show_tls = false;
    const char *url = nullptr;
};

int usage()
{
    fprintf(stderr, "usage: kelp-httpget [--proxy HOST:PORT] [--timeout SECONDS] [--show-request] [--show-tls] URL\n");
    return 2;
}

bool parse_proxy(const char *arg, options *o)
{
    const char *colon = strrchr(arg, ':');
    if (!colon || colon == arg || !colon[1])
        return false;
    char *end;
    long port = strtol(colon + 1, &end, 10);
    if (*end || port <= 0 || port > 65535)
        return false;
    o->proxy.assign(arg, static_cast<size_t>(colon - arg));
    o->proxy_port = static_cast<int>(port);
    return true;
}

bool parse_timeout(const char *arg, options *o)
{
    char *end;
    errno = 0;
    float t = strtof(arg, &end);
    if (errno || *end || !(t > 0.0f) || t > 3600.0f)
        return false;
    o->timeout = t;
    return true;
}

// False on any argument it does not understand.
bool parse_args(int argc, char **argv, options *o)
{
    for (int i = 1; i < argc; i++) {
        std::string a = argv[i];
        if (a == "--proxy" && i + 1 < argc) {
            if (!parse_proxy(argv[++i], o))
                return false;
        } else if (a == "--timeout" && i + 1 < argc) {
            if (!parse_timeout(argv[++i], o))
                return false;
        } else if (a == "--show-request") {
            o->show_request = true;
        } else if (a == "--show-tls") {
            o->show_tls = true;
        } else if (a.starts_with("-") || o->url) {
            return false;
        } else {
            o->url = argv[i];
        }
    }
    return o->url != nullptr;
}


// The request text the client builds for the URL, as sent.
void show_request(httpcli_ctx *ctx, const char *url)
{
    http_uri uri = {};
    httpcli_buffer b = {};
    http_parse_uri(ctx, url, &uri);
    if (uri.scheme && uri.host && uri.path)
        build_request(ctx, &uri, &b);
    if (b.start)
        fdio_write_all(2, b.start, b.len);
    kd_free(b.start);
    http_free_uri(ctx, &uri);
}

// One block per TLS handshake, in the order the redirects made them.
void show_tls(const http_tls_report *r)
{
    fprintf(stderr, "tls-server: %s\n", r->server);
    if (r->error) {
        fprintf(stderr, "tls-error: %s\n", r->error);
        return;
    }
    fprintf(stderr, "tls-version: %s\ntls-cipher: %s\ntls-subject: %s\n", r->version, r->cipher, r->subject);
}

void show_header(const char *name, const char *value)
{
    if (value)
        fprintf(stderr, "%s: %s\n", name, value);
}

} // namespace

int main(int argc, char **argv)
{
    options o;
    if (!parse_args(argc, argv, &o))
        return usage();
    httpcli_ctx ctx = {o.proxy.empty() ? nullptr : o.proxy.c_str(), o.proxy_port, 0, o.timeout};
    if (o.show_tls && !KELP_TLS) {
        fprintf(stderr, "kelp-httpget: --show-tls: built without TLS (KELP_TLS=OFF)\n");
        return 2;
    }
    if (o.show_tls) {
        httpcli_hooks hooks = httpcli_default_hooks();
        hooks.tls_observer = show_tls;
        httpcli_set_hooks(&hooks);
    }
    if (o.show_request)
        show_request(&ctx, o.url);
    httpcli_buffer resp = {};
    http_result res = {};
    int code = httpcli_get(&ctx, o.url, &resp, &res);
    bool written = !resp.start || fdio_write_all(1, resp.start, resp.len);
    fprintf(stderr, "result: %d\n", code);
    show_header("Content-Type", res.content_type);
    show_header("Location", res.location);
    show_header("Content-Encoding", res.content_encoding);
    kd_free(resp.start);
    kd_free(res.location);
    kd_free(res.content_type);
    kd_free(res.content_encoding);
    return code == 200 && written ? 0 : 1;
}
