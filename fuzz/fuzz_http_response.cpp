// fuzz_http_response: a feed server's raw response (status line, headers,
// plain or chunked body) through the response stripping.
#include <cstring>

#include "fuzz/fuzz_check.h"
#include "http/httpcli.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size > HTTPCLI_MAX_RESPONSE)
        return 0;
    size_t live = slab_live_count();
    httpcli_ctx ctx = http_default_context;
    httpcli_buffer b{};
    // Appended as received: the buffer's size invariant comes from buffadd.
    buffadd(&ctx, &b, data, static_cast<uint32_t>(size));
    FUZZ_CHECK(size == 0 || b.start != nullptr);
    uint32_t len_in = b.len;
    http_result res{};
    int rc = strip_response(&ctx, &b, &res);
    // The body never grows; after a real status it is NUL-terminated for
    // the XML loader (small results are also the client's error codes).
    FUZZ_CHECK(b.len <= len_in);
    if (rc >= 100)
        FUZZ_CHECK(b.start && b.len < b.size && b.start[b.len] == '\0');
    kd_free(res.location);
    kd_free(res.content_type);
    kd_free(res.content_encoding);
    kd_free(b.start);
    fuzz_expect_no_leak(live);
    return 0;
}
