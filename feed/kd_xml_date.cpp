// kd_xml date: reads the RFC 822 publication dates of RSS items ("pubDate")
// as local time, leniently: numbers are found wherever they are, the zone is
// ignored, and anything unreadable makes the caller use the parse time.
#include <cctype>
#include <cstdint>
#include <ctime>

#include "feed/kd_xml.h"

namespace {

bool is_digit(char c)
{
    return c >= '0' && c <= '9';
}

} // namespace

int kdx_read_number(const char **cursor)
{
    const char *p = *cursor;
    while (*p && !is_digit(*p))
        p++;
    if (!*p) {
        *cursor = p;
        return -1;
    }
    int n = *p++ - '0';
    if (is_digit(*p))
        n = n * 10 + (*p++ - '0');
    *cursor = p;
    return n;
}

namespace {

// Month 0-11 from the abbreviated English name at p, or -1. Reads a later
// letter only while the earlier ones are there, never past the terminator.
int month_of(const char *p)
{
    char c2 = p[0] ? p[1] : '\0';
    char c3 = c2 ? p[2] : '\0';
    switch (p[0]) {
    case 'A': return c2 == 'p' ? 3 : c2 == 'u' ? 7 : -1;
    case 'D': return 11;
    case 'F': return 1;
    case 'J': return c2 == 'a' ? 0 : c3 == 'n' ? 5 : c3 == 'l' ? 6 : -1;
    case 'M': return c3 == 'r' ? 2 : c3 == 'y' ? 4 : -1;
    case 'N': return 10;
    case 'O': return 9;
    case 'S': return 8;
    default: return -1;
    }
}

const char *skip_chars(const char *p, int n)
{
    while (n-- > 0 && *p)
        p++;
    return p;
}

// Year: four digits as two numbers, else a two-digit year around 1969.
int read_year(const char **cursor)
{
    int year = kdx_read_number(cursor);
    if (year < 0)
        return -1;
    if (is_digit(**cursor))
        return year * 100 + kdx_read_number(cursor);
    return year < 69 ? 2000 + year : 1900 + year;
}

} // namespace

int32_t kdx_parse_date(const char *text)
{
    const char *p = text;
    struct tm tm = {};
    tm.tm_mday = kdx_read_number(&p);
    if (tm.tm_mday < 0)
        return -1;
    while (*p && !isalpha(static_cast<unsigned char>(*p)))
        p++;
    tm.tm_mon = month_of(p);
    if (tm.tm_mon < 0)
        return -1;
    p = skip_chars(p, 3);
    int year = read_year(&p);
    if (year < 0)
        return -1;
    tm.tm_year = year - 1900;
    tm.tm_hour = kdx_read_number(&p);
    tm.tm_min = kdx_read_number(&p);
    if (tm.tm_hour < 0 || tm.tm_min < 0)
        return -1;
    tm.tm_sec = kdx_read_number(&p);
    if (tm.tm_sec < 0)
        tm.tm_sec = 0;
    tm.tm_isdst = -1; // the system decides about daylight saving
    time_t t = mktime(&tm);
    // Dates a 32-bit time cannot hold count as unreadable, like mktime's -1.
    if (t == static_cast<time_t>(-1) || t > INT32_MAX || t < INT32_MIN)
        return -1;
    return static_cast<int32_t>(t);
}
