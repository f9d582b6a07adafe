// kelpctl's output for people: the feed table, an overview as a table of
// items with their read state, one readable line per message for watch,
// and the decoding of the daemon's texts for a terminal.
#include "kelpctl.h"

#include "util/kd_utf8.h"

#include <cstdio>
#include <string_view>

namespace kelpctl {

namespace {

// A control character as \xNN: C0, DEL and the C1 range, whichever way
// the field was encoded.
bool is_control(uint32_t cp)
{
    return cp < 0x20 || (cp >= 0x7f && cp < 0xa0);
}

std::string escaped_byte(uint32_t c)
{
    char hex[8];
    snprintf(hex, sizeof(hex), "\\x%02x", static_cast<unsigned>(c));
    return hex;
}

// Calls f with each character of a valid UTF-8 text: its code point and bytes.
template <typename F>
void each_char(const std::string &utf8, F f)
{
    auto *p = reinterpret_cast<const unsigned char *>(utf8.data());
    for (size_t i = 0; i < utf8.size();) {
        uint32_t cp = 0;
        size_t len = kd_utf8_char(p + i, utf8.size() - i, &cp);
        len = len ? len : 1; // cannot happen after kd_wire_text; never loop
        f(cp, std::string_view(utf8).substr(i, len));
        i += len;
    }
}

// A flag of the overview's state number as a table cell.
struct item_flags {
    const char *read, *encl, *img;
};

item_flags flags_of(const std::string &state, int api)
{
    uint32_t s = 0;
    if (!parse_u32(state, &s))
        return {"?", "?", "?"};
    const char *read = (s & 1) ? "yes" : "no";
    if (api < 3)
        return {read, "-", "-"};
    return {read, (s & 2) ? "yes" : "no", (s & 4) ? "yes" : "no"};
}

// "state=5(read,image)": the number and, when set, what its flags say.
std::string state_words(const std::string &state, int api)
{
    uint32_t s = 0;
    if (!parse_u32(state, &s) || s == 0)
        return "";
    std::string words;
    const char *names[] = {"read", "enclosure", "image"};
    for (unsigned bit = 0; bit < 3; bit++) {
        if ((s & (1u << bit)) && (bit == 0 || api >= 3))
            words += std::string(words.empty() ? "" : ",") + names[bit];
    }
    return words.empty() ? "" : "(" + words + ")";
}

// A value in a pretty line: quoted when it is empty or has a space or quote.
std::string quoted(const std::string &value)
{
    std::string text = readable(value, false);
    if (!text.empty() && text.find_first_of(" \"") == std::string::npos)
        return text;
    std::string out = "\"";
    for (char ch : text)
        out += ch == '"' ? std::string("\\\"") : std::string(1, ch);
    return out + "\"";
}

std::string key_value(const std::string &field, bool overview, int api)
{
    size_t colon = field.find(':');
    if (colon == std::string::npos)
        return quoted(field);
    std::string key = field.substr(0, colon), value = field.substr(colon + 1);
    std::string out = readable(key, false) + "=" + quoted(value);
    return overview && key == "state" ? out + state_words(value, api) : out;
}

std::string or_unknown(const std::string &text)
{
    return text.empty() ? "?" : readable(text, false);
}

} // namespace

std::string readable(const std::string &text, bool multiline)
{
    std::string out;
    each_char(kd_wire_text(text), [&](uint32_t cp, std::string_view bytes) {
        if (cp == '\n' || cp == '\t')
            out += multiline ? std::string(bytes) : " ";
        else if (cp == '\r')
            out += multiline ? "" : " ";
        else if (is_control(cp))
            out += escaped_byte(cp);
        else
            out += bytes;
    });
    return out;
}

std::string visible(const std::string &text)
{
    std::string out;
    std::vector<std::string> fields = split_fields(text);
    for (size_t i = 0; i < fields.size(); i++) {
        if (i > 0)
            out += "\\t";
        each_char(kd_wire_text(fields[i]), [&](uint32_t cp, std::string_view bytes) {
            if (cp == '\\')
                out += "\\\\";
            else if (is_control(cp))
                out += escaped_byte(cp);
            else
                out += bytes;
        });
    }
    return out;
}

void print_feeds(const std::vector<feed_row> &rows)
{
    size_t width = 7; // "FEED_ID"
    for (const feed_row &r : rows)
        width = r.id.size() > width ? r.id.size() : width;
    printf("%-*s  %s\n", static_cast<int>(width), "FEED_ID", "NAME");
    for (const feed_row &r : rows)
        printf("%-*s  %s\n", static_cast<int>(width), readable(r.id, false).c_str(),
               readable(r.name, false).c_str());
    fflush(stdout);
}

void print_overview(const feed_row &feed, const overview *ov, int api)
{
    std::string title = "feed " + or_unknown(feed.id);
    if (!feed.name.empty())
        title += " (" + readable(feed.name, false) + ")";
    if (!ov || ov->items.empty()) {
        printf("%s: no items yet\n", title.c_str());
        return;
    }
    printf("%s: %s item%s, %s new\n", title.c_str(), or_unknown(ov->number).c_str(), ov->number == "1" ? "" : "s",
           or_unknown(ov->number_new).c_str());
    size_t width = 3; // "UID"
    for (const overview_item &it : ov->items)
        width = readable(it.uid, false).size() > width ? readable(it.uid, false).size() : width;
    const int w = static_cast<int>(width);
    printf("%-*s  READ  ENCL  IMG  SUBJECT\n", w, "UID");
    for (const overview_item &it : ov->items) {
        item_flags fl = flags_of(it.state, api);
        printf("%-*s  %-4s  %-4s  %-3s  %s\n", w, readable(it.uid, false).c_str(), fl.read, fl.encl, fl.img,
               readable(it.subject, false).c_str());
    }
}

std::string pretty_line(const std::string &text, int api)
{
    std::vector<std::string> f = split_fields(text);
    if (text.empty())
        return "(empty message)";
    std::string out = readable(f[0], false);
    size_t next = 1;
    // An answer-form message names its command and, when refused, the error.
    if ((f[0] == "OK" || f[0] == "ERROR") && f.size() > 1)
        out += " " + readable(f[next++], false);
    if (f[0] == "ERROR" && f.size() > 2)
        out += " " + readable(f[next++], false);
    for (size_t i = next; i < f.size(); i++)
        out += " " + key_value(f[i], f[0] == "overview", api);
    return out;
}

} // namespace kelpctl
