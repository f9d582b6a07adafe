// dsldstat: answers "is the internet usable" from the kernel's routing tables
// at each call; it keeps no state and opens nothing between calls.
#include "platform/dsldstat.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr unsigned long kRtfUp = 0x0001;
constexpr unsigned long kRtfReject = 0x0200;
constexpr size_t kMaxFields = 12;

// Splits a line at white space into at most kMaxFields fields.
size_t split(std::string_view line, std::string_view *fields)
{
    size_t n = 0;
    size_t i = 0;
    while (n < kMaxFields) {
        while (i < line.size() && (line[i] == ' ' || line[i] == '\t' || line[i] == '\r'))
            i++;
        if (i >= line.size())
            break;
        size_t start = i;
        while (i < line.size() && line[i] != ' ' && line[i] != '\t' && line[i] != '\r')
            i++;
        fields[n++] = line.substr(start, i - start);
    }
    return n;
}

bool all_zero_hex(std::string_view s, size_t len)
{
    if (s.size() != len)
        return false;
    for (char c : s) {
        if (c != '0')
            return false;
    }
    return true;
}

bool parse_hex(std::string_view s, unsigned long *out)
{
    if (s.empty() || s.size() > 16)
        return false;
    unsigned long v = 0;
    for (char c : s) {
        int d = (c >= '0' && c <= '9') ? c - '0'
              : (c >= 'a' && c <= 'f') ? c - 'a' + 10
              : (c >= 'A' && c <= 'F') ? c - 'A' + 10 : -1;
        if (d < 0)
            return false;
        v = v * 16 + static_cast<unsigned long>(d);
    }
    *out = v;
    return true;
}

bool usable_flags(std::string_view field)
{
    unsigned long flags = 0;
    return parse_hex(field, &flags) && (flags & kRtfUp) && !(flags & kRtfReject);
}

template <typename LineFn>
int any_line(std::string_view text, LineFn fn)
{
    while (!text.empty()) {
        size_t nl = text.find('\n');
        std::string_view line = text.substr(0, nl);
        if (fn(line))
            return 1;
        if (nl == std::string_view::npos)
            break;
        text.remove_prefix(nl + 1);
    }
    return 0;
}

// Streams a /proc table line by line; lines longer than the buffer are
// cut, which no route line is.
template <typename LineFn>
int any_file_line(const char *path, LineFn fn)
{
    FILE *f = fopen(path, "re");
    if (!f)
        return 0;
    char buf[512];
    int found = 0;
    while (!found && fgets(buf, sizeof(buf), f)) {
        size_t len = strlen(buf);
        if (len && buf[len - 1] == '\n')
            len--;
        found = fn(std::string_view(buf, len));
    }
    fclose(f);
    return found;
}

} // namespace

// Iface Destination Gateway Flags RefCnt Use Metric Mask MTU Window IRTT
int dsldstat_route4_line_is_default(std::string_view line)
{
    std::string_view f[kMaxFields];
    if (split(line, f) < 8)
        return 0;
    return all_zero_hex(f[1], 8) && all_zero_hex(f[7], 8) && usable_flags(f[3]);
}

// Destination PrefixLen Source SrcPrefixLen NextHop Metric RefCnt Use Flags Iface
int dsldstat_route6_line_is_default(std::string_view line)
{
    std::string_view f[kMaxFields];
    if (split(line, f) < 10)
        return 0;
    return all_zero_hex(f[0], 32) && all_zero_hex(f[1], 2) && usable_flags(f[8]);
}

int dsldstat_parse_route4(std::string_view text)
{
    return any_line(text, [](std::string_view l) { return dsldstat_route4_line_is_default(l) != 0; });
}

int dsldstat_parse_route6(std::string_view text)
{
    return any_line(text, [](std::string_view l) { return dsldstat_route6_line_is_default(l) != 0; });
}

int dsldstat_init(void)
{
    return 0;
}

int dsldstat_internet_usable(void)
{
    if (any_file_line("/proc/net/route", dsldstat_route4_line_is_default))
        return 1;
    return any_file_line("/proc/net/ipv6_route", dsldstat_route6_line_is_default);
}

void dsldstat_exit(void) {}
