// charset: Latin-1 <-> UTF-8 conversion. The UTF-8 decoder is strict: a
// sequence is a lead byte and the continuation bytes its bit pattern asks for
// (the old five- and six-byte forms included); a sequence that is truncated,
// overlong, a surrogate, beyond U+10FFFF or beyond U+00FF becomes one
// fallback character, and so does every stray continuation byte or 0xFE/0xFF.
#include "platform/charset.h"

#include "platform/slab.h"

#include <cstring>

namespace {

bool is_cont(unsigned char c)
{
    return (c & 0xC0) == 0x80;
}

// Length a lead byte announces, and the payload bits it carries; 0 for a
// byte that cannot start a sequence.
int lead_length(unsigned char c, unsigned long *bits)
{
    static const struct { unsigned char mask, value; int len; } leads[] = {
        {0xE0, 0xC0, 2}, {0xF0, 0xE0, 3}, {0xF8, 0xF0, 4}, {0xFC, 0xF8, 5}, {0xFE, 0xFC, 6},
    };
    for (const auto &l : leads) {
        if ((c & l.mask) == l.value) {
            *bits = c & static_cast<unsigned char>(~l.mask);
            return l.len;
        }
    }
    return 0;
}

// Smallest code point that needs a sequence of each length.
unsigned long min_for_length(int len)
{
    static const unsigned long mins[] = {0, 0, 0x80, 0x800, 0x10000, 0x200000, 0x4000000};
    return mins[len];
}

// Decodes one multi-byte sequence at p; returns the bytes consumed and sets
// *cp to the code point, or to ~0 when the sequence is invalid.
size_t decode(const unsigned char *p, unsigned long *cp)
{
    unsigned long v = 0;
    int len = lead_length(p[0], &v);
    if (len == 0) {
        *cp = ~0ul;
        return 1;
    }
    int i = 1;
    for (; i < len && is_cont(p[i]); i++)
        v = (v << 6) | (p[i] & 0x3F);
    bool bad = i < len || v < min_for_length(len) || v > 0x10FFFF || (v >= 0xD800 && v <= 0xDFFF);
    *cp = bad ? ~0ul : v;
    return static_cast<size_t>(i);
}

} // namespace

char *ConvertStringFromISO8859_1ToUTF8_WithAlloc(const char *latin1)
{
    if (!latin1)
        return nullptr;
    size_t len = 0;
    for (const unsigned char *p = reinterpret_cast<const unsigned char *>(latin1); *p; p++)
        len += *p < 0x80 ? 1 : 2;
    auto *out = static_cast<char *>(kd_malloc(len + 1));
    if (!out)
        return nullptr;
    char *o = out;
    for (const unsigned char *p = reinterpret_cast<const unsigned char *>(latin1); *p; p++) {
        if (*p < 0x80) {
            *o++ = static_cast<char>(*p);
            continue;
        }
        *o++ = static_cast<char>(0xC0 | (*p >> 6));
        *o++ = static_cast<char>(0x80 | (*p & 0x3F));
    }
    *o = '\0';
    return out;
}

int ConvertStringFromUTF8ToISO8859_1_With_Fallback(char *text, char fallback)
{
    if (!text)
        return 0;
    auto *in = reinterpret_cast<unsigned char *>(text);
    char *out = text;
    while (*in) {
        if (*in < 0x80) {
            *out++ = static_cast<char>(*in++);
            continue;
        }
        unsigned long cp = 0;
        in += decode(in, &cp);
        *out++ = cp <= 0xFF ? static_cast<char>(cp) : fallback;
    }
    *out = '\0';
    return 1;
}
