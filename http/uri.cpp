// httpcli URI handling: splitting a URL into scheme, host, port and path, and
// the exact GET request text sent for it.
#include "http/httpcli.h"

#include <cstring>
#include <string_view>

#include "http/tls.h"
#include "platform/slab.h"
#include "util/kd_log.h"

namespace {

char *copy(std::string_view s) { return kd_strndup(s.data(), s.size()); }

// Digits right after the colon; anything else ends the number, and so does a
// length that would overflow (the port is taken modulo 65536 anyway).
int32_t parse_port(std::string_view s)
{
    int32_t port = 0;
    for (char c : s) {
        if (c < '0' || c > '9' || port > 100000000)
            break;
        port = port * 10 + (c - '0');
    }
    return port;
}

bool proxy_in_use(const httpcli_ctx *ctx) { return ctx->proxy && *ctx->proxy; }

// "host" or "host:port" when the port is not the scheme's default one.
void add_authority(httpcli_ctx *ctx, const http_uri *uri, httpcli_buffer *b)
{
    buffadd_str(ctx, b, uri->host);
    if (uri->port != http_default_port(uri->scheme)) {
        buffadd_str(ctx, b, ":");
        buffadd_int(ctx, b, uri->port);
    }
}

} // namespace

void http_free_uri(httpcli_ctx *ctx, http_uri *uri)
{
    KD_ASSERT(ctx!=((void *)0));
    KD_ASSERT(uri!=((void *)0));
    kd_free(uri->scheme);
    kd_free(uri->host);
    kd_free(uri->path);
    uri->scheme = nullptr;
    uri->host = nullptr;
    uri->path = nullptr;
}

void http_parse_uri(httpcli_ctx *ctx, const char *text, http_uri *uri)
{
    KD_ASSERT(text!=((void *)0));
    http_free_uri(ctx, uri);
    std::string_view rest(text);
    size_t sep = rest.find("://");
    if (sep == std::string_view::npos) {
        uri->scheme = kd_strdup("http");
    } else {
        uri->scheme = copy(rest.substr(0, sep));
        rest.remove_prefix(sep + 3);
    }
    size_t slash = rest.find('/');
    std::string_view hostpart = rest.substr(0, slash);
    uri->path = slash == std::string_view::npos ? kd_strdup("/") : copy(rest.substr(slash));
    size_t colon = hostpart.find(':');
    uri->port = colon == std::string_view::npos ? http_default_port(uri->scheme)
                                                : parse_port(hostpart.substr(colon + 1));
    uri->host = copy(hostpart.substr(0, colon));
}

void build_request(httpcli_ctx *ctx, const http_uri *uri, httpcli_buffer *b)
{
    KD_ASSERT(ctx!=((void *)0));
    KD_ASSERT(uri!=((void *)0));
    KD_ASSERT(b!=((void *)0));
    buffadd_word(ctx, b, "GET");
    if (proxy_in_use(ctx)) {
        buffadd_str(ctx, b, uri->scheme);
        buffadd_str(ctx, b, "://");
        add_authority(ctx, uri, b);
    }
    buffadd_word(ctx, b, uri->path);
    buffadd_line(ctx, b, "HTTP/1.1");
    buffadd_word(ctx, b, "Host:");
    add_authority(ctx, uri, b);
    buffadd_str(ctx, b, http_line_end);
    buffadd_line(ctx, b, "Connection: close");
    buffadd_line(ctx, b, "Accept-Encoding: ");
    if (!http_extra_headers) {
        buffadd_str(ctx, b, http_line_end);
        return;
    }
    size_t n = strlen(http_extra_headers);
    buffadd_line(ctx, b, http_extra_headers);
    if (n == 0 || http_extra_headers[n - 1] != '\n')
        buffadd_str(ctx, b, http_line_end);
}
