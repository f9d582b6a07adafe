// UTF-8 checks and the decoding of kelpd's wire texts (see kd_utf8.h).
#include "util/kd_utf8.h"

size_t kd_utf8_char(const unsigned char *p, size_t n, uint32_t *cp)
{
    if (n == 0)
        return 0;
    size_t len = p[0] < 0x80 ? 1 : (p[0] >> 5) == 6 ? 2 : (p[0] >> 4) == 14 ? 3 : (p[0] >> 3) == 30 ? 4 : 0;
    if (!len || len > n)
        return 0;
    uint32_t v = len == 1 ? p[0] : p[0] & (0x7fu >> len);
    for (size_t i = 1; i < len; i++) {
        if ((p[i] & 0xc0) != 0x80)
            return 0;
        v = v << 6 | (p[i] & 0x3fu);
    }
    static const uint32_t least[] = {0, 0, 0x80, 0x800, 0x10000};
    if (v < least[len] || v > 0x10ffff || (v >= 0xd800 && v <= 0xdfff))
        return 0;
    *cp = v;
    return len;
}

bool kd_utf8_valid(std::string_view text)
{
    auto *p = reinterpret_cast<const unsigned char *>(text.data());
    for (size_t i = 0; i < text.size();) {
        uint32_t cp;
        size_t len = kd_utf8_char(p + i, text.size() - i, &cp);
        if (!len)
            return false;
        i += len;
    }
    return true;
}

void kd_latin1_to_utf8(std::string_view latin1, std::string *out)
{
    for (unsigned char c : latin1) {
        if (c < 0x80) {
            out->push_back(static_cast<char>(c));
            continue;
        }
        out->push_back(static_cast<char>(0xc0 | (c >> 6)));
        out->push_back(static_cast<char>(0x80 | (c & 0x3f)));
    }
}

std::string kd_wire_text(std::string_view field)
{
    if (kd_utf8_valid(field))
        return std::string(field);
    std::string out;
    out.reserve(field.size() + field.size() / 4);
    kd_latin1_to_utf8(field, &out);
    return out;
}
