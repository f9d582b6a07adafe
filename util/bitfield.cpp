// bitfield: a profile's read marks for one feed, kept one bit per item so the
// "read" attribute stays short; the hexadecimal text form stored in the
// configuration; and fnv_hash, which identifies the first item by its title.
#include "util/bitfield.h"

#include <cstdio>
#include <cstring>

#include "platform/slab.h"
#include "util/kd_log.h"
#include "util/kd_text.h"

void bf_init(bitfield *f)
{
    f->bits = nullptr;
    f->len = 0;
}

void bf_free(bitfield *f)
{
    if (!f || !f->bits)
        return; // release functions accept null, as everywhere in the daemon
    kd_free(f->bits);
    f->bits = nullptr;
    f->len = 0;
}

int bf_grow(bitfield *f, uint32_t newlen)
{
    // Only ever enlarges: copying the old bytes into a smaller array would
    // write past it, so a smaller or equal length keeps the marks as they are.
    if (newlen <= f->len)
        return 1;
    auto *bits = static_cast<uint8_t *>(kd_calloc(newlen, 1));
    if (!bits)
        return 0;
    if (f->bits)
        memcpy(bits, f->bits, f->len);
    kd_free(f->bits);
    f->bits = bits;
    f->len = newlen;
    return 1;
}

namespace {

bool bf_in_range(const bitfield *f, uint32_t n)
{
    return f->bits && n / 8 < f->len;
}

} // namespace

void bf_set(bitfield *f, uint32_t n)
{
    if (!bf_in_range(f, n) && !bf_grow(f, n / 8 + 1))
        return;
    f->bits[n / 8] |= static_cast<uint8_t>(1u << (n % 8));
}

void bf_clear(bitfield *f, uint32_t n)
{
    if (bf_in_range(f, n))
        f->bits[n / 8] &= static_cast<uint8_t>(~(1u << (n % 8)));
}

uint32_t bf_isset(const bitfield *f, uint32_t n)
{
    if (!bf_in_range(f, n))
        return 0;
    return f->bits[n / 8] & (1u << (n % 8));
}

int bf_is_empty(const bitfield *f)
{
    for (uint32_t i = 0; i < f->len; i++) {
        if (f->bits[i])
            return 0;
    }
    return 1;
}

int32_t bf_count(const bitfield *f)
{
    int32_t n = 0;
    for (uint32_t i = 0; i < f->len; i++) {
        uint32_t b = f->bits[i];
        uint32_t t = (b & 0x55) + ((b >> 1) & 0x55);
        uint32_t u = (t & 0x33) + ((t >> 2) & 0x33);
        n += static_cast<int32_t>((u & 0x0f) + (u >> 4));
    }
    return n;
}

void bf_copy(bitfield *dst, const bitfield *src)
{
    // With no destination the copy could never be seen by anybody, so none is
    // made (rather than leaking a record nobody can release).
    if (!dst)
        return;
    // An array dst held before belongs to its owner, who still holds it.
    dst->bits = nullptr;
    dst->len = 0;
    if (!src->len)
        return;
    auto *bits = static_cast<uint8_t *>(kd_calloc(src->len, 1));
    if (!bits)
        return;
    memcpy(bits, src->bits, src->len);
    dst->bits = bits;
    dst->len = src->len;
}

namespace {

// Moves whole bytes up; the bytes left below keep their old values on purpose.
void bf_shift_bytes(bitfield *f, uint32_t nbytes)
{
    // A distance past the whole array moves nothing (the byte count to move
    // would be negative); every byte then stays as it was, like those below.
    if (nbytes >= f->len)
        return;
    memmove(f->bits + nbytes, f->bits, f->len - nbytes);
}

void bf_shift_bits(bitfield *f, uint32_t distance)
{
    for (uint32_t i = f->len; i-- > 0;) {
        uint32_t w = static_cast<uint32_t>(f->bits[i]) << distance;
        if (i < f->len - 1)
            f->bits[i + 1] |= static_cast<uint8_t>(w >> 8);
        f->bits[i] = static_cast<uint8_t>(w & 0xff);
    }
}

} // namespace

void bf_shift(bitfield *f, uint32_t distance, uint32_t count)
{
    if (!f || !f->len)
        return; // a profile without marks stays without marks
    if (f->len < count / 8 + 1 && !bf_grow(f, count / 8 + 1))
        return;
    if (distance >= 8) {
        bf_shift_bytes(f, distance / 8);
        distance %= 8;
    }
    if (!distance)
        return;
    bf_shift_bits(f, distance);
    f->bits[f->len - 1] &= static_cast<uint8_t>((1u << (count % 8)) - 1);
}

namespace {

// A pair that is not two hexadecimal digits stores 0: an unreadable mark
// counts as unread rather than guessing.
uint8_t hex_pair(const char *p)
{
    int hi = kd_hex_digit(p[0]);
    int lo = kd_hex_digit(p[1]);
    if (hi < 0 || lo < 0)
        return 0;
    return static_cast<uint8_t>(hi * 16 + lo);
}

} // namespace

void bf_from_string(bitfield *f, const char *str)
{
    KD_ASSERT(f != ((void *)0));
    bf_free(f);
    if (!str || !*str)
        return;
    size_t half = strlen(str) / 2;
    if (half > UINT32_MAX || (f->len < half && !bf_grow(f, static_cast<uint32_t>(half))))
        return;
    for (size_t i = 0; i < half; i++)
        f->bits[i] = hex_pair(str + 2 * i);
}

void bf_to_string(char **str, const bitfield *f)
{
    KD_ASSERT(str != ((void *)0));
    KD_ASSERT(*str == ((void *)0));
    KD_ASSERT(f != ((void *)0));
    auto *s = static_cast<char *>(kd_calloc(static_cast<size_t>(f->len) * 2 + 1, 1));
    if (!s)
        return;
    static const char digits[] = "0123456789abcdef";
    for (uint32_t i = 0; i < f->len; i++) {
        s[2 * i] = digits[f->bits[i] >> 4];
        s[2 * i + 1] = digits[f->bits[i] & 0x0f];
    }
    *str = s;
}

uint32_t fnv_hash(const char *str)
{
    uint32_t h = 0;
    for (const auto *p = reinterpret_cast<const unsigned char *>(str); *p; p++) {
        h *= 16777619u;
        h ^= *p;
    }
    return h;
}
