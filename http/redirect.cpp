// httpcli entry point: one fetch with its redirects, all on one deadline. The
// uri stack records every target followed (" target" each) so that a chain
// returning to one of them ends instead of looping.
#include "http/httpcli.h"

#include <cstdio>
#include <cstring>

#include "http/deadline.h"
#include "http/tls.h"
#include "platform/slab.h"
#include "util/kd_log.h"

namespace {

bool is_redirect(int code) { return code >= 300 && code <= 399 && code != 304; }

// "host[:port]path" of a site-relative location, the port only when it is
// not the scheme's default; null when there is no memory for it. An https
// URL keeps its scheme in front, as a target without one is fetched as http.
char *site_target(const http_uri *uri, const char *loc)
{
    bool tls = http_is_tls_scheme(uri->scheme);
    const char *scheme = tls ? uri->scheme : "";
    const char *sep = tls ? "://" : "";
    bool port = uri->port != http_default_port(uri->scheme);
    int n = port ? snprintf(nullptr, 0, "%s%s%s:%d%s", scheme, sep, uri->host, uri->port, loc)
                 : snprintf(nullptr, 0, "%s%s%s%s", scheme, sep, uri->host, loc);
    auto *text = static_cast<char *>(kd_malloc(static_cast<size_t>(n) + 1));
    if (text && port)
        snprintf(text, static_cast<size_t>(n) + 1, "%s%s%s:%d%s", scheme, sep, uri->host, uri->port, loc);
    else if (text)
        snprintf(text, static_cast<size_t>(n) + 1, "%s%s%s%s", scheme, sep, uri->host, loc);
    return text;
}

// A site-relative location becomes "host[:port]/path" of the current URL
// ("https://host[:port]/path" for https); it stays as it was when the URL
// cannot be parsed.
void absolutize(httpcli_ctx *ctx, const char *url, http_result *res)
{
    auto *uri = static_cast<http_uri *>(kd_calloc(1, sizeof(http_uri)));
    if (!uri)
        return;
    http_parse_uri(ctx, url, uri);
    char *text = uri->host ? site_target(uri, res->location) : nullptr;
    if (text) {
        kd_free(res->location);
        res->location = text;
    }
    http_free_uri(ctx, uri);
    kd_free(uri);
}

// True when the location already stands on the stack as a whole target or as
// the tail of one.
bool already_followed(const char *stack, const char *loc)
{
    if (!stack)
        return false;
    size_t n = strlen(loc);
    for (const char *p = strstr(stack, loc); p; p = strstr(p + 1, loc)) {
        if (p[n] == ' ' || p[n] == '\0')
            return true;
    }
    return false;
}

// Appends " location" to the stack; false (stack released) when it cannot grow.
bool push_target(char **stack, const char *loc)
{
    size_t old = *stack ? strlen(*stack) : 0;
    size_t n = strlen(loc);
    auto *grown = static_cast<char *>(kd_realloc(*stack, old + n + 2));
    if (!grown) {
        kd_free(*stack);
        *stack = nullptr;
        return false;
    }
    grown[old] = ' ';
    memcpy(grown + old + 1, loc, n + 1);
    *stack = grown;
    return true;
}

} // namespace

int http_get_redir(httpcli_ctx *ctx, const char *url, httpcli_buffer *resp, http_result *res, char **uristack)
{
    KD_ASSERT(ctx!=((void *)0));
    KD_ASSERT(url!=((void *)0));
    KD_ASSERT(resp!=((void *)0));
    KD_ASSERT(res!=((void *)0));
    KD_ASSERT(uristack!=((void *)0));
    // One deadline for the whole chain: a server that redirects to ever new
    // targets is stopped by it as a trickling one is.
    http_fetch_clock clock;
    // Each pass is one hop; a loop rather than recursion keeps a long chain
    // from exhausting the stack.
    for (;;) {
        int code = http_request(ctx, url, resp, res);
        if (!is_redirect(code) || !res->location || !*res->location)
            return code;
        if (res->location[0] == '/')
            absolutize(ctx, url, res);
        if (already_followed(*uristack, res->location) || !push_target(uristack, res->location))
            return code;
        resp->len = 0;
        // The location names the next hop; the stack's copy outlives the
        // result field, which the next response replaces.
        url = *uristack + strlen(*uristack) - strlen(res->location);
    }
}

int httpcli_get(httpcli_ctx *ctx, const char *url, httpcli_buffer *resp, http_result *res)
{
    KD_ASSERT(url!=((void *)0));
    KD_ASSERT(resp!=((void *)0));
    KD_ASSERT(res!=((void *)0));
    char *stack = nullptr;
    int code = http_get_redir(ctx ? ctx : &http_default_context, url, resp, res, &stack);
    kd_free(stack);
    return code;
}
