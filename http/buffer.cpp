// httpcli buffer: the growable byte buffer shared by requests and responses,
// the client's default settings and hooks, and the append helpers built on
// `buffadd`.
#include "http/httpcli.h"

#include <cstring>

#include "platform/slab.h"
#include "util/kd_log.h"

httpcli_ctx http_default_context = {nullptr, 8080, 2, 2.0f};
const char *http_extra_headers = "User-Agent: Lumora FeedReader\r\n";
const char *http_line_end = "\r\n";

namespace {

httpcli_hooks g_hooks = httpcli_default_hooks();

// Next allocation size: small buffers double, larger ones grow by at most one
// step so that a big feed does not reserve twice its size.
uint32_t next_size(uint32_t size, uint32_t n)
{
    if (size == 0)
        size = 128;
    uint64_t grown = n >= bufsizestep ? uint64_t(size) + n
                                      : uint64_t(size) + (size < bufsizestep ? size : bufsizestep);
    return grown > UINT32_MAX ? 0 : static_cast<uint32_t>(grown);
}

} // namespace

httpcli_hooks httpcli_default_hooks(void)
{
    return httpcli_hooks{HTTPCLI_FETCH_DEADLINE, nullptr};
}

void httpcli_set_hooks(const httpcli_hooks *hooks)
{
    g_hooks = hooks ? *hooks : httpcli_default_hooks();
}

const httpcli_hooks &httpcli_current_hooks(void)
{
    return g_hooks;
}

uint32_t buffadd(httpcli_ctx *ctx, httpcli_buffer *b, const void *data, uint32_t n)
{
    KD_ASSERT(ctx!=((void *)0));
    KD_ASSERT(b!=((void *)0));
    KD_ASSERT(n == 0 || data!=((void *)0));
    // A failed growth left size > len with no storage: appending would write
    // through a null pointer, so the buffer stays empty-handed.
    if (!b->start && b->size)
        return b->len;
    while (n >= b->size - b->len) {
        uint32_t want = next_size(b->size, n);
        void *p = want ? kd_realloc(b->start, want) : nullptr;
        b->size = want ? want : UINT32_MAX; // a size past 4 GiB cannot be had
        if (!p) {
            kd_free(b->start);
            b->start = nullptr;
            return b->len;
        }
        b->start = static_cast<char *>(p);
    }
    if (n)
        memcpy(b->start + b->len, data, n);
    b->len += n;
    return b->len;
}

uint32_t buffadd_str(httpcli_ctx *ctx, httpcli_buffer *b, const char *text)
{
    KD_ASSERT(ctx!=((void *)0));
    KD_ASSERT(b!=((void *)0));
    KD_ASSERT(text!=((void *)0));
    if (!*text)
        return b->len;
    return buffadd(ctx, b, text, static_cast<uint32_t>(strlen(text)));
}

uint32_t buffadd_word(httpcli_ctx *ctx, httpcli_buffer *b, const char *text)
{
    buffadd_str(ctx, b, text);
    return buffadd(ctx, b, " ", 1);
}

uint32_t buffadd_line(httpcli_ctx *ctx, httpcli_buffer *b, const char *text)
{
    buffadd_str(ctx, b, text);
    return buffadd_str(ctx, b, http_line_end);
}

uint32_t buffadd_int(httpcli_ctx *ctx, httpcli_buffer *b, int32_t value)
{
    char digits[12];
    char *p = digits + sizeof digits;
    int64_t v = value < 0 ? -int64_t(value) : int64_t(value);
    *--p = '\0';
    do {
        *--p = static_cast<char>('0' + v % 10);
        v /= 10;
    } while (v);
    if (value < 0)
        *--p = '-';
    return buffadd_str(ctx, b, p);
}

uint32_t buffadd_int_line(httpcli_ctx *ctx, httpcli_buffer *b, int32_t value)
{
    buffadd_int(ctx, b, value);
    return buffadd_str(ctx, b, http_line_end);
}
