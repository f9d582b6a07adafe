// fuzz_date: an item's "pubDate" text through the date reading. The text is
// read as it comes; its numbers must stay in range and the cursor must never
// pass the terminator. A well-formed date made from the input's first bytes
// must come back as exactly the time it names.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "feed/kd_xml.h"
#include "fuzz/fuzz_check.h"

namespace {

const char *const kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                               "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

// Dates are local time; UTC makes every run read them the same way.
void use_utc_once()
{
    static bool done = false;
    if (done)
        return;
    setenv("TZ", "UTC", 1);
    tzset();
    done = true;
}

// Every number read lies in 0..99 and the cursor only moves forward, ending
// on the terminator once -1 is returned.
void check_numbers(const char *text, size_t len)
{
    const char *p = text;
    for (;;) {
        const char *before = p;
        int n = kdx_read_number(&p);
        FUZZ_CHECK(p >= before && p <= text + len);
        if (n < 0) {
            FUZZ_CHECK(*p == '\0');
            return;
        }
        FUZZ_CHECK(n <= 99 && p > before);
    }
}

// The RFC 822 form of a date picked by six input bytes reads back exactly.
void check_round_trip(const uint8_t *d)
{
    struct tm tm = {};
    tm.tm_mon = d[0] % 12;
    tm.tm_mday = 1 + d[1] % 28;
    tm.tm_year = 70 + d[2] % 68; // 1970..2037: within a signed 32-bit time
    tm.tm_hour = d[3] % 24;
    tm.tm_min = d[4] % 60;
    tm.tm_sec = d[5] % 60;
    char text[64];
    snprintf(text, sizeof text, "Tue, %02d %s %04d %02d:%02d:%02d GMT", tm.tm_mday,
             kMonths[tm.tm_mon], tm.tm_year + 1900, tm.tm_hour, tm.tm_min, tm.tm_sec);
    time_t want = timegm(&tm);
    FUZZ_CHECK(kdx_parse_date(text) == static_cast<int32_t>(want));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    use_utc_once();
    // pubDate texts are copies of at most the copy limit, NUL-terminated.
    size_t len = size < kdx_copy_limit ? size : kdx_copy_limit;
    auto *text = static_cast<char *>(malloc(len + 1));
    FUZZ_CHECK(text != nullptr);
    memcpy(text, data, len);
    text[len] = '\0';
    size_t live = slab_live_count();
    int32_t t = kdx_parse_date(text);
    // -1 is refusal; anything else is a time mktime accepted.
    if (t != -1) {
        time_t tt = t;
        struct tm out;
        FUZZ_CHECK(gmtime_r(&tt, &out) != nullptr);
    }
    check_numbers(text, strlen(text));
    if (size >= 6)
        check_round_trip(data);
    fuzz_expect_no_leak(live);
    free(text);
    return 0;
}
