// fuzz_bitfield: a "read" attribute as found in a configuration document,
// shifted by a number of new items and written back, as a refresh does.
#include <cstring>
#include <string>

#include "fuzz/fuzz_check.h"
#include "util/bitfield.h"

namespace {

// Feeds hold far fewer items than this; it keeps the marks small.
constexpr uint32_t kMaxItems = 1u << 16;

uint32_t read_u16(const uint8_t *p)
{
    return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8;
}

bool is_hex(char c)
{
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

// Text form of what bf_from_string should have stored for str.
std::string expected_text(const std::string &str)
{
    std::string out;
    for (size_t i = 0; i + 1 < str.size(); i += 2) {
        if (!is_hex(str[i]) || !is_hex(str[i + 1])) {
            out += "00";
            continue;
        }
        out += static_cast<char>(tolower(static_cast<unsigned char>(str[i])));
        out += static_cast<char>(tolower(static_cast<unsigned char>(str[i + 1])));
    }
    return out;
}

std::string text_of(const bitfield *f)
{
    char *s = nullptr;
    bf_to_string(&s, f);
    FUZZ_CHECK(s != nullptr);
    std::string out = s;
    kd_free(s);
    return out;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 4)
        return 0;
    uint32_t distance = read_u16(data) % kMaxItems;
    uint32_t count = read_u16(data + 2) % kMaxItems;
    std::string attr(reinterpret_cast<const char *>(data + 4), size - 4);
    attr = attr.c_str(); // an attribute value ends at its first NUL
    size_t live = slab_live_count();
    bitfield f;
    bf_init(&f);
    bf_from_string(&f, attr.c_str());
    FUZZ_CHECK(f.len == attr.size() / 2);
    FUZZ_CHECK(text_of(&f) == expected_text(attr));
    uint32_t len_before = f.len;
    bf_shift(&f, distance, count);
    // Marks are never lost by growing, and the count of items always fits.
    FUZZ_CHECK(f.len >= len_before);
    if (len_before)
        FUZZ_CHECK(f.len >= count / 8 + 1);
    std::string shifted = text_of(&f);
    FUZZ_CHECK(shifted.size() == size_t{f.len} * 2);
    bitfield g;
    bf_init(&g);
    bf_from_string(&g, shifted.c_str());
    FUZZ_CHECK(g.len == f.len && (f.len == 0 || memcmp(f.bits, g.bits, f.len) == 0));
    bf_free(&g);
    bf_free(&f);
    fuzz_expect_no_leak(live);
    return 0;
}
