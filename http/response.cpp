// httpcli response parsing: header lines with folding, the status line, the
// few headers the daemon needs, and the in-place compaction of the body with
// chunked decoding so that the caller's buffer ends up holding only the body.
#include "http/httpcli.h"

#include <algorithm>
#include <cstring>
#include <strings.h>

#include "platform/slab.h"
#include "util/kd_log.h"
#include "util/kd_text.h"

namespace {

bool is_blank(char c) { return c == ' ' || c == '\t'; }

// White space as the C library knows it; a folded value starts after CR LF.
bool is_space(char c) { return is_blank(c) || c == '\r' || c == '\n' || c == '\v' || c == '\f'; }

// When the header names `name` (case-insensitive prefix, colon included),
// the value after the colon and any white space; else null.
const char *header_value(const char *line, const char *name)
{
    size_t n = strlen(name);
    if (strncasecmp(line, name, n) != 0)
        return nullptr;
    line += n;
    while (is_space(*line))
        line++;
    return line;
}

// False when the copy could not be made.
bool replace(char **field, const char *value)
{
    kd_free(*field);
    *field = kd_strdup(value);
    return *field != nullptr;
}

void clear_result(http_result *res)
{
    kd_free(res->location);
    kd_free(res->content_type);
    kd_free(res->content_encoding);
    res->location = res->content_type = res->content_encoding = nullptr;
}

// Status from the first line: digits after the first blank following
// "HTTP/"; -1 when the line is no status line.
int parse_status(const char *line)
{
    if (strncmp(line, "HTTP/", 5) != 0)
        return -1;
    const char *blank = strchr(line + 5, ' ');
    if (!blank)
        return -1;
    int status = 0;
    // Nine digits at most: a hostile status line must not overflow the int.
    for (const char *p = blank + 1; *p >= '0' && *p <= '9' && status < 100000000; p++)
        status = status * 10 + (*p - '0');
    return status;
}

// Leading hexadecimal digits of a chunk-size line; extensions after them are
// ignored, and an absurd size saturates so the data end clips it.
uint32_t parse_chunk_size(const char *line)
{
    uint64_t size = 0;
    for (const char *c = line; kd_hex_digit(*c) >= 0 && size <= UINT32_MAX; c++)
        size = size * 16 + static_cast<uint64_t>(kd_hex_digit(*c));
    return size > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(size);
}

enum header_kind { header_plain, header_chunked, header_nomem };

// Takes one header into the result.
header_kind take_header(const char *line, http_result *res)
{
    const char *v;
    bool ok = true;
    if ((v = header_value(line, "Transfer-Encoding:")))
        return strncasecmp(v, "chunked", 7) == 0 ? header_chunked : header_plain;
    if ((v = header_value(line, "Location:")))
        ok = replace(&res->location, v);
    else if ((v = header_value(line, "Content-Type:")))
        ok = replace(&res->content_type, v);
    else if ((v = header_value(line, "Content-Encoding:")))
        ok = replace(&res->content_encoding, v);
    return ok ? header_plain : header_nomem;
}

// Reads the header block up to the empty line; 0 on success, 3 when a copy
// could not be made, since a header silently lost (a redirect target, the
// content type) would make the caller act on a wrong answer.
int read_headers(httpcli_ctx *ctx, httpcli_buffer *b, char **cur, http_result *res, bool *chunked)
{
    char *end = b->start + b->len;
    while (*cur < end) {
        char *line = getheaderline(ctx, b, cur, 1);
        if (!line)
            return HTTPCLI_NO_MEMORY;
        bool empty = *line == '\0';
        header_kind kind = empty ? header_plain : take_header(line, res);
        kd_free(line);
        if (kind == header_nomem)
            return HTTPCLI_NO_MEMORY;
        if (kind == header_chunked)
            *chunked = true;
        if (empty)
            break;
    }
    return 0;
}

// Moves the body towards `start` in steps no larger than the gap between
// the read and the write position, so no step overlaps itself.
char *compact_plain(char *w, char *r, char *end)
{
    while (r < end) {
        size_t gap = static_cast<size_t>(r - w);
        size_t left = static_cast<size_t>(end - r);
        size_t step = gap && gap < left ? gap : left;
        if (gap)
            memcpy(w, r, step);
        w += step;
        r += step;
    }
    return w;
}

// Same, following the chunk framing; a chunk announcing more than was
// received is clipped to the data, so the body ends with what arrived.
char *compact_chunked(httpcli_ctx *ctx, httpcli_buffer *b, char *w, char *r)
{
    char *end = b->start + b->len;
    uint32_t remaining = 0;
    while (r < end) {
        if (remaining == 0) {
            remaining = read_chunk_size(ctx, b, &r);
            if (remaining == 0)
                break;
            continue;
        }
        size_t step = std::min({static_cast<size_t>(r - w), size_t{remaining}, static_cast<size_t>(end - r)});
        memcpy(w, r, step);
        w += step;
        r += step;
        remaining -= static_cast<uint32_t>(step);
    }
    return w;
}

} // namespace

char *getheaderline(httpcli_ctx *ctx, httpcli_buffer *b, char **p, int continuation)
{
    KD_ASSERT(ctx!=((void *)0));
    KD_ASSERT(b!=((void *)0));
    KD_ASSERT(p!=((void *)0));
    KD_ASSERT(*p >= b->start && *p < b->start+b->len);
    char *end = b->start + b->len;
    char *q = *p;
    while (q < end && *q != '\0') {
        if (*q == '\r' && end - q >= 2 && q[1] == '\n') {
            if (!(continuation && end - q >= 3 && is_blank(q[2])))
                break;
            q += 2; // folded: the line goes on after the CR LF
            continue;
        }
        q++;
    }
    char *line = kd_strndup(*p, static_cast<size_t>(q - *p));
    *p = end - q > 2 ? q + 2 : end;
    return line;
}

uint32_t read_chunk_size(httpcli_ctx *ctx, httpcli_buffer *b, char **p)
{
    KD_ASSERT(ctx!=((void *)0));
    KD_ASSERT(b!=((void *)0));
    KD_ASSERT(p!=((void *)0));
    char *end = b->start + b->len;
    if (*p >= end) // header block ended exactly at the data end
        return 0;
    char *line = getheaderline(ctx, b, p, 0);
    if (line && *line == '\0' && *p < end) { // CR LF after the previous chunk's data
        kd_free(line);
        line = getheaderline(ctx, b, p, 0);
    }
    if (!line)
        return 0;
    uint32_t size = parse_chunk_size(line);
    kd_free(line);
    return size;
}

namespace {

// Status line and header block: the status with the cursor left on the body,
// or minus 1 or 3.
int parse_head(httpcli_ctx *ctx, httpcli_buffer *b, char **cur, http_result *res, bool *chunked)
{
    char *first = getheaderline(ctx, b, cur, 1);
    if (!first)
        return -HTTPCLI_NO_MEMORY;
    int status = parse_status(first);
    kd_free(first);
    if (status < 0)
        return -HTTPCLI_NO_CONNECTION;
    // Freed again at once so that a call without a record leaks nothing.
    http_result *own = nullptr;
    if (!res && !(res = own = static_cast<http_result *>(kd_calloc(1, sizeof(http_result)))))
        return -HTTPCLI_NO_MEMORY;
    clear_result(res);
    int rc = read_headers(ctx, b, cur, res, chunked);
    if (own) {
        clear_result(own);
        kd_free(own);
    }
    return rc ? -rc : status;
}

} // namespace

int strip_response(httpcli_ctx *ctx, httpcli_buffer *b, http_result *res)
{
    KD_ASSERT(ctx!=((void *)0));
    KD_ASSERT(b!=((void *)0));
    if (!b->start || b->len == 0) // the line reader needs at least one byte
        return HTTPCLI_NO_CONNECTION;
    char *cur = b->start;
    bool chunked = false;
    int status = parse_head(ctx, b, &cur, res, &chunked);
    if (status < 0)
        return -status;
    char *w = chunked ? compact_chunked(ctx, b, b->start, cur)
                      : compact_plain(b->start, cur, b->start + b->len);
    b->len = static_cast<uint32_t>(w - b->start);
    buffadd(ctx, b, "", 1);
    if (!b->start)
        return HTTPCLI_NO_MEMORY;
    b->len--;
    return status;
}
