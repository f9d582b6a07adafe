// httpcli: fetches one document by URL with a blocking HTTP/1.1 GET (names
// resolved with getaddrinfo, each IPv6 or IPv4 address tried in turn), every
// wait bounded by the context's time-out and the whole fetch by a deadline;
// follows redirects with loop detection, decodes chunked bodies in place and
// bounds the response size.
#pragma once
#include <cstdint>

#include "util/kd_limits.h"

struct httpcli_ctx {
    const char *proxy;   // proxy host, null or empty for direct connections
    int32_t proxy_port;
    int32_t debug;       // carried, never consulted
    float timeout;       // seconds, bound of each single wait
};

struct httpcli_buffer {
    uint32_t size;       // bytes allocated at start
    uint32_t len;        // bytes in use
    char *start;         // data; null until the first append
};

struct http_result {
    char *location;
    char *content_type;
    char *content_encoding;
};

struct http_uri {
    char *scheme;
    char *host;
    int32_t port;
    char *path;
};

enum {
    HTTPCLI_NO_CONNECTION = 1,
    HTTPCLI_TRUNCATED = 2,
    HTTPCLI_NO_MEMORY = 3,
};

inline constexpr uint32_t bufsizestep = 2048;
inline constexpr uint32_t HTTPCLI_MAX_RESPONSE = KD_FEED_MAX_BYTES;
// Seconds one fetch may take, connect, request, response and every redirect
// hop together, on the monotonic clock: the per-wait time-out alone lets a
// server that trickles a byte per wait hold the caller for days. A fetch
// that runs out ends with HTTPCLI_NO_CONNECTION and no body. Host name
// resolution is the one step it cannot cut short; the daemon, which fetches
// in child processes, kills a child that outlives the same deadline.
inline constexpr float HTTPCLI_FETCH_DEADLINE = 20.0f;

extern httpcli_ctx http_default_context;
extern const char *http_extra_headers;
extern const char *http_line_end;

struct http_tls_report;

// Seams of the HTTP client, for kelp-httpget and for tests;
// httpcli_set_hooks(nullptr) puts the defaults back.
struct httpcli_hooks {
    // Seconds every fetch may take: HTTPCLI_FETCH_DEADLINE (tests shorten it).
    float fetch_deadline;
    // Told after every TLS handshake what it negotiated or why it failed
    // (kelp-httpget --show-tls); null, the default: nobody is told.
    void (*tls_observer)(const http_tls_report *report);
};
void httpcli_set_hooks(const httpcli_hooks *hooks);
httpcli_hooks httpcli_default_hooks(void);
// The hooks in force, which http/'s own files follow.
const httpcli_hooks &httpcli_current_hooks(void);

uint32_t buffadd(httpcli_ctx *ctx, httpcli_buffer *b, const void *data, uint32_t n);
uint32_t buffadd_str(httpcli_ctx *ctx, httpcli_buffer *b, const char *text);
uint32_t buffadd_word(httpcli_ctx *ctx, httpcli_buffer *b, const char *text);
uint32_t buffadd_line(httpcli_ctx *ctx, httpcli_buffer *b, const char *text);
uint32_t buffadd_int(httpcli_ctx *ctx, httpcli_buffer *b, int32_t value);
uint32_t buffadd_int_line(httpcli_ctx *ctx, httpcli_buffer *b, int32_t value);

void http_parse_uri(httpcli_ctx *ctx, const char *text, http_uri *uri);
void http_free_uri(httpcli_ctx *ctx, http_uri *uri);
void build_request(httpcli_ctx *ctx, const http_uri *uri, httpcli_buffer *b);
int http_request(httpcli_ctx *ctx, const char *url, httpcli_buffer *resp, http_result *res);
int strip_response(httpcli_ctx *ctx, httpcli_buffer *b, http_result *res);
char *getheaderline(httpcli_ctx *ctx, httpcli_buffer *b, char **cursor, int continuation);
// One chunk-size line at the cursor (an empty line before it is skipped once);
// 0 ends the body: size zero, no line left, or the line could not be copied.
uint32_t read_chunk_size(httpcli_ctx *ctx, httpcli_buffer *b, char **cursor);
int http_get_redir(httpcli_ctx *ctx, const char *url, httpcli_buffer *resp, http_result *res, char **uristack);
// ctx null: http_default_context. The caller releases resp->start and the
// result strings (kd_free) afterwards, also after failures.
int httpcli_get(httpcli_ctx *ctx, const char *url, httpcli_buffer *resp, http_result *res);
