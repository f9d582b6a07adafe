// The one JSON shape kelp-web reads: a flat object of strings and unsigned
// numbers, as the page sends it. Anything else is refused, not repaired.
#include "wire.h"

namespace kweb {

namespace {

struct reader {
    std::string_view s;
    size_t pos = 0;

    void skip_space()
    {
        while (pos < s.size() && (s[pos] == ' ' || s[pos] == '\t' || s[pos] == '\n' || s[pos] == '\r'))
            pos++;
    }
    bool eat(char c)
    {
        skip_space();
        if (pos >= s.size() || s[pos] != c)
            return false;
        pos++;
        return true;
    }
};

int hex_digit(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

void append_utf8(std::string *out, unsigned cp)
{
    if (cp < 0x80) {
        out->push_back(static_cast<char>(cp));
    } else if (cp < 0x800) {
        out->push_back(static_cast<char>(0xc0 | (cp >> 6)));
        out->push_back(static_cast<char>(0x80 | (cp & 0x3f)));
    } else {
        out->push_back(static_cast<char>(0xe0 | (cp >> 12)));
        out->push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3f)));
        out->push_back(static_cast<char>(0x80 | (cp & 0x3f)));
    }
}

// \uXXXX of the basic plane; surrogates are refused (the page sends none).
bool read_unicode_escape(reader *r, std::string *out)
{
    if (r->pos + 4 > r->s.size())
        return false;
    unsigned cp = 0;
    for (int k = 0; k < 4; k++) {
        int d = hex_digit(r->s[r->pos++]);
        if (d < 0)
            return false;
        cp = cp * 16 + static_cast<unsigned>(d);
    }
    if (cp >= 0xd800 && cp <= 0xdfff)
        return false;
    append_utf8(out, cp);
    return true;
}

bool read_escape(reader *r, std::string *out)
{
    if (r->pos >= r->s.size())
        return false;
    char c = r->s[r->pos++];
    switch (c) {
    case '"': case '\\': case '/': out->push_back(c); return true;
    case 'b': out->push_back('\b'); return true;
    case 'f': out->push_back('\f'); return true;
    case 'n': out->push_back('\n'); return true;
    case 'r': out->push_back('\r'); return true;
    case 't': out->push_back('\t'); return true;
    case 'u': return read_unicode_escape(r, out);
    default: return false;
    }
}

bool read_string(reader *r, std::string *out)
{
    if (!r->eat('"'))
        return false;
    while (r->pos < r->s.size()) {
        unsigned char c = static_cast<unsigned char>(r->s[r->pos++]);
        if (c == '"')
            return true;
        if (c < 0x20)
            return false;
        if (c != '\\')
            out->push_back(static_cast<char>(c));
        else if (!read_escape(r, out))
            return false;
    }
    return false;
}

bool read_value(reader *r, json_member *m)
{
    r->skip_space();
    if (r->pos < r->s.size() && r->s[r->pos] == '"')
        return read_string(r, &m->text);
    size_t start = r->pos;
    while (r->pos < r->s.size() && r->s[r->pos] >= '0' && r->s[r->pos] <= '9')
        r->pos++;
    m->is_number = true;
    return parse_u32(r->s.substr(start, r->pos - start), &m->number);
}

} // namespace

bool json_parse_object(std::string_view text, std::vector<json_member> *out)
{
    reader r{text};
    out->clear();
    if (!r.eat('{'))
        return false;
    if (r.eat('}')) {
        r.skip_space();
        return r.pos == text.size();
    }
    do {
        if (out->size() == kMaxJsonMembers)
            return false;
        json_member m;
        if (!read_string(&r, &m.key) || !r.eat(':') || !read_value(&r, &m))
            return false;
        out->push_back(std::move(m));
    } while (r.eat(','));
    if (!r.eat('}'))
        return false;
    r.skip_space();
    return r.pos == text.size();
}

const json_member *json_find(const std::vector<json_member> &obj, std::string_view key)
{
    for (const json_member &m : obj)
        if (m.key == key)
            return &m;
    return nullptr;
}

} // namespace kweb
