// fuzz_fetch_wire: bytes from a fetching child's pipe through the daemon's
// reader, delivered in pieces as a pipe may deliver them (the first byte
// picks the piece size). A complete message must hand over parts of the
// lengths it announced, each bounded and terminated; nothing may leak.
#include <algorithm>
#include <cstring>
#include <syslog.h>

#include "fuzz/fuzz_check.h"
#include "refresh/kd_fetch_wire.h"

namespace {

void count_line(int prio, const char *text)
{
    FUZZ_CHECK(prio >= 0 && prio <= LOG_DEBUG);
    FUZZ_CHECK(strlen(text) <= 1023);
}

// Feeds the reader; false as soon as it refuses the bytes.
bool feed(kd_fetch_reader *r, const uint8_t *data, size_t size, size_t piece)
{
    while (size > 0) {
        char *dst = nullptr;
        size_t want = kd_fetch_want(r, &dst);
        if (want == 0)
            return false; // a byte after the message: too much
        size_t n = std::min({want, piece, size});
        memcpy(dst, data, n);
        if (!kd_fetch_got(r, n))
            return false;
        data += n;
        size -= n;
    }
    return true;
}

void check_taken(kd_fetch_reader *r)
{
    httpcli_buffer resp{};
    http_result res{};
    kd_fetch_take(r, &resp, &res);
    FUZZ_CHECK(resp.len <= KD_FETCH_PART_MAX);
    FUZZ_CHECK(!resp.start || resp.start[resp.len] == '\0');
    FUZZ_CHECK(!resp.start || resp.size == resp.len + 1);
    for (char *s : {res.content_type, res.location, res.content_encoding})
        FUZZ_CHECK(!s || strlen(s) <= KD_FETCH_PART_MAX);
    kd_fetch_release(&resp, &res);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0)
        return 0;
    size_t live = slab_live_count();
    size_t piece = 1 + data[0] % 64;
    kd_fetch_reader r{};
    if (feed(&r, data + 1, size - 1, piece) && kd_fetch_complete(&r)) {
        kd_fetch_each_log(&r, count_line);
        check_taken(&r);
    }
    kd_fetch_reader_free(&r);
    fuzz_expect_no_leak(live);
    return 0;
}
